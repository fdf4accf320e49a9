// Test helpers: PNG files of any colour type and depth written with libpng,
// PNG files read back through libpng's simplified reader (independent of
// the library's reader), and a walk over a file's chunks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qbtest {

struct PngRgb {
    uint8_t r, g, b;
};

// What to write. `samples` holds width x height x channels values in row
// order, each as the file stores it (0 .. 2^bit_depth - 1; a palette index
// for colour type 3). Channels: 1 grey or palette, 2 grey+alpha, 3 RGB,
// 4 RGBA.
struct PngSpec {
    int width = 1, height = 1;
    int color_type = 2;  // PNG_COLOR_TYPE_*: 0, 2, 3, 4, 6
    int bit_depth = 8;
    std::vector<uint16_t> samples;
    std::vector<PngRgb> palette;     // colour type 3
    std::vector<uint8_t> trns_alpha; // colour type 3: tRNS alpha per entry
    bool trns_colour = false;        // colour types 0 and 2: tRNS colour
    uint16_t trns_grey = 0, trns_r = 0, trns_g = 0, trns_b = 0;
    double gamma = 0.0;              // non-zero: a gAMA chunk with this gamma
    bool interlace = false;          // Adam7
};

int png_channels(int color_type);

// The file's bytes; empty on failure.
std::vector<uint8_t> encode_png(const PngSpec &spec);
bool write_png(const std::string &path, const PngSpec &spec);

// A whole PNG as 8-bit RGBA by libpng's simplified API (width 0 on failure).
struct Rgba {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;  // width * height * 4
    const uint8_t *at(int x, int y) const { return &pixels[(size_t(y) * width + x) * 4]; }
    uint8_t *at(int x, int y) { return &pixels[(size_t(y) * width + x) * 4]; }
};
Rgba read_png_rgba(const std::string &path);
// Writes an 8-bit RGBA PNG of `pic` (no gAMA).
bool write_png_rgba(const std::string &path, const Rgba &pic);

// The chunk types of a PNG file in order ("IHDR", "IDAT", ...); empty if
// the signature is wrong. `ihdr` gets the 13 IHDR data bytes if non-null.
std::vector<std::string> png_chunks(const std::vector<uint8_t> &file,
                                    std::vector<uint8_t> *ihdr = nullptr);
// Offset of the first chunk of `type` (its length field), or 0.
size_t png_chunk_offset(const std::vector<uint8_t> &file, const char *type);
// Recomputes the CRC of the chunk at `offset` (its length field), after
// its data has been changed on purpose.
void png_fix_crc(std::vector<uint8_t> &file, size_t offset);

}  // namespace qbtest
