// The scan filter: a decode through image_scan_source must give the rows of
// a decode of the whole file through jpeg_stdio_src, at every DCT scale,
// whatever the scan script, sampling or damage; and it must actually leave
// scans out where the scale makes them irrelevant.
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "pipeline/pipeline.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

// A photo-like picture with detail in every coefficient: noise over a
// gradient.
Picture noisy(int width, int height, int components)
{
    Picture p = make_picture(width, height, components, false);
    uint32_t seed = 12345;
    for (auto &v : p.pixels) {
        seed = seed * 1103515245u + 12345u;
        v = uint8_t(v / 2 + (seed >> 24) % 96);
    }
    return p;
}

// Scan scripts as {components (-1 = all), Ss, Se, Ah, Al}; empty: libjpeg's
// default progression.
struct Band {
    int comp, ss, se, ah, al;
};
using Script = std::vector<Band>;

const Script kDefault{};
const Script kDcPerComponent{{0, 0, 0, 0, 0}, {1, 0, 0, 0, 0}, {2, 0, 0, 0, 0},
                             {0, 1, 63, 0, 0}, {1, 1, 63, 0, 0}, {2, 1, 63, 0, 0}};
// Successive approximation in bands around the last coefficient the 3x3,
// 5x5, 6x6 and 7x7 inverse DCTs read (12, 39, 51, 59), that coefficient in
// a band of its own; each band refined on its own.
Script fine_bands(int components)
{
    static constexpr int kCuts[][2] = {{1, 11},  {12, 12}, {13, 38}, {39, 39}, {40, 50},
                                       {51, 51}, {52, 58}, {59, 59}, {60, 63}};
    Script s{{-1, 0, 0, 0, 1}};
    for (int c = 0; c < components; ++c)
        for (const auto &b : kCuts)
            s.push_back({c, b[0], b[1], 0, 1});
    s.push_back({-1, 0, 0, 1, 0});
    for (int c = 0; c < components; ++c)
        for (const auto &b : kCuts)
            s.push_back({c, b[0], b[1], 1, 0});
    return s;
}
// A refinement over 1..63 after first scans of 1..12 and 13..63: at 3/8 the
// second band alone could go, but the refinement reads its history, so
// nothing may.
Script joint_refinement(int components)
{
    Script s{{-1, 0, 0, 0, 0}};
    for (int c = 0; c < components; ++c) {
        s.push_back({c, 1, 12, 0, 1});
        s.push_back({c, 13, 63, 0, 1});
        s.push_back({c, 1, 63, 1, 0});
    }
    return s;
}

// Encodes with a scan script; empty vector on failure. The frame holds the
// jump target: only plain data in it.
std::vector<uint8_t> encode_script(const Picture &pic, int h_samp, int v_samp,
                                   const Script &script, int restart = 0)
{
    if (script.empty()) {
        JpegOptions o;
        o.progressive = true;
        o.h_samp = h_samp;
        o.v_samp = v_samp;
        o.restart_interval = restart;
        o.quality = 90;
        return encode_jpeg(pic, o);
    }
    jpeg_scan_info scans[64];
    int n = 0;
    for (const Band &b : script) {
        jpeg_scan_info &s = scans[n++];
        std::memset(&s, 0, sizeof s);
        s.comps_in_scan = b.comp < 0 ? pic.components : 1;
        for (int c = 0; c < s.comps_in_scan; ++c)
            s.component_index[c] = b.comp < 0 ? c : b.comp;
        s.Ss = b.ss, s.Se = b.se, s.Ah = b.ah, s.Al = b.al;
    }
    jpeg_compress_struct cinfo;
    image_jpeg_error err;
    unsigned char *buf = nullptr;
    unsigned long len = 0;
    cinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        std::free(buf);
        return {};
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, &buf, &len);
    cinfo.image_width = JDIMENSION(pic.width);
    cinfo.image_height = JDIMENSION(pic.height);
    cinfo.input_components = pic.components;
    cinfo.in_color_space = pic.components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 90, TRUE);
    cinfo.comp_info[0].h_samp_factor = h_samp;
    cinfo.comp_info[0].v_samp_factor = v_samp;
    cinfo.restart_interval = unsigned(restart);
    cinfo.scan_info = scans;
    cinfo.num_scans = n;
    jpeg_start_compress(&cinfo, TRUE);
    const size_t stride = size_t(pic.width) * pic.components;
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(&pic.pixels[stride * cinfo.next_scanline]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    std::vector<uint8_t> out(buf, buf + len);
    std::free(buf);
    return out;
}

// One decode through the library's cache: the first at `first` eighths when
// non-zero (then the one asked for is a re-decode, which always filters),
// else straight at `eighths` from a source of our kind or jpeg_stdio_src's.
// Plain frame for the jump target; the caller cleans the cache.
int decode_into(image_jcache *cache, image_jpeg_error *err, FILE *f, bool filter,
                int first, int eighths, uint32_t *dropped)
{
    image_jpeg_jcache_init(cache, &err->mgr);
    err->mgr.error_exit = image_jpeg_error_exit;
    if (setjmp(err->jump)) {
        jpeg_destroy_decompress(&cache->cinfo);
        return -1;
    }
    jpeg_create_decompress(&cache->cinfo);
    if (filter)
        image_scan_source(&cache->cinfo, f);
    else
        jpeg_stdio_src(&cache->cinfo, f);
    jpeg_save_markers(&cache->cinfo, JPEG_APP0 + 2, 0xFFFF);
    jpeg_read_header(&cache->cinfo, TRUE);
    if (first && image_jcache_decode(cache, f, uint32_t(first), 8) != 0)
        return -2;
    if (image_jcache_decode(cache, f, uint32_t(eighths), 8) != 0)
        return -2;
    *dropped = image_scan_source_dropped(&cache->cinfo);
    jpeg_finish_decompress(&cache->cinfo);
    jpeg_destroy_decompress(&cache->cinfo);
    return 0;
}

struct Decoded {
    int rc = -1;
    uint32_t dropped = 0;
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> pixels;
};

Decoded decode(const std::string &path, bool filter, int eighths, int first = 0)
{
    Decoded d;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return d;
    image_jcache cache;
    image_jpeg_error err;
    d.rc = decode_into(&cache, &err, f, filter, first, eighths, &d.dropped);
    std::fclose(f);
    if (d.rc == 0) {
        d.width = cache.width;
        d.height = cache.height;
        const size_t stride = size_t(cache.width) * uint32_t(cache.components);
        for (uint32_t y = 0; y < cache.height; ++y)
            d.pixels.insert(d.pixels.end(), cache.rows[y], cache.rows[y] + stride);
    }
    image_jpeg_jcache_clean(&cache);
    return d;
}

// Filter on against filter off, at one scale: same outcome, same rows.
void expect_same(const std::string &path, int eighths, const std::string &what,
                 uint32_t *dropped = nullptr)
{
    const Decoded off = decode(path, false, eighths);
    const Decoded on = decode(path, true, eighths);
    EXPECT_EQ(on.rc, off.rc) << what;
    EXPECT_EQ(on.width, off.width) << what;
    EXPECT_EQ(on.height, off.height) << what;
    EXPECT_TRUE(on.pixels == off.pixels) << what;
    if (dropped)
        *dropped = on.dropped;
}

struct ScanCase {
    const char *what;
    int components, h_samp, v_samp;
    int script;  // 0 default, 1 DC per component, 2 fine bands, 3 joint refinement
    int restart;
    // Scales (bit m for m/8) at which scans must be left out.
    uint32_t drops_at;
};

constexpr uint32_t kAt1 = 1u << 1;
const ScanCase kScanCases[] = {
    {"default 4:4:4", 3, 1, 1, 0, 0, kAt1},
    {"default 4:2:0", 3, 2, 2, 0, 0, kAt1},
    {"default 4:2:2", 3, 2, 1, 0, 0, kAt1},
    {"default grey", 1, 1, 1, 0, 0, kAt1},
    {"default 4:2:0 with restarts", 3, 2, 2, 0, 1, kAt1},
    {"DC per component 4:4:4", 3, 1, 1, 1, 0, kAt1},
    {"DC per component 4:2:0", 3, 2, 2, 1, 0, kAt1},
    {"fine bands 4:4:4", 3, 1, 1, 2, 0, kAt1 | 1u << 3 | 1u << 5 | 1u << 6 | 1u << 7},
    {"fine bands 4:2:0", 3, 2, 2, 2, 0, kAt1 | 1u << 3 | 1u << 5 | 1u << 6 | 1u << 7},
    {"fine bands 4:2:2", 3, 2, 1, 2, 3, kAt1 | 1u << 3 | 1u << 5 | 1u << 6 | 1u << 7},
    {"fine bands grey", 1, 1, 1, 2, 0, kAt1 | 1u << 3 | 1u << 5 | 1u << 6 | 1u << 7},
    {"joint refinement 4:4:4", 3, 1, 1, 3, 0, kAt1},
};

Script script_for(const ScanCase &c)
{
    switch (c.script) {
    case 1: return kDcPerComponent;
    case 2: return fine_bands(c.components);
    case 3: return joint_refinement(c.components);
    default: return kDefault;
    }
}

class ScanFilter : public ::testing::Test {
protected:
    TempDir dir;
    std::string write(const std::string &name, const std::vector<uint8_t> &data)
    {
        const std::string path = dir.path(name);
        EXPECT_TRUE(write_file(path, data)) << name;
        return path;
    }
};

TEST_F(ScanFilter, EveryScriptSamplingAndScaleDecodesAsTheWholeFile)
{
    for (const ScanCase &c : kScanCases) {
        const Picture pic = noisy(157, 101, c.components);
        const auto data = encode_script(pic, c.h_samp, c.v_samp, script_for(c), c.restart);
        ASSERT_FALSE(data.empty()) << c.what;
        const std::string path = write("in.jpg", data);
        for (int m = 1; m <= 8; ++m) {
            uint32_t dropped = 0;
            expect_same(path, m, std::string(c.what) + " at " + std::to_string(m) + "/8", &dropped);
            EXPECT_EQ(dropped > 0, (c.drops_at >> m & 1) != 0) << c.what << " at " << m << "/8";
        }
    }
}

TEST_F(ScanFilter, ReDecodeAtAnotherScaleFiltersToo)
{
    const std::string path = write("in.jpg", encode_script(noisy(320, 200, 3), 2, 2, kDefault));
    const Decoded whole = decode(path, false, 1);
    // The first decode at 4/8 from a host's own source, or from ours.
    for (const bool first_filtered : {false, true}) {
        const Decoded again = decode(path, first_filtered, 1, 4);
        EXPECT_EQ(again.rc, 0);
        EXPECT_GT(again.dropped, 0u);
        EXPECT_TRUE(again.pixels == whole.pixels);
    }
}

TEST_F(ScanFilter, BaselineAndDamagedFilesDecodeAsBefore)
{
    JpegOptions base;
    base.quality = 90;
    const Picture pic = noisy(160, 120, 3);
    uint32_t dropped = 1;
    expect_same(write("base.jpg", encode_jpeg(pic, base)), 1, "baseline", &dropped);
    EXPECT_EQ(dropped, 0u);

    const auto prog = encode_script(pic, 2, 2, kDefault);
    // Cut anywhere (libjpeg smooths what it has, so the filter stands back).
    for (size_t cut : {size_t(20), size_t(400), prog.size() / 3, prog.size() * 2 / 3,
                       prog.size() - 40, prog.size() - 2}) {
        const std::vector<uint8_t> part(prog.begin(), prog.begin() + long(cut));
        const std::string path = write("cut.jpg", part);
        for (int m : {1, 3, 8})
            expect_same(path, m, "cut at " + std::to_string(cut) + ", " + std::to_string(m) + "/8");
    }
    // An unstuffed marker inside the luma scan of 6..63 (the fifth), which
    // 1/8 leaves out: with restarts libjpeg resynchronises past a low one.
    const auto rst = encode_script(pic, 2, 2, kDefault, 1);
    size_t fifth = 0;
    for (size_t i = 0, seen = 0; i + 1 < rst.size() && seen < 5; ++i)
        if (rst[i] == 0xFF && rst[i + 1] == 0xDA && ++seen == 5)
            fifth = i;
    ASSERT_GT(fifth, 0u);
    for (const uint8_t stray : {0x05, 0xC4, 0xD9}) {
        std::vector<uint8_t> bad = rst;
        bad[fifth + 200] = 0xFF;
        bad[fifth + 201] = stray;
        expect_same(write("bad.jpg", bad), 1, "stray marker " + std::to_string(stray));
    }
    expect_same(write("empty.jpg", {}), 1, "empty file");
}

// The thumbnail as a host makes it with jpeg_stdio_src for its one decode.
// Plain frame for the jump target.
int host_thumb(const char *out, FILE *f, FILE *f2)
{
    const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, 128, 128, 10.0, 85, 0, 0};
    image_jcache cache;
    image_jpeg_error err;
    volatile int rc = -3;  // set after setjmp, read after a jump
    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = image_jpeg_error_exit;
    if (setjmp(err.jump) == 0) {
        jpeg_create_decompress(&cache.cinfo);
        jpeg_stdio_src(&cache.cinfo, f);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
        rc = image_jpeg_scale(utils_check_hw(), &cache, f2, out, IMAGE_XFORM_NONE, &p, nullptr,
                              nullptr);
        jpeg_finish_decompress(&cache.cinfo);
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    return rc;
}

TEST_F(ScanFilter, ThumbnailOfAProgressivePhotoIsUnchanged)
{
    // Large enough for 1/8: through the entry, whose source is ours, and as
    // a host makes it.
    const std::string in = write("photo.jpg", encode_script(noisy(1200, 900, 3), 2, 2, kDefault));
    const std::string ours = dir.path("ours.jpg"), theirs = dir.path("theirs.jpg");
    ASSERT_EQ(easy_image_create_thumb(in.c_str(), ours.c_str(), 128, 128, 85, 0), 0);
    FILE *f = std::fopen(in.c_str(), "rb");
    FILE *f2 = std::fopen(in.c_str(), "rb");
    ASSERT_TRUE(f && f2);
    EXPECT_EQ(host_thumb(theirs.c_str(), f, f2), 0);
    std::fclose(f);
    std::fclose(f2);
    const auto a = read_file(ours), b = read_file(theirs);
    EXPECT_FALSE(a.empty());
    EXPECT_TRUE(a == b);
}

}  // namespace
