// Camera RAW files: the preview writer (embedded JPEG or full decode, the
// rotation step), the JPEG writer behind the decode, the RAW metadata
// reader, and the RAW routes of the two entry points. Every RAW file is a
// DNG written by tests/support/dng_writer.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dng_writer.h"
#include "image_raw.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// ---- helpers ----

bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

long file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
}

enum class Corner { top_left, top_right, bottom_left, bottom_right, none };

const char *corner_name(Corner c)
{
    static const char *names[] = {"top-left", "top-right", "bottom-left",
                                  "bottom-right", "none or several"};
    return names[int(c)];
}

// The one corner of the picture that shows the red mark, sampled an eighth
// of each side in from the edges.
Corner red_corner(const Picture &p)
{
    if (p.width < 8 || p.height < 8)
        return Corner::none;
    const int x0 = p.width / 8, x1 = p.width - 1 - p.width / 8;
    const int y0 = p.height / 8, y1 = p.height - 1 - p.height / 8;
    const bool red[4] = {is_reddish(p.at(x0, y0), p.components),
                         is_reddish(p.at(x1, y0), p.components),
                         is_reddish(p.at(x0, y1), p.components),
                         is_reddish(p.at(x1, y1), p.components)};
    int found = -1;
    for (int i = 0; i < 4; ++i)
        if (red[i]) {
            if (found >= 0)
                return Corner::none;
            found = i;
        }
    return found < 0 ? Corner::none : Corner(found);
}

// Where a camera stores the corner that is top-left when upright.
Corner stored_corner(int orientation)
{
    switch (orientation) {
    case 3: return Corner::bottom_right;
    case 6: return Corner::bottom_left;
    case 8: return Corner::top_right;
    default: return Corner::top_left;
    }
}

// The sensor size used throughout: small, so that a full decode is quick,
// and unlike every preview size below.
constexpr int kSensorW = 120;
constexpr int kSensorH = 80;

DngOptions with_preview(DngPreview kind, int width, int height)
{
    DngOptions o;
    o.preview = kind;
    o.preview_width = width;
    o.preview_height = height;
    return o;
}

struct Sized {
    int width;
    int height;
};

// ---------------------------------------------------------------------------
// Which picture the preview writer takes
// ---------------------------------------------------------------------------

// Rows with this minimum go through the exported entry and its 1920.
constexpr int32_t kExported = -1;

struct ChoiceCase {
    const char *name;
    DngOptions dng;
    int32_t force_decode;
    int32_t min_side;
    Sized expected;  // the preview's size, or the sensor's for a decode
};

std::vector<ChoiceCase> choice_cases()
{
    const Sized sensor{kSensorW, kSensorH};
    DngOptions damaged = with_preview(DngPreview::jpeg, 60, 40);
    damaged.damaged_preview = true;
    return {
        {"preview_2000_used", with_preview(DngPreview::jpeg, 2000, 1333), 0,
         kExported, {2000, 1333}},
        {"preview_at_minimum_used", with_preview(DngPreview::jpeg, 1920, 1280),
         0, kExported, {1920, 1280}},
        {"portrait_preview_judged_by_height",
         with_preview(DngPreview::jpeg, 1280, 1920), 0,
         kExported, {1280, 1920}},
        {"preview_1600_decoded", with_preview(DngPreview::jpeg, 1600, 1067), 0,
         kExported, sensor},
        {"force_decode_skips_big_preview",
         with_preview(DngPreview::jpeg, 2000, 1333), 1,
         kExported, sensor},
        {"bitmap_preview_never_used",
         with_preview(DngPreview::bitmap, 2000, 1333), 0,
         kExported, sensor},
        {"no_preview_decoded", with_preview(DngPreview::none, 0, 0), 0,
         kExported, sensor},
        // The thumbnail entry's staging: any embedded JPEG serves.
        {"staging_takes_small_preview", with_preview(DngPreview::jpeg, 60, 40),
         0, 0, {60, 40}},
        {"staging_without_preview_decodes", with_preview(DngPreview::none, 0, 0),
         0, 0, sensor},
        {"staging_bitmap_only_decodes", with_preview(DngPreview::bitmap, 60, 40),
         0, 0, sensor},
        {"staging_forced_decode", with_preview(DngPreview::jpeg, 60, 40), 1, 0,
         sensor},
        // A preview whose data lies past the end spoils the handle for the
        // decode too; the writer has to reopen the file to fall through.
        {"damaged_preview_falls_through", damaged, 0, 0, sensor},
    };
}

class PreviewChoice : public ::testing::TestWithParam<ChoiceCase> {};

TEST_P(PreviewChoice, TakesTheRightPictureInEitherByteOrder)
{
    const ChoiceCase &c = GetParam();
    for (bool big_endian : {false, true}) {
        SCOPED_TRACE(big_endian ? "big-endian" : "little-endian");
        TempDir dir;
        DngOptions dng = c.dng;
        dng.big_endian = big_endian;
        const std::string raw = dir.path("photo.dng");
        const std::string jpeg = dir.path("preview.jpg");
        ASSERT_TRUE(write_dng(raw, dng));

        EXPECT_EQ(c.min_side == kExported
                      ? image_raw_to_preview_jpeg(raw.c_str(), jpeg.c_str(),
                                                  c.force_decode, 0, 85)
                      : image_raw_preview(raw.c_str(), jpeg.c_str(),
                                          c.force_decode, 0, 85, c.min_side),
                  IMAGE_RAW_OK);
        const Picture out = read_jpeg(jpeg);
        EXPECT_EQ(out.width, c.expected.width);
        EXPECT_EQ(out.height, c.expected.height);
        EXPECT_EQ(out.components, 3);
        EXPECT_EQ(red_corner(out), Corner::top_left) << corner_name(red_corner(out));
    }
}

INSTANTIATE_TEST_SUITE_P(Raw, PreviewChoice, ::testing::ValuesIn(choice_cases()),
                         [](const auto &param_info) { return std::string(param_info.param.name); });

TEST(PreviewChoice, EmbeddedPreviewReadsNoSensorData)
{
    // The sensor strip is cut off: a decode fails, the preview does not.
    TempDir dir;
    std::vector<uint8_t> bytes = build_dng(with_preview(DngPreview::jpeg, 2000, 1333));
    bytes.resize(bytes.size() - size_t(kSensorW) * kSensorH * 2 + 100);
    const std::string raw = dir.path("cut.dng");
    const std::string jpeg = dir.path("cut.jpg");
    ASSERT_TRUE(write_file(raw, bytes));

    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), jpeg.c_str(), 0, 0, 85), 0);
    EXPECT_EQ(read_jpeg(jpeg).width, 2000);
    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), jpeg.c_str(), 1, 0, 85), -1);
}

// Both staged forms of a turned RAW come out as the sensor stored them, so
// that whoever turns them afterwards turns them once.
TEST(PreviewChoice, BothFormsKeepTheStoredOrientation)
{
    TempDir dir;
    for (int orientation : {1, 3, 6, 8})
        for (int32_t force : {0, 1}) {
            SCOPED_TRACE("orientation " + std::to_string(orientation) +
                         (force ? " decoded" : " preview"));
            DngOptions dng = with_preview(DngPreview::jpeg, 60, 40);
            dng.orientation = uint16_t(orientation);
            const std::string raw = dir.path("o.dng");
            const std::string jpeg = dir.path("o.jpg");
            ASSERT_TRUE(write_dng(raw, dng));
            ASSERT_EQ(image_raw_preview(raw.c_str(), jpeg.c_str(), force, 0, 85, 0), 0);
            const Picture out = read_jpeg(jpeg);
            EXPECT_EQ(out.width, force ? kSensorW : 60);
            EXPECT_EQ(out.height, force ? kSensorH : 40);
            EXPECT_EQ(red_corner(out), stored_corner(orientation))
                << corner_name(red_corner(out));
        }
}

// ---------------------------------------------------------------------------
// The rotation step
// ---------------------------------------------------------------------------

struct RotationCase {
    const char *name;
    DngPreview preview;  // jpeg: a 2000 x 1333 preview, which is taken
    int32_t xform;
    Sized expected;
    Corner red;
};

class PreviewRotation : public ::testing::TestWithParam<RotationCase> {};

TEST_P(PreviewRotation, TurnsOnlyADecodeAndLeavesNoTemporaryFile)
{
    const RotationCase &c = GetParam();
    TempDir dir;
    const std::string raw = dir.path("r.dng");
    const std::string jpeg = dir.path("r.jpg");
    ASSERT_TRUE(write_dng(raw, with_preview(c.preview, 2000, 1333)));

    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), jpeg.c_str(), 0, c.xform, 85), 0);
    const Picture out = read_jpeg(jpeg);
    EXPECT_EQ(out.width, c.expected.width);
    EXPECT_EQ(out.height, c.expected.height);
    EXPECT_EQ(red_corner(out), c.red) << corner_name(red_corner(out));
    EXPECT_FALSE(exists(jpeg + ".tmp"));
}

INSTANTIATE_TEST_SUITE_P(
    Raw, PreviewRotation,
    ::testing::Values(
        RotationCase{"none", DngPreview::none, 0, {kSensorW, kSensorH}, Corner::top_left},
        RotationCase{"mirror_not_carried_out", DngPreview::none, 1,
                     {kSensorW, kSensorH}, Corner::top_left},
        RotationCase{"flip_v", DngPreview::none, 2, {kSensorW, kSensorH},
                     Corner::bottom_left},
        RotationCase{"rot_90", DngPreview::none, 5, {kSensorH, kSensorW},
                     Corner::top_right},
        RotationCase{"rot_180", DngPreview::none, 6, {kSensorW, kSensorH},
                     Corner::bottom_right},
        RotationCase{"rot_270", DngPreview::none, 7, {kSensorH, kSensorW},
                     Corner::bottom_left},
        RotationCase{"embedded_preview_never_turned", DngPreview::jpeg, 6,
                     {2000, 1333}, Corner::top_left}),
    [](const auto &param_info) { return std::string(param_info.param.name); });

// The name of the turned file is jpeg_path with ".tmp" behind it. Up to
// the longest path the system takes it works; one character more is
// refused before anything is written, never cut short.
TEST(PreviewRotation, LongOutputPathsFitOrFailCleanly)
{
    TempDir dir;
    const std::string raw = dir.path("l.dng");
    ASSERT_TRUE(write_dng(raw, with_preview(DngPreview::none, 0, 0)));

    const size_t longest = PATH_MAX - 1 - 4;  // room for ".tmp"
    std::string deep = dir.dir();
    while (longest - deep.size() - 1 > 250) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(mkdir(deep.c_str(), 0700), 0);
    }
    const size_t name = longest - deep.size() - 1;
    const std::string fits = deep + "/" + std::string(name - 4, 'f') + ".jpg";
    const std::string too_long = deep + "/" + std::string(name - 3, 'f') + ".jpg";
    ASSERT_EQ(fits.size(), longest);

    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), fits.c_str(), 1, 6, 85), 0);
    EXPECT_EQ(red_corner(read_jpeg(fits)), Corner::bottom_right);
    EXPECT_FALSE(exists(fits + ".tmp"));

    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), too_long.c_str(), 1, 6, 85), -1);
    EXPECT_FALSE(exists(too_long));
    // Without a rotation the name of the turned file is never needed.
    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), too_long.c_str(), 1, 0, 85), 0);
}

// ---------------------------------------------------------------------------
// Failures of the preview writer
// ---------------------------------------------------------------------------

enum class Source { dng, big_preview, no_cfa, text, empty, missing };
enum class Output { file_in_dir, missing_dir };
enum class Left { nothing, empty_file };

struct FailureCase {
    const char *name;
    Source source;
    Output output;
    int32_t force_decode;
    int32_t xform;
    int32_t expected;
    Left left;
};

class PreviewFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(PreviewFailure, ReturnsItsCodeAndLeavesOnlyWhatItOpened)
{
    const FailureCase &c = GetParam();
    TempDir dir;
    const std::string raw = dir.path("f.dng");
    DngOptions no_cfa;
    no_cfa.cfa = false;
    switch (c.source) {
    case Source::dng: ASSERT_TRUE(write_dng(raw, DngOptions())); break;
    case Source::big_preview:
        ASSERT_TRUE(write_dng(raw, with_preview(DngPreview::jpeg, 2000, 1333)));
        break;
    case Source::no_cfa: ASSERT_TRUE(write_dng(raw, no_cfa)); break;
    case Source::text: {
        const std::string text = "not a camera file\n";
        ASSERT_TRUE(write_file(raw, std::vector<uint8_t>(text.begin(), text.end())));
        break;
    }
    case Source::empty: ASSERT_TRUE(write_file(raw, {})); break;
    case Source::missing: break;
    }
    const std::string jpeg = c.output == Output::missing_dir
                                 ? dir.path("no/such/dir/out.jpg")
                                 : dir.path("out.jpg");

    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), jpeg.c_str(), c.force_decode,
                                        c.xform, 85),
              c.expected);
    if (c.left == Left::nothing)
        EXPECT_FALSE(exists(jpeg));
    else
        EXPECT_EQ(file_size(jpeg), 0);
    EXPECT_FALSE(exists(jpeg + ".tmp"));
}

INSTANTIATE_TEST_SUITE_P(
    Raw, PreviewFailure,
    ::testing::Values(
        FailureCase{"text_file", Source::text, Output::file_in_dir, 0, 0, -1, Left::nothing},
        FailureCase{"empty_file", Source::empty, Output::file_in_dir, 0, 0, -1, Left::nothing},
        FailureCase{"missing_file", Source::missing, Output::file_in_dir, 0, 6, -1,
                    Left::nothing},
        FailureCase{"output_unwritable", Source::dng, Output::missing_dir, 1, 0, -2,
                    Left::nothing},
        // The preview cannot be written either; the decode reports it.
        FailureCase{"output_unwritable_big_preview", Source::big_preview,
                    Output::missing_dir, 0, 0, -2, Left::nothing},
        FailureCase{"one_colour_decode", Source::no_cfa, Output::file_in_dir, 1, 0, -4,
                    Left::empty_file},
        // A failed decode is not passed to the rotation: the result is -1
        // and no temporary file is made from the empty output.
        FailureCase{"one_colour_decode_with_rotation", Source::no_cfa,
                    Output::file_in_dir, 1, 6, -1, Left::empty_file},
        FailureCase{"output_unwritable_with_rotation", Source::dng,
                    Output::missing_dir, 1, 5, -1, Left::nothing}),
    [](const auto &param_info) { return std::string(param_info.param.name); });

// ---------------------------------------------------------------------------
// The JPEG writer
// ---------------------------------------------------------------------------

// A flat picture of one sample value through the writer, decoded back.
int flat_through_writer(int32_t maxval, uint32_t sample)
{
    constexpr int kSide = 16;
    std::vector<uint8_t> bytes;
    for (int i = 0; i < kSide * kSide * 3; ++i) {
        if (maxval > 255) {
            const auto v = uint16_t(sample);
            uint8_t b[2];
            std::memcpy(b, &v, 2);  // the machine's order
            bytes.insert(bytes.end(), b, b + 2);
        } else {
            bytes.push_back(uint8_t(sample));
        }
    }
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    const int32_t rc = image_rgb_to_jpeg(f, kSide, kSide, maxval, bytes.data(), 100);
    std::fclose(f);
    std::vector<uint8_t> jpeg(buf, buf + len);
    std::free(buf);
    if (rc != 0)
        return -1000 + rc;
    const Picture p = decode_jpeg(jpeg);
    return p.width == kSide ? p.at(8, 8)[0] : -1;
}

TEST(RgbToJpeg, RescalesEachSampleFormToBytes)
{
    const struct {
        int32_t maxval;
        uint32_t sample;
        int expected;
    } rows[] = {
        {255, 0, 0},      {255, 200, 200},    {255, 255, 255},   // plain copy
        {65535, 0, 0},    {65535, 65535, 255}, {65535, 32768, 128},
        {65535, 257, 1},  {1023, 1023, 255},   {1023, 512, 128},
        {1023, 4000, 255},  // above maxval: held to it
        {15, 15, 255},    {15, 7, 119},        {15, 1, 17},
        {15, 200, 255},   {1, 1, 255},          {1, 0, 0},
    };
    for (const auto &r : rows) {
        const int got = flat_through_writer(r.maxval, r.sample);
        EXPECT_NEAR(got, r.expected, 1) << "maxval " << r.maxval << " sample " << r.sample;
    }
}

TEST(RgbToJpeg, RefusesWhatItCannotWrite)
{
    const std::vector<uint8_t> samples(64 * 3, 128);
    const struct {
        const char *name;
        int32_t width, height, maxval;
    } rows[] = {
        {"zero width", 0, 8, 255},       {"negative height", 8, -1, 255},
        {"maxval zero", 8, 8, 0},        {"maxval over 16 bits", 8, 8, 65536},
    };
    for (const auto &r : rows) {
        char *buf = nullptr;
        size_t len = 0;
        FILE *f = open_memstream(&buf, &len);
        EXPECT_EQ(image_rgb_to_jpeg(f, r.width, r.height, r.maxval, samples.data(), 85), -1)
            << r.name;
        std::fclose(f);
        EXPECT_EQ(len, 0u) << r.name;
        std::free(buf);
    }
}

// libjpeg's fatal errors come back as -1 through the writer's own record.
TEST(RgbToJpeg, LibjpegErrorsAreAnOrderlyFailure)
{
    const Picture pic = make_picture(64, 64, 3);
    FILE *full = std::fopen("/dev/full", "wb");
    ASSERT_NE(full, nullptr);
    EXPECT_EQ(image_rgb_to_jpeg(full, 64, 64, 255, pic.pixels.data(), 85), -1);
    std::fclose(full);

    // Wider than JPEG allows.
    const std::vector<uint8_t> row(size_t(70000) * 3, 100);
    FILE *f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(image_rgb_to_jpeg(f, 70000, 1, 255, row.data(), 85), -1);
    std::fclose(f);
}

// ---------------------------------------------------------------------------
// RAW metadata
// ---------------------------------------------------------------------------

// Sets TZ for a scope; LibRaw and the reader both work in local time.
class ScopedTz {
public:
    explicit ScopedTz(const char *tz)
    {
        const char *old = std::getenv("TZ");
        had_ = old != nullptr;
        if (had_)
            old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ScopedTz()
    {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    ScopedTz(const ScopedTz &) = delete;
    ScopedTz &operator=(const ScopedTz &) = delete;

private:
    bool had_ = false;
    std::string old_;
};

image_metadata filled_with(uint8_t byte)
{
    image_metadata m;
    std::memset(&m, byte, sizeof m);
    return m;
}

// The record the reader gives for the default test DNG, all else zero.
image_metadata default_record()
{
    image_metadata m;
    std::memset(&m, 0, sizeof m);
    m.width = kSensorW;
    m.height = kSensorH;
    std::strcpy(m.date_time, "2021:06:15 14:30:45");
    std::strcpy(m.make, "Qbcam");
    std::strcpy(m.model, "QB-1");
    m.exposure_time = {1000, 250000};  // 1/250 s
    m.orientation = 0;                  // LibRaw's flip 0
    m.orientation_valid = 1;
    m.f_number = {3, 1};                // f/2.8, whole
    m.iso = 400;
    m.iso_valid = 1;
    m.flash = 1;
    m.flash_valid = 1;
    m.focal_length = {50, 1};
    return m;
}

void expect_records_equal(const image_metadata &got, const image_metadata &want)
{
    EXPECT_EQ(got.width, want.width);
    EXPECT_EQ(got.height, want.height);
    EXPECT_STREQ(got.date_time, want.date_time);
    EXPECT_STREQ(got.make, want.make);
    EXPECT_STREQ(got.model, want.model);
    EXPECT_EQ(got.exposure_time.numerator, want.exposure_time.numerator);
    EXPECT_EQ(got.exposure_time.denominator, want.exposure_time.denominator);
    EXPECT_EQ(got.orientation, want.orientation);
    EXPECT_EQ(got.orientation_valid, want.orientation_valid);
    EXPECT_EQ(got.f_number.numerator, want.f_number.numerator);
    EXPECT_EQ(got.f_number.denominator, want.f_number.denominator);
    EXPECT_EQ(got.iso, want.iso);
    EXPECT_EQ(got.iso_valid, want.iso_valid);
    EXPECT_EQ(got.flash, want.flash);
    EXPECT_EQ(got.flash_valid, want.flash_valid);
    EXPECT_EQ(got.focal_length.numerator, want.focal_length.numerator);
    EXPECT_EQ(got.focal_length.denominator, want.focal_length.denominator);
    // Everything else, reserved areas and padding included, as wanted.
    EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0);
}

TEST(RawMetadata, FillsTheRecordFieldByFieldInEitherByteOrder)
{
    ScopedTz tz("UTC0");
    for (bool big_endian : {false, true}) {
        SCOPED_TRACE(big_endian ? "big-endian" : "little-endian");
        TempDir dir;
        DngOptions dng;
        dng.big_endian = big_endian;
        ASSERT_TRUE(write_dng(dir.path("m.dng"), dng));
        image_metadata meta = filled_with(0xAB);
        ASSERT_EQ(image_metadata_from_raw(dir.path("m.dng").c_str(), &meta), 0);
        expect_records_equal(meta, default_record());
    }
}

TEST(RawMetadata, OrientationFromLibrawsFlip)
{
    // Exif orientation in the file -> the record's. LibRaw reports 1 as 0
    // and 8 as 5; 8 is what the record needs to stand the picture upright.
    const struct {
        uint16_t exif;
        uint16_t expected;
    } rows[] = {{1, 0}, {3, 3}, {6, 6}, {8, 8}, {0, 0}};
    TempDir dir;
    for (const auto &r : rows) {
        DngOptions dng;
        dng.orientation = r.exif;
        ASSERT_TRUE(write_dng(dir.path("o.dng"), dng));
        image_metadata meta = filled_with(0xAB);
        ASSERT_EQ(image_metadata_from_raw(dir.path("o.dng").c_str(), &meta), 0);
        EXPECT_EQ(meta.orientation, r.expected) << "Exif " << r.exif;
        EXPECT_EQ(meta.orientation_valid, 1);
        // The reader leaves the stored size; the entry exchanges it.
        EXPECT_EQ(meta.width, uint32_t(kSensorW));
        EXPECT_EQ(meta.height, uint32_t(kSensorH));
    }
}

TEST(RawMetadata, ExposureApertureAndFocalLengthInWholeUnits)
{
    const struct {
        std::pair<uint32_t, uint32_t> exposure, f_number, focal;
        uint16_t iso, flash;
        uint32_t exposure_den, f_num, focal_num;
    } rows[] = {
        {{1, 250}, {28, 10}, {50, 1}, 400, 1, 250000, 3, 50},
        {{1, 3}, {56, 10}, {45, 10}, 100, 16, 3000, 6, 5},  // halves away from 0
        {{2, 1}, {14, 10}, {244, 10}, 0, 0, 500, 1, 24},
        {{1, 8000}, {16, 1}, {600, 1}, 65535, 25, 8000000, 16, 600},
        {{0, 1}, {0, 1}, {0, 1}, 100, 0, 0, 0, 0},  // no shutter: 1000/0
    };
    TempDir dir;
    for (const auto &r : rows) {
        DngOptions dng;
        dng.exposure = r.exposure;
        dng.f_number = r.f_number;
        dng.focal_length = r.focal;
        dng.iso = r.iso;
        dng.flash = r.flash;
        ASSERT_TRUE(write_dng(dir.path("e.dng"), dng));
        image_metadata meta;
        ASSERT_EQ(image_metadata_from_raw(dir.path("e.dng").c_str(), &meta), 0);
        SCOPED_TRACE("exposure " + std::to_string(r.exposure.first) + "/" +
                     std::to_string(r.exposure.second));
        EXPECT_EQ(meta.exposure_time.numerator, 1000u);
        EXPECT_EQ(meta.exposure_time.denominator, r.exposure_den);
        EXPECT_EQ(meta.f_number.numerator, r.f_num);
        EXPECT_EQ(meta.f_number.denominator, 1u);
        EXPECT_EQ(meta.focal_length.numerator, r.focal_num);
        EXPECT_EQ(meta.focal_length.denominator, 1u);
        EXPECT_EQ(meta.iso, r.iso);
        EXPECT_EQ(meta.iso_valid, 1);
        EXPECT_EQ(meta.flash, r.flash);
        EXPECT_EQ(meta.flash_valid, 1);
    }
}

TEST(RawMetadata, WithoutExifTheFieldsAreZeroButFlagged)
{
    ScopedTz tz("UTC0");
    TempDir dir;
    DngOptions dng;
    dng.exif = false;
    ASSERT_TRUE(write_dng(dir.path("n.dng"), dng));
    image_metadata meta = filled_with(0x5A);
    ASSERT_EQ(image_metadata_from_raw(dir.path("n.dng").c_str(), &meta), 0);
    image_metadata want = default_record();
    want.exposure_time = {1000, 0};
    want.f_number = {0, 1};
    want.focal_length = {0, 1};
    want.iso = 0;
    want.flash = 0;  // both flags stay 1
    expect_records_equal(meta, want);  // the date comes from IFD0
}

TEST(RawMetadata, DateInLocalTime)
{
    const struct {
        const char *tz;
        bool dated;
        const char *expected;
    } rows[] = {
        {"UTC0", true, "2021:06:15 14:30:45"},
        {"EST5EDT,M3.2.0,M11.1.0", true, "2021:06:15 14:30:45"},
        {"UTC0", false, "1970:01:01 00:00:00"},  // no date: the epoch
        {"EST5", false, "1969:12:31 19:00:00"},
        {"JST-9", false, "1970:01:01 09:00:00"},
    };
    TempDir dir;
    for (const auto &r : rows) {
        ScopedTz tz(r.tz);
        DngOptions dng;
        if (!r.dated) {
            dng.date.clear();
            dng.date_original.clear();
        }
        ASSERT_TRUE(write_dng(dir.path("d.dng"), dng));
        image_metadata meta;
        ASSERT_EQ(image_metadata_from_raw(dir.path("d.dng").c_str(), &meta), 0);
        EXPECT_STREQ(meta.date_time, r.expected) << r.tz;
    }
}

TEST(RawMetadata, RefusedFilesLeaveARecordOfZeros)
{
    TempDir dir;
    const std::string text = "plain text, named like a camera file\n";
    ASSERT_TRUE(write_file(dir.path("text.dng"), std::vector<uint8_t>(text.begin(), text.end())));
    ASSERT_TRUE(write_file(dir.path("empty.dng"), {}));
    image_metadata zeros;
    std::memset(&zeros, 0, sizeof zeros);
    for (const char *name : {"text.dng", "empty.dng", "missing.dng"}) {
        image_metadata meta = filled_with(0xAB);
        EXPECT_EQ(image_metadata_from_raw(dir.path(name).c_str(), &meta), -1) << name;
        EXPECT_EQ(std::memcmp(&meta, &zeros, sizeof meta), 0) << name;
    }
    EXPECT_EQ(image_metadata_from_raw(dir.path("text.dng").c_str(), nullptr), 0);
}

// ---------------------------------------------------------------------------
// Entry points: these need the RAW routes of easy_image_create_thumb and
// image_get_metadata to be wired in.
// ---------------------------------------------------------------------------

struct LogLine {
    int32_t code;
    int32_t line;
};

void capture_log(int32_t, void *user, int32_t code, const char *, int32_t line,
                 const char *, ...)
{
    static_cast<std::vector<LogLine> *>(user)->push_back({code, line});
}

TEST(RawMetadataEntry, TurnedRawsGiveTheUprightSize)
{
    const struct {
        uint16_t exif;
        uint16_t orientation;
        uint32_t width, height;
    } rows[] = {{1, 0, kSensorW, kSensorH},
                {3, 3, kSensorW, kSensorH},
                {6, 6, kSensorH, kSensorW},
                {8, 8, kSensorH, kSensorW}};
    TempDir dir;
    for (const auto &r : rows) {
        DngOptions dng;
        dng.orientation = r.exif;
        ASSERT_TRUE(write_dng(dir.path("t.dng"), dng));
        std::vector<LogLine> lines;
        const image_ctx ctx{&lines, nullptr, nullptr, capture_log, 0, 1, 2, 3};
        image_metadata meta = filled_with(0xAB);
        ASSERT_EQ(image_get_metadata(&ctx, dir.path("t.dng").c_str(), IMAGE_MEDIA_RAW, &meta),
                  IMAGE_RC_OK)
            << "Exif " << r.exif;
        EXPECT_EQ(meta.orientation, r.orientation);
        EXPECT_EQ(meta.orientation_valid, 1);
        EXPECT_EQ(meta.width, r.width);
        EXPECT_EQ(meta.height, r.height);
        EXPECT_STREQ(meta.make, "Qbcam");
        EXPECT_TRUE(lines.empty());
    }
}

TEST(RawMetadataEntry, RefusedFileIsCode9WithLine64)
{
    TempDir dir;
    const std::string text = "text\n";
    ASSERT_TRUE(write_file(dir.path("x.dng"), std::vector<uint8_t>(text.begin(), text.end())));
    std::vector<LogLine> lines;
    const image_ctx ctx{&lines, nullptr, nullptr, capture_log, 0, 1, 2, 3};
    image_metadata meta = filled_with(0xAB);
    EXPECT_EQ(image_get_metadata(&ctx, dir.path("x.dng").c_str(), IMAGE_MEDIA_RAW, &meta),
              IMAGE_RC_FAILED);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].code, IMAGE_RC_FAILED);
    EXPECT_EQ(lines[0].line, 64);
    EXPECT_EQ(meta.orientation_valid, 0);
}

// Both staging forms, for every orientation: the thumbnail stands upright,
// turned exactly once by the RAW file's orientation.
TEST(RawThumbnailEntry, UprightForEveryOrientationByBothStagingForms)
{
    const std::string staged = "/tmp/preview." + std::to_string(unsigned(getpid()));
    TempDir dir;
    for (DngPreview form : {DngPreview::jpeg, DngPreview::none, DngPreview::bitmap})
        for (int orientation : {1, 3, 6, 8}) {
            SCOPED_TRACE("orientation " + std::to_string(orientation) +
                         (form == DngPreview::jpeg ? " from the preview" : " decoded"));
            // Both sources are larger than the box, so nothing is padded.
            DngOptions dng = with_preview(form, 240, 160);
            dng.orientation = uint16_t(orientation);
            const std::string raw = dir.path("t.dng");
            const std::string thumb = dir.path("t.jpg");
            ASSERT_TRUE(write_dng(raw, dng));
            std::remove(staged.c_str());

            const bool turned = orientation == 6 || orientation == 8;
            const int w = turned ? 64 : 96;  // the upright aspect: no padding
            const int h = turned ? 96 : 64;
            ASSERT_EQ(easy_image_create_thumb(raw.c_str(), thumb.c_str(), w, h, 90, 0), 0);
            const Picture out = read_jpeg(thumb);
            EXPECT_EQ(out.width, w);
            EXPECT_EQ(out.height, h);
            EXPECT_EQ(red_corner(out), Corner::top_left) << corner_name(red_corner(out));
            // The staged JPEG is left behind, in the stored orientation.
            EXPECT_EQ(red_corner(read_jpeg(staged)), stored_corner(orientation));
        }
    std::remove(staged.c_str());
}

TEST(RawThumbnailEntry, UnreadableRawIsCode9)
{
    TempDir dir;
    const std::string text = "text\n";
    ASSERT_TRUE(write_file(dir.path("x.dng"), std::vector<uint8_t>(text.begin(), text.end())));
    EXPECT_EQ(easy_image_create_thumb(dir.path("x.dng").c_str(), dir.path("x.jpg").c_str(),
                                      64, 64, 85, 0),
              IMAGE_RC_FAILED);
    EXPECT_FALSE(exists(dir.path("x.jpg")));
}

}  // namespace
