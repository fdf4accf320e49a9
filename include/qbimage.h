/*
 * libqbimage: JPEG thumbnails, scaled copies, lossless transforms, RAW
 * previews and photo metadata for a photo service.
 *
 * This is the one public header. It compiles as C99 and as C++.
 * Every function here is exported from libqbimage.so.1 with C linkage.
 */
#ifndef QBIMAGE_H
#define QBIMAGE_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h> /* jpeglib.h needs FILE and size_t first */
#include <jpeglib.h>

/* The library's version. The shared object's SONAME follows the major
 * number: libqbimage.so.1. */
#define QBIMAGE_VERSION_MAJOR 1
#define QBIMAGE_VERSION_MINOR 0
#define QBIMAGE_VERSION_PATCH 0
#define QBIMAGE_VERSION "1.0.0"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QB_API __attribute__((visibility("default")))
#else
#define QB_API
#endif

/* ------------------------------------------------------------------ */
/* Codes                                                                */
/* ------------------------------------------------------------------ */

/* What a file is, from its extension. */
typedef uint32_t image_media_type;
enum {
    IMAGE_MEDIA_JPEG = 0,
    IMAGE_MEDIA_RAW = 1,
    IMAGE_MEDIA_VIDEO = 2,
    IMAGE_MEDIA_AUDIO = 3,
    IMAGE_MEDIA_PNG = 4,
    IMAGE_MEDIA_UNKNOWN = 5
};

/* Processor level, as utils_check_hw() reports it. */
typedef int32_t image_hw_level;
enum { IMAGE_HW_BASIC = 1, IMAGE_HW_SSE2 = 2, IMAGE_HW_SSE3 = 3 };

/* Return codes of the entry points that take an image_ctx. */
enum { IMAGE_RC_OK = 0, IMAGE_RC_NOT_FOUND = 2, IMAGE_RC_FAILED = 9 };

/* Rotations and flips. 3, 4, 5 and 7 exchange width and height. */
typedef uint32_t image_xform;
enum {
    IMAGE_XFORM_NONE = 0,
    IMAGE_XFORM_FLIP_H = 1,
    IMAGE_XFORM_FLIP_V = 2,
    IMAGE_XFORM_TRANSPOSE = 3,
    IMAGE_XFORM_TRANSVERSE = 4,
    IMAGE_XFORM_ROT_90 = 5, /* clockwise */
    IMAGE_XFORM_ROT_180 = 6,
    IMAGE_XFORM_ROT_270 = 7 /* clockwise */
};

/* Exif orientation (0..8, 0 = unknown) -> transform that stands it upright. */
QB_API extern const uint32_t image_orientation2xform[9];
/* [a][b]: the single transform equal to applying a, then b. */
QB_API extern const uint8_t image_xform_xform_table[8][8];
/* [a]: the transform that undoes a. */
QB_API extern const uint8_t image_reverse_xform_table[8];

/* Size modes of a scaling request. */
typedef uint32_t image_scale_mode;
enum {
    IMAGE_SCALE_FIT_WIDTH = 0,
    IMAGE_SCALE_FIT_HEIGHT = 1,
    IMAGE_SCALE_FILL_CORNER = 2,
    IMAGE_SCALE_FILL_CORNER_PAD = 3,
    IMAGE_SCALE_FIT_BOX = 4,
    IMAGE_SCALE_FIT_BOX_PAD = 5,
    IMAGE_SCALE_FILL_CENTRE = 6
};

/* ------------------------------------------------------------------ */
/* Records                                                              */
/* ------------------------------------------------------------------ */

/* Log callback: level, user, code, source file, line, printf format, args. */
typedef void (*image_log_fn)(int32_t level, void *user, int32_t code,
                             const char *file, int32_t line,
                             const char *format, ...);

/* Host callback record. The library reads user, log and level_error. */
typedef struct image_ctx {
    void *user;
    void *(*alloc)(void *user, size_t size);
    void (*free)(void *user, void *ptr);
    image_log_fn log;
    int32_t level_error;
    int32_t level_warn;
    int32_t level_info;
    int32_t level_debug;
} image_ctx;

/* A scaling request. width and height are the box of the finished,
 * rotated picture. */
typedef struct image_scale_params {
    image_scale_mode mode;
    int32_t width;
    int32_t height;
    double max_aspect; /* long side over short side, modes 4 and 5 */
    int32_t quality;
    int32_t full_chroma; /* non-zero: RGB output without chroma subsampling */
    uint32_t reserved;
} image_scale_params;

/* The picture store: an array of separately allocated rows of interleaved
 * 8-bit samples. */
typedef unsigned char **image_rows;

/* Decode cache: a libjpeg decompressor with the rows it last decoded.
 * A pointer to the cache serves as a pointer to its decompressor. */
typedef struct image_jcache {
    struct jpeg_decompress_struct cinfo;
    uint32_t scale_num;
    uint32_t scale_denom;
    uint32_t width;
    uint32_t height;
    int32_t components;
    uint32_t adobe_rgb;
    image_rows rows;
} image_jcache;

/* A second JPEG laid over the scaled picture, at one of nine grid cells. */
typedef struct image_overlay {
    const char *path;
    double opacity;   /* 0.0 .. 1.0; clamped and written back */
    int32_t position; /* column = position % 3, row = position / 3 */
} image_overlay;

/* Crop rectangle of image_jpeg_transform. */
typedef struct image_crop {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
} image_crop;

/* A rational as Exif and libexif store it. 0/0 means unknown. */
typedef struct image_rational {
    uint32_t numerator;
    uint32_t denominator;
} image_rational;

/* Photo metadata, filled by image_get_metadata(). Hosts depend on this
 * layout byte for byte: natural alignment, 1412 bytes. Texts always end in
 * a zero byte; an empty text or a zero numerator means "no value". A field
 * the file does not give keeps what the caller handed in, so hand the
 * record in zero-filled. */
typedef struct image_metadata {
    uint16_t orientation;       /* Exif orientation, 1..8; 0 = none */
    uint16_t orientation_valid; /* 1: orientation is to be used */
    char date_time[24];         /* "YYYY:MM:DD hh:mm:ss" */
    char sub_sec[4];
    uint32_t width;             /* upright when image_get_metadata gives 0 */
    uint32_t height;
    char reserved_text[256];
    char description[256];
    char make[256];
    char model[256];
    uint8_t reserved_block[128];
    image_rational exposure_time; /* seconds */
    image_rational f_number;
    image_rational focal_length;  /* millimetres */
    uint16_t iso;
    uint16_t iso_valid;
    uint16_t flash;               /* Exif Flash */
    uint16_t flash_valid;
    uint16_t exposure_program;    /* Exif ExposureProgram */
    uint16_t exposure_program_valid;
    uint16_t metering_mode;       /* Exif MeteringMode */
    uint16_t metering_mode_valid;
    uint16_t white_balance;       /* Exif WhiteBalance */
    uint16_t white_balance_valid;
    uint16_t aperture_value;      /* APEX, thousandths */
    uint16_t aperture_value_valid;
    uint16_t shutter_speed_value; /* APEX, thousandths; 16-bit two's
                                     complement when negative */
    uint16_t shutter_speed_value_valid;
    int32_t gps_latitude;         /* milliseconds of arc, north positive */
    uint16_t gps_latitude_valid;
    int32_t gps_longitude;        /* milliseconds of arc, east positive */
    uint16_t gps_longitude_valid;
    int32_t gps_altitude;         /* millimetres */
    uint16_t gps_altitude_valid;
    uint8_t reserved_tail[146];
} image_metadata;

/* The layout is checked at compile time where the language allows it
 * (C++, C11); tests/c_header_test.c checks it at run time for C99. */
#if defined(__cplusplus)
#define QB_LAYOUT_CHECK(cond) static_assert(cond, #cond)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define QB_LAYOUT_CHECK(cond) _Static_assert(cond, #cond)
#endif
#ifdef QB_LAYOUT_CHECK
QB_LAYOUT_CHECK(sizeof(image_rational) == 8);
QB_LAYOUT_CHECK(offsetof(image_metadata, orientation_valid) == 2);
QB_LAYOUT_CHECK(offsetof(image_metadata, date_time) == 4);
QB_LAYOUT_CHECK(offsetof(image_metadata, sub_sec) == 28);
QB_LAYOUT_CHECK(offsetof(image_metadata, width) == 32);
QB_LAYOUT_CHECK(offsetof(image_metadata, height) == 36);
QB_LAYOUT_CHECK(offsetof(image_metadata, reserved_text) == 40);
QB_LAYOUT_CHECK(offsetof(image_metadata, description) == 296);
QB_LAYOUT_CHECK(offsetof(image_metadata, make) == 552);
QB_LAYOUT_CHECK(offsetof(image_metadata, model) == 808);
QB_LAYOUT_CHECK(offsetof(image_metadata, reserved_block) == 1064);
QB_LAYOUT_CHECK(offsetof(image_metadata, exposure_time) == 1192);
QB_LAYOUT_CHECK(offsetof(image_metadata, f_number) == 1200);
QB_LAYOUT_CHECK(offsetof(image_metadata, focal_length) == 1208);
QB_LAYOUT_CHECK(offsetof(image_metadata, iso) == 1216);
QB_LAYOUT_CHECK(offsetof(image_metadata, flash) == 1220);
QB_LAYOUT_CHECK(offsetof(image_metadata, exposure_program) == 1224);
QB_LAYOUT_CHECK(offsetof(image_metadata, metering_mode) == 1228);
QB_LAYOUT_CHECK(offsetof(image_metadata, white_balance) == 1232);
QB_LAYOUT_CHECK(offsetof(image_metadata, aperture_value) == 1236);
QB_LAYOUT_CHECK(offsetof(image_metadata, shutter_speed_value) == 1240);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_latitude) == 1244);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_latitude_valid) == 1248);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_longitude) == 1252);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_longitude_valid) == 1256);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_altitude) == 1260);
QB_LAYOUT_CHECK(offsetof(image_metadata, gps_altitude_valid) == 1264);
QB_LAYOUT_CHECK(offsetof(image_metadata, reserved_tail) == 1266);
QB_LAYOUT_CHECK(sizeof(image_metadata) == 1412);
#undef QB_LAYOUT_CHECK
#endif

/* Metadata of a photo: a JPEG file from its Exif block, with the size
 * reconciled with the frame header; any other type (RAW) through LibRaw.
 * Sizes are upright. Returns 0, or 9 with one line logged through ctx. */
QB_API int32_t image_get_metadata(const image_ctx *ctx, const char *path,
                                  image_media_type media_type,
                                  image_metadata *meta);

/* ------------------------------------------------------------------ */
/* Functions                                                            */
/* ------------------------------------------------------------------ */

/* Media type of a file extension given without its dot (case ignored). */
QB_API image_media_type utils_get_media_type(const char *extension);

/* Processor level: 3 with SSE3, 2 with SSE2, else 1. Probed on every call. */
QB_API image_hw_level utils_check_hw(void);

/* One-call thumbnail: any supported photo into a JPEG of exactly
 * width x height, upright, padded with white. Returns 0, 2 or 9. */
QB_API int32_t easy_image_create_thumb(const char *path, const char *output,
                                       int32_t width, int32_t height,
                                       int32_t quality, uint32_t background);

/* Prepare a cache: zero-fill it and hook err (the host's error manager)
 * into its decompressor. The host creates the decompressor next. */
QB_API void image_jpeg_jcache_init(image_jcache *cache,
                                   struct jpeg_error_mgr *err);

/* Release the cache's rows. The decompressor is left alone. */
QB_API void image_jpeg_jcache_clean(image_jcache *cache);

/* Scale the cached photo into output ("-" = stdout). stream is the same
 * JPEG, seekable, or null to use the cached rows as they are.
 * Returns 0, -1 (output cannot be opened) or -2 (encoder failed). */
QB_API int32_t image_jpeg_scale(image_hw_level level, image_jcache *cache,
                                FILE *stream, const char *output,
                                image_xform xform,
                                const image_scale_params *params,
                                const char *thumb_path,
                                image_overlay *overlay);

/* Rotate, flip and optionally crop the JPEG at path into output (a
 * different file). Lossless where the size fills the iMCU grid along the
 * mirrored axes, else re-encoded at quality. crop may be null.
 * Returns 0, -1 (path unreadable), -2 (output cannot be opened),
 * -3 (decoder failed) or -4 (encoder failed). */
QB_API int32_t image_jpeg_transform(const char *path, const char *output,
                                    image_xform xform, const image_crop *crop,
                                    int32_t quality);

/* Write a JPEG preview of the camera RAW file at raw_path to jpeg_path: the
 * camera's embedded JPEG preview, unchanged, if it has one of at least 1920
 * pixels on its larger side and force_decode is 0; else the demosaiced
 * sensor data at full size, turned by xform (2 to 7; 0 and 1 leave it as
 * stored). Returns 0, -1 (LibRaw or the rotation failed), -2 (jpeg_path
 * cannot be written) or -4 (not a three-colour picture). */
QB_API int32_t image_raw_to_preview_jpeg(const char *raw_path,
                                         const char *jpeg_path,
                                         int32_t force_decode, int32_t xform,
                                         int32_t quality);

/* Lay the JPEG photo at photo_path under the PNG frame at frame_path and
 * write the result to output_path as an 8-bit RGBA PNG of the frame's size.
 * The photo is scaled by the ratio of its width to `width` (it keeps its
 * proportions: cut off below the box, or fading to black if the box is
 * taller) into the box at x, y of width x height frame pixels, which must
 * hold a pixel and lie inside the frame. In the box each pixel is
 * (frame x alpha + photo x (255 - alpha)) / 255 and opaque; outside it the
 * frame is unchanged. A photo of four components (CMYK) is refused.
 * Returns 0, or 9 with one line logged through ctx (rc=-1: frame unreadable,
 * box empty or outside it, output not written or one of the inputs; rc=-2:
 * photo unreadable or refused). */
QB_API int32_t image_create_framed_image(const image_ctx *ctx,
                                         const char *frame_path,
                                         const char *photo_path,
                                         const char *output_path, uint32_t x,
                                         uint32_t y, uint32_t width,
                                         uint32_t height);

/* @@MORE-FUNCTIONS@@ */

/* There is no XML metadata facility: always returns -1. */
QB_API int32_t image_metadata_get_xml_using_libexiv2(void *a, void *b,
                                                     int32_t c, void *d,
                                                     void *e);

#ifdef __cplusplus
}
#endif

#endif /* QBIMAGE_H */
