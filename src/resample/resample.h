// Resampling engine: two filters (box average, bicubic), each in numeric
// forms that the dispatchers choose by processor level and component count.
// All work happens in linear light.
#pragma once

#include <cstdint>

#include "qbimage.h"

extern "C" {

// Signature shared by both dispatchers and every numeric form (the forms
// take the same arguments less `level`).
typedef void (*image_resample_fn)(int32_t level, const image_rows src_rows,
                                  image_rows dst_rows, int32_t x_offset,
                                  int32_t y_offset, int32_t src_width,
                                  double ratio, int32_t src_height,
                                  int32_t dst_width, int32_t dst_height,
                                  int32_t components, int32_t adobe);

void image_resample_box(int32_t level, const image_rows src_rows,
                        image_rows dst_rows, int32_t x_offset,
                        int32_t y_offset, int32_t src_width, double ratio,
                        int32_t src_height, int32_t dst_width,
                        int32_t dst_height, int32_t components, int32_t adobe);

void image_resample_bicubic(int32_t level, const image_rows src_rows,
                            image_rows dst_rows, int32_t x_offset,
                            int32_t y_offset, int32_t src_width, double ratio,
                            int32_t src_height, int32_t dst_width,
                            int32_t dst_height, int32_t components,
                            int32_t adobe);

}  // extern "C"

// ---- constant tables (tables.cpp) ----
extern const double image_lin_double[256];
extern const float image_lin_float[256];
extern const int32_t image_lin_fixed[256];
extern const uint8_t image_gamma_fixed[4096];
extern const float image_adobe_matrix[9];
extern const int32_t image_adobe_matrix_fixed[9];

// ---- encoders (tables.cpp) ----
uint8_t image_linear_to_byte(double x);
uint8_t image_fixed_to_byte(int32_t v);

// ---- double forms ----
void image_resample_box_double(const image_rows src_rows, image_rows dst_rows,
                               int32_t x_offset, int32_t y_offset,
                               int32_t src_width, double ratio,
                               int32_t src_height, int32_t dst_width,
                               int32_t dst_height, int32_t components,
                               int32_t adobe);
void image_box_accumulate_double(const uint8_t *samples, double *current,
                                 double *next, int32_t n, int32_t adobe,
                                 double weight);
void image_box_row_double(uint8_t *dst_row, const double *current,
                          double row_weight, int32_t src_width,
                          int32_t dst_width, int32_t components, double ratio);

void image_resample_bicubic_double(const image_rows src_rows,
                                   image_rows dst_rows, int32_t x_offset,
                                   int32_t y_offset, int32_t src_width,
                                   double ratio, int32_t src_height,
                                   int32_t dst_width, int32_t dst_height,
                                   int32_t components, int32_t adobe);
void image_bicubic_pixel_double(const image_rows src_rows, image_rows dst_rows,
                                int32_t src_width, int32_t src_height,
                                int32_t x, int32_t y, int32_t components,
                                int32_t adobe, double px, double py);
double image_bicubic_weight_double(int32_t index, double position);

// ---- 16.16 fixed-point forms ----
// No floating point per pixel: 0x10000 is full light and a weight of 1.
// Calls past the range of 16.16 numbers are handed to the double forms.
void image_resample_box_fixed(const image_rows src_rows, image_rows dst_rows,
                              int32_t x_offset, int32_t y_offset,
                              int32_t src_width, double ratio,
                              int32_t src_height, int32_t dst_width,
                              int32_t dst_height, int32_t components,
                              int32_t adobe);
void image_box_accumulate_fixed(const uint8_t *samples, int32_t *current,
                                int32_t *next, int32_t weight, int32_t n,
                                int32_t adobe);
void image_box_row_fixed(uint8_t *dst_row, const int32_t *current,
                         int32_t row_weight, int32_t src_width,
                         int32_t dst_width, int32_t components,
                         int32_t ratio_fixed);

void image_resample_bicubic_fixed(const image_rows src_rows,
                                  image_rows dst_rows, int32_t x_offset,
                                  int32_t y_offset, int32_t src_width,
                                  double ratio, int32_t src_height,
                                  int32_t dst_width, int32_t dst_height,
                                  int32_t components, int32_t adobe);
void image_bicubic_pixel_fixed(const image_rows src_rows, image_rows dst_rows,
                               int32_t src_width, int32_t src_height,
                               int32_t x, int32_t y, int32_t px, int32_t py,
                               int32_t components, int32_t adobe);
int32_t image_bicubic_weight_fixed(int32_t position, int32_t index);

// ---- row store extent ----
// Bytes allocated for every row of an image_rows store of this width (the
// row store of image_jpeg.cpp, source and destination alike): the width
// rounded up to 32 pixels, times the components, rounded up to 16 bytes.
// The vector box filter reads whole aligned 16-sample blocks and may reach
// into that padding, never past it.
constexpr int64_t image_row_capacity(int64_t width, int64_t components) {
    return (((width + 31) & ~int64_t{31}) * components + 15) & ~int64_t{15};
}

// ---- single-precision forms on four-lane SSE2 vectors ----
// SSE2 belongs to every x86-64 processor. Builds for other processors leave
// these out, and the dispatchers run the double forms there instead.
#if defined(__SSE2__)
#define IMAGE_RESAMPLE_SSE2 1

// The part of a source row that the vector box filter accumulates: whole
// 16-sample blocks from `first` (a multiple of 16, at or before the first
// used sample) for `length` samples, so every load and store of the
// accumulator rows is an aligned vector. The first used sample lies at
// entry `skip`; the horizontal stage may use `columns` pixels from there.
struct image_box_window {
    int64_t first;    // sample of the row at entry 0
    int64_t skip;     // entry of the first used sample, 0..15
    int64_t length;   // entries, a multiple of 16
    int32_t columns;  // pixels held with true data, from entry `skip`
};

image_box_window image_box_window_make(int32_t x_offset, int32_t src_width,
                                       int32_t dst_width, double ratio,
                                       int32_t components);
void image_resample_box_vector(const image_rows src_rows, image_rows dst_rows,
                               int32_t x_offset, int32_t y_offset,
                               int32_t src_width, double ratio,
                               int32_t src_height, int32_t dst_width,
                               int32_t dst_height, int32_t components,
                               int32_t adobe);
void image_box_row_float(uint8_t *dst_row, const float *entries,
                         int32_t src_width, int32_t dst_width,
                         int32_t components, float row_weight, float ratio);

void image_resample_bicubic_vector(const image_rows src_rows,
                                   image_rows dst_rows, int32_t x_offset,
                                   int32_t y_offset, int32_t src_width,
                                   double ratio, int32_t src_height,
                                   int32_t dst_width, int32_t dst_height,
                                   int32_t components, int32_t adobe);
#endif
