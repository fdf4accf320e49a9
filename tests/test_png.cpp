// PNG files: the row store, the reader over every colour type and depth in
// both layouts, the writer, and the PNG thumbnail route.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>

#include <gtest/gtest.h>

#include "png/png.h"
#include "png_writer.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// What the reader must give, from the picture alone: 16 bits keep the high
// byte, low depths scale to 0..255, tRNS matches the stored values; with a
// background, (c a + b (255 - a)) >> 8 if the file has any transparency.
std::vector<uint8_t> expected(const PngPicture &p, const uint8_t *bg)
{
    const int n = png_channels(p.color_type), d = p.bit_depth;
    auto to8 = [&](unsigned v) { return d == 16 ? v >> 8 : v * 255 / ((1u << d) - 1); };
    const bool transparent = (p.color_type & 4) || !p.trns_key.empty() || !p.trns_alpha.empty();
    std::vector<uint8_t> out;
    for (size_t i = 0; i < p.samples.size(); i += size_t(n)) {
        const uint16_t *v = &p.samples[i];
        unsigned px[4] = {to8(v[0]), to8(v[n < 3 ? 0 : 1]), to8(v[n < 3 ? 0 : 2]), n % 2 ? 255 : to8(v[n - 1])};
        if (p.color_type == 3) {
            const png_color &c = p.palette[v[0]];
            px[0] = c.red, px[1] = c.green, px[2] = c.blue;
            px[3] = v[0] < p.trns_alpha.size() ? p.trns_alpha[v[0]] : 255;
        } else if (!p.trns_key.empty() && std::equal(p.trns_key.begin(), p.trns_key.end(), v)) {
            px[3] = 0;
        }
        for (int c = 0; c < (bg ? 3 : 4); ++c)
            out.push_back(uint8_t(bg && transparent ? (px[c] * px[3] + bg[c] * (255 - px[3])) >> 8 : px[c]));
    }
    return out;
}

size_t open_files() { return size_t(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

size_t be32(const uint8_t *p) { return size_t(p[0]) << 24 | size_t(p[1]) << 16 | size_t(p[2]) << 8 | p[3]; }

std::vector<std::string> chunk_types(const std::vector<uint8_t> &file)
{
    std::vector<std::string> types;
    for (size_t at = 8; at + 12 <= file.size(); at += 12 + be32(&file[at]))
        types.emplace_back(reinterpret_cast<const char *>(&file[at + 4]), 4);
    return types;
}

}  // namespace

// The blends and gamma by their values (-1: a null background, RGBA); then
// every colour type at every depth, with and without tRNS, plain and
// interlaced, in both layouts, against values computed from the picture.
TEST(PngRead, EveryColourTypeDepthAndLayout)
{
    struct Case { std::string name; PngPicture pic; int64_t bg; std::vector<uint8_t> want; };
    auto rgba = [](std::vector<uint16_t> s, double gamma = 0.0) {
        return PngPicture{.width = int(s.size() / 4), .color_type = 6, .samples = s, .gamma = gamma};
    };
    std::vector<Case> cases = {
        {"opaque and clear white over white", rgba({255, 255, 255, 255, 255, 255, 255, 0}), 0xFFFFFF,
         {254, 254, 254, 254, 254, 254}},
        {"alpha 128 over black", rgba({255, 255, 255, 128}), 0x000000, {127, 127, 127}},
        {"red under a clear pixel", rgba({0, 255, 0, 0}), 0xFF0000, {254, 0, 0}},
        // 255 x (c/255)^(1/2.2), within 1: 128 -> 186, 64 -> 137; alpha stays.
        {"gAMA 1.0 brightens", rgba({128, 0, 255, 128, 64, 64, 64, 255}, 1.0), -1,
         {186, 0, 255, 128, 137, 137, 137, 255}},
    };
    const std::pair<int, std::vector<int>> kinds[] = {
        {0, {1, 2, 4, 8, 16}}, {2, {8, 16}}, {3, {1, 2, 4, 8}}, {4, {8, 16}}, {6, {8, 16}}};
    for (const auto &[type, depths] : kinds)
        for (int depth : depths)
            for (int variant = 0; variant < 4; ++variant) {
                const bool trns = variant & 1;
                if (trns && (type & 4))
                    continue;  // no tRNS with an alpha channel
                // Odd sizes: partial bytes, every Adam7 pass.
                PngPicture s{.width = 11, .height = 7, .color_type = type, .bit_depth = depth,
                             .interlace = variant >= 2};
                const int n = png_channels(type);
                const unsigned range = std::min(1u << depth, type == 3 ? 256u : 65536u);
                for (int i = 0; i < 11 * 7 * n; ++i)
                    s.samples.push_back(uint16_t(unsigned(i * 37 + i / n * 91) * 997 % range));
                for (unsigned i = 0; type == 3 && i < range; ++i)
                    s.palette.push_back({uint8_t(i * 7), uint8_t(255 - i * 3), uint8_t(i * 13)});
                if (trns && type == 3)
                    s.trns_alpha.assign({0, 128, 255, 64}), s.trns_alpha.resize(std::min(4u, range));
                else if (trns)  // the colour of pixel (1, 1)
                    s.trns_key.assign(&s.samples[12 * size_t(n)], &s.samples[13 * size_t(n)]);
                const std::string name = "type " + std::to_string(type) + " depth " + std::to_string(depth) +
                                         (trns ? " tRNS" : "") + (s.interlace ? " interlaced" : "");
                const uint8_t bg[3] = {30, 160, 250};
                cases.push_back({name, s, -1, expected(s, nullptr)});
                cases.push_back({name + " over 0x1EA0FA", s, 0x1EA0FA, expected(s, bg)});
            }
    TempDir tmp;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(write_png(tmp.path("in.png"), c.pic));
        const uint8_t bg[3] = {uint8_t(c.bg >> 16), uint8_t(c.bg >> 8), uint8_t(c.bg)};
        const Rgba r = read_png(tmp.path("in.png"), c.bg < 0 ? nullptr : bg);
        ASSERT_TRUE(r.width == c.pic.width && r.height == c.pic.height);
        ASSERT_EQ(r.pixels.size(), c.want.size());
        EXPECT_EQ(r.pixels, c.pic.gamma ? r.pixels : c.want);
        for (size_t i = 0; c.pic.gamma && i < c.want.size(); ++i)
            EXPECT_NEAR(r.pixels[i], c.want[i], 1) << "byte " << i;
    }
}

// Rows of exactly width x bpp bytes (ASan), that product in 32 bits. The
// written file holds the rows, 8-bit RGBA with no chunk beyond IHDR, IDAT
// and IEND. A failed write (no folder, a full disk where stdio flushes or
// inside libpng, a size libpng refuses, a FIFO with no reader) is -1 with
// the file closed.
TEST(PngWrite, RowsAndCriticalChunksOnlyAndMinusOneWithTheFileClosed)
{
    EXPECT_EQ(image_png_rows_alloc(0x40000000u, 1, 4), nullptr) << "width x bpp over 32 bits";
    image_png_rows_free(nullptr, 3);
    TempDir tmp;
    const png_uint_32 big = 300;  // noise compresses badly: far beyond stdio's buffer
    image_png_rows noise = image_png_rows_alloc(big, big, 4);
    uint32_t seed = 1;
    for (png_uint_32 y = 0; y < big; ++y)
        for (png_uint_32 i = 0; i < big * 4; ++i)  // each row to its last byte
            noise[y][i] = uint8_t((seed = seed * 1664525u + 1013904223u) >> 24);
    ASSERT_EQ(mkfifo(tmp.path("fifo").c_str(), 0600), 0);
    const std::string ok = tmp.path("ok.png");
    const struct { std::string path; png_uint_32 w, h; int32_t rc; } cases[] = {
        {ok, big, 5, 0},             {tmp.path("none/out.png"), 4, 4, -1}, {"/dev/full", 4, 4, -1},
        {"/dev/full", big, big, -1}, {tmp.path("zero.png"), 0, 4, -1},     {tmp.path("fifo"), 4, 4, -1}};
    const size_t fds = open_files();
    testing::internal::CaptureStderr();
    for (const auto &c : cases)
        EXPECT_EQ(image_png_write_rgba(c.path.c_str(), noise, c.w, c.h), c.rc) << c.path << " " << c.w;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(open_files(), fds);
    EXPECT_EQ(read_png(ok).width, int(big));  // its pixels: test_framing's compositions
    const std::vector<uint8_t> file = read_file(ok);
    EXPECT_EQ(chunk_types(file), (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
    EXPECT_TRUE(file.at(24) == 8 && file.at(25) == 6 && file.at(28) == 0) << "8-bit RGBA, plain";
    image_png_rows_free(noise, big);
}

// The PNG route: a JPEG of the box, turned and bordered as any other, the
// background's low 24 bits under the clear half. 9 for every failure, with
// files libpng refuses before or after the rows exist (those then freed:
// ASan); only the scaler's is logged; nothing printed, no file left open.
TEST(PngThumb, BoxBorderAndFailures)
{
    TempDir tmp;
    PngPicture half{.width = 64, .height = 48, .color_type = 6};  // clear left half, blue right
    for (int i = 0; i < 64 * 48; ++i)
        half.samples.insert(half.samples.end(), {0, 0, 255, uint16_t(i % 64 < 32 ? 0 : 255)});
    const std::string in = tmp.path("in.png"), out = tmp.path("out.jpg");
    ASSERT_TRUE(write_png(in, half));
    const std::vector<uint8_t> good = read_file(in);
    ASSERT_EQ(chunk_types(good), (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
    std::vector<uint8_t> bad_crc = good;
    bad_crc[33 + 8 + be32(&good[33])] ^= 0x80;  // of IDAT, right behind IHDR (8 + 25)
    ASSERT_TRUE(write_file(tmp.path("text.png"), std::vector<uint8_t>(300, 'x')));
    ASSERT_TRUE(write_file(tmp.path("crc.png"), bad_crc));
    ASSERT_TRUE(write_file(tmp.path("cut.png"), {good.begin(), good.begin() + long(41 + be32(&good[33]) / 2)}));
    ASSERT_EQ(mkfifo(tmp.path("fifo.png").c_str(), 0600), 0);
    const std::string scaler = "42 9 image_jpeg:3163 Error during image scaler (ret=";
    const struct { std::string path, output; int box; uint32_t bg; image_xform xform; int rc; std::string log;
                   int x0 = 0, y0 = 0; std::array<int, 3> top_left{}; } cases[] = {
        {in, out, 32, 0x7FFF0000, 0, 0, "", 0, 4, {255, 0, 0}},  // 32 x 24: white rows above and below
        {in, out, 32, 0x00FF00, 5, 0, "", 4, 0, {0, 255, 0}},  // turned: 24 x 32, the clear half on top
        {tmp.path("text.png"), out, 32, 0, 0, 9, ""},    {tmp.path("crc.png"), out, 32, 0, 0, 9, ""},
        {tmp.path("cut.png"), out, 32, 0, 0, 9, ""},     {tmp.path("missing.png"), out, 32, 0, 0, 9, ""},
        {tmp.path("fifo.png"), out, 32, 0, 0, 9, ""},    {tmp.dir(), out, 32, 0, 0, 9, ""},
        {in, tmp.path("none/t.jpg"), 32, 0, 0, 9, scaler + "-1)\n"}, {in, out, 0, 0, 0, 9, scaler + "-2)\n"},
    };
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 42, 1, 2, 3};
    const size_t fds = open_files();
    testing::internal::CaptureStderr();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path + " to " + c.output + " " + std::to_string(c.xform));
        log.clear();
        const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, c.box, c.box, 10.0, 95, 1, 0};
        ASSERT_EQ(image_thumb_from_png(&ctx, c.path.c_str(), c.output.c_str(), &p, c.xform, c.bg), c.rc);
        EXPECT_EQ(log, c.log);
        if (c.rc != 0)
            continue;
        const Picture t = read_jpeg(out);
        ASSERT_TRUE(t.width == 32 && t.height == 32 && t.components == 3);
        auto near = [&](int x, int y, std::array<int, 3> want) {
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(t.at(x, y)[k], want[size_t(k)], 12) << "at " << x << "," << y;
        };
        near(c.x0 + 2, c.y0 + 2, c.top_left);
        near(29 - c.x0, 29 - c.y0, {0, 0, 255});
        near(c.x0 ? 1 : 16, c.y0 ? 1 : 16, {255, 255, 255});
        near(c.x0 ? 30 : 16, c.y0 ? 30 : 16, {255, 255, 255});
    }
    png_uint_32 w, h;
    EXPECT_EQ(_read_png_to_rgba(nullptr, &w, &h, nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "libpng's messages are not printed";
    EXPECT_EQ(open_files(), fds);
}
