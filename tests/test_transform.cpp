// image_jpeg_transform: route choice, coefficient route against the
// system's jpegtran, pixel route geometry and crops, and failures.
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "transform_support.h"

using namespace qbtest;

namespace {

struct Sampling {
    const char *name;
    JpegLayout layout;
    int components;
};

std::vector<Sampling> samplings()
{
    return {{"2x2", ycc_layout(2, 2), 3}, {"2x1", ycc_layout(2, 1), 3},
            {"1x2", ycc_layout(1, 2), 3}, {"1x1", ycc_layout(1, 1), 3},
            {"grey", grey_layout(), 1}, {"grey declaring 2x2", grey_layout(2, 2), 1}};
}

std::string write_source(const TempDir &dir, const std::string &name, int w, int h,
                         JpegLayout layout, int components, bool progressive = false)
{
    layout.progressive = progressive;
    const std::string path = dir.path(name);
    EXPECT_TRUE(write_jpeg_layout(path, make_picture(w, h, components), layout));
    return path;
}

std::string crop_switch(const image_crop &c)
{
    std::ostringstream s;
    s << c.width << "x" << c.height << "+" << c.x << "+" << c.y;
    return s.str();
}

// Same frame, sampling, tables and coefficients, and the same pixels.
void expect_same_file(const std::string &ours, const std::string &ref)
{
    const Coefficients a = read_coefficients(ours), b = read_coefficients(ref);
    ASSERT_TRUE(a.ok && b.ok);
    ASSERT_EQ(a.width, b.width);
    ASSERT_EQ(a.height, b.height);
    ASSERT_EQ(a.comps.size(), b.comps.size());
    for (size_t ci = 0; ci < a.comps.size(); ++ci) {
        EXPECT_EQ(a.comps[ci].h, b.comps[ci].h) << "component " << ci;
        EXPECT_EQ(a.comps[ci].v, b.comps[ci].v) << "component " << ci;
        EXPECT_EQ(a.comps[ci].quant, b.comps[ci].quant) << "component " << ci;
        EXPECT_TRUE(a.comps[ci].blocks == b.comps[ci].blocks) << "component " << ci;
    }
    const Picture pa = read_jpeg(ours), pb = read_jpeg(ref);
    ASSERT_GT(pa.width, 0);
    EXPECT_TRUE(pa.pixels == pb.pixels);
}

// Our transform next to jpegtran's, with -perfect unless `perfect` is off.
void expect_as_jpegtran(const TempDir &dir, const std::string &src, uint32_t xform,
                        const image_crop *crop, bool perfect = true)
{
    SCOPED_TRACE("xform " + std::to_string(xform) + (crop ? " crop " + crop_switch(*crop) : ""));
    const std::string ours = dir.path("ours.jpg"), ref = dir.path("ref.jpg");
    if (perfect)
        ASSERT_EQ(image_jpeg_transform(src.c_str(), ours.c_str(), xform, crop, 50), 0);
    else
        ASSERT_EQ(force_coefficient_route(src, ours, xform, crop), 0);
    std::vector<std::string> args = jpegtran_switches(xform);
    if (perfect)
        args.insert(args.begin(), "-perfect");
    if (crop) {
        args.push_back("-crop");
        args.push_back(crop_switch(*crop));
    }
    args.insert(args.end(), {"-outfile", ref, src});
    ASSERT_TRUE(run_jpegtran(args));
    expect_same_file(ours, ref);
}

class Transform : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!have_jpegtran())
            GTEST_SKIP() << "jpegtran is not installed";
    }
    TempDir dir;
};

}  // namespace

// ---- route choice ----

TEST(TransformRoute, PerfectWhereMirroredAxesFillWholeImcus)
{
    struct Case {
        int w, h, iw, ih;
        uint32_t xform;
        int perfect;
    } cases[] = {
        // 100 x 64 on 16 x 16: only the height fills whole iMCUs.
        {100, 64, 16, 16, 0, 1}, {100, 64, 16, 16, 1, 0}, {100, 64, 16, 16, 2, 1},
        {100, 64, 16, 16, 3, 1}, {100, 64, 16, 16, 4, 0}, {100, 64, 16, 16, 5, 1},
        {100, 64, 16, 16, 6, 0}, {100, 64, 16, 16, 7, 0},
        // and the other way round.
        {96, 70, 16, 16, 1, 1}, {96, 70, 16, 16, 2, 0}, {96, 70, 16, 16, 5, 0},
        {96, 70, 16, 16, 7, 1}, {96, 70, 16, 16, 6, 0}, {96, 70, 16, 16, 4, 0},
        {96, 64, 16, 16, 4, 1}, {96, 64, 16, 16, 6, 1},
        // grey, 8 x 8
        {104, 30, 8, 8, 1, 1}, {100, 30, 8, 8, 1, 0},
        // no such code
        {64, 64, 8, 8, 8, 0}, {64, 64, 8, 8, 0xFFFFFFFFu, 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(image_transform_is_perfect(c.w, c.h, c.iw, c.ih, c.xform), c.perfect)
            << c.w << "x" << c.h << " code " << c.xform;
}

// Through the entry: the pixel route re-encodes at the given quality (all
// divisors 1 at 100), the coefficient route keeps the source's tables.
TEST(TransformRoute, EntryChoosesBySizeAndLargestSampling)
{
    TempDir dir;
    struct Case {
        JpegLayout layout;
        int comps, w, h;
        uint32_t xform;
        bool lossless;
    } cases[] = {
        {ycc_layout(2, 2), 3, 40, 32, 1, false}, {ycc_layout(2, 2), 3, 40, 32, 2, true},
        {ycc_layout(2, 2), 3, 40, 32, 5, true},  {ycc_layout(2, 2), 3, 40, 32, 7, false},
        {ycc_layout(2, 2), 3, 40, 32, 6, false}, {ycc_layout(2, 2), 3, 40, 32, 3, true},
        {ycc_layout(2, 1), 3, 40, 24, 2, true},  {ycc_layout(2, 1), 3, 40, 24, 1, false},
        {grey_layout(2, 2), 1, 24, 24, 1, false}, {grey_layout(), 1, 24, 20, 1, true},
        {grey_layout(), 1, 24, 20, 2, false},    {grey_layout(), 1, 24, 24, 9, false},
    };
    const std::string out = dir.path("out.jpg");
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + " code " +
                     std::to_string(c.xform));
        const std::string src = write_source(dir, "src.jpg", c.w, c.h, c.layout, c.comps);
        ASSERT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), c.xform, nullptr, 100), 0);
        EXPECT_EQ(read_coefficients(out).comps[0].quant[0] != 1, c.lossless);
    }
}

// ---- coefficient planner ----

TEST(TransformPlan, SnapsCropToTheTransformedImcuGrid)
{
    TempDir dir;
    const std::string s22 = write_source(dir, "22.jpg", 640, 480, ycc_layout(2, 2), 3);
    const std::string s21 = write_source(dir, "21.jpg", 64, 48, ycc_layout(2, 1), 3);
    const std::string g22 = write_source(dir, "g22.jpg", 64, 48, grey_layout(2, 2), 1);
    struct Case {
        const std::string *file;
        uint32_t xform;
        image_crop crop;
        int out_w, out_h, imcu_h, imcu_v;
        uint32_t xo, yo;
        bool dst;
    } cases[] = {
        {&s22, 6, {100, 50, 200, 100}, 204, 102, 2, 2, 6, 3, true},
        {&s22, 0, {3, 5, 100, 100}, 103, 105, 2, 2, 0, 0, false},
        {&s22, 0, {16, 0, 100, 100}, 100, 100, 2, 2, 1, 0, true},
        {&s22, 1, {32, 0, 100, 100}, 100, 100, 2, 2, 2, 0, false},
        {&s22, 1, {0, 16, 100, 100}, 100, 100, 2, 2, 0, 1, true},
        {&s22, 5, {0, 0, 480, 640}, 480, 640, 2, 2, 0, 0, true},
        // refused: empty, negative origin, beyond the edge, sum overflowing
        {&s22, 0, {0, 0, 0, 10}, 640, 480, 2, 2, 0, 0, false},
        {&s22, 2, {-1, 0, 10, 10}, 640, 480, 2, 2, 0, 0, true},
        {&s22, 0, {600, 0, 41, 10}, 640, 480, 2, 2, 0, 0, false},
        {&s22, 5, {0, 0, 481, 10}, 480, 640, 2, 2, 0, 0, true},
        {&s22, 0, {2147483647, 0, 1, 1}, 640, 480, 2, 2, 0, 0, false},
        // 2 x 1 turned: the transformed iMCU is 8 wide and 16 high
        {&s21, 5, {9, 17, 10, 10}, 11, 11, 1, 2, 1, 1, true},
        // one component snaps to 8 pixels whatever it declares
        {&g22, 0, {9, 9, 10, 10}, 11, 11, 1, 1, 1, 1, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(crop_switch(c.crop) + " code " + std::to_string(c.xform));
        const PlanResult r = plan_for_file(*c.file, c.xform, &c.crop);
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.plan.output_width, c.out_w);
        EXPECT_EQ(r.plan.output_height, c.out_h);
        EXPECT_EQ(r.plan.imcu_h, c.imcu_h);
        EXPECT_EQ(r.plan.imcu_v, c.imcu_v);
        EXPECT_EQ(r.plan.x_offset, c.xo);
        EXPECT_EQ(r.plan.y_offset, c.yo);
        EXPECT_EQ(r.has_dst_arrays, c.dst);
    }
}

// ---- coefficient route against jpegtran ----

TEST_F(Transform, EveryCodeMatchesJpegtranForEverySampling)
{
    for (const Sampling &s : samplings())
        for (bool progressive : {false, true}) {
            SCOPED_TRACE(std::string(s.name) + (progressive ? " progressive" : ""));
            const std::string src = write_source(dir, "src.jpg", 64, 48, s.layout,
                                                 s.components, progressive);
            for (uint32_t xform = 0; xform < 8; ++xform)
                expect_as_jpegtran(dir, src, xform, nullptr);
        }
}

TEST_F(Transform, CropsMatchJpegtran)
{
    const image_crop crops[] = {{3, 5, 20, 17}, {17, 9, 30, 20}, {0, 0, 8, 8},
                                {33, 17, 15, 31}, {16, 16, 32, 32}};
    for (const Sampling &s : samplings()) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, "src.jpg", 64, 64, s.layout, s.components);
        for (uint32_t xform = 0; xform < 8; ++xform)
            for (const image_crop &c : crops)
                expect_as_jpegtran(dir, src, xform, &c);
    }
}

TEST_F(Transform, ColourSpacesAndRestartsMatchJpegtran)
{
    JpegLayout rgb = ycc_layout(1, 1);
    rgb.jpeg_color_space = JCS_RGB;
    JpegLayout cmyk;
    cmyk.in_color_space = cmyk.jpeg_color_space = JCS_CMYK;
    cmyk.sampling = {{1, 1}, {1, 1}, {1, 1}, {1, 1}};
    JpegLayout ycck = cmyk;
    ycck.jpeg_color_space = JCS_YCCK;
    ycck.sampling = {{2, 2}, {1, 1}, {1, 1}, {2, 2}};
    JpegLayout restart = ycc_layout(2, 2);
    restart.restart_interval = 1;
    const struct {
        const char *name;
        JpegLayout layout;
        int components;
    } cases[] = {{"rgb", rgb, 3}, {"cmyk", cmyk, 4}, {"ycck", ycck, 4}, {"restart", restart, 3}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string src = write_source(dir, "src.jpg", 48, 32, c.layout, c.components);
        for (uint32_t xform : {1u, 4u, 5u, 6u})
            expect_as_jpegtran(dir, src, xform, nullptr);
    }
}

// A last, partly filled iMCU cannot be mirrored; its blocks move unmirrored,
// which is what jpegtran does without -perfect and -trim.
TEST_F(Transform, PartialImcusMoveUnmirroredLikeJpegtran)
{
    const image_crop crop = {5, 3, 25, 30};
    for (const Sampling &s : samplings()) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, "src.jpg", 50, 42, s.layout, s.components);
        for (uint32_t xform = 1; xform < 8; ++xform) {
            expect_as_jpegtran(dir, src, xform, nullptr, false);
            expect_as_jpegtran(dir, src, xform, &crop, false);
        }
    }
}

TEST_F(Transform, CodeThenItsInverseGivesBackEveryCoefficient)
{
    for (const Sampling &s : samplings()) {
        SCOPED_TRACE(s.name);
        const std::string src = write_source(dir, "src.jpg", 64, 48, s.layout, s.components, true);
        const Coefficients orig = read_coefficients(src);
        const std::string a = dir.path("a.jpg"), b = dir.path("b.jpg");
        for (uint32_t xform = 0; xform < 8; ++xform) {
            ASSERT_EQ(image_jpeg_transform(src.c_str(), a.c_str(), xform, nullptr, 50), 0);
            ASSERT_EQ(image_jpeg_transform(a.c_str(), b.c_str(),
                                           image_reverse_xform_table[xform], nullptr, 50), 0);
            const Coefficients back = read_coefficients(b);
            ASSERT_EQ(back.comps.size(), orig.comps.size());
            EXPECT_EQ(back.width, orig.width);
            EXPECT_FALSE(back.progressive);
            for (size_t ci = 0; ci < orig.comps.size(); ++ci) {
                EXPECT_EQ(back.comps[ci].quant, orig.comps[ci].quant) << xform;
                EXPECT_TRUE(back.comps[ci].blocks == orig.comps[ci].blocks) << xform;
            }
        }
        // four quarter turns
        std::string from = src;
        for (int i = 0; i < 4; ++i) {
            const std::string to = dir.path("turn" + std::to_string(i) + ".jpg");
            ASSERT_EQ(image_jpeg_transform(from.c_str(), to.c_str(), 5, nullptr, 50), 0);
            from = to;
        }
        EXPECT_TRUE(read_coefficients(from).comps[0].blocks == orig.comps[0].blocks);
    }
}

TEST_F(Transform, TransposingCodesTransposeAnAsymmetricTable)
{
    JpegLayout lay = ycc_layout(2, 1);
    for (int i = 0; i < 64; ++i)
        lay.luma_table.push_back(uint16_t(1 + (i % 8) * 5 + i / 8));
    const std::string src = write_source(dir, "src.jpg", 64, 48, lay, 3);
    const Coefficients orig = read_coefficients(src);
    for (uint32_t xform : {3u, 4u, 5u, 7u}) {
        expect_as_jpegtran(dir, src, xform, nullptr);
        const Coefficients out = read_coefficients(dir.path("ours.jpg"));
        EXPECT_EQ(out.comps[0].h, 1);
        EXPECT_EQ(out.comps[0].v, 2);
        for (int r = 0; r < 8; ++r)
            for (int c = 0; c < 8; ++c)
                EXPECT_EQ(out.comps[0].quant[size_t(c * 8 + r)], orig.comps[0].quant[size_t(r * 8 + c)]);
    }
}

// ---- pixel route ----

namespace {

// Grey at quality 100 keeps re-encoding errors small, so a pixel walked to
// the wrong place shows as a large difference at the mark's edges.
constexpr int PIXEL_TOLERANCE = 8;

}  // namespace

TEST(TransformPixels, EveryCodeWalksThePixelsToTheirPlace)
{
    TempDir dir;
    const std::string src = write_source(dir, "src.jpg", 45, 29, grey_layout(), 1);
    const Picture decoded = read_jpeg(src);
    const std::string out = dir.path("out.jpg");
    for (uint32_t xform : {1u, 2u, 4u, 5u, 6u, 7u, 8u, 1000u}) {
        SCOPED_TRACE(xform);
        ASSERT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, nullptr, 100), 0);
        EXPECT_EQ(read_coefficients(out).comps[0].quant[0], 1) << "re-encoded at quality";
        EXPECT_LE(max_abs_diff(read_jpeg(out), apply_xform(decoded, xform)), PIXEL_TOLERANCE);
    }
}

TEST(TransformPixels, MarkedCornerLandsWhereTheCodeSends)
{
    TempDir dir;
    const std::string src = write_source(dir, "src.jpg", 50, 30, ycc_layout(2, 2), 3);
    const std::string out = dir.path("out.jpg");
    // 0 top-left, 1 top-right, 2 bottom-left, 3 bottom-right
    const int corner[8] = {0, 1, 2, 0, 3, 1, 3, 2};
    for (uint32_t xform = 0; xform < 8; ++xform) {
        ASSERT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, nullptr, 95), 0);
        const Picture p = read_jpeg(out);
        const bool swap = xform == 3 || xform == 4 || xform == 5 || xform == 7;
        ASSERT_EQ(p.width, swap ? 30 : 50);
        ASSERT_EQ(p.height, swap ? 50 : 30);
        for (int k = 0; k < 4; ++k) {
            const int x = (k & 1) ? p.width - 3 : 2, y = (k & 2) ? p.height - 3 : 2;
            EXPECT_EQ(is_reddish(p.at(x, y), 3), k == corner[xform]) << xform << " corner " << k;
        }
    }
}

TEST(TransformPixels, CropIsCutFromTheSourceThenTurned)
{
    TempDir dir;
    const std::string src = write_source(dir, "src.jpg", 45, 29, grey_layout(), 1);
    const Picture decoded = read_jpeg(src);
    const std::string out = dir.path("out.jpg");
    struct Case {
        uint32_t xform;
        image_crop crop;
        bool accepted;
    } cases[] = {
        {5, {3, 4, 20, 10}, true},   {1, {0, 0, 44, 28}, true},   {7, {10, 2, 1, 1}, true},
        {8, {5, 6, 30, 12}, true},   {4, {1, 1, 43, 27}, true},
        {2, {1, 0, 44, 10}, false},  // touches the right edge
        {6, {0, 1, 10, 28}, false},  // touches the bottom edge
        {5, {-1, 0, 10, 10}, false}, {1, {0, 0, -1, 10}, false},
        {2, {2147483647, 0, 1, 1}, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(crop_switch(c.crop) + " code " + std::to_string(c.xform));
        ASSERT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), c.xform, &c.crop, 100), 0);
        const Picture part = c.accepted ? crop_picture(decoded, c.crop.x, c.crop.y,
                                                       c.crop.width, c.crop.height)
                                        : decoded;
        EXPECT_LE(max_abs_diff(read_jpeg(out), apply_xform(part, c.xform)), PIXEL_TOLERANCE);
    }
}

TEST(TransformPixels, EmptyCropFailsInTheEncoder)
{
    TempDir dir;
    const std::string src = write_source(dir, "src.jpg", 45, 29, grey_layout(), 1);
    const std::string out = dir.path("out.jpg");
    for (const image_crop c : {image_crop{2, 2, 0, 10}, image_crop{2, 2, 10, 0}})
        for (uint32_t xform : {1u, 5u}) {
            EXPECT_EQ(image_jpeg_transform(src.c_str(), out.c_str(), xform, &c, 90), -4);
            EXPECT_TRUE(read_file(out).empty());
        }
}

// Out of working memory the route stops before writing anything and reports
// like an exhausted decoder: -3, empty output. Runs in a child process whose
// address space is capped just above what it already uses.
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool under_address_sanitizer = true;
#else
constexpr bool under_address_sanitizer = false;
#endif

[[noreturn]] void transform_with_little_memory(const std::string &src, const std::string &out)
{
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = rlim_t(pages) * 4096 + (2u << 20);
    const rlimit rl = {limit, limit};
    setrlimit(RLIMIT_AS, &rl);
    const int32_t r = image_jpeg_transform(src.c_str(), out.c_str(), 1, nullptr, 90);
    std::exit(r == -3 && read_file(out).empty() ? 0 : 10 - r);
}

}  // namespace

TEST(TransformPixels, OutOfMemoryReportsADecoderFailure)
{
    if (under_address_sanitizer)
        GTEST_SKIP() << "address-space limits do not mix with the sanitizer";
    TempDir dir;
    const std::string src = write_source(dir, "big.jpg", 1023, 4096, grey_layout(), 1);
    EXPECT_EXIT(transform_with_little_memory(src, dir.path("out.jpg")),
                ::testing::ExitedWithCode(0), "");
}

// ---- failures ----

namespace {

size_t open_descriptors()
{
    size_t n = 0;
    for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

}  // namespace

TEST(TransformFailures, ResultCodes)
{
    const size_t fds = open_descriptors();
    TempDir dir;
    const std::string src = write_source(dir, "src.jpg", 200, 150, ycc_layout(2, 2), 3);
    const std::vector<uint8_t> bytes = read_file(src);
    const std::string out = dir.path("out.jpg");

    EXPECT_EQ(image_jpeg_transform(dir.path("none.jpg").c_str(), out.c_str(), 0, nullptr, 90), -1);
    EXPECT_TRUE(read_file(out).empty());
    EXPECT_EQ(image_jpeg_transform(src.c_str(), dir.path("no/dir.jpg").c_str(), 0, nullptr, 90), -2);

    const std::string text = dir.path("text.jpg");
    write_file(text, std::vector<uint8_t>(300, 'x'));
    EXPECT_EQ(image_jpeg_transform(text.c_str(), out.c_str(), 5, nullptr, 90), -3);
    EXPECT_TRUE(read_file(out).empty());

    const std::string header_cut = dir.path("header.jpg");
    write_file(header_cut, std::vector<uint8_t>(bytes.begin(), bytes.begin() + 100));
    EXPECT_EQ(image_jpeg_transform(header_cut.c_str(), out.c_str(), 5, nullptr, 90), -3);
    EXPECT_TRUE(read_file(out).empty());

    // Cut inside the scan data: libjpeg pads with a warning, on both routes.
    const std::string data_cut = dir.path("data.jpg");
    write_file(data_cut, std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(bytes.size() * 2 / 3)));
    for (uint32_t xform : {3u, 1u}) {
        EXPECT_EQ(image_jpeg_transform(data_cut.c_str(), out.c_str(), xform, nullptr, 90), 0);
        EXPECT_EQ(read_jpeg(out).width, xform == 3 ? 150 : 200);
    }

    // A full disk, on the coefficient route and (with buffers held) the
    // pixel route.
    if (std::FILE *full = std::fopen("/dev/full", "wb")) {
        std::fclose(full);
        for (uint32_t xform : {3u, 1u, 8u})
            EXPECT_EQ(image_jpeg_transform(src.c_str(), "/dev/full", xform, nullptr, 90), -4);
    }
    EXPECT_EQ(read_file(src), bytes) << "the source is never changed";
    EXPECT_EQ(open_descriptors(), fds) << "both files are closed on every path";
}
