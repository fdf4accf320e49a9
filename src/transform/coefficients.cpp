// The coefficient route of the lossless transform: which kernel a code and
// crop need, the destination set up with exchanged sampling and transposed
// quantisation tables where the sides exchange, and the run of the kernel.
//
// Everything here may leave by longjmp to the entry point, so no frame
// holds an object with a destructor.
#include <cstdlib>
#include <cstring>

#include <jerror.h>

#include "transform/transform.h"

extern "C" {
// libjpeg's own utility; declared in its private header only.
long jdiv_round_up(long a, long b);
}

namespace {

// A crop that the coefficient route can cut: inside the picture, not empty.
bool coefficient_crop_accepted(const image_crop *crop, int32_t width,
                               int32_t height)
{
    if (crop->x < 0 || crop->y < 0 || crop->width < 1 || crop->height < 1)
        return false;
    if (crop->width > width || crop->height > height)
        return false;
    return int64_t(crop->width) + crop->x <= width &&
           int64_t(crop->height) + crop->y <= height;
}

}  // namespace

int image_transform_plan_level(uint32_t xform, uint32_t x_offset,
                               uint32_t y_offset)
{
    switch (xform) {
    case IMAGE_XFORM_NONE:
        return (x_offset != 0 || y_offset != 0) ? 1 : 0;
    case IMAGE_XFORM_FLIP_H:
        return y_offset != 0 ? 1 : 0;
    case IMAGE_XFORM_FLIP_V:
    case IMAGE_XFORM_ROT_180:
        return 1;
    default:
        return image_xform_exchanges_sides(xform) ? 2 : 0;
    }
}

void image_transform_plan_make(j_decompress_ptr dinfo,
                               image_transform_plan *plan, uint32_t xform,
                               const image_crop *crop)
{
    plan->xform = xform;
    plan->num_components = dinfo->num_components;

    const int32_t src_w = int32_t(dinfo->image_width);
    const int32_t src_h = int32_t(dinfo->image_height);
    if (image_xform_exchanges_sides(xform)) {
        plan->output_width = src_h;
        plan->output_height = src_w;
        plan->imcu_h = dinfo->max_v_samp_factor;
        plan->imcu_v = dinfo->max_h_samp_factor;
    } else {
        plan->output_width = src_w;
        plan->output_height = src_h;
        plan->imcu_h = dinfo->max_h_samp_factor;
        plan->imcu_v = dinfo->max_v_samp_factor;
    }
    // A single component is coded in 8x8 units whatever factors it declares.
    if (plan->num_components == 1) {
        plan->imcu_h = 1;
        plan->imcu_v = 1;
    }

    plan->x_offset = 0;
    plan->y_offset = 0;
    if (crop) {
        plan->crop_width = crop->width;
        plan->crop_height = crop->height;
    }
    // A refused crop is no failure: the whole image is transformed.
    if (crop && coefficient_crop_accepted(crop, plan->output_width, plan->output_height)) {
        const int32_t iw = plan->imcu_h * DCTSIZE;
        const int32_t ih = plan->imcu_v * DCTSIZE;
        // Move the origin out to the iMCU grid and widen by what that adds,
        // so that the right and bottom edges stay where they were asked.
        plan->output_width = crop->width + crop->x % iw;
        plan->output_height = crop->height + crop->y % ih;
        plan->x_offset = uint32_t(crop->x / iw);
        plan->y_offset = uint32_t(crop->y / ih);
    }

    const int level = image_transform_plan_level(xform, plan->x_offset, plan->y_offset);
    plan->dst_arrays = nullptr;
    if (level == 0)
        return;

    auto *arrays = static_cast<jvirt_barray_ptr *>(dinfo->mem->alloc_small(
        reinterpret_cast<j_common_ptr>(dinfo), JPOOL_IMAGE,
        sizeof(jvirt_barray_ptr) * size_t(plan->num_components)));
    const long width_imcus = jdiv_round_up(plan->output_width, long(plan->imcu_h) * DCTSIZE);
    const long height_imcus = jdiv_round_up(plan->output_height, long(plan->imcu_v) * DCTSIZE);
    for (int ci = 0; ci < plan->num_components; ++ci) {
        const jpeg_component_info &comp = dinfo->comp_info[ci];
        int h = comp.h_samp_factor;
        int v = comp.v_samp_factor;
        if (plan->num_components == 1) {
            h = 1;
            v = 1;
        } else if (level == 2) {
            h = comp.v_samp_factor;
            v = comp.h_samp_factor;
        }
        // Not pre-zeroed: the kernels write every block the encoder reads.
        arrays[ci] = dinfo->mem->request_virt_barray(
            reinterpret_cast<j_common_ptr>(dinfo), JPOOL_IMAGE, FALSE,
            JDIMENSION(h * width_imcus), JDIMENSION(v * height_imcus), JDIMENSION(v));
    }
    plan->dst_arrays = arrays;
}

jvirt_barray_ptr *image_transform_setup_destination(
    j_compress_ptr cinfo, jvirt_barray_ptr *src_arrays, uint32_t xform,
    const image_transform_plan *plan)
{
    if (plan->num_components == 1) {
        cinfo->comp_info[0].h_samp_factor = 1;
        cinfo->comp_info[0].v_samp_factor = 1;
    }
    cinfo->image_width = JDIMENSION(plan->output_width);
    cinfo->image_height = JDIMENSION(plan->output_height);
    if (image_xform_exchanges_sides(xform)) {
        for (int ci = 0; ci < cinfo->num_components; ++ci) {
            jpeg_component_info &comp = cinfo->comp_info[ci];
            const int h = comp.h_samp_factor;
            comp.h_samp_factor = comp.v_samp_factor;
            comp.v_samp_factor = h;
        }
        // The kernels transpose every block, so each divisor has to move
        // with its coefficient. These are the encoder's own copies.
        for (JQUANT_TBL *table : cinfo->quant_tbl_ptrs) {
            if (!table)
                continue;
            for (int i = 0; i < DCTSIZE; ++i)
                for (int j = 0; j < i; ++j) {
                    const UINT16 t = table->quantval[i * DCTSIZE + j];
                    table->quantval[i * DCTSIZE + j] = table->quantval[j * DCTSIZE + i];
                    table->quantval[j * DCTSIZE + i] = t;
                }
        }
    }
    return plan->dst_arrays ? plan->dst_arrays : src_arrays;
}

void image_transform_apply(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                           jvirt_barray_ptr *src_arrays,
                           const image_transform_plan *plan)
{
    const uint32_t xo = plan->x_offset;
    const uint32_t yo = plan->y_offset;
    jvirt_barray_ptr *dst = plan->dst_arrays;
    switch (plan->xform) {
    case IMAGE_XFORM_NONE:
        if (xo != 0 || yo != 0)
            image_kernel_crop_copy(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_FLIP_H:
        if (yo == 0)
            image_kernel_flip_h_in_place(dinfo, cinfo, xo, src_arrays);
        else
            image_kernel_flip_h(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_FLIP_V:
        image_kernel_flip_v(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_TRANSPOSE:
        image_kernel_transpose(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_TRANSVERSE:
        image_kernel_transverse(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_ROT_90:
        image_kernel_rotate_90(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_ROT_180:
        image_kernel_rotate_180(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    case IMAGE_XFORM_ROT_270:
        image_kernel_rotate_270(dinfo, cinfo, xo, yo, src_arrays, dst);
        break;
    default:
        break;  // the route test sends no other code here
    }
}

void image_transform_coefficients(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                                  uint32_t xform, const image_crop *crop)
{
    image_transform_plan plan;
    std::memset(&plan, 0, sizeof plan);
    // The destination arrays must be requested before libjpeg realises the
    // virtual arrays, which happens inside jpeg_read_coefficients.
    image_transform_plan_make(dinfo, &plan, xform, crop);
    jvirt_barray_ptr *src_arrays = jpeg_read_coefficients(dinfo);
    jpeg_copy_critical_parameters(dinfo, cinfo);
    jvirt_barray_ptr *arrays = image_transform_setup_destination(cinfo, src_arrays, xform, &plan);
    // Works out the component sizes that the kernels read.
    jpeg_write_coefficients(cinfo, arrays);
    image_transform_copy_markers(dinfo, cinfo);
    image_transform_apply(dinfo, cinfo, src_arrays, &plan);
    // The encoder reads its arrays out of the decoder's pool here, so the
    // decoder is finished (and its pool released) only afterwards.
    jpeg_finish_compress(cinfo);
    jpeg_finish_decompress(dinfo);
}

