// Photo metadata: the Exif reader, the frame-header probe and the entry that
// reconciles them. Every JPEG and Exif block is made here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <map>

#include "exif_writer.h"
#include "image_metadata.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

using Bytes = std::vector<uint8_t>;

enum : uint16_t {  // tags
    kImageWidth = 256, kImageLength = 257, kDescription = 270, kMake = 271, kModel = 272,
    kOrientation = 274, kSoftware = 305, kExposureTime = 33434, kFNumber = 33437,
    kExposureProgram = 34850, kIsoSpeed = 34855, kDateOriginal = 36867, kDateDigitized = 36868,
    kShutterSpeed = 37377, kAperture = 37378, kMeteringMode = 37383, kFlash = 37385,
    kFocalLength = 37386, kSubSecOriginal = 37521, kSubSecDigitized = 37522, kPixelX = 40962,
    kPixelY = 40963, kWhiteBalance = 41987,
    kLatRef = 1, kLat = 2, kLonRef = 3, kLon = 4, kAltRef = 5, kAlt = 6,
};

// Short names for the tables.
ExifField A(uint16_t tag, const std::string &text) { return exif_ascii(tag, text); }
ExifField S(uint16_t tag, uint16_t value) { return exif_short(tag, {value}); }
ExifField L(uint16_t tag, uint32_t value) { return exif_long(tag, {value}); }
ExifField R(uint16_t tag, uint32_t n, uint32_t d) { return exif_rational(tag, {{n, d}}); }

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes segment(uint8_t type, const Bytes &payload)
{
    const size_t length = payload.size() + 2;
    return cat({{0xFF, type, uint8_t(length >> 8), uint8_t(length)}, payload});
}

// A baseline JPEG of 30 x 20 without APPn segments, or with one APP1.
Bytes jpeg(const std::optional<Bytes> &app1 = std::nullopt)
{
    static const Bytes plain = [] {
        JpegOptions opt;
        opt.write_jfif = false;
        return encode_jpeg(make_flat(30, 20, 3, 128), opt);
    }();
    return app1 ? cat({{0xFF, 0xD8}, segment(0xE1, *app1), {plain.begin() + 2, plain.end()}})
                : plain;
}

std::string write_temp(TempDir &dir, const Bytes &bytes)
{
    const std::string path = dir.path("photo.jpg");
    EXPECT_TRUE(write_file(path, bytes));
    return path;
}

image_metadata read_exif(const Bytes &file, const image_metadata &start = {})
{
    TempDir dir;
    image_metadata meta = start;
    EXPECT_EQ(image_metadata_from_exif(write_temp(dir, file).c_str(), &meta), 0);
    return meta;
}

// Checks "key=value" texts against the record: rationals as "n/d", flagged
// values as "value/flag".
void expect_fields(const image_metadata &m, const std::vector<std::string> &expected)
{
    auto pair = [](auto a, auto b) { return std::to_string(a) + "/" + std::to_string(b); };
    auto rat = [&](image_rational r) { return pair(r.numerator, r.denominator); };
    const std::map<std::string, std::string> got = {
        {"date", m.date_time}, {"sub", m.sub_sec}, {"w", std::to_string(m.width)},
        {"h", std::to_string(m.height)}, {"desc", m.description}, {"make", m.make},
        {"model", m.model}, {"ori", pair(m.orientation, m.orientation_valid)},
        {"exp", rat(m.exposure_time)}, {"f", rat(m.f_number)}, {"focal", rat(m.focal_length)},
        {"iso", pair(m.iso, m.iso_valid)}, {"flash", pair(m.flash, m.flash_valid)},
        {"prog", pair(m.exposure_program, m.exposure_program_valid)},
        {"meter", pair(m.metering_mode, m.metering_mode_valid)},
        {"wb", pair(m.white_balance, m.white_balance_valid)},
        {"av", pair(m.aperture_value, m.aperture_value_valid)},
        {"tv", pair(m.shutter_speed_value, m.shutter_speed_value_valid)},
        {"lat", pair(m.gps_latitude, m.gps_latitude_valid)},
        {"lon", pair(m.gps_longitude, m.gps_longitude_valid)},
        {"alt", pair(m.gps_altitude, m.gps_altitude_valid)}};
    for (const std::string &e : expected) {
        const std::string key = e.substr(0, e.find('='));
        ASSERT_TRUE(got.count(key)) << key;
        EXPECT_EQ(got.at(key), e.substr(key.size() + 1)) << key;
    }
}

// ---- image_jpeg_probe_size, image_apex_to_f_number ----

Bytes sof(uint8_t type, uint16_t width, uint16_t height)  // one component
{
    return segment(type, {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8),
                          uint8_t(width), 1, 1, 0x11, 0});
}

TEST(ProbeSize, FirstFrameHeaderOfTypes0To3)
{
    const Bytes soi = {0xFF, 0xD8}, sos = segment(0xDA, {1, 1, 0, 0, 0x3F, 0});
    const struct { const char *name; Bytes file; uint32_t width, height; } cases[] = {
        {"sof5 is passed over", cat({soi, sof(0xC5, 1, 1), sof(0xC2, 50, 60)}), 50, 60},
        {"frame inside app1", cat({soi, segment(0xE1, sof(0xC0, 16, 16)), sof(0xC1, 3, 2)}), 3, 2},
        {"scan with stuffed bytes",
         cat({soi, sos, {0x12, 0xFF, 0x00, 0xC0, 0xFF, 0x00, 0x34}, sof(0xC3, 11, 12)}), 11, 12},
        {"no soi: untouched", cat({{0x89, 'P', 'N', 'G'}, sof(0xC0, 5, 5)}), 777, 888},
        {"header cut: untouched", {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x01}, 777, 888},
    };
    for (const auto &c : cases) {
        TempDir dir;
        uint32_t width = 777, height = 888;
        EXPECT_EQ(image_jpeg_probe_size(write_temp(dir, c.file).c_str(), &width, &height), 0);
        EXPECT_EQ(std::pair(width, height), std::pair(c.width, c.height)) << c.name;
    }
    uint32_t width = 777, height = 888;
    EXPECT_EQ(image_jpeg_probe_size("/nonexistent/x.jpg", &width, &height), -1);
}

TEST(ApexToFNumber, NominalStopsThenFormula)
{
    const uint32_t cases[][3] = {{5, 1, 56}, {18, 2, 220}, {10, 1, 320}, {2971, 1000, 28},
                                 {1, 0, 0}, {56, 1, 2684354560u}, {58, 1, 0}};  // 32 bits end at 56
    for (const auto &c : cases)
        EXPECT_EQ(image_apex_to_f_number(c[0], c[1]), c[2]) << c[0] << "/" << c[1];
}

// ---- image_metadata_from_exif ----

struct FieldCase {
    const char *name;
    std::vector<ExifField> ifd0, exif, gps;
    std::vector<std::string> expected;  // as expect_fields takes them
};

// Each case in both byte orders on a record preset where a missing value
// shows: a size of 11 x 22 and coordinates 12345 and 678.
void run_field_cases(const std::vector<FieldCase> &cases)
{
    image_metadata start{};
    start.width = 11;
    start.height = 22;
    start.gps_latitude = 12345;
    start.gps_longitude = 678;
    for (bool big : {false, true})
        for (const FieldCase &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (big ? ", big-endian" : ", little-endian"));
            expect_fields(read_exif(jpeg(build_exif({big, c.ifd0, c.exif, c.gps, {}})), start),
                          c.expected);
        }
}

TEST(ExifFields, TextsDatesAndSizes)
{
    const std::string date = "2021:06:30 17:45:12";
    run_field_cases({
        {"texts, cut to 255", {A(kMake, "Canon"), A(kDescription, std::string(300, 'd'))}, {}, {},
         {"make=Canon", "desc=" + std::string(255, 'd')}},
        {"three sub-second digits", {}, {A(kDateOriginal, date), A(kSubSecOriginal, "123456")},
         {}, {"date=" + date, "sub=123"}},
        {"short date: no sub-seconds", {},
         {A(kDateOriginal, "2021:06:30"), A(kSubSecOriginal, "12")}, {},
         {"date=2021:06:30", "sub="}},
        {"digitized stands in", {}, {A(kDateDigitized, date), A(kSubSecDigitized, "07")}, {},
         {"date=" + date, "sub=07"}},
        {"original wins", {}, {A(kDateOriginal, date), A(kDateDigitized, "2019:01:01 00:00:01"),
          A(kSubSecOriginal, "5"), A(kSubSecDigitized, "9")}, {}, {"date=" + date, "sub=5"}},
        {"256 and 257 alone in the exif ifd", {}, {L(kImageWidth, 3000), S(kImageLength, 2000)},
         {}, {"w=3000", "h=2000"}},
        {"256 and 257 win, 32 bits", {}, {L(kImageWidth, 70000), S(kImageLength, 3000),
          L(kPixelX, 1), L(kPixelY, 2)}, {}, {"w=70000", "h=3000"}},
        {"texts in ifd0 only, sizes in the exif ifd only",
         {L(kImageWidth, 4000), L(kPixelY, 5)}, {A(kModel, "X")}, {}, {"w=11", "h=22", "model="}},
        {"too short: missing, so the second tag", {}, {exif_bytes(kImageWidth, kTiffByte, {1, 2}),
          L(kPixelX, 640), exif_bytes(kPixelY, kTiffUndefined, {7})}, {}, {"w=640", "h=22"}},
    });
}

TEST(ExifFields, ShortsAndRationals)
{
    ExifField negative = R(kShutterSpeed, uint32_t(-3), 2);
    negative.type = kTiffSRational;
    run_field_cases({
        {"shorts; iso is not taken from Exif", {S(kOrientation, 6)}, {S(kFlash, 25),
          S(kExposureProgram, 3), S(kMeteringMode, 5), S(kWhiteBalance, 1), S(kIsoSpeed, 400)},
         {}, {"ori=6/1", "flash=25/1", "prog=3/1", "meter=5/1", "wb=1/1", "iso=0/0"}},
        {"one byte is too short; 0 is a value", {exif_bytes(kOrientation, kTiffByte, {6})},
         {S(kFlash, 0)}, {}, {"ori=0/0", "flash=0/1"}},
        {"stored as read, apex derived", {},
         {R(kExposureTime, 1, 250), R(kFNumber, 28, 10), R(kFocalLength, 50, 1)}, {},
         {"exp=1/250", "f=28/10", "focal=50/1", "tv=7966/1", "av=2971/1"}},
        {"apex 5 gives f/5.6", {}, {R(kAperture, 5, 1)}, {}, {"av=5000/1", "f=56/10"}},
        {"tags win over derivation", {}, {R(kAperture, 2971, 1000), R(kFNumber, 40, 10),
          R(kShutterSpeed, 6, 1), R(kExposureTime, 1, 1000)}, {},
         {"av=2971/1", "f=40/10", "tv=6000/1", "exp=1/1000"}},
        {"f-number 0/10 is replaced", {}, {R(kFNumber, 0, 10), R(kAperture, 4, 1)}, {},
         {"f=40/10"}},
        {"f-number 28/0 stays, derives nothing", {}, {R(kFNumber, 28, 0)}, {},
         {"f=28/0", "av=0/0"}},
        {"apex over 0", {}, {R(kAperture, 1, 0), R(kShutterSpeed, 0, 0)}, {},
         {"av=0/1", "f=0/10", "tv=0/1"}},
        {"two seconds", {}, {R(kExposureTime, 2, 1)}, {}, {"tv=64536/1"}},
        {"negative shutter speed", {}, {negative}, {}, {"tv=64036/1", "exp=0/0"}},
        {"apex entries too short", {}, {exif_short(kAperture, {5, 1}), R(kFNumber, 8, 1),
          L(kShutterSpeed, 7)}, {}, {"av=6000/1", "tv=0/0"}},
    });
}

TEST(ExifFields, Gps)
{
    const auto lat = [](std::vector<std::pair<uint32_t, uint32_t>> dms) {
        return exif_rational(kLat, dms);
    };
    const auto lon = [](std::vector<std::pair<uint32_t, uint32_t>> dms) {
        return exif_rational(kLon, dms);
    };
    const std::vector<std::pair<uint32_t, uint32_t>> one = {{1, 1}, {0, 1}, {0, 1}};  // 1 degree
    run_field_cases({
        {"south and east", {}, {}, {A(kLatRef, "S"), lat({{48, 1}, {51, 1}, {305, 10}}),
          A(kLonRef, "E"), lon({{2, 1}, {17, 1}, {4032, 100}})},
         {"lat=-175890500/1", "lon=8260320/1"}},
        {"seconds with a zero half skipped, lower case", {}, {}, {A(kLatRef, "n"),
          lat({{48, 1}, {51, 1}, {0, 0}}), A(kLonRef, "w"), lon({{122, 1}, {2505, 100}, {7, 0}})},
         {"lat=175860000/1", "lon=-440703000/1"}},
        {"unknown letter: the flag only", {}, {},
         {A(kLatRef, "E"), lat(one), A(kLonRef, "X"), lon(one)}, {"lat=12345/1", "lon=678/1"}},
        {"not finite, out of range", {}, {}, {A(kLatRef, "N"), lat({{1, 0}, {0, 1}, {0, 1}}),
          A(kLonRef, "W"), lon({{1000, 1}, {0, 1}, {0, 1}})},
         {"lat=-2147483648/1", "lon=-2147483648/1"}},
        {"missing reference, short value", {}, {},
         {lat(one), A(kLonRef, "E"), lon({{1, 1}, {2, 1}})}, {"lat=12345/0", "lon=678/0"}},
        {"altitude, reference ignored", {}, {},
         {exif_bytes(kAltRef, kTiffByte, {1}), R(kAlt, 1001, 3)}, {"alt=333666/1"}},
    });
}

TEST(ExifAsStored, WritesOnlyWhatTheFileGives)
{
    image_metadata start;
    std::memset(&start, 0x5A, sizeof start);
    start.exposure_time = start.f_number = {0, 0};  // would feed derivations
    ExifBlock no_exif_ifd;  // libexif's fix-up would create an EXIF IFD here
    no_exif_ifd.ifd0 = {A(kSoftware, "x")};
    const std::pair<Bytes, bool> cases[] = {  // file, has an Exif block
        {jpeg(), false}, {{'t', 'e', 'x', 't'}, false}, {jpeg(build_exif(no_exif_ifd)), true}};
    for (const auto &[file, has_exif] : cases) {
        image_metadata expected = start;
        if (has_exif)
            expected.date_time[0] = expected.sub_sec[0] = '\0';
        const image_metadata got = read_exif(file, start);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << has_exif;
    }
}

// ---- broken blocks: clean results, no read outside the data ----

ExifBlock full_block(bool big)
{
    return {big, {S(kOrientation, 6), A(kMake, "Maker"), A(kModel, "Model 1")},
            {A(kDateOriginal, "2021:06:30 17:45:12"), A(kSubSecOriginal, "42"),
             R(kExposureTime, 1, 60), R(kFNumber, 56, 10), S(kFlash, 1), L(kPixelX, 3000),
             L(kPixelY, 2000)},
            {A(kLatRef, "N"), exif_rational(kLat, {{1, 1}, {2, 1}, {3, 1}}), A(kLonRef, "E"),
             exif_rational(kLon, {{4, 1}, {5, 1}, {6, 1}}), R(kAlt, 7, 1)},
            {}};
}

TEST(ExifBroken, OffsetsPastTheEndAndCountsThatLie)
{
    const std::pair<std::function<void(ExifBlock &)>, std::vector<std::string>> cases[] = {
        {[](ExifBlock &b) { b.ifd0[1].offset = 0xFFFFFF00u; }, {"make=", "model=Model 1"}},
        {[](ExifBlock &b) { b.exif[3].offset = uint32_t(build_exif(b).size() - 10); },
         {"f=0/0", "exp=1/60"}},
        {[](ExifBlock &b) { b.exif_pointer = 0x7FFFFFF0u; }, {"ori=6/1", "w=0", "date="}},
        {[](ExifBlock &b) { b.gps[1].count = 0x10000000u; }, {"lat=0/0", "lon=14706000/1"}},
    };
    for (bool big : {false, true})
        for (const auto &[damage, expected] : cases) {
            ExifBlock block = full_block(big);
            damage(block);
            expect_fields(read_exif(jpeg(build_exif(block))), expected);
        }
}

// Cut or corrupted anywhere: a clean 0 or 9, texts that stay terminated, an
// orientation the thumbnail entry can use as an index into its nine-row
// table, and (in the sanitizer build) no read outside the data.
TEST(ExifBroken, TruncatedAndCorruptedFiles)
{
    for (bool big : {false, true}) {
        const Bytes payload = build_exif(full_block(big)), whole = jpeg(payload);
        std::vector<Bytes> files;
        for (size_t cut = 0; cut < whole.size(); cut += 7)
            files.emplace_back(whole.begin(), whole.begin() + cut);
        for (size_t cut = 0; cut <= payload.size(); cut += 3)
            files.push_back(jpeg(Bytes(payload.begin(), payload.begin() + cut)));
        uint32_t seed = 12345;
        for (int round = 0; round < 150; ++round) {
            Bytes bad = payload;
            for (int k = 0; k < 4; ++k) {
                seed = seed * 1103515245u + 12345u;
                bad[6 + (seed >> 8) % (bad.size() - 6)] = uint8_t(seed >> 24);
            }
            files.push_back(jpeg(bad));
        }
        for (const Bytes &file : files) {
            TempDir dir;
            image_metadata m{};
            const int32_t rc =
                image_get_metadata(nullptr, write_temp(dir, file).c_str(), IMAGE_MEDIA_JPEG, &m);
            EXPECT_TRUE(rc == 0 || rc == 9);
            EXPECT_LE(m.orientation, 8);
            EXPECT_LT(strnlen(m.date_time, sizeof m.date_time), sizeof m.date_time);
            EXPECT_LT(strnlen(m.sub_sec, sizeof m.sub_sec), sizeof m.sub_sec);
        }
    }
}

// ---- image_get_metadata ----

TEST(GetMetadata, SizeRuleAndOrientation)
{
    const struct {  // the frame header says 30 x 20
        int orientation;          // -1: no tag
        uint32_t exif_w, exif_h;  // 0: no tags
        int32_t rc;
        std::vector<std::string> expected;
    } cases[] = {
        {-1, 60, 40, 0, {"w=30", "h=20", "ori=0/0"}},  // the frame header
        {1, 60, 40, 0, {"w=30", "h=20", "ori=1/0"}},   // the frame header, flag cleared
        {1, 30, 20, 0, {"w=30", "h=20", "ori=1/1"}},   // agreeing: the flag stays
        {6, 60, 40, 0, {"w=40", "h=60", "ori=6/1"}},   // the exif size, exchanged
        {2, 60, 40, 0, {"w=60", "h=40", "ori=2/1"}},
        {6, 0, 0, 9, {"w=0", "h=0", "ori=6/1"}},       // no dimensions
        {-1, 0, 0, 0, {"w=30", "h=20"}},
        {4, 30, 20, 0, {"w=30", "h=20"}},
        {5, 30, 20, 0, {"w=20", "h=30"}},
        {7, 30, 20, 0, {"w=20", "h=30"}},
        {8, 30, 20, 0, {"w=20", "h=30"}},
        {9, 30, 20, 0, {"w=20", "h=30", "ori=0/1"}},   // exchanged, then 0
        {12, 0, 0, 9, {"ori=0/1"}},                    // 0 on failure too
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("orientation " + std::to_string(c.orientation) + ", exif size " +
                     std::to_string(c.exif_w));
        ExifBlock block{false, {A(kMake, "M")}, {}, {}, {}};
        if (c.orientation >= 0)
            block.ifd0.push_back(S(kOrientation, uint16_t(c.orientation)));
        if (c.exif_w)
            block.exif = {L(kPixelX, c.exif_w), L(kPixelY, c.exif_h)};
        TempDir dir;
        image_metadata meta{};
        EXPECT_EQ(image_get_metadata(nullptr, write_temp(dir, jpeg(build_exif(block))).c_str(),
                                     IMAGE_MEDIA_JPEG, &meta), c.rc);
        expect_fields(meta, c.expected);
    }
}

// Appends "level code file:line text" and a newline to a std::string.
void capture_log(int32_t level, void *user, int32_t code, const char *file, int32_t line,
                 const char *format, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    char entry[1200];
    std::snprintf(entry, sizeof entry, "%d %d %s:%d %s\n", level, code, file, line, text);
    *static_cast<std::string *>(user) += entry;
}

TEST(GetMetadata, ResultsAndLogLines)
{
    // At level 7 every line shows; @ stands for the path.
    const std::string go = "7 0 image:37 Go metadata for @ from libexif\n";
    const std::string exif_failed = "7 9 image:34 Cannot extract metadata for @\n";
    const std::string no_size = "7 9 image:49 Cannot get dimension @\n";
    const std::string raw_failed = "7 9 image:64 Cannot extract metadata for @\n";
    const struct {
        std::optional<Bytes> file;  // none: missing
        image_media_type type;
        bool null_record;
        int32_t rc;
        std::string log;
    } cases[] = {
        {jpeg(), IMAGE_MEDIA_JPEG, false, 0, go},
        {std::nullopt, IMAGE_MEDIA_JPEG, false, 9, exif_failed},
        {Bytes{}, IMAGE_MEDIA_JPEG, false, 9, exif_failed},
        {jpeg(), IMAGE_MEDIA_JPEG, true, 9, exif_failed},
        {Bytes{'t', 'e', 'x', 't'}, IMAGE_MEDIA_JPEG, false, 9, go + no_size},
        {Bytes{0xFF, 0xD8, 0xFF, 0xD9}, IMAGE_MEDIA_JPEG, false, 9, go + no_size},
        {jpeg(), IMAGE_MEDIA_PNG, false, 9, raw_failed},  // PNG goes the RAW way
        {jpeg(), IMAGE_MEDIA_RAW, false, 9, raw_failed},
    };
    for (const auto &c : cases) {
        TempDir dir;
        const std::string path = c.file ? write_temp(dir, *c.file) : dir.path("none.jpg");
        image_metadata meta{};
        image_metadata *record = c.null_record ? nullptr : &meta;
        std::string log, want = c.log;
        for (size_t at; (at = want.find('@')) != std::string::npos;)
            want.replace(at, 1, path);
        const image_ctx ctx{&log, nullptr, nullptr, capture_log, 7, 1, 2, 3};
        EXPECT_EQ(image_get_metadata(&ctx, path.c_str(), c.type, record), c.rc) << want;
        EXPECT_EQ(log, want);
        // Without a log callback, or a context at all, the results stay.
        const image_ctx quiet{nullptr, nullptr, nullptr, nullptr, 0, 1, 2, 3};
        EXPECT_EQ(image_get_metadata(&quiet, path.c_str(), c.type, record), c.rc) << want;
        EXPECT_EQ(image_get_metadata(nullptr, path.c_str(), c.type, record), c.rc) << want;
    }
}

// ---- exiftool as a second opinion ----

TEST(ExiftoolDifferential, AgreesOnWhatExiftoolWrote)
{
    if (std::system("command -v exiftool >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "exiftool is not installed";
    // Groups named throughout: without one exiftool may write the XMP twin.
    const std::pair<const char *, const char *> cases[] = {
        {"-ExifByteOrder=MM -EXIF:Orientation#=6 -EXIF:Make=Pentax '-EXIF:Model=K-1 II' "
         "'-EXIF:ImageDescription=Old town' '-EXIF:DateTimeOriginal=2023:07:14 09:08:07' "
         "-EXIF:SubSecTimeOriginal=456 -EXIF:ExposureTime=1/250 -EXIF:FNumber=2.8 "
         "-EXIF:FocalLength=35 -EXIF:Flash#=25 -EXIF:ExposureProgram#=2 -EXIF:MeteringMode#=5 "
         "-EXIF:WhiteBalance#=1 -EXIF:ExifImageWidth=1200 -EXIF:ExifImageHeight=800 "
         "-GPS:GPSLatitude=48.858222 -GPS:GPSLatitudeRef=S -GPS:GPSLongitude=2.2945 "
         "-GPS:GPSLongitudeRef=W -GPS:GPSAltitude=35.5",
         "800 1200 Pentax|K-1 II|Old town|2023:07:14 09:08:07|456"},
        {"-ExifByteOrder=II -EXIF:Orientation#=1 -EXIF:ApertureValue=5.6 "
         "-EXIF:ShutterSpeedValue=1/125 -EXIF:ExifImageWidth=640 -EXIF:ExifImageHeight=480 "
         "-GPS:GPSLatitude=10.5 -GPS:GPSLatitudeRef=N",
         "64 48 ||||"},
    };
    const std::string tags =  // read back as numbers, "-" for a tag not there
        " -n -s3 -f -EXIF:ExposureTime -EXIF:FNumber -EXIF:ApertureValue -EXIF:ShutterSpeedValue "
        "-EXIF:FocalLength -EXIF:Flash -EXIF:ExposureProgram -EXIF:MeteringMode -EXIF:WhiteBalance "
        "-Composite:GPSLatitude -Composite:GPSLongitude -GPS:GPSAltitude ";
    for (const auto &[assignments, summary] : cases) {
        SCOPED_TRACE(assignments);
        TempDir dir;
        const std::string path = dir.path("photo.jpg");
        ASSERT_TRUE(write_jpeg(path, make_flat(64, 48, 3, 90)));
        ASSERT_EQ(std::system(("exiftool -q -q -overwrite_original " + std::string(assignments) +
                               " " + path).c_str()), 0);
        std::vector<std::string> v;
        FILE *p = popen(("exiftool" + tags + path).c_str(), "r");
        char buf[1024];
        while (p && std::fgets(buf, sizeof buf, p))
            v.emplace_back(buf, strcspn(buf, "\n"));
        ASSERT_TRUE(p && pclose(p) == 0 && v.size() == 12u);
        auto has = [&](int i) { return v[i] != "-"; };
        auto num = [&](int i) { return std::strtod(v[i].c_str(), nullptr); };

        image_metadata m{};
        ASSERT_EQ(image_get_metadata(nullptr, path.c_str(), IMAGE_MEDIA_JPEG, &m), 0);
        char got[1200];
        std::snprintf(got, sizeof got, "%u %u %s|%s|%s|%s|%s", m.width, m.height, m.make, m.model,
                      m.description, m.date_time, m.sub_sec);
        EXPECT_STREQ(got, summary);
        auto ratio = [](image_rational r) { return double(r.numerator) / r.denominator; };
        EXPECT_DOUBLE_EQ(has(0) ? ratio(m.exposure_time) : 0.0, has(0) ? num(0) : 0.0);
        // An f-number derived from the aperture is the value in tenths.
        EXPECT_NEAR(ratio(m.f_number), has(1) ? num(1) : std::round(num(2) * 10) / 10, 1e-9);
        // exiftool shows the APEX tags as an f-number and a time again.
        EXPECT_NEAR(m.aperture_value, 2000.0 * std::log2(has(2) ? num(2) : num(1)), 1.0);
        EXPECT_NEAR(m.shutter_speed_value, -1000.0 * std::log2(has(3) ? num(3) : num(0)), 1.0);
        EXPECT_EQ(m.focal_length.numerator != 0, has(4));
        const struct { double value; uint16_t valid; double scale; } flagged[] = {  // from v[5]
            {double(m.flash), m.flash_valid, 1},
            {double(m.exposure_program), m.exposure_program_valid, 1},
            {double(m.metering_mode), m.metering_mode_valid, 1},
            {double(m.white_balance), m.white_balance_valid, 1},
            {double(m.gps_latitude), m.gps_latitude_valid, 3600000},
            {double(m.gps_longitude), m.gps_longitude_valid, 3600000},
            {double(m.gps_altitude), m.gps_altitude_valid, 1000}};
        for (int i = 0; i < 7; ++i) {
            EXPECT_EQ(flagged[i].valid, has(5 + i)) << v[5 + i];
            EXPECT_NEAR(flagged[i].value, has(5 + i) ? num(5 + i) * flagged[i].scale : 0,
                        flagged[i].scale > 1 ? 1.0 : 0.0) << v[5 + i];
        }
    }
}

}  // namespace
