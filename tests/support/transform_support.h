// Helpers for the transform tests: coefficient and marker readers, an Exif
// block builder, the coefficient route without its route test, the system's
// jpegtran, and the pixel route's reference picture.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "image_transform.h"
#include "qbimage.h"
#include "test_jpeg.h"

namespace qbtest {

inline bool swaps_sides(uint32_t xform)
{
    return xform == 3 || xform == 4 || xform == 5 || xform == 7;
}

// Frame size and, by component, sampling, divisors and every quantised
// coefficient (row-major blocks of 64). No components: unreadable.
struct Coefficients {
    struct Component {
        int h = 0, v = 0;
        std::array<uint16_t, 64> quant{};
        std::vector<int16_t> blocks;
        bool operator==(const Component &) const = default;
    };
    int width = 0, height = 0;
    std::vector<Component> comps;
    bool operator==(const Coefficients &) const = default;
};
Coefficients read_coefficients(const std::string &path);

// The APPn and COM segments before the first scan, in file order.
struct Segment {
    int marker = 0;
    std::vector<uint8_t> data;  // without marker and length
    bool operator==(const Segment &) const = default;
};
std::vector<Segment> app_segments(const std::vector<uint8_t> &file);

struct ExifEntry {
    uint16_t tag, type;
    uint32_t count, value;  // a SHORT of count 1 is left-justified
};
// "Exif\0\0", a TIFF header, IFD0 (Orientation, Exif pointer) at 8 and the
// Exif directory holding `entries` at 38, both offsets from the TIFF header.
std::vector<uint8_t> exif_payload(bool big_endian, const std::vector<ExifEntry> &entries);

// jpegtran with `args`, its output discarded; true if it exited with 0.
bool run_jpegtran(std::vector<std::string> args);

// The entry's session with the route test left out; true on success.
bool force_coefficient_route(const std::string &in, const std::string &out,
                             uint32_t xform, const image_crop *crop);

// `crop` of p (all of it if null) turned by `xform`; codes 8 and above
// leave it as it is.
Picture reference_xform(const Picture &p, uint32_t xform, const image_crop *crop);
// Largest difference of any sample; INT_MAX if the sizes differ.
int max_abs_diff(const Picture &a, const Picture &b);

}  // namespace qbtest
