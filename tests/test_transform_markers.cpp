// Marker copy of image_jpeg_transform and the Exif size patch.
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "transform_support.h"

using namespace qbtest;

namespace {

constexpr uint16_t TAG_WIDTH = 40962, TAG_HEIGHT = 40963, TAG_OTHER = 0x9000;

// Runs the patch on an exact-size copy of the payload, so a read or write
// past its end is caught by the address sanitizer.
std::vector<uint8_t> patched(const std::vector<uint8_t> &payload, uint32_t w, uint32_t h)
{
    const size_t n = payload.size();
    std::unique_ptr<unsigned char[]> buf(new unsigned char[n]);
    std::memcpy(buf.get(), payload.data(), n);
    image_exif_patch_size(buf.get() + 6, uint32_t(n - 6), w, h);
    return std::vector<uint8_t>(buf.get(), buf.get() + n);
}

ExifEntry entry_of(const std::vector<uint8_t> &payload, uint16_t tag)
{
    ExifEntry e{};
    EXPECT_TRUE(exif_find(payload, tag, &e)) << "tag " << tag;
    return e;
}

// Offsets inside exif_payload's layout (from the start of the payload).
constexpr size_t IFD0_COUNT = 6 + 8;
constexpr size_t EXIF_COUNT = 6 + 8 + 2 + 24 + 4;
constexpr size_t EXIF_FIRST = EXIF_COUNT + 2;

std::vector<uint8_t> size_block(bool be)
{
    return exif_payload(be, {{TAG_OTHER, 7, 4, 0x30323330}, {TAG_WIDTH, 3, 1, 64},
                             {TAG_HEIGHT, 4, 1, 48}});
}

int count_signature(const std::vector<Segment> &segs, int marker, const std::string &sig)
{
    int n = 0;
    for (const Segment &s : segs)
        n += s.marker == marker && s.data.size() >= sig.size() &&
             std::memcmp(s.data.data(), sig.data(), sig.size()) == 0;
    return n;
}

const std::string JFIF_SIG("JFIF\0", 5);

std::vector<uint8_t> text(const char *s, size_t extra = 4)
{
    std::vector<uint8_t> v(s, s + std::strlen(s));
    v.resize(v.size() + extra, 7);
    return v;
}

}  // namespace

// ---- field readers and writer ----

TEST(ExifFields, ReadersAndWriter)
{
    const unsigned char be65535[] = {0, 0, 0xFF, 0xFF}, be65536[] = {0, 1, 0, 0};
    const unsigned char le65535[] = {0xFF, 0xFF, 0, 0}, le65536[] = {0, 0, 1, 0};
    uint32_t v = 7;
    EXPECT_EQ(image_exif_read_long(1, be65535, &v), 0);
    EXPECT_EQ(v, 65535u);
    EXPECT_EQ(image_exif_read_long(0, le65535, &v), 0);
    EXPECT_EQ(v, 65535u);
    v = 7;
    EXPECT_EQ(image_exif_read_long(1, be65536, &v), -1);
    EXPECT_EQ(image_exif_read_long(0, le65536, &v), -1);
    EXPECT_EQ(v, 7u) << "a refused value leaves the output alone";
    EXPECT_EQ(image_exif_read_short(1, be65535 + 1), 0xFFu);
    EXPECT_EQ(image_exif_read_short(0, le65536 + 1), 0x100u);

    unsigned char out[8] = {};
    EXPECT_EQ(image_exif_write_fields(1, out, 2u, 0x1234u, 4u, 0xA0B0C0D0u, 0u, 0u), 0);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 6),
              (std::vector<uint8_t>{0x12, 0x34, 0xA0, 0xB0, 0xC0, 0xD0}));
    std::memset(out, 0, sizeof out);
    EXPECT_EQ(image_exif_write_fields(0, out, 2u, 0x1234u, 3u, 1u, 4u, 9u, 0u, 0u), -1);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 4), (std::vector<uint8_t>{0x34, 0x12, 0, 0}));
}

// ---- the size patch ----

TEST(ExifPatch, SizeEntriesBecomeLongsInEitherByteOrder)
{
    for (bool be : {false, true}) {
        SCOPED_TRACE(be ? "big-endian" : "little-endian");
        const std::vector<uint8_t> before = size_block(be);
        const std::vector<uint8_t> after = patched(before, 1200, 900);
        const ExifEntry w = entry_of(after, TAG_WIDTH), h = entry_of(after, TAG_HEIGHT);
        EXPECT_EQ(w.type, 4);
        EXPECT_EQ(w.count, 1u);
        EXPECT_EQ(w.value, 1200u);
        EXPECT_EQ(h.value, 900u);
        const std::vector<uint8_t> width_entry(after.begin() + EXIF_FIRST + 12,
                                               after.begin() + EXIF_FIRST + 24);
        const std::vector<uint8_t> expected =
            be ? std::vector<uint8_t>{0xA0, 0x02, 0, 4, 0, 0, 0, 1, 0, 0, 0x04, 0xB0}
               : std::vector<uint8_t>{0x02, 0xA0, 4, 0, 1, 0, 0, 0, 0xB0, 0x04, 0, 0};
        EXPECT_EQ(width_entry, expected);
        // Nothing but the two entries changed.
        std::vector<uint8_t> rest = after;
        std::copy(before.begin() + EXIF_FIRST + 12, before.begin() + EXIF_FIRST + 36,
                  rest.begin() + EXIF_FIRST + 12);
        EXPECT_EQ(rest, before);
    }
}

TEST(ExifPatch, MalformedBlocksStayUnchanged)
{
    struct Case {
        const char *name;
        size_t at;
        std::vector<uint8_t> bytes;
    };
    const std::vector<Case> le_cases = {
        {"byte order", 6, {'I', 'M'}},
        {"magic", 8, {42, 1}},
        {"IFD0 offset above 16 bits", 10, {8, 0, 1, 0}},
        {"IFD0 beyond the block", 10, {0xF0, 0xFF, 0, 0}},
        {"IFD0 without entries", IFD0_COUNT, {0, 0}},
        {"Exif pointer not among the counted entries", IFD0_COUNT, {1, 0}},
        {"Exif offset above 16 bits", IFD0_COUNT + 2 + 12 + 8, {38, 0, 0, 1}},
        {"Exif offset beyond", IFD0_COUNT + 2 + 12 + 8, {0xFF, 0xFF, 0, 0}},
        {"Exif directory of one entry", EXIF_COUNT, {1, 0}},
    };
    for (const Case &c : le_cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> p = size_block(false);
        std::copy(c.bytes.begin(), c.bytes.end(), p.begin() + long(c.at));
        EXPECT_EQ(patched(p, 1200, 900), p);
    }
    // A one-entry directory is not walked even when its entry is the width.
    const std::vector<uint8_t> one = exif_payload(true, {{TAG_WIDTH, 4, 1, 64}});
    EXPECT_EQ(patched(one, 1200, 900), one);
    // The IFD0 search stops at the end of the block, without reading past.
    std::vector<uint8_t> runaway = size_block(true);
    runaway[IFD0_COUNT] = 0x7F;
    runaway.resize(IFD0_COUNT + 2 + 12 + 5);
    EXPECT_EQ(patched(runaway, 1200, 900), runaway);
    // Eleven bytes behind the signature are too few for any walk.
    const std::vector<uint8_t> full = size_block(false);
    const std::vector<uint8_t> tiny(full.begin(), full.begin() + 6 + 11);
    EXPECT_EQ(patched(tiny, 1200, 900), tiny);
}

TEST(ExifPatch, EveryEntryIsVisitedAndAStoppedWalkKeepsItsWork)
{
    const std::vector<uint8_t> width_only =
        patched(exif_payload(false, {{TAG_OTHER, 7, 4, 1}, {TAG_WIDTH, 3, 1, 5}}), 1200, 900);
    EXPECT_EQ(entry_of(width_only, TAG_WIDTH).value, 1200u);
    ExifEntry none{};
    EXPECT_FALSE(exif_find(width_only, TAG_HEIGHT, &none));

    const std::vector<uint8_t> twice =
        patched(exif_payload(true, {{TAG_WIDTH, 3, 1, 5}, {TAG_HEIGHT, 3, 1, 5}, {TAG_WIDTH, 4, 1, 5}}),
                1200, 900);
    EXPECT_EQ(twice[EXIF_FIRST + 24 + 11], 0xB0) << "the second width entry too";
    EXPECT_EQ(entry_of(twice, TAG_HEIGHT).value, 900u);

    // Claims 9 entries, holds 2: those two are rewritten, then the walk
    // meets the end of the block.
    std::vector<uint8_t> overlong = exif_payload(false, {{TAG_WIDTH, 3, 1, 5}, {TAG_HEIGHT, 3, 1, 5}});
    overlong[EXIF_COUNT] = 9;
    const std::vector<uint8_t> got = patched(overlong, 1200, 900);
    EXPECT_EQ(entry_of(got, TAG_WIDTH).value, 1200u);
    EXPECT_EQ(entry_of(got, TAG_HEIGHT).value, 900u);

    // Every cut of a valid block is walked without leaving it.
    const std::vector<uint8_t> full = size_block(true);
    for (size_t n = 6; n <= full.size(); ++n)
        EXPECT_EQ(patched(std::vector<uint8_t>(full.begin(), full.begin() + long(n)), 1, 1).size(), n);
}

// ---- through the transform ----

namespace {

struct MarkerFixture : ::testing::Test {
    TempDir dir;

    // Transform and return the output's APPn segments.
    std::vector<Segment> run(const std::string &src, uint32_t xform,
                             const image_crop *crop = nullptr)
    {
        const std::string out = dir.path("out.jpg");
        EXPECT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, crop, 90), 0);
        return app_segments(read_file(out));
    }
    std::string source(const std::string &name, int w, int h, JpegLayout lay, int comps = 3)
    {
        const std::string path = dir.path(name);
        EXPECT_TRUE(write_jpeg_layout(path, make_picture(w, h, comps), lay));
        return path;
    }
};

}  // namespace

using TransformMarkers = MarkerFixture;

TEST_F(TransformMarkers, OrderIsKeptOnBothRoutes)
{
    JpegLayout lay = ycc_layout(2, 2);
    lay.write_jfif = false;
    lay.restart_interval = 2;
    std::vector<uint8_t> icc1 = icc_app2_payload("ADBE"), icc2 = icc_app2_payload("ADBE");
    icc1[13] = icc2[13] = 2;  // one profile in two markers
    icc2[12] = 2;
    icc2.resize(icc2.size() + 60000, 0x5A);
    lay.markers = {{JPEG_APP0 + 1, size_block(false)}, {JPEG_APP0 + 2, icc1},
                   {JPEG_APP0 + 13, text("Photoshop 3.0")}, {JPEG_APP0 + 2, icc2},
                   {JPEG_APP0 + 15, text("vendor")}, {JPEG_APP0, text("JFXX")},
                   {JPEG_COM, text("comment")}};
    for (int w : {64, 50}) {  // coefficient route, then the pixel route
        SCOPED_TRACE(w);
        const std::string src = source("src.jpg", w, 32, lay);
        const std::vector<Segment> in = app_segments(read_file(src));
        std::vector<Segment> out = run(src, 6);
        ASSERT_FALSE(out.empty());
        if (w == 64) {  // libjpeg's own JFIF header leads
            EXPECT_EQ(count_signature({out[0]}, JPEG_APP0, JFIF_SIG), 1);
            out.erase(out.begin());
        }
        EXPECT_EQ(out, in);
        const std::vector<Segment> all = read_segments(read_file(dir.path("out.jpg")));
        for (const Segment &s : all) {
            EXPECT_NE(s.marker, JPEG_COM) << "comments are not carried";
            EXPECT_NE(s.marker, 0xDD) << "restart intervals are not carried";
        }
    }
}

TEST_F(TransformMarkers, DuplicateJfifAndAdobeDroppedOnlyWhereLibjpegWritesItsOwn)
{
    const std::vector<uint8_t> jfif2 = {'J', 'F', 'I', 'F', 0, 1, 2, 1, 0, 72, 0, 72, 0, 0};
    const std::vector<uint8_t> short_jfif = {'J', 'F', 'I', 'F'};
    const std::vector<uint8_t> adobe2 = {'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, 0};
    JpegLayout ycc = ycc_layout(2, 2);
    ycc.markers = {{JPEG_APP0, jfif2}, {JPEG_APP0, short_jfif}};
    JpegLayout rgb = ycc_layout(1, 1);
    rgb.jpeg_color_space = JCS_RGB;
    rgb.write_jfif = false;
    rgb.markers = {{JPEG_APP0 + 14, adobe2}};
    JpegLayout cmyk;
    cmyk.in_color_space = cmyk.jpeg_color_space = JCS_CMYK;
    cmyk.sampling = {{1, 1}, {1, 1}, {1, 1}, {1, 1}};
    cmyk.write_jfif = false;
    cmyk.markers = {{JPEG_APP0 + 14, adobe2}};
    JpegLayout bare = ycc_layout(2, 2);
    bare.write_jfif = false;
    struct Case {
        const char *name;
        JpegLayout layout;
        int comps, width;
        int jfif, short_jfif, adobe;
    } cases[] = {
        {"ycc coefficient", ycc, 3, 64, 1, 1, 0},   {"ycc pixels", ycc, 3, 50, 2, 1, 0},
        {"rgb coefficient", rgb, 3, 64, 0, 0, 1},   {"rgb pixels", rgb, 3, 50, 0, 0, 2},
        {"cmyk coefficient", cmyk, 4, 64, 0, 0, 1}, {"cmyk pixels", cmyk, 4, 50, 0, 0, 1},
        {"no JFIF, pixels", bare, 3, 50, 0, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<Segment> out = run(source("src.jpg", c.width, 32, c.layout, c.comps), 1);
        int short_count = 0;
        for (const Segment &s : out)
            short_count += s.marker == JPEG_APP0 && s.data == short_jfif;
        EXPECT_EQ(count_signature(out, JPEG_APP0, JFIF_SIG), c.jfif);
        EXPECT_EQ(short_count, c.short_jfif);
        EXPECT_EQ(count_signature(out, JPEG_APP0 + 14, "Adobe"), c.adobe);
    }
}

TEST_F(TransformMarkers, ExifSizeFollowsTheOutput)
{
    std::vector<uint8_t> bad_magic = size_block(true);
    bad_magic[9] = 43;
    std::vector<uint8_t> bad_signature = size_block(true);
    bad_signature[5] = 1;  // "Exif\0\1": not an Exif block, though the TIFF is fine
    struct Case {
        const char *name;
        int width;
        uint32_t xform;
        image_crop crop;
        bool use_crop;
        bool big_endian;
        uint32_t exp_w, exp_h;  // 0: entries untouched
    } cases[] = {
        {"quarter turn, little-endian", 64, 5, {}, false, false, 48, 64},
        {"quarter turn, big-endian", 64, 7, {}, false, true, 48, 64},
        {"coefficient crop widens", 64, 0, {20, 5, 30, 20}, true, true, 34, 25},
        {"pixel route crop", 50, 7, {1, 2, 30, 20}, true, false, 20, 30},
        {"flip keeps the size", 64, 1, {}, false, false, 0, 0},
        {"half turn keeps the size", 50, 6, {}, false, true, 0, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        JpegLayout lay = ycc_layout(2, 2);
        lay.markers = {{JPEG_APP0 + 1, size_block(c.big_endian)},
                       {JPEG_APP0 + 1, bad_magic},
                       {JPEG_APP0 + 1, bad_signature},
                       {JPEG_APP0 + 1, {'E', 'x', 'i', 'f', 0}}};
        const std::vector<Segment> out =
            run(source("src.jpg", c.width, 48, lay), c.xform, c.use_crop ? &c.crop : nullptr);
        std::vector<Segment> exif;
        for (const Segment &s : out)
            if (s.marker == JPEG_APP0 + 1)
                exif.push_back(s);
        ASSERT_EQ(exif.size(), 4u);
        EXPECT_EQ(exif[1].data, bad_magic) << "a malformed block is written unchanged";
        EXPECT_EQ(exif[2].data, bad_signature);
        EXPECT_EQ(exif[3].data.size(), 5u);
        if (c.exp_w == 0) {
            EXPECT_EQ(exif[0].data, size_block(c.big_endian));
            continue;
        }
        EXPECT_EQ(entry_of(exif[0].data, TAG_WIDTH).value, c.exp_w);
        EXPECT_EQ(entry_of(exif[0].data, TAG_HEIGHT).value, c.exp_h);
        EXPECT_EQ(entry_of(exif[0].data, TAG_WIDTH).type, 4) << "SHORT became LONG";
    }
}
