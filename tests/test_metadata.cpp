// Photo metadata: the Exif reader, the frame-header probe and the entry that
// reconciles them. Every JPEG and Exif block is made here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>

#include "exif_writer.h"
#include "metadata/metadata.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

using Bytes = std::vector<uint8_t>;

enum : uint16_t {
    kImageWidth = 256, kImageLength = 257, kDescription = 270, kMake = 271, kModel = 272,
    kOrientation = 274, kSoftware = 305, kExposureTime = 33434, kFNumber = 33437,
    kExposureProgram = 34850, kIsoSpeed = 34855, kDateOriginal = 36867, kDateDigitized = 36868,
    kShutterSpeed = 37377, kAperture = 37378, kMeteringMode = 37383, kFlash = 37385,
    kFocalLength = 37386, kSubSecOriginal = 37521, kSubSecDigitized = 37522, kPixelX = 40962,
    kPixelY = 40963, kWhiteBalance = 41987,
    kLatRef = 1, kLat = 2, kLonRef = 3, kLon = 4, kAltRef = 5, kAlt = 6,
};

ExifField A(uint16_t tag, const std::string &text) { return exif_ascii(tag, text); }
ExifField S(uint16_t tag, uint16_t value) { return exif_short(tag, {value}); }
ExifField L(uint16_t tag, uint32_t value) { return {tag, kTiffLong, {value}}; }
ExifField B(uint16_t tag, std::vector<uint32_t> bytes) { return {tag, kTiffByte, bytes}; }
ExifField R(uint16_t tag, std::vector<uint32_t> units) { return {tag, kTiffRational, units}; }
ExifField past_end(ExifField f, uint32_t offset) { return f.offset = offset, f; }

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
    static const Bytes plain = encode_jpeg(make_flat(30, 20, 3, 128), {.write_jfif = false});
    return app1 ? cat({{0xFF, 0xD8}, segment(0xE1, *app1), {plain.begin() + 2, plain.end()}}) : plain;
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
    char got[1400];
    std::snprintf(got, sizeof got,
                  " date=%s sub=%s w=%u h=%u desc=%s make=%s model=%s ori=%u/%u exp=%u/%u f=%u/%u"
                  " focal=%u/%u iso=%u/%u flash=%u/%u prog=%u/%u meter=%u/%u wb=%u/%u av=%u/%u"
                  " tv=%u/%u lat=%d/%u lon=%d/%u alt=%d/%u ",
                  m.date_time, m.sub_sec, m.width, m.height, m.description, m.make, m.model,
                  m.orientation, m.orientation_valid, m.exposure_time.numerator,
                  m.exposure_time.denominator, m.f_number.numerator, m.f_number.denominator,
                  m.focal_length.numerator, m.focal_length.denominator, m.iso, m.iso_valid,
                  m.flash, m.flash_valid, m.exposure_program, m.exposure_program_valid,
                  m.metering_mode, m.metering_mode_valid, m.white_balance, m.white_balance_valid,
                  m.aperture_value, m.aperture_value_valid, m.shutter_speed_value,
                  m.shutter_speed_value_valid, m.gps_latitude, m.gps_latitude_valid,
                  m.gps_longitude, m.gps_longitude_valid, m.gps_altitude, m.gps_altitude_valid);
    for (const std::string &e : expected)
        EXPECT_NE(std::string(got).find(" " + e + " "), std::string::npos) << e << " in" << got;
}

// Each case in both byte orders on a record preset where a missing value
// shows: a size of 11 x 22 and coordinates 12345 and 678.
TEST(ExifFields, TextsDatesSizesAndNumbers)
{
    const std::string date = "2021:06:30 17:45:12";
    const struct {
        const char *name;
        std::vector<ExifField> ifd0, exif, gps;
        std::vector<std::string> expected;
    } cases[] = {
        {"texts, cut to 255", {A(kMake, "Canon"), A(kDescription, std::string(300, 'd'))}, {}, {},
         {"make=Canon", "desc=" + std::string(255, 'd')}},
        {"original date wins, three sub-second digits", {}, {A(kDateOriginal, date),
          A(kDateDigitized, "2019:01:01 00:00:01"), A(kSubSecOriginal, "123456"),
          A(kSubSecDigitized, "9")}, {}, {"date=" + date, "sub=123"}},
        {"short date: no sub-seconds", {}, {A(kDateOriginal, "2021:06:30"),
          A(kSubSecOriginal, "12")}, {}, {"date=2021:06:30", "sub="}},
        {"digitized stands in", {}, {A(kDateDigitized, date), A(kSubSecDigitized, "07")}, {},
         {"date=" + date, "sub=07"}},
        {"256 and 257 win, 32 bits", {}, {L(kImageWidth, 70000), S(kImageLength, 3000),
          L(kPixelX, 1), L(kPixelY, 2)}, {}, {"w=70000", "h=3000"}},
        {"texts in ifd0 only, sizes in the exif ifd only",
         {L(kImageWidth, 4000), L(kPixelY, 5)}, {A(kModel, "X")}, {},
         {"w=11", "h=22", "model="}},
        {"too short: missing", {B(kOrientation, {6})}, {B(kImageWidth, {1, 2}),
          L(kPixelX, 640), B(kPixelY, {7}), exif_short(kAperture, {5, 1}), R(kFNumber, {8, 1}),
          L(kShutterSpeed, 7)}, {}, {"ori=0/0", "w=640", "h=22", "av=6000/1", "tv=0/0"}},
        {"offsets past the end", {past_end(A(kMake, "Maker"), 0xFFFFFF00u)},
         {past_end(R(kFNumber, {56, 10}), 0xFFFFFFFCu), R(kExposureTime, {1, 60})}, {},
         {"make=", "f=0/0", "exp=1/60"}},
        {"shorts, 0 a value; iso is not taken from Exif", {S(kOrientation, 6)}, {S(kFlash, 25),
          S(kExposureProgram, 3), S(kMeteringMode, 5), S(kWhiteBalance, 0), S(kIsoSpeed, 400)},
         {}, {"ori=6/1", "flash=25/1", "prog=3/1", "meter=5/1", "wb=0/1", "iso=0/0"}},
        {"stored as read, apex derived", {}, {R(kExposureTime, {1, 250}),
          R(kFNumber, {28, 10}), R(kFocalLength, {50, 1})}, {},
         {"exp=1/250", "f=28/10", "focal=50/1", "tv=7966/1", "av=2971/1"}},
        {"apex 5 gives f/5.6, two seconds", {}, {R(kAperture, {5, 1}),
          R(kExposureTime, {2, 1})}, {}, {"av=5000/1", "f=56/10", "tv=64536/1"}},
        {"f-number 0/10 replaced by a rounded one", {}, {R(kFNumber, {0, 10}),
          R(kAperture, {9, 2})}, {}, {"f=48/10", "av=4500/1"}},
        {"tags win over derivation", {}, {R(kAperture, {2971, 1000}), R(kFNumber, {40, 10}),
          R(kShutterSpeed, {6, 1}), R(kExposureTime, {1, 1000})}, {},
         {"av=2971/1", "f=40/10", "tv=6000/1", "exp=1/1000"}},
        {"south, east, altitude", {}, {}, {A(kLatRef, "S"), R(kLat, {48, 1, 51, 1, 305, 10}),
          A(kLonRef, "E"), R(kLon, {2, 1, 17, 1, 4032, 100}), B(kAltRef, {1}),
          R(kAlt, {1001, 3})}, {"lat=-175890500/1", "lon=8260320/1", "alt=333666/1"}},
        {"lower case, seconds with a zero half skipped", {}, {}, {A(kLatRef, "n"),
          R(kLat, {48, 1, 51, 1, 0, 0}), A(kLonRef, "w"), R(kLon, {122, 1, 2505, 100, 7, 0})},
         {"lat=175860000/1", "lon=-440703000/1"}},
        {"unknown letter: the flag only; no reference: nothing", {}, {}, {A(kLatRef, "E"),
          R(kLat, {1, 1, 0, 1, 0, 1}), R(kLon, {1, 1, 0, 1, 0, 1})},
         {"lat=12345/1", "lon=678/0"}},
        {"apex 56 fits 32 bits", {}, {R(kAperture, {56, 1})}, {}, {"f=2684354560/10"}},
        {"apex 58 does not", {}, {R(kAperture, {58, 1})}, {}, {"f=0/10"}},
    };
    image_metadata start{};
    start.width = 11, start.height = 22, start.gps_latitude = 12345, start.gps_longitude = 678;
    for (bool big : {false, true})
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (big ? ", big-endian" : ", little-endian"));
            const Bytes block = build_exif({big, c.ifd0, c.exif, c.gps});
            expect_fields(read_exif(jpeg(block), start), c.expected);
        }
}

// No Exif block, or one without an EXIF IFD (where libexif's fix-up would
// create one): only the date and sub-seconds of a block are cleared.
TEST(ExifFields, WritesOnlyWhatTheFileGives)
{
    image_metadata start;
    std::memset(&start, 0x5A, sizeof start);
    start.exposure_time = start.f_number = {0, 0};  // would feed derivations
    for (const Bytes &file : {jpeg(), Bytes{'t', 'e', 'x', 't'},
                              jpeg(build_exif({.ifd0 = {A(kSoftware, "x")}}))}) {
        image_metadata expected = start;
        if (file[3] == 0xE1)
            expected.date_time[0] = expected.sub_sec[0] = '\0';
        const image_metadata got = read_exif(file, start);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << file.size();
    }
}

// Cut or corrupted anywhere: a clean 0 or 9, texts that stay terminated, an
// orientation the thumbnail entry can use as an index into its nine-row
// table, and (in the sanitizer build) no read outside the data.
TEST(ExifFields, TruncatedAndCorruptedFiles)
{
    TempDir dir;
    const auto check = [&](const Bytes &file) {
        image_metadata m{};
        const int32_t rc =
            image_get_metadata(nullptr, write_temp(dir, file).c_str(), IMAGE_MEDIA_JPEG, &m);
        EXPECT_TRUE((rc == 0 || rc == 9) && m.orientation <= 8 &&
                    strnlen(m.date_time, sizeof m.date_time) < sizeof m.date_time &&
                    strnlen(m.sub_sec, sizeof m.sub_sec) < sizeof m.sub_sec) << rc;
    };
    uint32_t seed = 12345;
    for (bool big : {false, true}) {
        const Bytes payload = build_exif(
            {big, {S(kOrientation, 6), A(kMake, "Maker")},
             {A(kDateOriginal, "2021:06:30 17:45:12"), A(kSubSecOriginal, "42"),
              R(kFNumber, {56, 10}), L(kPixelX, 3000), L(kPixelY, 2000)},
             {A(kLatRef, "N"), R(kLat, {1, 1, 2, 1, 3, 1}), R(kAlt, {7, 1})}});
        const Bytes whole = jpeg(payload);
        for (size_t cut = 0; cut < whole.size(); cut += 7)
            check(Bytes(whole.begin(), whole.begin() + cut));
        for (size_t cut = 0; cut <= payload.size(); cut += 3)
            check(jpeg(Bytes(payload.begin(), payload.begin() + cut)));
        for (int round = 0; round < 150; ++round) {
            Bytes bad = payload;
            for (int k = 0; k < 4; ++k, seed = seed * 1103515245u + 12345u)
                bad[6 + (seed >> 8) % (bad.size() - 6)] = uint8_t(seed >> 24);
            check(jpeg(bad));
        }
    }
}

Bytes sof(uint8_t type, uint16_t width, uint16_t height)  // one component
{
    return segment(type, {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8),
                          uint8_t(width), 1, 1, 0x11, 0});
}

// The 30 x 20 JPEG with an orientation (-1: none) and an Exif size (0: none).
Bytes tagged(int orientation, uint32_t width, uint32_t height)
{
    ExifBlock block{.ifd0 = {A(kMake, "M")}};
    if (orientation >= 0)
        block.ifd0.push_back(S(kOrientation, uint16_t(orientation)));
    if (width)
        block.exif = {L(kPixelX, width), L(kPixelY, height)};
    return jpeg(build_exif(block));
}

TEST(GetMetadata, SizeRuleResultsAndLogLines)
{
    // At level 7 every line shows; @ stands for the path.
    const std::string go = "7 0 image:37 Go metadata for @ from libexif\n";
    const std::string exif_failed = "7 9 image:34 Cannot extract metadata for @\n";
    const std::string no_size = go + "7 9 image:49 Cannot get dimension @\n";
    const std::string raw_failed = "7 9 image:64 Cannot extract metadata for @\n";
    const Bytes soi = {0xFF, 0xD8}, sos = segment(0xDA, {1, 1, 0, 0, 0x3F, 0});
    const struct {
        std::optional<Bytes> file;  // none: missing
        int32_t rc;
        std::string log;
        std::vector<std::string> expected;
        image_media_type type = IMAGE_MEDIA_JPEG;
        bool null_record = false;
    } cases[] = {
        // Sizes from the frame header of 30 x 20 or from Exif.
        {jpeg(), 0, go, {"w=30", "h=20", "ori=0/0"}},
        {tagged(-1, 60, 40), 0, go, {"w=30", "h=20", "ori=0/0"}},
        {tagged(1, 60, 40), 0, go, {"w=30", "h=20", "ori=1/0"}},  // flag cleared
        {tagged(1, 30, 20), 0, go, {"w=30", "h=20", "ori=1/1"}},  // agreeing
        {tagged(6, 60, 40), 0, go, {"w=40", "h=60", "ori=6/1"}},  // exchanged
        {tagged(2, 60, 40), 0, go, {"w=60", "h=40", "ori=2/1"}},
        {tagged(5, 30, 20), 0, go, {"w=20", "h=30", "ori=5/1"}},
        {tagged(9, 30, 20), 0, go, {"w=20", "h=30", "ori=0/1"}},  // then 0
        {tagged(6, 0, 0), 9, no_size, {"w=0", "h=0", "ori=6/1"}},
        {tagged(12, 0, 0), 9, no_size, {"ori=0/1"}},  // 0 on failure too
        // The first frame header of types 0 to 3, past SOF5, APP1 and stuffed scan bytes.
        {cat({soi, sof(0xC5, 1, 1), sof(0xC2, 50, 60)}), 0, go, {"w=50", "h=60"}},
        {cat({soi, segment(0xE1, sof(0xC0, 16, 16)), sof(0xC1, 3, 2)}), 0, go, {"w=3", "h=2"}},
        {cat({soi, sos, {0x12, 0xFF, 0x00, 0xC0, 0xFF, 0x00, 0x34}, sof(0xC3, 11, 12)}), 0, go,
         {"w=11", "h=12"}},
        {Bytes{0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x01}, 9, no_size, {"w=0", "h=0"}},
        {Bytes{0xFF, 0xD8, 0xFF, 0xD9}, 9, no_size, {"w=0", "h=0"}},
        {cat({{'t', 'e', 'x', 't'}, sof(0xC0, 5, 5)}), 9, no_size, {"w=0", "h=0"}},
        {std::nullopt, 9, exif_failed, {}},
        {Bytes{}, 9, exif_failed, {}},
        {jpeg(), 9, exif_failed, {}, IMAGE_MEDIA_JPEG, true},
        {jpeg(), 9, raw_failed, {}, IMAGE_MEDIA_PNG},  // PNG goes the RAW way
        {jpeg(), 9, raw_failed, {}, IMAGE_MEDIA_RAW},
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
        expect_fields(meta, c.expected);
    }
}

TEST(ExiftoolDifferential, AgreesOnWhatExiftoolWrote)
{
    if (std::system("command -v exiftool >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "exiftool is not installed";
    // Groups named throughout: without one exiftool may write the XMP twin.
    const std::string assignments =
        " -EXIF:Orientation#=6 -EXIF:Make=Pentax '-EXIF:Model=K-1 II' -EXIF:SubSecTimeOriginal=456"
        " '-EXIF:DateTimeOriginal=2023:07:14 09:08:07' -EXIF:ExposureTime=1/250 -EXIF:FNumber=2.8"
        " -EXIF:FocalLength=35 -EXIF:Flash#=25 -EXIF:ExposureProgram#=2 -EXIF:MeteringMode#=5"
        " -EXIF:ExifImageWidth=1200 -EXIF:ExifImageHeight=800 -GPS:GPSLatitude=48.858222"
        " -GPS:GPSLatitudeRef=S -GPS:GPSLongitude=2.2945 -GPS:GPSLongitudeRef=W"
        " -GPS:GPSAltitude=35.5 ";
    for (const std::string order : {"MM", "II"}) {
        SCOPED_TRACE(order);
        TempDir dir;
        const std::string path = dir.path("photo.jpg");
        ASSERT_TRUE(write_jpeg(path, make_flat(64, 48, 3, 90)));
        ASSERT_EQ(std::system(("exiftool -q -q -overwrite_original -ExifByteOrder=" + order +
                               assignments + path).c_str()), 0);
        image_metadata m{};
        ASSERT_EQ(image_get_metadata(nullptr, path.c_str(), IMAGE_MEDIA_JPEG, &m), 0);
        expect_fields(m, {"w=800", "h=1200", "make=Pentax", "model=K-1 II",
                          "date=2023:07:14 09:08:07", "sub=456"});
        // exiftool's numbers, "-" for a tag not there, where the record has NaN.
        auto r = [](image_rational x) { return double(x.numerator) / x.denominator; };
        auto flag = [](double value, uint16_t valid) { return valid ? value : NAN; };
        const std::tuple<const char *, double, double> rows[] = {  // tag, ours, tolerance
            {"EXIF:ExposureTime", r(m.exposure_time), 1e-9},
            {"Composite:ShutterSpeed", std::exp2(m.shutter_speed_value / -1000.0), 1e-5},
            {"EXIF:FNumber", r(m.f_number), 1e-9},
            {"Composite:Aperture", std::exp2(m.aperture_value / 2000.0), 1e-3},
            {"EXIF:FocalLength", r(m.focal_length), 1e-9},
            {"EXIF:Flash", flag(m.flash, m.flash_valid), 0},
            {"EXIF:ExposureProgram", flag(m.exposure_program, m.exposure_program_valid), 0},
            {"EXIF:MeteringMode", flag(m.metering_mode, m.metering_mode_valid), 0},
            {"EXIF:WhiteBalance", flag(m.white_balance, m.white_balance_valid), 0},
            {"Composite:GPSLatitude", flag(m.gps_latitude / 3.6e6, m.gps_latitude_valid), 1e-6},
            {"Composite:GPSLongitude", flag(m.gps_longitude / 3.6e6, m.gps_longitude_valid), 1e-6},
            {"GPS:GPSAltitude", flag(m.gps_altitude / 1e3, m.gps_altitude_valid), 1e-6}};
        std::string command = "exiftool -n -s3 -f";
        for (const auto &[tag, ours, tolerance] : rows)
            command += std::string(" -") + tag;
        FILE *p = popen((command + " " + path).c_str(), "r");
        ASSERT_NE(p, nullptr);
        char buf[256];
        for (const auto &[tag, ours, tolerance] : rows) {
            ASSERT_TRUE(std::fgets(buf, sizeof buf, p)) << tag;
            if (std::strcmp(buf, "-\n") == 0)
                EXPECT_TRUE(std::isnan(ours)) << tag;
            else
                EXPECT_NEAR(ours, std::strtod(buf, nullptr), tolerance) << tag;
        }
        EXPECT_EQ(pclose(p), 0);
    }
}

}  // namespace
