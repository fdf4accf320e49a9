// Box filter in double precision, the reference form of the box family.
//
// The two-stage scheme lives in box_skeleton.h; this unit supplies its
// numbers: light and weights in double, window ends as running sums.
#include <cstdint>

#include "resample/box_skeleton.h"
#include "resample/resample.h"

namespace {

// Adds one source value to the row(s): the boundary row is split between
// the window that closes (weight) and the one that opens (rest).
inline void accumulate_one(double *current, double *next, int32_t k, double v,
                           double weight, double rest) {
    if (next) {
        current[k] = current[k] + v * weight;
        next[k] = next[k] + rest * v;
    } else {
        current[k] = current[k] + v;
    }
}

// The numbers of the double form for the shared scheme.
struct double_box {
    using value = double;
    using step = double;  // the ratio
    static constexpr double one = 1.0;
    static double at(int32_t i) { return i; }
    static double add(double a, double b) { return a + b; }
    static double sub(double a, double b) { return a - b; }
    // Window ends as a running sum from the first used pixel: they carry
    // the rounding of repeated addition, and may drift past an integer.
    struct ends {
        ends(int32_t first, double ratio) : pos(first + ratio), step(ratio) {}
        double end() const { return pos; }
        void advance() { pos = pos + step; }
        double pos, step;
    };
    static double norm(double row_weight, double column_weight) {
        return row_weight * column_weight;
    }
    static double share(double a, double frac) { return a * frac; }
    static double rest(double a, double frac) { return a * (1.0 - frac); }
    static uint8_t encode(double t, double norm) {
        return image_linear_to_byte(t / norm);
    }
    static void accumulate(const uint8_t *samples, double *current,
                           double *next, int32_t n, int32_t adobe,
                           double weight) {
        image_box_accumulate_double(samples, current, next, n, adobe, weight);
    }
    static void row(uint8_t *dst_row, const double *current, double row_weight,
                    int32_t columns, int32_t dst_width, int32_t components,
                    double ratio) {
        image_box_row_double(dst_row, current, row_weight, columns, dst_width,
                             components, ratio);
    }
};

}  // namespace

void image_box_accumulate_double(const uint8_t *samples, double *current,
                                 double *next, int32_t n, int32_t adobe,
                                 double weight) {
    const double rest = 1.0 - weight;
    if (!adobe) {
        if (next) {
            for (int32_t k = 0; k < n; ++k) {
                const double v = image_lin_double[samples[k]];
                current[k] = current[k] + v * weight;
                next[k] = next[k] + rest * v;
            }
        } else {
            // A row wholly inside the window: no multiplication at all.
            for (int32_t k = 0; k < n; ++k)
                current[k] = current[k] + image_lin_double[samples[k]];
        }
        return;
    }
    // The matrix acts on each source pixel in linear light, before any
    // weighting, so a negative light value stays negative in the sums. The
    // bound walks whole pixels only, whatever n a caller hands in.
    const double *lin = image_lin_double;
    double m[9];  // the floats widened; products and sums are in double
    for (int i = 0; i < 9; ++i) m[i] = image_adobe_matrix[i];
    for (int32_t k = 0; k + 3 <= n; k += 3) {
        const double r = lin[samples[k]];
        const double g = lin[samples[k + 1]];
        const double b = lin[samples[k + 2]];
        const double r2 = m[0] * r + m[1] * g + m[2] * b;
        const double g2 = m[3] * r + m[4] * g + m[5] * b;
        const double b2 = m[6] * r + m[7] * g + m[8] * b;
        accumulate_one(current, next, k, r2, weight, rest);
        accumulate_one(current, next, k + 1, g2, weight, rest);
        accumulate_one(current, next, k + 2, b2, weight, rest);
    }
}

// src_width bounds the walk over `current`: the driver passes the number of
// columns the accumulator actually holds, never more than the picture has.
void image_box_row_double(uint8_t *dst_row, const double *current,
                          double row_weight, int32_t src_width,
                          int32_t dst_width, int32_t components, double ratio) {
    box_row<double_box>(dst_row, current, row_weight, src_width, dst_width,
                        components, ratio);
}

void image_resample_box_double(const image_rows src_rows, image_rows dst_rows,
                               int32_t x_offset, int32_t y_offset,
                               int32_t src_width, double ratio,
                               int32_t src_height, int32_t dst_width,
                               int32_t dst_height, int32_t components,
                               int32_t adobe) {
    box_resample<double_box>(src_rows, dst_rows, x_offset, y_offset, src_width,
                             ratio, src_height, dst_width, dst_height,
                             components, adobe, ratio);
}
