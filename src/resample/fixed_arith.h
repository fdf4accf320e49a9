// Arithmetic of the 16.16 fixed-point forms.
//
// Light and weights are signed 32-bit numbers with 16 fractional bits:
// 0x10000 is 1.0. The forms are defined on 32-bit values that wrap: sums,
// differences, whole-number products and left shifts are taken modulo
// 2^32. Signed overflow would be undefined in C++, so every such step goes
// through unsigned 32-bit arithmetic, which wraps by definition and compiles
// to the same instructions. Within the limits the forms check for, nothing
// wraps at all; the wrapping only keeps calls past them defined.
#pragma once

#include <cstdint>

#include "resample/resample.h"

constexpr int32_t kFixedOne = 0x10000;

constexpr int32_t fix_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) +
                                static_cast<uint32_t>(b));
}

constexpr int32_t fix_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) -
                                static_cast<uint32_t>(b));
}

// A whole-number multiple, such as 5 x d2 or the index times the ratio.
constexpr int32_t fix_scale(int32_t k, int32_t a) {
    return static_cast<int32_t>(static_cast<uint32_t>(k) *
                                static_cast<uint32_t>(a));
}

// A pixel index as a 16.16 position: from 32768 on it wraps negative.
constexpr int32_t fix_from_index(int32_t i) {
    return static_cast<int32_t>(static_cast<uint32_t>(i) << 16);
}

// The product of two 16.16 numbers: exact in 64 bits (it cannot exceed
// 2^62), shifted arithmetically, so it is floored toward minus infinity,
// and cut to its low 32 bits.
constexpr int32_t fixmul(int32_t a, int32_t b) {
    return static_cast<int32_t>((int64_t{a} * int64_t{b}) >> 16);
}

// t / norm in 16.16: the sum widened and shifted up in 64 bits, divided
// with truncation toward zero, and cut to its low 32 bits. |t << 16| stays
// below 2^47, so the quotient itself cannot overflow.
constexpr int32_t fix_divide(int32_t t, int32_t norm) {
    const auto up = static_cast<int64_t>(static_cast<uint64_t>(int64_t{t}) << 16);
    return static_cast<int32_t>(up / norm);
}

// The ratio in 16.16, truncated toward zero. Only for ratios under 32768,
// which the forms check before calling it.
constexpr int32_t fix_ratio(double ratio) {
    return static_cast<int32_t>(65536.0 * ratio);
}

// One pixel's light from linear Adobe RGB to linear sRGB: every product
// floored by itself, the three of a row summed in 32 bits.
struct fixed_rgb {
    int32_t r, g, b;
};

inline fixed_rgb fix_adobe(int32_t r, int32_t g, int32_t b) {
    const int32_t *m = image_adobe_matrix_fixed;
    return {fix_add(fix_add(fixmul(r, m[0]), fixmul(g, m[1])), fixmul(b, m[2])),
            fix_add(fix_add(fixmul(r, m[3]), fixmul(g, m[4])), fixmul(b, m[5])),
            fix_add(fix_add(fixmul(r, m[6]), fixmul(g, m[7])), fixmul(b, m[8]))};
}

static_assert(fixmul(-1, 1) == -1 && fixmul(1, 1) == 0,
              "products floor toward minus infinity");
static_assert(fixmul(kFixedOne, 12345) == 12345);
static_assert(fix_divide(-3, kFixedOne * 2) == -1,
              "the division truncates toward zero");
static_assert(fix_from_index(32767) == 0x7FFF0000 &&
              fix_from_index(32768) == INT32_MIN);
static_assert(fix_ratio(2.0) == 0x20000 && fix_ratio(3.90625) == 0x3E800 &&
              fix_ratio(1.0 / 3.0) == 0x5555);
