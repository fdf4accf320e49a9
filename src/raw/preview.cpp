// Camera RAW files: the JPEG preview that hosts ask for and that the
// thumbnail entry stages, and the full decode behind it with its JPEG
// writer.
//
// None of this logs: the preview reports by its small negative codes, and
// its callers decide what to tell the host.
#include "raw/raw.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "common/common.h"
#include "common/files.h"
#include "common/limits.h"

namespace {

// ---------------------------------------------------------------------------
// Embedded preview

enum class preview_outcome {
    written,    // jpeg_path holds the camera's preview
    not_used,   // none, too small, or not a JPEG
    spoiled,    // unpacking it failed, and with it the handle's decoder
    no_output,  // jpeg_path cannot be opened for writing
    failed,     // a write or the close failed: no whole JPEG at jpeg_path
};

// Writes `bytes` to jpeg_path, checking every write and the close, which
// LibRaw's own thumbnail writer does not: a full disk must not pass for a
// preview.
preview_outcome write_bytes(const char *jpeg_path, const void *bytes, size_t size)
{
    FILE *stream = image_open_output(jpeg_path, nullptr, 0);
    if (!stream)
        return preview_outcome::no_output;
    const bool written = std::fwrite(bytes, 1, size, stream) == size;
    const bool closed = std::fclose(stream) == 0;
    return written && closed ? preview_outcome::written : preview_outcome::failed;
}

// The camera's own JPEG, written as LibRaw hands it over. No sensor data
// is read on this path, which is what makes a preview cheap. Neither xform
// nor any orientation is applied: the bytes are the camera's, in the
// orientation the sensor stored them.
preview_outcome write_embedded_preview(libraw_data_t *raw,
                                       const char *jpeg_path,
                                       int32_t force_decode, int32_t min_side)
{
    const libraw_thumbnail_t &thumb = raw->thumbnail;
    if (force_decode != 0 || thumb.tlength == 0)
        return preview_outcome::not_used;
    const int32_t larger =
        thumb.twidth > thumb.theight ? thumb.twidth : thumb.theight;
    if (larger < min_side)
        return preview_outcome::not_used;
    if (libraw_unpack_thumb(raw) != LIBRAW_SUCCESS)
        return preview_outcome::spoiled;
    if (thumb.tformat != LIBRAW_THUMBNAIL_JPEG)
        return preview_outcome::not_used;
    int error = 0;
    libraw_processed_image_t *image = libraw_dcraw_make_mem_thumb(raw, &error);
    if (!image)
        return preview_outcome::not_used;
    const preview_outcome outcome =
        image->type == LIBRAW_IMAGE_JPEG
            ? write_bytes(jpeg_path, image->data, image->data_size)
            : preview_outcome::not_used;
    libraw_dcraw_clear_mem(image);
    return outcome;
}

// ---------------------------------------------------------------------------
// Full decode

// The memory image as RGB samples that image_rgb_to_jpeg can take. LibRaw
// stores one byte per sample up to 8 bits and two above, so the buffer is
// checked against what the writer will read before it reads anything.
int32_t write_memory_image(FILE *stream, const libraw_processed_image_t *image,
                           int32_t quality)
{
    if (image->type != LIBRAW_IMAGE_BITMAP || image->colors != 3)
        return IMAGE_RAW_NOT_RGB;
    if (image->bits < 1 || image->bits > 16)
        return IMAGE_RAW_NOT_RGB;
    const int32_t maxval = (1 << image->bits) - 1;
    const size_t sample_bytes = maxval > 255 ? 2 : 1;
    const size_t needed =
        size_t(image->width) * size_t(image->height) * 3 * sample_bytes;
    if (image->data_size < needed)
        return IMAGE_RAW_NOT_RGB;
    return image_rgb_to_jpeg(stream, image->width, image->height, maxval,
                             image->data, quality);
}

// ---------------------------------------------------------------------------
// JPEG writer

void free_rows(JSAMPARRAY rows, int32_t count)
{
    for (int32_t y = 0; y < count; ++y)
        std::free(rows[y]);
    std::free(rows);
}

// Fill the rows from the samples: a plain copy of 8-bit samples at 255,
// else each sample through the rescale table, held to maxval so that a
// stray value never indexes past the table's end.
void convert_samples(JSAMPARRAY rows, int32_t width, int32_t height,
                     int32_t maxval, const void *samples,
                     const uint8_t *table)
{
    const size_t row_samples = size_t(width) * 3;
    const auto *bytes = static_cast<const uint8_t *>(samples);
    for (int32_t y = 0; y < height; ++y) {
        JSAMPROW row = rows[y];
        if (maxval == 255) {
            std::memcpy(row, bytes + size_t(y) * row_samples, row_samples);
        } else if (maxval > 255) {
            const uint8_t *src = bytes + size_t(y) * row_samples * 2;
            for (size_t i = 0; i < row_samples; ++i) {
                uint16_t v;
                std::memcpy(&v, src + i * 2, sizeof v);  // any alignment
                row[i] = table[v < maxval ? v : maxval];
            }
        } else {
            const uint8_t *src = bytes + size_t(y) * row_samples;
            for (size_t i = 0; i < row_samples; ++i)
                row[i] = table[src[i] < maxval ? src[i] : maxval];
        }
    }
}

// The encoder: its own error record, so that a libjpeg error, a failed
// write to a full disk above all, comes back here as a jump and leaves as
// -1. The frame holds only plain values set before the jump target is
// armed; everything is released after it on every path.
int32_t encode_rows(FILE *stream, int32_t width, int32_t height,
                    JSAMPARRAY rows, int32_t quality)
{
    jpeg_compress_struct cinfo{};
    image_jpeg_error err;
    cinfo.err = image_jpeg_error_init(&err);
    int32_t result = IMAGE_RAW_OK;
    if (setjmp(err.jump) == 0) {
        jpeg_create_compress(&cinfo);
        jpeg_stdio_dest(&cinfo, stream);
        cinfo.data_precision = 8;
        cinfo.image_width = JDIMENSION(width);
        cinfo.image_height = JDIMENSION(height);
        cinfo.input_components = 3;
        cinfo.in_color_space = JCS_RGB;
        jpeg_set_defaults(&cinfo);
        jpeg_set_quality(&cinfo, quality, TRUE);
        cinfo.dct_method = JDCT_FLOAT;
        jpeg_start_compress(&cinfo, TRUE);
        // A stdio destination never suspends, so one call takes every row;
        // were one missing, jpeg_finish_compress would fail, not pass.
        jpeg_write_scanlines(&cinfo, rows, JDIMENSION(height));
        jpeg_finish_compress(&cinfo);
    } else {
        result = IMAGE_RAW_FAILED;
    }
    jpeg_destroy_compress(&cinfo);
    return result;
}

// ---------------------------------------------------------------------------
// Preview driver

// The part of image_raw_preview that runs on an open handle; the caller
// owns the handle and closes it once, whatever happens here.
int32_t preview_from_handle(libraw_data_t *raw, const char *raw_path,
                            const char *jpeg_path, int32_t force_decode,
                            int32_t xform, int32_t quality, int32_t min_side)
{
    if (libraw_open_file(raw, raw_path) != LIBRAW_SUCCESS)
        return IMAGE_RAW_FAILED;

    switch (write_embedded_preview(raw, jpeg_path, force_decode, min_side)) {
    case preview_outcome::written:
        return IMAGE_RAW_OK;
    case preview_outcome::no_output:
        return IMAGE_RAW_NO_OUTPUT;
    case preview_outcome::failed:
        return IMAGE_RAW_FAILED;
    case preview_outcome::spoiled:
        // A failed preview unpack (a damaged offset, say) leaves the handle
        // unable to unpack the sensor data too. Only a fresh open restores
        // it.
        libraw_recycle(raw);
        if (libraw_open_file(raw, raw_path) != LIBRAW_SUCCESS)
            return IMAGE_RAW_FAILED;
        break;
    case preview_outcome::not_used:
        break;
    }

    // The sensor data is decoded only within the source bound, and only
    // from a file that holds at least a bit per pixel: real RAW files hold
    // many, and a few bytes claiming megapixels would cost seconds of
    // demosaicing padding.
    const uint64_t pixels = uint64_t(raw->sizes.raw_width) * raw->sizes.raw_height;
    struct stat st;
    if (stat(raw_path, &st) != 0 ||
        !image_source_size_ok(raw->sizes.raw_width, raw->sizes.raw_height) ||
        pixels > uint64_t(st.st_size) * 8)
        return IMAGE_RAW_FAILED;

    // Codes under 2 leave the decode as stored: 1, the horizontal mirror,
    // is not one that this route carries out.
    if (xform < IMAGE_XFORM_FLIP_V)
        return image_raw_decode_to_jpeg(raw, jpeg_path, quality);

    // The turned picture goes to a file beside jpeg_path and then replaces
    // it. A name that does not fit is refused before any work: cut short,
    // it could name jpeg_path itself, and the transform must never read
    // and write one file.
    char temp[PATH_MAX];
    const int length = std::snprintf(temp, sizeof temp, "%s.tmp", jpeg_path);
    if (length < 0 || size_t(length) >= sizeof temp)
        return IMAGE_RAW_FAILED;

    // A failed decode is not rotated: jpeg_path then holds an empty file,
    // or, when it could not be opened for writing, something this call
    // never wrote, which must not come out turned under a result of 0.
    if (image_raw_decode_to_jpeg(raw, jpeg_path, quality) != IMAGE_RAW_OK)
        return IMAGE_RAW_FAILED;
    if (image_jpeg_transform(jpeg_path, temp, image_xform(xform), nullptr,
                             quality) != 0)
        return IMAGE_RAW_FAILED;
    if (unlink(jpeg_path) != 0 || std::rename(temp, jpeg_path) != 0)
        return IMAGE_RAW_FAILED;
    return IMAGE_RAW_OK;
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

int32_t image_raw_preview(const char *raw_path, const char *jpeg_path,
                          int32_t force_decode, int32_t xform,
                          int32_t quality, int32_t min_side)
{
    if (!raw_path || !jpeg_path || !image_is_regular_file(raw_path))
        return IMAGE_RAW_FAILED;
    // The preview must never replace the RAW file it comes from.
    if (image_same_file(raw_path, jpeg_path))
        return IMAGE_RAW_NO_OUTPUT;
    libraw_data_t *raw = image_libraw_init();
    if (!raw)
        return IMAGE_RAW_FAILED;
    const int32_t result = preview_from_handle(raw, raw_path, jpeg_path,
                                               force_decode, xform, quality,
                                               min_side);
    libraw_close(raw);
    return result;
}

extern "C" QB_API int32_t image_raw_to_preview_jpeg(const char *raw_path,
                                                    const char *jpeg_path,
                                                    int32_t force_decode,
                                                    int32_t xform,
                                                    int32_t quality)
{
    return image_raw_preview(raw_path, jpeg_path, force_decode, xform, quality,
                             IMAGE_RAW_PREVIEW_MIN_SIDE);
}

int32_t image_raw_decode_to_jpeg(libraw_data_t *raw, const char *jpeg_path,
                                 int32_t quality)
{
    // Opened before the slow work, so a bad output path fails at once.
    FILE *stream = image_open_output(jpeg_path, nullptr, 0);
    if (!stream)
        return IMAGE_RAW_NO_OUTPUT;

    // LibRaw turns a full decode by the file's orientation, while an
    // embedded preview comes out as the sensor stored it. The callers turn
    // the result themselves (the thumbnail entry by the file's orientation,
    // a host by its xform), so the decode is kept in the stored orientation
    // too; with LibRaw's default it would be turned twice.
    raw->params.user_flip = 0;

    int32_t result = IMAGE_RAW_FAILED;
    int error = 0;
    libraw_processed_image_t *image = nullptr;
    if (libraw_unpack(raw) == LIBRAW_SUCCESS &&
        libraw_dcraw_process(raw) == LIBRAW_SUCCESS &&
        (image = libraw_dcraw_make_mem_image(raw, &error)) != nullptr) {
        result = write_memory_image(stream, image, quality);
        std::free(image);  // one malloc'd block, header and data
    }
    // A write that fails only when the buffer is flushed at the close still
    // means that no whole JPEG stands at jpeg_path.
    if (std::fclose(stream) != 0 && result == IMAGE_RAW_OK)
        result = IMAGE_RAW_FAILED;
    return result;
}

int32_t image_rgb_to_jpeg(FILE *stream, int32_t width, int32_t height,
                          int32_t maxval, const void *samples,
                          int32_t quality)
{
    // Two bytes hold any sample, and the table's products stay in 32 bits.
    if (!stream || !samples || width <= 0 || height <= 0 || maxval < 1 ||
        maxval > 65535)
        return IMAGE_RAW_FAILED;

    uint8_t *table = nullptr;
    if (maxval != 255) {
        table = static_cast<uint8_t *>(std::malloc(size_t(maxval) + 1));
        if (!table)
            return IMAGE_RAW_FAILED;
        for (int32_t i = 0; i <= maxval; ++i)
            table[i] = uint8_t(((maxval >> 1) + i * 255) / maxval);
    }

    const size_t row_bytes = size_t(width) * 3;
    auto rows = static_cast<JSAMPARRAY>(std::calloc(size_t(height), sizeof(JSAMPROW)));
    if (!rows) {
        std::free(table);
        return IMAGE_RAW_FAILED;
    }
    for (int32_t y = 0; y < height; ++y) {
        rows[y] = static_cast<JSAMPROW>(std::calloc(row_bytes, 1));
        if (!rows[y]) {
            free_rows(rows, y);
            std::free(table);
            return IMAGE_RAW_FAILED;
        }
    }

    convert_samples(rows, width, height, maxval, samples, table);
    const int32_t result = encode_rows(stream, width, height, rows, quality);
    free_rows(rows, height);
    std::free(table);
    return result;
}
