// The two-stage scheme of the box filter, shared by the double and the
// 16.16 fixed-point forms.
//
// Each destination pixel is the mean light of its ratio x ratio window of
// source pixels, every source pixel weighted by the area it shares with the
// window. A vertical stage adds whole source rows into an accumulator row;
// when a destination row's window closes, the horizontal stage reduces that
// accumulator row to destination pixels. The source is read once, in row
// order, and the only working memory is two accumulator rows.
//
// The forms differ only in their numbers, so the scheme is written once over
// a Form that supplies them:
//   value                  light, weights and positions (double, int32_t)
//   step                   the ratio as the form holds it
//   one, at(i)             1.0 and the position of pixel boundary i
//   add, sub               the form's sum and difference
//   ends(first, step)      where successive windows end: end(), advance()
//   norm(row_w, column_w)  the weight gathered by a window
//   share(a, frac)         the part of column value a inside a closing window
//   rest(a, frac)          the part carried into the window that opens
//   encode(t, norm)        the byte of a sum over its weight
//   accumulate, row        the form's vertical and horizontal stages
// A window ends inside pixel i when at(i + 1) >= end(); frac = end() - at(i)
// is that pixel's share of it.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "resample/resample.h"

// Calls that cannot be carried out without dividing by nothing or reading
// outside the rows: no destination size, a ratio that is not a positive
// finite number, components outside 1..4 (the horizontal stage has four
// accumulators), a negative offset, or an offset that leaves no source row
// or column. The planner never produces these; every box form writes
// nothing for them.
inline bool box_call_usable(int32_t x_offset, int32_t y_offset,
                            int32_t src_width, double ratio,
                            int32_t src_height, int32_t dst_width,
                            int32_t dst_height, int32_t components) {
    if (dst_width <= 0 || dst_height <= 0) return false;
    if (!(ratio > 0.0) || !std::isfinite(ratio)) return false;
    if (components < 1 || components > 4) return false;
    if (x_offset < 0 || y_offset < 0) return false;
    return x_offset < src_width && y_offset < src_height;
}

// The source columns, from x_offset, that the accumulator rows hold.
//
// The filter covers W = lround(dst_width * ratio) columns, but the last
// window ends near dst_width * ratio, which may lie past W when the
// product's fraction is under one half or the window ends have drifted. So
// the accumulators carry column W as well, with true source data, wherever
// the row has it (typically under a crop); where the picture ends first,
// the last window closes through the horizontal tail flush instead. Columns
// past the picture are never read. Comparing before rounding keeps lround
// within range.
inline int64_t box_columns(int32_t x_offset, int32_t src_width,
                           int32_t dst_width, double ratio) {
    const int64_t available = int64_t{src_width} - x_offset;
    const double covered = dst_width * ratio;
    if (covered < static_cast<double>(available))
        return std::min<int64_t>(std::lround(covered) + 1, available);
    return available;
}

// An accumulator row of n entries, 16-byte aligned, its size rounded up to
// a whole 16 bytes; the n entries are cleared.
template <typename T>
T *box_accumulator_alloc(int32_t n) {
    const size_t size = (static_cast<size_t>(n) * sizeof(T) + 15) & ~size_t{15};
    void *p = nullptr;
    if (posix_memalign(&p, 16, size) != 0) return nullptr;
    std::memset(p, 0, static_cast<size_t>(n) * sizeof(T));
    return static_cast<T *>(p);
}

// The horizontal stage: one destination row from an accumulator row whose
// entries hold `columns` pixels and a vertical weight of row_weight.
template <typename Form>
void box_row(uint8_t *dst_row, const typename Form::value *current,
             typename Form::value row_weight, int32_t columns,
             int32_t dst_width, int32_t components, typename Form::step step) {
    using value = typename Form::value;
    if (components < 1 || components > 4 || dst_width <= 0) return;
    value t[4] = {value(0), value(0), value(0), value(0)};
    value column_weight = value(0);
    typename Form::ends ends(0, step);
    int32_t j = 0;
    bool emitted = false;
    for (int32_t i = 0; i < columns && j < dst_width; ++i) {
        const value *a = current + static_cast<size_t>(i) * components;
        const value end = ends.end();
        if (Form::at(i + 1) >= end) {
            // The window ends inside column i: its share frac closes this
            // pixel and the rest opens the next one.
            const value frac = Form::sub(end, Form::at(i));
            column_weight = Form::add(column_weight, frac);
            // Normalise by the weight actually gathered, so windows cut
            // short by the picture's edge are not darkened.
            const auto norm = Form::norm(row_weight, column_weight);
            uint8_t *out = dst_row + static_cast<size_t>(j) * components;
            for (int32_t c = 0; c < components; ++c) {
                t[c] = Form::add(t[c], Form::share(a[c], frac));
                out[c] = Form::encode(t[c], norm);
                t[c] = Form::rest(a[c], frac);
            }
            column_weight = Form::sub(Form::one, frac);
            ++j;
            ends.advance();
            emitted = true;
        } else {
            for (int32_t c = 0; c < components; ++c) t[c] = Form::add(t[c], a[c]);
            column_weight = Form::add(column_weight, Form::one);
            emitted = false;
        }
    }
    // The columns ran out with a window open: it closes on what it covers.
    if (!emitted) {
        const auto norm = Form::norm(row_weight, column_weight);
        uint8_t *out = dst_row + static_cast<size_t>(dst_width - 1) * components;
        for (int32_t c = 0; c < components; ++c)
            out[c] = Form::encode(t[c], norm);
    }
}

// The driver: the vertical stage over the source rows, handing each closed
// window to the form's horizontal stage. Writes nothing for the calls that
// box_call_usable refuses, nor when working memory cannot be had: the rows
// keep what they held.
template <typename Form>
void box_resample(const image_rows src_rows, image_rows dst_rows,
                  int32_t x_offset, int32_t y_offset, int32_t src_width,
                  double ratio, int32_t src_height, int32_t dst_width,
                  int32_t dst_height, int32_t components, int32_t adobe,
                  typename Form::step step) {
    using value = typename Form::value;
    if (!box_call_usable(x_offset, y_offset, src_width, ratio, src_height,
                         dst_width, dst_height, components))
        return;
    const int64_t columns = box_columns(x_offset, src_width, dst_width, ratio);
    // The sample count is a 32-bit number, with room for the rounding of
    // the allocation.
    const int64_t samples_per_row = columns * components;
    if (samples_per_row > INT32_MAX - int32_t{16 / sizeof(value)}) return;
    const int32_t n = static_cast<int32_t>(samples_per_row);

    value *current = box_accumulator_alloc<value>(n);
    value *next = box_accumulator_alloc<value>(n);
    if (!current || !next) {
        std::free(current);
        std::free(next);
        return;
    }
    // The matrix only has meaning for three-component pictures, and no
    // caller sets the flag for any other.
    const int32_t matrix = (adobe != 0 && components == 3) ? 1 : 0;
    const size_t first_sample = static_cast<size_t>(x_offset) * components;
    value row_weight = value(0);
    typename Form::ends ends(y_offset, step);
    int32_t out = 0;
    bool emitted = false;
    // Rows past the picture are never read: with an offset, y_offset plus
    // the whole src_height would reach beyond it, and a window that runs
    // off the bottom closes through the tail flush instead.
    for (int32_t i = y_offset; i < src_height && out < dst_height; ++i) {
        const uint8_t *samples = src_rows[i] + first_sample;
        const value end = ends.end();
        if (Form::at(i + 1) >= end) {
            // The window ends inside row i, which is split between the
            // window that closes and the one that opens.
            const value frac = Form::sub(end, Form::at(i));
            row_weight = Form::add(row_weight, frac);
            Form::accumulate(samples, current, next, n, matrix, frac);
            Form::row(dst_rows[out], current, row_weight,
                      static_cast<int32_t>(columns), dst_width, components,
                      step);
            value *done = current;
            current = next;
            next = done;
            std::memset(next, 0, static_cast<size_t>(n) * sizeof(value));
            row_weight = Form::sub(Form::one, frac);
            ++out;
            ends.advance();
            emitted = true;
        } else {
            // A row wholly inside the window: no weight, no second row.
            Form::accumulate(samples, current, nullptr, n, matrix, Form::one);
            row_weight = Form::add(row_weight, Form::one);
            emitted = false;
        }
    }
    // The source ran out with a window open; it goes to the last row,
    // whatever row the loop had reached.
    if (!emitted)
        Form::row(dst_rows[dst_height - 1], current, row_weight,
                  static_cast<int32_t>(columns), dst_width, components, step);
    std::free(current);
    std::free(next);
}
