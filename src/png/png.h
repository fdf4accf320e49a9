// PNG files: the PNG row store, the reader that brings any PNG
// to 8-bit RGBA or to RGB over a background colour, the 8-bit RGBA writer,
// and the PNG route of the thumbnail entry. Nothing here is exported from
// the shared object; the framed image (src/framing) uses the reader and
// the writer.
#pragma once

#include <cstdint>

#include <png.h>  // libpng's own header (angle brackets: never this file)

#include "common/common.h"

// A plain row array: `height` pointers, each row its own malloc of width x
// bytes per pixel, nothing rounded, aligned or zero-filled. The bytes per
// pixel are not recorded: the holder knows them. Not an image_rows (whose
// free walks a rounded slot count), so never hand one for the other.
typedef unsigned char **image_png_rows;

// Rows of width x bytes_per_pixel bytes each (that product must fit in 32
// bits), or null, with nothing left allocated, on any failure.
image_png_rows image_png_rows_alloc(uint32_t width, uint32_t height,
                                    uint32_t bytes_per_pixel);
// Frees each of the `height` rows, then the array. Null does nothing.
void image_png_rows_free(image_png_rows rows, uint32_t height);

// Reads the PNG at `path` to 8-bit samples; its size goes to *width and
// *height. With a null `background` the result is RGBA (4 bytes a pixel;
// alpha 255 where the file has no transparency); with `background`
// pointing at three bytes (red, green, blue) it is RGB (3 bytes a pixel,
// rows allocated 4 bytes a pixel), and a file with transparency is blended
// over that colour by image_png_blend. Null if the file cannot be opened or
// read to its end, if libpng refuses it, or if memory is short. libpng's
// messages are not printed.
image_png_rows _read_png_to_rgba(const char *path, png_uint_32 *width,
                                 png_uint_32 *height,
                                 const uint8_t *background);

// (source x alpha + background x (255 - alpha)) >> 8: runs a little dark,
// an opaque 255 gives 254.
constexpr uint8_t image_png_blend(uint8_t source, uint8_t background,
                                  uint8_t alpha)
{
    return uint8_t((unsigned(source) * alpha +
                    unsigned(background) * (255u - alpha)) >> 8);
}

// Writes `rows` (RGBA) as an 8-bit RGBA PNG with no chunk beyond IHDR,
// IDAT and IEND. Returns 0, or -1 if the file cannot be opened or written
// (a libpng error, a full disk); the file is closed on every path, and a
// failed one stays behind as far as it got.
int32_t image_png_write_rgba(const char *path, image_png_rows rows,
                             png_uint_32 width, png_uint_32 height);

// The PNG route of easy_image_create_thumb: reads `path` over `background`
// (0xRRGGBB; higher bits ignored) and hands the picture to image_jpeg_scale
// through a hand-filled cache with no stream. Returns 0, or 9: the picture
// cannot be read (nothing logged) or the scaler failed (logged at
// image_jpeg line 3163).
int32_t image_thumb_from_png(const image_ctx *ctx, const char *path,
                             const char *output,
                             const image_scale_params *params,
                             image_xform xform, uint32_t background);
