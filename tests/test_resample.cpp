// Box and bicubic filters in double precision, and the two dispatchers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "image_internal.h"
#include "resample/resample.h"

namespace {

// A picture in the library's row store.
struct Rows {
    Rows(int width, int height, int components, uint8_t fill = 0)
        : w(width), h(height), c(components), rows(image_rows_alloc(w, h, c)) {
        EXPECT_NE(rows, nullptr);
        for (int y = 0; y < h; ++y) std::memset(rows[y], fill, size_t(w) * c);
    }
    ~Rows() { image_rows_free(rows, h, 1); }
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;

    uint8_t *at(int x, int y) { return rows[y] + size_t(x) * c; }
    void set(int x, int y, std::initializer_list<uint8_t> px) {
        std::memcpy(at(x, y), px.begin(), px.size());
    }
    // A fixed pattern that differs between neighbours and components.
    void pattern() {
        for (int y = 0; y < h; ++y)
            for (int i = 0; i < w * c; ++i)
                rows[y][i] = uint8_t(i * 37 + y * 91 + (i * y) % 13 * 17);
    }
    // Everything the store holds beyond the picture: row padding, spare rows.
    void fill_beyond(uint8_t v) {
        const size_t used = size_t(w) * c,
                     row_bytes = ((size_t(w + 31) & ~size_t{31}) * c + 15) & ~size_t{15};
        for (int y = 0; y < ((h + 63) & ~63); ++y)
            std::memset(rows[y] + (y < h ? used : 0), v, row_bytes - (y < h ? used : 0));
    }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> all;
        for (int y = 0; y < h; ++y) all.insert(all.end(), rows[y], rows[y] + size_t(w) * c);
        return all;
    }

    int w, h, c;
    image_rows rows;
};

// The same picture in rows of exactly its own size, so that a read past the
// end of a row or past the last row shows under the address sanitizer.
struct TightRows {
    explicit TightRows(const Rows &from) : data(from.h), pointers(from.h) {
        const std::vector<uint8_t> all = from.bytes();
        const size_t row = size_t(from.w) * from.c;
        for (int y = 0; y < from.h; ++y) {
            data[y].assign(all.begin() + y * row, all.begin() + (y + 1) * row);
            pointers[y] = data[y].data();
        }
    }
    std::vector<std::vector<uint8_t>> data;
    std::vector<uint8_t *> pointers;
};

uint8_t round_trip(int c) {
    return image_linear_to_byte(image_lin_double[c]);
}

// Whole source and whole destination, through the dispatchers at level 1.
void box(const Rows &src, Rows &dst, double ratio, int x_off = 0, int y_off = 0, int adobe = 0) {
    image_resample_box(IMAGE_HW_BASIC, src.rows, dst.rows, x_off, y_off, src.w, ratio, src.h, dst.w,
                       dst.h, src.c, adobe);
}
void bicubic(const Rows &src, Rows &dst, double ratio, int x_off = 0, int y_off = 0,
             int adobe = 0) {
    image_resample_bicubic(IMAGE_HW_BASIC, src.rows, dst.rows, x_off, y_off, src.w, ratio, src.h,
                           dst.w, dst.h, src.c, adobe);
}

// ---------------------------------------------------------------- box

TEST(BoxDouble, FlatFieldStaysFlatWithItsToneChange) {
    const struct {
        double ratio;
        int x_off, y_off, comps;
    } cases[] = {{1.0, 0, 0, 1},     {2.0, 0, 0, 3}, {2.5, 3, 5, 3}, {3.0, 1, 0, 4},
                 {3.90625, 0, 2, 3}, {7.3, 4, 1, 1}, {2.0, 7, 3, 4}};
    for (const auto &k : cases) {
        const int src_w = k.x_off + int(std::ceil(5 * k.ratio)) + 1;
        const int src_h = k.y_off + int(std::ceil(4 * k.ratio)) + 1;
        Rows src(src_w, src_h, k.comps, 128), dst(5, 4, k.comps, 7);
        box(src, dst, k.ratio, k.x_off, k.y_off);
        for (uint8_t b : dst.bytes()) ASSERT_EQ(b, 132) << k.ratio;
    }
}

TEST(BoxDouble, StripesAverageLightNotBytes) {
    for (int comps : {1, 3}) {
        Rows src(8, 4, comps), dst(4, 2, comps);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 8; x += 2) std::memset(src.at(x, y), 255, comps);
        box(src, dst, 2.0);
        for (uint8_t b : dst.bytes()) EXPECT_EQ(b, 184);
    }
}

// 10 columns at ratio 3.5 into 3: [0..2 + half of 3], [half of 3 + 4..6],
// and a last window that runs out at column 9 and is closed by the tail
// flush over the three columns it covers (3.0, not 3.5).
TEST(BoxDouble, RowStageSplitsColumnsAndFlushesTheTail) {
    double light[10] = {};
    light[3] = 1.0;
    light[9] = 0.9;
    uint8_t out[3] = {};
    image_box_row_double(out, light, 1.0, 10, 3, 1, 3.5);
    EXPECT_EQ(out[0], 100);  // 0.5 / 3.5
    EXPECT_EQ(out[1], 100);
    EXPECT_EQ(out[2], 144);  // 0.9 / 3.0; a division by 3.5 would give 133
}

// Ratio 3.375 into 3 columns: W = lround(10.125) = 10, but the last window
// [6.75, 10.125) wants column 10 at weight 0.125. Columns 9 and 10 are
// white, the rest black.
TEST(BoxDouble, LastWindowTakesColumnWFromTheSourceWhenItHasOne) {
    const struct {
        int src_w, x_off;
        uint8_t last;
    } cases[] = {
        {12, 0, 151},  // (1 + 0.125) / 3.375 = 1/3
        {14, 2, 151},  // the same under a crop
        {10, 0, 146},  // no column 10: tail flush, 1 / 3.25
    };
    for (const auto &k : cases) {
        Rows src(k.src_w, 1, 1), dst(3, 1, 1);
        std::memset(src.at(k.x_off + 9, 0), 255, k.src_w - k.x_off - 9);
        box(src, dst, 3.375, k.x_off);
        EXPECT_EQ(dst.bytes(), std::vector<uint8_t>({0, 0, k.last})) << k.src_w;
    }
}

// One white pixel at ratio 2.25 lies in both windows of each axis, at 0.25
// in the first and 0.75 in the second.
TEST(BoxDouble, BoundaryPixelsAreSplitByOverlapOnBothAxes) {
    for (int off : {0, 1}) {
        Rows src(5 + off, 5 + off, 1), dst(2, 2, 1);
        *src.at(2 + off, 2 + off) = 255;
        box(src, dst, 2.25, off, off);
        // 0.0625, 0.1875, 0.1875 and 0.5625 of 5.0625
        EXPECT_EQ(dst.bytes(), std::vector<uint8_t>({27, 50, 50, 88})) << off;
    }
}

// Five rows at ratio 2: the third window holds row 4 alone, is averaged
// over that one row (not darkened) and always goes to the last row.
TEST(BoxDouble, WindowCutByTheBottomClosesOnWhatItCovers) {
    for (int dst_h : {3, 4}) {
        Rows src(4, 5, 1), dst(2, dst_h, 1, 9);
        std::memset(src.at(0, 4), 200, 4);
        box(src, dst, 2.0);
        std::vector<uint8_t> expected = {0, 0, 0, 0, 9, 9, 203, 203};  // 200 -> 203
        expected.erase(expected.begin() + 4, expected.begin() + 4 + 2 * (4 - dst_h));
        EXPECT_EQ(dst.bytes(), expected) << dst_h;
    }
}

// With whole-number window ends frac is 1.0 and nothing carries over into
// the next window: each block of distinct pixels maps to its own byte.
TEST(BoxDouble, ExactWindowEndsDoNotBleed) {
    auto value = [](int bx, int by, int k) { return 30 + 60 * bx + 21 * by + 9 * k; };
    for (int ratio : {1, 2, 3}) {
        Rows src(3 * ratio, 3 * ratio, 3), dst(3, 3, 3);
        for (int y = 0; y < src.h; ++y)
            for (int x = 0; x < src.w; ++x)
                for (int k = 0; k < 3; ++k)
                    src.at(x, y)[k] = uint8_t(value(x / ratio, y / ratio, k));
        box(src, dst, ratio);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 3; ++x)
                for (int k = 0; k < 3; ++k)
                    EXPECT_EQ(dst.at(x, y)[k], round_trip(value(x, y, k))) << ratio;
    }
}

TEST(BoxDouble, AdobeWhiteStaysWhite) {
    for (double ratio : {1.0, 2.0, 3.5}) {
        Rows src(12, 12, 3, 255), dst(3, 3, 3);
        box(src, dst, ratio, 1, 2, 1);
        for (uint8_t b : dst.bytes()) ASSERT_EQ(b, 255) << ratio;
    }
}

// Saturated green has negative red and blue light in sRGB. The negative
// values stay in the sums: two green and two white pixels give red 0.3009
// (144), not the 0.5 (184) of clamping each pixel first.
TEST(BoxDouble, NegativeLightFromTheMatrixStaysInTheSums) {
    Rows src(2, 2, 3), mean(1, 1, 3), alone(2, 2, 3);
    src.set(0, 0, {0, 255, 0, 0, 255, 0});
    src.set(0, 1, {255, 255, 255, 255, 255, 255});
    box(src, mean, 2.0, 0, 0, 1);
    EXPECT_EQ(mean.bytes(), std::vector<uint8_t>({144, 255, 180}));
    box(src, alone, 1.0, 0, 0, 1);
    EXPECT_EQ(alone.at(0, 0)[0], 0);
    EXPECT_EQ(alone.at(0, 0)[1], 255);
    EXPECT_EQ(alone.at(0, 0)[2], 0);
}

// Calls that would divide by nothing or read out of bounds write nothing.
TEST(BothFilters, RefusedCallsWriteNothing) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        int dst_w, dst_h;
        double ratio;
        int comps;
    } cases[] = {{0, 3, 2.0, 3}, {3, 0, 2.0, 3}, {-2, 3, 2.0, 3}, {3, 3, 0.0, 3}, {3, 3, -2.0, 3},
                 {3, 3, nan, 3}, {3, 3, inf, 3}, {3, 3, 2.0, 5},  {3, 3, 2.0, 0}};
    for (image_resample_fn filter : {image_resample_box, image_resample_bicubic}) {
        for (const auto &k : cases) {
            Rows src(16, 16, 8, 200), dst(4, 4, 8, 7);
            filter(IMAGE_HW_BASIC, src.rows, dst.rows, 0, 0, 16, k.ratio, 16, k.dst_w, k.dst_h,
                   k.comps, 0);
            for (uint8_t b : dst.bytes())
                ASSERT_EQ(b, 7) << k.dst_w << " " << k.ratio << " " << k.comps;
        }
    }
}

// ------------------------------------------------------------ bicubic

TEST(BicubicDouble, KernelIsKeysWithMinusOne) {
    const struct {
        int index;
        double position, weight;
    } rows[] = {{0, 0.0, 1.0},       {3, 3.0, 1.0},       {0, 1.0, 0.0},   {0, -1.0, 0.0},
                {0, 2.0, 0.0},       {5, 3.0, 0.0},       {0, 0.5, 0.625}, {4, 3.5, 0.625},
                {0, 1.5, -0.125},    {2, 0.5, -0.125},    {0, 2.5, 0.0},   {-3, 7.0, 0.0},
                {0, 0.25, 0.890625}, {0, 1.25, -0.140625}};
    for (const auto &r : rows)
        EXPECT_EQ(image_bicubic_weight_double(r.index, r.position), r.weight)
            << r.index << " at " << r.position;
    EXPECT_NEAR(image_bicubic_weight_double(0, 4.0 / 3.0), -4.0 / 27.0, 1e-14);  // deepest
}

TEST(BicubicDouble, UnitRatioOnlyChangesTone) {
    for (int comps : {1, 3, 4}) {
        Rows src(7, 5, comps), dst(7, 5, comps);
        src.pattern();
        bicubic(src, dst, 1.0);
        const std::vector<uint8_t> in = src.bytes(), out = dst.bytes();
        for (size_t i = 0; i < in.size(); ++i) ASSERT_EQ(out[i], round_trip(in[i])) << i;
    }
}

TEST(BicubicDouble, FirstPixelIsTheSourcePixelAtTheOffsets) {
    const struct {
        double ratio;
        int x_off, y_off, adobe;
        std::vector<uint8_t> expected;
    } cases[] = {{0.5, 0, 0, 0, {203, 104, 51}},
                 {1.3, 3, 2, 0, {203, 104, 51}},
                 {1.99, 5, 6, 0, {203, 104, 51}},
                 {0.8, 0, 0, 1, {229, 104, 47}},
                 {1.7, 4, 1, 1, {229, 104, 47}}};
    for (const auto &k : cases) {
        Rows src(12, 12, 3), dst(4, 4, 3);
        src.pattern();
        src.set(k.x_off, k.y_off, {200, 100, 50});
        bicubic(src, dst, k.ratio, k.x_off, k.y_off, k.adobe);
        EXPECT_EQ(std::vector<uint8_t>(dst.at(0, 0), dst.at(1, 0)), k.expected) << k.ratio;
    }
}

// Sample point 0.5 on a one-row picture: column -1 is skipped, columns 0, 1
// and 2 weigh 0.625, 0.625 and -0.125, total 1.125; with columns 0 and 2
// white that is 0.5 / 1.125 (174), where a replicated edge would give 0.375.
TEST(BicubicDouble, HalfPixelFromTheEdgeRenormalisesWhatRemains) {
    Rows src(6, 1, 1), dst(2, 1, 1);
    *src.at(0, 0) = 255;
    *src.at(2, 0) = 255;
    bicubic(src, dst, 0.5);
    EXPECT_EQ(*dst.at(1, 0), 174);
}

// Past the last column (4 columns, the last one 90, the rest white): at 4.0
// the one column in reach weighs 0 and the total is 0; between 4 and 5 only
// its lobe remains and the pixel takes its value; from 5 on nothing is in
// reach. Rows run out the same way at the bottom.
TEST(BicubicDouble, SamplesPastThePictureRunOutInSteps) {
    const struct {
        double ratio;
        int x;
        uint8_t expected;
    } cases[] = {
        {1.5, 2, 93},  // 3.0: the last column itself (90 -> 93)
        {2.0, 2, 0},   // 4.0: total weight 0
        {1.5, 3, 93},  // 4.5: its lobe alone
        {2.5, 2, 0},   // 5.0: nothing in reach
    };
    for (const auto &k : cases) {
        Rows wide(4, 2, 1, 255), across(k.x + 1, 1, 1, 7), tall(2, 4, 1, 255),
            down(1, k.x + 1, 1, 7);
        *wide.at(3, 0) = *wide.at(3, 1) = 90;
        std::memset(tall.at(0, 3), 90, 2);
        bicubic(wide, across, k.ratio);
        bicubic(tall, down, k.ratio);
        EXPECT_EQ(*across.at(k.x, 0), k.expected) << k.ratio * k.x;
        EXPECT_EQ(*down.at(0, k.x), k.expected) << k.ratio * k.x;
    }
}

// The driver works the column weights out once per call; the pixels must
// be those of the one-pixel function at the same sample points.
TEST(BicubicDouble, PixelFunctionAgreesWithTheDriver) {
    Rows src(9, 7, 3), whole(10, 8, 3), single(10, 8, 3);
    src.pattern();
    bicubic(src, whole, 0.77, 1, 2, 1);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 10; ++x)
            image_bicubic_pixel_double(src.rows, single.rows, 9, 7, x, y, 3, 1, x * 0.77 + 1,
                                       y * 0.77 + 2);
    EXPECT_EQ(whole.bytes(), single.bytes());
}

// ---------------------------------------------------- picture bounds

// Windows and neighbourhoods that run off the right and bottom edges, with
// and without offsets. Whatever the row store holds beyond the picture
// (here white) must not reach the output, and exact-size rows must not be
// read past.
TEST(BothFilters, NothingBeyondThePictureIsRead) {
    Rows src(10, 7, 3);
    src.pattern();
    src.fill_beyond(255);
    TightRows tight(src);
    auto compare = [&](image_resample_fn filter, double ratio, int off, int dst_w, int dst_h,
                       int adobe) {
        Rows padded_out(dst_w, dst_h, 3), tight_out(dst_w, dst_h, 3);
        filter(IMAGE_HW_BASIC, src.rows, padded_out.rows, off, off, 10, ratio, 7, dst_w, dst_h, 3,
               adobe);
        filter(IMAGE_HW_BASIC, tight.pointers.data(), tight_out.rows, off, off, 10, ratio, 7, dst_w,
               dst_h, 3, adobe);
        EXPECT_EQ(padded_out.bytes(), tight_out.bytes()) << ratio << " offset " << off;
    };
    for (int off : {0, 1, 3}) {
        for (double ratio : {1.0, 1.5, 2.0, 2.25, 3.375, 3.5, 3.9})
            for (int adobe : {0, 1})
                compare(image_resample_box, ratio, off, int(std::ceil((10 - off) / ratio)),
                        int(std::ceil((7 - off) / ratio)), adobe);
        for (double ratio : {0.3, 0.77, 1.0, 1.6, 2.5})
            compare(image_resample_bicubic, ratio, off, int(10 / ratio) + 3, int(7 / ratio) + 3, 1);
    }
}

// ---------------------------------------------------------- dispatch

// Levels 2 and 3 run the four-lane form for three components; every other
// level and count, including the ones reserved for fixed point, runs the
// double-precision form until that form exists.
TEST(Dispatch, EveryLevelRunsItsForm) {
    for (int comps : {1, 3, 4}) {
        for (int adobe = 0; adobe <= (comps == 3); ++adobe) {
            Rows src(13, 11, comps), box_ref(4, 3, comps), cubic_ref(12, 10, comps);
            Rows box_vec(4, 3, comps), cubic_vec(12, 10, comps);
            src.pattern();
            image_resample_box_double(src.rows, box_ref.rows, 1, 2, 13, 2.6, 11, 4, 3, comps,
                                      adobe);
            image_resample_bicubic_double(src.rows, cubic_ref.rows, 1, 0, 13, 0.9, 11, 12, 10,
                                          comps, adobe);
#if defined(IMAGE_RESAMPLE_SSE2)
            image_resample_box_vector(src.rows, box_vec.rows, 1, 2, 13, 2.6, 11, 4, 3, comps,
                                      adobe);
            image_resample_bicubic_vector(src.rows, cubic_vec.rows, 1, 0, 13, 0.9, 11, 12, 10,
                                          comps, adobe);
#endif
            for (int level : {-5, 0, 1, 2, 3, 4, 99}) {
#if defined(IMAGE_RESAMPLE_SSE2)
                const bool vector = (level == 2 || level == 3) && comps == 3;
#else
                const bool vector = false;  // no SSE2 in this build: double serves
#endif
                Rows box_out(4, 3, comps), cubic_out(12, 10, comps);
                image_resample_box(level, src.rows, box_out.rows, 1, 2, 13, 2.6, 11, 4, 3, comps,
                                   adobe);
                image_resample_bicubic(level, src.rows, cubic_out.rows, 1, 0, 13, 0.9, 11, 12, 10,
                                       comps, adobe);
                EXPECT_EQ(box_out.bytes(), (vector ? box_vec : box_ref).bytes())
                    << level << " " << comps << " " << adobe;
                EXPECT_EQ(cubic_out.bytes(), (vector ? cubic_vec : cubic_ref).bytes())
                    << level << " " << comps << " " << adobe;
            }
        }
    }
}

}  // namespace
