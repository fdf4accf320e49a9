// The framed image: a JPEG photo scaled into a box of a PNG
// frame and laid under the frame's alpha. Internal declarations; only
// image_create_framed_image (include/qbimage.h) is exported.
#pragma once

#include <cstdint>

#include "png/png.h"

// Results of image_framed_compose.
constexpr int32_t IMAGE_FRAMED_OK = 0;
// The frame cannot be read, the box is empty or not inside the frame, or
// the output cannot be written or is one of the inputs.
constexpr int32_t IMAGE_FRAMED_NO_FRAME = -1;
// The photo cannot be opened or decoded (not a regular file, a damaged
// file, a libjpeg error, a header beyond common/limits.h), is not grey or
// RGB (CMYK is refused), or memory is short.
constexpr int32_t IMAGE_FRAMED_NO_PHOTO = -2;

// One component of a box pixel: the frame over the photo by the frame's
// alpha, divided by 255 and truncated (not the >> 8 of image_png_blend).
constexpr uint8_t image_framed_mix(uint8_t frame, uint8_t photo, uint8_t alpha)
{
    return uint8_t((unsigned(frame) * alpha + unsigned(photo) * (255u - alpha)) / 255u);
}
static_assert(image_framed_mix(200, 100, 128) == 150);
static_assert(image_framed_mix(7, 93, 0) == 93 && image_framed_mix(7, 93, 255) == 7);

// Reads the frame, scales the photo into the box (x, y, width, height, in
// frame pixels), composes and writes the frame's size as 8-bit RGBA PNG to
// output_path. Returns one of the IMAGE_FRAMED_ codes. On -1 from the frame
// or the box the photo is never opened; on a failed frame or photo no
// output file is created.
int32_t image_framed_compose(image_hw_level level, const char *frame_path,
                             const char *photo_path, const char *output_path,
                             uint32_t x, uint32_t y, uint32_t width,
                             uint32_t height);

// The photo decoded at full size and scaled by the bicubic dispatcher at
// the ratio of its width to `width`, as RGB rows of width x height (grey
// goes to all three components). Null if the file cannot be opened (regular
// files only), libjpeg fails on it, its header claims more than
// common/limits.h allows, it has other than 1 or 3 components, `width` or
// `height` is 0 or above INT32_MAX, or memory is short.
image_png_rows image_framed_read_photo(image_hw_level level,
                                       const char *photo_path, uint32_t width,
                                       uint32_t height);
