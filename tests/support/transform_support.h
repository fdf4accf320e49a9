// Helpers for the transform tests: coefficient and marker readers, an Exif
// block builder, the coefficient route forced, the system's jpegtran, and the
// pixel route's reference picture.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "transform/transform.h"
#include "qbimage.h"
#include "test_jpeg.h"

namespace qbtest {

inline bool swaps_sides(uint32_t xform)
{
    return xform == 3 || xform == 4 || xform == 5 || xform == 7;
}

// Frame width and height, then by component its sampling, its 64 divisors
// and every quantised coefficient; empty if unreadable.
std::vector<int> read_coefficients(const std::string &path);
// Our coefficient route on `in` without the route test; true on success.
bool force_coefficient_route(const std::string &in, const std::string &out, uint32_t xform,
                             const image_crop *crop);

// The APPn and COM segments before the first scan: {marker, payload}.
using Segment = std::pair<int, std::vector<uint8_t>>;
std::vector<Segment> app_segments(const std::vector<uint8_t> &file);

struct ExifEntry {
    uint16_t tag, type;
    uint32_t count, value;  // a SHORT of count 1 is left-justified
};
// "Exif\0\0", a TIFF header, IFD0 (Orientation, Exif pointer) at 8 and the
// Exif directory holding `entries` at 38, offsets from the TIFF header.
std::vector<uint8_t> exif_payload(bool big_endian, const std::vector<ExifEntry> &entries);

// jpegtran with `args` (no quoting), its output discarded; true if it exited with 0.
bool run_jpegtran(const std::string &args);

// `crop` of p (all of it if null) turned by `xform`; codes 8 and above
// leave it as it is.
Picture reference_xform(const Picture &p, uint32_t xform, const image_crop *crop);

}  // namespace qbtest
