// The JPEG scaling pipeline as the rest of the library sees it: the
// planner, the decode cache, the encoder, the Exif stamp and the overlay
// behind image_jpeg_scale. Nothing here is exported from the shared object.
#pragma once

#include "common/common.h"
#include "common/files.h"
#include "common/limits.h"
#include "resample/resample.h"

// ---- planner ----
struct image_scale_plan {
    int32_t width;
    int32_t height;
    int32_t crop_x;
    int32_t crop_y;
    uint32_t scale_num;
    uint32_t scale_denom;
    image_resample_fn resampler;  // null: the decoded rows need no resampling
    double ratio;
    int32_t valid;  // 0: the request cannot be planned (see planner)
};

image_scale_plan image_scale_plan_make(const image_jcache *cache,
                                       const image_scale_params *params,
                                       int no_stream, image_xform xform);
image_scale_plan image_scale_plan_for_size(int32_t sw, int32_t sh,
                                           const image_scale_params *params,
                                           int no_stream, image_xform xform);
void image_plan_ratio(int32_t source, int32_t target, int no_stream,
                      image_scale_plan *plan);
void image_plan_ratio_dct(int32_t source, int32_t target,
                          image_scale_plan *plan);
void image_plan_ratio_rows(int32_t source, int32_t target,
                           image_scale_plan *plan);
int32_t image_plan_crop(int32_t source, int32_t target,
                        const image_scale_plan *plan);

// ---- decode cache and encoder ----
int image_jpeg_is_adobe_rgb(j_decompress_ptr cinfo);
int image_jcache_decode(image_jcache *cache, FILE *stream, uint32_t scale_num,
                        uint32_t scale_denom);
// A libjpeg source reading `file` from where it stands, as jpeg_stdio_src
// does, that leaves out the scans of a progressive file which the DCT scale
// makes irrelevant; the output is byte for byte that of the whole file.
// image_scan_source_arm, between setting the decompression parameters and
// jpeg_start_decompress, decides for this decode (and may turn block
// smoothing off, where libjpeg would not smooth anyway); it does nothing
// for a source of another kind. Until armed, every byte passes.
void image_scan_source(j_decompress_ptr cinfo, FILE *file);
void image_scan_source_arm(j_decompress_ptr cinfo);
// Scans left out so far in this decode (0 for another kind of source).
uint32_t image_scan_source_dropped(j_decompress_ptr cinfo);
int image_jpeg_encode(FILE *stream, uint32_t width, uint32_t height,
                      int32_t quality, int32_t full_chroma, int32_t components,
                      J_COLOR_SPACE color_space, int stamp, uint32_t orientation,
                      const char *thumb_path, image_rows rows);

// Results of image_jpeg_scale.
constexpr int32_t IMAGE_SCALE_OK = 0;
constexpr int32_t IMAGE_SCALE_NO_OUTPUT = -1;  // output cannot be opened
// The picture cannot be produced: the encoder failed, or (before the output
// is opened) the request cannot be planned or working memory is short.
constexpr int32_t IMAGE_SCALE_FAILED = -2;

// ---- later stages of the pipeline ----
int image_exif_stamp_write(j_compress_ptr cinfo, uint32_t orientation,
                           const char *thumb_path);
size_t image_put_u16(uint8_t *p, uint16_t v);
size_t image_put_u32(uint8_t *p, uint32_t v);
size_t image_put_ifd_entry(uint8_t *p, uint16_t tag, uint16_t type,
                           uint32_t count, uint32_t value);
int image_overlay_blend(image_rows rows, uint32_t width, uint32_t height,
                        int32_t components, J_COLOR_SPACE color_space,
                        image_overlay *overlay);
uint8_t image_blend_byte(uint8_t base, uint8_t top, double opacity);

