// Camera RAW files, all DNGs from tests/support/dng_writer: which picture the
// preview writer takes, its rotation step and failure codes, the JPEG writer
// behind the decode, the RAW metadata reader, and the RAW entry routes.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <tuple>

#include "dng_writer.h"
#include "metadata/metadata.h"
#include "raw/raw.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

constexpr int kW = kDngSensorWidth, kH = kDngSensorHeight;

long size_of(const std::string &path)  // -1: no such file
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? long(st.st_size) : -1;
}

enum Corner { top_left, top_right, bottom_left, bottom_right, no_corner };

// The size, and the one corner showing the red mark, sampled an eighth of
// each side in.
std::tuple<int, int, Corner> seen(const std::string &path)
{
    const Picture p = read_jpeg(path);
    int found = no_corner, count = 0;
    for (int i = 0; i < 4 && p.width >= 8 && p.height >= 8; ++i) {
        const int x = i & 1 ? p.width - 1 - p.width / 8 : p.width / 8;
        const int y = i & 2 ? p.height - 1 - p.height / 8 : p.height / 8;
        if (is_reddish(p.at(x, y), p.components))
            found = i, ++count;
    }
    return {p.width, p.height, count == 1 ? Corner(found) : no_corner};
}

image_metadata filled_with(uint8_t byte)
{
    image_metadata m;
    std::memset(&m, byte, sizeof m);
    return m;
}

DngOptions sized(int width, int height) { return {.preview_width = width, .preview_height = height}; }

// Missing files, outputs in missing folders and full disks are the fault
// suite's (tests/test_faults.cpp).
TEST(Preview, TakesTurnsOrRefuses)
{
    enum Source { dng, text };
    const DngOptions bare{.preview = DngPreview::none}, bitmap{.preview = DngPreview::bitmap};
    const struct {
        const char *name;
        Source source;
        DngOptions dng;
        int32_t force_decode, xform, min_side;  // min_side -1: the exported entry and its 1920
        int32_t rc;
        int width, height;  // a failure's width: the size of what it leaves, -1 for nothing
        Corner red;
    } cases[] = {
        {"1920 preview, not turned", dng, sized(1920, 1280), 0, 6, -1, 0, 1920, 1280, top_left},
        {"portrait, by its height", dng, sized(1280, 1920), 0, 0, -1, 0, 1280, 1920, top_left},
        {"1919 preview: decoded", dng, sized(1919, 1280), 0, 0, -1, 0, kW, kH, top_left},
        {"force_decode; decode turned", dng, sized(1920, 1280), 1, 6, -1, 0, kW, kH, bottom_right},
        {"xform 1, a mirror, not done", dng, bare, 0, 1, -1, 0, kW, kH, top_left},
        {"xform 2 done", dng, bare, 0, 2, -1, 0, kW, kH, bottom_left},
        {"xform 5 exchanges the sides", dng, bare, 0, 5, -1, 0, kH, kW, top_right},
        // The thumbnail entry's staging: any embedded JPEG serves.
        {"staging takes a small preview", dng, {}, 0, 0, 0, 0, 60, 40, top_left},
        {"bitmap preview never used", dng, bitmap, 0, 0, 0, 0, kW, kH, top_left},
        // A preview whose data lies past the end spoils the handle for the
        // decode too; the writer has to reopen the file to fall through.
        {"damaged preview", dng, {.damaged_preview = true}, 0, 0, 0, 0, kW, kH, top_left},
        {"text file", text, {}, 0, 0, -1, -1, -1, 0, no_corner},
        {"one-colour decode", dng, {.cfa = false}, 1, 0, -1, -4, 0, 0, no_corner},
        // A failed decode is not passed to the rotation.
        {"one-colour decode, xform 6", dng, {.cfa = false}, 1, 6, -1, -1, 0, 0, no_corner},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string raw = dir.path("photo.dng");
        const std::string jpeg = dir.path("p.jpg");
        ASSERT_TRUE(c.source == text ? write_file(raw, {'t', 'e', 'x'}) : write_dng(raw, c.dng));
        const char *r = raw.c_str(), *j = jpeg.c_str();
        EXPECT_EQ(c.min_side < 0 ? image_raw_to_preview_jpeg(r, j, c.force_decode, c.xform, 85)
                                 : image_raw_preview(r, j, c.force_decode, c.xform, 85, c.min_side),
                  c.rc);
        if (c.rc == 0)
            EXPECT_EQ(seen(jpeg), std::tuple(c.width, c.height, c.red));
        else
            EXPECT_EQ(size_of(jpeg), c.width);
        EXPECT_EQ(size_of(jpeg + ".tmp"), -1);
    }
}

// The turned file is jpeg_path + ".tmp": up to the longest path the system
// takes it works; one character more is refused before anything is written.
TEST(Preview, LongOutputPathsFitOrFailCleanly)
{
    TempDir dir;
    const std::string raw = dir.path("l.dng");
    ASSERT_TRUE(write_dng(raw, {.preview = DngPreview::none}));
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
    EXPECT_EQ(seen(fits), std::tuple(kW, kH, bottom_right));
    EXPECT_EQ(size_of(fits + ".tmp"), -1);
    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), too_long.c_str(), 1, 6, 85), -1);
    EXPECT_EQ(size_of(too_long), -1);
    // Without a rotation the name of the turned file is never needed.
    EXPECT_EQ(image_raw_to_preview_jpeg(raw.c_str(), too_long.c_str(), 1, 0, 85), 0);
}

// A flat 16 x 16 picture of one sample value through the writer, decoded
// back: its centre value, or -1000 + the writer's result.
int through_writer(int32_t maxval, uint32_t sample, int32_t width = 16)
{
    const std::vector<uint16_t> wide(size_t(width) * 16 * 3, uint16_t(sample));
    const std::vector<uint8_t> narrow(wide.begin(), wide.end());
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    const void *samples = maxval > 255 ? static_cast<const void *>(wide.data()) : narrow.data();
    const int32_t rc = image_rgb_to_jpeg(f, width, 16, maxval, samples, 100);
    std::fclose(f);
    const Picture p = decode_jpeg(std::vector<uint8_t>(buf, buf + len));
    std::free(buf);
    return rc != 0 ? -1000 + rc : p.width == 16 ? p.at(8, 8)[0] : -1;
}

TEST(RgbToJpeg, RescalesEachSampleFormOrRefuses)
{
    const struct { int32_t maxval; uint32_t sample; int expected; } rows[] = {
        {255, 200, 200}, {65535, 65535, 255}, {65535, 32768, 128}, {65535, 257, 1},
        {1023, 512, 128}, {1023, 4000, 255}, {15, 7, 119}, {15, 200, 255}, {1, 1, 255},
        {0, 9, -1001}, {65536, 9, -1001}};
    for (const auto &r : rows)
        EXPECT_NEAR(through_writer(r.maxval, r.sample), r.expected, 1)
            << "maxval " << r.maxval << " sample " << r.sample;
    EXPECT_EQ(through_writer(255, 9, 0), -1001);
}

// Reserved bytes included, in any time zone: LibRaw and the reader both
// work in local time.
TEST(RawMetadata, FillsTheWholeRecord)
{
    image_metadata want = filled_with(0);
    want.width = kW;
    want.height = kH;
    std::strcpy(want.date_time, "2021:06:15 14:30:45");
    std::strcpy(want.make, "Qbcam");
    std::strcpy(want.model, "QB-1");
    want.exposure_time = {1000, 250000};  // 1/250 s
    want.orientation_valid = 1;           // LibRaw's flip 0
    want.f_number = {3, 1};               // f/2.8, whole
    want.iso = 400;
    want.iso_valid = want.flash = want.flash_valid = 1;
    want.focal_length = {50, 1};
    TempDir dir;
    ASSERT_TRUE(write_dng(dir.path("m.dng"), {}));
    const std::string old_tz = std::getenv("TZ") ? std::getenv("TZ") : "";
    for (const char *zone : {"UTC0", "EST5EDT,M3.2.0,M11.1.0", "JST-9"}) {
        setenv("TZ", zone, 1), tzset();
        image_metadata got = filled_with(0xAB);
        EXPECT_EQ(image_metadata_from_raw(dir.path("m.dng").c_str(), &got), 0);
        EXPECT_STREQ(got.date_time, want.date_time) << zone;
        EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0) << zone;
    }
    old_tz.empty() ? unsetenv("TZ") : setenv("TZ", old_tz.c_str(), 1), tzset();
}

// Both entries show a turned RAW upright. The staging preview, embedded or
// decoded, comes out in the stored orientation, so the thumbnail is turned
// exactly once; LibRaw reports Exif 1 as flip 0 and 8 as flip 5, and the
// record needs 8.
TEST(RawEntries, TurnedRawsComeOutUpright)
{
    TempDir dir;
    const std::string raw = dir.path("t.dng"), thumb = dir.path("t.jpg"), staged = dir.path("s.jpg");
    for (uint16_t orientation : {1, 3, 6, 8})
        for (DngPreview form : {DngPreview::jpeg, DngPreview::none}) {
            SCOPED_TRACE("orientation " + std::to_string(orientation) +
                         (form == DngPreview::jpeg ? " from the preview" : " decoded"));
            // Larger than the box and of the upright aspect: nothing is padded.
            ASSERT_TRUE(write_dng(raw, {.preview = form, .preview_width = 240,
                                        .preview_height = 160, .orientation = orientation}));
            const bool turned = orientation > 4;
            const int w = turned ? 64 : 96, h = turned ? 96 : 64, sw = form == DngPreview::jpeg ? 240 : kW;
            ASSERT_EQ(easy_image_create_thumb(raw.c_str(), thumb.c_str(), w, h, 90, 0), 0);
            EXPECT_EQ(seen(thumb), std::tuple(w, h, top_left));
            ASSERT_EQ(image_raw_preview(raw.c_str(), staged.c_str(), 0, 0, 85, 0), 0);
            const Corner stored = orientation == 3 ? bottom_right : orientation == 6 ? bottom_left
                                : orientation == 8 ? top_right : top_left;
            EXPECT_EQ(seen(staged), std::tuple(sw, sw * 2 / 3, stored));

            std::string log;
            const image_ctx ctx{&log, nullptr, nullptr, capture_log, 0, 1, 2, 3};
            image_metadata m = filled_with(0xAB);
            EXPECT_EQ(image_get_metadata(&ctx, raw.c_str(), IMAGE_MEDIA_RAW, &m), 0);
            EXPECT_EQ(std::tuple(m.orientation, m.orientation_valid, m.width, m.height, log),
                      std::tuple(uint16_t(orientation == 1 ? 0 : orientation), uint16_t(1),
                                 uint32_t(turned ? kH : kW), uint32_t(turned ? kW : kH), ""));
        }
}

TEST(RawEntries, RefusedFilesAreCode9AndLeaveARecordOfZeros)
{
    TempDir dir;
    ASSERT_TRUE(write_file(dir.path("text.dng"), {'t', 'e', 'x', 't', '\n'}));
    ASSERT_TRUE(write_file(dir.path("empty.dng"), {}));
    const image_metadata zeros = filled_with(0);
    for (const char *name : {"text.dng", "empty.dng", "missing.dng"}) {
        const std::string raw = dir.path(name), thumb = raw + ".jpg";
        image_metadata meta = filled_with(0xAB);
        EXPECT_EQ(image_metadata_from_raw(raw.c_str(), &meta), -1) << name;
        EXPECT_EQ(std::memcmp(&meta, &zeros, sizeof meta), 0) << name;
        EXPECT_EQ(image_get_metadata(nullptr, raw.c_str(), IMAGE_MEDIA_RAW, &meta), 9) << name;
        EXPECT_EQ(easy_image_create_thumb(raw.c_str(), thumb.c_str(), 64, 64, 85, 0), 9) << name;
        EXPECT_EQ(size_of(thumb), -1) << name;
    }
    EXPECT_EQ(image_metadata_from_raw(dir.path("text.dng").c_str(), nullptr), 0);
}

}  // namespace
