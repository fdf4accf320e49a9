// The scale driver: takes a photo from decoded rows to an encoded file,
// through crop, resampling, rotation, border, overlay and encoder.
//
// libjpeg reports fatal errors by longjmp. Every function here that holds a
// jump target keeps its frame plain (no objects with destructors) and does
// its own teardown at the recovery point.
#include <cstdlib>
#include <cstring>

#include "pipeline/pipeline.h"

namespace {

// The picture as it moves through the stages: the rows, whether they are
// ours to free, and their size.
struct stage_rows {
    image_rows rows;
    int owned;
    uint32_t width;
    uint32_t height;
};

void release(stage_rows *s)
{
    image_rows_free(s->rows, s->height, s->owned);
    s->rows = nullptr;
    s->owned = 0;
}

// Makes `next` (owned) the working rows, releasing the previous ones.
void replace(stage_rows *work, image_rows next, uint32_t width, uint32_t height)
{
    release(work);
    work->rows = next;
    work->owned = 1;
    work->width = width;
    work->height = height;
}


// The white border of the padding modes, centred, an odd excess giving the
// top (or left) margin the extra line. Returns false if memory is short.
bool add_border(stage_rows *work, image_rows current, uint32_t comps,
                const image_scale_params *params)
{
    const auto box_w = uint32_t(params->width);
    const auto box_h = uint32_t(params->height);
    const uint32_t cw = work->width, ch = work->height;
    if (params->height > int32_t(ch)) {
        const uint32_t excess = box_h - ch;
        const uint32_t top = (excess + 1) / 2;
        // The planner never yields a picture wider than the box here; the
        // wider allocation only guards a hand-made cache against overrun.
        image_rows next = image_rows_alloc(box_w > cw ? box_w : cw, box_h, comps);
        if (!next)
            return false;
        const size_t len = size_t(cw) * comps;
        for (uint32_t y = 0; y < box_h; ++y) {
            if (y < top || y >= top + ch)
                std::memset(next[y], 255, len);
            else
                std::memcpy(next[y], current[y - top], len);
        }
        replace(work, next, cw, box_h);
    } else if (params->width > int32_t(cw)) {
        const uint32_t excess = box_w - cw;
        const uint32_t left = (excess + 1) / 2;
        const uint32_t right = excess - left;
        const uint32_t rows_h = box_h > ch ? box_h : ch;
        image_rows next = image_rows_alloc(box_w, rows_h, comps);
        if (!next)
            return false;
        for (uint32_t y = 0; y < ch; ++y) {
            unsigned char *out = next[y];
            std::memset(out, 255, size_t(left) * comps);
            std::memcpy(out + size_t(left) * comps, current[y], size_t(cw) * comps);
            std::memset(out + size_t(left + cw) * comps, 255, size_t(right) * comps);
        }
        replace(work, next, box_w, ch);
    }
    return true;
}

}  // namespace

extern "C" QB_API int32_t image_jpeg_scale(image_hw_level level,
                                           image_jcache *cache, FILE *stream,
                                           const char *output,
                                           image_xform xform,
                                           const image_scale_params *params,
                                           const char *thumb_path,
                                           image_overlay *overlay)
{
    if (!cache || !params || !output)
        return IMAGE_SCALE_FAILED;

    // A header that names a picture too large, or far more blocks than the
    // file can hold, is refused before the decode allocates anything.
    if (stream && !cache->rows && image_jpeg_header_refused(&cache->cinfo, stream))
        return IMAGE_SCALE_FAILED;

    stage_rows work{nullptr, 0, 0, 0};
    const image_scale_plan plan =
        image_scale_plan_make(cache, params, stream == nullptr, xform);
    if (!plan.valid)
        return IMAGE_SCALE_FAILED;

    // Decode only when the DCT scale changes (or nothing is decoded yet):
    // requests that share a scale share one decode.
    if (stream && (!cache->rows || plan.scale_num != cache->scale_num ||
                   plan.scale_denom != cache->scale_denom)) {
        if (image_jcache_decode(cache, stream, plan.scale_num, plan.scale_denom) != 0)
            return IMAGE_SCALE_FAILED;
    }

    const j_decompress_ptr cinfo = &cache->cinfo;
    const auto comps = uint32_t(cinfo->output_components);
    // The resampler and the views read the cached rows by the decompressor's
    // output size: refuse rows that do not match it (nothing decoded, or a
    // hand-filled cache that disagrees with itself).
    if (!cache->rows || cache->width != cinfo->output_width ||
        cache->height != cinfo->output_height ||
        cache->components != cinfo->output_components || comps == 0)
        return IMAGE_SCALE_FAILED;

    image_rows current = cache->rows;
    work.width = uint32_t(plan.width);
    work.height = uint32_t(plan.height);

    if (plan.resampler) {
        image_rows dst = image_rows_alloc(work.width, work.height, comps);
        if (!dst)
            return IMAGE_SCALE_FAILED;
        work.rows = dst;
        work.owned = 1;
        plan.resampler(level, cache->rows, dst, plan.crop_x, plan.crop_y,
                       int32_t(cinfo->output_width), plan.ratio,
                       int32_t(cinfo->output_height), plan.width, plan.height,
                       cinfo->output_components, int32_t(cache->adobe_rgb));
        current = dst;
    } else {
        // Exact DCT scale: the decoded rows are the picture, or a window of
        // them. It must lie inside them.
        if (plan.crop_x < 0 || plan.crop_y < 0 ||
            uint64_t(plan.crop_x) + work.width > cache->width ||
            uint64_t(plan.crop_y) + work.height > cache->height)
            return IMAGE_SCALE_FAILED;
        if (plan.crop_x || plan.crop_y) {
            image_rows view = image_rows_alloc(0, work.height, comps);
            if (!view)
                return IMAGE_SCALE_FAILED;
            for (uint32_t i = 0; i < work.height; ++i)
                view[i] = cache->rows[i + uint32_t(plan.crop_y)] +
                          size_t(plan.crop_x) * comps;
            work.rows = view;
            work.owned = 0;
            current = view;
        }
    }

    if (xform != IMAGE_XFORM_NONE && xform <= IMAGE_XFORM_ROT_270) {
        const bool swap = image_xform_exchanges_sides(xform);
        const uint32_t nw = swap ? work.height : work.width;
        const uint32_t nh = swap ? work.width : work.height;
        image_rows next = image_rows_alloc(nw, nh, comps);
        if (!next) {
            release(&work);
            return IMAGE_SCALE_FAILED;
        }
        image_rows_rotate(current, next, xform, work.width, work.height, comps);
        replace(&work, next, nw, nh);
        current = next;
    }

    if (params->mode == IMAGE_SCALE_FILL_CORNER_PAD ||
        params->mode == IMAGE_SCALE_FIT_BOX_PAD) {
        if (!add_border(&work, current, comps, params)) {
            release(&work);
            return IMAGE_SCALE_FAILED;
        }
        if (work.rows)
            current = work.rows;
    }

    if (overlay)
        image_overlay_blend(current, work.width, work.height,
                            cinfo->output_components, cinfo->out_color_space,
                            overlay);

    // Opened only now, so that a failed decode leaves an existing file alone.
    const bool to_stdout = std::strcmp(output, "-") == 0;
    // An output that is the source itself is refused untouched.
    FILE *out = to_stdout ? stdout : image_open_output(output, &stream, 1);
    if (!out) {
        release(&work);
        return IMAGE_SCALE_NO_OUTPUT;
    }
    const int rc = image_jpeg_encode(out, work.width, work.height,
                                     params->quality, params->full_chroma,
                                     cinfo->output_components,
                                     cinfo->out_color_space, thumb_path != nullptr,
                                     0, thumb_path, current);
    int closed = 0;
    if (to_stdout)
        closed = std::fflush(stdout);
    else
        closed = std::fclose(out);
    release(&work);
    // A write that only fails when the buffer is flushed (a full disk) is an
    // encoder failure too: the file is not complete.
    return rc != 0 || closed != 0 ? IMAGE_SCALE_FAILED : IMAGE_SCALE_OK;
}

