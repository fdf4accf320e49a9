// The linear-light tables and encoders, and the box and bicubic filters in
// all three forms (double, four-lane single, 16.16 fixed point), through
// shared tables, and the two dispatchers. Table entries, matrix decimals and
// the level routing that the library pins with static_assert are not
// restated.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <tuple>
#include <vector>

#include "pipeline/pipeline.h"
#include "resample/resample.h"

namespace {

using bytes = std::vector<uint8_t>;
using form_fn = void (*)(const image_rows, image_rows, int32_t, int32_t, int32_t, double, int32_t,
                         int32_t, int32_t, int32_t, int32_t);

#if defined(IMAGE_RESAMPLE_SSE2)
constexpr bool have_vector = true;
constexpr form_fn box_vector = image_resample_box_vector, bicubic_vector = image_resample_bicubic_vector;
#else
constexpr bool have_vector = false;  // the dispatchers run the double forms instead
constexpr form_fn box_vector = image_resample_box_double, bicubic_vector = image_resample_bicubic_double;
#endif
constexpr form_fn box_double = image_resample_box_double, box_fixed = image_resample_box_fixed,
                  bicubic_double = image_resample_bicubic_double, bicubic_fixed = image_resample_bicubic_fixed;
constexpr form_fn box_forms[] = {box_double, box_vector, box_fixed},
                  bicubic_forms[] = {bicubic_double, bicubic_vector, bicubic_fixed},
                  all_forms[] = {box_double, box_vector, box_fixed, bicubic_double, bicubic_vector, bicubic_fixed};

bool is_fixed(form_fn f) { return f == box_fixed || f == bicubic_fixed; }
bool is_box(form_fn f) { return f == box_double || f == box_vector || f == box_fixed; }
const char *name(form_fn f) {
    return is_fixed(f) ? " fixed" : f == box_double || f == bicubic_double ? " double" : " vector";
}

const double nan = std::numeric_limits<double>::quiet_NaN();
const double inf = std::numeric_limits<double>::infinity();

// A picture in the library's row store, whose padding the vector box form
// reads in whole aligned blocks.
struct Rows {
    Rows(int width, int height, int components = 3, uint8_t fill = 0)
        : w(width), h(height), c(components), rows(image_rows_alloc(w, h, c)) {
        for (int y = 0; y < h; ++y) std::memset(rows[y], fill, size_t(w) * c);
    }
    ~Rows() { image_rows_free(rows, h, 1); }
    Rows(const Rows &) = delete;

    uint8_t *at(int x, int y) { return rows[y] + size_t(x) * c; }
    Rows &paint(const std::function<uint8_t(int x, int y, int k)> &f) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int k = 0; k < c; ++k) at(x, y)[k] = f(x, y, k);
        return *this;
    }
    Rows &noise(uint32_t s) {
        return paint([&](int, int, int) { return uint8_t((s = s * 1664525u + 1013904223u) >> 24); });
    }
    // Sets every byte the store holds beyond the picture: padding, spare rows.
    void beyond(uint8_t v) {
        for (int y = 0; y < ((h + 63) & ~63); ++y) {
            const int64_t used = y < h ? int64_t{w} * c : 0;
            std::memset(rows[y] + used, v, size_t(image_row_capacity(w, c) - used));
        }
    }
    bytes all() const {
        bytes out;
        for (int y = 0; y < h; ++y) out.insert(out.end(), rows[y], rows[y] + size_t(w) * c);
        return out;
    }

    int w, h, c;
    image_rows rows;
};

// `form` from `src` into a dst_w x dst_h picture that starts at 9.
bytes out(form_fn form, const Rows &src, int dst_w, int dst_h, double ratio, int x_off = 0,
          int y_off = 0, int adobe = 0) {
    Rows dst(dst_w, dst_h, src.c, 9);
    form(src.rows, dst.rows, x_off, y_off, src.w, ratio, src.h, dst_w, dst_h, src.c, adobe);
    return dst.all();
}

uint8_t round_trip(int c) { return image_linear_to_byte(image_lin_double[c]); }
uint8_t fixed_trip(int c) { return image_fixed_to_byte(image_lin_fixed[c]); }
// A byte decoded and encoded again by a form's own tables.
uint8_t trip(form_fn f, int c) { return is_fixed(f) ? fixed_trip(c) : round_trip(c); }

// The decode tables are pinned where they are built; the 4096 entries of
// the fixed encoder are checked against the double one. Flat-field round
// trips: the float table always gives the double table's byte, the fixed
// encoder parts from it at six: {c, double, fixed}. The toe ends at
// 0.0031308, both branches giving 10 there. Fixed light is rounded to
// 4096ths; full light (65536) lies past the table.
TEST(Tables, RoundTripsAndEncoders) {
    bytes unchanged, differ;
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(image_linear_to_byte(double{image_lin_float[c]}), round_trip(c)) << c;
        if (fixed_trip(c) != round_trip(c))
            differ.insert(differ.end(), {uint8_t(c), round_trip(c), fixed_trip(c)});
        if (round_trip(c) == c) unchanged.push_back(uint8_t(c));
    }
    EXPECT_EQ(differ, bytes({3, 0, 1, 5, 1, 2, 17, 14, 13, 22, 20, 19, 28, 27, 26, 228, 229, 230}));
    EXPECT_EQ(unchanged, bytes({0, 36, 37, 38, 39, 40, 41, 42, 43, 247, 248, 249, 250, 251, 252,
                                253, 254, 255}));
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(image_gamma_fixed[i], image_linear_to_byte(i / 4095.0)) << i;
    const double toe = 0.0031308;
    const std::pair<double, int> light[] = {
        {nan, 0},   {-inf, 0},     {-1.0, 0},      {toe, 10},  {std::nextafter(toe, 1.0), 10},
        {0.5, 184}, {0.9958, 254}, {0.99584, 255}, {1.5, 255}, {inf, 255}};
    for (const auto &[x, byte] : light) EXPECT_EQ(image_linear_to_byte(x), byte) << x;
    const std::pair<int32_t, int> fixed[] = {{INT32_MIN, 0}, {-1, 0},      {7, 0},
                                             {8, 1},         {16384, 132}, {65239, 254},
                                             {65240, 255},   {65536, 255}, {INT32_MAX, 255}};
    for (const auto &[v, byte] : fixed) EXPECT_EQ(image_fixed_to_byte(v), byte) << v;
}

// Flat fields take only the tone change of their form's own tables: 128
// gives 132, 17 gives 14 (13 in fixed point); white under the matrix stays
// white. Not at every window phase in fixed point, where each product is
// floored: flat 55 at 3.90625 gathers 3047 where the table has 3048 (the
// first window takes rows 0-2 whole and 0.90625 of row 3, the same across)
// and gives 56, not 57.
TEST(AllForms, FlatFieldsTakeOnlyTheToneChange) {
    using flat_run = std::tuple<double, int, int, int>;  // ratio, offsets, components
    const std::vector<flat_run> box_runs = {{1.0, 0, 0, 1},  {3.0, 1, 0, 4},  {7.3, 4, 1, 1},
                                            {2.5, 7, 5, 3},  {7.3, 11, 0, 3}, {3.90625, 0, 2, 3}},
                                cubic_runs = {{0.5, 0, 0, 3}, {1.37, 5, 1, 3}, {1.37, 5, 1, 1}};
    for (form_fn form : all_forms)
        for (const auto &[ratio, x_off, y_off, comps] : is_box(form) ? box_runs : cubic_runs)
            for (const auto &[fill, adobe] : {std::pair{128, 0}, {17, 0}, {255, 1}}) {
                if (form == bicubic_vector && comps != 3) continue;
                const Rows src(x_off + int(6 * ratio) + 2, y_off + int(4 * ratio) + 2, comps,
                               uint8_t(fill));
                EXPECT_EQ(out(form, src, 6, 4, ratio, x_off, y_off, adobe),
                          bytes(24 * comps, adobe ? 255 : trip(form, fill)))
                    << ratio << name(form) << " " << fill;
            }
    EXPECT_EQ(out(box_fixed, Rows(20, 20, 1, 55), 1, 1, 3.90625), bytes{56});
}

// Calls that would divide by nothing or read out of bounds write nothing.
TEST(AllForms, RefuseBadArgumentsWritingNothing) {
    const std::tuple<int, int, int, double, int, bool> cases[] = {
        {0, 3, 0, 2.0, 3, false}, {3, 0, 0, 2.0, 3, false},  {-2, 3, 0, 2.0, 3, false},
        {3, 3, 0, 0.0, 3, false}, {3, 3, 0, -2.0, 3, false}, {3, 3, 0, nan, 3, false},
        {3, 3, 0, inf, 3, false}, {3, 3, 0, 2.0, 5, false},  {3, 3, 0, 2.0, 0, false},
        {3, 3, -1, 2.0, 3, true}, {3, 3, 16, 2.0, 3, true},
    };
    for (form_fn form : all_forms)
        for (const auto &[dst_w, dst_h, x_off, ratio, comps, box_only] : cases) {
            if (box_only && !is_box(form)) continue;
            Rows src(16, 16, 8, 200), dst(4, 4, 8, 7);
            form(src.rows, dst.rows, x_off, 0, 16, ratio, 16, dst_w, dst_h, comps, 0);
            ASSERT_EQ(dst.all(), bytes(128, 7)) << dst_w << " " << ratio << " " << comps << name(form);
        }
}

// Every width 1-70 and offset 0-20, with and without the matrix, windows
// ending inside the picture and running off it. The double and fixed forms
// read rows of exactly the picture's size, the vector forms the row store
// with its padding and spare rows at 0 and then 255: all runs give the same
// bytes, none writes beyond the destination picture, and the sanitizer
// watches.
TEST(AllForms, StayInsideThePictures) {
    static constexpr uint8_t mark = 0x5a;
    for (int w = 1; w <= 70; ++w) {
        Rows zero(w, 5), full(w, 5), a(int(w / 0.6) + 3, 8), b(int(w / 0.6) + 3, 8);
        zero.noise(uint32_t(w));
        full.noise(uint32_t(w));
        full.beyond(255);
        std::vector<bytes> tight;
        std::vector<uint8_t *> tight_rows;
        for (int y = 0; y < 5; ++y) tight.emplace_back(zero.rows[y], zero.rows[y] + w * 3);
        for (bytes &row : tight) tight_rows.push_back(row.data());
        const size_t store = size_t(image_row_capacity(a.w, 3));
        for (int off = 0; off <= 20 && off < w; ++off)
            for (int adobe : {0, 1}) {
                auto check = [&](form_fn form, double ratio, int dst_w, int dst_h) {
                    for (int y = 0; y < 8; ++y)
                        std::memset(a.rows[y], mark, store), std::memset(b.rows[y], mark, store);
                    const bool exact = form != box_vector && form != bicubic_vector;
                    form(exact ? tight_rows.data() : zero.rows, a.rows, off, off % 4, w, ratio, 5,
                         dst_w, dst_h, 3, adobe);
                    form(full.rows, b.rows, off, off % 4, w, ratio, 5, dst_w, dst_h, 3, adobe);
                    bool same = true, untouched = true;
                    for (int y = 0; y < 8; ++y) {
                        same = same && std::memcmp(a.rows[y], b.rows[y], store) == 0;
                        untouched =
                            untouched &&
                            std::all_of(a.rows[y] + (y < dst_h ? dst_w * 3 : 0), a.rows[y] + store,
                                        [](uint8_t v) { return v == mark; });
                    }
                    ASSERT_TRUE(same && untouched) << w << " offset " << off << " ratio " << ratio
                                                   << " adobe " << adobe << name(form);
                };
                for (form_fn form : box_forms)
                    for (double ratio : {1.0, 1.5, 2.25, 3.375}) {
                        const int fit = std::max(1, int((w - off) / ratio));
                        check(form, ratio, fit, 2);
                        check(form, ratio, fit + 1, 3);
                    }
                for (form_fn form : bicubic_forms)
                    for (double ratio : {0.6, 1.0, 1.7})
                        check(form, ratio, int((w - off) / ratio) + 2, 4);
            }
    }
}

// By hand, in every box form. Ratio 3.375 into 3 columns: W =
// lround(10.125) = 10, but the last window [6.75, 10.125) wants column 10 at
// weight 0.125. With columns from 9 on white, column 10 gives (1 + 0.125) /
// 3.375: 151; without it the tail flush closes on 3.25 columns: 146. At
// offset 6 the vector form's aligned end alone would stop before column 10.
TEST(BoxFilter, SmallPicturesByHand) {
    bytes stripes(16), checker(36), point(25);
    for (int i = 0; i < 16; ++i) stripes[i] = uint8_t((i + i / 8 + 1) % 2 * 255);
    for (int i = 0; i < 36; ++i) checker[i] = uint8_t((i % 6 / 3 + i / 18) % 2 * 255);
    point[12] = 255;
    const std::tuple<const char *, int, int, int, double, int, bytes, int, int, bytes> cases[] = {
        {"0/255 stripes average light, not bytes", 8, 2, 1, 2.0, 0, stripes, 4, 1, bytes(4, 184)},
        {"whole-number window ends do not bleed", 6, 6, 1, 3.0, 0, checker, 2, 2,
         bytes{0, 255, 255, 0}},
        // The last window runs out at column 9 and is closed over the 3.0
        // columns it covers (3.5 would give 133).
        {"tail flush over what the window covers", 10, 1, 1, 3.5, 0,
         bytes{0, 0, 0, 255, 0, 0, 0, 0, 0, 242}, 3, 1, bytes{100, 100, 144}},
        // 0.0625, 0.1875, 0.1875 and 0.5625 of 5.0625 on the two axes' split
        {"a pixel in two windows of each axis", 5, 5, 1, 2.25, 0, point, 2, 2,
         bytes{27, 50, 50, 88}},
        // Row 4 alone, averaged over that row, lands on the last row; row 2
        // keeps its 9.
        {"window cut by the bottom", 1, 5, 1, 2.0, 0, bytes{0, 0, 0, 0, 200}, 1, 4,
         bytes{0, 0, 9, 203}},
        // Red 0.3009 (144), not the 0.5 (184) of clamping each pixel first.
        {"negative light stays in the sums", 2, 2, 3, 2.0, 1,
         bytes{0, 255, 0, 0, 255, 0, 255, 255, 255, 255, 255, 255}, 1, 1, bytes{144, 255, 180}},
        {"negative light alone gives 0", 2, 1, 3, 1.0, 1, bytes{0, 255, 0, 255, 255, 255}, 2, 1,
         bytes{0, 255, 0, 255, 255, 255}},
    };
    const std::tuple<int, int, uint8_t> last_window[] = {  // width, offset, last byte
        {12, 0, 151}, {14, 2, 151}, {17, 6, 151}, {30, 6, 151},
        {19, 7, 151}, {10, 0, 146}, {16, 6, 146}, {15, 5, 146}};
    for (form_fn form : box_forms) {
        for (const auto &[what, w, h, comps, ratio, adobe, in, dst_w, dst_h, expected] : cases) {
            Rows src(w, h, comps);
            src.paint([&](int x, int y, int c) { return in[(y * w + x) * comps + c]; });
            EXPECT_EQ(out(form, src, dst_w, dst_h, ratio, 0, 0, adobe), expected) << what << name(form);
        }
        for (int adobe : {0, 1})
            for (const auto &[w, x_off, last] : last_window) {
                Rows src(w, 4);
                src.paint([&](int x, int, int) { return uint8_t(x >= x_off + 9 ? 255 : 0); });
                EXPECT_EQ(out(form, src, 3, 1, 3.375, x_off, 0, adobe),
                          bytes({0, 0, 0, 0, 0, 0, last, last, last}))
                    << w << " offset " << x_off << " adobe " << adobe << name(form);
            }
    }
}

TEST(BicubicFilter, KernelIsKeysWithMinusOne) {
    const std::tuple<int, double, double> rows[] = {
        {0, 0.0, 1.0},    {3, 3.0, 1.0},       {0, 1.0, 0.0},       {5, 3.0, 0.0},
        {0, 2.5, 0.0},    {0, 0.5, 0.625},     {4, 3.5, 0.625},     {0, 1.5, -0.125},
        {2, 0.5, -0.125}, {0, 0.25, 0.890625}, {0, 1.25, -0.140625}};
    for (const auto &[index, position, weight] : rows) {
        EXPECT_EQ(image_bicubic_weight_double(index, position), weight) << index << " " << position;
        // Exact in 16.16 as well: at a half position 0xA000 and -0x2000.
        EXPECT_EQ(image_bicubic_weight_fixed(int32_t(position * 65536), index), weight * 65536)
            << index << " " << position;
    }
}

// Pixel (x, y) samples at (x * ratio + x_off, y * ratio + y_off), whole
// numbers being pixel centres: pixel (0, 0) is the source pixel at the
// offsets, and at ratio 1 every pixel is its source pixel, changed in tone.
TEST(BicubicFilter, SamplesOnPixelCentresGiveThosePixels) {
    const bytes plain = {203, 104, 51}, matrix = {229, 104, 47};  // of 200, 100, 50
    const std::tuple<double, int, int, int> cases[] = {
        {0.5, 0, 0, 0}, {1.3, 3, 2, 0}, {1.99, 5, 6, 0}, {0.8, 0, 0, 1}, {1.7, 4, 1, 1}};
    for (form_fn form : bicubic_forms) {
        for (const auto &[ratio, x_off, y_off, adobe] : cases) {
            Rows src(12, 12);
            std::memcpy(src.noise(7).at(x_off, y_off), bytes({200, 100, 50}).data(), 3);
            const bytes got = out(form, src, 4, 4, ratio, x_off, y_off, adobe);
            EXPECT_EQ(bytes(got.begin(), got.begin() + 3), adobe ? matrix : plain) << ratio << name(form);
        }
        for (int comps : {1, 3, 4}) {
            if (form == bicubic_vector && comps != 3) continue;
            Rows src(7, 5, comps);
            bytes want = src.noise(3).all();
            for (uint8_t &b : want) b = trip(form, b);
            EXPECT_EQ(out(form, src, 7, 5, 1.0), want) << comps << name(form);
        }
    }
}

// Neighbours outside the picture are skipped and what remains renormalised.
// At 0.5 columns 0, 1 and 2 weigh 0.625, 0.625 and -0.125: 0.5 / 1.125 (174),
// where a replicated edge would give 0.375. Past the last column (90): at 5
// the column itself, at 6 its weight is 0 as is the total, at 6.5 its lobe
// alone remains (in fixed point the negative product floors away from zero,
// -1021 / -8192 of full light for 8163: a step brighter), at 7 nothing is
// in reach. Rows run out the same way.
TEST(BicubicFilter, EdgeSamplesRenormaliseWhatRemains) {
    const uint8_t profile[6] = {255, 0, 255, 255, 255, 90};
    for (form_fn form : bicubic_forms)
        for (bool down : {false, true}) {
            Rows src(down ? 1 : 6, down ? 6 : 1);
            src.paint([&](int x, int y, int) { return profile[x + y]; });
            const bytes got = out(form, src, down ? 1 : 15, down ? 15 : 1, 0.5);
            const uint8_t lobe = is_fixed(form) ? 94 : 93;
            for (const auto &[at, byte] : {std::pair<int, uint8_t>{1, 174}, {10, 93}, {12, 0},
                                           {13, lobe}, {14, 0}})
                EXPECT_EQ(bytes(got.begin() + 3 * at, got.begin() + 3 * at + 3), bytes(3, byte))
                    << at / 2.0 << (down ? " down" : " across") << name(form);
        }
}

// A boundary row gives the closing window fixmul(w, v) and the opening one
// the remainder, so at weight 1 (every second row at ratio 2) the next row
// receives exactly 0; with the matrix, white becomes 65538, 65540 and 65525
// of light. Two weights whose product floors to 0 leave no norm: the raw
// sum, fixmul(0x80, 0x200000) = 0x1000 of light, is encoded (66) rather
// than divided (255). Sums past 32 bits wrap, defined: 2 x INT32_MAX is -2,
// and so byte 0; and a position 32768 pixels from its index wraps onto it.
TEST(FixedForms, HandCheckedArithmetic) {
    const uint8_t white[3] = {255, 255, 255};
    for (int adobe : {0, 1}) {
        int32_t current[3] = {5, 5, 5}, next[3] = {0, 0, 0};
        image_box_accumulate_fixed(white, current, next, 0x10000, 3, adobe);
        using values = std::vector<int32_t>;
        const values light = adobe ? values{65538, 65540, 65525} : values(3, 65536);
        EXPECT_EQ(values({current[0] - 5, current[1] - 5, current[2] - 5}), light);
        EXPECT_EQ(values(next, next + 3), values(3, 0)) << adobe;
    }
    const std::tuple<std::vector<int32_t>, int32_t, int32_t, int> rows[] = {
        // accumulator entries (one component), row weight, ratio_fixed, byte
        {{0x200000}, 0x80, 0x80, 66},
        {{0x8000, 0x8000}, 0x10000, 0x20000, 184},
        {{INT32_MAX, INT32_MAX}, 0x10000, 0x20000, 0},
    };
    for (const auto &[entries, row_weight, ratio_fixed, byte] : rows) {
        uint8_t out = 9;
        image_box_row_fixed(&out, entries.data(), row_weight, int32_t(entries.size()), 1, 1,
                            ratio_fixed);
        EXPECT_EQ(out, byte) << entries[0];
    }
    EXPECT_EQ(image_bicubic_weight_fixed(0, -32768), 0x10000);
}

// Calls whose numbers 16.16 cannot hold go to the double form whole. On a
// flat 17 the forms part: 13 in fixed point, 14 in double. The box window's
// light must fit 32 bits (ratio 181, or 153 with the matrix, whose saturated
// red is 1.398 of full light); the last window must end by pixel 32767 on
// both axes (a crop far into a wider picture is fine, since columns count
// from the offset); under ratio 1 the box is no resampler. Bicubic
// destination indices stop at 32767, and every tap's position must fit.
TEST(FixedForms, PastTheirRangeTheDoubleFormsServe) {
    const std::tuple<form_fn, int, int, int, int, double, int, int, int, bool> cases[] = {
        // source w, h, offsets, ratio, destination w, h, components, handed over
        {box_fixed, 181, 181, 0, 0, 181.0, 1, 1, 1, false},
        {box_fixed, 182, 182, 0, 0, 181.5, 1, 1, 1, true},
        {box_fixed, 153, 153, 0, 0, 153.0, 1, 1, 3, false},  // with the matrix
        {box_fixed, 154, 154, 0, 0, 154.0, 1, 1, 3, true},
        {box_fixed, 32767, 2, 0, 0, 1.0, 32767, 2, 1, false},
        {box_fixed, 32768, 2, 0, 0, 1.0, 32768, 2, 1, true},
        {box_fixed, 2, 32768, 0, 32750, 1.0, 2, 17, 1, false},
        {box_fixed, 2, 32768, 0, 32750, 1.0, 2, 18, 1, true},
        {box_fixed, 40000, 2, 30000, 0, 2.0, 100, 1, 1, false},
        {box_fixed, 8, 8, 0, 0, 0.5, 16, 16, 1, true},
        {bicubic_fixed, 4, 1, 0, 0, 1.0 / 16384, 32768, 1, 1, false},
        {bicubic_fixed, 4, 1, 0, 0, 1.0 / 16384, 32769, 1, 1, true},
        {bicubic_fixed, 32800, 1, 32764, 0, 1.0, 2, 1, 1, false},  // taps up to 32767
        {bicubic_fixed, 32800, 1, 32765, 0, 1.0, 2, 1, 1, true},
        {bicubic_fixed, 1, 32800, 0, 32765, 1.0, 1, 2, 1, true},
        {bicubic_fixed, 2, 2, 0, 0, 40000.0, 1, 1, 1, true},
    };
    for (const auto &[form, w, h, x_off, y_off, ratio, dst_w, dst_h, comps, handed] : cases) {
        const Rows src(w, h, comps, 17);
        const form_fn reference = form == box_fixed ? box_double : bicubic_double;
        EXPECT_EQ(out(form, src, dst_w, dst_h, ratio, x_off, y_off, comps == 3),
                  handed ? out(reference, src, dst_w, dst_h, ratio, x_off, y_off, comps == 3)
                         : bytes(size_t(dst_w) * dst_h * comps, 13))
            << w << "x" << h << " ratio " << ratio << " to " << dst_w << "x" << dst_h << name(form);
    }
}

struct agreement {
    size_t differ = 0;
    int worst = 0;
};

// A filter's dispatcher at `level` against the same at level 1 (the double
// form) on noise, with and without the matrix.
void agree_on(agreement &a, image_resample_fn filter, int level, int w, int h, double ratio,
              int x_off, int y_off, uint32_t seed) {
    const int dst_w = int((w - x_off) / ratio), dst_h = int((h - y_off) / ratio);
    for (int adobe : {0, 1}) {
        Rows src(w, h), got(dst_w, dst_h), want(dst_w, dst_h);
        src.noise(seed + uint32_t(adobe));
        filter(level, src.rows, got.rows, x_off, y_off, w, ratio, h, dst_w, dst_h, 3, adobe);
        filter(1, src.rows, want.rows, x_off, y_off, w, ratio, h, dst_w, dst_h, 3, adobe);
        const bytes g = got.all(), r = want.all();
        for (size_t i = 0; i < g.size(); ++i) {
            a.differ += g[i] != r[i];
            a.worst = std::max(a.worst, std::abs(g[i] - r[i]));
        }
    }
}

// Each form, through its filter's dispatcher (level 2: vector, 0: fixed
// point), against the double form (level 1), counts measured and held
// exactly, so that a misplaced window, a lost rounding point, a step taken
// at another precision or a level run by another form shows (which level
// picks which form is pinned in dispatch.cpp).
// - Vector: single-precision sums and divisions put a byte one step off now
//   and then: 60 of 653208 box and 53 of 828150 bicubic samples. The box
//   form's window ends are running sums in single, which drift along wide
//   pictures at a ratio single cannot hold (3.1, 7.3).
// - Fixed box: floored products and the 12-bit encoder, one step in 1.75%
//   (11463 of 653208).
// - Fixed bicubic: 12.2% (101298 of 828150), up to 12 steps. Where positions
//   are whole or half (ratios 0.5, 1.0, 1.5) about 2% differ by one step;
//   elsewhere the truncated ratio puts a position up to x / 65536 short, so
//   a pixel meant to sit on a source pixel takes a few thousandths of a
//   neighbour, and next to a bright one the toe of the encoder turns that
//   into many steps for a near-black byte.
TEST(AllForms, AgreeWithTheDoubleFormsOnNoise) {
    using noisy = std::tuple<int, int, double, int, int>;  // w, h, ratio, offsets
    const noisy box_cases[] = {
        {37, 29, 2.0, 0, 0},       {64, 48, 2.5, 0, 0},       {101, 77, 3.1, 3, 2},
        {640, 480, 2.0, 0, 0},     {1000, 30, 7.3, 13, 0},    {333, 222, 4.4, 5, 7},
        {97, 61, 3.375, 2, 3},     {200, 150, 10.0, 0, 0},    {130, 98, 2.03, 1, 1},
        {4100, 24, 3.90625, 5, 1}, {24, 4100, 3.90625, 1, 5}, {500, 375, 3.90625, 0, 0}};
    const noisy cubic_cases[] = {
        {37, 29, 0.5, 0, 0},    {64, 48, 0.77, 0, 0},  {101, 77, 1.37, 3, 2}, {500, 375, 1.6, 0, 0},
        {200, 150, 1.99, 5, 3}, {4100, 12, 1.5, 0, 0}, {90, 70, 1.0, 0, 0},   {45, 33, 0.3, 0, 0}};
    agreement box[2], cubic[2];  // vector, fixed
    uint32_t seed = 1;
    for (const auto &[w, h, ratio, x_off, y_off] : box_cases) {
        agree_on(box[0], image_resample_box, 2, w, h, ratio, x_off, y_off, seed += 2);
        agree_on(box[1], image_resample_box, 0, w, h, ratio, x_off, y_off, seed);
    }
    for (const auto &[w, h, ratio, x_off, y_off] : cubic_cases) {
        agree_on(cubic[0], image_resample_bicubic, 2, w, h, ratio, x_off, y_off, seed += 2);
        agree_on(cubic[1], image_resample_bicubic, 0, w, h, ratio, x_off, y_off, seed);
    }
    EXPECT_LE(std::max({box[0].worst, cubic[0].worst, box[1].worst}), 1);
    EXPECT_EQ(box[0].differ, have_vector ? 60u : 0u);
    EXPECT_EQ(cubic[0].differ, have_vector ? 53u : 0u);
    EXPECT_EQ(box[1].differ, 11463u);
    EXPECT_EQ(cubic[1].differ, 101298u);
    EXPECT_EQ(cubic[1].worst, 12);
}

#if defined(IMAGE_RESAMPLE_SSE2)

TEST(BoxVector, AlignedWindowNumbers) {  // first, skip, length, columns
    const std::tuple<int, int, int, double, int, std::vector<int64_t>> cases[] = {
        {6, 40, 5, 2.0, 3, {16, 2, 48, 11}},   // W 10; column 16 (x_off + W) taken whole
        {5, 40, 3, 1.0, 3, {0, 15, 32, 4}},    // the largest skip
        {0, 5, 5, 1.0, 3, {0, 0, 16, 5}},      // W 5, no column 5 in the picture
        {0, 6, 5, 1.0, 3, {0, 0, 32, 6}},      // W 5, column 5 widens the window
        {0, 5, 3, 2.0, 3, {0, 0, 32, 5}},      // W 6 runs past the picture
        {0, 32, 20, 2.0, 3, {0, 0, 96, 32}},   // held to the row's allocation
        {0, 12, 3, 3.375, 1, {0, 0, 16, 11}},  // W lround(10.125) = 10, plus column 10
        {3, 10, 2, 2.0, 4, {0, 12, 32, 5}},
    };
    for (const auto &[x_off, w, dst_w, ratio, comps, numbers] : cases) {
        const image_box_window win = image_box_window_make(x_off, w, dst_w, ratio, comps);
        EXPECT_EQ(std::vector<int64_t>({win.first, win.skip, win.length, win.columns}), numbers)
            << x_off << " " << w << " " << dst_w;
    }
}

#endif  // IMAGE_RESAMPLE_SSE2

}  // namespace
