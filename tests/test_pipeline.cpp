// The scaling pipeline end to end: row store, rotation, border, decode
// cache, encoder, Exif stamp, overlay, the thumbnail entry and its codes.
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstring>
#include <numeric>

#include <gtest/gtest.h>

#include "exif_writer.h"
#include "core/core.h"
#include "pipeline/pipeline.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

image_scale_params params(uint32_t mode, int32_t w, int32_t h, int quality = 100)
{
    return image_scale_params{mode, w, h, 10.0, quality, 0, 0};
}

// `p` turned by image_rows_rotate.
Picture turned(const Picture &p, uint32_t xf)
{
    const bool swap = xf == 3 || xf == 4 || xf == 5 || xf == 7;
    const auto w = uint32_t(p.width), h = uint32_t(p.height), n = uint32_t(p.components);
    Picture out = make_flat(int(swap ? h : w), int(swap ? w : h), int(n), 0);
    image_rows a = image_rows_alloc(w, h, n);
    image_rows b = image_rows_alloc(uint32_t(out.width), uint32_t(out.height), n);
    for (uint32_t y = 0; y < h; ++y)
        std::memcpy(a[y], &p.pixels[y * w * n], w * n);
    image_rows_rotate(a, b, xf, w, h, n);
    for (int y = 0; y < out.height; ++y)
        std::memcpy(out.at(0, y), b[y], size_t(out.width) * n);
    image_rows_free(a, h, 1);
    image_rows_free(b, uint32_t(out.height), 1);
    return out;
}

// What a camera stores for Exif orientation o of the upright `up`, mapped
// pixel by pixel: o 5..8 exchange the sides, then a and b may run backwards.
Picture stored_as(const Picture &up, int o)
{
    const bool t = o >= 5, fa = o == 2 || o == 3 || o == 7 || o == 8;
    const bool fb = o == 3 || o == 4 || o == 6 || o == 7;
    Picture s = make_flat(t ? up.height : up.width, t ? up.width : up.height, up.components, 0);
    for (int y = 0; y < up.height; ++y)
        for (int x = 0; x < up.width; ++x) {
            const int a = t ? y : x, b = t ? x : y;
            std::memcpy(s.at(fa ? s.width - 1 - a : a, fb ? s.height - 1 - b : b), up.at(x, y),
                        size_t(up.components));
        }
    return s;
}

// A decode cache: over a real file as the thumbnail route sets it up, or
// filled by hand with one value (exact pixels, no stream).
struct Cached {
    image_jcache cache{};
    image_jpeg_error err;
    FILE *first = nullptr, *stream = nullptr;
    Cached(uint32_t w, uint32_t h, int comps, uint8_t value)
    {
        cache.cinfo.image_width = cache.cinfo.output_width = cache.width = w;
        cache.cinfo.image_height = cache.cinfo.output_height = cache.height = h;
        cache.cinfo.output_components = cache.components = comps;
        cache.cinfo.out_color_space = comps == 1 ? JCS_GRAYSCALE : JCS_RGB;
        cache.scale_num = cache.scale_denom = 1;
        cache.rows = image_rows_alloc(w, h, uint32_t(comps));
        for (uint32_t y = 0; y < h; ++y)
            std::memset(cache.rows[y], value, size_t(w) * comps);
    }
    explicit Cached(const std::string &path)
        : first(fopen(path.c_str(), "rb")), stream(fopen(path.c_str(), "rb"))
    {
        image_jpeg_jcache_init(&cache, image_jpeg_error_init(&err));
        err.mgr.error_exit = image_jpeg_error_exit;  // the cache's init puts libjpeg's back
        jpeg_create_decompress(&cache.cinfo);
        if (setjmp(err.jump))
            return;
        jpeg_stdio_src(&cache.cinfo, first);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
    }
    ~Cached()
    {
        image_jpeg_jcache_clean(&cache);
        if (!first)
            return;
        jpeg_destroy_decompress(&cache.cinfo);
        fclose(first);
        fclose(stream);
    }
    // 99: libjpeg jumped back here.
    int32_t scale(const std::string &out, const image_scale_params &p, uint32_t xform = 0,
                  const char *thumb = nullptr, image_overlay *ov = nullptr)
    {
        if (setjmp(err.jump))
            return 99;
        return image_jpeg_scale(1, &cache, stream, out.c_str(), xform, &p, thumb, ov);
    }
};

TEST(Rows, StoreLayout)
{
    image_rows rows = image_rows_alloc(100, 100, 3);  // 128 slots of 384 zero bytes
    ASSERT_NE(rows, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows) % 16, 0u);
    for (int i = 0; i < 128; ++i) {
        ASSERT_NE(rows[i], nullptr) << i;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(rows[i]) % 16, 0u);
        for (int b = 0; b < 384; ++b)
            ASSERT_EQ(rows[i][b], 0);
    }
    image_rows view = image_rows_alloc(0, 10, 3);
    ASSERT_NE(view, nullptr);
    std::copy_n(rows, 10, view);  // borrowed: freeing them twice would abort
    image_rows_free(view, 10, 0);
    image_rows_free(rows, 65, 1);  // any height of the same rounding frees all
    image_rows_free(nullptr, 10, 1);
    EXPECT_EQ(image_rows_alloc(0x7FFFFFF0u, 1, 4), nullptr);
    EXPECT_EQ(image_rows_alloc(10, UINT32_MAX - 10, 1), nullptr);
}

// On unequal sides: a then b is the composition table's single code, and the
// reverse table undoes a.
TEST(Rows, RotationsComposeAndInvertLikeTheTables)
{
    Picture src = make_flat(5, 3, 1, 0);
    std::iota(src.pixels.begin(), src.pixels.end(), uint8_t(0));
    for (uint32_t a = 0; a < 8; ++a) {
        const Picture mid = turned(src, a), back = turned(mid, image_reverse_xform_table[a]);
        EXPECT_TRUE(back.width == 5 && back.pixels == src.pixels) << a;
        for (uint32_t b = 0; b < 8; ++b) {
            const Picture two = turned(mid, b), one = turned(src, image_xform_xform_table[a][b]);
            EXPECT_TRUE(one.width == two.width && one.pixels == two.pixels) << a << "," << b;
        }
    }
}

// 4000x3000 into 600x331 (mode 4) decodes at 1/4 to 1000 columns and takes
// 441 at 750/331: the last window [996.98, 999.25) holds column W = 999 at
// weight 0.245, light 0.108 that encodes to 87 (black without it).
TEST(Driver, LastColumnOfAPlanTakesColumnW)
{
    const image_scale_params p = params(IMAGE_SCALE_FIT_BOX, 600, 331, 85);
    const image_scale_plan plan = image_scale_plan_for_size(4000, 3000, &p, 0, 0);
    ASSERT_TRUE(plan.scale_denom == 4 && plan.width == 441);
    image_rows src = image_rows_alloc(1000, 8, 3), dst = image_rows_alloc(441, 2, 3);
    for (uint32_t y = 0; y < 8; ++y)
        std::memset(src[y] + 999 * 3, 255, 3);
    for (const int32_t level : {1, 2, 3}) {
        plan.resampler(level, src, dst, 0, 0, 1000, plan.ratio, 8, 441, 2, 3, 0);
        EXPECT_NEAR(dst[0][440 * 3], 87, 1) << "level " << level;
        EXPECT_EQ(dst[0][439 * 3], 0);
    }
    image_rows_free(src, 8, 1);
    image_rows_free(dst, 2, 1);
}

// The last row writes to stdout.
TEST(Driver, BorderCentresWithTheOddLineOnTopOrLeft)
{
    TempDir tmp;
    const struct { int w, h, bw, bh, top, left; bool to_stdout; } cases[] = {
        {40, 16, 40, 19, 2, 0, false}, {16, 40, 19, 40, 0, 2, false}, {40, 39, 40, 40, 1, 0, true}};
    for (const auto &c : cases) {
        Cached black(uint32_t(c.w), uint32_t(c.h), 1, 0);
        if (c.to_stdout)
            testing::internal::CaptureStdout();
        const std::string out = c.to_stdout ? "-" : tmp.path("b.jpg");
        ASSERT_EQ(black.scale(out, params(IMAGE_SCALE_FIT_BOX_PAD, c.bw, c.bh)), 0);
        const std::string piped = c.to_stdout ? testing::internal::GetCapturedStdout() : "";
        const Picture pic = c.to_stdout ? decode_jpeg({piped.begin(), piped.end()}) : read_jpeg(out);
        ASSERT_TRUE(pic.width == c.bw && pic.height == c.bh);
        for (int y = 0; y < c.bh; ++y)
            for (int x = 0; x < c.bw; ++x) {
                const bool in = x >= c.left && x < c.left + c.w && y >= c.top && y < c.top + c.h;
                ASSERT_NEAR(*pic.at(x, y), in ? 0 : 255, 8) << c.bw << "x" << c.bh << " at " << x << ", " << y;
            }
    }
}

TEST(Driver, RefusesWhatItCannotDo)
{
    TempDir tmp;
    Cached grey(64, 48, 3, 128);
    image_jcache empty{};  // no rows and no stream: nothing to scale
    empty.cinfo.image_width = empty.cinfo.image_height = 10;
    const std::string out = tmp.path("x.jpg");
    const struct { image_jcache *cache; image_scale_params p; std::string output; int32_t rc; } cases[] = {
        {&grey.cache, params(7, 32, 32), out, -2},  // no mode above 6
        {&grey.cache, params(4, 0, 32), out, -2},
        {&grey.cache, params(4, 32, 32), "/nonexistent-dir/x.jpg", -1},
        {&empty, params(4, 5, 5), out, -2},
        {&grey.cache, params(4, 32, 32), "/dev/full", -2},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(image_jpeg_scale(1, c.cache, nullptr, c.output.c_str(), 0, &c.p, nullptr, nullptr), c.rc)
            << c.output << " mode " << c.p.mode << " width " << c.p.width;
        EXPECT_NE(access(out.c_str(), F_OK), 0) << "output must not be created";
    }
}

TEST(Cache, OneDecodePerDctScale)
{
    TempDir tmp;
    ASSERT_TRUE(write_jpeg(tmp.path("in.jpg"), make_picture(1600, 1200, 3)));
    Cached file(tmp.path("in.jpg"));
    image_rows rows = nullptr;
    long pos = 0;
    // Reductions of 10, 13.3 and exactly 4 decode at 1/4, one of 1.6 at full size.
    const struct { int32_t box; uint32_t denom; bool reused; int h; } cases[] = {
        {160, 4, false, 120}, {120, 4, true, 90}, {400, 4, true, 300}, {1000, 1, false, 750}};
    for (const auto &c : cases) {
        ASSERT_EQ(file.scale(tmp.path("o.jpg"), params(4, c.box, c.box)), 0);
        EXPECT_TRUE(file.cache.scale_denom == c.denom && file.cache.width == 1600 / c.denom) << c.box;
        EXPECT_EQ(file.cache.rows == rows && ftell(file.stream) == pos, c.reused) << c.box;
        rows = file.cache.rows;
        pos = ftell(file.stream);
        const Picture pic = read_jpeg(tmp.path("o.jpg"));
        EXPECT_TRUE(pic.width == c.box && pic.height == c.h) << c.box;
    }
}

// Damaged entropy data only warns; a scan naming a component the frame lacks
// is fatal. A progressive file reads all its scans in the decode.
TEST(Cache, DecodeErrorReachesTheCallersJumpTarget)
{
    TempDir tmp;
    std::vector<uint8_t> data = encode_jpeg(make_picture(320, 240, 3), {.progressive = true});
    size_t sos = 0;
    for (size_t i = 2; i + 5 < data.size(); ++i)
        sos = data[i] == 0xFF && data[i + 1] == 0xDA ? i : sos;
    ASSERT_GT(sos, 0u);
    data[sos + 5] = 0x77;  // first component selector of the last scan
    ASSERT_TRUE(write_file(tmp.path("in.jpg"), data));
    Cached file(tmp.path("in.jpg"));
    EXPECT_EQ(file.scale(tmp.path("o.jpg"), params(4, 100, 100)), 99);
    EXPECT_NE(access(tmp.path("o.jpg").c_str(), F_OK), 0) << "nothing opened before the decode";
}

// Green (100, 200, 100) in Adobe RGB lies outside sRGB: its red clamps to 0
// in linear light; read as sRGB, red stays about 104. Only an APP2 ICC
// profile naming Adobe as preferred CMM counts, and only for RGB.
TEST(Cache, AdobeRgbGoesThroughTheMatrix)
{
    TempDir tmp;
    const struct { const char *cmm; int comps; uint32_t flag; int red; } cases[] = {
        {"ADBE", 3, 1, 0}, {"lcms", 3, 0, 104}, {nullptr, 3, 0, 104}, {"ADBE", 1, 0, -1}};
    for (const auto &c : cases) {
        Picture green = make_flat(64, 64, c.comps, 100);
        for (size_t i = 1; c.comps == 3 && i < green.pixels.size(); i += 3)
            green.pixels[i] = 200;
        JpegOptions opt{.quality = 100, .h_samp = 1, .v_samp = 1};
        if (c.cmm)
            opt.markers = {{JPEG_APP0 + 2, icc_app2_payload(c.cmm)}};
        ASSERT_TRUE(write_jpeg(tmp.path("g.jpg"), green, opt));
        image_scale_params p = params(4, 21, 21);  // a box reduction of ~3
        p.full_chroma = 1;
        {
            Cached file(tmp.path("g.jpg"));
            ASSERT_EQ(file.scale(tmp.path("o.jpg"), p), 0);
            EXPECT_EQ(file.cache.adobe_rgb, c.flag) << (c.cmm ? c.cmm : "none") << c.comps;
        }
        if (c.red >= 0) {
            EXPECT_NEAR(read_jpeg(tmp.path("o.jpg")).at(10, 10)[0], c.red, 6) << (c.cmm ? c.cmm : "none");
        }
    }
}

// Many kinds of JPEG, and a picture stored with each Exif orientation: the
// exact box, upright and centred, no JFIF and no APP1.
TEST(Thumb, ExactBoxUprightFromManyKindsOfJpeg)
{
    TempDir tmp;
    struct Case { int w, h, comps, hs, vs; bool progressive; int bw, bh; };
    const Case kinds[] = {
        {800, 600, 3, 2, 2, false, 128, 128}, {300, 500, 3, 1, 1, false, 128, 128},
        {640, 480, 3, 2, 1, true, 160, 90},   {333, 222, 3, 1, 2, false, 100, 100},
        {500, 500, 1, 1, 1, false, 64, 48},   {257, 129, 1, 1, 1, true, 128, 128},  // grey
        {50, 40, 3, 2, 2, false, 128, 128},   {1024, 768, 3, 2, 2, false, 128, 96},  // enlarged, 1/8
    };
    for (uint16_t i = 0; i < 16; ++i) {
        const uint16_t orientation = i < 8 ? 0 : uint16_t(i - 7);
        const Case c = i < 8 ? kinds[i] : Case{160, 96, 3, 2, 2, false, 128, 128};
        Picture pic = make_picture(c.w, c.h, c.comps);
        JpegOptions opt{.h_samp = c.hs, .v_samp = c.vs, .progressive = c.progressive};
        if (orientation) {
            pic = stored_as(pic, orientation);
            ExifBlock exif;
            exif.big_endian = orientation % 2 == 0;
            exif.ifd0 = {exif_short(274, {orientation})};
            opt.markers = {{JPEG_APP0 + 1, build_exif(exif)}};
            opt.write_jfif = false;
        }
        const std::string in = tmp.path("in.jpg"), out = tmp.path("t.jpg");
        ASSERT_TRUE(write_jpeg(in, pic, opt));
        ASSERT_EQ(easy_image_create_thumb(in.c_str(), out.c_str(), c.bw, c.bh, 85, 0), 0) << i;
        const std::vector<uint8_t> bytes = read_file(out);
        ASSERT_GT(bytes.size(), 4u);
        EXPECT_FALSE(bytes[2] == 0xFF && (bytes[3] == 0xE0 || bytes[3] == 0xE1)) << i;
        const Picture thumb = read_jpeg(out);
        ASSERT_TRUE(thumb.width == c.bw && thumb.height == c.bh && thumb.components == c.comps) << i;
        const bool width_meets = double(c.w) / c.h >= double(c.bw) / c.bh;
        const int pw = width_meets ? c.bw : int(lround(double(c.w) * c.bh / c.h));
        const int ph = width_meets ? int(lround(double(c.h) * c.bw / c.w)) : c.bh;
        const int x0 = (c.bw - pw + 1) / 2, y0 = (c.bh - ph + 1) / 2;
        EXPECT_TRUE(is_reddish(thumb.at(x0 + 3, y0 + 3), c.comps)) << i;
        EXPECT_FALSE(is_reddish(thumb.at(x0 + pw - 4, y0 + ph - 4), c.comps)) << i;
        EXPECT_TRUE(x0 + y0 == 0 || *thumb.at(x0 > 0 ? 1 : c.bw / 2, y0 > 0 ? 1 : c.bh / 2) > 240) << i;
    }
}

std::vector<std::string> g_log;  // test-only capture; the library keeps no state

void capture(int32_t level, void *, int32_t code, const char *file, int32_t line, const char *format,
             ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    g_log.push_back(std::to_string(level) + " " + std::to_string(code) + " " + file + ":" +
                    std::to_string(line) + " " + buf);
}

// Codes by name; the JPEG route's line for each of its failures; nothing on
// stderr from the default record.
TEST(Thumb, FailureCodesAndLogLines)
{
    TempDir tmp;
    ASSERT_TRUE(write_jpeg(tmp.path("photo.jpg"), make_picture(64, 64, 3)));
    ASSERT_TRUE(write_jpeg(tmp.path("PHOTO.JPG"), make_picture(64, 64, 3)));
    ASSERT_TRUE(write_file(tmp.path("garbage.jpg"), std::vector<uint8_t>(500, 0x42)));
    ASSERT_TRUE(write_file(tmp.path("empty.jpeg"), {}));
    const std::string out = tmp.path("t.jpg"), missing = tmp.path("missing.jpg");
    const struct { std::string path, output; int32_t rc; std::string log; } cases[] = {
        {tmp.path("PHOTO.JPG"), out, 0, ""},
        {"no-extension-anywhere", out, 2, ""},
        {missing, out, 2, "42 2 image_jpeg:3069 Cannot read " + missing},
        {tmp.path("photo.jpg.txt"), out, 9, ""},
        {tmp.path("dir.d/file"), out, 9, ""},
        {tmp.path("trailing."), out, 9, ""},
        {tmp.path("movie.mov"), out, 9, ""},
        {tmp.path("song.mp3"), out, 9, ""},
        {tmp.path("garbage.jpg"), out, 9, "42 9 image_jpeg:3077 Libjpeg call error handler. Aborting..."},
        {tmp.path("empty.jpeg"), out, 9, ""},
        {tmp.path("photo.jpg"), tmp.path("none/t.jpg"), 9,
         "42 9 image_jpeg:3106 Error during image scaler (ret=-1)"},
    };
    const image_ctx ctx{nullptr, nullptr, nullptr, capture, 42, 1, 2, 3};
    const image_scale_params p = params(5, 32, 32, 85);
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        EXPECT_EQ(easy_image_create_thumb(c.path.c_str(), c.output.c_str(), 32, 32, 85, 0), c.rc) << c.path;
        g_log.clear();
        if (c.log.empty())
            continue;
        EXPECT_EQ(image_thumb_from_jpeg(&ctx, c.path.c_str(), c.output.c_str(), &p, 0), c.rc);
        EXPECT_EQ(g_log, std::vector<std::string>{c.log});
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the default record prints nothing";
}

TEST(Media, TypesByExtension)
{
    const struct { const char *ext; image_media_type type; } cases[] = {
        {"jpg", IMAGE_MEDIA_JPEG},   {"JPEG", IMAGE_MEDIA_JPEG},  {"tif", IMAGE_MEDIA_RAW},
        {"DNG", IMAGE_MEDIA_RAW},    {"m2ts", IMAGE_MEDIA_VIDEO}, {"m4a", IMAGE_MEDIA_AUDIO},
        {"png", IMAGE_MEDIA_PNG},    {"", IMAGE_MEDIA_UNKNOWN},   {"jpgx", IMAGE_MEDIA_UNKNOWN},
        {"jp", IMAGE_MEDIA_UNKNOWN}, {"d/file", IMAGE_MEDIA_UNKNOWN},
    };
    for (const auto &c : cases)
        EXPECT_EQ(utils_get_media_type(c.ext), c.type) << c.ext;
    EXPECT_TRUE(utils_check_hw() >= 1 && utils_check_hw() <= 3);
}

// The APP1 behind SOI: Orientation 0 (the pixels are already turned),
// Software, and an IFD1 holding the thumbnail file's bytes if there is one.
TEST(Stamp, EmbedsTheThumbnailAsIfd1)
{
    TempDir tmp;
    ASSERT_TRUE(write_jpeg(tmp.path("small"), make_picture(40, 30, 3)));
    ASSERT_TRUE(write_file(tmp.path("empty"), {}));
    ASSERT_TRUE(write_file(tmp.path("exact"), std::vector<uint8_t>(65415, 0xAB)));
    ASSERT_TRUE(write_file(tmp.path("over"), std::vector<uint8_t>(65416, 0xAB)));
    const struct { const char *thumb; int32_t rc; size_t payload; } cases[] = {
        {"small", 0, 118 + read_file(tmp.path("small")).size()}, {"empty", 0, 118},
        {"missing", 0, 76}, {"exact", 0, 65533}, {"over", -2, 0}};
    for (const auto &c : cases) {
        Cached grey(64, 48, 3, 90);
        ASSERT_EQ(grey.scale(tmp.path("s.jpg"), params(4, 32, 24, 85), 5, tmp.path(c.thumb).c_str()), c.rc);
        if (c.rc != 0)
            continue;
        EXPECT_EQ(read_jpeg(tmp.path("s.jpg")).width, 18) << "the turned picture decodes";
        const std::vector<uint8_t> f = read_file(tmp.path("s.jpg"));
        ASSERT_TRUE(f.size() > 6 && f[2] == 0xFF && f[3] == 0xE1) << c.thumb;
        const std::vector<uint8_t> d(f.begin() + 6, f.begin() + 4 + (f[4] << 8 | f[5]));
        auto le32 = [&d](size_t at) {
            return d[at] | d[at + 1] << 8 | d[at + 2] << 16 | uint32_t(d[at + 3]) << 24;
        };
        ASSERT_EQ(d.size(), c.payload) << c.thumb;
        EXPECT_EQ(std::memcmp(d.data(), "Exif\0\0II\x2A\0\x08\0\0\0\x02\0\x12\x01\x03\0", 20), 0);
        EXPECT_EQ(le32(6 + 18), 0u);
        EXPECT_STREQ(reinterpret_cast<const char *>(&d[44]), "KESTREL QuietBay Gallery 2");
        EXPECT_EQ(le32(40), c.payload == 76 ? 0u : 70u) << c.thumb;
        if (c.payload == 76)
            continue;
        EXPECT_TRUE(le32(6 + 84 + 8) == 112 && le32(6 + 96 + 8) == c.payload - 118) << c.thumb;
        EXPECT_TRUE(std::vector<uint8_t>(d.begin() + 118, d.end()) == read_file(tmp.path(c.thumb))) << c.thumb;
    }
}

// A white 31x31 overlay on a black 128x96 picture: at its grid cell (the
// middle one rounded down) with the opacity clamped and written back, or,
// refused, nowhere.
TEST(Overlay, BlendsAtTheGridCellOrLeavesThePicture)
{
    TempDir tmp;
    ASSERT_TRUE(write_jpeg(tmp.path("white.jpg"), make_flat(31, 31, 1, 255), {.quality = 100}));
    ASSERT_TRUE(write_jpeg(tmp.path("colour.jpg"), make_flat(16, 16, 3, 255)));
    ASSERT_TRUE(write_jpeg(tmp.path("wide.jpg"), make_flat(200, 16, 1, 255)));
    ASSERT_TRUE(write_file(tmp.path("garbage.jpg"), std::vector<uint8_t>(64, 1)));
    const struct { const char *path; double opacity, written; int32_t position, x0, y0; } cases[] = {
        {"white.jpg", 2.5, 1.0, 8, 97, 65}, {"white.jpg", 1.0, 1.0, 0, 0, 0}, {"white.jpg", 1.0, 1.0, 4, 48, 32},
        {"white.jpg", 1.0, 1.0, -1, 97, 0}, {"white.jpg", 1.0, 1.0, 9, 0, 65},
        {"white.jpg", -3.0, 0.0, 4, -1, 0},  // x0 -1: the picture stays black
        {"colour.jpg", 1.0, 1.0, 0, -1, 0}, {"wide.jpg", 1.0, 1.0, 0, -1, 0},
        {"garbage.jpg", 1.0, 1.0, 0, -1, 0}, {"missing.jpg", 1.0, 1.0, 0, -1, 0},
    };
    for (const auto &c : cases) {
        Cached black(128, 96, 1, 0);
        const std::string path = tmp.path(c.path);
        image_overlay ov{path.c_str(), c.opacity, c.position};
        ASSERT_EQ(black.scale(tmp.path("ov.jpg"), params(4, 128, 96), 0, nullptr, &ov), 0);
        EXPECT_EQ(ov.opacity, c.written) << c.path;
        const Picture pic = read_jpeg(tmp.path("ov.jpg"));
        for (int y = 0; y < 96; ++y)
            for (int x = 0; x < 128; ++x) {
                const bool in = c.x0 >= 0 && x >= c.x0 && x < c.x0 + 31 && y >= c.y0 && y < c.y0 + 31;
                ASSERT_NEAR(*pic.at(x, y), in ? 255 : 0, 8) << c.path << c.position << " at " << x << ", " << y;
            }
    }
    EXPECT_EQ(image_blend_byte(100, 101, 0.5), 100) << "truncated, not rounded";
    EXPECT_EQ(image_blend_byte(7, 200, 0.0), 7);
    EXPECT_EQ(image_blend_byte(7, 200, 1.0), 200);
}

}  // namespace
