// The library frame: the thumbnail entry with its JPEG route, codes and log
// lines, media types, the processor probe, and the transform tables.
#include <cmath>
#include <cstring>
#include <numeric>

#include <gtest/gtest.h>

#include "core/core.h"
#include "exif_writer.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// `p` turned by image_rows_rotate.
Picture turned(const Picture &p, uint32_t xf)
{
    const bool swap = xf == 3 || xf == 4 || xf == 5 || xf == 7;
    const auto w = uint32_t(p.width), h = uint32_t(p.height), n = uint32_t(p.components);
    Picture out = make_flat(int(swap ? h : w), int(swap ? w : h), int(n), 0);
    image_rows a = image_rows_alloc(w, h, n), b = image_rows_alloc(swap ? h : w, swap ? w : h, n);
    for (uint32_t y = 0; y < h; ++y)
        std::memcpy(a[y], &p.pixels[y * w * n], w * n);
    image_rows_rotate(a, b, xf, w, h, n);
    for (int y = 0; y < out.height; ++y)
        std::memcpy(out.at(0, y), b[y], size_t(out.width) * n);
    image_rows_free(a, h, 1);
    image_rows_free(b, uint32_t(out.height), 1);
    return out;
}

// On unequal sides: a then b is the composition table's single code, and the
// reverse table undoes a. The orientation table stands the thumbnails below
// upright.
TEST(Tables, RotationsComposeAndInvertLikeTheTables)
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
            const ExifBlock exif{.big_endian = orientation % 2 == 0,
                                 .ifd0 = {exif_short(274, {orientation})}};
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
        {tmp.path("dir.d/file"), out, 9, ""},  // unknown, video, audio
        {tmp.path("movie.mov"), out, 9, ""},
        {tmp.path("song.mp3"), out, 9, ""},
        {tmp.path("garbage.jpg"), out, 9, "42 9 image_jpeg:3077 Libjpeg call error handler. Aborting..."},
        {tmp.path("empty.jpeg"), out, 9, ""},
        {tmp.path("photo.jpg"), tmp.path("none/t.jpg"), 9,
         "42 9 image_jpeg:3106 Error during image scaler (ret=-1)"},
    };
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 42, 1, 2, 3};
    const image_scale_params p{5, 32, 32, 10.0, 85, 0, 0};
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        EXPECT_EQ(easy_image_create_thumb(c.path.c_str(), c.output.c_str(), 32, 32, 85, 0), c.rc) << c.path;
        if (c.log.empty())
            continue;
        log.clear();
        EXPECT_EQ(image_thumb_from_jpeg(&ctx, c.path.c_str(), c.output.c_str(), &p, 0), c.rc);
        EXPECT_EQ(log, c.log + "\n");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the default record prints nothing";
}

TEST(Media, TypesByExtensionAndTheProcessorLevel)
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

}  // namespace
