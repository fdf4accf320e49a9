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

// Pixels that any file may claim, however short. Beyond them a file must
// hold at least one byte for every IMAGE_PIXELS_PER_BYTE pixels it claims:
// photographs hold hundreds of times more, and a flat picture of more than
// eight megapixels squeezed below that is rare enough to refuse, while a
// 64 KB file claiming 60 megapixels of nothing would cost seconds and
// hundreds of megabytes to decode.
constexpr uint64_t IMAGE_FREE_PIXELS = 8000000;
constexpr uint64_t IMAGE_PIXELS_PER_BYTE = 128;

// At most this many scans in one JPEG file (a progressive photo has about
// ten). Each scan walks all the blocks of its components, so besides the
// count, the blocks walked over all scans may not exceed eight per bit of
// the file.
constexpr int IMAGE_MAX_SCANS = 100;
constexpr uint64_t IMAGE_BLOCK_SCANS_PER_BIT = 8;

// Bytes of an open regular file, or UINT64_MAX when that cannot be known
// (a pipe, a device), which leaves only the absolute bounds.
uint64_t image_file_bytes(FILE *stream);

// True if a picture of width x height is within the source bound, and, for
// a file of file_bytes, within what the file can plausibly hold.
constexpr bool image_source_size_ok(uint64_t width, uint64_t height,
                                    uint64_t file_bytes = UINT64_MAX)
{
    if (width != 0 && height > IMAGE_MAX_SOURCE_PIXELS / width)
        return false;
    const uint64_t pixels = width * height;
    return pixels <= IMAGE_FREE_PIXELS ||
           file_bytes >= (pixels + IMAGE_PIXELS_PER_BYTE - 1) / IMAGE_PIXELS_PER_BYTE;
}

static_assert(image_source_size_ok(4000, 2000, 0) && !image_source_size_ok(4000, 2001, 0) &&
              image_source_size_ok(8192, 8192, 524288) &&
              !image_source_size_ok(8192, 8192, 524287) &&
              !image_source_size_ok(65535, 65535) && !image_source_size_ok(1u << 31, 1u << 31));

// True if the decompressor's header (read up to the first scan) names a
// picture beyond the source bound, or one that `stream` is far too short
// to hold. Every block of a scan costs at least one bit (two in a
// sequential Huffman scan: a DC code and an end-of-block code), so a file
// shorter than that is mostly missing and decoding it would only produce
// padding. A stream that is not a regular file is judged by size alone.
bool image_jpeg_header_refused(j_decompress_ptr cinfo, FILE *stream);

// A progress monitor that stops a decompressor (through its error exit)
// once its file has used up its scans: more than IMAGE_MAX_SCANS, or more
// block visits than IMAGE_BLOCK_SCANS_PER_BIT per bit of the file. Progressive
// files of thousands of empty scans would otherwise cost minutes.
struct image_scan_budget {
    struct jpeg_progress_mgr mgr;  // first, so libjpeg's pointer is ours
    uint64_t allowed;
    uint64_t spent;
    int scan;
};

// Installs `budget` as cinfo's progress monitor, for the file `stream`
// (null or not a regular file: the scan count alone bounds it). The
// budget must outlive the decoding; the previous monitor is replaced.
void image_scan_budget_arm(j_decompress_ptr cinfo, image_scan_budget *budget,
                           FILE *stream);
