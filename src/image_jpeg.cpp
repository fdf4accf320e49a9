// The JPEG scaling pipeline: the row store, the decode cache, the encoder
// and the driver that takes a photo from decoded rows to an encoded file.
//
// libjpeg reports fatal errors by longjmp. Every function here that holds a
// jump target keeps its frame plain (no objects with destructors) and does
// its own teardown at the recovery point.
#include <cstdlib>
#include <cstring>

#include "image_internal.h"

// ---------------------------------------------------------------------------
// libjpeg error record

extern "C" void image_jpeg_error_exit(j_common_ptr cinfo)
{
    // The jump buffer sits right behind the manager; the message is
    // deliberately neither printed nor kept.
    auto *err = reinterpret_cast<image_jpeg_error *>(cinfo->err);
    longjmp(err->jump, 1);
}

struct jpeg_error_mgr *image_jpeg_error_init(image_jpeg_error *err)
{
    struct jpeg_error_mgr *mgr = jpeg_std_error(&err->mgr);
    mgr->error_exit = image_jpeg_error_exit;
    return mgr;
}

// ---------------------------------------------------------------------------
// Row store

namespace {

constexpr uint32_t slot_count(uint32_t height) { return (height + 63u) & ~63u; }

// Row size in bytes: width rounded up to 32 pixels, times the components,
// rounded up to 16 bytes. Returns 0 when that does not fit in 32 bits.
constexpr uint32_t row_bytes(uint32_t width, uint32_t components)
{
    const uint64_t pixels = (uint64_t(width) + 31u) & ~uint64_t(31);
    const uint64_t bytes = (pixels * components + 15u) & ~uint64_t(15);
    return bytes > UINT32_MAX ? 0 : uint32_t(bytes);
}

static_assert(slot_count(100) == 128 && slot_count(64) == 64 && slot_count(0) == 0);
static_assert(row_bytes(100, 3) == 384 && row_bytes(1, 1) == 32);

}  // namespace

image_rows image_rows_alloc(uint32_t width, uint32_t height,
                            uint32_t components)
{
    if (height > UINT32_MAX - 63u)
        return nullptr;
    const uint32_t slots = slot_count(height);
    // posix_memalign with size 0 may hand back null; keep one slot at least
    // so a zero-height picture still has an array to free.
    const size_t array_bytes = (size_t(slots ? slots : 1) * sizeof(unsigned char *) + 15u) & ~size_t(15);
    void *array = nullptr;
    if (posix_memalign(&array, 16, array_bytes) != 0)
        return nullptr;
    auto rows = static_cast<image_rows>(array);
    std::memset(rows, 0, array_bytes);
    if (width == 0)
        return rows;  // a view: the caller points the slots elsewhere

    const uint32_t bytes = row_bytes(width, components);
    if (bytes == 0) {
        std::free(rows);
        return nullptr;
    }
    for (uint32_t i = 0; i < slots; ++i) {
        void *row = nullptr;
        if (posix_memalign(&row, 16, bytes) != 0) {
            for (uint32_t j = 0; j < i; ++j)
                std::free(rows[j]);
            std::free(rows);
            return nullptr;
        }
        std::memset(row, 0, bytes);
        rows[i] = static_cast<unsigned char *>(row);
    }
    return rows;
}

void image_rows_free(image_rows rows, uint32_t height, int owned)
{
    if (!rows)
        return;
    if (owned) {
        const uint32_t slots = slot_count(height);
        for (uint32_t i = 0; i < slots; ++i)
            std::free(rows[i]);
    }
    std::free(rows);
}

void image_rows_rotate(const image_rows source, image_rows target,
                       image_xform xform, uint32_t width, uint32_t height,
                       uint32_t components)
{
    const uint32_t w = width, h = height;
    for (uint32_t y = 0; y < h; ++y) {
        const unsigned char *src = source[y];
        for (uint32_t x = 0; x < w; ++x) {
            uint32_t X = x, Y = y;
            switch (xform) {
            case IMAGE_XFORM_FLIP_H: X = w - 1 - x; Y = y; break;
            case IMAGE_XFORM_FLIP_V: X = x; Y = h - 1 - y; break;
            case IMAGE_XFORM_TRANSPOSE: X = y; Y = x; break;
            case IMAGE_XFORM_TRANSVERSE: X = h - 1 - y; Y = w - 1 - x; break;
            case IMAGE_XFORM_ROT_90: X = h - 1 - y; Y = x; break;
            case IMAGE_XFORM_ROT_180: X = w - 1 - x; Y = h - 1 - y; break;
            case IMAGE_XFORM_ROT_270: X = y; Y = w - 1 - x; break;
            default: break;
            }
            std::memcpy(target[Y] + size_t(X) * components,
                        src + size_t(x) * components, components);
        }
    }
}

// ---------------------------------------------------------------------------
// Decode cache

int image_jpeg_is_adobe_rgb(j_decompress_ptr cinfo)
{
    if (cinfo->out_color_space != JCS_RGB || cinfo->output_components != 3)
        return 0;
    static constexpr char kIcc[12] = "ICC_PROFILE";  // with its zero byte
    for (jpeg_saved_marker_ptr m = cinfo->marker_list; m; m = m->next) {
        if (m->marker != JPEG_APP0 + 2 || m->data_length < 22)
            continue;
        // Behind the identifier come the sequence number and the count; the
        // ICC header starts at 14 and its preferred-CMM field is at 4 in it.
        if (std::memcmp(m->data, kIcc, sizeof kIcc) == 0 &&
            std::memcmp(m->data + 18, "ADBE", 4) == 0)
            return 1;
    }
    return 0;
}

extern "C" QB_API void image_jpeg_jcache_init(image_jcache *cache,
                                              struct jpeg_error_mgr *err)
{
    std::memset(cache, 0, sizeof *cache);
    cache->cinfo.err = jpeg_std_error(err);
}

extern "C" QB_API void image_jpeg_jcache_clean(image_jcache *cache)
{
    if (!cache || !cache->rows)
        return;
    image_rows_free(cache->rows, cache->height, 1);
    cache->rows = nullptr;
    cache->width = 0;
    cache->height = 0;
    cache->components = 0;
}

// Decodes the whole picture at the given scale into the cache. Fatal libjpeg
// errors leave through the caller's jump target. Returns 0, or -1 when the
// rows cannot be allocated; the decompressor is then set back to a freshly
// read header (and the cache to "nothing decoded"), so a later call can
// decode again.
int image_jcache_decode(image_jcache *cache, FILE *stream, uint32_t scale_num,
                        uint32_t scale_denom)
{
    j_decompress_ptr cinfo = &cache->cinfo;
    if (cache->rows) {
        image_jpeg_jcache_clean(cache);
        jpeg_finish_decompress(cinfo);
        fseeko64(stream, 0, SEEK_SET);
        jpeg_stdio_src(cinfo, stream);
        jpeg_read_header(cinfo, TRUE);
    }
    cache->scale_num = scale_num;
    cache->scale_denom = scale_denom;
    cinfo->scale_num = scale_num;
    cinfo->scale_denom = scale_denom;
    cinfo->quantize_colors = FALSE;
    cinfo->two_pass_quantize = TRUE;
    cinfo->dither_mode = JDITHER_FS;
    cinfo->dct_method = JDCT_FLOAT;
    cinfo->do_fancy_upsampling = TRUE;
    jpeg_start_decompress(cinfo);

    cache->width = cinfo->output_width;
    cache->height = cinfo->output_height;
    cache->components = cinfo->output_components;
    cache->adobe_rgb = uint32_t(image_jpeg_is_adobe_rgb(cinfo));
    cache->rows = image_rows_alloc(cache->width, cache->height,
                                   uint32_t(cache->components));
    if (!cache->rows) {
        jpeg_abort_decompress(cinfo);
        cache->scale_num = 0;
        cache->scale_denom = 0;
        cache->width = cache->height = 0;
        cache->components = 0;
        fseeko64(stream, 0, SEEK_SET);
        jpeg_stdio_src(cinfo, stream);
        jpeg_read_header(cinfo, TRUE);
        return -1;
    }
    while (cinfo->output_scanline < cinfo->output_height)
        jpeg_read_scanlines(cinfo, cache->rows + cinfo->output_scanline,
                            cinfo->output_height - cinfo->output_scanline);
    return 0;
}

// ---------------------------------------------------------------------------
// Encoder

int image_jpeg_encode(FILE *stream, uint32_t width, uint32_t height,
                      int32_t quality, int32_t full_chroma, int32_t components,
                      J_COLOR_SPACE color_space, int stamp, uint32_t orientation,
                      const char *thumb_path, image_rows rows)
{
    struct jpeg_compress_struct cinfo;
    image_jpeg_error err;
    cinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return -1;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, stream);
    cinfo.image_width = width;
    cinfo.image_height = height;
    cinfo.input_components = components;
    cinfo.in_color_space = color_space;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    cinfo.dct_method = JDCT_FLOAT;
    cinfo.optimize_coding = TRUE;
    cinfo.write_JFIF_header = FALSE;  // these files carry no JFIF APP0
    if (full_chroma && color_space == JCS_RGB) {
        for (int c = 0; c < components && c < cinfo.num_components; ++c) {
            cinfo.comp_info[c].h_samp_factor = 1;
            cinfo.comp_info[c].v_samp_factor = 1;
        }
    }
    jpeg_start_compress(&cinfo, TRUE);
    if (stamp)
        image_exif_stamp_write(&cinfo, orientation, thumb_path);
    jpeg_write_scanlines(&cinfo, rows, height);
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return 0;
}

// ---------------------------------------------------------------------------
// Driver

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

bool exchanges_sides(image_xform xform)
{
    return xform == IMAGE_XFORM_TRANSPOSE || xform == IMAGE_XFORM_TRANSVERSE ||
           xform == IMAGE_XFORM_ROT_90 || xform == IMAGE_XFORM_ROT_270;
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
        const bool swap = exchanges_sides(xform);
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
    FILE *out = to_stdout ? stdout : std::fopen(output, "wb");
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
