// PNG files: the row store, the reader over every colour type and
// depth, its blend and layouts, the writer, and the PNG thumbnail route.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "png/png.h"
#include "png_writer.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// One row of pixels; the samples as the file stores them.
PngSpec png(int type, int depth, int width, std::vector<uint16_t> samples)
{
    PngSpec s;
    s.color_type = type;
    s.bit_depth = depth;
    s.width = width;
    s.height = 1;
    s.samples = std::move(samples);
    return s;
}

struct Read {
    int width = 0, height = 0;
    std::vector<uint8_t> bytes;  // bpp x width x height
    bool ok = false;
};

// _read_png_to_rgba on `path`, its rows flattened at `bpp` bytes a pixel.
Read read_with(const std::string &path, const uint8_t *background)
{
    png_uint_32 w = 0, h = 0;
    image_png_rows rows = _read_png_to_rgba(path.c_str(), &w, &h, background);
    Read r;
    if (!rows)
        return r;
    const size_t bpp = background ? 3 : 4;
    r.ok = true;
    r.width = int(w);
    r.height = int(h);
    for (png_uint_32 y = 0; y < h; ++y)
        r.bytes.insert(r.bytes.end(), rows[y], rows[y] + w * bpp);
    image_png_rows_free(rows, h);
    return r;
}

std::array<uint8_t, 3> rgb_of(uint32_t colour)
{
    return {uint8_t(colour >> 16), uint8_t(colour >> 8), uint8_t(colour)};
}

// What the reader must give with no background: 8-bit RGBA, computed from
// the spec alone (libpng's strip takes the high byte; low depths scale to
// 0..255; tRNS matches the stored values).
std::vector<uint8_t> expected_rgba(const PngSpec &s)
{
    const int n = png_channels(s.color_type);
    const unsigned maxv = (1u << s.bit_depth) - 1;
    auto to8 = [&](unsigned v) {
        return uint8_t(s.bit_depth == 16 ? v >> 8 : s.bit_depth == 8 ? v : v * 255 / maxv);
    };
    std::vector<uint8_t> out;
    for (size_t p = 0; p < size_t(s.width) * s.height; ++p) {
        const uint16_t *v = &s.samples[p * n];
        uint8_t r, g, b, a = 255;
        switch (s.color_type) {
        case 3:
            r = s.palette[v[0]].r, g = s.palette[v[0]].g, b = s.palette[v[0]].b;
            if (v[0] < s.trns_alpha.size())
                a = s.trns_alpha[v[0]];
            break;
        case 0:
        case 4:
            r = g = b = to8(v[0]);
            if (s.color_type == 4)
                a = to8(v[1]);
            else if (s.trns_colour && v[0] == s.trns_grey)
                a = 0;
            break;
        default:
            r = to8(v[0]), g = to8(v[1]), b = to8(v[2]);
            if (s.color_type == 6)
                a = to8(v[3]);
            else if (s.trns_colour && v[0] == s.trns_r && v[1] == s.trns_g && v[2] == s.trns_b)
                a = 0;
        }
        out.insert(out.end(), {r, g, b, a});
    }
    return out;
}

// ... and with a background: RGB, blended only if the file is transparent.
std::vector<uint8_t> expected_rgb(const PngSpec &s, const uint8_t *bg)
{
    const bool transparent = (s.color_type & 4) || s.trns_colour || !s.trns_alpha.empty();
    const std::vector<uint8_t> rgba = expected_rgba(s);
    std::vector<uint8_t> out;
    for (size_t i = 0; i < rgba.size(); i += 4)
        for (int c = 0; c < 3; ++c)
            out.push_back(transparent ? image_png_blend(rgba[i + c], bg[c], rgba[i + 3]) : rgba[i + c]);
    return out;
}

std::vector<std::string> g_log;  // test-only capture; the library keeps no state

void capture(int32_t level, void *, int32_t code, const char *file, int32_t line, const char *format, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    g_log.push_back(std::to_string(level) + " " + std::to_string(code) + " " + file + ":" +
                    std::to_string(line) + " " + buf);
}

size_t open_files()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

// A picture that shows where it is: every pixel different.
PngSpec rgba_pattern(int width, int height)
{
    PngSpec s;
    s.width = width;
    s.height = height;
    s.color_type = 6;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            s.samples.insert(s.samples.end(), {uint16_t(x * 9 % 256), uint16_t(y * 7 % 256),
                                               uint16_t((x + y) % 256), uint16_t(255 - x % 256)});
    return s;
}

}  // namespace

TEST(PngRows, AllocAndFree)
{
    image_png_rows rows = image_png_rows_alloc(5, 3, 4);
    ASSERT_NE(rows, nullptr);
    for (int y = 0; y < 3; ++y)
        std::memset(rows[y], 0xAB, 20);  // each row exactly width x bpp (ASan checks)
    image_png_rows_free(rows, 3);
    image_png_rows_free(nullptr, 3);
    EXPECT_EQ(image_png_rows_alloc(0x40000000u, 1, 4), nullptr) << "width x bpp over 32 bits";
    EXPECT_EQ(image_png_rows_alloc(0xFFFFFFFFu, 2, 2), nullptr);
}

TEST(PngBlend, Formula)
{
    const struct { uint8_t s, bg, a, want; } cases[] = {
        {255, 255, 255, 254}, {255, 0, 128, 127}, {0, 255, 0, 254}, {128, 0, 255, 127},
        {0, 0, 0, 0},         {10, 200, 100, 125},
    };
    for (const auto &c : cases)
        EXPECT_EQ(image_png_blend(c.s, c.bg, c.a), c.want) << int(c.s) << " " << int(c.bg) << " " << int(c.a);
}

// The Part's values, one row each; -1 stands for a null background.
TEST(PngRead, BlendsAndLayouts)
{
    PngSpec palette_trns = png(3, 2, 3, {0, 1, 2});
    palette_trns.palette = {{255, 0, 0}, {0, 0, 255}, {10, 200, 30}};
    palette_trns.trns_alpha = {0, 255};
    PngSpec palette = palette_trns;
    palette.trns_alpha.clear();
    PngSpec grey_trns = png(0, 8, 2, {50, 200});
    grey_trns.trns_colour = true;
    grey_trns.trns_grey = 50;
    PngSpec rgb_trns = png(2, 8, 2, {10, 20, 30, 40, 50, 60});
    rgb_trns.trns_colour = true;
    rgb_trns.trns_r = 10, rgb_trns.trns_g = 20, rgb_trns.trns_b = 30;
    PngSpec gamma_none = png(2, 8, 2, {128, 64, 200, 0, 255, 1});
    PngSpec gamma_inverse = gamma_none;
    gamma_inverse.gamma = 0.45455;
    PngSpec gamma_linear = png(6, 8, 2, {128, 0, 255, 128, 64, 64, 64, 255});
    gamma_linear.gamma = 1.0;

    const struct {
        const char *name;
        PngSpec spec;
        int64_t bg;
        std::vector<uint8_t> want;
        int tolerance;
    } cases[] = {
        {"RGB is not blended", png(2, 8, 2, {255, 255, 255, 10, 20, 30}), 0x000000,
         {255, 255, 255, 10, 20, 30}, 0},
        {"RGB to RGBA, alpha 255", png(2, 8, 2, {255, 255, 255, 10, 20, 30}), -1,
         {255, 255, 255, 255, 10, 20, 30, 255}, 0},
        {"opaque and clear white over white", png(6, 8, 2, {255, 255, 255, 255, 255, 255, 255, 0}),
         0xFFFFFF, {254, 254, 254, 254, 254, 254}, 0},
        {"alpha 128 over black", png(6, 8, 1, {255, 255, 255, 128}), 0x000000, {127, 127, 127}, 0},
        {"red under clear pixels", png(6, 8, 1, {0, 255, 0, 0}), 0xFF0000, {254, 0, 0}, 0},
        {"bits above 23 are not the background's", png(6, 8, 1, {0, 255, 0, 0}), 0x7F0000FF,
         {0, 0, 254}, 0},
        {"RGBA as read", png(6, 8, 2, {1, 2, 3, 4, 250, 251, 252, 253}), -1,
         {1, 2, 3, 4, 250, 251, 252, 253}, 0},
        {"palette with tRNS over white", palette_trns, 0xFFFFFF, {254, 254, 254, 0, 0, 254, 9, 199, 29}, 0},
        {"palette with tRNS as RGBA", palette_trns, -1, {255, 0, 0, 0, 0, 0, 255, 255, 10, 200, 30, 255}, 0},
        {"palette, opaque", palette, 0x000000, {255, 0, 0, 0, 0, 255, 10, 200, 30}, 0},
        {"grey 1-bit", png(0, 1, 2, {0, 1}), 0x123456, {0, 0, 0, 255, 255, 255}, 0},
        {"grey 1-bit as RGBA", png(0, 1, 2, {1, 0}), -1, {255, 255, 255, 255, 0, 0, 0, 255}, 0},
        {"grey 2-bit", png(0, 2, 2, {1, 2}), 0, {85, 85, 85, 170, 170, 170}, 0},
        {"grey 4-bit", png(0, 4, 2, {3, 15}), 0, {51, 51, 51, 255, 255, 255}, 0},
        {"grey with tRNS over black", grey_trns, 0x000000, {0, 0, 0, 199, 199, 199}, 0},
        {"grey with tRNS as RGBA", grey_trns, -1, {50, 50, 50, 0, 200, 200, 200, 255}, 0},
        {"grey 16-bit keeps the high byte", png(0, 16, 2, {0xABCD, 0x00FF}), 0, {0xAB, 0xAB, 0xAB, 0, 0, 0}, 0},
        {"grey+alpha over black", png(4, 8, 1, {100, 128}), 0, {50, 50, 50}, 0},
        {"grey+alpha as RGBA", png(4, 8, 1, {100, 128}), -1, {100, 100, 100, 128}, 0},
        {"grey+alpha 16-bit", png(4, 16, 1, {0xFFFF, 0x8000}), 0, {127, 127, 127}, 0},
        {"RGB 16-bit", png(2, 16, 1, {0x1234, 0x5678, 0x9ABC}), 0, {0x12, 0x56, 0x9A}, 0},
        {"RGB 16-bit as RGBA", png(2, 16, 1, {0x1234, 0x5678, 0x9ABC}), -1, {0x12, 0x56, 0x9A, 255}, 0},
        {"RGBA 16-bit, clear over green", png(6, 16, 1, {0xFF00, 0, 0, 0}), 0x00FF00, {0, 254, 0}, 0},
        {"RGB with tRNS colour", rgb_trns, -1, {10, 20, 30, 0, 40, 50, 60, 255}, 0},
        {"RGB with tRNS colour over white", rgb_trns, 0xFFFFFF, {254, 254, 254, 39, 49, 59}, 0},
        {"no gAMA: no correction", gamma_none, 0, {128, 64, 200, 0, 255, 1}, 0},
        {"gAMA 0.45455: close to none", gamma_inverse, 0, {128, 64, 200, 0, 255, 1}, 0},
        // 255 x (c/255)^(1/2.2): 128 -> 186, 64 -> 137; alpha stays.
        {"gAMA 1.0 is brightened", gamma_linear, -1, {186, 0, 255, 128, 137, 137, 137, 255}, 1},
    };
    TempDir tmp;
    for (const auto &c : cases) {
        const std::string path = tmp.path("in.png");
        ASSERT_TRUE(write_png(path, c.spec)) << c.name;
        const std::array<uint8_t, 3> bg = rgb_of(uint32_t(c.bg));
        const Read r = read_with(path, c.bg < 0 ? nullptr : bg.data());
        ASSERT_TRUE(r.ok) << c.name;
        EXPECT_EQ(r.width, c.spec.width) << c.name;
        EXPECT_EQ(r.height, c.spec.height) << c.name;
        ASSERT_EQ(r.bytes.size(), c.want.size()) << c.name;
        for (size_t i = 0; i < c.want.size(); ++i)
            EXPECT_NEAR(r.bytes[i], c.want[i], c.tolerance) << c.name << " byte " << i;
    }
}

// Every colour type at every depth, with and without tRNS, plain and
// interlaced, in both layouts, against values computed from the spec.
TEST(PngRead, EveryColourTypeAndDepth)
{
    const struct { int type; std::vector<int> depths; } kinds[] = {
        {0, {1, 2, 4, 8, 16}}, {2, {8, 16}}, {3, {1, 2, 4, 8}}, {4, {8, 16}}, {6, {8, 16}},
    };
    const uint8_t bg[3] = {30, 160, 250};
    TempDir tmp;
    for (const auto &k : kinds)
        for (int depth : k.depths)
            for (int variant = 0; variant < 4; ++variant) {
                const bool trns = variant & 1, interlace = variant & 2;
                if (trns && (k.type & 4))
                    continue;  // no tRNS with an alpha channel
                PngSpec s;
                s.width = 11, s.height = 7;  // odd sizes: partial bytes, all Adam7 passes
                s.color_type = k.type, s.bit_depth = depth, s.interlace = interlace;
                const int n = png_channels(k.type);
                const unsigned range = k.type == 3 ? std::min(1u << depth, 256u) : 1u << depth;
                for (int y = 0; y < s.height; ++y)
                    for (int x = 0; x < s.width; ++x)
                        for (int c = 0; c < n; ++c)
                            s.samples.push_back(uint16_t(unsigned(x * 37 + y * 91 + c * 53) * 997 % range));
                if (k.type == 3) {
                    for (unsigned i = 0; i < range; ++i)
                        s.palette.push_back({uint8_t(i * 7), uint8_t(255 - i * 3), uint8_t(i * 13)});
                    if (trns) {
                        s.trns_alpha = {0, 128, 255, 64};
                        s.trns_alpha.resize(std::min<size_t>(4, range));  // at most one per entry
                    }
                } else if (trns) {
                    const uint16_t *hit = &s.samples[size_t(1 * s.width + 1) * n];  // pixel (1, 1)
                    s.trns_colour = true;
                    s.trns_grey = s.trns_r = hit[0];
                    if (n >= 3)
                        s.trns_g = hit[1], s.trns_b = hit[2];
                }
                const std::string name = "type " + std::to_string(k.type) + " depth " +
                                         std::to_string(depth) + (trns ? " tRNS" : "") +
                                         (interlace ? " interlaced" : "");
                const std::string path = tmp.path("sweep.png");
                ASSERT_TRUE(write_png(path, s)) << name;
                const Read rgba = read_with(path, nullptr);
                ASSERT_TRUE(rgba.ok) << name;
                EXPECT_EQ(rgba.bytes, expected_rgba(s)) << name;
                const Read rgb = read_with(path, bg);
                ASSERT_TRUE(rgb.ok) << name;
                EXPECT_EQ(rgb.bytes, expected_rgb(s, bg)) << name;
            }
}

// Files libpng refuses, before the rows exist or while reading them: null,
// nothing left allocated (ASan), nothing printed, no file left open.
TEST(PngRead, RefusedFiles)
{
    TempDir tmp;
    const std::vector<uint8_t> good = encode_png(rgba_pattern(64, 64));
    ASSERT_FALSE(good.empty());
    const size_t ihdr = png_chunk_offset(good, "IHDR"), idat = png_chunk_offset(good, "IDAT");
    ASSERT_TRUE(ihdr && idat);
    const size_t idat_len = size_t(good[idat]) << 24 | size_t(good[idat + 1]) << 16 |
                            size_t(good[idat + 2]) << 8 | good[idat + 3];
    std::vector<uint8_t> bad_ihdr_crc = good, bad_idat_crc = good;
    bad_ihdr_crc[ihdr + 8 + 13] ^= 0x01;  // first byte of the CRC behind the data
    bad_idat_crc[idat + 8 + idat_len + 3] ^= 0x80;
    const std::vector<uint8_t> truncated(good.begin(), good.begin() + long(idat + 8 + idat_len / 2));
    const std::vector<uint8_t> signature_only(good.begin(), good.begin() + 8);
    // IHDR claiming 100000 x 100000 pixels, with a correct CRC: beyond the
    // bound of common/limits.h, refused before any row is allocated.
    std::vector<uint8_t> bomb = good;
    png_fix_crc(bomb, ihdr);
    ASSERT_EQ(bomb, good) << "the CRC helper agrees with libpng";
    for (size_t i : {ihdr + 8, ihdr + 12}) {
        bomb[i] = 0, bomb[i + 1] = 0x01, bomb[i + 2] = 0x86, bomb[i + 3] = 0xA0;
    }
    png_fix_crc(bomb, ihdr);

    const struct { const char *name; std::vector<uint8_t> bytes; } cases[] = {
        {"not a PNG", std::vector<uint8_t>(300, 'x')},
        {"empty", {}},
        {"signature only", signature_only},
        {"bad CRC in IHDR", bad_ihdr_crc},
        {"bad CRC in IDAT (after the rows exist)", bad_idat_crc},
        {"truncated in IDAT (after the rows exist)", truncated},
        {"size bomb", bomb},
    };
    const uint8_t white[3] = {255, 255, 255};
    const size_t fds = open_files();
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        ASSERT_TRUE(write_file(tmp.path("bad.png"), c.bytes));
        EXPECT_FALSE(read_with(tmp.path("bad.png"), nullptr).ok) << c.name;
        EXPECT_FALSE(read_with(tmp.path("bad.png"), white).ok) << c.name;
    }
    EXPECT_FALSE(read_with(tmp.path("missing.png"), white).ok);
    ASSERT_EQ(mkfifo(tmp.path("fifo.png").c_str(), 0600), 0);
    EXPECT_FALSE(read_with(tmp.path("fifo.png"), white).ok) << "a FIFO is refused, not waited on";
    EXPECT_FALSE(read_with(tmp.dir(), white).ok) << "a directory";
    png_uint_32 w, h;
    EXPECT_EQ(_read_png_to_rgba(nullptr, &w, &h, nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "libpng's messages are not printed";
    EXPECT_EQ(open_files(), fds);
    ASSERT_TRUE(write_file(tmp.path("good.png"), good));
    EXPECT_TRUE(read_with(tmp.path("good.png"), nullptr).ok) << "the damage alone made them fail";
}

TEST(PngWrite, RgbaRoundTripWithOnlyTheCriticalChunks)
{
    TempDir tmp;
    const int w = 13, h = 5;
    image_png_rows rows = image_png_rows_alloc(w, h, 4);
    ASSERT_NE(rows, nullptr);
    for (int y = 0; y < h; ++y)
        for (int i = 0; i < w * 4; ++i)
            rows[y][i] = uint8_t(y * 50 + i * 3);
    const std::string path = tmp.path("out.png");
    ASSERT_EQ(image_png_write_rgba(path.c_str(), rows, w, h), 0);
    const Rgba back = read_png_rgba(path);
    ASSERT_TRUE(back.width == w && back.height == h);
    for (int y = 0; y < h; ++y)
        EXPECT_EQ(std::memcmp(back.at(0, y), rows[y], size_t(w) * 4), 0) << y;
    std::vector<uint8_t> ihdr;
    EXPECT_EQ(png_chunks(read_file(path), &ihdr), (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
    ASSERT_EQ(ihdr.size(), 13u);
    EXPECT_EQ(ihdr[8], 8) << "bit depth";
    EXPECT_EQ(ihdr[9], 6) << "RGB with alpha";
    EXPECT_EQ(ihdr[12], 0) << "not interlaced";
    // And the library's own reader takes it back as it was.
    const Read mine = read_with(path, nullptr);
    ASSERT_TRUE(mine.ok);
    EXPECT_EQ(std::memcmp(mine.bytes.data(), back.pixels.data(), back.pixels.size()), 0);
    image_png_rows_free(rows, h);
}

// A failed write is an orderly -1 with the file closed: the output cannot
// be opened, the disk is full (a small file fails when stdio flushes, a
// large one inside libpng), libpng refuses the size.
TEST(PngWrite, FailuresGiveMinusOneWithTheFileClosed)
{
    TempDir tmp;
    const int big = 300;  // noise compresses badly: far beyond stdio's buffer
    image_png_rows noise = image_png_rows_alloc(big, big, 4);
    ASSERT_NE(noise, nullptr);
    uint32_t seed = 1;
    for (int y = 0; y < big; ++y)
        for (int i = 0; i < big * 4; ++i)
            noise[y][i] = uint8_t((seed = seed * 1664525u + 1013904223u) >> 24);
    const struct { const char *name; std::string path; png_uint_32 w, h; int32_t rc; } cases[] = {
        {"no such directory", tmp.path("none/out.png"), 4, 4, -1},
        {"full disk, small file", "/dev/full", 4, 4, -1},
        {"full disk, large file", "/dev/full", big, big, -1},
        {"width 0", tmp.path("zero.png"), 0, 4, -1},
        {"FIFO with no reader", tmp.path("fifo"), 4, 4, -1},
        {"written", tmp.path("ok.png"), big, big, 0},
    };
    ASSERT_EQ(mkfifo(tmp.path("fifo").c_str(), 0600), 0);
    const size_t fds = open_files();
    testing::internal::CaptureStderr();
    for (const auto &c : cases)
        EXPECT_EQ(image_png_write_rgba(c.path.c_str(), noise, c.w, c.h), c.rc) << c.name;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(open_files(), fds);
    EXPECT_EQ(read_png_rgba(tmp.path("ok.png")).width, big);
    image_png_rows_free(noise, big);
}

// The PNG route: every thumbnail is a JPEG of the box, planned, resampled
// and bordered as any other; the background shows under transparency.
TEST(PngThumb, JpegOfTheBox)
{
    // 64 x 48, clear on the left half, opaque blue on the right.
    PngSpec half = rgba_pattern(64, 48);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) {
            uint16_t *p = &half.samples[size_t(y * 64 + x) * 4];
            const bool clear = x < 32;
            p[0] = 0, p[1] = 0, p[2] = 255, p[3] = clear ? 0 : 255;
        }
    PngSpec grey16 = png(0, 16, 48, {});
    grey16.height = 64;
    grey16.samples.assign(48 * 64, 0x8080);
    PngSpec dot = png(3, 1, 10, {});
    dot.height = 10;
    dot.palette = {{0, 200, 0}, {255, 255, 0}};
    dot.samples.assign(100, 0);

    const struct {
        const char *name;
        PngSpec spec;
        uint32_t background;
        int bw, bh;
        image_xform xform;
        int x0, y0, x1, y1;  // the picture inside the box; outside is white
        uint8_t left[3], right[3];  // colour near the picture's left and right ends
    } cases[] = {
        // 64 x 48 into 32 x 32: 32 x 24, four white rows above and below.
        {"clear over red", half, 0xFF0000, 32, 32, 0, 0, 4, 32, 28, {255, 0, 0}, {0, 0, 255}},
        // Turned by a quarter (xform 5): the clear half comes on top.
        {"turned", half, 0x00FF00, 32, 32, 5, 4, 0, 28, 32, {0, 255, 0}, {0, 0, 255}},
        // 48 x 64 into 32 x 32: 24 x 32, four white columns on each side.
        {"grey 16-bit", grey16, 0, 32, 32, 0, 4, 0, 28, 32, {132, 132, 132}, {132, 132, 132}},
        // 10 x 10 enlarged into 40 x 40 by the bicubic filter.
        {"palette enlarged", dot, 0, 40, 40, 0, 0, 0, 40, 40, {0, 200, 0}, {0, 200, 0}},
    };
    TempDir tmp;
    const image_ctx ctx{nullptr, nullptr, nullptr, capture, 42, 1, 2, 3};
    g_log.clear();
    for (const auto &c : cases) {
        const std::string in = tmp.path("in.png"), out = tmp.path("out.jpg");
        ASSERT_TRUE(write_png(in, c.spec)) << c.name;
        const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, c.bw, c.bh, 10.0, 95, 1, 0};
        ASSERT_EQ(image_thumb_from_png(&ctx, in.c_str(), out.c_str(), &p, c.xform, c.background), 0) << c.name;
        const std::vector<uint8_t> bytes = read_file(out);
        ASSERT_GT(bytes.size(), 4u);
        EXPECT_TRUE(bytes[0] == 0xFF && bytes[1] == 0xD8 && !(bytes[2] == 0xFF && bytes[3] == 0xE0)) << c.name;
        const Picture t = read_jpeg(out);
        ASSERT_TRUE(t.width == c.bw && t.height == c.bh && t.components == 3) << c.name;
        auto near = [](const uint8_t *px, const uint8_t *want) {
            return std::abs(px[0] - want[0]) <= 12 && std::abs(px[1] - want[1]) <= 12 &&
                   std::abs(px[2] - want[2]) <= 12;
        };
        const uint8_t white[3] = {255, 255, 255};
        const int my = (c.y0 + c.y1) / 2;
        EXPECT_TRUE(near(t.at(c.x0 + 2, c.y0 + 2), c.left)) << c.name;
        EXPECT_TRUE(near(t.at(c.x1 - 3, c.y1 - 3), c.right)) << c.name;
        if (c.y0 > 0) {
            EXPECT_TRUE(near(t.at(c.bw / 2, 0), white) && near(t.at(c.bw / 2, c.bh - 1), white)) << c.name;
        }
        if (c.x0 > 0) {
            EXPECT_TRUE(near(t.at(0, my), white) && near(t.at(c.bw - 1, my), white)) << c.name;
        }
    }
    EXPECT_TRUE(g_log.empty());
}

// 9 for anything that fails; only the scaler's failure is logged, and
// nothing reaches stderr.
TEST(PngThumb, FailureCodesAndLogLine)
{
    TempDir tmp;
    const std::vector<uint8_t> good = encode_png(rgba_pattern(40, 30));
    ASSERT_TRUE(write_file(tmp.path("good.png"), good));
    ASSERT_TRUE(write_file(tmp.path("text.png"), std::vector<uint8_t>(200, 'a')));
    ASSERT_TRUE(write_file(tmp.path("cut.png"), std::vector<uint8_t>(good.begin(), good.end() - 40)));
    const std::string out = tmp.path("t.jpg");
    const struct { std::string path, output; int32_t w, h, rc; std::string log; } cases[] = {
        {tmp.path("good.png"), out, 32, 32, 0, ""},
        {tmp.path("text.png"), out, 32, 32, 9, ""},
        {tmp.path("cut.png"), out, 32, 32, 9, ""},
        {tmp.path("missing.png"), out, 32, 32, 9, ""},
        {tmp.path("good.png"), tmp.path("none/t.jpg"), 32, 32, 9,
         "42 9 image_jpeg:3163 Error during image scaler (ret=-1)"},
        {tmp.path("good.png"), out, 0, 0, 9, "42 9 image_jpeg:3163 Error during image scaler (ret=-2)"},
    };
    const image_ctx ctx{nullptr, nullptr, nullptr, capture, 42, 1, 2, 3};
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        g_log.clear();
        const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, c.w, c.h, 10.0, 85, 0, 0};
        EXPECT_EQ(image_thumb_from_png(&ctx, c.path.c_str(), c.output.c_str(), &p, 0, 0xFFFFFF), c.rc)
            << c.path;
        EXPECT_EQ(g_log, c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.log})
            << c.path;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
