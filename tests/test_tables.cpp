// Constant tables and encoders of the linear-light path.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <vector>

#include "resample/resample.h"

namespace {

int double_round_trip(int c) { return image_linear_to_byte(image_lin_double[c]); }
int fixed_round_trip(int c) { return image_fixed_to_byte(image_lin_fixed[c]); }

// Each entry against the decimal printed from the double (c/255)^2 and read
// back through the C library's correctly rounded conversions, a route that
// shares nothing with how the tables are built.
TEST(DecodeTables, EveryEntryIsTheRoundedSquareOfItsByte) {
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

// The float form always gives the double form's byte; the fixed form
// differs on exactly the six pairs below that disagree.
TEST(FlatField, RoundTripsOfEachForm) {
    const std::map<int, std::pair<int, int>> rows = {
        // c -> {double byte, fixed byte}
        {1, {0, 0}},       {2, {0, 0}},       {3, {0, 1}},       {4, {1, 1}},
        {5, {1, 2}},       {7, {2, 2}},       {16, {12, 12}},    {17, {14, 13}},
        {22, {20, 19}},    {28, {27, 26}},    {32, {31, 31}},    {64, {66, 66}},
        {128, {132, 132}}, {175, {179, 179}}, {192, {195, 195}}, {224, {226, 226}},
        {228, {229, 230}},
    };
    for (const auto &[c, want] : rows)
        EXPECT_EQ(std::make_pair(double_round_trip(c), fixed_round_trip(c)), want) << c;
    std::vector<int> unchanged;
    int fixed_differs = 0;
    for (int c = 0; c < 256; ++c) {
        EXPECT_EQ(image_linear_to_byte(double{image_lin_float[c]}), double_round_trip(c)) << c;
        fixed_differs += fixed_round_trip(c) != double_round_trip(c);
        if (double_round_trip(c) == c) unchanged.push_back(c);
    }
    EXPECT_EQ(fixed_differs, 6);
    EXPECT_EQ(unchanged, std::vector<int>({0, 36, 37, 38, 39, 40, 41, 42, 43, 247, 248, 249, 250,
                                           251, 252, 253, 254, 255}));
}

TEST(GammaTable, EveryEntryIsTheEncoderAtIOver4095) {
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(image_gamma_fixed[i], image_linear_to_byte(i / 4095.0)) << i;
}

// The linear toe ends at 0.0031308, both branches giving 10 around it; an
// equal mix of 0 and 255 is 0.5 (184, not 128). Fixed-point light is rounded
// to 4096ths: 16384, 65239 and 65240 are indices 1024, 4077 and 4078, and
// full light (65536) lies past the table.
TEST(Encoders, ClampAndRound) {
    const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    const double toe = 0.0031308, past_toe = std::nextafter(toe, 1.0);
    const struct {
        double x;
        int byte;
    } light[] = {{nan, 0},   {-inf, 0},     {-1.0, 0},      {toe, 10},  {past_toe, 10},
                 {0.5, 184}, {0.9958, 254}, {0.99584, 255}, {1.5, 255}, {inf, 255}};
    for (const auto &r : light) EXPECT_EQ(image_linear_to_byte(r.x), r.byte) << r.x;
    const struct {
        int32_t v;
        int byte;
    } fixed[] = {{INT32_MIN, 0}, {-1, 0},      {7, 0},       {8, 1},          {16384, 132},
                 {65239, 254},   {65240, 255}, {65536, 255}, {INT32_MAX, 255}};
    for (const auto &r : fixed) EXPECT_EQ(image_fixed_to_byte(r.v), r.byte) << r.v;
}

// The matrix rows do not sum to one, yet white stays white in both encoders.
TEST(AdobeMatrix, WhiteStaysWhite) {
    for (int row = 0; row < 3; ++row) {
        double light = 0.0;
        int32_t fixed = 0;
        for (int k = 0; k < 3; ++k) {
            light = light + double{image_adobe_matrix[3 * row + k]};
            fixed += image_adobe_matrix_fixed[3 * row + k];
        }
        EXPECT_EQ(image_linear_to_byte(light), 255) << row;
        EXPECT_EQ(image_fixed_to_byte(fixed), 255) << row;
    }
}

}  // namespace
