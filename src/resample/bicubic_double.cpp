// Bicubic filter in double precision, the reference form of the bicubic
// family.
//
// An interpolator: each destination pixel is computed alone from the 4 x 4
// source pixels around its sample point, in linear light, whatever the
// ratio. Pixel (x, y) samples at (x * ratio + x_offset, y * ratio +
// y_offset), whole coordinates being pixel centres, so pixel (0, 0) is the
// source pixel at the offsets. Neighbours outside the whole decoded picture
// are skipped, not replicated, and the division by the total weight
// renormalises what remains.
#include <cmath>
#include <cstdint>

#include "resample/bicubic_taps.h"
#include "resample/resample.h"

namespace {

using taps = bicubic_taps<double>;

// One destination pixel from its column and row taps. The weight of a
// neighbour is its column weight times its row weight; sums run over rows,
// then columns, in rising order.
void bicubic_pixel(const image_rows src_rows, uint8_t *dst, int32_t components,
                   int32_t adobe, const taps &tx,
                   const taps &ty) {
    double sum[4] = {0.0, 0.0, 0.0, 0.0};
    double total = 0.0;
    const double *lin = image_lin_double;
    double m[9];  // the floats widened; products and sums are in double
    for (int i = 0; i < 9; ++i) m[i] = image_adobe_matrix[i];
    for (int r = 0; r < 4; ++r) {
        if (!ty.inside[r]) continue;
        const double ky = ty.weight[r];
        const uint8_t *row = src_rows[ty.first + r];
        for (int c = 0; c < 4; ++c) {
            if (!tx.inside[c]) continue;
            const double w = tx.weight[c] * ky;
            const uint8_t *s =
                row + static_cast<size_t>(tx.first + c) * components;
            if (adobe) {
                const double red = lin[s[0]];
                const double green = lin[s[1]];
                const double blue = lin[s[2]];
                const double r2 = m[0] * red + m[1] * green + m[2] * blue;
                const double g2 = m[3] * red + m[4] * green + m[5] * blue;
                const double b2 = m[6] * red + m[7] * green + m[8] * blue;
                sum[0] = sum[0] + r2 * w;
                sum[1] = sum[1] + g2 * w;
                sum[2] = sum[2] + b2 * w;
            } else {
                for (int32_t k = 0; k < components; ++k)
                    sum[k] = sum[k] + lin[s[k]] * w;
            }
            total = total + w;
        }
    }
    // A sample point with no neighbour of non-zero weight gives 0 / 0; the
    // encoder turns that not-a-number into 0.
    for (int32_t k = 0; k < components; ++k)
        dst[k] = image_linear_to_byte(sum[k] / total);
}

// The scratch holds four components; no caller has more.
bool components_usable(int32_t components) {
    return components >= 1 && components <= 4;
}

// The matrix only has meaning for three components, and no caller sets the
// flag for any other; elsewhere it is ignored rather than read past a pixel.
int32_t matrix_wanted(int32_t components, int32_t adobe) {
    return (adobe != 0 && components == 3) ? 1 : 0;
}

}  // namespace

double image_bicubic_weight_double(int32_t index, double position) {
    // Keys' cubic convolution with a = -1 (not the a = -0.5 of Catmull-Rom):
    // 1 at the centre, 0 at distances 1 and 2, negative lobes in between.
    const double d = std::fabs(position - index);
    const double d2 = d * d;
    const double d3 = d2 * d;
    if (d < 1.0) return (d3 - (d2 + d2)) + 1.0;
    if (d < 2.0) return (-8.0 * d + (5.0 * d2 - d3)) + 4.0;
    return 0.0;
}

// Writes nothing for components outside 1..4 or a position that is not a
// finite number.
void image_bicubic_pixel_double(const image_rows src_rows, image_rows dst_rows,
                                int32_t src_width, int32_t src_height,
                                int32_t x, int32_t y, int32_t components,
                                int32_t adobe, double px, double py) {
    if (!components_usable(components)) return;
    if (!std::isfinite(px) || !std::isfinite(py)) return;
    bicubic_pixel(src_rows, dst_rows[y] + static_cast<size_t>(x) * components,
                  components, matrix_wanted(components, adobe),
                  bicubic_taps_at<double>(px, src_width),
                  bicubic_taps_at<double>(py, src_height));
}

// Returns without writing when the arguments admit no picture: no
// destination size, a ratio that is not a positive finite number, or
// components outside 1..4.
void image_resample_bicubic_double(const image_rows src_rows,
                                   image_rows dst_rows, int32_t x_offset,
                                   int32_t y_offset, int32_t src_width,
                                   double ratio, int32_t src_height,
                                   int32_t dst_width, int32_t dst_height,
                                   int32_t components, int32_t adobe) {
    if (dst_width <= 0 || dst_height <= 0) return;
    if (!(ratio > 0.0) || !std::isfinite(ratio)) return;
    if (!components_usable(components)) return;
    const int32_t matrix = matrix_wanted(components, adobe);

    bicubic_strips<taps>(
        dst_rows, dst_width, dst_height, components,
        [&](int32_t x) {
            return bicubic_taps_at<double>(x * ratio + x_offset, src_width);
        },
        [&](int32_t y) {
            return bicubic_taps_at<double>(y * ratio + y_offset, src_height);
        },
        [&](uint8_t *dst, const taps &tx, const taps &ty) {
            bicubic_pixel(src_rows, dst, components, matrix, tx, ty);
        });
}
