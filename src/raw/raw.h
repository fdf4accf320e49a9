// Internal declarations of the camera RAW preview: the preview writer
// behind image_raw_to_preview_jpeg and the thumbnail entry, the full decode
// and its JPEG writer. Nothing here is exported from the shared object.
#pragma once

#include <cstdint>
#include <cstdio>

#include "common/libraw.h"
#include "qbimage.h"

// Results of the RAW preview functions.
constexpr int32_t IMAGE_RAW_OK = 0;
// No LibRaw handle, LibRaw refused the file, its unpacking, processing or
// memory image; no memory in the writer; the rotation step failed.
constexpr int32_t IMAGE_RAW_FAILED = -1;
constexpr int32_t IMAGE_RAW_NO_OUTPUT = -2;  // jpeg_path cannot be written
constexpr int32_t IMAGE_RAW_NOT_RGB = -4;    // not a three-colour bitmap

// The larger side an embedded preview needs for image_raw_to_preview_jpeg.
constexpr int32_t IMAGE_RAW_PREVIEW_MIN_SIDE = 1920;

// Write a JPEG of the RAW file at raw_path to jpeg_path: the camera's
// embedded JPEG preview if it has one of at least min_side pixels on its
// larger side and force_decode is 0, else the demosaiced sensor data at
// full size, turned by xform (codes 2 to 7; 0 and 1 do nothing). Returns
// one of the IMAGE_RAW_ codes.
int32_t image_raw_preview(const char *raw_path, const char *jpeg_path,
                          int32_t force_decode, int32_t xform,
                          int32_t quality, int32_t min_side);

// Decode the RAW file open in `raw` and write it to jpeg_path as a JPEG in
// its stored orientation. Returns 0, -1, -2 or -4. A decode that fails
// after jpeg_path was opened leaves an empty file there.
int32_t image_raw_decode_to_jpeg(libraw_data_t *raw, const char *jpeg_path,
                                 int32_t quality);

// Encode width x height interleaved RGB samples to `stream`, which the
// caller closes. maxval 255: 8-bit samples taken as they are; over 255:
// 16-bit samples in the machine's order; under 255: 8-bit samples; the
// last two are rescaled to 0..255 with rounding, and a sample above maxval
// counts as maxval. Returns 0, or -1 for an unusable size or maxval, no
// memory, or a libjpeg error such as a failed write.
int32_t image_rgb_to_jpeg(FILE *stream, int32_t width, int32_t height,
                          int32_t maxval, const void *samples,
                          int32_t quality);
