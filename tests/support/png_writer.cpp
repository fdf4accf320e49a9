#include "png_writer.h"

#include <csetjmp>
#include <cstdio>

#include "png/png.h"

namespace qbtest {

namespace {

// libpng jumps out of here: the frame holds no object with a destructor.
bool encode(FILE *f, const PngPicture &p, png_bytepp rows)
{
    png_structp png = png_create_write_struct(
        PNG_LIBPNG_VER_STRING, nullptr, [](png_structp w, png_const_charp) { png_longjmp(w, 1); },
        [](png_structp, png_const_charp) {});
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, png_uint_32(p.width), png_uint_32(p.height), p.bit_depth, p.color_type,
                 p.interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!p.palette.empty())
        png_set_PLTE(png, info, p.palette.data(), int(p.palette.size()));
    if (!p.trns_alpha.empty())
        png_set_tRNS(png, info, p.trns_alpha.data(), int(p.trns_alpha.size()), nullptr);
    if (const size_t n = p.trns_key.size()) {  // grey: {g, g, g, g}; RGB: {r, g, b, r}
        png_color_16 key{0, p.trns_key[0], p.trns_key[n / 2], p.trns_key[n - 1], p.trns_key[0]};
        png_set_tRNS(png, info, nullptr, 0, &key);
    }
    if (p.gamma != 0.0)
        png_set_gAMA(png, info, p.gamma);
    png_write_info(png, info);
    if (p.bit_depth < 8)
        png_set_packing(png);  // one sample a byte in, packed in the file
    png_write_image(png, rows);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

int png_channels(int color_type)
{
    return color_type == PNG_COLOR_TYPE_GRAY_ALPHA ? 2 : color_type == PNG_COLOR_TYPE_RGB ? 3
           : color_type == PNG_COLOR_TYPE_RGBA ? 4 : 1;
}

bool write_png(const std::string &path, const PngPicture &p)
{
    const size_t row = size_t(p.width) * png_channels(p.color_type) * (p.bit_depth == 16 ? 2 : 1);
    std::vector<uint8_t> bytes;  // 16 bits big-endian, else one byte a sample
    for (uint16_t v : p.samples) {
        if (p.bit_depth == 16)
            bytes.push_back(uint8_t(v >> 8));
        bytes.push_back(uint8_t(v));
    }
    if (bytes.size() != row * size_t(p.height))
        return false;
    std::vector<png_bytep> rows;
    for (int y = 0; y < p.height; ++y)
        rows.push_back(&bytes[size_t(y) * row]);
    FILE *f = std::fopen(path.c_str(), "wb");
    const bool ok = f && encode(f, p, rows.data());
    return f && std::fclose(f) == 0 && ok;
}

bool write_png_rgba(const std::string &path, const Rgba &pic)
{
    PngPicture p{.width = pic.width, .height = pic.height, .color_type = PNG_COLOR_TYPE_RGBA};
    p.samples.assign(pic.pixels.begin(), pic.pixels.end());
    return write_png(path, p);
}

Rgba read_png(const std::string &path, const uint8_t *background)
{
    png_uint_32 w = 0, h = 0;
    image_png_rows rows = _read_png_to_rgba(path.c_str(), &w, &h, background);
    Rgba out{rows ? int(w) : 0, rows ? int(h) : 0, {}};
    for (png_uint_32 y = 0; rows && y < h; ++y)
        out.pixels.insert(out.pixels.end(), rows[y], rows[y] + w * (background ? 3 : 4));
    image_png_rows_free(rows, h);
    return out;
}

}  // namespace qbtest
