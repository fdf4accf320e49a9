// The four source columns (or rows) around one bicubic sample position,
// with their kernel weights, and the walk over the destination, shared by
// the bicubic forms. The floating-point forms evaluate the kernel in
// double; a form that works in single precision rounds each weight once,
// when it is stored. The fixed-point form fills the same record with its
// own kernel.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "resample/resample.h"

// Destination columns are worked in strips of this many, so that the four
// column weights of each are computed once per strip rather than once per
// pixel, in a table on the stack: the bicubic forms never allocate and
// cannot fail. Positions are a pure function of x, so a strip holds
// exactly the values a per-call table would.
constexpr int32_t kBicubicStrip = 256;

template <typename Weight>
struct bicubic_taps {
    int64_t first;  // index of tap 0: floor(position) - 1
    bool inside[4];  // a tap outside the picture is never read
    Weight weight[4];
};

template <typename Weight>
bicubic_taps<Weight> bicubic_taps_at(double position, int32_t size)
{
    bicubic_taps<Weight> taps{};
    double f = std::floor(position);
    // Far outside the picture no tap can reach it whatever the exact floor,
    // so clamping there keeps the conversion defined for any finite
    // position without changing a pixel.
    if (f < -4.0)
        f = -4.0;
    if (f > size + 4.0)
        f = size + 4.0;
    taps.first = static_cast<int64_t>(f) - 1;
    for (int k = 0; k < 4; ++k) {
        const int64_t index = taps.first + k;
        taps.inside[k] = index >= 0 && index < size;
        taps.weight[k] = taps.inside[k]
                             ? static_cast<Weight>(image_bicubic_weight_double(
                                   static_cast<int32_t>(index), position))
                             : Weight(0);
    }
    return taps;
}

// The walk over the destination: taps of a strip of columns, then each row
// of the destination across that strip. column_taps(x) and row_taps(y)
// give the taps of a destination column and row; pixel(dst, tx, ty)
// computes the pixel whose first sample is at dst.
template <typename Taps, typename ColumnTaps, typename RowTaps, typename Pixel>
void bicubic_strips(image_rows dst_rows, int32_t dst_width, int32_t dst_height,
                    int32_t components, ColumnTaps column_taps,
                    RowTaps row_taps, Pixel pixel) {
    Taps strip[kBicubicStrip];
    for (int32_t x0 = 0; x0 < dst_width; x0 += kBicubicStrip) {
        const int32_t count = std::min(kBicubicStrip, dst_width - x0);
        for (int32_t k = 0; k < count; ++k) strip[k] = column_taps(x0 + k);
        for (int32_t y = 0; y < dst_height; ++y) {
            const Taps row = row_taps(y);
            uint8_t *dst = dst_rows[y] + static_cast<size_t>(x0) * components;
            for (int32_t k = 0; k < count; ++k)
                pixel(dst + static_cast<size_t>(k) * components, strip[k], row);
        }
    }
}
