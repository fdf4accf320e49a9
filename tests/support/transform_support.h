// Helpers for the transform tests: a JPEG writer with full control of the
// component layout and quantisation, coefficient and marker readers, an
// Exif block builder and a runner for the system's jpegtran.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "image_transform.h"
#include "qbimage.h"
#include "test_jpeg.h"

namespace qbtest {

// Full control over what the encoder writes.
struct JpegLayout {
    // Sampling factors per component; size must match the components of
    // the colour space in use.
    std::vector<std::array<int, 2>> sampling;  // {h, v}
    J_COLOR_SPACE in_color_space = JCS_RGB;     // of the pixels given
    J_COLOR_SPACE jpeg_color_space = JCS_YCbCr; // stored in the file
    int quality = 90;
    bool progressive = false;
    int restart_interval = 0;
    bool write_jfif = true;
    // If non-empty, replaces quantisation table 0 (natural order).
    std::vector<uint16_t> luma_table;
    std::vector<std::pair<int, std::vector<uint8_t>>> markers;
};

bool write_jpeg_layout(const std::string &path, const Picture &pic,
                       const JpegLayout &layout);

// Common layouts: YCbCr with the given luma factors, or grey (h = v = 1
// unless given).
JpegLayout ycc_layout(int h, int v);
JpegLayout grey_layout(int h = 1, int v = 1);

// Every quantised coefficient of a file, by component, inside the
// component's width_in_blocks x height_in_blocks.
struct Coefficients {
    bool ok = false;
    int width = 0;
    int height = 0;
    J_COLOR_SPACE color_space = JCS_UNKNOWN;
    bool progressive = false;
    struct Component {
        int h = 0, v = 0;
        int width_in_blocks = 0, height_in_blocks = 0;
        std::array<uint16_t, 64> quant{};
        std::vector<int16_t> blocks;  // row-major blocks of 64

        const int16_t *block(int bx, int by) const
        {
            return &blocks[(size_t(by) * width_in_blocks + bx) * 64];
        }
    };
    std::vector<Component> comps;
};

Coefficients read_coefficients(const std::string &path);

// Header facts of a file: size and luma sampling.
struct JpegInfo {
    bool ok = false;
    int width = 0, height = 0, components = 0;
    int max_h = 0, max_v = 0;
};
JpegInfo read_info(const std::string &path);

// The segments of a JPEG file between SOI and the first SOS (or the end).
struct Segment {
    int marker = 0;
    std::vector<uint8_t> data;  // payload without marker and length
    bool operator==(const Segment &o) const { return marker == o.marker && data == o.data; }
};
std::vector<Segment> read_segments(const std::vector<uint8_t> &file);
// Only the APPn segments (224 to 239), in file order.
std::vector<Segment> app_segments(const std::vector<uint8_t> &file);

// One entry of a TIFF directory.
struct ExifEntry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    uint32_t value;  // for SHORT with count 1: the value, left-justified
};

// "Exif\0\0", a TIFF header, IFD0 with an Orientation entry and the Exif
// pointer, and an Exif directory holding `entries`.
std::vector<uint8_t> exif_payload(bool big_endian,
                                  const std::vector<ExifEntry> &entries);
// Reads back the entry with `tag` from the Exif directory of such a
// payload; false if not found. Follows the same layout as exif_payload.
bool exif_find(const std::vector<uint8_t> &payload, uint16_t tag, ExifEntry *out);

// jpegtran from the system, if present.
bool have_jpegtran();
// Runs jpegtran with `args` (no shell); true if it exited with 0.
bool run_jpegtran(const std::vector<std::string> &args);
// The jpegtran switches for one of our transform codes.
std::vector<std::string> jpegtran_switches(uint32_t xform);

// Runs the coefficient route on `in`, whatever the route test would say,
// the way the entry point does. Returns the entry's result codes.
int32_t force_coefficient_route(const std::string &in, const std::string &out,
                                uint32_t xform, const image_crop *crop);

// The coefficient planner on a file's header. dst_arrays of the returned
// plan is cleared (the pool is gone); has_dst_arrays says if there were any.
struct PlanResult {
    bool ok = false;
    image_transform_plan plan{};
    bool has_dst_arrays = false;
};
PlanResult plan_for_file(const std::string &path, uint32_t xform,
                         const image_crop *crop);

// Picture helpers for the pixel route.
Picture crop_picture(const Picture &p, int x, int y, int w, int h);
// The reference mapping of a transform code (codes 8 and above: none).
Picture apply_xform(const Picture &p, uint32_t xform);
// Largest difference of any sample; INT32_MAX if the sizes differ.
int max_abs_diff(const Picture &a, const Picture &b);

}  // namespace qbtest
