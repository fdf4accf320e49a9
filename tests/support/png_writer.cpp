#include "png_writer.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <png.h>

namespace qbtest {

namespace {

struct Buffer {
    std::vector<uint8_t> bytes;
};

void append(png_structp png, png_bytep data, png_size_t length)
{
    auto *b = static_cast<Buffer *>(png_get_io_ptr(png));
    b->bytes.insert(b->bytes.end(), data, data + length);
}
void no_flush(png_structp) {}
[[noreturn]] void fail(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void quiet(png_structp, png_const_charp) {}

// The packed rows of `spec`, as libpng wants them at the file's depth.
std::vector<std::vector<uint8_t>> pack_rows(const PngSpec &s)
{
    const int n = png_channels(s.color_type);
    const size_t values = size_t(s.width) * n;
    std::vector<std::vector<uint8_t>> rows(size_t(s.height));
    for (int y = 0; y < s.height; ++y) {
        std::vector<uint8_t> &row = rows[size_t(y)];
        row.assign((values * size_t(s.bit_depth) + 7) / 8, 0);
        for (size_t i = 0; i < values; ++i) {
            const uint16_t v = s.samples[size_t(y) * values + i];
            if (s.bit_depth == 16) {
                row[2 * i] = uint8_t(v >> 8);
                row[2 * i + 1] = uint8_t(v);
            } else if (s.bit_depth == 8) {
                row[i] = uint8_t(v);
            } else {
                const size_t bit = i * size_t(s.bit_depth);
                const int shift = 8 - s.bit_depth - int(bit % 8);
                row[bit / 8] = uint8_t(row[bit / 8] | (v << shift));
            }
        }
    }
    return rows;
}

// libpng jumps out of here: the frame's objects are built before setjmp
// and not touched after a jump, save for the teardown.
bool encode_to(Buffer *out, const PngSpec &s, std::vector<png_bytep> &pointers,
               std::vector<png_color> &palette)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, fail, quiet);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, out, append, no_flush);
    png_set_IHDR(png, info, png_uint_32(s.width), png_uint_32(s.height), s.bit_depth, s.color_type,
                 s.interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (!palette.empty())
        png_set_PLTE(png, info, palette.data(), int(palette.size()));
    png_color_16 colour{};
    colour.gray = s.trns_grey;
    colour.red = s.trns_r;
    colour.green = s.trns_g;
    colour.blue = s.trns_b;
    if (!s.trns_alpha.empty())
        png_set_tRNS(png, info, s.trns_alpha.data(), int(s.trns_alpha.size()), nullptr);
    else if (s.trns_colour)
        png_set_tRNS(png, info, nullptr, 0, &colour);
    if (s.gamma != 0.0)
        png_set_gAMA(png, info, s.gamma);
    png_write_info(png, info);
    png_write_image(png, pointers.data());
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace

int png_channels(int color_type)
{
    switch (color_type) {
    case PNG_COLOR_TYPE_GRAY_ALPHA: return 2;
    case PNG_COLOR_TYPE_RGB: return 3;
    case PNG_COLOR_TYPE_RGB_ALPHA: return 4;
    default: return 1;
    }
}

std::vector<uint8_t> encode_png(const PngSpec &spec)
{
    const size_t want = size_t(spec.width) * spec.height * png_channels(spec.color_type);
    if (spec.samples.size() != want)
        return {};
    std::vector<std::vector<uint8_t>> rows = pack_rows(spec);
    std::vector<png_bytep> pointers;
    for (auto &r : rows)
        pointers.push_back(r.data());
    std::vector<png_color> palette;
    for (const PngRgb &c : spec.palette)
        palette.push_back(png_color{c.r, c.g, c.b});
    Buffer out;
    if (!encode_to(&out, spec, pointers, palette))
        return {};
    return out.bytes;
}

bool write_png(const std::string &path, const PngSpec &spec)
{
    const std::vector<uint8_t> bytes = encode_png(spec);
    if (bytes.empty())
        return false;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

Rgba read_png_rgba(const std::string &path)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    Rgba out;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return out;
    image.format = PNG_FORMAT_RGBA;
    std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) {
        png_image_free(&image);
        return out;
    }
    out.width = int(image.width);
    out.height = int(image.height);
    out.pixels = std::move(pixels);
    return out;
}

bool write_png_rgba(const std::string &path, const Rgba &pic)
{
    PngSpec s;
    s.width = pic.width;
    s.height = pic.height;
    s.color_type = PNG_COLOR_TYPE_RGB_ALPHA;
    s.samples.assign(pic.pixels.begin(), pic.pixels.end());
    return write_png(path, s);
}

std::vector<std::string> png_chunks(const std::vector<uint8_t> &file, std::vector<uint8_t> *ihdr)
{
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<std::string> types;
    if (file.size() < 8 || std::memcmp(file.data(), kSignature, 8) != 0)
        return types;
    size_t at = 8;
    while (at + 12 <= file.size()) {
        const size_t length = size_t(file[at]) << 24 | size_t(file[at + 1]) << 16 |
                              size_t(file[at + 2]) << 8 | file[at + 3];
        if (at + 12 + length > file.size())
            break;
        types.emplace_back(reinterpret_cast<const char *>(&file[at + 4]), 4);
        if (ihdr && types.back() == "IHDR")
            ihdr->assign(file.begin() + long(at + 8), file.begin() + long(at + 8 + length));
        at += 12 + length;
    }
    return types;
}

size_t png_chunk_offset(const std::vector<uint8_t> &file, const char *type)
{
    size_t at = 8;
    while (at + 12 <= file.size()) {
        const size_t length = size_t(file[at]) << 24 | size_t(file[at + 1]) << 16 |
                              size_t(file[at + 2]) << 8 | file[at + 3];
        if (std::memcmp(&file[at + 4], type, 4) == 0)
            return at;
        at += 12 + length;
    }
    return 0;
}

}  // namespace qbtest

namespace qbtest {

void png_fix_crc(std::vector<uint8_t> &file, size_t offset)
{
    const size_t length = size_t(file[offset]) << 24 | size_t(file[offset + 1]) << 16 |
                          size_t(file[offset + 2]) << 8 | file[offset + 3];
    // CRC-32 of ISO 3309 over the type and the data, bit by bit.
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = offset + 4; i < offset + 8 + length; ++i) {
        crc ^= file[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    crc ^= 0xFFFFFFFFu;
    for (size_t i = 0; i < 4; ++i)
        file[offset + 8 + length + i] = uint8_t(crc >> (24 - 8 * i));
}

}  // namespace qbtest
