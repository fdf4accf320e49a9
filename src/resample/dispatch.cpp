// The two resampler entry points. Each picks one numeric form of its filter
// from the processor level and the component count and hands every other
// argument on unchanged. All choosing happens in select_form; each filter's
// forms are listed once, so a new form only has to be entered in its list.
#include <cstdint>

#include "resample/resample.h"

namespace {

// A numeric form: the arguments of image_resample_fn less the level.
using resample_form_fn = void (*)(const image_rows, image_rows, int32_t,
                                  int32_t, int32_t, double, int32_t, int32_t,
                                  int32_t, int32_t, int32_t);

enum class numeric_form { double_precision, vector, fixed_point };

// Routing by level:
//   1 (basic)                      -> double precision, any components
//   2 or 3 (SSE2, SSE3), 3 comps   -> four-lane single precision, which
//                                     needs nothing beyond SSE2, with or
//                                     without the Adobe flag (double
//                                     precision in builds without SSE2)
//   2 or 3, other component counts -> double precision
//   any other level, 0 and below   -> 16.16 fixed point
// utils_check_hw only reports 1 to 3; fixed point serves hosts that pass
// some other level.
constexpr numeric_form select_form(int32_t level, int32_t components) {
    if (level == IMAGE_HW_BASIC) return numeric_form::double_precision;
    if (level == IMAGE_HW_SSE2 || level == IMAGE_HW_SSE3)
        return components == 3 ? numeric_form::vector
                               : numeric_form::double_precision;
    return numeric_form::fixed_point;
}

static_assert(select_form(1, 3) == numeric_form::double_precision);
static_assert(select_form(2, 3) == numeric_form::vector);
static_assert(select_form(3, 3) == numeric_form::vector);
static_assert(select_form(3, 1) == numeric_form::double_precision);
static_assert(select_form(2, 4) == numeric_form::double_precision);
static_assert(select_form(0, 3) == numeric_form::fixed_point);
static_assert(select_form(4, 1) == numeric_form::fixed_point);
static_assert(select_form(-1, 3) == numeric_form::fixed_point);

struct filter_forms {
    resample_form_fn double_precision;
    resample_form_fn vector;
    resample_form_fn fixed_point;
};

constexpr resample_form_fn pick(const filter_forms &forms,
                                numeric_form form) {
    switch (form) {
        case numeric_form::vector:
            return forms.vector;
        case numeric_form::fixed_point:
            return forms.fixed_point;
        case numeric_form::double_precision:
            break;
    }
    return forms.double_precision;
}

// The four-lane forms need SSE2, which every x86-64 processor has and
// builds for other processors lack; there the double form, the reference
// arithmetic, stands in for them.
#if defined(IMAGE_RESAMPLE_SSE2)
constexpr resample_form_fn box_vector = image_resample_box_vector;
constexpr resample_form_fn bicubic_vector = image_resample_bicubic_vector;
#else
constexpr resample_form_fn box_vector = image_resample_box_double;
constexpr resample_form_fn bicubic_vector = image_resample_bicubic_double;
#endif

constexpr filter_forms box_forms = {
    image_resample_box_double,
    box_vector,
    image_resample_box_fixed,
};

constexpr filter_forms bicubic_forms = {
    image_resample_bicubic_double,
    bicubic_vector,
    image_resample_bicubic_fixed,
};

}  // namespace

extern "C" void image_resample_box(int32_t level, const image_rows src_rows,
                                   image_rows dst_rows, int32_t x_offset,
                                   int32_t y_offset, int32_t src_width,
                                   double ratio, int32_t src_height,
                                   int32_t dst_width, int32_t dst_height,
                                   int32_t components, int32_t adobe) {
    pick(box_forms, select_form(level, components))(
        src_rows, dst_rows, x_offset, y_offset, src_width, ratio, src_height,
        dst_width, dst_height, components, adobe);
}

extern "C" void image_resample_bicubic(int32_t level, const image_rows src_rows,
                                       image_rows dst_rows, int32_t x_offset,
                                       int32_t y_offset, int32_t src_width,
                                       double ratio, int32_t src_height,
                                       int32_t dst_width, int32_t dst_height,
                                       int32_t components, int32_t adobe) {
    pick(bicubic_forms, select_form(level, components))(
        src_rows, dst_rows, x_offset, y_offset, src_width, ratio, src_height,
        dst_width, dst_height, components, adobe);
}
