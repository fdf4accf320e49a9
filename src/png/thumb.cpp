// The PNG route of the thumbnail entry: the PNG is read whole over the
// background colour and enters the JPEG pipeline through a hand-filled
// decode cache with no stream, so its thumbnail is planned, resampled,
// bordered and encoded like any other.
#include <cstring>

#include "pipeline/pipeline.h"
#include "png/png.h"

int32_t image_thumb_from_png(const image_ctx *ctx, const char *path,
                             const char *output,
                             const image_scale_params *params,
                             image_xform xform, uint32_t background)
{
    const image_hw_level level = utils_check_hw();
    int32_t result = IMAGE_RC_OK;
    const uint8_t colour[3] = {uint8_t(background >> 16), uint8_t(background >> 8),
                               uint8_t(background)};

    // With a background the rows come back as RGB, blended if the file
    // has transparency. A file libpng refuses is not logged.
    png_uint_32 w = 0, h = 0;
    image_png_rows picture = _read_png_to_rgba(path, &w, &h, colour);
    if (!picture)
        return IMAGE_RC_FAILED;

    // A hand-filled cache: only data, no decompressor. It must
    // not reach jpeg_destroy_decompress; image_jpeg_jcache_clean frees the
    // rows.
    image_jcache cache;
    std::memset(&cache, 0, sizeof cache);
    cache.cinfo.image_width = cache.cinfo.output_width = w;
    cache.cinfo.image_height = cache.cinfo.output_height = h;
    cache.cinfo.output_components = 3;
    cache.cinfo.out_color_space = JCS_RGB;
    cache.scale_num = cache.scale_denom = 1;
    cache.width = w;
    cache.height = h;
    cache.components = 3;
    cache.rows = image_rows_alloc(w, h, 3);
    if (!cache.rows) {
        image_png_rows_free(picture, h);
        return IMAGE_RC_FAILED;
    }
    for (png_uint_32 y = 0; y < h; ++y)
        std::memcpy(cache.rows[y], picture[y], size_t(w) * 3);
    image_png_rows_free(picture, h);

    const int32_t rc = image_jpeg_scale(level, &cache, nullptr, output, xform,
                                        params, nullptr, nullptr);
    if (rc != 0) {
        result = IMAGE_RC_FAILED;
        if (ctx)
            IMAGE_LOG(ctx, IMAGE_RC_FAILED, "image_jpeg", 3163,
                      "Error during image scaler (ret=%d)", int(rc));
    }
    image_jpeg_jcache_clean(&cache);
    return result;
}
