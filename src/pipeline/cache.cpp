// The decode cache: a libjpeg decompressor with the rows it last decoded,
// so several sizes of one photo need one decode per DCT scale.
#include <cstring>

#include "pipeline/pipeline.h"

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
    // libjpeg would print its warnings ("Corrupt JPEG data...") to stderr;
    // the library prints nothing. A host may install its own afterwards.
    err->output_message = image_jpeg_silent_message;
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
        image_scan_source(cinfo, stream);
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
    // Our own source leaves out the scans this scale cannot use.
    image_scan_source_arm(cinfo);
    // The decode is bounded in scans; the host's own monitor, if any, is
    // put back before returning (a fatal error leaves through the host's
    // jump target, whose teardown only destroys the decompressor).
    image_scan_budget budget;
    jpeg_progress_mgr *const host_progress = cinfo->progress;
    image_scan_budget_arm(cinfo, &budget, stream);
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
        cinfo->progress = host_progress;
        image_scan_source(cinfo, stream);
        jpeg_read_header(cinfo, TRUE);
        return -1;
    }
    while (cinfo->output_scanline < cinfo->output_height)
        jpeg_read_scanlines(cinfo, cache->rows + cinfo->output_scanline,
                            cinfo->output_height - cinfo->output_scanline);
    cinfo->progress = host_progress;
    return 0;
}
