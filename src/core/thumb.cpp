// The one-call thumbnail: the default host record and logger, the entry
// that classifies the file and stands it upright, and its JPEG route.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "common/files.h"
#include "core/core.h"
#include "metadata/metadata.h"
#include "pipeline/pipeline.h"
#include "png/png.h"
#include "raw/raw.h"

namespace {

void *default_alloc(void *, size_t size) { return std::malloc(size); }
void default_free(void *, void *ptr) { std::free(ptr); }

// Writes only for levels above 0. The default record logs errors at level
// 0, so a thumbnail made with it is silent.
void default_log(int32_t level, void *, int32_t, const char *file,
                 int32_t line, const char *format, ...)
{
    if (level <= 0)
        return;
    static constexpr const char *kNames[4] = {"error", "warn", "info", "debug"};
    std::fprintf(stderr, "%s:%d (%s)", file, line, kNames[level & 3]);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stderr, format, ap);
    va_end(ap);
}

constexpr image_ctx default_ctx()
{
    return image_ctx{nullptr, default_alloc, default_free, default_log, 0, 1, 2, 3};
}

// Thumbnail defaults; the call's width, height and quality replace theirs.
constexpr image_scale_params kThumbDefaults{
    IMAGE_SCALE_FIT_BOX_PAD, 128, 128, 10.0, 85, 0, 0};

}  // namespace

// ---------------------------------------------------------------------------
// JPEG route

// The frame holds the jump target for the decompressor, so it keeps no
// object with a destructor; the teardown at its end serves every path.
int32_t image_thumb_from_jpeg(const image_ctx *ctx, const char *path,
                              const char *output,
                              const image_scale_params *params,
                              image_xform xform)
{
    const image_hw_level level = utils_check_hw();
    FILE *first = image_open_input(path);
    if (!first) {
        IMAGE_LOG(ctx, IMAGE_RC_NOT_FOUND, "image_jpeg", 3069, "Cannot read %s", path);
        return IMAGE_RC_NOT_FOUND;
    }

    image_jcache cache;
    image_jpeg_error err;
    // Changed after setjmp and read after a jump: kept out of registers.
    FILE *volatile second = nullptr;
    volatile int32_t result = IMAGE_RC_OK;

    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = image_jpeg_error_exit;
    if (setjmp(err.jump)) {
        IMAGE_LOG(ctx, IMAGE_RC_FAILED, "image_jpeg", 3077,
                  "Libjpeg call error handler. Aborting...");
        result = IMAGE_RC_FAILED;
    } else {
        jpeg_create_decompress(&cache.cinfo);
        // Our own source: a progressive file decoded at a small scale skips
        // the scans that cannot change the picture.
        image_scan_source(&cache.cinfo, first);
        // ICC profiles live in APP2; the cache looks for an Adobe RGB one.
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
        jpeg_calc_output_dimensions(&cache.cinfo);
        if (cache.cinfo.image_width == 0 || cache.cinfo.image_height == 0) {
            IMAGE_LOG(ctx, IMAGE_RC_FAILED, "image_jpeg", 3091,
                      "Bad image size %d x %d", int(cache.cinfo.image_width),
                      int(cache.cinfo.image_height));
            result = IMAGE_RC_FAILED;
        } else if (FILE *reopened = image_open_input(path); !reopened) {
            IMAGE_LOG(ctx, IMAGE_RC_NOT_FOUND, "image_jpeg", 3098,
                      "Error cannot find %s", path);
            result = IMAGE_RC_NOT_FOUND;
        } else {
            second = reopened;
            // The decompressor reads on from the first handle; the second is
            // the rewindable stream a re-decode at another scale needs.
            const int32_t rc = image_jpeg_scale(level, &cache, reopened, output,
                                                xform, params, nullptr, nullptr);
            if (rc != 0) {
                IMAGE_LOG(ctx, IMAGE_RC_FAILED, "image_jpeg", 3106,
                          "Error during image scaler (ret=%d)", int(rc));
                result = IMAGE_RC_FAILED;
            } else {
                jpeg_finish_decompress(&cache.cinfo);
            }
        }
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    std::fclose(first);
    if (second)
        std::fclose(second);
    return result;
}

// ---------------------------------------------------------------------------
// Thumbnail entry

extern "C" QB_API int32_t easy_image_create_thumb(const char *path,
                                                  const char *output,
                                                  int32_t width, int32_t height,
                                                  int32_t quality,
                                                  uint32_t background)
{
    const image_ctx ctx = default_ctx();
    const char *dot = path ? std::strrchr(path, '.') : nullptr;
    if (!dot)
        return IMAGE_RC_NOT_FOUND;
    // The thumbnail must never replace its own source, by any name.
    if (!output || image_same_file(path, output))
        return IMAGE_RC_FAILED;

    const image_media_type type = utils_get_media_type(dot + 1);
    image_xform xform = IMAGE_XFORM_NONE;
    switch (type) {
    case IMAGE_MEDIA_JPEG:
    case IMAGE_MEDIA_RAW: {
        // The orientation stands the thumbnail upright. A failed metadata
        // read is no reason to refuse the thumbnail: it just stays unturned.
        image_metadata meta;
        meta.orientation_valid = 0;
        image_get_metadata(&ctx, path, type, &meta);
        if (meta.orientation_valid && meta.orientation <= 8)
            xform = image_orientation2xform[meta.orientation];
        break;
    }
    case IMAGE_MEDIA_PNG:  // no orientation: a PNG is never turned
        break;
    default:
        return IMAGE_RC_FAILED;
    }

    image_scale_params params = kThumbDefaults;
    params.width = width;
    params.height = height;
    params.quality = quality;
    if (type == IMAGE_MEDIA_PNG)
        return image_thumb_from_png(&ctx, path, output, &params, xform, background);
    if (type != IMAGE_MEDIA_RAW)
        return image_thumb_from_jpeg(&ctx, path, output, &params, xform);

    // A RAW file goes through a staged JPEG in its stored orientation (any
    // embedded preview serves), which the JPEG route turns by the RAW
    // file's orientation read above. The staging file gets a name of its
    // own, created exclusively and readable by us only: a fixed name in
    // /tmp could be a link planted by another user, and would be shared by
    // threads making RAW thumbnails at once. It goes when the thumbnail is
    // made or has failed.
    char staged[] = "/tmp/preview.XXXXXX";
    const int fd = mkstemp(staged);
    if (fd < 0)
        return IMAGE_RC_FAILED;
    close(fd);
    int32_t result = IMAGE_RC_FAILED;
    if (image_raw_preview(path, staged, 0, IMAGE_XFORM_NONE, 85, 0) == 0)
        result = image_thumb_from_jpeg(&ctx, staged, output, &params, xform);
    unlink(staged);
    return result;
}

extern "C" QB_API int32_t image_metadata_get_xml_using_libexiv2(void *, void *,
                                                                int32_t, void *,
                                                                void *)
{
    return -1;  // there is no XML metadata facility
}

