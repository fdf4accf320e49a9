// The scaling pipeline end to end: row store, rotation, border, decode
// cache, encoder, the thumbnail entry and its failure codes.
#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "image_internal.h"
#include "exif_writer.h"
#include "test_jpeg.h"

using qbtest::Picture;
using qbtest::TempDir;

namespace {

bool near(int a, int b, int tol) { return a - b <= tol && b - a <= tol; }

// ---------------------------------------------------------------------------
// Row store

TEST(Rows, LayoutRoundsSlotsAndRows)
{
    image_rows rows = image_rows_alloc(100, 100, 3);
    ASSERT_NE(rows, nullptr);
    for (int i = 0; i < 128; ++i) {  // every slot up to the rounded count
        ASSERT_NE(rows[i], nullptr) << i;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(rows[i]) % 16, 0u);
        for (int b = 0; b < 384; ++b)  // 128 pixels x 3, zero-filled
            ASSERT_EQ(rows[i][b], 0);
    }
    EXPECT_EQ(reinterpret_cast<uintptr_t>(rows) % 16, 0u);
    image_rows_free(rows, 65, 1);  // any height of the same rounding frees all

    image_rows view = image_rows_alloc(0, 10, 3);
    ASSERT_NE(view, nullptr);
    image_rows_free(view, 10, 0);  // a view owns only its array
    image_rows_free(nullptr, 10, 1);
}

TEST(Rows, RefusesRowsBeyond32Bits)
{
    EXPECT_EQ(image_rows_alloc(0x7FFFFFF0u, 1, 4), nullptr);
    EXPECT_EQ(image_rows_alloc(10, UINT32_MAX - 10, 1), nullptr);
}

// A w x h picture whose every pixel holds its own index.
image_rows numbered(uint32_t w, uint32_t h)
{
    image_rows r = image_rows_alloc(w, h, 1);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            r[y][x] = uint8_t(y * w + x);
    return r;
}

bool exchanges(uint32_t x) { return x == 3 || x == 4 || x == 5 || x == 7; }

// Applying a then b equals the composition table's single code, on a
// picture with unequal sides.
TEST(Rows, RotationsComposeLikeTheTable)
{
    const uint32_t w = 5, h = 3;
    for (uint32_t a = 0; a < 8; ++a)
        for (uint32_t b = 0; b < 8; ++b) {
            image_rows src = numbered(w, h);
            const uint32_t aw = exchanges(a) ? h : w, ah = exchanges(a) ? w : h;
            image_rows mid = image_rows_alloc(aw, ah, 1);
            image_rows_rotate(src, mid, a, w, h, 1);
            const uint32_t bw = exchanges(b) ? ah : aw, bh = exchanges(b) ? aw : ah;
            image_rows two = image_rows_alloc(bw, bh, 1);
            image_rows_rotate(mid, two, b, aw, ah, 1);
            const uint32_t c = image_xform_xform_table[a][b];
            image_rows one = image_rows_alloc(bw, bh, 1);
            image_rows_rotate(src, one, c, w, h, 1);
            for (uint32_t y = 0; y < bh; ++y)
                ASSERT_EQ(std::memcmp(one[y], two[y], bw), 0) << a << "," << b;
            // ...and the inverse undoes it.
            image_rows back = image_rows_alloc(w, h, 1);
            image_rows_rotate(mid, back, image_reverse_xform_table[a], aw, ah, 1);
            for (uint32_t y = 0; y < h; ++y)
                ASSERT_EQ(std::memcmp(back[y], src[y], w), 0) << a;
            for (image_rows r : {src, mid, two, one, back})
                image_rows_free(r, 8, 1);
        }
}

// An ordinary uncropped plan whose last window reaches past column W:
// 4000x3000 into 600x331 (mode 4) decodes at 1/4 to 1000 columns and
// resamples 441 of them at 750/331, W = 999, last window [996.98, 999.25).
// Column 999 exists, so it must count, at weight 0.245.
TEST(Driver, LastColumnOfAPlanTakesColumnW)
{
    const image_scale_params p{IMAGE_SCALE_FIT_BOX, 600, 331, 10.0, 85, 0, 0};
    const image_scale_plan plan = image_scale_plan_for_size(4000, 3000, &p, 0, 0);
    ASSERT_EQ(plan.scale_denom, 4u);
    ASSERT_EQ(plan.width, 441);
    image_rows src = image_rows_alloc(1000, 8, 3);
    for (uint32_t y = 0; y < 8; ++y)
        std::memset(src[y] + 999 * 3, 255, 3);
    for (const int32_t level : {1, 2, 3}) {
        image_rows dst = image_rows_alloc(441, 2, 3);
        plan.resampler(level, src, dst, 0, 0, 1000, plan.ratio, 8, 441, 2, 3, 0);
        // Light 0.245 / 2.266 = 0.108 encodes to 87; without column 999
        // the pixel would stay black.
        EXPECT_TRUE(near(dst[0][440 * 3], 87, 1)) << int(dst[0][440 * 3]) << " level " << level;
        EXPECT_EQ(dst[0][439 * 3], 0);
        image_rows_free(dst, 2, 1);
    }
    image_rows_free(src, 8, 1);
}

// ---------------------------------------------------------------------------
// Driver on a hand-filled cache: exact pixels, no decoder involved.

struct HandCache {
    image_jcache cache;
    HandCache(uint32_t w, uint32_t h, int comps, uint8_t value)
    {
        std::memset(&cache, 0, sizeof cache);
        cache.cinfo.image_width = cache.cinfo.output_width = w;
        cache.cinfo.image_height = cache.cinfo.output_height = h;
        cache.cinfo.output_components = comps;
        cache.cinfo.out_color_space = comps == 1 ? JCS_GRAYSCALE : JCS_RGB;
        cache.scale_num = cache.scale_denom = 1;
        cache.width = w;
        cache.height = h;
        cache.components = comps;
        cache.rows = image_rows_alloc(w, h, uint32_t(comps));
        for (uint32_t y = 0; y < h; ++y)
            std::memset(cache.rows[y], value, size_t(w) * comps);
    }
    ~HandCache() { image_jpeg_jcache_clean(&cache); }
};

image_scale_params params(uint32_t mode, int32_t w, int32_t h, int quality = 100)
{
    return image_scale_params{mode, w, h, 10.0, quality, 0, 0};
}

TEST(Driver, BorderCentresWithTheOddLineOnTop)
{
    TempDir tmp;
    struct {
        uint32_t w, h;
        int32_t bw, bh;
        int white_top, white_left, pic_w, pic_h;
    } cases[] = {
        {40, 16, 40, 19, 2, 0, 40, 16},  // excess 3: two rows on top, one below
        {16, 40, 19, 40, 0, 2, 16, 40},  // excess 3: two columns left, one right
        {40, 39, 40, 40, 1, 0, 40, 39},  // excess 1 goes on top
    };
    for (const auto &c : cases) {
        HandCache hc(c.w, c.h, 1, 0);
        const image_scale_params p = params(IMAGE_SCALE_FIT_BOX_PAD, c.bw, c.bh);
        const std::string out = tmp.path("border.jpg");
        ASSERT_EQ(image_jpeg_scale(1, &hc.cache, nullptr, out.c_str(), 0, &p, nullptr, nullptr), 0);
        const Picture pic = qbtest::read_jpeg(out);
        ASSERT_EQ(pic.width, c.bw);
        ASSERT_EQ(pic.height, c.bh);
        // Sample away from the black/white edge (JPEG blurs it a little).
        for (int y = 0; y < pic.height; ++y)
            for (int x = 0; x < pic.width; ++x) {
                const bool inside = x >= c.white_left && x < c.white_left + c.pic_w &&
                                    y >= c.white_top && y < c.white_top + c.pic_h;
                const int v = *pic.at(x, y);
                if (inside && x >= c.white_left + 3 && y >= c.white_top + 3 &&
                    x < c.white_left + c.pic_w - 3 && y < c.white_top + c.pic_h - 3) {
                    ASSERT_TRUE(near(v, 0, 12)) << x << "," << y;
                }
                if (!inside && (y + 3 < c.white_top || x + 3 < c.white_left ||
                                y >= c.white_top + c.pic_h + 3 || x >= c.white_left + c.pic_w + 3)) {
                    ASSERT_TRUE(near(v, 255, 12)) << x << "," << y;
                }
            }
    }
}

TEST(Driver, WritesToStandardOutput)
{
    TempDir tmp;
    const std::string out = tmp.path("stdout.jpg");
    HandCache hc(64, 64, 3, 128);
    const image_scale_params p = params(IMAGE_SCALE_FIT_BOX, 32, 32);
    fflush(stdout);
    const int saved = dup(1);
    const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    dup2(fd, 1);
    close(fd);
    const int rc = image_jpeg_scale(1, &hc.cache, nullptr, "-", 0, &p, nullptr, nullptr);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    ASSERT_EQ(rc, 0);
    const Picture pic = qbtest::read_jpeg(out);
    EXPECT_EQ(pic.width, 32);
    EXPECT_EQ(pic.height, 32);
    // Flat 128 comes back as 132: averaged in linear light, then encoded.
    EXPECT_TRUE(near(pic.at(16, 16)[1], 132, 2));
}

TEST(Driver, RefusesWhatItCannotDo)
{
    TempDir tmp;
    HandCache hc(64, 48, 3, 128);
    const std::string out = tmp.path("x.jpg");
    struct {
        const char *what;
        image_scale_params p;
        const char *output;
        int32_t rc;
    } cases[] = {
        {"mode above 6", params(9, 32, 32), out.c_str(), -2},
        {"zero box", params(4, 0, 32), out.c_str(), -2},
        {"output cannot be opened", params(4, 32, 32), "/nonexistent-dir/x.jpg", -1},
        {"encoder fails on a full disk", params(4, 32, 32), "/dev/full", -2},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(image_jpeg_scale(1, &hc.cache, nullptr, c.output, 0, &c.p, nullptr, nullptr), c.rc)
            << c.what;
        EXPECT_NE(access(out.c_str(), F_OK), 0) << c.what << ": output must not be created";
    }
    // A cache with no rows and no stream has nothing to scale.
    image_jcache empty;
    std::memset(&empty, 0, sizeof empty);
    empty.cinfo.image_width = empty.cinfo.image_height = 10;
    const image_scale_params p = params(4, 5, 5);
    EXPECT_EQ(image_jpeg_scale(1, &empty, nullptr, out.c_str(), 0, &p, nullptr, nullptr), -2);
}

// ---------------------------------------------------------------------------
// Decode cache with a real decoder

struct FileCache {
    image_jcache cache;
    image_jpeg_error err;
    FILE *first = nullptr;
    FILE *stream = nullptr;
};

// Plain frame: a libjpeg error while opening jumps back here only.
bool open_cache(FileCache *fc, const char *path)
{
    image_jpeg_jcache_init(&fc->cache, image_jpeg_error_init(&fc->err));
    fc->cache.cinfo.err->error_exit = image_jpeg_error_exit;
    fc->first = fopen(path, "rb");
    fc->stream = fopen(path, "rb");
    if (!fc->first || !fc->stream)
        return false;
    if (setjmp(fc->err.jump))
        return false;
    jpeg_create_decompress(&fc->cache.cinfo);
    jpeg_stdio_src(&fc->cache.cinfo, fc->first);
    jpeg_save_markers(&fc->cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
    jpeg_read_header(&fc->cache.cinfo, TRUE);
    return true;
}

void close_cache(FileCache *fc)
{
    jpeg_destroy_decompress(&fc->cache.cinfo);
    image_jpeg_jcache_clean(&fc->cache);
    if (fc->first)
        fclose(fc->first);
    if (fc->stream)
        fclose(fc->stream);
}

int32_t scale(FileCache *fc, const std::string &out, const image_scale_params &p,
              uint32_t xform = 0)
{
    if (setjmp(fc->err.jump))
        return 99;
    return image_jpeg_scale(1, &fc->cache, fc->stream, out.c_str(), xform, &p, nullptr, nullptr);
}

TEST(Cache, OneDecodePerDctScale)
{
    TempDir tmp;
    const std::string in = tmp.path("in.jpg");
    ASSERT_TRUE(qbtest::write_jpeg(in, qbtest::make_picture(1600, 1200, 3)));
    FileCache fc;
    ASSERT_TRUE(open_cache(&fc, in.c_str()));

    // Reductions of 10, 13.3 and exactly 4 all decode at 1/4.
    ASSERT_EQ(scale(&fc, tmp.path("a.jpg"), params(4, 160, 160)), 0);  // 10x: 1/4
    EXPECT_EQ(fc.cache.scale_denom, 4u);
    image_rows first_rows = fc.cache.rows;
    const long pos = ftell(fc.stream);
    ASSERT_EQ(scale(&fc, tmp.path("b.jpg"), params(4, 120, 120)), 0);  // 13.3x: 1/4
    EXPECT_EQ(fc.cache.rows, first_rows) << "same scale must reuse the rows";
    EXPECT_EQ(ftell(fc.stream), pos) << "same scale must read nothing";

    ASSERT_EQ(scale(&fc, tmp.path("c.jpg"), params(4, 400, 400)), 0);  // 4x: 1/4 exact
    EXPECT_EQ(fc.cache.rows, first_rows);
    ASSERT_EQ(scale(&fc, tmp.path("d.jpg"), params(4, 1000, 1000)), 0);  // 1.6x: full
    EXPECT_EQ(fc.cache.scale_denom, 1u);
    EXPECT_EQ(fc.cache.width, 1600u);
    close_cache(&fc);

    const struct {
        const char *name;
        int w, h;
    } expect[] = {{"a.jpg", 160, 120}, {"b.jpg", 120, 90}, {"c.jpg", 400, 300}, {"d.jpg", 1000, 750}};
    for (const auto &e : expect) {
        const Picture pic = qbtest::read_jpeg(tmp.path(e.name));
        EXPECT_EQ(pic.width, e.w) << e.name;
        EXPECT_EQ(pic.height, e.h) << e.name;
    }
}

TEST(Cache, DecodeErrorReachesTheCallersJumpTarget)
{
    TempDir tmp;
    const std::string in = tmp.path("in.jpg");
    // libjpeg shrugs off damaged entropy data with a warning; a scan header
    // naming a component the frame lacks is fatal. A progressive file reads
    // all its scans inside the decode, so damage the last scan's header.
    qbtest::JpegOptions opt;
    opt.progressive = true;
    std::vector<uint8_t> data = qbtest::encode_jpeg(qbtest::make_picture(320, 240, 3), opt);
    size_t sos = 0;
    for (size_t i = 2; i + 5 < data.size(); ++i)
        if (data[i] == 0xFF && data[i + 1] == 0xDA)
            sos = i;
    ASSERT_GT(sos, 0u);
    data[sos + 5] = 0x77;  // first component selector of the scan
    ASSERT_TRUE(qbtest::write_file(in, data));
    FileCache fc;
    ASSERT_TRUE(open_cache(&fc, in.c_str()));
    const int32_t rc = scale(&fc, tmp.path("o.jpg"), params(4, 100, 100));
    close_cache(&fc);
    EXPECT_EQ(rc, 99);
    EXPECT_NE(access(tmp.path("o.jpg").c_str(), F_OK), 0) << "nothing opened before the decode";
}

// A green of (100, 200, 100) in Adobe RGB lies outside sRGB: its red goes
// negative in linear light and clamps to 0. Read as sRGB, red stays about
// 104 (100 through the linear-light tone change). Only an ICC profile in
// APP2 that names Adobe as its preferred CMM counts, and only for RGB.
TEST(Cache, AdobeRgbGoesThroughTheMatrix)
{
    TempDir tmp;
    struct {
        const char *what;
        const char *cmm;
        int comps;
        uint32_t flag;
        int red;
    } cases[] = {
        {"Adobe RGB profile", "ADBE", 3, 1, 0},
        {"another profile", "lcms", 3, 0, 104},
        {"no profile", nullptr, 3, 0, 104},
        {"grey picture", "ADBE", 1, 0, -1},
    };
    for (const auto &c : cases) {
        Picture green = qbtest::make_flat(64, 64, c.comps, 100);
        for (int i = 0; c.comps == 3 && i < 64 * 64; ++i)
            green.pixels[size_t(i) * 3 + 1] = 200;
        qbtest::JpegOptions opt;
        opt.quality = 100;
        opt.h_samp = opt.v_samp = 1;
        if (c.cmm)
            opt.markers.push_back({JPEG_APP0 + 2, qbtest::icc_app2_payload(c.cmm)});
        const std::string in = tmp.path("g.jpg"), out = tmp.path("o.jpg");
        ASSERT_TRUE(qbtest::write_jpeg(in, green, opt));
        FileCache fc;
        ASSERT_TRUE(open_cache(&fc, in.c_str()));
        image_scale_params p = params(4, 21, 21);  // a box reduction of ~3
        p.full_chroma = 1;
        ASSERT_EQ(scale(&fc, out, p), 0);
        EXPECT_EQ(fc.cache.adobe_rgb, c.flag) << c.what;
        close_cache(&fc);
        if (c.red >= 0) {
            EXPECT_TRUE(near(qbtest::read_jpeg(out).at(10, 10)[0], c.red, 6)) << c.what;
        }
    }
}

// ---------------------------------------------------------------------------
// Thumbnail entry

TEST(Thumb, MakesTheExactBoxFromManyKindsOfJpeg)
{
    TempDir tmp;
    struct {
        const char *what;
        int w, h, comps, hs, vs;
        bool progressive;
        int bw, bh;
    } cases[] = {
        {"4:2:0 landscape", 800, 600, 3, 2, 2, false, 128, 128},
        {"4:4:4 portrait", 300, 500, 3, 1, 1, false, 128, 128},
        {"4:2:2 progressive", 640, 480, 3, 2, 1, true, 160, 90},
        {"1x2 sampling", 333, 222, 3, 1, 2, false, 100, 100},
        {"grey", 500, 500, 1, 1, 1, false, 64, 48},
        {"grey progressive", 257, 129, 1, 1, 1, true, 128, 128},
        {"enlarged", 50, 40, 3, 2, 2, false, 128, 128},
        {"exact 1/8", 1024, 768, 3, 2, 2, false, 128, 96},
    };
    for (const auto &c : cases) {
        qbtest::JpegOptions opt;
        opt.h_samp = c.hs;
        opt.v_samp = c.vs;
        opt.progressive = c.progressive;
        const std::string in = tmp.path("in.jpg"), out = tmp.path("out.jpg");
        ASSERT_TRUE(qbtest::write_jpeg(in, qbtest::make_picture(c.w, c.h, c.comps), opt)) << c.what;
        ASSERT_EQ(easy_image_create_thumb(in.c_str(), out.c_str(), c.bw, c.bh, 85, 0xFFFFFF), 0)
            << c.what;
        const std::vector<uint8_t> bytes = qbtest::read_file(out);
        ASSERT_GT(bytes.size(), 4u);
        EXPECT_FALSE(bytes[2] == 0xFF && (bytes[3] == 0xE0 || bytes[3] == 0xE1))
            << c.what << ": no JFIF header, and no stamp without a thumbnail path";
        const Picture pic = qbtest::read_jpeg(out);
        EXPECT_EQ(pic.width, c.bw) << c.what;
        EXPECT_EQ(pic.height, c.bh) << c.what;
        EXPECT_EQ(pic.components, c.comps) << c.what;
        // The marked corner stays top-left of the picture area, which is
        // centred in the box.
        const bool width_meets = double(c.w) / c.h >= double(c.bw) / c.bh;
        const int pw = width_meets ? c.bw : int(lround(double(c.w) * c.bh / c.h));
        const int ph = width_meets ? int(lround(double(c.h) * c.bw / c.w)) : c.bh;
        const int px = (c.bw - pw + 1) / 2 + 3, py = (c.bh - ph + 1) / 2 + 3;
        EXPECT_TRUE(qbtest::is_reddish(pic.at(px, py), c.comps)) << c.what;
    }
}

// A picture stored with each Exif orientation comes out upright: the
// stored pixels are the upright picture turned by the inverse of what the
// orientation asks for.
TEST(Thumb, ExifOrientationStandsThumbnailsUpright)
{
    TempDir tmp;
    const Picture upright = qbtest::make_picture(160, 96, 3);
    for (uint16_t orientation = 1; orientation <= 8; ++orientation) {
        const uint32_t undo = image_reverse_xform_table[image_orientation2xform[orientation]];
        const bool swap = exchanges(undo);
        Picture stored;
        stored.width = swap ? upright.height : upright.width;
        stored.height = swap ? upright.width : upright.height;
        stored.components = 3;
        image_rows a = image_rows_alloc(160, 96, 3);
        image_rows b = image_rows_alloc(uint32_t(stored.width), uint32_t(stored.height), 3);
        for (int y = 0; y < 96; ++y)
            std::memcpy(a[y], upright.at(0, y), 160 * 3);
        image_rows_rotate(a, b, undo, 160, 96, 3);
        stored.pixels.resize(size_t(stored.width) * stored.height * 3);
        for (int y = 0; y < stored.height; ++y)
            std::memcpy(stored.at(0, y), b[y], size_t(stored.width) * 3);
        image_rows_free(a, 96, 1);
        image_rows_free(b, uint32_t(stored.height), 1);

        qbtest::ExifBlock exif;
        exif.big_endian = orientation % 2 == 0;
        exif.ifd0.push_back(qbtest::exif_short(274, {orientation}));
        qbtest::JpegOptions opt;
        opt.write_jfif = false;
        opt.markers.push_back({JPEG_APP0 + 1, qbtest::build_exif(exif)});
        const std::string in = tmp.path("o.jpg"), out = tmp.path("t.jpg");
        ASSERT_TRUE(qbtest::write_jpeg(in, stored, opt));
        ASSERT_EQ(easy_image_create_thumb(in.c_str(), out.c_str(), 128, 128, 90, 0), 0);
        const Picture thumb = qbtest::read_jpeg(out);
        ASSERT_EQ(thumb.width, 128);
        ASSERT_EQ(thumb.height, 128);
        // 160x96 fits as 128x77 with 26 white rows on top.
        EXPECT_TRUE(qbtest::is_reddish(thumb.at(4, 30), 3)) << "orientation " << orientation;
        EXPECT_FALSE(qbtest::is_reddish(thumb.at(123, 98), 3)) << "orientation " << orientation;
        EXPECT_GT(thumb.at(64, 10)[2], 240) << "border on top, orientation " << orientation;
    }
}

TEST(Thumb, FailureCodesByName)
{
    TempDir tmp;
    const std::string jpg = tmp.path("photo.jpg");
    ASSERT_TRUE(qbtest::write_jpeg(jpg, qbtest::make_picture(64, 64, 3)));
    const std::string upper = tmp.path("PHOTO.JPG");
    ASSERT_TRUE(qbtest::write_jpeg(upper, qbtest::make_picture(64, 64, 3)));
    const std::string garbage = tmp.path("garbage.jpg");
    ASSERT_TRUE(qbtest::write_file(garbage, std::vector<uint8_t>(500, 0x42)));
    const std::string empty = tmp.path("empty.jpeg");
    ASSERT_TRUE(qbtest::write_file(empty, {}));
    const std::string out = tmp.path("t.jpg");
    const std::string dotted_dir = tmp.path("dir.d");
    struct {
        std::string path;
        std::string output;
        int32_t rc;
    } cases[] = {
        {upper, out, 0},
        {"no-extension-anywhere", out, 2},
        {tmp.path("missing.jpg"), out, 2},
        {jpg + ".txt", out, 9},
        {dotted_dir + "/file", out, 9},
        {tmp.path("trailing."), out, 9},
        {tmp.path("movie.mov"), out, 9},
        {tmp.path("song.mp3"), out, 9},
        {garbage, out, 9},
        {empty, out, 9},
        {jpg, tmp.path("no-such-dir/t.jpg"), 9},
    };
    for (const auto &c : cases)
        EXPECT_EQ(easy_image_create_thumb(c.path.c_str(), c.output.c_str(), 32, 32, 85, 0), c.rc)
            << c.path;
}

// Records what the library logs.
struct LogLine {
    int32_t level, code, line;
    std::string file, text;
};
std::vector<LogLine> g_lines;  // test-only capture; the library keeps no state

void capture(int32_t level, void *, int32_t code, const char *file, int32_t line,
             const char *format, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    g_lines.push_back({level, code, line, file, buf});
}

TEST(Thumb, JpegRouteLogsItsFailures)
{
    TempDir tmp;
    const std::string jpg = tmp.path("p.jpg");
    ASSERT_TRUE(qbtest::write_jpeg(jpg, qbtest::make_picture(64, 64, 3)));
    const std::string garbage = tmp.path("g.jpg");
    ASSERT_TRUE(qbtest::write_file(garbage, std::vector<uint8_t>(100, 7)));
    const image_ctx ctx{nullptr, nullptr, nullptr, capture, 42, 1, 2, 3};
    const image_scale_params p = params(5, 32, 32, 85);
    const std::string missing = tmp.path("missing.jpg");
    struct {
        std::string path, output;
        int32_t rc, line;
        std::string text;
    } cases[] = {
        {missing, tmp.path("o.jpg"), 2, 3069, "Cannot read " + missing},
        {garbage, tmp.path("o.jpg"), 9, 3077, "Libjpeg call error handler. Aborting..."},
        {jpg, tmp.path("none/o.jpg"), 9, 3106, "Error during image scaler (ret=-1)"},
    };
    for (const auto &c : cases) {
        g_lines.clear();
        EXPECT_EQ(image_thumb_from_jpeg(&ctx, c.path.c_str(), c.output.c_str(), &p, 0), c.rc);
        ASSERT_EQ(g_lines.size(), 1u) << c.text;
        EXPECT_EQ(g_lines[0].level, 42);
        EXPECT_EQ(g_lines[0].code, c.rc);
        EXPECT_EQ(g_lines[0].file, "image_jpeg");
        EXPECT_EQ(g_lines[0].line, c.line);
        EXPECT_EQ(g_lines[0].text, c.text);
    }
}

TEST(Thumb, DefaultRecordPrintsNothing)
{
    TempDir tmp;
    const std::string err = tmp.path("stderr.txt");
    fflush(stderr);
    const int saved = dup(2);
    const int fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    close(fd);
    const int rc = easy_image_create_thumb(tmp.path("missing.jpg").c_str(),
                                           tmp.path("o.jpg").c_str(), 32, 32, 85, 0);
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    EXPECT_EQ(rc, 2);
    EXPECT_TRUE(qbtest::read_file(err).empty());
}

TEST(Media, TypesByExtension)
{
    struct {
        const char *ext;
        image_media_type type;
    } cases[] = {
        {"jpg", IMAGE_MEDIA_JPEG}, {"JPEG", IMAGE_MEDIA_JPEG}, {"tif", IMAGE_MEDIA_RAW},
        {"DNG", IMAGE_MEDIA_RAW},  {"m2ts", IMAGE_MEDIA_VIDEO}, {"m4a", IMAGE_MEDIA_AUDIO},
        {"png", IMAGE_MEDIA_PNG},  {"", IMAGE_MEDIA_UNKNOWN},   {"jpgx", IMAGE_MEDIA_UNKNOWN},
        {"jp", IMAGE_MEDIA_UNKNOWN}, {"d/file", IMAGE_MEDIA_UNKNOWN},
    };
    for (const auto &c : cases)
        EXPECT_EQ(utils_get_media_type(c.ext), c.type) << c.ext;
    const image_hw_level level = utils_check_hw();
    EXPECT_TRUE(level >= 1 && level <= 3);
}

}  // namespace

// ---------------------------------------------------------------------------
// Exif stamp and overlay

namespace stamp {

// The APP1 payload right behind SOI, or empty.
std::vector<uint8_t> app1_payload(const std::vector<uint8_t> &jpeg)
{
    if (jpeg.size() < 6 || jpeg[2] != 0xFF || jpeg[3] != 0xE1)
        return {};
    const size_t len = size_t(jpeg[4]) << 8 | jpeg[5];
    return std::vector<uint8_t>(jpeg.begin() + 6, jpeg.begin() + 4 + long(len));
}

uint32_t le32(const std::vector<uint8_t> &d, size_t at)
{
    return d[at] | d[at + 1] << 8 | d[at + 2] << 16 | uint32_t(d[at + 3]) << 24;
}

}  // namespace stamp

TEST(Stamp, EmbedsTheThumbnailAsIfd1)
{
    TempDir tmp;
    const std::string small = tmp.path("small.jpg");
    ASSERT_TRUE(qbtest::write_jpeg(small, qbtest::make_picture(40, 30, 3)));
    const std::vector<uint8_t> thumb = qbtest::read_file(small);
    const std::string empty = tmp.path("empty.jpg");
    ASSERT_TRUE(qbtest::write_file(empty, {}));
    const std::string exact = tmp.path("exact.bin"), over = tmp.path("over.bin");
    ASSERT_TRUE(qbtest::write_file(exact, std::vector<uint8_t>(65415, 0xAB)));
    ASSERT_TRUE(qbtest::write_file(over, std::vector<uint8_t>(65416, 0xAB)));
    struct {
        std::string thumb_path;
        int32_t rc;
        size_t payload;
    } cases[] = {
        {small, 0, 118 + thumb.size()},
        {empty, 0, 118},
        {tmp.path("missing.jpg"), 0, 76},
        {exact, 0, 65533},
        {over, -2, 0},
    };
    for (const auto &c : cases) {
        HandCache hc(64, 48, 3, 90);
        const image_scale_params p = params(4, 32, 24, 85);
        const std::string out = tmp.path("stamped.jpg");
        ASSERT_EQ(image_jpeg_scale(1, &hc.cache, nullptr, out.c_str(), 5, &p,
                                   c.thumb_path.c_str(), nullptr),
                  c.rc)
            << c.thumb_path;
        if (c.rc != 0)
            continue;
        using stamp::le32;
        const std::vector<uint8_t> d = stamp::app1_payload(qbtest::read_file(out));
        ASSERT_EQ(d.size(), c.payload) << c.thumb_path;
        EXPECT_EQ(std::memcmp(d.data(), "Exif\0\0II\x2A\0\x08\0\0\0\x02\0\x12\x01\x03\0", 20), 0);
        EXPECT_EQ(le32(d, 6 + 18), 0u) << "orientation is 0: the pixels are already turned";
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(&d[44])), "KESTREL QuietBay Gallery 2");
        const uint32_t ifd1 = le32(d, 40);
        if (c.payload == 76) {
            EXPECT_EQ(ifd1, 0u);
            continue;
        }
        EXPECT_EQ(ifd1, 70u);
        EXPECT_EQ(le32(d, 6 + 84 + 8), 112u);  // JPEGInterchangeFormat
        EXPECT_EQ(le32(d, 6 + 96 + 8), uint32_t(c.payload - 118));
        if (c.thumb_path == small) {
            EXPECT_EQ(std::memcmp(&d[118], thumb.data(), thumb.size()), 0);
        }
        EXPECT_EQ(qbtest::read_jpeg(out).width, 18) << "the turned picture still decodes";
    }
}

TEST(Overlay, BlendsAtTheGridCell)
{
    TempDir tmp;
    const std::string white = tmp.path("white.jpg");
    qbtest::JpegOptions opt;
    opt.quality = 100;
    ASSERT_TRUE(qbtest::write_jpeg(white, qbtest::make_flat(32, 32, 1, 255), opt));
    struct {
        int32_t position;
        int x0, y0;
    } cases[] = {{8, 96, 64}, {0, 0, 0}, {4, 48, 32}, {-1, 96, 0}, {9, 0, 64}};
    for (const auto &c : cases) {
        HandCache hc(128, 96, 1, 0);
        image_overlay ov{white.c_str(), 2.5, c.position};
        const image_scale_params p = params(4, 128, 96, 100);
        const std::string out = tmp.path("ov.jpg");
        ASSERT_EQ(image_jpeg_scale(1, &hc.cache, nullptr, out.c_str(), 0, &p, nullptr, &ov), 0);
        EXPECT_EQ(ov.opacity, 1.0) << "the clamp is written back";
        const Picture pic = qbtest::read_jpeg(out);
        EXPECT_GT(*pic.at(c.x0 + 16, c.y0 + 16), 240) << c.position;
        EXPECT_LT(*pic.at((c.x0 + 64) % 128, (c.y0 + 48) % 96), 16) << c.position;
    }
}

TEST(Overlay, RefusalLeavesThePicture)
{
    TempDir tmp;
    const std::string colour = tmp.path("colour.jpg"), big = tmp.path("big.jpg");
    ASSERT_TRUE(qbtest::write_jpeg(colour, qbtest::make_flat(16, 16, 3, 255)));
    ASSERT_TRUE(qbtest::write_jpeg(big, qbtest::make_flat(200, 16, 1, 255)));
    const std::string garbage = tmp.path("garbage.jpg");
    ASSERT_TRUE(qbtest::write_file(garbage, std::vector<uint8_t>(64, 1)));
    for (const std::string &path : {colour, big, garbage, tmp.path("missing.jpg")}) {
        HandCache hc(128, 96, 1, 0);
        image_overlay ov{path.c_str(), 1.0, 0};
        EXPECT_EQ(image_overlay_blend(hc.cache.rows, 128, 96, 1, JCS_GRAYSCALE, &ov), -1) << path;
        for (uint32_t y = 0; y < 96; ++y)
            for (uint32_t x = 0; x < 128; ++x)
                ASSERT_EQ(hc.cache.rows[y][x], 0) << path;
    }
    EXPECT_EQ(image_blend_byte(100, 101, 0.5), 100) << "truncated, not rounded";
    EXPECT_EQ(image_blend_byte(7, 200, 0.0), 7);
    EXPECT_EQ(image_blend_byte(7, 200, 1.0), 200);
}
