// Test helpers: PNG files of any colour type and depth written with libpng,
// and the library's PNG reader flattened.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <png.h>

namespace qbtest {

// `samples` holds width x height x png_channels values in row order, each
// as the file stores it (0 .. 2^bit_depth - 1; a palette index for type 3).
struct PngPicture {
    int width = 1, height = 1;
    int color_type = 2;  // PNG_COLOR_TYPE_*: 0, 2, 3, 4, 6
    int bit_depth = 8;
    std::vector<uint16_t> samples{};
    std::vector<png_color> palette{};  // type 3
    std::vector<uint8_t> trns_alpha{};  // type 3: tRNS alpha per entry
    std::vector<uint16_t> trns_key{};   // types 0 and 2: tRNS grey, or red, green, blue
    double gamma = 0.0;                 // non-zero: a gAMA chunk
    bool interlace = false;             // Adam7
};

int png_channels(int color_type);  // 1 grey or palette, 2 grey+alpha, 3 RGB, 4 RGBA
bool write_png(const std::string &path, const PngPicture &pic);

struct Rgba {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;  // width * height * 4 (3 when read over a background)
    uint8_t *at(int x, int y) { return &pixels[(size_t(y) * width + x) * 4]; }
};
bool write_png_rgba(const std::string &path, const Rgba &pic);  // 8-bit RGBA, no gAMA

// The library's _read_png_to_rgba over `background` (null: RGBA), its
// rows flattened and freed; width 0 for null.
Rgba read_png(const std::string &path, const uint8_t *background = nullptr);

}  // namespace qbtest
