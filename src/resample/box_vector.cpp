// Box filter in single precision on four-lane SSE2 vectors.
//
// The windows, the two accumulator rows, the split of a boundary row, the
// tail flushes and the offsets are those of the double form (box_double.cpp);
// only the number format and the shape of the accumulator rows differ. The
// accumulators cover the used part of a source row widened to whole aligned
// blocks of 16 samples, so the vertical stage, which runs inside the driver,
// works in aligned four-lane loads and stores with no scalar tail.
//
// Every product and every sum is rounded to single by itself, and where a
// step is taken in double it is said so.
#include "resample/resample.h"

#if defined(IMAGE_RESAMPLE_SSE2)

#include "resample/box_skeleton.h"
#include "resample/vector_arith.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// The Adobe matrix by columns, lane 3 zero, so that one pixel's three
// outputs come from three broadcasts, three products and two sums.
struct matrix_columns {
    __m128 red, green, blue;
};

matrix_columns adobe_columns() {
    const float *m = image_adobe_matrix;
    return {_mm_setr_ps(m[0], m[3], m[6], 0.0f),
            _mm_setr_ps(m[1], m[4], m[7], 0.0f),
            _mm_setr_ps(m[2], m[5], m[8], 0.0f)};
}

// Light of one pixel in sRGB primaries: lane c is (M[c][0] r + M[c][1] g)
// + M[c][2] b in single, the order of the double form; lane 3 stays 0.
inline __m128 adobe_pixel(const matrix_columns &m, const uint8_t *s) {
    const float *lin = image_lin_float;
    const __m128 r = _mm_mul_ps(_mm_set1_ps(lin[s[0]]), m.red);
    const __m128 g = _mm_mul_ps(_mm_set1_ps(lin[s[1]]), m.green);
    const __m128 b = _mm_mul_ps(_mm_set1_ps(lin[s[2]]), m.blue);
    return _mm_add_ps(_mm_add_ps(r, g), b);
}

// Light of four samples held in the low 32 bits of a word. The decode
// stays a scalar table read per sample, but the vertical stage fetches each
// 16-sample block as two 8-byte words and shifts the samples out, which
// halves the loads of the loop: those, not the arithmetic, bound it. Every
// block lies whole inside the row's allocation, since the window is made of
// whole blocks; x86 is little-endian, so the first sample is the low byte.
inline __m128 decode4(uint64_t bytes) {
    const float *lin = image_lin_float;
    return _mm_setr_ps(lin[bytes & 255], lin[(bytes >> 8) & 255],
                       lin[(bytes >> 16) & 255], lin[(bytes >> 24) & 255]);
}

inline void load_block(const uint8_t *s, uint64_t *low, uint64_t *high) {
    std::memcpy(low, s, 8);
    std::memcpy(high, s + 8, 8);
}

// acc[0..2] = x[0..2] + acc[0..2]. A pixel's three entries are packed with
// no spare lane, so they are read and written singly and only three lanes
// are stored: entry 3 belongs to the next pixel.
inline void add3(float *acc, __m128 x) {
    const __m128 low =
        _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64 *>(acc));
    const __m128 sum = _mm_add_ps(x, _mm_movelh_ps(low, _mm_load_ss(acc + 2)));
    _mm_storel_pi(reinterpret_cast<__m64 *>(acc), sum);
    _mm_store_ss(acc + 2, _mm_movehl_ps(sum, sum));
}

// Vertical stage for a row wholly inside the window: no weight, no second
// row. `row` is the source row from the window's first sample; `length` is
// a multiple of 16 and `current` 16-byte aligned.
void accumulate_whole(const uint8_t *row, float *current, int64_t length) {
    for (int64_t k = 0; k < length; k += 16) {
        uint64_t low, high;
        load_block(row + k, &low, &high);
        const __m128 v[4] = {decode4(low), decode4(low >> 32), decode4(high),
                             decode4(high >> 32)};
        float *acc = current + k;
        for (int q = 0; q < 4; ++q)
            _mm_store_ps(acc + 4 * q,
                         _mm_add_ps(v[q], _mm_load_ps(acc + 4 * q)));
    }
}

// Vertical stage for the row in which a window ends: its share frac closes
// `current`, the rest opens `next`; each product is rounded before its sum.
void accumulate_split(const uint8_t *row, float *current, float *next,
                      int64_t length, float frac, float rest) {
    const __m128 f = _mm_set1_ps(frac);
    const __m128 r = _mm_set1_ps(rest);
    for (int64_t k = 0; k < length; k += 16) {
        uint64_t low, high;
        load_block(row + k, &low, &high);
        const __m128 v[4] = {decode4(low), decode4(low >> 32), decode4(high),
                             decode4(high >> 32)};
        float *acc = current + k;
        float *opens = next + k;
        for (int q = 0; q < 4; ++q) {
            _mm_store_ps(acc + 4 * q, _mm_add_ps(_mm_mul_ps(v[q], f),
                                                 _mm_load_ps(acc + 4 * q)));
            _mm_store_ps(opens + 4 * q, _mm_add_ps(_mm_mul_ps(v[q], r),
                                                   _mm_load_ps(opens + 4 * q)));
        }
    }
}

// With the Adobe flag the matrix needs whole pixels, so the stage walks the
// window one pixel a step from the first used sample, and stops before a
// pixel that the end of the window would cut: nothing is read or written
// outside the window.
void accumulate_whole_adobe(const uint8_t *row, float *current,
                            const image_box_window &win) {
    const matrix_columns m = adobe_columns();
    for (int64_t k = win.skip; k + 3 <= win.length; k += 3)
        add3(current + k, adobe_pixel(m, row + k));
}

void accumulate_split_adobe(const uint8_t *row, float *current, float *next,
                            const image_box_window &win, float frac,
                            float rest) {
    const matrix_columns m = adobe_columns();
    const __m128 f = _mm_set1_ps(frac);
    const __m128 r = _mm_set1_ps(rest);
    for (int64_t k = win.skip; k + 3 <= win.length; k += 3) {
        const __m128 v = adobe_pixel(m, row + k);
        add3(current + k, _mm_mul_ps(v, f));
        add3(next + k, _mm_mul_ps(v, r));
    }
}

float *accumulator_alloc(int64_t length) {
    const size_t size = static_cast<size_t>(length) * sizeof(float);
    void *p = nullptr;
    if (posix_memalign(&p, 16, size) != 0) return nullptr;
    std::memset(p, 0, size);
    return static_cast<float *>(p);
}

}  // namespace

// W = lround(dst_width x ratio) columns are covered, but the last window
// ends near dst_width x ratio, which can lie past column W - 1 (a product
// whose fraction is under one half, or window ends that drifted). Where the
// picture has column W it is taken into the window whole, with or without
// the Adobe flag, so this form and the double form close their last window
// on the same columns; where it has not, the last window closes through the
// horizontal tail flush. The end is rounded up to a whole block of 16 and
// held within the row's allocation; samples past the picture that the
// blocks drag in are summed but never reach a destination pixel, since the
// horizontal stage stops at `columns`.
image_box_window image_box_window_make(int32_t x_offset, int32_t src_width,
                                       int32_t dst_width, double ratio,
                                       int32_t components) {
    const int64_t c = components;
    const int64_t available = int64_t{src_width} - x_offset;
    const double covered = dst_width * ratio;
    // Beyond 2^31 columns the window is clamped to the row anyway; the
    // bound keeps llround and the products below in range.
    const int64_t w =
        covered < 0x1p31 ? std::llround(covered) : int64_t{1} << 31;
    int64_t end = (x_offset + w) * c;  // the sample after column W - 1
    if (x_offset + w < src_width) end += c;
    const int64_t limit = image_row_capacity(src_width, c);
    image_box_window win;
    win.first = (c * x_offset) & ~int64_t{15};
    win.skip = c * x_offset - win.first;
    win.length = std::min((end + 15) & ~int64_t{15}, limit) - win.first;
    win.columns = static_cast<int32_t>(std::min(w + 1, available));
    return win;
}

// `src_width` bounds the walk over `entries`: the driver passes the columns
// that its accumulators hold, never more than the picture has.
void image_box_row_float(uint8_t *dst_row, const float *entries,
                         int32_t src_width, int32_t dst_width,
                         int32_t components, float row_weight, float ratio) {
    // Four accumulators: no caller has more components than that.
    if (components < 1 || components > 4 || dst_width <= 0) return;
    float t[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    float column_weight = 0.0f;
    float pos = ratio;  // end of the window of pixel j, a running sum
    int32_t j = 0;
    bool emitted = false;
    for (int32_t i = 0; j < dst_width && i < src_width; ++i) {
        const float *a = entries + static_cast<size_t>(i) * components;
        if (static_cast<float>(i + 1) >= pos) {
            const float frac = pos - static_cast<float>(i);
            column_weight = column_weight + frac;
            const float norm = column_weight * row_weight;
            // The share of column i left for the next pixel, computed in
            // double from the single operands and rounded once.
            const double rest = 1.0 - static_cast<double>(frac);
            uint8_t *out = dst_row + static_cast<size_t>(j) * components;
            for (int32_t c = 0; c < components; ++c) {
                t[c] = frac * a[c] + t[c];
                const float q = t[c] / norm;
                out[c] = image_linear_to_byte(static_cast<double>(q));
                t[c] = static_cast<float>(rest * static_cast<double>(a[c]));
            }
            pos = pos + ratio;
            column_weight = 1.0f - frac;
            ++j;
            emitted = true;
        } else {
            for (int32_t c = 0; c < components; ++c) t[c] = t[c] + a[c];
            column_weight = column_weight + 1.0f;
            emitted = false;
        }
    }
    // The columns ran out with a window open: it closes on what it covers.
    if (!emitted) {
        const float norm = column_weight * row_weight;
        uint8_t *out =
            dst_row + static_cast<size_t>(dst_width - 1) * components;
        for (int32_t c = 0; c < components; ++c)
            out[c] = image_linear_to_byte(static_cast<double>(t[c] / norm));
    }
}

// The dispatcher sends only three-component pictures here, but nothing in
// the stages without the matrix depends on that, so 1 to 4 components are
// served and the Adobe flag is honoured for three only, as in the double
// form. The calls that every box form refuses (box_call_usable) write
// nothing, and a failed allocation leaves the destination as it was.
//
// The source rows must come from the library's row store, since whole
// aligned blocks are read up to 15 samples on either side of the used
// columns; the destination rows are written only within dst_width.
void image_resample_box_vector(const image_rows src_rows, image_rows dst_rows,
                               int32_t x_offset, int32_t y_offset,
                               int32_t src_width, double ratio,
                               int32_t src_height, int32_t dst_width,
                               int32_t dst_height, int32_t components,
                               int32_t adobe) {
    if (!box_call_usable(x_offset, y_offset, src_width, ratio, src_height,
                         dst_width, dst_height, components))
        return;

    const image_box_window win = image_box_window_make(
        x_offset, src_width, dst_width, ratio, components);
    float *current = accumulator_alloc(win.length);
    float *next = accumulator_alloc(win.length);
    if (!current || !next) {
        std::free(current);
        std::free(next);
        return;
    }
    const bool matrix = adobe != 0 && components == 3;
    const size_t clear = static_cast<size_t>(win.length) * sizeof(float);
    const float ratio_single = static_cast<float>(ratio);

    float row_weight = 0.0f;
    // End of the current window, kept in single; each step is taken in
    // double and rounded back.
    float pos = static_cast<float>(y_offset + ratio);
    int32_t out = 0;
    bool emitted = false;
    // As in the double form, rows past the picture are never read: a
    // window that runs off the bottom closes through the tail flush.
    for (int32_t i = y_offset; i < src_height && out < dst_height; ++i) {
        const uint8_t *row = src_rows[i] + win.first;
        if (static_cast<float>(i + 1) >= pos) {
            const float frac = pos - static_cast<float>(i);
            row_weight = row_weight + frac;
            const float rest = 1.0f - frac;
            if (matrix)
                accumulate_split_adobe(row, current, next, win, frac, rest);
            else
                accumulate_split(row, current, next, win.length, frac, rest);
            image_box_row_float(dst_rows[out], current + win.skip, win.columns,
                                dst_width, components, row_weight,
                                ratio_single);
            float *done = current;
            current = next;
            next = done;
            std::memset(next, 0, clear);
            row_weight = 1.0f - frac;
            ++out;
            pos = static_cast<float>(static_cast<double>(pos) + ratio);
            emitted = true;
        } else {
            if (matrix)
                accumulate_whole_adobe(row, current, win);
            else
                accumulate_whole(row, current, win.length);
            row_weight = row_weight + 1.0f;
            emitted = false;
        }
    }
    // The source ran out with a window open; it goes to the last row,
    // whatever row the loop had reached.
    if (!emitted)
        image_box_row_float(dst_rows[dst_height - 1], current + win.skip,
                            win.columns, dst_width, components, row_weight,
                            ratio_single);
    std::free(current);
    std::free(next);
}

#endif  // IMAGE_RESAMPLE_SSE2
