// Writes the seed corpora of the fuzz targets, one folder per target under
// the folder given, from the test suite's own writers (JPEG, Exif, DNG), a
// few JPEG forms those do not make (CMYK, arithmetic coding) and libpng.
// The output is the same on every run; nothing is downloaded.
//
//   make_seeds <folder>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <jpeglib.h>
#include <png.h>

#include "dng_writer.h"
#include "exif_writer.h"
#include "test_jpeg.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using qbtest::ExifBlock;
using qbtest::ExifField;
using qbtest::JpegOptions;
using qbtest::Picture;

// The largest input the run hands a target.
constexpr size_t kMaxSeed = 65536;

fs::path g_root;
int g_failures = 0;

void seed(const std::string &target, const std::string &name, const Bytes &data)
{
    if (data.empty() || data.size() > kMaxSeed) {
        std::fprintf(stderr, "make_seeds: %s/%s: %zu bytes, not written\n",
                     target.c_str(), name.c_str(), data.size());
        ++g_failures;
        return;
    }
    const fs::path dir = g_root / target;
    fs::create_directories(dir);
    if (!qbtest::write_file((dir / name).string(), data)) {
        std::fprintf(stderr, "make_seeds: cannot write %s\n", (dir / name).c_str());
        ++g_failures;
    }
}

Bytes concat(const Bytes &head, const Bytes &tail)
{
    Bytes out = head;
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

// ---- JPEG forms beyond the test writer: CMYK and arithmetic coding ----

struct ErrJump {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

extern "C" void seed_error_exit(j_common_ptr cinfo)
{
    longjmp(reinterpret_cast<ErrJump *>(cinfo->err)->jump, 1);
}

// Writes to a stdio stream; the frame holds the jump target, so nothing in
// it has a destructor.
bool encode_special(FILE *f, int width, int height, int components,
                    const unsigned char *pixels, bool arithmetic, bool ycck)
{
    jpeg_compress_struct cinfo;
    ErrJump err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = seed_error_exit;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = components;
    cinfo.in_color_space = components == 4 ? JCS_CMYK : components == 3 ? JCS_RGB : JCS_GRAYSCALE;
    jpeg_set_defaults(&cinfo);
    if (ycck)
        jpeg_set_colorspace(&cinfo, JCS_YCCK);
    jpeg_set_quality(&cinfo, 80, TRUE);
    cinfo.arith_code = arithmetic ? TRUE : FALSE;
    jpeg_start_compress(&cinfo, TRUE);
    const size_t stride = size_t(width) * size_t(components);
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels + stride * cinfo.next_scanline);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

Bytes special_jpeg(int width, int height, int components, bool arithmetic, bool ycck)
{
    std::vector<unsigned char> pixels(size_t(width) * height * components);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < components; ++c)
                pixels[(size_t(y) * width + x) * components + c] =
                    static_cast<unsigned char>((x * 7 + y * 3 + c * 60) & 0xFF);
    char *mem = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&mem, &len);
    if (!f)
        return {};
    const bool ok = encode_special(f, width, height, components, pixels.data(), arithmetic, ycck);
    std::fclose(f);
    Bytes out;
    if (ok)
        out.assign(mem, mem + len);
    std::free(mem);
    return out;
}

// ---- PNG ----

struct PngPicture {
    int width, height, color_type, bit_depth;
    bool interlace = false, trns = false, gamma = false;
};

// Frame of the libpng calls: plain data only, for libpng's longjmp.
bool encode_png(FILE *f, const PngPicture &s, png_bytepp rows)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (!png)
        return false;
    png_infop info = png_create_info_struct(png);
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, png_uint_32(s.width), png_uint_32(s.height), s.bit_depth,
                 s.color_type, s.interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_color palette[16];
    png_byte alpha[16];
    if (s.color_type == PNG_COLOR_TYPE_PALETTE) {
        for (int i = 0; i < 16; ++i) {
            palette[i] = {png_byte(i * 16), png_byte(255 - i * 16), png_byte(i * 8)};
            alpha[i] = png_byte(i * 17);
        }
        png_set_PLTE(png, info, palette, 1 << (s.bit_depth < 4 ? s.bit_depth : 4));
        if (s.trns)
            png_set_tRNS(png, info, alpha, 1 << (s.bit_depth < 4 ? s.bit_depth : 4), nullptr);
    } else if (s.trns) {
        png_color_16 key{};
        key.red = key.green = key.blue = key.gray = 3;
        png_set_tRNS(png, info, nullptr, 0, &key);
    }
    if (s.gamma)
        png_set_gAMA(png, info, 1.0 / 2.2);
    png_write_info(png, info);
    png_write_image(png, rows);
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

Bytes make_png(const PngPicture &s)
{
    const int channels = s.color_type == PNG_COLOR_TYPE_RGB         ? 3
                         : s.color_type == PNG_COLOR_TYPE_RGB_ALPHA  ? 4
                         : s.color_type == PNG_COLOR_TYPE_GRAY_ALPHA ? 2
                                                                     : 1;
    const size_t row_bytes = (size_t(s.width) * channels * s.bit_depth + 7) / 8;
    std::vector<png_byte> pixels(row_bytes * s.height);
    for (int y = 0; y < s.height; ++y)
        for (size_t i = 0; i < row_bytes; ++i)
            pixels[y * row_bytes + i] = png_byte((i * 13 + y * 29) & 0xFF);
    std::vector<png_bytep> rows(s.height);
    for (int y = 0; y < s.height; ++y)
        rows[y] = &pixels[y * row_bytes];
    char *mem = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&mem, &len);
    if (!f)
        return {};
    const bool ok = encode_png(f, s, rows.data());
    std::fclose(f);
    Bytes out;
    if (ok)
        out.assign(mem, mem + len);
    std::free(mem);
    return out;
}

// ---- Exif ----

ExifField rational(uint16_t tag, uint32_t n, uint32_t d)
{
    return {tag, qbtest::kTiffRational, {n, d}};
}
ExifField long_field(uint16_t tag, uint32_t v) { return {tag, qbtest::kTiffLong, {v}}; }

// A full set of what the metadata reader looks at.
ExifBlock rich_exif(bool big_endian, uint16_t orientation)
{
    ExifBlock b;
    b.big_endian = big_endian;
    b.ifd0 = {qbtest::exif_short(0x0112, {orientation}),
              qbtest::exif_ascii(0x010F, "Qbcam"), qbtest::exif_ascii(0x0110, "QB-1"),
              qbtest::exif_ascii(0x010E, "A seed photo")};
    b.exif = {rational(0x829A, 1, 250),
              rational(0x829D, 28, 10),
              qbtest::exif_short(0x8827, {400}),
              qbtest::exif_short(0x9209, {1}),
              qbtest::exif_short(0x8822, {2}),
              qbtest::exif_short(0x9207, {5}),
              qbtest::exif_short(0xA403, {0}),
              rational(0x9202, 297, 100),
              rational(0x9201, 7966, 1000),
              rational(0x920A, 50, 1),
              qbtest::exif_ascii(0x9003, "2021:06:15 14:30:45"),
              qbtest::exif_ascii(0x9291, "12"),
              qbtest::exif_short(0xA002, {64}),
              long_field(0xA003, 48)};
    b.gps = {qbtest::exif_ascii(0x0001, "N"), {0x0002, qbtest::kTiffRational, {52, 1, 30, 1, 1234, 100}},
             qbtest::exif_ascii(0x0003, "W"), {0x0004, qbtest::kTiffRational, {4, 1, 2955, 100, 0, 0}},
             rational(0x0006, 12345, 10)};
    return b;
}

// Sizes in ImageWidth/ImageLength of the Exif IFD, digitised date, no GPS.
ExifBlock odd_exif()
{
    ExifBlock b;
    b.ifd0 = {qbtest::exif_short(0x0112, {3})};
    b.exif = {long_field(0x0100, 64), qbtest::exif_short(0x0101, {48}),
              qbtest::exif_ascii(0x9004, "2020:01:02 03:04:05"),
              qbtest::exif_ascii(0x9292, "5"), rational(0x9201, 0xFFFFF000u, 1000)};
    return b;
}

Bytes be32(uint32_t a, uint32_t b)
{
    return {uint8_t(a >> 24), uint8_t(a >> 16), uint8_t(a >> 8), uint8_t(a),
            uint8_t(b >> 24), uint8_t(b >> 16), uint8_t(b >> 8), uint8_t(b)};
}

// ---- parameter headers ----

// The 16 bytes in front of a scale input (see fuzz_scale.cpp).
Bytes scale_header(uint8_t mode, uint16_t w, uint16_t h, uint8_t aspect, uint8_t quality,
                   uint8_t xforms, uint8_t flags, uint8_t position, uint8_t opacity,
                   uint8_t mode2, uint16_t w2, uint16_t h2)
{
    return {mode,    uint8_t(w >> 8),  uint8_t(w),      uint8_t(h >> 8),
            uint8_t(h), aspect,        uint8_t(quality + 28), xforms,
            flags,   position,         opacity,         mode2,
            uint8_t(w2 >> 8), uint8_t(w2), uint8_t(h2 >> 8), uint8_t(h2)};
}

// The 12 bytes in front of a transform input (see fuzz_transform.cpp).
Bytes transform_header(uint8_t xform, bool crop, int16_t x, int16_t y, int16_t w, int16_t h,
                       uint8_t quality)
{
    auto s = [](int16_t v) { return std::pair<uint8_t, uint8_t>(uint8_t(uint16_t(v) >> 8), uint8_t(v)); };
    Bytes out = {xform, uint8_t(crop ? 1 : 0)};
    for (int16_t v : {x, y, w, h}) {
        out.push_back(s(v).first);
        out.push_back(s(v).second);
    }
    out.push_back(uint8_t(quality + 28));
    out.push_back(0);
    return out;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds <folder>\n");
        return 2;
    }
    g_root = argv[1];

    // ---- JPEG files ----
    struct NamedJpeg {
        std::string name;
        Bytes data;
    };
    std::vector<NamedJpeg> jpegs;
    auto add = [&](const std::string &name, const Picture &pic, const JpegOptions &opt) {
        jpegs.push_back({name, qbtest::encode_jpeg(pic, opt)});
    };
    const Picture rgb = qbtest::make_picture(64, 48, 3);
    add("rgb_64x48.jpg", rgb, {});
    {
        JpegOptions o;
        o.h_samp = o.v_samp = 1;
        o.progressive = true;
        add("rgb_33x17_444_progressive.jpg", qbtest::make_picture(33, 17, 3), o);
    }
    {
        JpegOptions o;
        o.h_samp = 2;
        o.v_samp = 1;
        o.restart_interval = 1;
        add("rgb_40x24_422_restart.jpg", qbtest::make_picture(40, 24, 3), o);
    }
    {
        JpegOptions o;
        o.h_samp = 4;
        o.v_samp = 1;
        o.write_jfif = false;
        add("rgb_70x20_411.jpg", qbtest::make_picture(70, 20, 3), o);
    }
    add("grey_24x40.jpg", qbtest::make_picture(24, 40, 1), {});
    add("rgb_1x1.jpg", qbtest::make_picture(1, 1, 3), {});
    add("rgb_200x8.jpg", qbtest::make_picture(200, 8, 3), {});
    {
        JpegOptions o;
        o.quality = 30;
        add("rgb_640x480.jpg", qbtest::make_picture(640, 480, 3), o);
        o.quality = 20;
        add("rgb_2400x1600.jpg", qbtest::make_picture(2400, 1600, 3), o);
    }
    {
        JpegOptions o;
        o.markers = {{JPEG_APP0 + 2, qbtest::icc_app2_payload("ADBE")}};
        add("rgb_64x48_adobe_rgb.jpg", rgb, o);
    }
    {
        JpegOptions o;
        o.markers = {{JPEG_APP0 + 1, qbtest::build_exif(rich_exif(false, 6))}};
        add("rgb_64x48_exif_le.jpg", rgb, o);
    }
    {
        JpegOptions o;
        o.markers = {{JPEG_APP0 + 1, qbtest::build_exif(rich_exif(true, 8))},
                     {JPEG_COM, {'s', 'e', 'e', 'd'}}};
        o.progressive = true;
        add("rgb_48x64_exif_be.jpg", qbtest::make_picture(48, 64, 3), o);
    }
    {
        JpegOptions o;
        o.markers = {{JPEG_APP0 + 1, qbtest::build_exif(odd_exif())}};
        o.jpeg_color_space = JCS_RGB;
        add("rgb_64x48_exif_sizes.jpg", rgb, o);
    }
    jpegs.push_back({"cmyk_32x24.jpg", special_jpeg(32, 24, 4, false, false)});
    jpegs.push_back({"ycck_24x16.jpg", special_jpeg(24, 16, 4, false, true)});
    jpegs.push_back({"rgb_48x32_arithmetic.jpg", special_jpeg(48, 32, 3, true, false)});
    jpegs.push_back({"grey_17x9_arithmetic.jpg", special_jpeg(17, 9, 1, true, false)});

    for (const NamedJpeg &j : jpegs) {
        seed("thumb_jpeg", j.name, j.data);
        seed("metadata_jpeg", j.name, j.data);
    }
    auto jpeg_named = [&](const std::string &name) -> const Bytes & {
        for (const NamedJpeg &j : jpegs)
            if (j.name == name)
                return j.data;
        std::fprintf(stderr, "make_seeds: no JPEG %s\n", name.c_str());
        ++g_failures;
        return jpegs.front().data;
    };

    // ---- scale: a request per row, each on a few photos ----
    struct ScaleRow {
        const char *name;
        Bytes header;
        std::vector<const char *> photos;
    };
    const ScaleRow scale_rows[] = {
        {"thumb", scale_header(5, 128, 128, 0, 85, 0x00, 0x00, 0, 0, 0, 0, 0),
         {"rgb_64x48.jpg", "rgb_640x480.jpg", "grey_24x40.jpg", "rgb_64x48_adobe_rgb.jpg"}},
        {"fit_turned_stamp", scale_header(4, 64, 64, 0, 85, 0x05, 0xC2, 0, 0, 0, 0, 0),
         {"rgb_640x480.jpg", "rgb_33x17_444_progressive.jpg"}},
        {"centre_overlay_two", scale_header(6, 100, 50, 0, 70, 0x06 | 0x30, 0x58, 4, 0, 0, 32, 0),
         {"rgb_640x480.jpg", "rgb_64x48.jpg"}},
        {"corner_rows", scale_header(2, 30, 30, 0, 90, 0x07 | 0x50, 0x31, 0, 0, 6, 20, 20),
         {"rgb_64x48.jpg", "cmyk_32x24.jpg"}},
        {"height", scale_header(1, 0, 200, 0, 85, 0x03, 0x80, 0, 0, 0, 0, 0),
         {"rgb_200x8.jpg", "grey_17x9_arithmetic.jpg"}},
        {"pad_up", scale_header(3, 300, 300, 2, 85, 0x01, 0x48, 8, 3, 0, 0, 0),
         {"rgb_64x48.jpg", "rgb_70x20_411.jpg"}},
        {"dct_eighth", scale_header(0, 80, 0, 0, 85, 0x02, 0x50, 0, 0, 4, 160, 160),
         {"rgb_640x480.jpg", "rgb_2400x1600.jpg"}},
    };
    for (const ScaleRow &row : scale_rows)
        for (const char *photo : row.photos)
            seed("scale", std::string(row.name) + "_" + photo, concat(row.header, jpeg_named(photo)));

    // ---- transform: every code on a photo that fills its iMCU grid and on
    // one that does not, and some crops ----
    for (uint8_t code = 0; code < 8; ++code) {
        const std::string c = std::to_string(code);
        seed("transform", "code" + c + "_rgb_64x48.jpg",
             concat(transform_header(code, false, 0, 0, 0, 0, 85), jpeg_named("rgb_64x48_exif_le.jpg")));
        seed("transform", "code" + c + "_rgb_33x17.jpg",
             concat(transform_header(code, false, 0, 0, 0, 0, 85),
                    jpeg_named("rgb_33x17_444_progressive.jpg")));
        seed("transform", "code" + c + "_crop_rgb_64x48.jpg",
             concat(transform_header(code, true, 9, 17, 30, 20, 85), jpeg_named("rgb_64x48.jpg")));
    }
    seed("transform", "code5_grey.jpg",
         concat(transform_header(5, true, 8, 8, 8, 16, 60), jpeg_named("grey_24x40.jpg")));
    seed("transform", "code4_cmyk.jpg",
         concat(transform_header(4, false, 0, 0, 0, 0, 60), jpeg_named("cmyk_32x24.jpg")));
    seed("transform", "code7_422_restart.jpg",
         concat(transform_header(7, true, 0, 0, 39, 23, 60), jpeg_named("rgb_40x24_422_restart.jpg")));
    seed("transform", "code1_arithmetic.jpg",
         concat(transform_header(1, false, 0, 0, 0, 0, 60), jpeg_named("rgb_48x32_arithmetic.jpg")));
    seed("transform", "code3_crop_411.jpg",
         concat(transform_header(3, true, 3, 33, 17, 30, 60), jpeg_named("rgb_70x20_411.jpg")));

    // ---- the Exif size patch: TIFF structures with size tags ----
    for (bool big : {false, true}) {
        const std::string order = big ? "be" : "le";
        ExifBlock b = rich_exif(big, 1);
        seed("exif_patch", "rich_" + order, concat(be32(1000, 750), qbtest::build_tiff(b)));
        b.exif = {qbtest::exif_short(0xA003, {48}), long_field(0xA002, 64)};
        seed("exif_patch", "sizes_" + order, concat(be32(48, 64), qbtest::build_tiff(b)));
        b.exif = {qbtest::exif_short(0xA002, {64})};
        seed("exif_patch", "one_entry_" + order, concat(be32(7, 9), qbtest::build_tiff(b)));
    }

    // ---- DNG files ----
    struct NamedDng {
        const char *name;
        qbtest::DngOptions opt;
    };
    using qbtest::DngPreview;
    const NamedDng dngs[] = {
        {"jpeg_preview.dng", {}},
        {"turned_6.dng", {DngPreview::jpeg, 60, 40, 6, true, false}},
        {"turned_8_bitmap.dng", {DngPreview::bitmap, 30, 20, 8, true, false}},
        {"turned_3_sensor_only.dng", {DngPreview::none, 60, 40, 3, true, false}},
        {"one_colour.dng", {DngPreview::none, 60, 40, 1, false, false}},
        {"damaged_preview.dng", {DngPreview::jpeg, 60, 40, 1, true, true}},
    };
    const fs::path scratch = g_root / "scratch.dng";
    for (const NamedDng &d : dngs) {
        if (!qbtest::write_dng(scratch.string(), d.opt)) {
            std::fprintf(stderr, "make_seeds: write_dng %s failed\n", d.name);
            ++g_failures;
            continue;
        }
        const Bytes data = qbtest::read_file(scratch.string());
        seed("thumb_dng", d.name, data);
        seed("metadata_raw", d.name, data);
    }
    fs::remove(scratch);

    // ---- PNG files ----
    struct NamedPng {
        const char *name;
        PngPicture pic;
    };
    const NamedPng pngs[] = {
        {"rgb8_32x24.png", {32, 24, PNG_COLOR_TYPE_RGB, 8}},
        {"rgba8_32x24.png", {32, 24, PNG_COLOR_TYPE_RGB_ALPHA, 8}},
        {"grey8_16x16_trns.png", {16, 16, PNG_COLOR_TYPE_GRAY, 8, false, true}},
        {"greyalpha8_20x10.png", {20, 10, PNG_COLOR_TYPE_GRAY_ALPHA, 8}},
        {"grey16_12x12_gamma.png", {12, 12, PNG_COLOR_TYPE_GRAY, 16, false, false, true}},
        {"rgb16_10x14_trns.png", {10, 14, PNG_COLOR_TYPE_RGB, 16, false, true}},
        {"rgba16_9x9.png", {9, 9, PNG_COLOR_TYPE_RGB_ALPHA, 16}},
        {"palette4_24x24_trns.png", {24, 24, PNG_COLOR_TYPE_PALETTE, 4, false, true}},
        {"palette1_30x3.png", {30, 3, PNG_COLOR_TYPE_PALETTE, 1}},
        {"grey1_17x5.png", {17, 5, PNG_COLOR_TYPE_GRAY, 1}},
        {"rgba8_33x21_interlaced.png", {33, 21, PNG_COLOR_TYPE_RGB_ALPHA, 8, true}},
        {"rgb8_1x1.png", {1, 1, PNG_COLOR_TYPE_RGB, 8}},
        {"rgb8_300x200.png", {300, 200, PNG_COLOR_TYPE_RGB, 8}},
    };
    for (const NamedPng &p : pngs) {
        const Bytes data = make_png(p.pic);
        seed("thumb_png", p.name, data);
        seed("png_read", p.name, data);
    }

    // ---- framed: a frame, a box in it and a photo ----
    struct FramedRow {
        const char *name;
        PngPicture frame;
        uint16_t x, y, width, height;
        const char *photo;
    };
    const FramedRow framed_rows[] = {
        {"rgba_frame_rgb_photo", {64, 48, PNG_COLOR_TYPE_RGB_ALPHA, 8}, 8, 6, 48, 36, "rgb_64x48.jpg"},
        {"rgb_frame_grey_photo", {40, 40, PNG_COLOR_TYPE_RGB, 8}, 0, 0, 40, 40, "grey_24x40.jpg"},
        {"palette_frame_small_box", {32, 32, PNG_COLOR_TYPE_PALETTE, 4, false, true}, 30, 30, 2, 2,
         "rgb_640x480.jpg"},
        {"grey16_frame_wide_photo", {30, 20, PNG_COLOR_TYPE_GRAY, 16, false, false, true}, 5, 2, 20, 6,
         "rgb_200x8.jpg"},
        {"interlaced_frame_cmyk_photo", {33, 21, PNG_COLOR_TYPE_RGB_ALPHA, 8, true}, 1, 1, 31, 19,
         "cmyk_32x24.jpg"},
        {"frame_adobe_photo", {20, 20, PNG_COLOR_TYPE_GRAY_ALPHA, 8}, 2, 3, 16, 12,
         "rgb_64x48_adobe_rgb.jpg"},
    };
    for (const FramedRow &row : framed_rows) {
        const Bytes frame = make_png(row.frame);
        const auto length = uint32_t(frame.size());
        const Bytes header = {uint8_t(row.x >> 8), uint8_t(row.x), uint8_t(row.y >> 8), uint8_t(row.y),
                              uint8_t(row.width >> 8), uint8_t(row.width), uint8_t(row.height >> 8),
                              uint8_t(row.height), uint8_t(length >> 24), uint8_t(length >> 16),
                              uint8_t(length >> 8), uint8_t(length)};
        seed("framed", row.name, concat(concat(header, frame), jpeg_named(row.photo)));
    }

    return g_failures == 0 ? 0 : 1;
}
