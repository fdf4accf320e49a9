// image_jpeg_transform: the coefficient route and its choice against the
// system's jpegtran, the pixel route, markers, the Exif size patch, failures.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <tuple>

#include <gtest/gtest.h>

#include "test_jpeg.h"
#include "transform/transform.h"

using namespace qbtest;

namespace {

bool swaps_sides(uint32_t xform) { return xform == 3 || xform == 4 || xform == 5 || xform == 7; }

// With `out`, our coefficient route on `in` without its route test; else
// reads into `coefs` the frame width and height, then by component its
// sampling, its 64 divisors and every quantised coefficient. Errors longjmp:
// nothing here has a destructor.
bool session(const char *in, const char *out, uint32_t xform, const image_crop *crop,
             std::vector<int> *coefs)
{
    FILE *fi = std::fopen(in, "rb"), *fo = out ? std::fopen(out, "wb") : nullptr;
    jpeg_decompress_struct dinfo;
    jpeg_compress_struct cinfo;
    image_jpeg_error err;
    dinfo.err = cinfo.err = image_jpeg_error_init(&err);
    jpeg_create_decompress(&dinfo);
    jpeg_create_compress(&cinfo);
    volatile bool ok = false;
    if (fi && (fo || !out) && setjmp(err.jump) == 0) {
        jpeg_stdio_src(&dinfo, fi);
        jpeg_read_header(&dinfo, TRUE);
        if (fo) {
            jpeg_stdio_dest(&cinfo, fo);
            image_transform_coefficients(&dinfo, &cinfo, xform, crop);
        } else {
            jvirt_barray_ptr *arrays = jpeg_read_coefficients(&dinfo);
            coefs->assign({int(dinfo.image_width), int(dinfo.image_height)});
            for (int ci = 0; ci < dinfo.num_components; ++ci) {
                const jpeg_component_info &c = dinfo.comp_info[ci];
                coefs->insert(coefs->end(), {c.h_samp_factor, c.v_samp_factor});
                coefs->insert(coefs->end(), c.quant_table->quantval, c.quant_table->quantval + 64);
                for (JDIMENSION by = 0; by < c.height_in_blocks; ++by) {
                    const JCOEF *row = dinfo.mem->access_virt_barray(
                        reinterpret_cast<j_common_ptr>(&dinfo), arrays[ci], by, 1, FALSE)[0][0];
                    coefs->insert(coefs->end(), row, row + c.width_in_blocks * 64);
                }
            }
            jpeg_finish_decompress(&dinfo);
        }
        ok = true;
    }
    jpeg_destroy_compress(&cinfo);
    jpeg_destroy_decompress(&dinfo);
    for (FILE *f : {fi, fo})
        if (f)
            std::fclose(f);
    return ok;
}

std::vector<int> read_coefficients(const std::string &path)  // empty if unreadable
{
    std::vector<int> c;
    return session(path.c_str(), nullptr, 0, nullptr, &c) ? c : std::vector<int>();
}

// The system's jpegtran with `args` (no quoting); true if it exited with 0.
bool run_jpegtran(const std::string &args)
{
    return std::system(("jpegtran " + args + " >/dev/null 2>&1").c_str()) == 0;
}

// `crop` of p (all of it if null) turned by `xform`: what a camera stores
// under the Exif orientation whose upright turn undoes that code (codes 8
// and above: orientation 1, unturned).
Picture reference_xform(const Picture &p, uint32_t xform, const image_crop *crop)
{
    Picture part = make_flat(crop ? crop->width : p.width, crop ? crop->height : p.height,
                             p.components, 0);
    for (int y = 0; y < part.height; ++y)
        std::memcpy(part.at(0, y), p.at(crop ? crop->x : 0, y + (crop ? crop->y : 0)),
                    size_t(part.width) * p.components);
    return stored_as(part, xform < 8 ? "12457836"[xform] - '0' : 1);
}

struct Source {
    const char *name;
    int h = 0, v = 0;  // luma sampling; 0: grey
    int width = 64, height = 48;
    bool progressive = false;
    uint8_t declared = 0;  // grey: sampling byte written into the frame header
    size_t crops = 0;      // leading rows of CROPS run on this source
    bool forced = false;   // our coefficient route whatever the size
};

std::string write_source(const TempDir &dir, const Source &s)
{
    std::vector<uint8_t> jpg = encode_jpeg(make_picture(s.width, s.height, s.h ? 3 : 1),
                                           {.h_samp = s.h, .v_samp = s.v, .progressive = s.progressive});
    size_t sof = 2;  // one component is coded in 8 x 8 units whatever it declares
    while (!(jpg[sof] == 0xFF && (jpg[sof + 1] == 0xC0 || jpg[sof + 1] == 0xC2)))
        ++sof;
    if (s.declared)
        jpg[sof + 11] = s.declared;
    const std::string path = dir.path(std::string(s.name) + ".jpg");
    EXPECT_TRUE(write_file(path, jpg));
    return path;
}

std::string crop_text(const image_crop &c)
{
    return std::to_string(c.width) + "x" + std::to_string(c.height) + "+" +
           std::to_string(c.x) + "+" + std::to_string(c.y);
}

// Crops of the transformed picture, accepted or not for the codes that keep
// (plain) or swap (turned) the sides; a refused crop transforms the whole.
const std::tuple<image_crop, bool, bool> CROPS[] = {
    {{17, 9, 25, 30}, true, true},   {{33, 17, 15, 31}, true, true},
    {{0, 0, 60, 10}, true, false},   {{0, 0, 0, 10}, false, false},
    {{-1, 0, 10, 10}, false, false}, {{2147483647, 0, 1, 1}, false, false},
};

const char *const SWITCHES[8] = {"",           "-flip horizontal", "-flip vertical",
                                 "-transpose", "-transverse",      "-rotate 90",
                                 "-rotate 180", "-rotate 270"};

// Ours next to jpegtran's: the same frame, sampling, divisors, coefficients
// and pixels. Where jpegtran -perfect refuses, ours re-encodes the pixels: at
// quality 100 all divisors are 1. A forced run meets jpegtran without
// -perfect, which moves partial iMCUs unmirrored.
void expect_as_jpegtran(const TempDir &dir, const Source &s, const std::string &src,
                        uint32_t xform, const image_crop *crop, bool accepted)
{
    SCOPED_TRACE("code " + std::to_string(xform) + (crop ? " crop " + crop_text(*crop) : ""));
    const std::string ours = dir.path("ours.jpg"), ref = dir.path("ref.jpg");
    if (s.forced)
        ASSERT_TRUE(session(src.c_str(), ours.c_str(), xform, crop, nullptr));
    else
        ASSERT_EQ(image_jpeg_transform(src.c_str(), ours.c_str(), xform, crop, 100), 0);
    const std::vector<int> a = read_coefficients(ours);
    ASSERT_FALSE(a.empty());
    if (!run_jpegtran(std::string(SWITCHES[xform]) + (s.forced ? "" : " -perfect") +
                      (crop && accepted ? " -crop " + crop_text(*crop) : "") + " -outfile " + ref +
                      " " + src)) {
        EXPECT_TRUE(!s.forced && a[4] == 1) << "not re-encoded";  // [4]: the first divisor
        return;
    }
    EXPECT_TRUE(a == read_coefficients(ref));
    EXPECT_TRUE(read_jpeg(ours).pixels == read_jpeg(ref).pixels);
}

}  // namespace

TEST(Transform, CoefficientRouteMatchesJpegtran)
{
    if (!run_jpegtran("-version"))
        GTEST_SKIP() << "jpegtran is not installed";
    TempDir dir;
    const Source sources[] = {
        {"2x2", 2, 2, 64, 48, false, 0, 6}, {"2x1", 2, 1, 64, 48, false, 0, 2}, {"1x2", 1, 2},
        {"1x1", 1, 1}, {"grey22", 0, 0, 64, 48, false, 0x22, 2}, {"2x2p", 2, 2, 64, 48, true},
        // lossless only for codes that mirror no axis the picture leaves
        // partly filled: 16 x 8 iMCUs fill only the rows, 8 x 8 only columns
        {"2x1rows", 2, 1, 40, 24}, {"greycols", 0, 0, 24, 20},
        // partial iMCUs, on our coefficient route forced
        {"2x2f", 2, 2, 50, 42, false, 0, 1, true}, {"2x1f", 2, 1, 50, 42, false, 0, 1, true},
        {"1x2f", 1, 2, 50, 42, false, 0, 1, true}, {"greyf", 0, 0, 50, 42, false, 0, 1, true},
    };
    for (const Source &s : sources) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, s);
        for (uint32_t xform = 0; xform < 8; ++xform) {
            expect_as_jpegtran(dir, s, src, xform, nullptr, true);
            for (size_t i = 0; i < s.crops; ++i) {
                const auto &[crop, plain, turned] = CROPS[i];
                expect_as_jpegtran(dir, s, src, xform, &crop, swaps_sides(xform) ? turned : plain);
            }
        }
    }
}

// Every code (8 and above: none), with or without a crop, which lies in the
// source strictly inside it; a refused crop is ignored. At quality 100 the
// re-encoding moves grey by 1 and 2 x 2 sampled colour by up to 26, where a
// pixel walked to the wrong place differs by far more at the mark's edges.
TEST(TransformPixels, EveryCodeAndCropWalkThePixelsToTheirPlace)
{
    TempDir dir;
    const std::string grey = write_source(dir, {"grey", 0, 0, 45, 29}), out = dir.path("out.jpg");
    const std::string colour = write_source(dir, {"2x2", 2, 2, 50, 30});
    const std::tuple<uint32_t, image_crop, bool> cases[] = {  // no crop: width 0
        {1, {}, false}, {2, {}, false}, {4, {}, false}, {5, {}, false}, {6, {}, false},
        {7, {}, false}, {8, {}, false}, {0xFFFFFFFFu, {}, false},
        {5, {3, 4, 20, 10}, true},   {4, {1, 1, 43, 27}, true},  {8, {5, 6, 30, 12}, true},
        {2, {1, 0, 44, 10}, false},  // touches the right edge
        {6, {0, 1, 10, 28}, false},  // touches the bottom edge
        {5, {-1, 0, 10, 10}, false}, {1, {0, 0, -1, 10}, false}, {2, {2147483647, 0, 1, 1}, false},
    };
    for (const auto &[xform, crop, accepted] : cases)
        for (const std::string &in : {grey, colour}) {
            SCOPED_TRACE(in + " " + crop_text(crop) + " code " + std::to_string(xform));
            const image_crop *c = crop.width ? &crop : nullptr;
            if (c && in == colour)
                continue;
            ASSERT_EQ(image_jpeg_transform(in.c_str(), out.c_str(), xform, c, 100), 0);
            EXPECT_EQ(read_coefficients(out)[4], 1) << "not re-encoded";
            const Picture got = read_jpeg(out);
            const Picture want = reference_xform(read_jpeg(in), xform, accepted ? c : nullptr);
            ASSERT_TRUE(got.width == want.width && got.height == want.height);
            for (size_t i = 0; i < got.pixels.size(); ++i)
                ASSERT_LE(std::abs(got.pixels[i] - want.pixels[i]), in == grey ? 8 : 40) << "at " << i;
        }
}

// Run under the sanitizer build, this also shows that no failure leaks.
// Missing files, outputs in missing folders and full disks are the fault
// suite's (tests/test_faults.cpp).
TEST(TransformFailures, ResultCodes)
{
    TempDir dir;
    const std::vector<uint8_t> bytes = read_file(write_source(dir, {"2x2", 2, 2, 200, 150}));
    write_file(dir.path("header.jpg"), {bytes.begin(), bytes.begin() + 100});
    write_file(dir.path("data.jpg"), {bytes.begin(), bytes.begin() + long(bytes.size() * 2 / 3)});
    const image_crop empty = {2, 2, 0, 10};
    // output width: 0 nothing written
    const std::tuple<const char *, uint32_t, const image_crop *, int32_t, int> cases[] = {
        {"header.jpg", 5, nullptr, -3, 0},
        // cut inside the scan data: libjpeg pads it, on both routes
        {"data.jpg", 3, nullptr, 0, 150},
        {"data.jpg", 1, nullptr, 0, 200},
        {"2x2.jpg", 1, &empty, -4, 0},  // the pixel route's encoder refuses it
    };
    const std::string out = dir.path("out.jpg");
    for (const auto &[in, xform, crop, result, written] : cases) {
        SCOPED_TRACE(std::string(in) + " code " + std::to_string(xform));
        EXPECT_EQ(image_jpeg_transform(dir.path(in).c_str(), out.c_str(), xform, crop, 90), result);
        EXPECT_EQ(written ? read_jpeg(out).width : int(read_file(out).size()), written);
    }
}

namespace {

// "Exif\0\0", a TIFF header, IFD0 (Orientation, Exif pointer) at 8 and at 38
// the Exif directory: the size entries (height, width) of `type`, another
// entry and the width again. Offsets count from the TIFF header.
std::vector<uint8_t> size_block(bool be, uint16_t type, uint32_t w, uint32_t h)
{
    std::vector<uint8_t> p = {'E', 'x', 'i', 'f', 0, 0};
    const auto put = [&](uint32_t v, int size) {
        for (int i = 0; i < size; ++i)
            p.push_back(uint8_t(v >> (be ? 8 * (size - 1 - i) : 8 * i)));
    };
    const auto entry = [&](uint16_t tag, uint16_t ty, uint32_t count, uint32_t value) {
        const bool short1 = ty == 3 && count == 1;  // left-justified
        put(tag, 2), put(ty, 2), put(count, 4), put(value, short1 ? 2 : 4), put(0, short1 ? 2 : 0);
    };
    put(be ? 0x4D4D : 0x4949, 2), put(42, 2), put(8, 4), put(2, 2);
    entry(0x0112, 3, 1, 6), entry(34665, 4, 1, 38), put(0, 4), put(4, 2);
    entry(40963, type, 1, h), entry(40962, type, 1, w), entry(0x9000, 7, 4, 0x30323330);
    entry(40962, type, 1, w), put(0, 4);
    return p;
}

std::vector<uint8_t> bytes(std::string_view s) { return {s.begin(), s.end()}; }

// The APPn and COM segments before the first scan: {marker, payload}.
using Segment = std::pair<int, std::vector<uint8_t>>;
std::vector<Segment> app_segments(const std::vector<uint8_t> &f)
{
    std::vector<Segment> out;
    for (size_t pos = 2; pos + 4 <= f.size() && f[pos] == 0xFF && f[pos + 1] != 0xDA;) {
        const size_t len = size_t(f[pos + 2]) << 8 | f[pos + 3];
        if (len < 2 || pos + 2 + len > f.size())
            break;
        if ((f[pos + 1] >= 0xE0 && f[pos + 1] <= 0xEF) || f[pos + 1] == 0xFE)
            out.push_back({f[pos + 1], {f.begin() + long(pos + 4), f.begin() + long(pos + 2 + len)}});
        pos += 2 + len;
    }
    return out;
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

TEST(ExifPatch, MalformedBlocksStayUnchanged)
{
    const auto patched = [](std::vector<uint8_t> p) {  // a copy of exactly its size
        image_exif_patch_size(p.data() + 6, uint32_t(p.size() - 6), 1200, 900);
        return p;
    };
    // Payload offsets: IFD0 at 14, the Exif pointer's value at 36, the Exif
    // directory at 44, its first entry at 46.
    const std::tuple<const char *, long, std::vector<uint8_t>> cases[] = {
        {"byte order", 6, {'I', 'M'}},
        {"magic", 8, {42, 1}},
        {"IFD0 offset above 16 bits", 10, {8, 0, 1, 0}},
        {"IFD0 beyond the block", 10, {0xF0, 0xFF, 0, 0}},
        {"IFD0 without entries", 14, {0, 0}},
        {"Exif pointer not among the counted entries", 14, {1, 0}},
        {"Exif offset above 16 bits", 36, {38, 0, 0, 1}},
        {"Exif directory of one entry", 44, {1, 0}},
    };
    for (const auto &[what, at, change] : cases) {
        std::vector<uint8_t> p = size_block(false, 3, 64, 48);
        std::copy(change.begin(), change.end(), p.begin() + at);
        EXPECT_EQ(patched(p), p) << what;
    }
    // Every cut of a valid block: the walk stays inside, and rewrites an
    // entry only when it is whole.
    const std::vector<uint8_t> full = size_block(true, 3, 64, 48);
    for (size_t n = 6; n <= full.size(); ++n) {
        const std::vector<uint8_t> cut(full.begin(), full.begin() + long(n));
        EXPECT_EQ(patched(cut) == cut, n < 46 + 12) << n;
    }
}

// Every APPn marker is carried, in order, on both routes; but where libjpeg
// writes its own JFIF or Adobe marker (the coefficient route), the source's
// are dropped. Comments are not carried. The Exif size entries, SHORT in the
// source, become LONGs holding the output's size in either byte order where
// the size changes; blocks that are no sound Exif pass unchanged.
TEST(TransformMarkers, CarriedInOrderWithTheOutputsExifSize)
{
    std::vector<uint8_t> icc1 = icc_app2_payload("ADBE"), icc2 = icc1;
    icc1[13] = icc2[13] = 2;  // one profile in two markers, the second long
    icc2[12] = 2;
    icc2.resize(icc2.size() + 60000, 0x5A);
    std::vector<uint8_t> bad_magic = size_block(true, 3, 64, 48), not_exif = bad_magic;
    bad_magic[9] = 43;
    not_exif[5] = 1;  // "Exif\0\1", though the TIFF is sound
    // source width (64: coefficient route, 50: pixels), RGB with an Adobe
    // marker (else YCbCr with JFIF), code, crop, big-endian, the size written
    // (0: entries untouched)
    const std::tuple<int, bool, uint32_t, image_crop, bool, uint32_t, uint32_t> cases[] = {
        {64, false, 6, {}, false, 0, 0},  {50, false, 6, {}, false, 0, 0},
        {64, true, 6, {}, true, 0, 0},    {50, true, 6, {}, true, 0, 0},
        {64, false, 5, {}, false, 48, 64}, {50, true, 7, {}, true, 48, 50},
        {64, false, 0, {20, 5, 30, 20}, true, 34, 25},  // widened to the iMCU grid
        {50, false, 7, {1, 2, 30, 20}, false, 20, 30},  {64, true, 1, {}, false, 0, 0},
    };
    for (const auto &[width, rgb, xform, crop, be, w, h] : cases) {
        SCOPED_TRACE(std::to_string(width) + (rgb ? " rgb" : " ycc") + " code " + std::to_string(xform));
        JpegOptions opt{.jpeg_color_space = rgb ? JCS_RGB : JCS_UNKNOWN, .write_jfif = !rgb};
        opt.markers = {rgb ? Segment{JPEG_APP0 + 14, bytes({"Adobe\0\x64\0\0\0\0\0", 12})}
                           : Segment{JPEG_APP0, bytes({"JFIF\0\1\2\1\0\x48\0\x48\0\0", 14})},
                       {JPEG_APP0 + 1, size_block(be, 3, 64, 48)}, {JPEG_APP0 + 2, icc1},
                       {JPEG_APP0 + 13, bytes("Photoshop 3.0")},  {JPEG_APP0 + 2, icc2},
                       {JPEG_APP0 + 15, bytes("vendor")},         {JPEG_APP0, bytes("JFIF")},
                       {JPEG_APP0, bytes({"JFXX\0\x10", 6})},    {JPEG_APP0 + 1, bad_magic},
                       {JPEG_APP0 + 1, not_exif},                 {JPEG_APP0 + 1, bytes({"Exif", 5})},
                       {JPEG_COM, bytes("comment")}};
        auto [in, out] = run_markers(opt, width, 48, xform, crop.width ? &crop : nullptr);
        in.pop_back();  // the comment
        if (w)  // behind libjpeg's own marker and ours
            in[2].second = size_block(be, 4, w, h);
        ASSERT_FALSE(out.empty());
        if (width == 64) {
            EXPECT_EQ(out[0].second[0], in[0].second[0]) << "libjpeg's own leads";
            out.erase(out.begin());
            in.erase(in.begin(), in.begin() + 2);
        }
        EXPECT_EQ(out, in);
    }
}
