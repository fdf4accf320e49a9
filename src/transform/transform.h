// Internal declarations of the lossless JPEG transform: the entry's routes,
// the marker copy with its Exif size patch, the coefficient planner and the
// block kernels. Nothing here is exported from the shared object.
//
// Every function that calls into libjpeg may leave by longjmp to the entry
// point's recovery code, so none of them holds an object with a destructor.
#pragma once

#include <cstdint>

#include "common/common.h"
#include "common/files.h"
#include "common/limits.h"

// Results of image_jpeg_transform.
constexpr int32_t IMAGE_TRANSFORM_OK = 0;
constexpr int32_t IMAGE_TRANSFORM_NO_INPUT = -1;
constexpr int32_t IMAGE_TRANSFORM_NO_OUTPUT = -2;
constexpr int32_t IMAGE_TRANSFORM_DECODER_FAILED = -3;
constexpr int32_t IMAGE_TRANSFORM_ENCODER_FAILED = -4;

// Working memory of the pixel route. The entry point owns the record so
// that a fatal error, which jumps straight back to it, can still release
// what the route had allocated. The fields are volatile because they change
// between the arming of the jump targets and a possible jump.
struct image_transform_buffers {
    unsigned char *volatile row;  // one decoded source row (posix_memalign)
    image_rows volatile image;    // the output picture
    volatile uint32_t image_height;
    volatile int image_owned;
};

// Release whatever `bufs` still holds and clear it; safe to call twice.
void image_transform_buffers_release(image_transform_buffers *bufs);

// ---- entry and pixel route ----
// `input` is the stream dinfo reads, for the size checks on the header.
void image_transform_run(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         FILE *input, uint32_t xform, const image_crop *crop,
                         int32_t quality, image_transform_buffers *bufs);
int32_t image_transform_is_perfect(int32_t width, int32_t height,
                                   int32_t imcu_width, int32_t imcu_height,
                                   uint32_t xform);
void image_transform_pixels(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t xform, const image_crop *crop,
                            int32_t quality, image_transform_buffers *bufs);

// ---- marker copy and Exif size patch ----
void image_transform_copy_markers(j_decompress_ptr dinfo, j_compress_ptr cinfo);
void image_exif_patch_size(unsigned char *tiff, uint32_t length,
                           uint32_t width, uint32_t height);
int image_exif_read_long(int big_endian, const unsigned char *bytes,
                         uint32_t *value);
uint32_t image_exif_read_short(int big_endian, const unsigned char *bytes);
// Pairs of (size, value), both uint32_t, ended by a pair of size 0.
int image_exif_write_fields(int big_endian, unsigned char *dest, ...);

// ---- coefficient route ----
struct image_transform_plan {
    uint32_t xform;
    int32_t crop_width;
    int32_t crop_height;
    int32_t num_components;
    int32_t output_width;
    int32_t output_height;
    int32_t imcu_h;  // iMCU of the transformed image, in blocks
    int32_t imcu_v;
    uint32_t x_offset;  // crop origin, in iMCUs
    uint32_t y_offset;
    jvirt_barray_ptr *dst_arrays;  // null: the source arrays are the output
};

// How far the destination arrays differ from the source's: 0 none (work on
// the source arrays), 1 same layout, 2 transposed layout.
int image_transform_plan_level(uint32_t xform, uint32_t x_offset,
                               uint32_t y_offset);
void image_transform_coefficients(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                                  uint32_t xform, const image_crop *crop);
void image_transform_plan_make(j_decompress_ptr dinfo,
                               image_transform_plan *plan, uint32_t xform,
                               const image_crop *crop);
jvirt_barray_ptr *image_transform_setup_destination(
    j_compress_ptr cinfo, jvirt_barray_ptr *src_arrays, uint32_t xform,
    const image_transform_plan *plan);
void image_transform_apply(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                           jvirt_barray_ptr *src_arrays,
                           const image_transform_plan *plan);

// ---- block kernels ----
void image_kernel_crop_copy(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays);
void image_kernel_flip_h_in_place(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                                  uint32_t x_offset,
                                  jvirt_barray_ptr *src_arrays);
void image_kernel_flip_h(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         uint32_t x_offset, uint32_t y_offset,
                         jvirt_barray_ptr *src_arrays,
                         jvirt_barray_ptr *dst_arrays);
void image_kernel_flip_v(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         uint32_t x_offset, uint32_t y_offset,
                         jvirt_barray_ptr *src_arrays,
                         jvirt_barray_ptr *dst_arrays);
void image_kernel_transpose(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays);
void image_kernel_transverse(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays);
void image_kernel_rotate_90(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays);
void image_kernel_rotate_180(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays);
void image_kernel_rotate_270(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays);
