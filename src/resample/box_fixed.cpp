// Box filter in 16.16 fixed point: the scheme of the double form
// (box_skeleton.h) with no floating point per pixel. Decode, matrix,
// weights, sums and the encoder are integer; the ratio is turned into 16.16
// once per call, truncated.
//
// Window ends are products of the truncated ratio and the window's number,
// not running sums, so they do not drift; they fall short of the exact ends
// by up to dst_width / 65536 pixel. Vertically a boundary row leaves the
// remainder v - fixmul(w, v) to the next window, so no light is lost between
// rows; horizontally the next window gets a second product, and a unit can
// be lost there.
#include <cstdint>

#include "resample/box_skeleton.h"
#include "resample/fixed_arith.h"
#include "resample/resample.h"

namespace {

// Adds one light value to the row(s). At a boundary row the closing window
// takes fixmul(weight, v) and the opening one exactly what is left.
inline void accumulate_one(int32_t *current, int32_t *next, int32_t k,
                           int32_t v, int32_t weight) {
    if (next) {
        const int32_t t = fixmul(weight, v);
        current[k] = fix_add(current[k], t);
        next[k] = fix_add(next[k], fix_sub(v, t));
    } else {
        current[k] = fix_add(current[k], v);
    }
}

// The numbers of the fixed-point form for the shared scheme.
struct fixed_box {
    using value = int32_t;
    using step = int32_t;  // the ratio in 16.16, truncated
    static constexpr int32_t one = kFixedOne;
    static int32_t at(int32_t i) { return fix_from_index(i); }
    static int32_t add(int32_t a, int32_t b) { return fix_add(a, b); }
    static int32_t sub(int32_t a, int32_t b) { return fix_sub(a, b); }
    // Window k ends at first + (k + 1) x ratio, a product each time.
    struct ends {
        ends(int32_t first, int32_t ratio_fixed)
            : base(fix_from_index(first)), step(ratio_fixed) {}
        int32_t end() const { return fix_add(fix_scale(k + 1, step), base); }
        void advance() { ++k; }
        int32_t base, step, k = 0;
    };
    static int32_t norm(int32_t row_weight, int32_t column_weight) {
        return fixmul(column_weight, row_weight);
    }
    static int32_t share(int32_t a, int32_t frac) { return fixmul(frac, a); }
    static int32_t rest(int32_t a, int32_t frac) {
        return fixmul(fix_sub(kFixedOne, frac), a);
    }
    // Two weights small enough for their product to floor to 0 leave
    // nothing to divide by; the sum, itself close to 0, is encoded as it is.
    static uint8_t encode(int32_t t, int32_t norm) {
        return image_fixed_to_byte(norm != 0 ? fix_divide(t, norm) : t);
    }
    static void accumulate(const uint8_t *samples, int32_t *current,
                           int32_t *next, int32_t n, int32_t adobe,
                           int32_t weight) {
        image_box_accumulate_fixed(samples, current, next, weight, n, adobe);
    }
    static void row(uint8_t *dst_row, const int32_t *current,
                    int32_t row_weight, int32_t columns, int32_t dst_width,
                    int32_t components, int32_t ratio_fixed) {
        image_box_row_fixed(dst_row, current, row_weight, columns, dst_width,
                            components, ratio_fixed);
    }
};

// The largest light a window can gather, bounded from above: an
// accumulator entry holds at most peak x ratio (plus the slack of the
// floored products) and a window sums ratio of those. `peak` is the
// brightest light one source pixel can have: full light, or with the
// matrix the 1.398 of a saturated red.
constexpr int64_t window_light(int64_t ratio_fixed, int64_t peak) {
    const int64_t column = peak * ratio_fixed / kFixedOne + 2;
    return column * ratio_fixed / kFixedOne + 1;
}
constexpr int64_t kPeakPlain = kFixedOne;
constexpr int64_t kPeakAdobe = 91642;  // matrix entry R'R; the rest of R' is negative

// The whole ratios that still fit: 181 for full light (181.02 is where
// ratio^2 x 65536 reaches 2^31), 153 with the matrix.
static_assert(window_light(181 * kFixedOne, kPeakPlain) <= INT32_MAX &&
              window_light(182 * kFixedOne, kPeakPlain) > INT32_MAX);
static_assert(window_light(153 * kFixedOne, kPeakAdobe) <= INT32_MAX &&
              window_light(154 * kFixedOne, kPeakAdobe) > INT32_MAX);

// Whether a call stays inside the range of 16.16 numbers, so that nothing
// in it wraps:
// - the light of a whole window, and its weight ratio^2, fit 32 bits;
// - the last window ends by pixel boundary 32767 on both axes (boundary
//   32768 would wrap negative). With a ratio of 1 or more every pixel a
//   stage reads begins before the end of the window it serves, so no
//   boundary it compares with lies further out. The planner's plans meet
//   this for pictures under 32768 pixels along each axis.
// Under a ratio of 1 the box filter is no resampler: each source row
// closes a window whose start lies ever further back, and its weights turn
// negative and grow until they wrap. Such calls are not served here either.
bool fixed_box_fits(int32_t y_offset, double ratio, int32_t dst_width,
                    int32_t dst_height, int32_t adobe, int32_t components) {
    // Past 256 the window bound fails anyway; checking first keeps
    // ratio_fixed and the products below well inside their types.
    if (!(ratio >= 1.0) || !(ratio < 256.0)) return false;
    const int64_t ratio_fixed = fix_ratio(ratio);
    const int64_t peak = adobe != 0 && components == 3 ? kPeakAdobe : kPeakPlain;
    if (window_light(ratio_fixed, peak) > INT32_MAX) return false;
    constexpr int64_t last_boundary = int64_t{32767} << 16;
    return int64_t{y_offset} * kFixedOne + dst_height * ratio_fixed <=
               last_boundary &&
           dst_width * ratio_fixed <= last_boundary;
}

}  // namespace

// `next` may be null: a row wholly inside the window is added as it is,
// with no multiplication.
void image_box_accumulate_fixed(const uint8_t *samples, int32_t *current,
                                int32_t *next, int32_t weight, int32_t n,
                                int32_t adobe) {
    const int32_t *lin = image_lin_fixed;
    if (!adobe) {
        if (next) {
            for (int32_t k = 0; k < n; ++k)
                accumulate_one(current, next, k, lin[samples[k]], weight);
        } else {
            for (int32_t k = 0; k < n; ++k)
                current[k] = fix_add(current[k], lin[samples[k]]);
        }
        return;
    }
    // The matrix acts on each source pixel before any weighting; the bound
    // walks whole pixels only, whatever n a caller hands in.
    for (int32_t k = 0; k + 3 <= n; k += 3) {
        const fixed_rgb m = fix_adobe(lin[samples[k]], lin[samples[k + 1]],
                                      lin[samples[k + 2]]);
        accumulate_one(current, next, k, m.r, weight);
        accumulate_one(current, next, k + 1, m.g, weight);
        accumulate_one(current, next, k + 2, m.b, weight);
    }
}

// src_width bounds the walk over `current`: the driver passes the number of
// columns the accumulator actually holds, never more than the picture has.
void image_box_row_fixed(uint8_t *dst_row, const int32_t *current,
                         int32_t row_weight, int32_t src_width,
                         int32_t dst_width, int32_t components,
                         int32_t ratio_fixed) {
    box_row<fixed_box>(dst_row, current, row_weight, src_width, dst_width,
                       components, ratio_fixed);
}

// A call that fixed_box_fits turns away (past the range of 16.16 numbers,
// or under ratio 1) is handed to the double form whole, so that a host gets
// the picture it asked for rather than wrapped windows. The calls that
// every box form refuses write nothing, here as there.
void image_resample_box_fixed(const image_rows src_rows, image_rows dst_rows,
                              int32_t x_offset, int32_t y_offset,
                              int32_t src_width, double ratio,
                              int32_t src_height, int32_t dst_width,
                              int32_t dst_height, int32_t components,
                              int32_t adobe) {
    if (!fixed_box_fits(y_offset, ratio, dst_width, dst_height, adobe,
                        components)) {
        image_resample_box_double(src_rows, dst_rows, x_offset, y_offset,
                                  src_width, ratio, src_height, dst_width,
                                  dst_height, components, adobe);
        return;
    }
    box_resample<fixed_box>(src_rows, dst_rows, x_offset, y_offset, src_width,
                            ratio, src_height, dst_width, dst_height,
                            components, adobe, fix_ratio(ratio));
}
