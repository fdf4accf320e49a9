// The framed image: the photo read and scaled, the composition under the
// frame's alpha, and the failures with their log line.
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "framing/framing.h"
#include "png_writer.h"
#include "resample/resample.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// The photo as it must come out, apart from the library's reader: a
// full-size float-DCT decode, the bicubic dispatcher at the widths' ratio,
// grey spread to RGB. For files the test wrote itself.
std::vector<uint8_t> reference_photo(image_hw_level level, const std::string &path, uint32_t w, uint32_t h,
                                     int adobe)
{
    const std::vector<uint8_t> data = read_file(path);
    jpeg_decompress_struct d;
    jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, data.data(), static_cast<unsigned long>(data.size()));
    jpeg_read_header(&d, TRUE);
    d.dct_method = JDCT_FLOAT;
    jpeg_start_decompress(&d);
    const uint32_t ow = d.output_width, oh = d.output_height, n = uint32_t(d.output_components);
    image_rows s = image_rows_alloc(ow, oh, n), t = image_rows_alloc(w, h, n);
    while (d.output_scanline < oh)
        jpeg_read_scanlines(&d, s + d.output_scanline, oh - d.output_scanline);
    jpeg_destroy_decompress(&d);
    image_resample_bicubic(level, s, t, 0, 0, int32_t(ow), double(ow) / w, int32_t(oh), int32_t(w), int32_t(h),
                           int32_t(n), adobe);
    std::vector<uint8_t> rgb;
    for (uint32_t j = 0; j < h; ++j)
        for (uint32_t i = 0; i < w * 3; ++i)
            rgb.push_back(t[j][i / 3 * n + (n == 3 ? i % 3 : 0)]);
    image_rows_free(t, h, 1);
    image_rows_free(s, oh, 1);
    return rgb;
}

// A frame with a half-clear red top edge, opaque elsewhere, and `box`.
Rgba frame_with_box(int fw, int fh, int bx, int by, int bw, int bh, std::array<uint8_t, 4> box)
{
    Rgba f{fw, fh, {}};
    for (int i = 0; i < fw * fh; ++i)
        f.pixels.insert(f.pixels.end(), {uint8_t(i < 2 * fw ? 250 : 10), 20, 30, uint8_t(i < 2 * fw ? 128 : 255)});
    for (int y = by; y < by + bh; ++y)
        for (int x = bx; x < bx + bw; ++x)
            std::memcpy(f.at(x, y), box.data(), 4);
    return f;
}

bool write_cmyk_jpeg(const std::string &path)  // 40 x 30: libjpeg cannot bring it to RGB
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, f);
    c.image_width = 40, c.image_height = 30, c.input_components = 4, c.in_color_space = JCS_CMYK;
    jpeg_set_defaults(&c);
    jpeg_start_compress(&c, TRUE);
    std::vector<uint8_t> row(40 * 4, 100);
    for (JSAMPROW r = row.data(); c.next_scanline < 30;)
        jpeg_write_scanlines(&c, &r, 1);
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    return std::fclose(f) == 0;
}

}  // namespace

// In the box (F a + P (255 - a)) / 255, opaque; P the photo decoded at
// full size in float and scaled by the bicubic dispatcher at the widths'
// ratio whatever the box's height (Adobe flag from APP2, grey into R, G,
// B). Outside the box the frame as it was, its half-clear edge included.
TEST(Framed, ComposesThePhotoUnderTheFrameAlpha)
{
    TempDir tmp;
    const int bx = 10, by = 5;
    JpegOptions adobe, exact;
    adobe.markers = {{JPEG_APP0 + 2, icc_app2_payload("ADBE")}};
    exact.quality = 100;
    exact.h_samp = exact.v_samp = 1;
    int v = 0;  // the byte that shows as 100 after linear light and back (double form)
    while (v < 255 && image_linear_to_byte(image_lin_double[v]) != 100)
        ++v;
    const image_hw_level hw = utils_check_hw(), basic = IMAGE_HW_BASIC;
    const std::array<uint8_t, 4> clear{77, 88, 99, 0};
    const struct { const char *name; Picture pic; JpegOptions opt; int adobe; image_hw_level level; int w, h;
                   std::array<uint8_t, 4> box; } cases[] = {
        {"clear box shows the photo exactly, ratio 1", make_picture(40, 30, 3), {}, 0, hw, 40, 30, clear},
        {"flat, enlarged, box taller than the photo", make_flat(20, 10, 3, 180), {}, 0, hw, 40, 30, clear},
        {"ratio 10, box taller", make_picture(400, 300, 3), {}, 0, hw, 40, 40, clear},
        {"ratio 2.5, box lower: cut off", make_picture(100, 80, 3), {}, 0, hw, 40, 10, clear},
        {"grey photo: R = G = B", make_picture(50, 40, 1), {}, 0, hw, 30, 30, clear},
        {"Adobe RGB", make_picture(60, 40, 3), adobe, 1, hw, 30, 20, clear},
        {"double form", make_picture(60, 40, 3), {}, 0, basic, 45, 30, clear},
        {"opaque box shows only the frame", make_picture(40, 30, 3), {}, 0, hw, 40, 30, {5, 6, 7, 255}},
        {"alpha 128: 200 over 100 gives 150", make_flat(40, 30, 3, uint8_t(v)), exact, 0, basic, 40, 30,
         {200, 200, 200, 128}},
    };
    const std::string photo = tmp.path("photo.jpg"), frame = tmp.path("frame.png"), out = tmp.path("out.png");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const Rgba f = frame_with_box(60, 50, bx, by, c.w, c.h, c.box);
        ASSERT_TRUE(write_jpeg(photo, c.pic, c.opt) && write_png_rgba(frame, f));
        ASSERT_EQ(image_framed_compose(c.level, frame.c_str(), photo.c_str(), out.c_str(), bx, by, c.w, c.h), 0);
        const std::vector<uint8_t> p = reference_photo(c.level, photo, c.w, c.h, c.adobe);
        ASSERT_TRUE(!c.adobe || p != reference_photo(c.level, photo, c.w, c.h, 0)) << "the matrix shows";
        Rgba want = f;
        for (int j = 0; j < c.h; ++j)
            for (int i = 0; i < c.w; ++i) {
                uint8_t *px = want.at(bx + i, by + j);
                const uint8_t *q = &p[size_t(j * c.w + i) * 3];
                for (int k = 0; k < 3; ++k)
                    px[k] = uint8_t((px[k] * px[3] + q[k] * (255 - px[3])) / 255);
                px[3] = 255;
                ASSERT_TRUE(c.pic.components == 3 || (px[0] == px[1] && px[1] == px[2]));
                ASSERT_TRUE(c.box[3] != 128 || (px[0] == 150 && q[0] == 100)) << "150 from 200 over 100";
            }
        Rgba o = read_png(out);
        ASSERT_TRUE(o.width == 60 && o.height == 50);
        EXPECT_EQ(o.pixels, want.pixels);
        EXPECT_TRUE(c.box[3] < 255 || o.pixels == f.pixels) << "the frame exactly";
        // 20 x 10 at ratio 0.5: rows 0-19 hold the photo, then (positions beyond
        // the source) black, the last row's value once, black.
        for (int j = 19; c.pic.width == 20 && j < 30; ++j)
            for (int i = 0; i < 40; ++i) {
                const uint8_t black[4] = {0, 0, 0, 255}, *px = o.at(bx + i, by + j);
                ASSERT_EQ(std::memcmp(px, j == 21 ? o.at(bx + i, by) : black, 4) == 0, j != 19) << i << "," << j;
            }
    }
}

// Every failure: 9 from the entry with one log line and the inner code, no
// output file, the inputs untouched, nothing printed; success logs nothing.
TEST(Framed, FailuresAndTheirLogLine)
{
    TempDir tmp;
    const std::string frame = tmp.path("frame.png"), photo = tmp.path("photo.jpg"), out = tmp.path("out.png");
    ASSERT_TRUE(write_png_rgba(frame, frame_with_box(30, 20, 5, 5, 20, 10, {0, 0, 0, 0})));
    ASSERT_TRUE(write_jpeg(photo, make_picture(40, 30, 3)));
    const std::vector<uint8_t> frame_bytes = read_file(frame), photo_bytes = read_file(photo);
    ASSERT_TRUE(write_file(tmp.path("head.jpg"), {photo_bytes.begin(), photo_bytes.begin() + 100}));
    ASSERT_TRUE(write_cmyk_jpeg(tmp.path("cmyk.jpg")));
    ASSERT_EQ(mkfifo(tmp.path("fifo.jpg").c_str(), 0600), 0);
    const std::string copy = tmp.path("frame-copy.png"), none = tmp.path("none.jpg");
    const struct { const char *name; std::string frame, photo, output; uint32_t x, y, w, h; int32_t inner; }
        cases[] = {
        {"done", frame, photo, out, 5, 5, 20, 10, 0},
        {"box at the frame's corner", frame, photo, out, 10, 10, 20, 10, 0},
        {"missing frame", tmp.path("none.png"), photo, out, 5, 5, 20, 10, -1},
        {"a bad frame wins over a bad photo", tmp.path("none.png"), none, out, 5, 5, 20, 10, -1},
        {"box wider than the frame", frame, photo, out, 11, 5, 20, 10, -1},
        {"box lower than the frame", frame, photo, out, 5, 11, 20, 10, -1},
        {"box past 2^32", frame, photo, out, 0xFFFFFFF0u, 0, 20, 10, -1},
        {"box of width 0", frame, photo, out, 5, 5, 0, 10, -1},
        {"box of height 0", frame, photo, out, 5, 5, 20, 0, -1},
        {"output on a full disk", frame, photo, "/dev/full", 5, 5, 20, 10, -1},
        {"output is the frame", copy, photo, copy, 5, 5, 20, 10, -1},
        {"output is the photo", frame, photo, photo, 5, 5, 20, 10, -1},
        {"missing photo", frame, none, out, 5, 5, 20, 10, -2},
        {"photo cut in its header", frame, tmp.path("head.jpg"), out, 5, 5, 20, 10, -2},
        {"photo is a FIFO", frame, tmp.path("fifo.jpg"), out, 5, 5, 20, 10, -2},
        {"CMYK photo", frame, tmp.path("cmyk.jpg"), out, 5, 5, 20, 10, -2},
    };
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 42, 1, 2, 3};
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::remove(out.c_str());
        ASSERT_TRUE(write_file(copy, frame_bytes));
        log.clear();
        const int32_t rc = image_create_framed_image(&ctx, c.frame.c_str(), c.photo.c_str(), c.output.c_str(),
                                                     c.x, c.y, c.w, c.h);
        EXPECT_EQ(rc, c.inner ? 9 : 0);
        EXPECT_EQ(log, c.inner ? "42 9 image:170 Cannot process " + c.frame + " + " + c.photo + " --> " + c.output +
                                     " : rc=" + std::to_string(c.inner) + "\n"
                               : "");
        EXPECT_EQ(std::filesystem::exists(out), c.inner == 0) << "an output file only when done";
        EXPECT_EQ(read_png(out).width, c.inner ? 0 : 30);
        EXPECT_EQ(read_file(copy), frame_bytes) << "the frame is untouched";
        EXPECT_EQ(read_file(photo), photo_bytes) << "the photo is untouched";
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "nothing printed";
    EXPECT_EQ(image_framed_read_photo(utils_check_hw(), photo.c_str(), 0, 10), nullptr) << "no ratio at width 0";
    EXPECT_EQ(image_create_framed_image(nullptr, nullptr, photo.c_str(), out.c_str(), 0, 0, 1, 1), 9)
        << "no record, no frame: refused, nothing logged";
}
