// image_jpeg_transform: route choice, the coefficient route against the
// system's jpegtran, the pixel route, markers and the Exif size patch, and
// failures.
#include <filesystem>
#include <memory>
#include <string_view>

#include <gtest/gtest.h>

#include "transform_support.h"

using namespace qbtest;

namespace {

struct Source {
    const char *name;
    int h = 0, v = 0;  // luma sampling; 0: grey
    bool progressive = false;
    uint8_t declared = 0;  // grey: sampling byte written into the frame header
    size_t crops = 0;      // leading rows of CROPS run on this source
};

const Source S22{"2x2", 2, 2, false, 0, 6}, S21{"2x1", 2, 1, false, 0, 2}, S12{"1x2", 1, 2},
    S11{"1x1", 1, 1}, GREY{"grey"}, GREY22{"grey22", 0, 0, false, 0x22, 2},
    S22P{"2x2p", 2, 2, true};

std::string write_source(const TempDir &dir, const Source &s, int w, int h)
{
    JpegOptions opt;
    opt.h_samp = s.h;
    opt.v_samp = s.v;
    opt.progressive = s.progressive;
    std::vector<uint8_t> jpg = encode_jpeg(make_picture(w, h, s.h ? 3 : 1), opt);
    if (s.declared) {  // one component is coded in 8 x 8 units whatever it declares
        size_t sof = 2;
        while (!(jpg[sof] == 0xFF && (jpg[sof + 1] == 0xC0 || jpg[sof + 1] == 0xC2)))
            ++sof;
        jpg[sof + 11] = s.declared;
    }
    const std::string path = dir.path(std::string(s.name) + ".jpg");
    EXPECT_TRUE(write_file(path, jpg));
    return path;
}

std::string crop_text(const image_crop &c)
{
    return std::to_string(c.width) + "x" + std::to_string(c.height) + "+" +
           std::to_string(c.x) + "+" + std::to_string(c.y);
}

// Crops of the transformed 64 x 48 picture, accepted or not for the codes
// that keep (plain) or swap (turned) the sides; a refused crop transforms
// the whole picture.
const struct {
    image_crop crop;
    bool plain, turned;
} CROPS[] = {
    {{17, 9, 30, 20}, true, true},   {{33, 17, 15, 31}, true, true},
    {{0, 0, 60, 10}, true, false},   {{0, 0, 0, 10}, false, false},
    {{-1, 0, 10, 10}, false, false}, {{2147483647, 0, 1, 1}, false, false},
};

const std::vector<std::string> SWITCHES[8] = {
    {}, {"-flip", "horizontal"}, {"-flip", "vertical"}, {"-transpose"}, {"-transverse"},
    {"-rotate", "90"}, {"-rotate", "180"}, {"-rotate", "270"}};

// Ours next to jpegtran's: the same frame, sampling, divisors, coefficients
// and pixels. `perfect` off runs our coefficient route whatever the size.
void expect_as_jpegtran(const TempDir &dir, const std::string &src, uint32_t xform,
                        const image_crop *crop, bool accepted = true, bool perfect = true)
{
    SCOPED_TRACE("code " + std::to_string(xform) + (crop ? " crop " + crop_text(*crop) : ""));
    const std::string ours = dir.path("ours.jpg"), ref = dir.path("ref.jpg");
    if (perfect)
        ASSERT_EQ(image_jpeg_transform(src.c_str(), ours.c_str(), xform, crop, 50), 0);
    else
        ASSERT_TRUE(force_coefficient_route(src, ours, xform, crop));
    std::vector<std::string> args = SWITCHES[xform];
    if (perfect)
        args.push_back("-perfect");
    if (crop && accepted)
        args.insert(args.end(), {"-crop", crop_text(*crop)});
    args.insert(args.end(), {"-outfile", ref, src});
    ASSERT_TRUE(run_jpegtran(args));
    const Coefficients a = read_coefficients(ours);
    ASSERT_FALSE(a.comps.empty());
    EXPECT_TRUE(a == read_coefficients(ref));
    EXPECT_TRUE(read_jpeg(ours).pixels == read_jpeg(ref).pixels);
}

}  // namespace

// Lossless exactly where the picture fills the iMCU grid (of the largest
// sampling) along each axis the code mirrors; else re-encoded at the
// quality, whose divisors are all 1 at 100.
TEST(TransformRoute, LosslessWhereMirroredAxesFillWholeImcus)
{
    TempDir dir;
    const std::string out = dir.path("out.jpg");
    const struct {
        Source source;
        int w, h;
        const char *lossless;  // by code
    } cases[] = {
        {S21, 40, 24, "10110100"},  // 16 x 8 iMCUs: only the rows fill
        {GREY, 24, 20, "11010001"},  // 8 x 8: only the columns fill
    };
    for (const auto &c : cases) {
        const std::string src = write_source(dir, c.source, c.w, c.h);
        for (uint32_t xform = 0; xform < 10; ++xform) {
            ASSERT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, nullptr, 100), 0);
            EXPECT_EQ(read_coefficients(out).comps[0].quant[0] != 1,
                      xform < 8 && c.lossless[xform] == '1')
                << c.source.name << " code " << xform;
        }
    }
}

TEST(Transform, CoefficientRouteMatchesJpegtranPerfect)
{
    if (!run_jpegtran({"-version"}))
        GTEST_SKIP() << "jpegtran is not installed";
    TempDir dir;
    for (const Source &s : {S22, S21, S12, S11, GREY, GREY22, S22P}) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, s, 64, 48);
        for (uint32_t xform = 0; xform < 8; ++xform) {
            expect_as_jpegtran(dir, src, xform, nullptr);
            for (size_t i = 0; i < s.crops; ++i)
                expect_as_jpegtran(dir, src, xform, &CROPS[i].crop,
                                   swaps_sides(xform) ? CROPS[i].turned : CROPS[i].plain);
        }
    }
}

// A last, partly filled iMCU cannot be mirrored; its blocks move unmirrored,
// as jpegtran does without -perfect and -trim.
TEST(Transform, PartialImcusMoveUnmirroredLikeJpegtran)
{
    if (!run_jpegtran({"-version"}))
        GTEST_SKIP() << "jpegtran is not installed";
    TempDir dir;
    const image_crop crop = {17, 9, 25, 30};
    for (const Source &s : {S22, S21, S12, GREY}) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, s, 50, 42);
        for (uint32_t xform = 1; xform < 8; ++xform) {
            expect_as_jpegtran(dir, src, xform, nullptr, true, false);
            expect_as_jpegtran(dir, src, xform, &crop, true, false);
        }
    }
}

TEST(TransformCoefficients, CodeThenItsInverseRestoresEveryCoefficient)
{
    TempDir dir;
    const std::string a = dir.path("a.jpg"), b = dir.path("b.jpg");
    for (const Source &s : {S21, S22P}) {
        const std::string src = write_source(dir, s, 64, 48);
        const Coefficients orig = read_coefficients(src);
        for (uint32_t xform = 0; xform < 8; ++xform) {
            ASSERT_EQ(image_jpeg_transform(src.c_str(), a.c_str(), xform, nullptr, 50), 0);
            ASSERT_EQ(image_jpeg_transform(a.c_str(), b.c_str(), image_reverse_xform_table[xform],
                                           nullptr, 50), 0);
            EXPECT_TRUE(read_coefficients(b) == orig) << s.name << " code " << xform;
        }
    }
}

// Grey at quality 100 keeps re-encoding errors small, so a pixel walked to
// the wrong place shows as a large difference at the mark's edges.
constexpr int PIXEL_TOLERANCE = 8;

// Every code (8 and above: none), with or without a crop, which lies in the
// source strictly inside it; a refused crop is ignored.
TEST(TransformPixels, EveryCodeAndCropWalkThePixelsToTheirPlace)
{
    TempDir dir;
    const std::string grey = write_source(dir, GREY, 45, 29), out = dir.path("out.jpg");
    const std::string colour = write_source(dir, S22, 50, 30);
    const Picture decoded = read_jpeg(grey);
    const int mark_corner[8] = {0, 1, 2, 0, 3, 1, 3, 2};  // bit 0: right, bit 1: bottom
    for (uint32_t xform : {1u, 2u, 4u, 5u, 6u, 7u, 8u, 0xFFFFFFFFu}) {
        ASSERT_EQ(image_jpeg_transform(grey.c_str(), out.c_str(), xform, nullptr, 100), 0);
        EXPECT_LE(max_abs_diff(read_jpeg(out), reference_xform(decoded, xform, nullptr)),
                  PIXEL_TOLERANCE) << xform;
        ASSERT_EQ(image_jpeg_transform(colour.c_str(), out.c_str(), xform, nullptr, 95), 0);
        const Picture p = read_jpeg(out);
        ASSERT_EQ(p.width, swaps_sides(xform) ? 30 : 50) << xform;
        ASSERT_EQ(p.height, swaps_sides(xform) ? 50 : 30);
        for (int k = 0; k < 4; ++k) {
            const int x = (k & 1) ? p.width - 3 : 2, y = (k & 2) ? p.height - 3 : 2;
            EXPECT_EQ(is_reddish(p.at(x, y), 3), k == mark_corner[xform < 8 ? xform : 0])
                << xform << " corner " << k;
        }
    }
    const struct {
        uint32_t xform;
        image_crop crop;
        bool accepted;
    } cases[] = {
        {5, {3, 4, 20, 10}, true},   {4, {1, 1, 43, 27}, true},  {8, {5, 6, 30, 12}, true},
        {2, {1, 0, 44, 10}, false},  // touches the right edge
        {6, {0, 1, 10, 28}, false},  // touches the bottom edge
        {5, {-1, 0, 10, 10}, false}, {1, {0, 0, -1, 10}, false}, {2, {2147483647, 0, 1, 1}, false},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(image_jpeg_transform(grey.c_str(), out.c_str(), c.xform, &c.crop, 100), 0);
        EXPECT_LE(max_abs_diff(read_jpeg(out),
                               reference_xform(decoded, c.xform, c.accepted ? &c.crop : nullptr)),
                  PIXEL_TOLERANCE) << crop_text(c.crop) << " code " << c.xform;
    }
}

// Run under the sanitizer build, this also shows that no failure leaks.
TEST(TransformFailures, ResultCodes)
{
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator fds("/proc/self/fd");
        return std::distance(begin(fds), end(fds));
    };
    const auto fds = open_descriptors();
    TempDir dir;
    const std::vector<uint8_t> bytes = read_file(write_source(dir, S22, 200, 150));
    write_file(dir.path("text.jpg"), std::vector<uint8_t>(300, 'x'));
    write_file(dir.path("header.jpg"), {bytes.begin(), bytes.begin() + 100});
    write_file(dir.path("data.jpg"), {bytes.begin(), bytes.begin() + long(bytes.size() * 2 / 3)});
    const image_crop no_width = {2, 2, 0, 10}, no_height = {2, 2, 10, 0};
    const struct {
        const char *in, *out;
        uint32_t xform;
        const image_crop *crop;
        int32_t result;
        int written;  // output width; 0: nothing written; -1: not checked
    } cases[] = {
        {"none.jpg", "out.jpg", 0, nullptr, -1, 0},
        {"2x2.jpg", "no/dir.jpg", 0, nullptr, -2, -1},
        {"text.jpg", "out.jpg", 5, nullptr, -3, 0},
        {"header.jpg", "out.jpg", 5, nullptr, -3, 0},
        // cut inside the scan data: libjpeg pads it, on both routes
        {"data.jpg", "out.jpg", 3, nullptr, 0, 150},
        {"data.jpg", "out.jpg", 1, nullptr, 0, 200},
        // an empty crop on the pixel route: the encoder refuses it
        {"2x2.jpg", "out.jpg", 1, &no_width, -4, 0},
        {"2x2.jpg", "out.jpg", 1, &no_height, -4, 0},
        {"2x2.jpg", "/dev/full", 3, nullptr, -4, -1},
        {"2x2.jpg", "/dev/full", 1, nullptr, -4, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.in) + " to " + c.out + " code " + std::to_string(c.xform));
        const std::string out = c.out[0] == '/' ? c.out : dir.path(c.out);
        EXPECT_EQ(image_jpeg_transform(dir.path(c.in).c_str(), out.c_str(), c.xform, c.crop, 90),
                  c.result);
        if (c.written >= 0) {
            EXPECT_EQ(c.written ? read_jpeg(out).width : int(read_file(out).size()), c.written);
        }
    }
    EXPECT_EQ(read_file(dir.path("2x2.jpg")), bytes) << "the source is never changed";
    EXPECT_EQ(open_descriptors(), fds) << "both files are closed on every path";
}

// ---- markers and the Exif size patch ----

namespace {

constexpr uint16_t TAG_WIDTH = 40962, TAG_HEIGHT = 40963;

// An Exif block whose directory holds the size entries, the width twice,
// and another entry, in no particular order.
std::vector<uint8_t> size_block(bool be, uint16_t type, uint32_t w, uint32_t h)
{
    return exif_payload(be, {{TAG_HEIGHT, type, 1, h}, {TAG_WIDTH, type, 1, w},
                             {0x9000, 7, 4, 0x30323330}, {TAG_WIDTH, type, 1, w}});
}

// The patch on an exact-size copy, so that the sanitizer sees any access
// past the end.
std::vector<uint8_t> patched(const std::vector<uint8_t> &payload, uint32_t w, uint32_t h)
{
    const std::unique_ptr<unsigned char[]> buf(new unsigned char[payload.size()]);
    std::copy(payload.begin(), payload.end(), buf.get());
    image_exif_patch_size(buf.get() + 6, uint32_t(payload.size() - 6), w, h);
    return {buf.get(), buf.get() + payload.size()};
}

std::vector<uint8_t> bytes(std::string_view s)
{
    return {s.begin(), s.end()};
}

// Transforms a w x h picture (2 x 2 sampled) carrying opt's markers and
// returns the source's and the output's APPn and COM segments.
std::pair<std::vector<Segment>, std::vector<Segment>> run_markers(
    const JpegOptions &opt, int w, int h, uint32_t xform, const image_crop *crop = nullptr)
{
    const TempDir dir;
    const std::string src = dir.path("src.jpg"), out = dir.path("out.jpg");
    EXPECT_TRUE(write_jpeg(src, make_picture(w, h, 3), opt));
    EXPECT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, crop, 90), 0);
    return {app_segments(read_file(src)), app_segments(read_file(out))};
}

}  // namespace

TEST(ExifPatch, SizeEntriesBecomeLongsInEitherByteOrder)
{
    for (bool be : {false, true})
        EXPECT_EQ(patched(size_block(be, 3, 64, 48), 1200, 900), size_block(be, 4, 1200, 900));
}

TEST(ExifPatch, MalformedBlocksStayUnchanged)
{
    // Payload offsets: IFD0 at 14, the Exif pointer's value at 36, the Exif
    // directory at 44, its first entry at 46.
    const struct {
        const char *name;
        size_t at;
        std::vector<uint8_t> bytes;
    } cases[] = {
        {"byte order", 6, {'I', 'M'}},
        {"magic", 8, {42, 1}},
        {"IFD0 offset above 16 bits", 10, {8, 0, 1, 0}},
        {"IFD0 beyond the block", 10, {0xF0, 0xFF, 0, 0}},
        {"IFD0 without entries", 14, {0, 0}},
        {"Exif pointer not among the counted entries", 14, {1, 0}},
        {"Exif offset above 16 bits", 36, {38, 0, 0, 1}},
        {"Exif directory of one entry", 44, {1, 0}},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> p = size_block(false, 3, 64, 48);
        std::copy(c.bytes.begin(), c.bytes.end(), p.begin() + long(c.at));
        EXPECT_EQ(patched(p, 1200, 900), p) << c.name;
    }
    // Every cut of a valid block: the walk stays inside, and rewrites an
    // entry only when it is whole.
    const std::vector<uint8_t> full = size_block(true, 3, 64, 48);
    for (size_t n = 6; n <= full.size(); ++n) {
        const std::vector<uint8_t> cut(full.begin(), full.begin() + long(n));
        EXPECT_EQ(patched(cut, 1200, 900) == cut, n < 46 + 12) << n;
    }
}

// Every APPn marker is carried, in order, on both routes; but where libjpeg
// writes its own JFIF or Adobe marker (the coefficient route), the source's
// are dropped. Comments are not carried.
TEST(TransformMarkers, CarriedInOrderWithoutDuplicateJfifOrAdobe)
{
    std::vector<uint8_t> icc1 = icc_app2_payload("ADBE"), icc2 = icc1;
    icc1[13] = icc2[13] = 2;  // one profile in two markers, the second long
    icc2[12] = 2;
    icc2.resize(icc2.size() + 60000, 0x5A);
    JpegOptions ycc, rgb;
    ycc.markers = {{JPEG_APP0, bytes({"JFIF\0\1\2\1\0\x48\0\x48\0\0", 14})},
                   {JPEG_APP0 + 1, size_block(false, 3, 64, 32)}, {JPEG_APP0 + 2, icc1},
                   {JPEG_APP0 + 13, bytes("Photoshop 3.0")},     {JPEG_APP0 + 2, icc2},
                   {JPEG_APP0 + 15, bytes("vendor")},            {JPEG_APP0, bytes("JFIF")},
                   {JPEG_APP0, bytes({"JFXX\0\x10", 6})},       {JPEG_COM, bytes("comment")}};
    rgb.jpeg_color_space = JCS_RGB;
    rgb.write_jfif = false;
    rgb.markers = ycc.markers;
    rgb.markers[0] = {JPEG_APP0 + 14, bytes({"Adobe\0\x64\0\0\0\0\0", 12})};
    for (const JpegOptions &opt : {ycc, rgb})
        for (int w : {64, 50}) {  // coefficient route, then pixels
            SCOPED_TRACE(std::to_string(w) + (opt.write_jfif ? " ycc" : " rgb"));
            auto [in, out] = run_markers(opt, w, 32, 6);
            std::erase_if(in, [](const Segment &s) { return s.marker == JPEG_COM; });
            ASSERT_FALSE(out.empty());
            if (w == 64) {
                EXPECT_EQ(out[0].data[0], in[0].data[0]) << "libjpeg's own leads";
                out.erase(out.begin());
                in.erase(in.begin(), in.begin() + 2);
            }
            EXPECT_EQ(out, in);
        }
}

TEST(TransformMarkers, ExifSizeFollowsTheOutput)
{
    std::vector<uint8_t> bad_magic = size_block(true, 3, 64, 48), not_exif = bad_magic;
    bad_magic[9] = 43;
    not_exif[5] = 1;  // "Exif\0\1", though the TIFF is sound
    const struct {
        int width;  // 64: coefficient route, 50: pixels
        uint32_t xform;
        image_crop crop;
        bool be;
        uint32_t w, h;  // 0: entries untouched
    } cases[] = {
        {64, 5, {}, false, 48, 64}, {50, 7, {}, true, 48, 50},
        {64, 0, {20, 5, 30, 20}, true, 34, 25},  // widened to the iMCU grid
        {50, 7, {1, 2, 30, 20}, false, 20, 30},  {64, 1, {}, false, 0, 0},
    };
    for (const auto &c : cases) {
        JpegOptions opt;
        const std::vector<uint8_t> block = size_block(c.be, 3, 64, 48), bare = bytes({"Exif", 5});
        opt.markers = {{JPEG_APP0 + 1, block}, {JPEG_APP0 + 1, bad_magic},
                       {JPEG_APP0 + 1, not_exif}, {JPEG_APP0 + 1, bare}};
        std::vector<std::vector<uint8_t>> exif;
        const image_crop *crop = c.crop.width ? &c.crop : nullptr;
        for (const Segment &s : run_markers(opt, c.width, 48, c.xform, crop).second)
            if (s.marker == JPEG_APP0 + 1)
                exif.push_back(s.data);
        const std::vector<uint8_t> resized = c.w ? size_block(c.be, 4, c.w, c.h) : block;
        EXPECT_EQ(exif, (std::vector<std::vector<uint8_t>>{resized, bad_magic, not_exif, bare}))
            << c.width << " code " << c.xform;
    }
}
