// Internal declarations of the metadata subsystem: the Exif reader and the
// LibRaw reader behind image_get_metadata, and the frame-header probe it
// reconciles with.
// Nothing here is exported from the shared object.
#pragma once

#include <cstdint>
#include <cstdio>

#include "qbimage.h"

// Fill `meta` from the Exif block of the JPEG file at `path`, writing only
// the fields the file gives. Returns -1 for a null record, a missing or
// empty file, or when libexif has no memory; 0 otherwise, also for a file
// without an Exif block. Logs nothing.
int32_t image_metadata_from_exif(const char *path, image_metadata *meta);

// The f-number, in tenths, of an APEX aperture value numerator/denominator:
// the nominal stop for whole values 0 to 9, else 10 * 2^(value / 2) rounded.
// 0 when the denominator is 0 or the result does not fit 32 bits.
uint32_t image_apex_to_f_number(uint32_t numerator, uint32_t denominator);

// Size from the first SOF0..SOF3 frame header of the JPEG file at `path`.
// Writes both results or neither; a file that is no JPEG, is truncated or
// has no such header writes neither. Returns -1 when the file cannot be
// examined or opened, else 0.
int32_t image_jpeg_probe_size(const char *path, uint32_t *width,
                              uint32_t *height);

// Read a big-endian 16-bit word. Returns 0, or -1 at the end of the file,
// leaving `word` untouched.
int32_t image_read_be16(FILE *stream, uint16_t *word);

// Fill `meta` from what LibRaw parses when it opens the RAW file at `path`.
// The whole record is cleared first, so on failure it holds zeros. The
// orientation is not applied to width and height here. Returns 0 (also for
// a null record, when nothing is done), or -1 for a missing or empty file,
// no LibRaw handle, or a file that LibRaw refuses.
int32_t image_metadata_from_raw(const char *path, image_metadata *meta);
