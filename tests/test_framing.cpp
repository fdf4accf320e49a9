// The framed image: the photo read and scaled, the composition
// under the frame's alpha, the PNG written, and the failures with their log
// line.
#include <sys/stat.h>
#include <unistd.h>

#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "framing/framing.h"
#include "png_writer.h"
#include "resample/resample.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

struct Jump {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

// The photo as the Part says it must come out, computed apart from the
// library's reader: a full-size float-DCT decode, the bicubic dispatcher at
// the widths' ratio, grey spread to RGB. Empty on failure.
std::vector<uint8_t> reference_photo(image_hw_level level, const std::string &path, uint32_t width,
                                     uint32_t height, int adobe)
{
    const std::vector<uint8_t> data = read_file(path);
    jpeg_decompress_struct cinfo;
    Jump err;
    image_rows volatile src = nullptr;
    volatile uint32_t src_h = 0;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = [](j_common_ptr c) { longjmp(reinterpret_cast<Jump *>(c->err)->jump, 1); };
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        image_rows_free(src, src_h, 1);
        return {};
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data.data(), static_cast<unsigned long>(data.size()));
    jpeg_read_header(&cinfo, TRUE);
    cinfo.dct_method = JDCT_FLOAT;
    jpeg_start_decompress(&cinfo);
    const uint32_t ow = cinfo.output_width, oh = cinfo.output_height;
    const auto n = uint32_t(cinfo.output_components);
    src_h = oh;
    image_rows s = image_rows_alloc(ow, oh, n);
    src = s;
    while (cinfo.output_scanline < oh)
        jpeg_read_scanlines(&cinfo, s + cinfo.output_scanline, oh - cinfo.output_scanline);
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    image_rows d = image_rows_alloc(width, height, n);
    image_resample_bicubic(level, s, d, 0, 0, int32_t(ow), double(ow) / width, int32_t(oh),
                           int32_t(width), int32_t(height), int32_t(n), adobe);
    std::vector<uint8_t> rgb;
    for (uint32_t j = 0; j < height; ++j)
        for (uint32_t i = 0; i < width; ++i)
            for (uint32_t c = 0; c < 3; ++c)
                rgb.push_back(d[j][i * n + (n == 3 ? c : 0)]);
    image_rows_free(d, height, 1);
    image_rows_free(s, oh, 1);
    return rgb;
}

// image_framed_read_photo, flattened; empty for null.
std::vector<uint8_t> read_photo(image_hw_level level, const std::string &path, uint32_t width,
                                uint32_t height)
{
    image_png_rows rows = image_framed_read_photo(level, path.c_str(), width, height);
    if (!rows)
        return {};
    std::vector<uint8_t> out;
    for (uint32_t j = 0; j < height; ++j)
        out.insert(out.end(), rows[j], rows[j] + size_t(width) * 3);
    image_png_rows_free(rows, height);
    return out;
}

Rgba filled(int width, int height, std::array<uint8_t, 4> px)
{
    Rgba f{width, height, {}};
    for (int i = 0; i < width * height; ++i)
        f.pixels.insert(f.pixels.end(), px.begin(), px.end());
    return f;
}

// Fills the box of `f` with `px`.
void fill_box(Rgba &f, int x, int y, int w, int h, std::array<uint8_t, 4> px)
{
    for (int j = y; j < y + h; ++j)
        for (int i = x; i < x + w; ++i)
            std::memcpy(f.at(i, j), px.data(), 4);
}

// A CMYK JPEG, which libjpeg cannot bring to RGB.
bool write_cmyk_jpeg(const std::string &path, int width, int height)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    jpeg_compress_struct cinfo;
    jpeg_error_mgr jerr;
    cinfo.err = jpeg_std_error(&jerr);
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = 4;
    cinfo.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    std::vector<uint8_t> row(size_t(width) * 4, 100);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&cinfo, &r, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return std::fclose(f) == 0;
}

// The first photo byte v whose trip through linear light at ratio 1 in the
// double form gives `want` (so a flat photo of v shows `want` in the box).
int byte_giving(uint8_t want)
{
    for (int v = 0; v < 256; ++v)
        if (image_linear_to_byte(image_lin_double[v]) == want)
            return v;
    return -1;
}

std::vector<std::string> g_log;  // test-only capture; the library keeps no state

void capture(int32_t level, void *, int32_t code, const char *file, int32_t line, const char *format, ...)
{
    char buf[2048];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    g_log.push_back(std::to_string(level) + " " + std::to_string(code) + " " + file + ":" +
                    std::to_string(line) + " " + buf);
}

bool exists(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace

// The reader follows the Part step by step: full-size float decode, the
// bicubic dispatcher at the widths' ratio whatever the box's height, the
// Adobe flag from the APP2 markers, grey into R, G and B.
TEST(FramedPhoto, MatchesDecodeAndBicubicAtTheWidthsRatio)
{
    TempDir tmp;
    JpegOptions adobe;
    adobe.markers = {{JPEG_APP0 + 2, icc_app2_payload("ADBE")}};
    const image_hw_level hw = utils_check_hw();
    const struct {
        const char *name;
        Picture pic;
        JpegOptions opt;
        uint32_t w, h;
        int adobe;
        image_hw_level level;
    } cases[] = {
        {"ratio 1", make_picture(40, 30, 3), {}, 40, 30, 0, hw},
        {"enlarged, box taller than the photo", make_picture(20, 10, 3), {}, 40, 30, 0, hw},
        {"ratio 10, box taller", make_picture(400, 300, 3), {}, 40, 40, 0, hw},
        {"ratio 2.5, box lower: cut off", make_picture(100, 80, 3), {}, 40, 10, 0, hw},
        {"grey", make_picture(50, 40, 1), {}, 30, 30, 0, hw},
        {"Adobe RGB", make_picture(60, 40, 3), adobe, 30, 20, 1, hw},
        {"double form", make_picture(60, 40, 3), {}, 45, 30, 0, IMAGE_HW_BASIC},
    };
    for (const auto &c : cases) {
        const std::string path = tmp.path("photo.jpg");
        ASSERT_TRUE(write_jpeg(path, c.pic, c.opt)) << c.name;
        const std::vector<uint8_t> got = read_photo(c.level, path, c.w, c.h);
        ASSERT_EQ(got.size(), size_t(c.w) * c.h * 3) << c.name;
        EXPECT_EQ(got, reference_photo(c.level, path, c.w, c.h, c.adobe)) << c.name;
        if (c.adobe) {
            EXPECT_NE(got, reference_photo(c.level, path, c.w, c.h, 0)) << "the matrix shows";
        }
        if (c.pic.components == 1) {
            for (size_t i = 0; i < got.size(); i += 3)
                ASSERT_TRUE(got[i] == got[i + 1] && got[i] == got[i + 2]) << c.name;
        }
    }
}

// Rows below the scaled photo, as the bicubic filter gives positions beyond the
// source: a flat photo 20 x 10 in a 40 x 30 box (ratio 0.5): rows 0-19 hold
// the photo; row 20 samples at the edge (weight 0: black), row 21 in the
// last lobe (the last row's value), rows 22 on nothing (black). And 400 x
// 300 in 40 x 40 (ratio 10): rows 30 and below are black.
TEST(FramedPhoto, RowsBeyondTheSource)
{
    TempDir tmp;
    const std::string flat = tmp.path("flat.jpg"), big = tmp.path("big.jpg");
    ASSERT_TRUE(write_jpeg(flat, make_flat(20, 10, 3, 180)));
    ASSERT_TRUE(write_jpeg(big, make_picture(400, 300, 3)));
    const std::vector<uint8_t> a = read_photo(utils_check_hw(), flat, 40, 30);
    ASSERT_EQ(a.size(), 40u * 30 * 3);
    auto row_of = [](const std::vector<uint8_t> &p, int w, int y) {
        return std::vector<uint8_t>(p.begin() + y * w * 3, p.begin() + (y + 1) * w * 3);
    };
    const std::vector<uint8_t> black(40 * 3, 0);
    EXPECT_NE(row_of(a, 40, 19), black);
    EXPECT_EQ(row_of(a, 40, 20), black);
    EXPECT_EQ(row_of(a, 40, 21), row_of(a, 40, 0)) << "the last row's value";
    for (int y = 22; y < 30; ++y)
        EXPECT_EQ(row_of(a, 40, y), black) << y;
    const std::vector<uint8_t> b = read_photo(utils_check_hw(), big, 40, 40);
    ASSERT_EQ(b.size(), 40u * 40 * 3);
    EXPECT_NE(row_of(b, 40, 29), black);
    for (int y = 30; y < 40; ++y)
        EXPECT_EQ(row_of(b, 40, y), black) << y;
}

// Composition by the frame's alpha in the box, frame untouched outside it,
// box opaque; the output an 8-bit RGBA PNG of the frame's size.
TEST(Framed, ComposesUnderTheFrameAlpha)
{
    TempDir tmp;
    const int fw = 60, fh = 50, bx = 10, by = 5, bw = 40, bh = 30;
    const std::string photo = tmp.path("photo.jpg"), grey = tmp.path("grey.jpg"), flat = tmp.path("flat.jpg");
    ASSERT_TRUE(write_jpeg(photo, make_picture(bw, bh, 3)));
    ASSERT_TRUE(write_jpeg(grey, make_picture(80, 60, 1)));
    const int v = byte_giving(100);
    ASSERT_GE(v, 0);
    JpegOptions exact;
    exact.quality = 100;
    exact.h_samp = exact.v_samp = 1;
    ASSERT_TRUE(write_jpeg(flat, make_flat(bw, bh, 3, uint8_t(v)), exact));

    // Frames: all with a half-clear edge outside the box.
    Rgba clear_box = filled(fw, fh, {10, 20, 30, 255});
    fill_box(clear_box, 0, 0, fw, 2, {250, 0, 0, 128});
    fill_box(clear_box, bx, by, bw, bh, {77, 88, 99, 0});
    Rgba half_box = clear_box;
    fill_box(half_box, bx, by, bw, bh, {200, 200, 200, 128});
    Rgba opaque = filled(fw, fh, {10, 20, 30, 255});
    fill_box(opaque, bx, by, bw, bh, {5, 6, 7, 255});
    Rgba mixed = clear_box;  // alpha 0 .. 255 across the box
    for (int j = 0; j < bh; ++j)
        for (int i = 0; i < bw; ++i)
            mixed.at(bx + i, by + j)[3] = uint8_t((i * 37 + j * 11) % 256);
    // An RGB frame (no alpha channel at all): alpha 255 everywhere.
    PngSpec rgb_frame;
    rgb_frame.width = fw, rgb_frame.height = fh, rgb_frame.color_type = 2;
    for (int i = 0; i < fw * fh; ++i)
        rgb_frame.samples.insert(rgb_frame.samples.end(), {uint16_t(i % 256), 40, 50});
    Rgba rgb_as_rgba = filled(fw, fh, {0, 40, 50, 255});
    for (int i = 0; i < fw * fh; ++i)
        rgb_as_rgba.pixels[size_t(i) * 4] = uint8_t(i % 256);

    const struct {
        const char *name;
        Rgba frame;
        bool rgb_file;
        std::string photo;
        image_hw_level level;
        std::function<void(const Rgba &out, const std::vector<uint8_t> &p)> check;
    } cases[] = {
        {"clear box shows the photo exactly", clear_box, false, photo, utils_check_hw(),
         [&](const Rgba &out, const std::vector<uint8_t> &p) {
             for (int j = 0; j < bh; ++j)
                 for (int i = 0; i < bw; ++i) {
                     const uint8_t *o = out.at(bx + i, by + j), *q = &p[size_t(j * bw + i) * 3];
                     ASSERT_TRUE(o[0] == q[0] && o[1] == q[1] && o[2] == q[2] && o[3] == 255) << i << "," << j;
                 }
         }},
        {"opaque frame shows only the frame", opaque, false, photo, utils_check_hw(),
         [&](const Rgba &out, const std::vector<uint8_t> &) { EXPECT_EQ(out.pixels, opaque.pixels); }},
        {"RGB frame file: opaque everywhere", Rgba{}, true, photo, utils_check_hw(),
         [&](const Rgba &out, const std::vector<uint8_t> &) { EXPECT_EQ(out.pixels, rgb_as_rgba.pixels); }},
        {"alpha 128: 200 over 100 gives 150", half_box, false, flat, IMAGE_HW_BASIC,
         [&](const Rgba &out, const std::vector<uint8_t> &p) {
             ASSERT_EQ(p[0], 100) << "the photo shows 100";
             for (int j = 0; j < bh; ++j)
                 for (int i = 0; i < bw; ++i)
                     ASSERT_EQ(std::vector<uint8_t>(out.at(bx + i, by + j), out.at(bx + i, by + j) + 4),
                               (std::vector<uint8_t>{150, 150, 150, 255})) << i << "," << j;
         }},
        {"any alpha: (F a + P (255 - a)) / 255", mixed, false, photo, utils_check_hw(),
         [&](const Rgba &out, const std::vector<uint8_t> &p) {
             for (int j = 0; j < bh; ++j)
                 for (int i = 0; i < bw; ++i) {
                     const uint8_t *f = mixed.at(bx + i, by + j), *o = out.at(bx + i, by + j);
                     for (int c = 0; c < 3; ++c)
                         ASSERT_EQ(o[c], (f[c] * f[3] + p[size_t(j * bw + i) * 3 + c] * (255 - f[3])) / 255);
                     ASSERT_EQ(o[3], 255);
                 }
         }},
        {"grey photo: R = G = B", clear_box, false, grey, utils_check_hw(),
         [&](const Rgba &out, const std::vector<uint8_t> &) {
             for (int j = 0; j < bh; ++j)
                 for (int i = 0; i < bw; ++i) {
                     const uint8_t *o = out.at(bx + i, by + j);
                     ASSERT_TRUE(o[0] == o[1] && o[1] == o[2]);
                 }
         }},
    };
    for (const auto &c : cases) {
        const std::string frame = tmp.path("frame.png"), out = tmp.path("out.png");
        ASSERT_TRUE(c.rgb_file ? write_png(frame, rgb_frame) : write_png_rgba(frame, c.frame)) << c.name;
        ASSERT_EQ(image_framed_compose(c.level, frame.c_str(), c.photo.c_str(), out.c_str(), bx, by, bw, bh), 0)
            << c.name;
        std::vector<uint8_t> ihdr;
        EXPECT_EQ(png_chunks(read_file(out), &ihdr), (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
        ASSERT_EQ(ihdr.size(), 13u);
        EXPECT_TRUE(ihdr[8] == 8 && ihdr[9] == 6) << c.name << ": 8-bit RGBA";
        const Rgba o = read_png_rgba(out);
        ASSERT_TRUE(o.width == fw && o.height == fh) << c.name;
        const Rgba &in = c.rgb_file ? rgb_as_rgba : c.frame;
        for (int y = 0; y < fh; ++y)  // outside the box: the frame as it was, alpha too
            for (int x = 0; x < fw; ++x)
                if (x < bx || x >= bx + bw || y < by || y >= by + bh) {
                    ASSERT_EQ(std::memcmp(o.at(x, y), in.at(x, y), 4), 0) << c.name << " " << x << "," << y;
                }
        c.check(o, read_photo(c.level, c.photo, bw, bh));
    }
}

// Every failure: 9 from the entry with one log line and the inner code, no
// output file, nothing printed, nothing leaked; success logs nothing.
TEST(Framed, FailuresAndTheirLogLine)
{
    TempDir tmp;
    const std::string frame = tmp.path("frame.png"), photo = tmp.path("photo.jpg"), out = tmp.path("out.png");
    Rgba f = filled(30, 20, {1, 2, 3, 255});
    fill_box(f, 5, 5, 20, 10, {0, 0, 0, 0});
    ASSERT_TRUE(write_png_rgba(frame, f));
    ASSERT_TRUE(write_jpeg(photo, make_picture(40, 30, 3)));
    const std::vector<uint8_t> frame_bytes = read_file(frame), photo_bytes = read_file(photo);
    ASSERT_TRUE(write_file(tmp.path("cut.png"), {frame_bytes.begin(), frame_bytes.end() - 30}));
    ASSERT_TRUE(write_file(tmp.path("text.png"), std::vector<uint8_t>(100, 'p')));
    ASSERT_TRUE(write_file(tmp.path("text.jpg"), std::vector<uint8_t>(100, 'j')));
    ASSERT_TRUE(write_file(tmp.path("head.jpg"), {photo_bytes.begin(), photo_bytes.begin() + 100}));
    ASSERT_TRUE(write_cmyk_jpeg(tmp.path("cmyk.jpg"), 40, 30));
    ASSERT_EQ(mkfifo(tmp.path("fifo.jpg").c_str(), 0600), 0);
    const std::string frame_copy = tmp.path("frame-copy.png");

    const struct {
        const char *name;
        std::string frame, photo, output;
        uint32_t x, y, w, h;
        int32_t inner;
    } cases[] = {
        {"done", frame, photo, out, 5, 5, 20, 10, 0},
        {"box at the frame's corner", frame, photo, out, 10, 10, 20, 10, 0},
        {"missing frame", tmp.path("none.png"), photo, out, 5, 5, 20, 10, -1},
        {"frame not a PNG", tmp.path("text.png"), photo, out, 5, 5, 20, 10, -1},
        {"frame truncated", tmp.path("cut.png"), photo, out, 5, 5, 20, 10, -1},
        {"a bad frame wins over a bad photo", tmp.path("none.png"), tmp.path("none.jpg"), out, 5, 5, 20, 10, -1},
        {"box wider than the frame", frame, photo, out, 11, 5, 20, 10, -1},
        {"box lower than the frame", frame, photo, out, 5, 11, 20, 10, -1},
        {"box past 2^32", frame, photo, out, 0xFFFFFFF0u, 0, 20, 10, -1},
        {"box of width 0", frame, photo, out, 5, 5, 0, 10, -1},
        {"box of height 0", frame, photo, out, 5, 5, 20, 0, -1},
        {"output in no directory", frame, photo, tmp.path("none/out.png"), 5, 5, 20, 10, -1},
        {"output on a full disk", frame, photo, "/dev/full", 5, 5, 20, 10, -1},
        {"output is the frame", frame_copy, photo, frame_copy, 5, 5, 20, 10, -1},
        {"output is the photo", frame, photo, photo, 5, 5, 20, 10, -1},
        {"missing photo", frame, tmp.path("none.jpg"), out, 5, 5, 20, 10, -2},
        {"photo not a JPEG", frame, tmp.path("text.jpg"), out, 5, 5, 20, 10, -2},
        {"photo cut in its header", frame, tmp.path("head.jpg"), out, 5, 5, 20, 10, -2},
        {"photo is a FIFO", frame, tmp.path("fifo.jpg"), out, 5, 5, 20, 10, -2},
        {"CMYK photo", frame, tmp.path("cmyk.jpg"), out, 5, 5, 20, 10, -2},
    };
    const image_ctx ctx{nullptr, nullptr, nullptr, capture, 42, 1, 2, 3};
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        std::remove(out.c_str());
        ASSERT_TRUE(write_file(frame_copy, frame_bytes));
        g_log.clear();
        const int32_t rc = image_create_framed_image(&ctx, c.frame.c_str(), c.photo.c_str(), c.output.c_str(),
                                                     c.x, c.y, c.w, c.h);
        if (c.inner == 0) {
            EXPECT_EQ(rc, 0) << c.name;
            EXPECT_TRUE(g_log.empty()) << c.name;
            EXPECT_EQ(read_png_rgba(out).width, 30) << c.name;
            continue;
        }
        EXPECT_EQ(rc, 9) << c.name;
        EXPECT_EQ(g_log, std::vector<std::string>{"42 9 image:170 Cannot process " + c.frame + " + " + c.photo +
                                                  " --> " + c.output + " : rc=" + std::to_string(c.inner)})
            << c.name;
        EXPECT_FALSE(exists(out)) << c.name << ": no output file";
        EXPECT_EQ(read_file(frame_copy), frame_bytes) << c.name << ": the frame is untouched";
        EXPECT_EQ(read_file(photo), photo_bytes) << c.name << ": the photo is untouched";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "nothing printed";
    EXPECT_EQ(image_create_framed_image(nullptr, nullptr, photo.c_str(), out.c_str(), 0, 0, 1, 1), 9)
        << "no record, no frame: refused, nothing logged";
    EXPECT_EQ(image_framed_read_photo(utils_check_hw(), photo.c_str(), 0, 10), nullptr) << "no ratio at width 0";
}
