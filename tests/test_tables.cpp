// Constant tables and encoders of the linear-light path.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>

#include "resample/resample.h"

namespace {

int double_round_trip(int c) {
    return image_linear_to_byte(image_lin_double[c]);
}
int float_round_trip(int c) {
    return image_linear_to_byte(double{image_lin_float[c]});
}
int fixed_round_trip(int c) {
    return image_fixed_to_byte(image_lin_fixed[c]);
}

TEST(DecodeTables, TellingRows) {
    const struct {
        int c;
        double dbl;
        float flt;
        int32_t fixed;
    } rows[] = {
        {0, 0.0, 0.0f, 0},
        {1, 0.00001538, 0.000015f, 1},
        {2, 0.00006151, 0.000062f, 4},
        {8, 0.00098424, 0.000984f, 64},
        {128, 0.25196463, 0.251965f, 16512},
        {254, 0.99217224, 0.992172f, 65023},
        {255, 1.0, 1.0f, 65536},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(image_lin_double[r.c], r.dbl) << r.c;
        EXPECT_EQ(image_lin_float[r.c], r.flt) << r.c;
        EXPECT_EQ(image_lin_fixed[r.c], r.fixed) << r.c;
    }
}

// Each entry against the decimal printed from the double (c/255)^2 and read
// back through the C library's correctly rounded conversions, a route that
// shares nothing with how the tables are built.
TEST(DecodeTables, EveryEntryIsTheNearestValueOfItsRoundedDecimal) {
    for (int c = 0; c < 256; ++c) {
        const double square = (c / 255.0) * (c / 255.0);
        char text[32];
        std::snprintf(text, sizeof text, "%.8f", square);
        EXPECT_EQ(image_lin_double[c], std::strtod(text, nullptr)) << text;
        std::snprintf(text, sizeof text, "%.6f", square);
        EXPECT_EQ(image_lin_float[c], std::strtof(text, nullptr)) << text;
        // floor(c*c*65536/65025): the largest v with v*65025 <= c*c*65536.
        const int64_t scaled = int64_t{c} * c * 65536, v = image_lin_fixed[c];
        EXPECT_TRUE(v * 65025 <= scaled && (v + 1) * 65025 > scaled) << c;
    }
}

TEST(FlatField, DoubleAndVectorFormsChangeTheseValues) {
    std::map<int, int> expected = {
        {0, 0},   {1, 0},   {2, 0},     {4, 1},     {7, 2},     {16, 12},
        {32, 31}, {64, 66}, {128, 132}, {175, 179}, {192, 195}, {224, 226},
    };
    for (int c : {36, 37, 38, 39, 40, 41, 42, 43}) expected[c] = c;
    for (int c = 247; c < 256; ++c) expected[c] = c;
    for (const auto &[c, byte] : expected) {
        EXPECT_EQ(double_round_trip(c), byte) << c;
        EXPECT_EQ(float_round_trip(c), byte) << c;
    }
}

TEST(FlatField, FixedFormDiffersOnExactlySixValues) {
    // c -> {fixed byte, double byte}
    const std::map<int, std::pair<int, int>> expected = {
        {3, {1, 0}}, {5, {2, 1}}, {17, {13, 14}}, {22, {19, 20}}, {28, {26, 27}}, {228, {230, 229}},
    };
    std::map<int, std::pair<int, int>> found;
    for (int c = 0; c < 256; ++c)
        if (fixed_round_trip(c) != double_round_trip(c))
            found[c] = {fixed_round_trip(c), double_round_trip(c)};
    EXPECT_EQ(found, expected);
}

TEST(GammaTable, EveryEntryIsTheEncoderAtIOver4095AndNeverFalls) {
    for (int i = 0; i < 4096; ++i) {
        ASSERT_EQ(image_gamma_fixed[i], image_linear_to_byte(i / 4095.0)) << i;
        ASSERT_GE(image_gamma_fixed[i], image_gamma_fixed[i > 0 ? i - 1 : 0]) << i;
    }
    const std::map<int, int> telling = {
        {0, 0},      {1, 1},      {2, 2},      {3, 2},      {12, 10},    {13, 10},    {1024, 132},
        {2048, 184}, {3072, 223}, {4000, 252}, {4077, 254}, {4078, 255}, {4095, 255},
    };
    for (const auto &[i, byte] : telling) EXPECT_EQ(image_gamma_fixed[i], byte) << i;
}

TEST(LinearToByte, EdgesAndOutOfRangeLight) {
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        double x;
        int byte;
    } rows[] = {
        {std::numeric_limits<double>::quiet_NaN(), 0},
        {-inf, 0},
        {-1.0, 0},
        {-0.0, 0},
        {0.0, 0},
        // End of the linear toe; both branches give 10 around it.
        {0.0031308, 10},
        {std::nextafter(0.0031308, 1.0), 10},
        {0.5, 184},  // an equal mix of 0 and 255, not 128
        {0.9958, 254},
        {0.99584, 255},
        {1.0, 255},
        {1.5, 255},
        {1e300, 255},
        {inf, 255},
    };
    for (const auto &r : rows) EXPECT_EQ(image_linear_to_byte(r.x), r.byte) << r.x;
}

TEST(FixedToByte, ClampsAndRoundsTo4096ths) {
    const struct {
        int32_t v;
        int byte;
    } rows[] = {
        {INT32_MIN, 0},   {-1, 0},      {7, 0},  // (7 + 8) >> 4 = 0
        {8, 1},           {16384, 132},          // indices 1 and 1024
        {65239, 254},     {65240, 255},          // indices 4077 and 4078
        {65536, 255},                            // full light: index 4096, past the table
        {INT32_MAX, 255},
    };
    for (const auto &r : rows) EXPECT_EQ(image_fixed_to_byte(r.v), r.byte) << r.v;
}

// The matrix rows do not sum to one, yet white stays white in both the
// floating-point and the fixed-point encoders.
TEST(AdobeMatrix, WhiteStaysWhite) {
    for (int row = 0; row < 3; ++row) {
        double light = 0.0;
        int32_t fixed = 0;
        for (int k = 0; k < 3; ++k) {
            light = light + double{image_adobe_matrix[3 * row + k]};
            fixed += image_adobe_matrix_fixed[3 * row + k];
        }
        EXPECT_NE(light, 1.0);
        EXPECT_EQ(image_linear_to_byte(light), 255) << row;
        EXPECT_EQ(image_fixed_to_byte(fixed), 255) << row;
    }
}

}  // namespace
