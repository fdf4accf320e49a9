// The scaling pipeline: the planner, the row store, the decode cache, the
// driver with its border, the encoder's Exif stamp and the overlay.
#include <unistd.h>

#include <cstring>
#include <tuple>

#include <gtest/gtest.h>

#include "pipeline/pipeline.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

image_scale_params params(uint32_t mode, int32_t w, int32_t h, int quality = 100, double aspect = 10.0)
{
    return image_scale_params{mode, w, h, aspect, quality, 0, 0};
}

enum Kind { NONE, BOX, BICUBIC };

// Source, mode, box, code and no_stream; the plan's size, DCT scale,
// resampler, ratio and crop. A plan of width 0: the request is refused.
const struct PlanCase {
    const char *what;
    int32_t sw, sh;
    uint32_t mode;
    int32_t bw, bh;
    uint32_t xform = 0, no_stream = 0;
    int32_t tw = 0, th = 0;
    uint32_t denom = 0;
    Kind kind = NONE;
    double ratio = 0;
    int32_t crop_x = 0, crop_y = 0;
    double max_aspect = 10.0;
} kPlans[] = {
    {"thumbnail of a 4000x3000 photo", 4000, 3000, 5, 128, 128, 0, 0, 128, 96, 8, BOX, 500.0 / 128, 0, 0},
    {"same photo stored portrait", 3000, 4000, 5, 128, 128, 0, 0, 96, 128, 8, BOX, 500.0 / 128, 0, 0},
    {"panorama cut to max_aspect", 6000, 400, 5, 128, 128, 0, 0, 128, 13, 8, BOX, 50.0 / 13, 129, 0},
    {"tall panorama cut to max_aspect", 400, 6000, 4, 128, 128, 0, 0, 13, 128, 8, BOX, 50.0 / 13, 0, 129},
    {"exactly max_aspect is not cut", 1000, 100, 5, 128, 128, 0, 0, 128, 13, 2, BOX, 500.0 / 128, 0, 0},
    {"square source, square box: height", 1000, 1000, 4, 100, 100, 0, 0, 100, 100, 4, BOX, 2.5, 0, 0},
    {"fill centre on an exact half", 1000, 600, 6, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 100, 0},
    {"fill corner keeps the corner", 1000, 600, 2, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 0, 0},
    {"fill corner with pad, same plan", 1000, 600, 3, 300, 300, 0, 0, 300, 300, 2, NONE, 1.0, 0, 0},
    {"fill centre, portrait box", 1000, 600, 6, 100, 300, 0, 0, 100, 300, 2, NONE, 1.0, 200, 0},
    {"fill centre, wide box crops rows", 600, 1000, 6, 300, 100, 0, 0, 300, 100, 2, NONE, 1.0, 0, 200},
    {"reduction of 2.5 at full scale", 1600, 1200, 4, 640, 480, 0, 0, 640, 480, 1, BOX, 2.5, 0, 0},
    {"exact half needs no resampler", 1600, 1200, 5, 800, 600, 0, 0, 800, 600, 2, NONE, 1.0, 0, 0},
    {"exact eighth needs no resampler", 800, 800, 4, 100, 100, 0, 0, 100, 100, 8, NONE, 1.0, 0, 0},
    {"enlargement runs bicubic", 100, 50, 5, 200, 200, 0, 0, 200, 100, 1, BICUBIC, 0.5, 0, 0},
    {"box swapped for a quarter turn", 4000, 3000, 5, 128, 256, 5, 0, 171, 128, 8, BOX, 375.0 / 128, 0, 0},
    {"no stream: exact half still resamples", 1000, 600, 5, 500, 300, 0, 1, 500, 300, 1, BOX, 2.0, 0, 0},
    {"no stream: equal sizes run bicubic", 640, 480, 4, 640, 480, 0, 1, 640, 480, 1, BICUBIC, 1.0, 0, 0},
    {"fit width", 4000, 3000, 0, 200, 999, 0, 0, 200, 150, 8, BOX, 2.5, 0, 0},
    {"fit width under a quarter turn takes the height", 4000, 3000, 0, 999, 200, 5, 0, 200, 150, 8, BOX, 2.5, 0, 0},
    {"fit height", 4000, 3000, 1, 999, 300, 0, 0, 400, 300, 4, BOX, 2.5, 0, 0},
    {"five times takes the next DCT step", 5, 5, 4, 1, 1, 0, 0, 1, 1, 2, BOX, 2.0, 0, 0},
    {"nine times", 9, 9, 4, 1, 1, 0, 0, 1, 1, 4, BOX, 2.0, 0, 0},
    {"seventeen times", 17, 17, 4, 1, 1, 0, 0, 1, 1, 8, BOX, 2.0, 0, 0},
    {"just under twice is bicubic", 199, 199, 4, 100, 100, 0, 0, 100, 100, 1, BICUBIC, 1.99, 0, 0},
    {"aspect tie in fill corner chooses width", 800, 600, 2, 400, 300, 0, 0, 400, 300, 2, NONE, 1.0, 0, 0},
    {"aspect tie in fill centre chooses height", 800, 600, 6, 400, 300, 0, 0, 400, 300, 2, NONE, 1.0, 0, 0},
    {"mode above 6", 800, 600, 7, 100, 100},
    {"zero width", 800, 600, 5, 0, 100},
    {"negative height", 800, 600, 5, 100, -3},
    {"zero source", 0, 600, 5, 100, 100},
    {"zero max_aspect", 800, 600, 4, 100, 100, 0, 0, 0, 0, 0, NONE, 0, 0, 0, 0.0},
    {"side rounds to nothing", 6000, 400, 5, 4, 4},
    {"box beyond 32-bit products", 800, 600, 5, INT32_MAX / 2, 100},
};

TEST(Planner, WorkedPlansAndRefusals)
{
    for (const PlanCase &c : kPlans) {
        SCOPED_TRACE(c.what);
        const image_scale_params p = params(c.mode, c.bw, c.bh, 85, c.max_aspect);
        const image_scale_plan plan = image_scale_plan_for_size(c.sw, c.sh, &p, int(c.no_stream), c.xform);
        ASSERT_EQ(plan.valid != 0, c.tw != 0);
        if (!plan.valid)
            continue;
        const Kind kind = !plan.resampler ? NONE : plan.resampler == image_resample_box ? BOX : BICUBIC;
        EXPECT_EQ(std::tuple(plan.width, plan.height, plan.scale_num, plan.scale_denom, kind),
                  std::tuple(c.tw, c.th, 1u, c.denom, c.kind));
        EXPECT_DOUBLE_EQ(plan.ratio, c.ratio);
        EXPECT_EQ(std::pair(plan.crop_x, plan.crop_y), std::pair(c.crop_x, c.crop_y));
    }
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

// 128 aligned slots of 384 zero bytes; a view frees only its array; any
// height of the same rounding frees all; sizes past 32 bits are refused.
TEST(Rows, StoreLayout)
{
    image_rows rows = image_rows_alloc(100, 100, 3), view = image_rows_alloc(0, 10, 3);
    ASSERT_TRUE(rows && view);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows) % 16, 0u);
    for (int i = 0; i < 128; ++i) {
        ASSERT_TRUE(rows[i] && reinterpret_cast<uintptr_t>(rows[i]) % 16 == 0) << i;
        ASSERT_EQ(std::vector<uint8_t>(rows[i], rows[i] + 384), std::vector<uint8_t>(384, 0)) << i;
    }
    std::copy_n(rows, 10, view);  // borrowed: freeing them twice would abort
    image_rows_free(view, 10, 0);
    image_rows_free(rows, 65, 1);
    image_rows_free(nullptr, 10, 1);
    EXPECT_EQ(image_rows_alloc(0x7FFFFFF0u, 1, 4), nullptr);
    EXPECT_EQ(image_rows_alloc(10, UINT32_MAX - 10, 1), nullptr);
}

// Black pictures through the driver. Padded: a white border centred with the
// odd line on top or left (the last row writes to stdout). Under a white
// 31x31 overlay: at its grid cell (the middle one rounded down) with the
// opacity clamped and written back, or, refused, nowhere (x0 -1). The
// rectangle at x0, y0 is black under a border and white under an overlay.
TEST(Driver, BorderAndOverlayLandInPlace)
{
    TempDir tmp;
    ASSERT_TRUE(write_jpeg(tmp.path("white.jpg"), make_flat(31, 31, 1, 255), {.quality = 100}));
    ASSERT_TRUE(write_jpeg(tmp.path("colour.jpg"), make_flat(16, 16, 3, 255)));
    ASSERT_TRUE(write_jpeg(tmp.path("wide.jpg"), make_flat(200, 16, 1, 255)));
    ASSERT_TRUE(write_file(tmp.path("garbage.jpg"), std::vector<uint8_t>(64, 1)));
    const struct { int w, h, bw, bh; const char *overlay; double opacity, written;
                   int32_t position; int x0, y0; bool piped = false; } cases[] = {
        {40, 16, 40, 19, nullptr, 0, 0, 0, 0, 2}, {16, 40, 19, 40, nullptr, 0, 0, 0, 2, 0},
        {40, 39, 40, 40, nullptr, 0, 0, 0, 0, 1, true},
        {128, 96, 128, 96, "white.jpg", 2.5, 1.0, 8, 97, 65},
        {128, 96, 128, 96, "white.jpg", 1.0, 1.0, 0, 0, 0},
        {128, 96, 128, 96, "white.jpg", 1.0, 1.0, 4, 48, 32},
        {128, 96, 128, 96, "white.jpg", 1.0, 1.0, -1, 97, 0},
        {128, 96, 128, 96, "white.jpg", 1.0, 1.0, 9, 0, 65},
        {128, 96, 128, 96, "white.jpg", -3.0, 0.0, 4, -1, 0},
        {128, 96, 128, 96, "colour.jpg", 1.0, 1.0, 0, -1, 0},
        {128, 96, 128, 96, "wide.jpg", 1.0, 1.0, 0, -1, 0},
        {128, 96, 128, 96, "garbage.jpg", 1.0, 1.0, 0, -1, 0},
        {128, 96, 128, 96, "missing.jpg", 1.0, 1.0, 0, -1, 0},
    };
    for (const auto &c : cases) {
        Cached black(uint32_t(c.w), uint32_t(c.h), 1, 0);
        const std::string path = c.overlay ? tmp.path(c.overlay) : "", out = tmp.path("o.jpg");
        image_overlay ov{path.c_str(), c.opacity, c.position};
        const auto p = params(c.overlay ? IMAGE_SCALE_FIT_BOX : IMAGE_SCALE_FIT_BOX_PAD, c.bw, c.bh);
        if (c.piped)
            testing::internal::CaptureStdout();
        ASSERT_EQ(black.scale(c.piped ? "-" : out, p, 0, nullptr, c.overlay ? &ov : nullptr), 0);
        const std::string piped = c.piped ? testing::internal::GetCapturedStdout() : "";
        const Picture pic = c.piped ? decode_jpeg({piped.begin(), piped.end()}) : read_jpeg(out);
        ASSERT_TRUE(pic.width == c.bw && pic.height == c.bh);
        EXPECT_EQ(ov.opacity, c.written) << path;
        const int in = c.overlay ? 255 : 0, rw = c.overlay ? 31 : c.w, rh = c.overlay ? 31 : c.h;
        for (int y = 0; y < c.bh; ++y)
            for (int x = 0; x < c.bw; ++x) {
                const bool inside = c.x0 >= 0 && x >= c.x0 && x < c.x0 + rw && y >= c.y0 && y < c.y0 + rh;
                ASSERT_NEAR(*pic.at(x, y), inside ? in : 255 - in, 8)
                    << path << c.position << " " << c.bw << "x" << c.bh << " at " << x << ", " << y;
            }
    }
    EXPECT_EQ(image_blend_byte(100, 101, 0.5), 100) << "truncated, not rounded";
    EXPECT_EQ(image_blend_byte(7, 200, 0.0), 7);
    EXPECT_EQ(image_blend_byte(7, 200, 1.0), 200);
}

// An unknown mode, an empty box, nothing to scale: -2 with no output. Outputs
// that cannot be written are the fault suite's (tests/test_faults.cpp).
TEST(Driver, RefusesWhatItCannotDo)
{
    TempDir tmp;
    Cached grey(64, 48, 3, 128);
    image_jcache empty{};  // no rows and no stream
    empty.cinfo.image_width = empty.cinfo.image_height = 10;
    const std::string out = tmp.path("x.jpg");
    const std::pair<image_jcache *, image_scale_params> cases[] = {
        {&grey.cache, params(7, 32, 32)}, {&grey.cache, params(4, 0, 32)}, {&empty, params(4, 5, 5)}};
    for (const auto &[cache, p] : cases) {
        EXPECT_EQ(image_jpeg_scale(1, cache, nullptr, out.c_str(), 0, &p, nullptr, nullptr), -2)
            << " mode " << p.mode << " width " << p.width;
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

}  // namespace
