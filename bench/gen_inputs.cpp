// Inputs of the benchmark suite, made deterministically from a seed: the
// same arguments give the same bytes on every run.
//
//   qbbench-gen photo W H OUT.jpg [--seed N] [--quality Q] [--progressive]
//                                 [--orientation N] [--no-exif]
//       a photo-like JPEG: smooth colour fields, shapes with sharp edges and
//       sensor-like noise, 4:2:0, with a camera-like Exif block (IFD0, Exif
//       and GPS folders, a maker note and a 160x120 JPEG thumbnail in IFD1)
//   qbbench-gen png W H OUT.png [--seed N]
//       the same kind of picture as an 8-bit RGB PNG
//   qbbench-gen tree DIR COUNT [--seed N] [--scale F]
//       COUNT mixed photos in nested folders for the batch runs: JPEGs of
//       2 to 12 megapixels (some progressive, some turned by Exif), and
//       PNGs; names are unique across the tree. --scale shrinks every side.
//       Prints the list of files it wrote, one a line.
//   qbbench-gen decode-png IN.png
//       decodes a PNG completely and throws the rows away: the floor of a
//       PNG thumbnail, as djpeg -scale 1/8 is for a JPEG
//
// Noise comes from a 64-bit linear congruential generator, never from
// <random> distributions, whose results differ between library versions.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <numbers>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include <jpeglib.h>
#include <png.h>

namespace {

// libpng's fatal errors end the program: no jump target is needed.
[[noreturn]] void png_fatal(png_structp, png_const_charp message)
{
    std::fprintf(stderr, "libpng: %s\n", message);
    std::exit(1);
}

// ---------------------------------------------------------------------------
// Deterministic numbers

struct Lcg {
    uint64_t state;
    explicit Lcg(uint64_t seed) : state(seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull) {}
    uint32_t next()
    {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return uint32_t(state >> 33);
    }
    // Uniform in [0, 1).
    double unit() { return double(next()) / 2147483648.0; }
    int range(int lo, int hi) { return lo + int(next() % uint32_t(hi - lo + 1)); }
};

// ---------------------------------------------------------------------------
// The picture

// Smooth fields: per channel, a sum of separable cosine waves of one to
// three periods across the frame. Shapes: discs and slanted bands of flat
// colour laid over the field, shaded by it, with hard edges. Noise: luma
// noise shared by the channels plus weaker chroma noise, as a sensor's.
class Picture {
public:
    Picture(int width, int height, uint64_t seed) : w_(width), h_(height), rng_(seed)
    {
        for (int c = 0; c < 3; ++c) {
            base_[c] = 60 + rng_.range(0, 120);
            for (int k = 0; k < kWaves; ++k) {
                Wave &wv = waves_[c][k];
                wv.amp = 18 + rng_.range(0, 30);
                wv.col.resize(size_t(w_));
                wv.row.resize(size_t(h_));
                const double fx = (0.5 + rng_.unit() * 2.5) * 2 * std::numbers::pi / w_;
                const double fy = (0.5 + rng_.unit() * 2.5) * 2 * std::numbers::pi / h_;
                const double px = rng_.unit() * 2 * std::numbers::pi, py = rng_.unit() * 2 * std::numbers::pi;
                for (int x = 0; x < w_; ++x)
                    wv.col[size_t(x)] = float(std::cos(fx * x + px));
                for (int y = 0; y < h_; ++y)
                    wv.row[size_t(y)] = float(std::cos(fy * y + py));
            }
        }
        const int side = std::min(w_, h_);
        for (Shape &s : shapes_) {
            s.disc = rng_.next() % 3 != 0;
            s.cx = rng_.unit() * w_;
            s.cy = rng_.unit() * h_;
            s.r = side * (0.04 + rng_.unit() * 0.22);
            s.slope = rng_.unit() * 2 - 1;
            for (int &v : s.colour)
                v = rng_.range(10, 245);
        }
    }

    // One row of RGB samples.
    void row(int y, unsigned char *out)
    {
        std::vector<float> &field = field_;
        field.assign(size_t(w_) * 3, 0.0f);
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < kWaves; ++k) {
                const Wave &wv = waves_[c][k];
                const float a = float(wv.amp) * wv.row[size_t(y)];
                for (int x = 0; x < w_; ++x)
                    field[size_t(x) * 3 + size_t(c)] += a * wv.col[size_t(x)];
            }
        for (int x = 0; x < w_; ++x)
            for (int c = 0; c < 3; ++c)
                field[size_t(x) * 3 + size_t(c)] += float(base_[c]);
        // Shapes: their own colour, shaded by the field's deviation.
        for (const Shape &s : shapes_) {
            int x0, x1;
            const double dy = y - s.cy;
            if (s.disc) {
                if (std::fabs(dy) >= s.r)
                    continue;
                const double half = std::sqrt(s.r * s.r - dy * dy);
                x0 = int(std::ceil(s.cx - half));
                x1 = int(std::floor(s.cx + half));
            } else {
                // A band of width r along a slanted line through the centre.
                const double mid = s.cx + dy * s.slope;
                x0 = int(std::ceil(mid - s.r * 0.3));
                x1 = int(std::floor(mid + s.r * 0.3));
            }
            x0 = std::max(x0, 0);
            x1 = std::min(x1, w_ - 1);
            for (int x = x0; x <= x1; ++x)
                for (int c = 0; c < 3; ++c) {
                    float &v = field[size_t(x) * 3 + size_t(c)];
                    v = float(s.colour[c]) + (v - float(base_[c])) * 0.5f;
                }
        }
        for (int x = 0; x < w_; ++x) {
            // Sum of two uniforms: a triangular distribution, near enough to
            // a sensor's Gaussian for the entropy coder.
            const int luma = int(rng_.next() % 19) + int(rng_.next() % 19) - 18;
            for (int c = 0; c < 3; ++c) {
                const int chroma = int(rng_.next() % 5) - 2;
                const int v = int(std::lround(field[size_t(x) * 3 + size_t(c)])) + luma + chroma;
                out[size_t(x) * 3 + size_t(c)] = (unsigned char)std::clamp(v, 0, 255);
            }
        }
    }

private:
    static constexpr int kWaves = 3;
    static constexpr int kShapes = 14;
    struct Wave {
        int amp = 0;
        std::vector<float> col, row;
    };
    struct Shape {
        bool disc = true;
        double cx = 0, cy = 0, r = 0, slope = 0;
        int colour[3] = {0, 0, 0};
    };
    int w_, h_;
    Lcg rng_;
    int base_[3] = {0, 0, 0};
    Wave waves_[3][kWaves];
    Shape shapes_[kShapes];
    std::vector<float> field_;
};

// ---------------------------------------------------------------------------
// Exif

// A little-endian TIFF structure built in one pass: each folder's entries
// are written in tag order, values longer than four bytes go to a data
// area behind the folder, and offsets count from the TIFF header.
class Tiff {
public:
    struct Entry {
        uint16_t tag, type;
        uint32_t count;
        std::vector<unsigned char> bytes;  // the value, as stored
        int link = -1;                     // folder whose offset is the value
    };
    struct Folder {
        std::vector<Entry> entries;
        int next = -1;  // folder chained behind this one (IFD0 -> IFD1)
        std::vector<unsigned char> tail;  // stored after the data (IFD1's JPEG)
        int tail_offset_entry = -1;       // entry that receives the tail's offset
    };

    std::vector<Folder> folders;

    static std::vector<unsigned char> u16(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
    static std::vector<unsigned char> u32(uint32_t v)
    {
        return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    }
    static Entry ascii(uint16_t tag, const char *s)
    {
        std::vector<unsigned char> b(s, s + std::strlen(s) + 1);
        return {tag, 2, uint32_t(b.size()), b};
    }
    static Entry shorts(uint16_t tag, std::initializer_list<uint16_t> v)
    {
        std::vector<unsigned char> b;
        for (uint16_t x : v) {
            auto p = u16(x);
            b.insert(b.end(), p.begin(), p.end());
        }
        return {tag, 3, uint32_t(v.size()), b};
    }
    static Entry longs(uint16_t tag, uint32_t v) { return {tag, 4, 1, u32(v)}; }
    static Entry rationals(uint16_t tag, std::initializer_list<std::pair<uint32_t, uint32_t>> v,
                           bool is_signed = false)
    {
        std::vector<unsigned char> b;
        for (auto [n, d] : v) {
            auto p = u32(n), q = u32(d);
            b.insert(b.end(), p.begin(), p.end());
            b.insert(b.end(), q.begin(), q.end());
        }
        return {tag, uint16_t(is_signed ? 10 : 5), uint32_t(v.size()), b};
    }
    static Entry undefined(uint16_t tag, std::vector<unsigned char> b)
    {
        const auto n = uint32_t(b.size());
        return {tag, 7, n, std::move(b)};
    }
    static Entry bytes(uint16_t tag, std::vector<unsigned char> b)
    {
        const auto n = uint32_t(b.size());
        return {tag, 1, n, std::move(b)};
    }
    static Entry pointer(uint16_t tag, int folder) { return {tag, 4, 1, u32(0), folder}; }

    std::vector<unsigned char> write() const
    {
        std::vector<unsigned char> out = {'I', 'I', 42, 0, 8, 0, 0, 0};
        std::vector<uint32_t> at(folders.size(), 0);
        // Place folders in order: each folder, then its data, then its tail.
        std::vector<uint32_t> size(folders.size());
        uint32_t pos = 8;
        for (size_t i = 0; i < folders.size(); ++i) {
            at[i] = pos;
            uint32_t data = 0;
            for (const Entry &e : folders[i].entries)
                if (e.bytes.size() > 4)
                    data += uint32_t(e.bytes.size() + (e.bytes.size() & 1));
            size[i] = 2 + 12 * uint32_t(folders[i].entries.size()) + 4 + data +
                      uint32_t(folders[i].tail.size());
            pos += size[i];
        }
        for (size_t i = 0; i < folders.size(); ++i) {
            const Folder &f = folders[i];
            auto put = [&out](const std::vector<unsigned char> &b) {
                out.insert(out.end(), b.begin(), b.end());
            };
            put(u16(uint16_t(f.entries.size())));
            uint32_t data_pos = at[i] + 2 + 12 * uint32_t(f.entries.size()) + 4;
            std::vector<unsigned char> data;
            for (size_t k = 0; k < f.entries.size(); ++k) {
                const Entry &e = f.entries[k];
                put(u16(e.tag));
                put(u16(e.type));
                put(u32(e.count));
                if (e.link >= 0) {
                    put(u32(at[size_t(e.link)]));
                } else if (int(k) == f.tail_offset_entry) {
                    uint32_t data_size = 0;
                    for (const Entry &d : f.entries)
                        if (d.bytes.size() > 4)
                            data_size += uint32_t(d.bytes.size() + (d.bytes.size() & 1));
                    put(u32(data_pos + data_size));
                } else if (e.bytes.size() <= 4) {
                    std::vector<unsigned char> v = e.bytes;
                    v.resize(4, 0);
                    put(v);
                } else {
                    put(u32(data_pos + uint32_t(data.size())));
                    data.insert(data.end(), e.bytes.begin(), e.bytes.end());
                    if (e.bytes.size() & 1)
                        data.push_back(0);
                }
            }
            put(u32(f.next >= 0 ? at[size_t(f.next)] : 0));
            put(data);
            put(f.tail);
        }
        return out;
    }
};

std::vector<unsigned char> encode_jpeg_mem(int width, int height, uint64_t seed, int quality)
{
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    unsigned char *buf = nullptr;
    unsigned long len = 0;
    jpeg_mem_dest(&cinfo, &buf, &len);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    cinfo.write_JFIF_header = FALSE;
    jpeg_start_compress(&cinfo, TRUE);
    Picture pic(width, height, seed);
    std::vector<unsigned char> row(size_t(width) * 3);
    while (cinfo.next_scanline < cinfo.image_height) {
        pic.row(int(cinfo.next_scanline), row.data());
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&cinfo, &r, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::vector<unsigned char> out(buf, buf + len);
    std::free(buf);
    return out;
}

// The APP1 payload: "Exif\0\0" and a TIFF structure with what a camera
// writes. Folders: 0 IFD0, 1 Exif, 2 GPS, 3 interoperability, 4 IFD1.
std::vector<unsigned char> exif_block(int width, int height, int orientation, uint64_t seed)
{
    Tiff t;
    t.folders.resize(5);
    Tiff::Folder &ifd0 = t.folders[0];
    ifd0.entries = {
        Tiff::ascii(0x010E, "                               "),
        Tiff::ascii(0x010F, "Benchcam"),
        Tiff::ascii(0x0110, "Benchcam BC-24"),
        Tiff::shorts(0x0112, {uint16_t(orientation)}),
        Tiff::rationals(0x011A, {{300, 1}}),
        Tiff::rationals(0x011B, {{300, 1}}),
        Tiff::shorts(0x0128, {2}),
        Tiff::ascii(0x0131, "Firmware Ver.1.10"),
        Tiff::ascii(0x0132, "2023:06:14 17:42:09"),
        Tiff::ascii(0x013B, "A. Photographer"),
        Tiff::shorts(0x0213, {2}),
        Tiff::ascii(0x8298, "Copyright 2023 A. Photographer"),
        Tiff::pointer(0x8769, 1),
        Tiff::pointer(0x8825, 2),
    };
    ifd0.next = 4;
    // A maker note of a few kilobytes of private data, as cameras write.
    std::vector<unsigned char> note(6144);
    Lcg rng(seed ^ 0xA5A5);
    for (unsigned char &b : note)
        b = uint8_t(rng.next());
    std::memcpy(note.data(), "BENCHCAM\0\0", 10);
    t.folders[1].entries = {
        Tiff::rationals(0x829A, {{1, 250}}),
        Tiff::rationals(0x829D, {{56, 10}}),
        Tiff::shorts(0x8822, {3}),
        Tiff::shorts(0x8827, {400}),
        Tiff::shorts(0x8830, {2}),
        Tiff::undefined(0x9000, {'0', '2', '3', '1'}),
        Tiff::ascii(0x9003, "2023:06:14 17:42:09"),
        Tiff::ascii(0x9004, "2023:06:14 17:42:09"),
        Tiff::ascii(0x9010, "+02:00"),
        Tiff::ascii(0x9011, "+02:00"),
        Tiff::undefined(0x9101, {1, 2, 3, 0}),
        Tiff::rationals(0x9201, {{7965784, 1000000}}, true),
        Tiff::rationals(0x9202, {{4970854, 1000000}}),
        Tiff::rationals(0x9204, {{0, 1}}, true),
        Tiff::rationals(0x9205, {{4, 1}}),
        Tiff::shorts(0x9207, {5}),
        Tiff::shorts(0x9208, {0}),
        Tiff::shorts(0x9209, {16}),
        Tiff::rationals(0x920A, {{50, 1}}),
        Tiff::undefined(0x927C, note),
        Tiff::ascii(0x9290, "25"),
        Tiff::ascii(0x9291, "25"),
        Tiff::ascii(0x9292, "25"),
        Tiff::undefined(0xA000, {'0', '1', '0', '0'}),
        Tiff::shorts(0xA001, {1}),
        Tiff::longs(0xA002, uint32_t(width)),
        Tiff::longs(0xA003, uint32_t(height)),
        Tiff::pointer(0xA005, 3),
        Tiff::rationals(0xA20E, {{6000000, 359}}),
        Tiff::rationals(0xA20F, {{4000000, 240}}),
        Tiff::shorts(0xA210, {2}),
        Tiff::shorts(0xA401, {0}),
        Tiff::shorts(0xA402, {0}),
        Tiff::shorts(0xA403, {0}),
        Tiff::shorts(0xA406, {0}),
        Tiff::ascii(0xA431, "012345678901"),
        Tiff::rationals(0xA432, {{24, 1}, {70, 1}, {28, 10}, {28, 10}}),
        Tiff::ascii(0xA434, "BC 24-70mm F2.8"),
    };
    t.folders[2].entries = {
        Tiff::bytes(0x0000, {2, 3, 0, 0}),
        Tiff::ascii(0x0001, "N"),
        Tiff::rationals(0x0002, {{48, 1}, {51, 1}, {2934, 100}}),
        Tiff::ascii(0x0003, "E"),
        Tiff::rationals(0x0004, {{2, 1}, {17, 1}, {4012, 100}}),
        Tiff::bytes(0x0005, {0}),
        Tiff::rationals(0x0006, {{3512, 100}}),
        Tiff::rationals(0x0007, {{15, 1}, {42, 1}, {9, 1}}),
        Tiff::ascii(0x0012, "WGS-84"),
        Tiff::ascii(0x001D, "2023:06:14"),
    };
    t.folders[3].entries = {
        Tiff::ascii(0x0001, "R98"),
        Tiff::undefined(0x0002, {'0', '1', '0', '0'}),
    };
    // IFD1: the JPEG thumbnail, 160x120 (or 120x160), of the same kind of picture.
    const bool tall = height > width;
    std::vector<unsigned char> thumb =
        encode_jpeg_mem(tall ? 120 : 160, tall ? 160 : 120, seed ^ 0x7777, 80);
    Tiff::Folder &ifd1 = t.folders[4];
    ifd1.entries = {
        Tiff::shorts(0x0103, {6}),
        Tiff::rationals(0x011A, {{72, 1}}),
        Tiff::rationals(0x011B, {{72, 1}}),
        Tiff::shorts(0x0128, {2}),
        Tiff::longs(0x0201, 0),
        Tiff::longs(0x0202, uint32_t(thumb.size())),
    };
    ifd1.tail_offset_entry = 4;
    ifd1.tail = std::move(thumb);

    std::vector<unsigned char> out = {'E', 'x', 'i', 'f', 0, 0};
    const std::vector<unsigned char> tiff = t.write();
    out.insert(out.end(), tiff.begin(), tiff.end());
    return out;
}

// ---------------------------------------------------------------------------
// Writers

struct PhotoOptions {
    uint64_t seed = 1;
    int quality = 92;
    bool progressive = false;
    bool exif = true;
    int orientation = 1;
};

int write_jpeg(int width, int height, const char *path, const PhotoOptions &o)
{
    FILE *f = std::fopen(path, "wb");
    if (!f) {
        std::perror(path);
        return 1;
    }
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);  // a fatal error ends the program
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, o.quality, TRUE);
    // Cameras start with the Exif APP1, not a JFIF APP0.
    cinfo.write_JFIF_header = o.exif ? FALSE : TRUE;
    if (o.progressive)
        jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    if (o.exif) {
        const std::vector<unsigned char> app1 = exif_block(width, height, o.orientation, o.seed);
        jpeg_write_marker(&cinfo, JPEG_APP0 + 1, app1.data(), unsigned(app1.size()));
    }
    Picture pic(width, height, o.seed);
    std::vector<unsigned char> row(size_t(width) * 3);
    while (cinfo.next_scanline < cinfo.image_height) {
        pic.row(int(cinfo.next_scanline), row.data());
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&cinfo, &r, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return std::fclose(f) == 0 ? 0 : 1;
}

int write_png(int width, int height, const char *path, uint64_t seed)
{
    FILE *f = std::fopen(path, "wb");
    if (!f) {
        std::perror(path);
        return 1;
    }
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, png_fatal, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        std::fprintf(stderr, "%s: cannot write the PNG\n", path);
        return 1;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), 8, PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    Picture pic(width, height, seed);
    std::vector<unsigned char> row(size_t(width) * 3);
    for (int y = 0; y < height; ++y) {
        pic.row(y, row.data());
        png_write_row(png, row.data());
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return std::fclose(f) == 0 ? 0 : 1;
}

int decode_png(const char *path)
{
    FILE *f = std::fopen(path, "rb");
    if (!f) {
        std::perror(path);
        return 1;
    }
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, png_fatal, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!png || !info) {
        std::fprintf(stderr, "%s: cannot read the PNG\n", path);
        return 1;
    }
    png_init_io(png, f);
    png_read_info(png, info);
    png_set_expand(png);
    png_set_strip_16(png);
    png_read_update_info(png, info);
    std::vector<unsigned char> row(png_get_rowbytes(png, info));
    const int passes = png_set_interlace_handling(png);
    const png_uint_32 height = png_get_image_height(png, info);
    for (int p = 0; p < passes; ++p)
        for (png_uint_32 y = 0; y < height; ++y)
            png_read_row(png, row.data(), nullptr);
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return 0;
}

bool make_dirs(const std::string &path)
{
    for (size_t i = 1; i <= path.size(); ++i)
        if (i == path.size() || path[i] == '/') {
            const std::string part = path.substr(0, i);
            if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
                return false;
        }
    return true;
}

// The batch tree: folders by "year/month", photos of a few camera sizes.
int write_tree(const std::string &dir, int count, uint64_t seed, double scale)
{
    struct Size {
        int w, h;
    };
    static constexpr Size kSizes[] = {{4000, 3000}, {3000, 2000}, {2048, 1536}, {1600, 1200},
                                      {3264, 2448}, {2592, 1944}};
    Lcg rng(seed);
    for (int i = 0; i < count; ++i) {
        const std::string folder = dir + "/" + std::to_string(2019 + i % 4) + "/" +
                                   (i % 3 == 0 ? "holiday" : i % 3 == 1 ? "family" : "misc") +
                                   "/" + std::to_string(1 + (i / 4) % 12);
        if (!make_dirs(folder)) {
            std::perror(folder.c_str());
            return 1;
        }
        const uint32_t pick = rng.next() % 100;
        Size s = kSizes[rng.next() % (sizeof kSizes / sizeof kSizes[0])];
        if (rng.next() % 4 == 0)
            std::swap(s.w, s.h);  // shot upright
        s.w = std::max(16, int(s.w * scale));
        s.h = std::max(16, int(s.h * scale));
        char name[32];
        const uint64_t file_seed = seed * 1000 + uint64_t(i);
        int rc;
        std::string path;
        if (pick < 12) {
            // PNGs are screenshots and exports: smaller.
            s.w = std::max(16, s.w / 2);
            s.h = std::max(16, s.h / 2);
            std::snprintf(name, sizeof name, "IMG_%04d.png", i + 1);
            path = folder + "/" + name;
            rc = write_png(s.w, s.h, path.c_str(), file_seed);
        } else {
            PhotoOptions o;
            o.seed = file_seed;
            o.progressive = pick < 22;
            o.quality = 88 + int(rng.next() % 8);
            const uint32_t turn = rng.next() % 10;
            o.orientation = turn == 0 ? 6 : turn == 1 ? 8 : turn == 2 ? 3 : 1;
            std::snprintf(name, sizeof name, "IMG_%04d.jpg", i + 1);
            path = folder + "/" + name;
            rc = write_jpeg(s.w, s.h, path.c_str(), o);
        }
        if (rc != 0)
            return rc;
        std::printf("%s\n", path.c_str());
    }
    return 0;
}

int usage(const char *argv0)
{
    std::fprintf(stderr,
                 "usage: %s photo W H OUT.jpg [--seed N] [--quality Q] [--progressive] "
                 "[--orientation N] [--no-exif]\n"
                 "       %s png W H OUT.png [--seed N]\n"
                 "       %s tree DIR COUNT [--seed N] [--scale F]\n"
                 "       %s decode-png IN.png\n",
                 argv0, argv0, argv0, argv0);
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return usage(argv[0]);
    const std::string cmd = argv[1];
    if (cmd == "decode-png")
        return decode_png(argv[2]);

    PhotoOptions o;
    double scale = 1.0;
    int first_flag = cmd == "tree" ? 4 : 5;
    if (argc < first_flag)
        return usage(argv[0]);
    for (int i = first_flag; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has_value = i + 1 < argc;
        if (a == "--seed" && has_value)
            o.seed = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--quality" && has_value)
            o.quality = std::atoi(argv[++i]);
        else if (a == "--orientation" && has_value)
            o.orientation = std::atoi(argv[++i]);
        else if (a == "--scale" && has_value)
            scale = std::atof(argv[++i]);
        else if (a == "--progressive")
            o.progressive = true;
        else if (a == "--no-exif")
            o.exif = false;
        else
            return usage(argv[0]);
    }
    if (cmd == "tree") {
        const int count = std::atoi(argv[3]);
        return count > 0 && scale > 0 ? write_tree(argv[2], count, o.seed, scale) : usage(argv[0]);
    }
    const int width = std::atoi(argv[2]), height = std::atoi(argv[3]);
    if (width < 16 || height < 16)
        return usage(argv[0]);
    if (cmd == "photo")
        return write_jpeg(width, height, argv[4], o);
    if (cmd == "png")
        return write_png(width, height, argv[4], o.seed);
    return usage(argv[0]);
}
