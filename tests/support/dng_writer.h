// A small DNG writer for tests: a TIFF in either byte order whose IFD0 holds
// the preview (a JPEG, an uncompressed RGB bitmap, or nothing) and whose
// SubIFD holds 16-bit CFA sensor data, with an Exif IFD beside them. Both
// pictures show one scene: make_picture's gradient with its red quarter at
// the top left of the upright view, stored as the orientation says a
// camera would have stored it. Deterministic: equal options, equal bytes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "test_jpeg.h"

namespace qbtest {

enum class DngPreview { none, jpeg, bitmap };

struct DngOptions {
    bool big_endian = false;
    // Stored sizes (as the sensor saw them); the sensor's must be even.
    int sensor_width = 120;
    int sensor_height = 80;
    DngPreview preview = DngPreview::jpeg;
    int preview_width = 60;
    int preview_height = 40;
    uint16_t orientation = 1;  // Exif orientation; 0 writes no tag
    bool cfa = true;           // false: no CFA tags, a one-colour decode
    bool exif = true;          // false: no Exif IFD and no pointer to it
    bool damaged_preview = false;  // preview strip offset past the end
    std::string make = "Qbcam";
    std::string model = "QB-1";
    std::string date = "2021:06:15 14:30:45";  // IFD0 DateTime; empty: none
    // Exif IFD
    std::string date_original = "2021:06:15 14:30:45";  // empty: none
    std::pair<uint32_t, uint32_t> exposure = {1, 250};
    std::pair<uint32_t, uint32_t> f_number = {28, 10};
    uint16_t iso = 400;
    uint16_t flash = 1;
    std::pair<uint32_t, uint32_t> focal_length = {50, 1};
};

std::vector<uint8_t> build_dng(const DngOptions &opt);
bool write_dng(const std::string &path, const DngOptions &opt);

// The picture a camera would store for `upright` under Exif orientation
// 1, 3, 6 or 8 (any other value stores it unchanged).
Picture stored_from_upright(const Picture &upright, int orientation);

// The picture stored for `opt` at the given stored size: the marked
// gradient, upright under opt.orientation.
Picture dng_scene(const DngOptions &opt, int stored_width, int stored_height);

}  // namespace qbtest
