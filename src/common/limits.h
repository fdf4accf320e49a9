// Bounds on the work one call may take on. A file claims its own size in a
// few header bytes, so without them a small upload could ask for gigabytes
// of rows or minutes of decoding. Refusals happen before anything is
// allocated for the picture.
#pragma once

#include <cstdint>
#include <cstdio>

#include "qbimage.h"

// The largest source picture, in pixels: the figure Pillow refuses as a
// decompression bomb (2 x 89,478,485), some 512 MiB of RGB rows. Larger
// than any camera's sensor.
constexpr uint64_t IMAGE_MAX_SOURCE_PIXELS = 178956970;

// The largest picture the pipeline will plan, and its largest side, which
// is also the most a JPEG file can hold.
constexpr uint64_t IMAGE_MAX_OUTPUT_PIXELS = IMAGE_MAX_SOURCE_PIXELS;
constexpr int64_t IMAGE_MAX_OUTPUT_SIDE = 65500;

// True if a picture of width x height is within the source bound.
constexpr bool image_source_size_ok(uint64_t width, uint64_t height)
{
    return width * height <= IMAGE_MAX_SOURCE_PIXELS;
}

// True if the decompressor's header (read up to the first scan) names a
// picture beyond the source bound, or one that `stream` is far too short
// to hold. Every block of a scan costs at least one bit (two in a
// sequential Huffman scan: a DC code and an end-of-block code), so a file
// shorter than that is mostly missing and decoding it would only produce
// padding. A stream that is not a regular file is judged by size alone.
bool image_jpeg_header_refused(j_decompress_ptr cinfo, FILE *stream);
