// image_get_metadata: the Exif or LibRaw reader, reconciled with the JPEG
// frame header, and the sides exchanged for a turned picture.
#include <utility>

#include "common/common.h"
#include "metadata/metadata.h"

namespace {


// Every line of the entry goes out under the unit name "image" with these
// line numbers, which hosts match on; the path is the only argument.
constexpr const char *kLogFile = "image";
constexpr int32_t kLineExifFailed = 34;
constexpr int32_t kLineExifRead = 37;
constexpr int32_t kLineNoDimension = 49;
constexpr int32_t kLineRawFailed = 64;

void log_path(const image_ctx *ctx, int32_t code, int32_t line,
              const char *format, const char *path)
{
    if (ctx)
        IMAGE_LOG(ctx, code, kLogFile, line, format, path ? path : "(null)");
}

// Orientations 5 to 8 turn the picture by a quarter; above 8 there is no
// orientation, but the exchange has been made by then all the same.
constexpr uint16_t kLastUnturned = 4;
constexpr uint16_t kLastOrientation = 8;

}  // namespace

extern "C" QB_API int32_t image_get_metadata(const image_ctx *ctx,
                                             const char *path,
                                             image_media_type media_type,
                                             image_metadata *meta)
{
    // Every type but JPEG is read through LibRaw.
    if (media_type != IMAGE_MEDIA_JPEG) {
        // The RAW reader accepts a null record, but the exchange below needs one.
        if (!meta || image_metadata_from_raw(path, meta) != 0) {
            log_path(ctx, IMAGE_RC_FAILED, kLineRawFailed,
                     "Cannot extract metadata for %s", path);
            return IMAGE_RC_FAILED;
        }
        if (meta->orientation_valid != 0 && meta->orientation > kLastUnturned)
            std::swap(meta->width, meta->height);
        if (meta->orientation > kLastOrientation)
            meta->orientation = 0;
        return IMAGE_RC_OK;
    }

    if (image_metadata_from_exif(path, meta) != 0) {
        log_path(ctx, IMAGE_RC_FAILED, kLineExifFailed,
                 "Cannot extract metadata for %s", path);
        return IMAGE_RC_FAILED;
    }
    log_path(ctx, IMAGE_RC_OK, kLineExifRead,
             "Go metadata for %s from libexif", path);

    // The frame header is the truth about the stored size. Exif sizes are
    // often stale after editing, so the header wins whenever the picture
    // is not turned. A turned picture keeps its Exif size, which Exif
    // gives in stored order.
    int32_t result = IMAGE_RC_OK;
    uint32_t frame_width = 0;
    uint32_t frame_height = 0;
    image_jpeg_probe_size(path, &frame_width, &frame_height);
    if (frame_width != 0 && frame_height != 0 &&
        (meta->width != frame_width || meta->height != frame_height) &&
        (meta->orientation_valid == 0 || meta->orientation == 1)) {
        meta->width = frame_width;
        meta->height = frame_height;
        meta->orientation_valid = 0;
    }

    if (meta->width == 0 || meta->height == 0) {
        result = IMAGE_RC_FAILED;
        log_path(ctx, IMAGE_RC_FAILED, kLineNoDimension,
                 "Cannot get dimension %s", path);
    } else if (meta->orientation_valid != 0 &&
               meta->orientation > kLastUnturned) {
        std::swap(meta->width, meta->height);
    }

    // The thumbnail entry indexes its nine-row table with the orientation
    // whatever the result, so it must leave here as a valid index.
    if (meta->orientation > kLastOrientation)
        meta->orientation = 0;
    return result;
}

