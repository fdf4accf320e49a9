// Bicubic filter in single precision on four-lane SSE2 vectors, for
// three-component pictures.
//
// The sample points, the 4 x 4 neighbourhood, the skipping of neighbours
// outside the picture and the renormalisation are those of the double form
// (bicubic_double.cpp). A pixel's three components ride in lanes 0..2 of one
// vector, so each neighbour costs one vector multiply and one vector add,
// and the component loop is gone. The kernel itself stays in double, as in
// the double form, and only its result is rounded to single.
//
// Every product and every sum is rounded to single by itself, and the
// steps taken in double are named as such.
#include "resample/bicubic_taps.h"
#include "resample/resample.h"

#if defined(IMAGE_RESAMPLE_SSE2)

#include "resample/vector_arith.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace {

using taps = bicubic_taps<float>;

struct matrix_columns {
    __m128 red, green, blue;
};

// Light of the pixel at s: its own three samples in lanes 0..2, lane 3
// zero; nothing past the pixel is read, so the last pixel of a row is as
// safe as any. With the matrix, lane c is (M[c][0] r + M[c][1] g) +
// M[c][2] b in single, the order of the double form.
inline __m128 light(const uint8_t *s, const matrix_columns *m) {
    const float *lin = image_lin_float;
    if (!m) return _mm_setr_ps(lin[s[0]], lin[s[1]], lin[s[2]], 0.0f);
    const __m128 r = _mm_mul_ps(_mm_set1_ps(lin[s[0]]), m->red);
    const __m128 g = _mm_mul_ps(_mm_set1_ps(lin[s[1]]), m->green);
    const __m128 b = _mm_mul_ps(_mm_set1_ps(lin[s[2]]), m->blue);
    return _mm_add_ps(_mm_add_ps(r, g), b);
}

// One destination pixel; rows, then columns, in rising order.
void pixel(const image_rows src_rows, uint8_t *dst, const taps &tx,
           const taps &ty, const matrix_columns *m) {
    __m128 sum = _mm_setzero_ps();
    __m128 total = _mm_setzero_ps();
    for (int r = 0; r < 4; ++r) {
        if (!ty.inside[r]) continue;
        const uint8_t *row = src_rows[ty.first + r];
        for (int c = 0; c < 4; ++c) {
            if (!tx.inside[c]) continue;
            const __m128 w = _mm_set1_ps(tx.weight[c] * ty.weight[r]);
            const __m128 v =
                light(row + static_cast<size_t>(tx.first + c) * 3, m);
            sum = _mm_add_ps(sum, _mm_mul_ps(v, w));
            total = _mm_add_ps(total, w);
        }
    }
    // No neighbour of non-zero weight gives 0 / 0 in every lane; the
    // encoder turns that not-a-number into 0.
    alignas(16) float q[4];
    _mm_store_ps(q, _mm_div_ps(sum, total));
    for (int c = 0; c < 3; ++c)
        dst[c] = image_linear_to_byte(static_cast<double>(q[c]));
}

}  // namespace

// Returns without writing when the arguments admit no picture: no
// destination size, a ratio that is not a positive finite number, or other
// than three components, the only count this form is made for.
void image_resample_bicubic_vector(const image_rows src_rows,
                                   image_rows dst_rows, int32_t x_offset,
                                   int32_t y_offset, int32_t src_width,
                                   double ratio, int32_t src_height,
                                   int32_t dst_width, int32_t dst_height,
                                   int32_t components, int32_t adobe) {
    if (dst_width <= 0 || dst_height <= 0) return;
    if (!(ratio > 0.0) || !std::isfinite(ratio)) return;
    if (components != 3) return;
    const float *a = image_adobe_matrix;
    const matrix_columns by_columns = {_mm_setr_ps(a[0], a[3], a[6], 0.0f),
                                       _mm_setr_ps(a[1], a[4], a[7], 0.0f),
                                       _mm_setr_ps(a[2], a[5], a[8], 0.0f)};
    const matrix_columns *m = adobe ? &by_columns : nullptr;

    bicubic_strips<taps>(
        dst_rows, dst_width, dst_height, 3,
        [&](int32_t x) {
            return bicubic_taps_at<float>(x * ratio + x_offset, src_width);
        },
        [&](int32_t y) {
            return bicubic_taps_at<float>(y * ratio + y_offset, src_height);
        },
        [&](uint8_t *dst, const taps &tx, const taps &ty) {
            pixel(src_rows, dst, tx, ty, m);
        });
}

#endif  // IMAGE_RESAMPLE_SSE2
