// Box filter in double precision, the reference form of the box family.
//
// Each destination pixel is the mean light of its ratio x ratio window of
// source pixels, every source pixel weighted by the area it shares with the
// window. A vertical stage adds whole source rows into an accumulator row;
// when a destination row's window closes, the horizontal stage reduces that
// accumulator row to destination pixels. The source is read once, in row
// order, and the only working memory is two accumulator rows.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "resample/resample.h"

namespace {

// Accumulator row of n doubles, 16-byte aligned, cleared: 8n bytes rounded
// up to a multiple of 16, which leaves room for a whole final vector.
double *accumulator_alloc(int32_t n) {
    const size_t size = ((static_cast<size_t>(n) + 2) * 8 - 1) & ~size_t{15};
    void *p = nullptr;
    if (posix_memalign(&p, 16, size) != 0) return nullptr;
    if (n > 0) std::memset(p, 0, static_cast<size_t>(n) * sizeof(double));
    return static_cast<double *>(p);
}

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
    // Four accumulators: no caller has more components than that.
    if (components < 1 || components > 4 || dst_width <= 0) return;
    double t[4] = {0.0, 0.0, 0.0, 0.0};
    double column_weight = 0.0;
    double pos = ratio;  // where the window of pixel j ends, as a running sum
    int32_t j = 0;
    bool emitted = false;
    for (int32_t i = 0; i < src_width && j < dst_width; ++i) {
        const double *a = current + static_cast<size_t>(i) * components;
        if (static_cast<double>(i + 1) >= pos) {
            // The window ends inside column i: its share frac closes this
            // pixel and the rest opens the next one.
            const double frac = pos - i;
            column_weight = column_weight + frac;
            // Normalise by the weight actually gathered, so windows cut
            // short by the picture's edge are not darkened.
            const double norm = row_weight * column_weight;
            uint8_t *out = dst_row + static_cast<size_t>(j) * components;
            for (int32_t c = 0; c < components; ++c) {
                t[c] = t[c] + a[c] * frac;
                out[c] = image_linear_to_byte(t[c] / norm);
                t[c] = a[c] * (1.0 - frac);
            }
            column_weight = 1.0 - frac;
            ++j;
            pos = pos + ratio;
            emitted = true;
        } else {
            for (int32_t c = 0; c < components; ++c) t[c] = t[c] + a[c];
            column_weight = column_weight + 1.0;
            emitted = false;
        }
    }
    // The columns ran out with a window open: it closes on what it covers.
    if (!emitted) {
        const double norm = row_weight * column_weight;
        uint8_t *out =
            dst_row + static_cast<size_t>(dst_width - 1) * components;
        for (int32_t c = 0; c < components; ++c)
            out[c] = image_linear_to_byte(t[c] / norm);
    }
}

// Calls that cannot be carried out without dividing by nothing or reading
// outside the rows return without writing: no destination size, a ratio
// that is not a positive finite number, components outside 1..4, a
// negative offset, or an offset that leaves no source row or column. The
// planner never produces these. Nor is anything written when working memory
// cannot be had: the rows keep what they held.
void image_resample_box_double(const image_rows src_rows, image_rows dst_rows,
                               int32_t x_offset, int32_t y_offset,
                               int32_t src_width, double ratio,
                               int32_t src_height, int32_t dst_width,
                               int32_t dst_height, int32_t components,
                               int32_t adobe) {
    if (dst_width <= 0 || dst_height <= 0) return;
    if (!(ratio > 0.0) || !std::isfinite(ratio)) return;
    if (components < 1 || components > 4) return;
    if (x_offset < 0 || y_offset < 0) return;
    if (x_offset >= src_width || y_offset >= src_height) return;

    // The filter covers W = lround(dst_width * ratio) source columns, but
    // the last window ends near dst_width * ratio, which may lie past W when
    // the product's fraction is under one half or the running sum of
    // window ends has drifted. So the accumulators carry column W as well,
    // with true source data, wherever the row has it (typically under a
    // crop); where the picture ends first, the last window closes through
    // the horizontal tail flush instead. Columns past the picture are never
    // read. Comparing before rounding keeps lround within range.
    const int64_t available = int64_t{src_width} - x_offset;
    const double covered = dst_width * ratio;
    int64_t columns = available;
    if (covered < static_cast<double>(available))
        columns = std::min<int64_t>(std::lround(covered) + 1, available);
    const int64_t samples_per_row = columns * components;
    if (samples_per_row > INT32_MAX - 2) return;
    const int32_t n = static_cast<int32_t>(samples_per_row);

    double *current = accumulator_alloc(n);
    double *next = accumulator_alloc(n);
    if (!current || !next) {
        std::free(current);
        std::free(next);
        return;
    }

    // The matrix only has meaning for three-component pictures, and no
    // caller sets the flag for any other.
    const int32_t matrix = (adobe != 0 && components == 3) ? 1 : 0;
    const size_t first_sample = static_cast<size_t>(x_offset) * components;
    double row_weight = 0.0;
    double pos = y_offset + ratio;  // end of the current window, running sum
    int32_t out = 0;
    bool emitted = false;
    // Rows past the picture are never read: with an offset, y_offset plus
    // the whole src_height would reach beyond it, and a window that runs
    // off the bottom closes through the tail flush instead.
    for (int32_t i = y_offset; i < src_height && out < dst_height; ++i) {
        const uint8_t *samples = src_rows[i] + first_sample;
        if (static_cast<double>(i + 1) >= pos) {
            const double frac = pos - i;
            row_weight = row_weight + frac;
            image_box_accumulate_double(samples, current, next, n, matrix,
                                        frac);
            image_box_row_double(dst_rows[out], current, row_weight,
                                 static_cast<int32_t>(columns), dst_width,
                                 components, ratio);
            double *done = current;
            current = next;
            next = done;
            std::memset(next, 0, static_cast<size_t>(n) * sizeof(double));
            row_weight = 1.0 - frac;
            ++out;
            pos = pos + ratio;
            emitted = true;
        } else {
            image_box_accumulate_double(samples, current, nullptr, n, matrix,
                                        1.0);
            row_weight = row_weight + 1.0;
            emitted = false;
        }
    }
    // The source ran out with a window open; it goes to the last row,
    // whatever row the loop had reached.
    if (!emitted)
        image_box_row_double(dst_rows[dst_height - 1], current, row_weight,
                             static_cast<int32_t>(columns), dst_width,
                             components, ratio);
    std::free(current);
    std::free(next);
}
