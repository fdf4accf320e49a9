// A small DNG writer for tests: a little-endian TIFF holding 16-bit RGGB
// sensor data of 120 x 80, an optional preview (a JPEG or an RGB bitmap) and
// an Exif IFD. Both pictures show make_picture's gradient with its red
// quarter at the top left of the upright view, stored as a camera would
// store it under the orientation.
#pragma once

#include <cstdint>
#include <string>

namespace qbtest {

constexpr int kDngSensorWidth = 120;
constexpr int kDngSensorHeight = 80;

enum class DngPreview { none, jpeg, bitmap };

struct DngOptions {
    DngPreview preview = DngPreview::jpeg;
    int preview_width = 60;
    int preview_height = 40;
    uint16_t orientation = 1;      // 1, 3, 6 or 8
    bool cfa = true;               // false: no CFA tags, a one-colour decode
    bool damaged_preview = false;  // preview strip offset past the end
};

// Make "Qbcam", model "QB-1", taken 2021:06:15 14:30:45 at 1/250 s, f/2.8,
// 50 mm, ISO 400 with flash 1.
bool write_dng(const std::string &path, const DngOptions &opt);

}  // namespace qbtest
