// The scale planner: from a request (box, mode) and the stored size of a
// photo, the size to produce, the DCT scale to decode at, the resampler that
// does the rest and its ratio, and where in the decoded rows sampling starts.
//
// Sizes are 32-bit; quotients are taken in double after converting both
// operands, with any product in front of a quotient formed first. Products
// are formed in double: they are exact for every size the library can hold,
// and cannot overflow as a 32-bit product of two large sides would.
#include <algorithm>
#include <cmath>

#include "pipeline/pipeline.h"

namespace {

// lround, halves away from zero, truncated to 32 bits. A non-finite or
// out-of-range value (only reachable from a request the planner refuses
// anyway) gives 0 instead of the undefined result of lround.
int32_t round32(double v)
{
    if (!std::isfinite(v) || std::fabs(v) >= 9.0e18)
        return 0;
    return static_cast<int32_t>(std::lround(v));
}

double quot(double a, double b) { return a / b; }


}  // namespace

void image_plan_ratio_dct(int32_t source, int32_t target,
                          image_scale_plan *plan)
{
    plan->scale_num = 1;
    // The products are 32-bit; a target large enough to overflow them is
    // refused before the chooser runs.
    if (source == target || source == 2 * target || source == 4 * target ||
        source == 8 * target) {
        plan->scale_denom = source == target       ? 1
                            : source == 2 * target ? 2
                            : source == 4 * target ? 4
                                                   : 8;
        plan->resampler = nullptr;
        plan->ratio = 1.0;
        return;
    }
    if (source < 2 * target) {
        plan->scale_denom = 1;
        plan->resampler = image_resample_bicubic;
        plan->ratio = quot(source, target);
    } else if (source < 5 * target) {
        plan->scale_denom = 1;
        plan->resampler = image_resample_box;
        plan->ratio = quot(source, target);
    } else if (source < 9 * target) {
        plan->scale_denom = 2;
        plan->resampler = image_resample_box;
        plan->ratio = quot(source >> 1, target);
    } else if (source < 17 * target) {
        plan->scale_denom = 4;
        plan->resampler = image_resample_box;
        plan->ratio = quot(source >> 2, target);
    } else {
        plan->scale_denom = 8;
        plan->resampler = image_resample_box;
        plan->ratio = quot(source >> 3, target);
    }
}

void image_plan_ratio_rows(int32_t source, int32_t target,
                           image_scale_plan *plan)
{
    plan->scale_num = 1;
    plan->scale_denom = 1;
    plan->ratio = quot(source, target);
    plan->resampler =
        source < 2 * target ? image_resample_bicubic : image_resample_box;
}

void image_plan_ratio(int32_t source, int32_t target, int no_stream,
                      image_scale_plan *plan)
{
    if (no_stream)
        image_plan_ratio_rows(source, target, plan);
    else
        image_plan_ratio_dct(source, target, plan);
}

int32_t image_plan_crop(int32_t source, int32_t target,
                        const image_scale_plan *plan)
{
    double decoded = quot(double(plan->scale_num) * source, plan->scale_denom);
    return round32((decoded - target * plan->ratio) / 2.0);
}

image_scale_plan image_scale_plan_for_size(int32_t sw, int32_t sh,
                                           const image_scale_params *params,
                                           int no_stream, image_xform xform)
{
    image_scale_plan plan{};
    plan.scale_num = 1;
    plan.scale_denom = 1;
    plan.ratio = 1.0;
    plan.valid = 0;

    int32_t tw = params->width;
    int32_t th = params->height;
    if (image_xform_exchanges_sides(xform)) {
        tw = params->height;
        th = params->width;
    }
    plan.width = tw;
    plan.height = th;

    // Requests that have no sound plan are refused here rather than handed
    // to a resampler as infinite or zero ratios: an unknown mode, an empty
    // box or source, a box so large that the chooser's 32-bit products
    // (17 x target) would overflow, and a max_aspect that is not positive.
    constexpr int32_t kMaxSide = INT32_MAX / 17;
    if (params->mode > IMAGE_SCALE_FILL_CENTRE || tw <= 0 || th <= 0 ||
        sw <= 0 || sh <= 0 || tw > kMaxSide || th > kMaxSide)
        return plan;
    const bool fit = params->mode == IMAGE_SCALE_FIT_BOX ||
                     params->mode == IMAGE_SCALE_FIT_BOX_PAD;
    if (fit && !(params->max_aspect > 0.0 && std::isfinite(params->max_aspect)))
        return plan;

    const double src_aspect = quot(sw, sh);
    switch (params->mode) {
    case IMAGE_SCALE_FIT_WIDTH:
        image_plan_ratio(sw, tw, no_stream, &plan);
        th = round32(quot(double(sh) * tw, sw));
        break;
    case IMAGE_SCALE_FIT_HEIGHT:
        image_plan_ratio(sh, th, no_stream, &plan);
        tw = round32(quot(double(sw) * th, sh));
        break;
    case IMAGE_SCALE_FILL_CORNER:
    case IMAGE_SCALE_FILL_CORNER_PAD:
        // Choose on the axis where the source falls shortest, so the
        // picture covers the box at one ratio.
        if (src_aspect > quot(tw, th))
            image_plan_ratio(sh, th, no_stream, &plan);
        else
            image_plan_ratio(sw, tw, no_stream, &plan);
        break;
    case IMAGE_SCALE_FIT_BOX:
    case IMAGE_SCALE_FIT_BOX_PAD:
        if (sw > sh) {
            if (src_aspect > params->max_aspect) {
                th = round32(tw / params->max_aspect);
                if (th <= 0)
                    return plan;
                image_plan_ratio(sh, th, no_stream, &plan);
                plan.crop_x = image_plan_crop(sw, tw, &plan);
            } else if (quot(tw, th) > src_aspect) {
                image_plan_ratio(sh, th, no_stream, &plan);
                tw = round32(quot(double(sw) * th, sh));
            } else {
                image_plan_ratio(sw, tw, no_stream, &plan);
                th = round32(quot(double(sh) * tw, sw));
            }
        } else {
            if (quot(sh, sw) > params->max_aspect) {
                tw = round32(th / params->max_aspect);
                if (tw <= 0)
                    return plan;
                image_plan_ratio(sw, tw, no_stream, &plan);
                plan.crop_y = image_plan_crop(sh, th, &plan);
            } else if (quot(th, tw) > quot(sh, sw)) {
                image_plan_ratio(sw, tw, no_stream, &plan);
                th = round32(quot(double(sh) * tw, sw));
            } else {
                image_plan_ratio(sh, th, no_stream, &plan);
                tw = round32(quot(double(sw) * th, sh));
            }
        }
        break;
    case IMAGE_SCALE_FILL_CENTRE:
        if (quot(tw, th) > src_aspect) {
            image_plan_ratio(sw, tw, no_stream, &plan);
            plan.crop_y = image_plan_crop(sh, th, &plan);
        } else {
            image_plan_ratio(sh, th, no_stream, &plan);
            plan.crop_x = image_plan_crop(sw, tw, &plan);
        }
        break;
    default:
        return plan;
    }

    plan.width = tw;
    plan.height = th;
    // A side that rounds to nothing (a tiny box against an elongated
    // photo) leaves nothing to encode.
    plan.valid = tw > 0 && th > 0 && plan.ratio > 0.0 && std::isfinite(plan.ratio);
    // Past these bounds the rows alone would take gigabytes: a mode-0 box on
    // a 1 x 65500 strip plans a picture 65 million pixels tall. The padded
    // modes produce the box itself, which must fit as well.
    const bool padded = params->mode == IMAGE_SCALE_FILL_CORNER_PAD ||
                        params->mode == IMAGE_SCALE_FIT_BOX_PAD;
    const int64_t ow = padded ? std::max(tw, params->width) : tw;
    const int64_t oh = padded ? std::max(th, params->height) : th;
    if (!image_source_size_ok(uint64_t(sw), uint64_t(sh)) ||
        ow > IMAGE_MAX_OUTPUT_SIDE || oh > IMAGE_MAX_OUTPUT_SIDE ||
        uint64_t(ow) * uint64_t(oh) > IMAGE_MAX_OUTPUT_PIXELS)
        plan.valid = 0;
    return plan;
}

image_scale_plan image_scale_plan_make(const image_jcache *cache,
                                       const image_scale_params *params,
                                       int no_stream, image_xform xform)
{
    const auto sw = static_cast<int32_t>(cache->cinfo.image_width);
    const auto sh = static_cast<int32_t>(cache->cinfo.image_height);
    return image_scale_plan_for_size(sw, sh, params, no_stream, xform);
}
