// Bicubic filter in 16.16 fixed point: the 4 x 4 neighbourhood, the rising
// loop order, the skipping of neighbours outside the picture and the
// renormalisation of the double form (bicubic_double.cpp), in integers.
// The ratio is turned into 16.16 once per call; nothing else is floating
// point.
//
// Positions are products of the truncated ratio and the destination index
// plus the offset, so they fall short of the double form's by up to
// x / 65536 pixel. Kernel powers, weight products and light products are
// each floored to 1/65536, and the 12-bit encoder is coarse near black: in
// enlargements of dark areas the bytes part from the double form's by
// several steps.
#include <cstdint>

#include "resample/bicubic_taps.h"
#include "resample/fixed_arith.h"
#include "resample/resample.h"

namespace {

using taps = bicubic_taps<int32_t>;

taps fixed_taps_at(int32_t position, int32_t size) {
    taps t{};
    t.first = int64_t{position >> 16} - 1;  // arithmetic: floor
    for (int k = 0; k < 4; ++k) {
        const int64_t index = t.first + k;
        t.inside[k] = index >= 0 && index < size;
        t.weight[k] = t.inside[k] ? image_bicubic_weight_fixed(
                                        position, static_cast<int32_t>(index))
                                  : 0;
    }
    return t;
}

// One destination pixel: rows, then columns, in rising order.
void fixed_pixel(const image_rows src_rows, uint8_t *dst, int32_t components,
                 int32_t adobe, const taps &tx, const taps &ty) {
    const int32_t *lin = image_lin_fixed;
    int32_t sum[4] = {0, 0, 0, 0};
    int32_t total = 0;
    for (int r = 0; r < 4; ++r) {
        if (!ty.inside[r]) continue;
        const uint8_t *row = src_rows[ty.first + r];
        for (int c = 0; c < 4; ++c) {
            if (!tx.inside[c]) continue;
            const int32_t w = fixmul(ty.weight[r], tx.weight[c]);
            const uint8_t *s =
                row + static_cast<size_t>(tx.first + c) * components;
            if (adobe) {
                const fixed_rgb m = fix_adobe(lin[s[0]], lin[s[1]], lin[s[2]]);
                sum[0] = fix_add(sum[0], fixmul(w, m.r));
                sum[1] = fix_add(sum[1], fixmul(w, m.g));
                sum[2] = fix_add(sum[2], fixmul(w, m.b));
            } else {
                for (int32_t k = 0; k < components; ++k)
                    sum[k] = fix_add(sum[k], fixmul(w, lin[s[k]]));
            }
            total = fix_add(total, w);
        }
    }
    // With no weight to divide by (no neighbour in reach, or weights that
    // floor to nothing) the sum is encoded as it is; it is close to 0.
    for (int32_t k = 0; k < components; ++k)
        dst[k] = image_fixed_to_byte(total != 0 ? fix_divide(sum[k], total)
                                                : sum[k]);
}

// Whether every position along an axis, and the shifted index of every
// tap around it, fits 16.16 without wrapping: destination index (count - 1)
// shifted by 16 bits, so at most 32767; the first position offset << 16 and
// the last one offset + (count - 1) x ratio, whose taps reach one column
// before and two after. Positions rise with the index, so the two ends
// bound them all. Past this a position would wrap to a place that has
// nothing to do with its pixel.
bool fixed_axis_fits(int32_t offset, int32_t count, int32_t ratio_fixed) {
    if (count - 1 > 32767) return false;
    constexpr int64_t lowest = int64_t{-32768} << 16, highest = int64_t{32767} << 16;
    const int64_t first = int64_t{offset} * kFixedOne;
    const int64_t last = first + int64_t{ratio_fixed} * (count - 1);
    return first - kFixedOne >= lowest && last + 2 * kFixedOne <= highest;
}

// The matrix only has meaning for three components, and no caller sets the
// flag for any other; elsewhere it is ignored rather than read past a pixel.
int32_t matrix_wanted(int32_t components, int32_t adobe) {
    return (adobe != 0 && components == 3) ? 1 : 0;
}

}  // namespace

// Keys' cubic convolution with a = -1, as in the double form, with each
// power floored to 1/65536 and the whole multipliers 2, 5 and 8 applied to
// the floored powers. At a half position it gives 0xA000 and -0x2000,
// 0.625 and -0.125 exactly.
int32_t image_bicubic_weight_fixed(int32_t position, int32_t index) {
    const int32_t signed_d = fix_sub(position, fix_from_index(index));
    const int32_t d = signed_d < 0 ? fix_sub(0, signed_d) : signed_d;
    const int32_t d2 = fixmul(d, d);
    const int32_t d3 = fixmul(d, d2);
    if (d < kFixedOne) return fix_add(fix_sub(d3, fix_scale(2, d2)), kFixedOne);
    if (d < 2 * kFixedOne)
        return fix_add(fix_sub(fix_sub(fix_scale(5, d2), d3), fix_scale(8, d)),
                       4 * kFixedOne);
    return 0;
}

// Writes nothing for components outside 1..4.
void image_bicubic_pixel_fixed(const image_rows src_rows, image_rows dst_rows,
                               int32_t src_width, int32_t src_height,
                               int32_t x, int32_t y, int32_t px, int32_t py,
                               int32_t components, int32_t adobe) {
    if (components < 1 || components > 4) return;
    fixed_pixel(src_rows, dst_rows[y] + static_cast<size_t>(x) * components,
                components, matrix_wanted(components, adobe),
                fixed_taps_at(px, src_width), fixed_taps_at(py, src_height));
}

// Returns without writing when the arguments admit no picture: no
// destination size, a ratio that is not a positive finite number, or
// components outside 1..4 (these go to the double form, which refuses
// them). A call whose positions 16.16 cannot hold (see fixed_axis_fits),
// or whose ratio is 32768 or more, is handed to the double form whole, so
// that a host gets the picture it asked for rather than wrapped positions.
void image_resample_bicubic_fixed(const image_rows src_rows,
                                  image_rows dst_rows, int32_t x_offset,
                                  int32_t y_offset, int32_t src_width,
                                  double ratio, int32_t src_height,
                                  int32_t dst_width, int32_t dst_height,
                                  int32_t components, int32_t adobe) {
    const bool usable = dst_width > 0 && dst_height > 0 && ratio > 0.0 &&
                        ratio < 32768.0 && components >= 1 && components <= 4;
    const int32_t ratio_fixed = usable ? fix_ratio(ratio) : 0;
    if (!usable || !fixed_axis_fits(x_offset, dst_width, ratio_fixed) ||
        !fixed_axis_fits(y_offset, dst_height, ratio_fixed)) {
        image_resample_bicubic_double(src_rows, dst_rows, x_offset, y_offset,
                                      src_width, ratio, src_height, dst_width,
                                      dst_height, components, adobe);
        return;
    }
    const int32_t matrix = matrix_wanted(components, adobe);
    // fixmul(ratio_fixed, index << 16) is the exact product ratio_fixed x
    // index, which the bounds above keep inside 32 bits.
    const auto position = [&](int32_t index, int32_t offset) {
        return fix_add(fixmul(ratio_fixed, fix_from_index(index)),
                       fix_from_index(offset));
    };
    bicubic_strips<taps>(
        dst_rows, dst_width, dst_height, components,
        [&](int32_t x) { return fixed_taps_at(position(x, x_offset), src_width); },
        [&](int32_t y) { return fixed_taps_at(position(y, y_offset), src_height); },
        [&](uint8_t *dst, const taps &tx, const taps &ty) {
            fixed_pixel(src_rows, dst, components, matrix, tx, ty);
        });
}
