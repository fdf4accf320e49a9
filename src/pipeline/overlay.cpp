// Overlay: a second JPEG blended over the finished picture at one of nine
// cells of a 3 x 3 grid. Best effort: any refusal leaves the picture as it
// was, since no sample is touched before everything has been checked.
#include <cstdio>

#include "pipeline/pipeline.h"

uint8_t image_blend_byte(uint8_t base, uint8_t top, double opacity)
{
    // Blended as stored (gamma-encoded), truncated, low 8 bits kept.
    const double v = top * opacity + base * (1.0 - opacity);
    return uint8_t(static_cast<int64_t>(v) & 0xFF);
}

namespace {

// Offset of the overlay along one axis from the grid cell: 0 at the start,
// half the difference (a logical shift) in the middle, the whole difference
// at the end.
uint32_t cell_offset(int32_t cell, uint32_t picture, uint32_t overlay)
{
    if (cell == 0)
        return 0;
    if (cell == 1)
        return (picture - overlay) >> 1;
    return picture - overlay;
}

}  // namespace

int image_overlay_blend(image_rows rows, uint32_t width, uint32_t height,
                        int32_t components, J_COLOR_SPACE color_space,
                        image_overlay *overlay)
{
    if (!overlay || !overlay->path || !rows)
        return -1;
    FILE *f = image_open_input(overlay->path);
    if (!f)
        return -1;

    struct jpeg_decompress_struct dinfo;
    image_jpeg_error err;
    image_scan_budget budget;
    // Read back after a jump, so they live in memory, not in registers.
    image_rows volatile top = nullptr;
    volatile uint32_t top_height = 0;
    volatile int result = -1;
    dinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        result = -1;
    } else {
        jpeg_create_decompress(&dinfo);
        jpeg_stdio_src(&dinfo, f);
        image_scan_budget_arm(&dinfo, &budget, f);
        jpeg_read_header(&dinfo, TRUE);
        // An overlay larger than the picture is never used; refusing it
        // before the start keeps a progressive one from buffering all its
        // coefficients first.
        if (dinfo.image_width > width || dinfo.image_height > height ||
            image_jpeg_header_refused(&dinfo, f))
            longjmp(err.jump, 1);
        dinfo.scale_num = 1;
        dinfo.scale_denom = 1;
        dinfo.two_pass_quantize = FALSE;
        dinfo.dither_mode = JDITHER_FS;
        dinfo.dct_method = JDCT_FLOAT;
        dinfo.do_fancy_upsampling = FALSE;
        jpeg_start_decompress(&dinfo);
        const uint32_t ow = dinfo.output_width, oh = dinfo.output_height;
        if (dinfo.output_components == components &&
            dinfo.out_color_space == color_space && ow <= width && oh <= height) {
            top = image_rows_alloc(ow, oh, uint32_t(components));
            top_height = oh;
        }
        if (top) {
            while (dinfo.output_scanline < oh)
                jpeg_read_scanlines(&dinfo, top + dinfo.output_scanline,
                                    oh - dinfo.output_scanline);
            // C and C++ agree here: the remainder and quotient truncate
            // towards zero, so -1 reads as the top row's right cell.
            const uint32_t x0 = cell_offset(overlay->position % 3, width, ow);
            const uint32_t y0 = cell_offset(overlay->position / 3, height, oh);
            if (overlay->opacity > 1.0)
                overlay->opacity = 1.0;
            // Written so that NaN lands here too: it would otherwise reach
            // a conversion to a byte, which is undefined for NaN.
            if (!(overlay->opacity >= 0.0))
                overlay->opacity = 0.0;
            const double opacity = overlay->opacity;
            const auto comps = uint32_t(components);
            for (uint32_t y = 0; y < oh; ++y) {
                unsigned char *dst = rows[y + y0] + size_t(x0) * comps;
                const unsigned char *src = top[y];
                for (uint32_t k = 0; k < ow * comps; ++k)
                    dst[k] = image_blend_byte(dst[k], src[k], opacity);
            }
            result = 0;
        }
    }
    image_rows_free(top, top_height, 1);
    jpeg_destroy_decompress(&dinfo);
    std::fclose(f);
    return result;
}
