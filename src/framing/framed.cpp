// The framed image: a photo laid under a PNG frame. The photo is decoded
// at full size and scaled into the box by the bicubic dispatcher itself,
// not through the thumbnail pipeline; the frame's alpha decides, pixel by
// pixel, how much of each shows.
#include <cstdio>
#include <cstring>

#include "common/files.h"
#include "common/limits.h"
#include "framing/framing.h"
#include "pipeline/pipeline.h"
#include "resample/resample.h"

namespace {

// The scaled photo as RGB rows (grey into all three components).
void image_framed_to_rgb(const image_rows target, image_png_rows rgb,
                         uint32_t width, uint32_t height, uint32_t components)
{
    for (uint32_t j = 0; j < height; ++j) {
        if (components == 3) {
            std::memcpy(rgb[j], target[j], size_t(width) * 3);
            continue;
        }
        const unsigned char *s = target[j];
        unsigned char *d = rgb[j];
        for (uint32_t i = 0; i < width; ++i, d += 3)
            d[0] = d[1] = d[2] = s[i];
    }
}

}  // namespace

// With jpeg_std_error alone, a fatal libjpeg error on a damaged photo
// would end in libjpeg's exit(). So the decoder has its own
// image_jpeg_error and jump target: such a photo gives
// null (so -2), with everything released. The frame holds that jump
// target, so it keeps no object with a destructor.
image_png_rows image_framed_read_photo(image_hw_level level,
                                       const char *photo_path, uint32_t width,
                                       uint32_t height)
{
    // The ratio divides by the width; the resampler takes signed sizes.
    if (!photo_path || width == 0 || height == 0 || width > INT32_MAX ||
        height > INT32_MAX)
        return nullptr;
    FILE *file = image_open_input(photo_path);  // regular files only
    if (!file)
        return nullptr;

    struct jpeg_decompress_struct cinfo;
    std::memset(&cinfo, 0, sizeof cinfo);  // no `mem` until it is created
    image_jpeg_error err;
    image_scan_budget budget;
    cinfo.err = image_jpeg_error_init(&err);
    // Changed after setjmp and read after a jump: kept out of registers.
    unsigned char **volatile source = nullptr;
    volatile uint32_t source_height = 0;
    unsigned char **volatile target = nullptr;
    unsigned char **volatile result = nullptr;

    if (setjmp(err.jump)) {
        image_png_rows_free(result, height);
        image_rows_free(target, height, 1);
        image_rows_free(source, source_height, 1);
        result = nullptr;
    } else {
        jpeg_create_decompress(&cinfo);
        jpeg_stdio_src(&cinfo, file);
        image_scan_budget_arm(&cinfo, &budget, file);
        jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cinfo, TRUE);
        // A header that claims more than common/limits.h allows, or far
        // more blocks than the file holds, is refused before any row.
        const bool refused = image_jpeg_header_refused(&cinfo, file);
        cinfo.two_pass_quantize = TRUE;
        cinfo.dither_mode = JDITHER_FS;
        cinfo.dct_method = JDCT_FLOAT;
        // Only grey and RGB come out of the copy below defined. libjpeg
        // cannot turn CMYK (or YCCK) into RGB, and doing it here would need
        // the inverted-Adobe convention and a profile to be right, so a
        // four-component photo is refused before anything is decoded.
        if (!refused && (cinfo.out_color_space == JCS_GRAYSCALE ||
                         cinfo.out_color_space == JCS_RGB)) {
            jpeg_start_decompress(&cinfo);
            const uint32_t ow = cinfo.output_width, oh = cinfo.output_height;
            const auto comps = uint32_t(cinfo.output_components);
            const int32_t adobe = image_jpeg_is_adobe_rgb(&cinfo);

            source_height = oh;
            image_rows src = (comps == 1 || comps == 3) ? image_rows_alloc(ow, oh, comps) : nullptr;
            source = src;
            if (src) {
                while (cinfo.output_scanline < oh)
                    jpeg_read_scanlines(&cinfo, src + cinfo.output_scanline,
                                        oh - cinfo.output_scanline);
                // One ratio for both axes, from the widths alone.
                const double ratio = double(ow) / double(width);
                image_rows dst = image_rows_alloc(width, height, comps);
                target = dst;
                if (dst) {
                    image_resample_bicubic(level, src, dst, 0, 0, int32_t(ow), ratio,
                                           int32_t(oh), int32_t(width), int32_t(height),
                                           int32_t(comps), adobe);
                    image_png_rows rgb = image_png_rows_alloc(width, height, 3);
                    if (rgb)
                        image_framed_to_rgb(dst, rgb, width, height, comps);
                    result = rgb;
                }
                image_rows_free(dst, height, 1);
                target = nullptr;
            }
            image_rows_free(src, oh, 1);
            source = nullptr;
            if (result)
                jpeg_finish_decompress(&cinfo);
        }
    }
    jpeg_destroy_decompress(&cinfo);
    std::fclose(file);
    return result;
}

int32_t image_framed_compose(image_hw_level level, const char *frame_path,
                             const char *photo_path, const char *output_path,
                             uint32_t x, uint32_t y, uint32_t width,
                             uint32_t height)
{
    // With no background the frame comes back as RGBA; a frame without
    // transparency has alpha 255 everywhere.
    // The output must not replace one of the inputs, by any name: refused
    // before anything is read.
    if (!output_path || image_same_file(output_path, frame_path) ||
        image_same_file(output_path, photo_path))
        return IMAGE_FRAMED_NO_FRAME;

    png_uint_32 frame_width = 0, frame_height = 0;
    image_png_rows frame = frame_path ? _read_png_to_rgba(frame_path, &frame_width,
                                                          &frame_height, nullptr)
                                      : nullptr;
    if (!frame)
        return IMAGE_FRAMED_NO_FRAME;

    int32_t result = IMAGE_FRAMED_OK;
    image_png_rows photo = nullptr;
    // The box must hold a pixel and lie inside the frame: the composition
    // writes into the frame's rows and nowhere else. Sums in 64 bits.
    if (width == 0 || height == 0 || uint64_t(x) + width > frame_width ||
        uint64_t(y) + height > frame_height) {
        result = IMAGE_FRAMED_NO_FRAME;
    } else if (!(photo = image_framed_read_photo(level, photo_path, width, height))) {
        result = IMAGE_FRAMED_NO_PHOTO;
    } else {
        for (uint32_t j = 0; j < height; ++j) {
            unsigned char *f = frame[y + j] + size_t(x) * 4;
            const unsigned char *p = photo[j];
            for (uint32_t i = 0; i < width; ++i, f += 4, p += 3) {
                const uint8_t a = f[3];
                f[0] = image_framed_mix(f[0], p[0], a);
                f[1] = image_framed_mix(f[1], p[1], a);
                f[2] = image_framed_mix(f[2], p[2], a);
                f[3] = 255;  // the box is opaque in the result
            }
        }
        if (image_png_write_rgba(output_path, frame, frame_width, frame_height) != 0)
            result = IMAGE_FRAMED_NO_FRAME;
    }
    image_png_rows_free(frame, frame_height);
    image_png_rows_free(photo, height);
    return result;
}

extern "C" QB_API int32_t image_create_framed_image(const image_ctx *ctx,
                                                    const char *frame_path,
                                                    const char *photo_path,
                                                    const char *output_path,
                                                    uint32_t x, uint32_t y,
                                                    uint32_t width,
                                                    uint32_t height)
{
    const image_hw_level level = utils_check_hw();
    const int32_t rc = image_framed_compose(level, frame_path, photo_path,
                                            output_path, x, y, width, height);
    if (rc == IMAGE_FRAMED_OK)
        return IMAGE_RC_OK;
    if (ctx) {
        auto text = [](const char *s) { return s ? s : "(null)"; };
        IMAGE_LOG(ctx, IMAGE_RC_FAILED, "image", 170,
                  "Cannot process %s + %s --> %s : rc=%d", text(frame_path),
                  text(photo_path), text(output_path), int(rc));
    }
    return IMAGE_RC_FAILED;
}
