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
    kImageWidth = 256, kImageLength = 257, kDescription = 270, kMake = 271,
    kModel = 272, kOrientation = 274, kSoftware = 305, kExposureTime = 33434,
    kFNumber = 33437, kExposureProgram = 34850, kIsoSpeed = 34855, kDateOriginal = 36867,
    kDateDigitized = 36868, kShutterSpeed = 37377, kAperture = 37378,
    kMeteringMode = 37383, kFlash = 37385, kFocalLength = 37386,
    kSubSecOriginal = 37521, kSubSecDigitized = 37522, kPixelX = 40962,
    kPixelY = 40963, kWhiteBalance = 41987,
    kLatRef = 1, kLat = 2, kLonRef = 3, kLon = 4, kAltRef = 5, kAlt = 6,
};

// A baseline JPEG of 30 x 20 without any APPn segment.
const Bytes &plain_jpeg()
{
    static const Bytes jpeg = [] {
        JpegOptions opt;
        opt.write_jfif = false;
        return encode_jpeg(make_flat(30, 20, 3, 128), opt);
    }();
    return jpeg;
}

// `jpeg` with an APP1 segment holding `payload` right behind SOI.
Bytes with_app1(const Bytes &jpeg, const Bytes &payload)
{
    const size_t length = payload.size() + 2;
    Bytes out = {jpeg.at(0), jpeg.at(1), 0xFF, 0xE1, uint8_t(length >> 8), uint8_t(length)};
    out.insert(out.end(), payload.begin(), payload.end());
    out.insert(out.end(), jpeg.begin() + 2, jpeg.end());
    return out;
}

Bytes jpeg_with_exif(const ExifBlock &block) { return with_app1(plain_jpeg(), build_exif(block)); }

Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
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

// The record as key -> text: rationals as "n/d", flagged values as
// "value/flag".
std::map<std::string, std::string> describe(const image_metadata &m)
{
    auto pair = [](auto a, auto b) { return std::to_string(a) + "/" + std::to_string(b); };
    auto rat = [&](image_rational r) { return pair(r.numerator, r.denominator); };
    return {{"date", m.date_time}, {"sub", m.sub_sec}, {"w", std::to_string(m.width)},
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
}

void expect_fields(const image_metadata &m, const std::vector<std::string> &expected)
{
    const auto got = describe(m);
    for (const std::string &e : expected) {
        const std::string key = e.substr(0, e.find('='));
        ASSERT_TRUE(got.count(key)) << key;
        EXPECT_EQ(got.at(key), e.substr(key.size() + 1)) << key;
    }
}

struct LogLine {
    int32_t level, code;
    std::string file;
    int32_t line;
    std::string text;
};

void capture_log(int32_t level, void *user, int32_t code, const char *file, int32_t line,
                 const char *format, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    static_cast<std::vector<LogLine> *>(user)->push_back({level, code, file, line, text});
}

constexpr int32_t kLevelError = 7;  // any other level passed shows

// ---- image_read_be16, image_jpeg_probe_size ----

TEST(ReadBe16, HighByteFirstAndWordUntouchedAtEnd)
{
    const std::pair<Bytes, int> cases[] = {
        {{0x12, 0x34}, 0x1234}, {{0xFF, 0xD8, 0x00}, 0xFFD8}, {{0x12}, -1}, {{}, -1}};
    for (const auto &[bytes, want] : cases) {
        TempDir dir;
        FILE *f = std::fopen(write_temp(dir, bytes).c_str(), "rb");
        ASSERT_NE(f, nullptr);
        uint16_t word = 0xBEEF;
        EXPECT_EQ(image_read_be16(f, &word), want < 0 ? -1 : 0);
        EXPECT_EQ(word, want < 0 ? 0xBEEF : want);
        std::fclose(f);
    }
}

const Bytes kSoi = {0xFF, 0xD8};
const Bytes kEoi = {0xFF, 0xD9};

Bytes sof(uint8_t type, uint16_t width, uint16_t height)  // one component
{
    return {0xFF, type, 0x00, 0x0B, 0x08, uint8_t(height >> 8), uint8_t(height),
            uint8_t(width >> 8), uint8_t(width), 0x01, 0x01, 0x11, 0x00};
}

Bytes segment(uint8_t type, const Bytes &payload)
{
    const size_t length = payload.size() + 2;
    return concat({{0xFF, type, uint8_t(length >> 8), uint8_t(length)}, payload});
}

TEST(ProbeSize, SegmentWalk)
{
    struct Case {
        const char *name;
        Bytes file;
        uint32_t width, height;  // 777 x 888: nothing written
    };
    const Bytes sos = segment(0xDA, {0x01, 0x01, 0x00, 0x00, 0x3F, 0x00});
    const Case cases[] = {
        {"sof0", concat({kSoi, sof(0xC0, 640, 480), kEoi}), 640, 480},
        {"sof1", concat({kSoi, sof(0xC1, 641, 481)}), 641, 481},
        {"sof2", concat({kSoi, sof(0xC2, 642, 482)}), 642, 482},
        {"sof3", concat({kSoi, sof(0xC3, 643, 483)}), 643, 483},
        {"sof5 is passed over", concat({kSoi, sof(0xC5, 1, 1), sof(0xC0, 50, 60)}), 50, 60},
        {"dht is passed over", concat({kSoi, segment(0xC4, Bytes(20, 0xC0)), sof(0xC0, 7, 9)}), 7, 9},
        {"restart interval ahead", concat({kSoi, segment(0xDD, {0, 16}), sof(0xC0, 70, 80)}), 70, 80},
        {"bare restart marker", concat({kSoi, {0xFF, 0xD3}, sof(0xC0, 90, 100)}), 90, 100},
        {"frame inside app1", concat({kSoi, segment(0xE1, sof(0xC0, 16, 16)), sof(0xC0, 300, 200)}), 300, 200},
        {"scan with stuffed bytes",
         concat({kSoi, sos, {0x12, 0xFF, 0x00, 0xC0, 0xFF, 0x00, 0x34}, sof(0xC0, 11, 12)}), 11, 12},
        {"scan runs to the end", concat({kSoi, sos, {0x12, 0xFF, 0x00, 0x34}}), 777, 888},
        {"scan ends on a lone ff", concat({kSoi, sos, {0x12, 0xFF}}), 777, 888},
        // Length 0 steps back onto the length word, read next as marker
        // 0x0000 with length 4; length 1 steps back one byte: marker 0x0100
        // with length 2.
        {"length 0", concat({kSoi, {0xFF, 0xE1, 0, 0, 0, 4, 0xAA, 0xBB}, sof(0xC0, 21, 22)}), 21, 22},
        {"length 1", concat({kSoi, {0xFF, 0xE1, 0, 1, 0, 0, 2}, sof(0xC0, 23, 24)}), 23, 24},
        {"height 0 is written as read", concat({kSoi, sof(0xC0, 25, 0)}), 25, 0},
        {"end of image first", concat({kSoi, kEoi, sof(0xC0, 5, 5)}), 777, 888},
        {"no soi", concat({{0x89, 'P', 'N', 'G'}, sof(0xC0, 5, 5)}), 777, 888},
        {"frame header cut", {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x01, 0x00, 0x02}, 777, 888},
        {"segment past the end", concat({kSoi, {0xFF, 0xE1, 0xFF, 0xFF, 0x00}}), 777, 888},
        {"empty", {}, 777, 888},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        uint32_t width = 777, height = 888;
        EXPECT_EQ(image_jpeg_probe_size(write_temp(dir, c.file).c_str(), &width, &height), 0);
        EXPECT_EQ(width, c.width);
        EXPECT_EQ(height, c.height);
    }
    TempDir dir;
    uint32_t width = 777, height = 888;
    EXPECT_EQ(image_jpeg_probe_size(dir.path("missing").c_str(), &width, &height), -1);
    EXPECT_EQ(width, 777u);
}

TEST(ProbeSize, FilesFromLibjpeg)
{
    JpegOptions progressive, restarts, thumb;
    progressive.progressive = true;
    restarts.restart_interval = 1;
    // A whole JPEG of another size inside the Exif segment, as a thumbnail.
    thumb.markers.push_back({JPEG_APP0 + 1, concat({{'E', 'x', 'i', 'f', 0, 0},
                                                    encode_jpeg(make_flat(8, 8, 3, 50))})});
    for (const JpegOptions &opt : {JpegOptions(), progressive, restarts, thumb}) {
        TempDir dir;
        const std::string path = dir.path("p.jpg");
        ASSERT_TRUE(write_jpeg(path, make_picture(45, 35, 3), opt));
        uint32_t width = 0, height = 0;
        EXPECT_EQ(image_jpeg_probe_size(path.c_str(), &width, &height), 0);
        EXPECT_EQ(width, 45u);
        EXPECT_EQ(height, 35u);
    }
}

// ---- image_apex_to_f_number ----

TEST(ApexToFNumber, NominalStopsThenFormula)
{
    const uint32_t cases[][3] = {
        {0, 1, 10}, {5, 1, 56}, {7, 1, 110}, {9, 1, 220}, {18, 2, 220}, {10, 1, 320},
        {2971, 1000, 28}, {11, 2, 67}, {1, 3, 11}, {1, 0, 0}, {0, 0, 0},
        {56, 1, 2684354560u},  // the last whole stop inside 32 bits
        {58, 1, 0}, {4000000000u, 1, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(image_apex_to_f_number(c[0], c[1]), c[2]) << c[0] << "/" << c[1];
}

// ---- image_metadata_from_exif: the field table ----

struct FieldCase {
    const char *name;
    std::vector<ExifField> ifd0, exif, gps;
    std::vector<std::string> expected;  // "key=value" as describe() gives it
};

// Each case runs in both byte orders on a record preset where a missing
// value must show: a size of 11 x 22 and coordinates 12345 and 678.
void run_field_cases(const std::vector<FieldCase> &cases)
{
    image_metadata start{};
    start.width = 11;
    start.height = 22;
    start.gps_latitude = 12345;
    start.gps_longitude = 678;
    for (bool big : {false, true}) {
        for (const FieldCase &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (big ? ", big-endian" : ", little-endian"));
            expect_fields(read_exif(jpeg_with_exif({big, c.ifd0, c.exif, c.gps, {}}), start),
                          c.expected);
        }
    }
}

ExifField srational(uint16_t tag, int32_t n, int32_t d)
{
    ExifField f = exif_rational(tag, {{uint32_t(n), uint32_t(d)}});
    f.type = kTiffSRational;
    return f;
}

TEST(ExifFields, TextsDatesAndSizes)
{
    const std::string full = "2021:06:30 17:45:12";
    run_field_cases({
        {"texts", {exif_ascii(kMake, "Canon"), exif_ascii(kModel, "EOS R"),
                   exif_ascii(kDescription, "Harbour")}, {}, {},
         {"make=Canon", "model=EOS R", "desc=Harbour"}},
        {"cut to 255", {exif_ascii(kDescription, std::string(300, 'd'))}, {}, {},
         {"desc=" + std::string(255, 'd')}},
        {"no terminator", {exif_bytes(kModel, kTiffAscii, {'D', '7', '0', '0'})}, {}, {}, {"model=D700"}},
        {"texts in ifd0 only", {}, {exif_ascii(kMake, "X")}, {}, {"make="}},
        {"full date: three sub-second digits", {},
         {exif_ascii(kDateOriginal, full), exif_ascii(kSubSecOriginal, "123456")}, {},
         {"date=" + full, "sub=123"}},
        {"short date: no sub-seconds", {},
         {exif_ascii(kDateOriginal, "2021:06:30"), exif_ascii(kSubSecOriginal, "12")}, {},
         {"date=2021:06:30", "sub="}},
        {"30-byte date", {},
         {exif_ascii(kDateOriginal, full + " and more!"), exif_ascii(kSubSecOriginal, "12")}, {},
         {"date=" + full + " and", "sub="}},
        {"digitized stands in", {},
         {exif_ascii(kDateDigitized, full), exif_ascii(kSubSecDigitized, "07")}, {},
         {"date=" + full, "sub=07"}},
        {"original wins", {},
         {exif_ascii(kDateOriginal, full), exif_ascii(kDateDigitized, "2019:01:01 00:00:01"),
          exif_ascii(kSubSecOriginal, "5"), exif_ascii(kSubSecDigitized, "9")}, {},
         {"date=" + full, "sub=5"}},
        {"sub-seconds without a date", {}, {exif_ascii(kSubSecOriginal, "12")}, {}, {"date=", "sub="}},
        {"long keeps 32 bits", {}, {exif_long(kPixelX, {70000}), exif_short(kPixelY, {5000})}, {},
         {"w=70000", "h=5000"}},
        {"256 and 257 of the exif ifd win", {},
         {exif_short(kImageWidth, {4000}), exif_long(kImageLength, {3000}),
          exif_long(kPixelX, {1}), exif_long(kPixelY, {2})}, {},
         {"w=4000", "h=3000"}},
        {"256 in ifd0 is not read", {exif_long(kImageWidth, {4000})}, {}, {}, {"w=11", "h=22"}},
        {"too short for a long: missing, so the second tag", {},
         {exif_bytes(kImageWidth, kTiffByte, {1, 2}), exif_long(kPixelX, {640}),
          exif_bytes(kPixelY, kTiffUndefined, {7})}, {},
         {"w=640", "h=22"}},
    });
}

TEST(ExifFields, ShortsAndRationals)
{
    run_field_cases({
        {"shorts", {exif_short(kOrientation, {6})},
         {exif_short(kFlash, {25}), exif_short(kExposureProgram, {3}),
          exif_short(kMeteringMode, {5}), exif_short(kWhiteBalance, {1}),
          exif_short(kIsoSpeed, {400})}, {},  // ISO is not taken from Exif
         {"ori=6/1", "flash=25/1", "prog=3/1", "meter=5/1", "wb=1/1", "iso=0/0"}},
        {"one byte is too short; 0 is a value", {exif_bytes(kOrientation, kTiffByte, {6})},
         {exif_short(kFlash, {0})}, {}, {"ori=0/0", "flash=0/1"}},
        {"orientation in ifd0 only", {}, {exif_short(kOrientation, {6})}, {}, {"ori=0/0"}},
        {"stored as read, apex derived", {},
         {exif_rational(kExposureTime, {{1, 250}}), exif_rational(kFNumber, {{28, 10}}),
          exif_rational(kFocalLength, {{50, 1}})}, {},
         {"exp=1/250", "f=28/10", "focal=50/1", "tv=7966/1", "av=2971/1"}},
        {"apex 5 gives f/5.6", {}, {exif_rational(kAperture, {{5, 1}})}, {}, {"av=5000/1", "f=56/10"}},
        {"tags win over derivation", {},
         {exif_rational(kAperture, {{2971, 1000}}), exif_rational(kFNumber, {{40, 10}}),
          exif_rational(kShutterSpeed, {{6, 1}}), exif_rational(kExposureTime, {{1, 1000}})}, {},
         {"av=2971/1", "f=40/10", "tv=6000/1", "exp=1/1000"}},
        {"fnumber 0/10 is replaced", {},
         {exif_rational(kFNumber, {{0, 10}}), exif_rational(kAperture, {{4, 1}})}, {}, {"f=40/10"}},
        {"fnumber 28/0 stays", {},
         {exif_rational(kFNumber, {{28, 0}}), exif_rational(kAperture, {{4, 1}})}, {}, {"f=28/0"}},
        {"fnumber 28/0 derives nothing", {}, {exif_rational(kFNumber, {{28, 0}})}, {}, {"av=0/0"}},
        {"apex over 0", {}, {exif_rational(kAperture, {{1, 0}}), exif_rational(kShutterSpeed, {{0, 0}})},
         {}, {"av=0/1", "f=0/10", "tv=0/1"}},
        {"two seconds", {}, {exif_rational(kExposureTime, {{2, 1}})}, {}, {"tv=64536/1"}},
        {"negative shutter speed", {}, {srational(kShutterSpeed, -3, 2)}, {}, {"tv=64036/1", "exp=0/0"}},
        {"half-empty rationals derive nothing", {},
         {exif_rational(kExposureTime, {{0, 1}}), exif_rational(kFNumber, {{0, 10}})}, {},
         {"tv=0/0", "av=0/0"}},
        {"apex entries too short", {},
         {exif_short(kAperture, {5, 1}), exif_rational(kFNumber, {{8, 1}}), exif_long(kShutterSpeed, {7})},
         {}, {"av=6000/1", "tv=0/0"}},
    });
}

TEST(ExifFields, Gps)
{
    run_field_cases({
        {"south and east", {}, {},
         {exif_ascii(kLatRef, "S"), exif_rational(kLat, {{48, 1}, {51, 1}, {305, 10}}),
          exif_ascii(kLonRef, "E"), exif_rational(kLon, {{2, 1}, {17, 1}, {4032, 100}})},
         {"lat=-175890500/1", "lon=8260320/1"}},
        {"seconds with a zero half skipped, lower case", {}, {},
         {exif_ascii(kLatRef, "n"), exif_rational(kLat, {{48, 1}, {51, 1}, {0, 0}}),
          exif_ascii(kLonRef, "w"), exif_rational(kLon, {{122, 1}, {2505, 100}, {7, 0}})},
         {"lat=175860000/1", "lon=-440703000/1"}},
        {"unknown letter: the flag only", {}, {},
         {exif_ascii(kLatRef, "E"), exif_rational(kLat, {{1, 1}, {0, 1}, {0, 1}}),
          exif_ascii(kLonRef, "X"), exif_rational(kLon, {{1, 1}, {0, 1}, {0, 1}})},
         {"lat=12345/1", "lon=678/1"}},
        {"not finite, out of range", {}, {},
         {exif_ascii(kLatRef, "N"), exif_rational(kLat, {{1, 0}, {0, 1}, {0, 1}}),
          exif_ascii(kLonRef, "W"), exif_rational(kLon, {{1000, 1}, {0, 1}, {0, 1}})},
         {"lat=-2147483648/1", "lon=-2147483648/1"}},
        {"missing reference, short value", {}, {},
         {exif_rational(kLat, {{1, 1}, {0, 1}, {0, 1}}), exif_ascii(kLonRef, "E"),
          exif_rational(kLon, {{1, 1}, {2, 1}})},
         {"lat=12345/0", "lon=678/0"}},
        {"altitude, reference ignored", {}, {},
         {exif_bytes(kAltRef, kTiffByte, {1}), exif_rational(kAlt, {{1001, 3}})}, {"alt=333666/1"}},
        {"gps tags outside the gps ifd", {}, {exif_rational(kAlt, {{1, 1}})}, {}, {"alt=0/0"}},
    });
}

// ---- what the file holds, and nothing else ----

TEST(ExifAsStored, WritesOnlyWhatTheFileGives)
{
    image_metadata start;
    std::memset(&start, 0x5A, sizeof start);
    start.exposure_time = start.f_number = {0, 0};  // would feed derivations
    ExifBlock no_exif_ifd;  // libexif's fix-up would create an EXIF IFD here
    no_exif_ifd.ifd0 = {exif_ascii(kSoftware, "x")};
    const std::pair<Bytes, bool> cases[] = {  // file, has an Exif block
        {plain_jpeg(), false}, {{'t', 'e', 'x', 't'}, false}, {jpeg_with_exif(no_exif_ifd), true}};
    for (const auto &[file, has_exif] : cases) {
        image_metadata expected = start;
        if (has_exif)
            expected.date_time[0] = expected.sub_sec[0] = '\0';
        const image_metadata got = read_exif(file, start);
        EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0) << has_exif;
    }
    for (bool big : {false, true}) {  // libexif's defaults would drop these
        ExifBlock only_exif{big, {}, {exif_long(kImageWidth, {3000}), exif_short(kImageLength, {2000})}, {}, {}};
        expect_fields(read_exif(jpeg_with_exif(only_exif)), {"w=3000", "h=2000"});
    }
}

// ---- broken blocks: clean results, no read outside the data ----

ExifBlock full_block(bool big)
{
    return {big,
            {exif_short(kOrientation, {6}), exif_ascii(kMake, "Maker"), exif_ascii(kModel, "Model 1")},
            {exif_ascii(kDateOriginal, "2021:06:30 17:45:12"), exif_ascii(kSubSecOriginal, "42"),
             exif_rational(kExposureTime, {{1, 60}}), exif_rational(kFNumber, {{56, 10}}),
             exif_short(kFlash, {1}), exif_long(kPixelX, {3000}), exif_long(kPixelY, {2000})},
            {exif_ascii(kLatRef, "N"), exif_rational(kLat, {{1, 1}, {2, 1}, {3, 1}}),
             exif_ascii(kLonRef, "E"), exif_rational(kLon, {{4, 1}, {5, 1}, {6, 1}}),
             exif_rational(kAlt, {{7, 1}})},
            {}};
}

TEST(ExifBroken, OffsetsPastTheEnd)
{
    const std::pair<std::function<void(ExifBlock &)>, std::vector<std::string>> cases[] = {
        {[](ExifBlock &b) { b.ifd0[1].offset = 0xFFFFFF00u; }, {"make=", "model=Model 1"}},
        {[](ExifBlock &b) { b.exif[3].offset = uint32_t(build_exif(b).size() - 10); },
         {"f=0/0", "exp=1/60"}},
        {[](ExifBlock &b) { b.exif_pointer = 0x7FFFFFF0u; }, {"ori=6/1", "w=0", "date="}},
        {[](ExifBlock &b) { b.exif_pointer = 8; }, {"make=Maker"}},  // back at IFD0
        {[](ExifBlock &b) { b.gps[1].count = 0x10000000u; }, {"lat=0/0", "lon=14706000/1"}},
    };
    for (bool big : {false, true}) {
        for (const auto &[damage, expected] : cases) {
            ExifBlock block = full_block(big);
            damage(block);
            expect_fields(read_exif(jpeg_with_exif(block)), expected);
        }
    }
}

// Every few prefixes and a spread of corrupted bytes: whatever libexif makes
// of them, the reader stays inside each entry (the sanitizer build catches a
// stray read) and the texts stay terminated.
TEST(ExifBroken, TruncatedAndCorruptedBlocks)
{
    for (bool big : {false, true}) {
        const Bytes payload = build_exif(full_block(big));
        std::vector<Bytes> variants;
        for (size_t cut = 0; cut <= payload.size(); cut += 3)
            variants.emplace_back(payload.begin(), payload.begin() + cut);
        uint32_t seed = 12345;
        for (int round = 0; round < 150; ++round) {
            Bytes bad = payload;
            for (int k = 0; k < 4; ++k) {
                seed = seed * 1103515245u + 12345u;
                bad[6 + (seed >> 8) % (bad.size() - 6)] = uint8_t(seed >> 24);
            }
            variants.push_back(bad);
        }
        for (const Bytes &v : variants) {
            const image_metadata m = read_exif(with_app1(plain_jpeg(), v));
            EXPECT_LT(strnlen(m.date_time, sizeof m.date_time), sizeof m.date_time);
            EXPECT_LT(strnlen(m.sub_sec, sizeof m.sub_sec), sizeof m.sub_sec);
        }
    }
}

// ---- image_get_metadata ----

TEST(GetMetadata, SizeRuleAndOrientation)
{
    struct Case {  // the frame header says 30 x 20
        const char *name;
        int orientation;             // -1: no tag
        uint32_t exif_w, exif_h;     // 0: no tags
        int32_t rc;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"orientation missing: frame header", -1, 60, 40, 0, {"w=30", "h=20", "ori=0/0"}},
        {"orientation 1: frame header, flag cleared", 1, 60, 40, 0, {"w=30", "h=20", "ori=1/0"}},
        {"orientation 1 agreeing keeps the flag", 1, 30, 20, 0, {"w=30", "h=20", "ori=1/1"}},
        {"orientation 6: exif size, exchanged", 6, 60, 40, 0, {"w=40", "h=60", "ori=6/1"}},
        {"orientation 2 keeps the exif size", 2, 60, 40, 0, {"w=60", "h=40", "ori=2/1"}},
        {"orientation 6 without dimensions", 6, 0, 0, 9, {"w=0", "h=0", "ori=6/1"}},
        {"no dimensions, no orientation", -1, 0, 0, 0, {"w=30", "h=20"}},
        {"orientation 4 is not turned", 4, 30, 20, 0, {"w=30", "h=20"}},
        {"orientation 5", 5, 30, 20, 0, {"w=20", "h=30"}},
        {"orientation 7", 7, 30, 20, 0, {"w=20", "h=30"}},
        {"orientation 8", 8, 30, 20, 0, {"w=20", "h=30"}},
        {"orientation 9: exchanged, then 0", 9, 30, 20, 0, {"w=20", "h=30", "ori=0/1"}},
        {"orientation 12 on failure leaves as 0", 12, 0, 0, 9, {"ori=0/1"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ExifBlock block{false, {exif_ascii(kMake, "M")}, {}, {}, {}};
        if (c.orientation >= 0)
            block.ifd0.push_back(exif_short(kOrientation, {uint16_t(c.orientation)}));
        if (c.exif_w)
            block.exif = {exif_long(kPixelX, {c.exif_w}), exif_long(kPixelY, {c.exif_h})};
        TempDir dir;
        image_metadata meta{};
        const image_ctx ctx{nullptr, nullptr, nullptr, nullptr, 0, 1, 2, 3};
        EXPECT_EQ(image_get_metadata(&ctx, write_temp(dir, jpeg_with_exif(block)).c_str(),
                                     IMAGE_MEDIA_JPEG, &meta), c.rc);
        expect_fields(meta, c.expected);
    }
}

TEST(GetMetadata, ResultsAndLogLines)
{
    struct Line {
        int32_t code, line;
        const char *format;  // of the path
    };
    const Line progress = {0, 37, "Go metadata for %s from libexif"};
    const Line exif_failed = {9, 34, "Cannot extract metadata for %s"};
    const Line no_size = {9, 49, "Cannot get dimension %s"};
    const Line raw_failed = {9, 64, "Cannot extract metadata for %s"};
    struct Case {
        const char *name;
        std::optional<Bytes> file;  // none: missing
        image_media_type type;
        bool null_record;
        int32_t rc;
        std::vector<Line> lines;
    };
    const Case cases[] = {
        {"jpeg without exif", plain_jpeg(), IMAGE_MEDIA_JPEG, false, 0, {progress}},
        {"jpeg with exif", jpeg_with_exif(full_block(true)), IMAGE_MEDIA_JPEG, false, 0, {progress}},
        {"missing file", std::nullopt, IMAGE_MEDIA_JPEG, false, 9, {exif_failed}},
        {"empty file", Bytes{}, IMAGE_MEDIA_JPEG, false, 9, {exif_failed}},
        {"null record", plain_jpeg(), IMAGE_MEDIA_JPEG, true, 9, {exif_failed}},
        {"not a jpeg", Bytes{'t', 'e', 'x', 't'}, IMAGE_MEDIA_JPEG, false, 9, {progress, no_size}},
        {"no frame header", concat({kSoi, kEoi}), IMAGE_MEDIA_JPEG, false, 9, {progress, no_size}},
        {"png", plain_jpeg(), IMAGE_MEDIA_PNG, false, 9, {raw_failed}},
        {"raw", plain_jpeg(), IMAGE_MEDIA_RAW, false, 9, {raw_failed}},
        {"video", plain_jpeg(), IMAGE_MEDIA_VIDEO, false, 9, {raw_failed}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        const std::string path = c.file ? write_temp(dir, *c.file) : dir.path("none.jpg");
        std::vector<LogLine> log;
        const image_ctx ctx{&log, nullptr, nullptr, capture_log, kLevelError, 1, 2, 3};
        image_metadata meta{};
        EXPECT_EQ(image_get_metadata(&ctx, path.c_str(), c.type, c.null_record ? nullptr : &meta), c.rc);
        ASSERT_EQ(log.size(), c.lines.size());
        for (size_t i = 0; i < log.size(); ++i) {
            char text[1024];
            std::snprintf(text, sizeof text, c.lines[i].format, path.c_str());
            EXPECT_EQ(log[i].level, kLevelError);
            EXPECT_EQ(log[i].code, c.lines[i].code);
            EXPECT_EQ(log[i].file, "image");
            EXPECT_EQ(log[i].line, c.lines[i].line);
            EXPECT_EQ(log[i].text, text);
        }
        // Without a log callback, or a record at all, the results stay.
        const image_ctx quiet{nullptr, nullptr, nullptr, nullptr, 0, 1, 2, 3};
        EXPECT_EQ(image_get_metadata(&quiet, path.c_str(), c.type, c.null_record ? nullptr : &meta), c.rc);
        EXPECT_EQ(image_get_metadata(nullptr, path.c_str(), c.type, c.null_record ? nullptr : &meta), c.rc);
    }
}

// Cut the whole file anywhere: a clean 0 or 9, and an orientation that the
// thumbnail entry can use as an index into its nine-row table.
TEST(GetMetadata, TruncatedFiles)
{
    const Bytes whole = jpeg_with_exif(full_block(false));
    for (size_t cut = 0; cut < whole.size(); cut += 7) {
        TempDir dir;
        image_metadata meta{};
        const int32_t rc = image_get_metadata(
            nullptr, write_temp(dir, Bytes(whole.begin(), whole.begin() + cut)).c_str(),
            IMAGE_MEDIA_JPEG, &meta);
        EXPECT_TRUE(rc == 0 || rc == 9) << cut;
        EXPECT_LE(meta.orientation, 8) << cut;
    }
}

// ---- exiftool as a second opinion ----

std::vector<std::string> run_lines(const std::string &command)
{
    std::vector<std::string> lines;
    FILE *p = popen(command.c_str(), "r");
    char buf[1024];
    while (p && std::fgets(buf, sizeof buf, p))
        lines.emplace_back(buf, strcspn(buf, "\n"));
    if (p)
        pclose(p);
    return lines;
}

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
    const char *tags =
        "-EXIF:ExposureTime -EXIF:FNumber -EXIF:ApertureValue -EXIF:ShutterSpeedValue "
        "-EXIF:FocalLength -EXIF:Flash -EXIF:ExposureProgram -EXIF:MeteringMode "
        "-EXIF:WhiteBalance -Composite:GPSLatitude -Composite:GPSLongitude -GPS:GPSAltitude";
    for (const auto &[assignments, summary] : cases) {
        SCOPED_TRACE(assignments);
        TempDir dir;
        const std::string path = dir.path("photo.jpg");
        ASSERT_TRUE(write_jpeg(path, make_flat(64, 48, 3, 90)));
        ASSERT_EQ(std::system(("exiftool -q -q -overwrite_original " + std::string(assignments) +
                               " " + path).c_str()), 0);
        const auto v = run_lines("exiftool -n -s3 -f " + std::string(tags) + " " + path);
        ASSERT_EQ(v.size(), 12u);
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
        const std::pair<uint16_t, uint16_t> shorts[] = {
            {m.flash, m.flash_valid}, {m.exposure_program, m.exposure_program_valid},
            {m.metering_mode, m.metering_mode_valid}, {m.white_balance, m.white_balance_valid}};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(shorts[i].second, has(5 + i)) << i;
            EXPECT_EQ(shorts[i].first, has(5 + i) ? num(5 + i) : 0) << i;
        }
        const std::pair<int32_t, uint16_t> gps[] = {{m.gps_latitude, m.gps_latitude_valid},
                                                    {m.gps_longitude, m.gps_longitude_valid}};
        for (int i = 0; i < 2; ++i) {
            EXPECT_EQ(gps[i].second, has(9 + i)) << i;
            EXPECT_NEAR(gps[i].first, has(9 + i) ? num(9 + i) * 3600000.0 : 0, 1.0) << i;
        }
        EXPECT_NEAR(m.gps_altitude, has(11) ? num(11) * 1000.0 : 0, 1.0);
    }
}

}  // namespace
