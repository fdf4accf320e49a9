// RAW metadata: the fields that LibRaw parses when it opens a file, in the
// units and conventions of the host's record.
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>

#include <sys/stat.h>

#include "common/libraw.h"
#include "metadata/metadata.h"

namespace {

// A whole, non-negative number in 32 bits, rounded half away from zero.
// Values with no such rounding (NaN, infinities, negatives, too large)
// give 0, which the record reads as "no value".
uint32_t whole_u32(double value)
{
    if (!(value > -0.5 && value < 4294967295.5))
        return 0;
    return uint32_t(std::lround(value));
}

// The value truncated toward zero, low 16 bits kept (two's complement for a
// negative). Values out of any integer's range give 0 instead of the
// undefined conversion.
uint16_t truncated_low16(double value)
{
    if (!(std::fabs(value) < 0x1p62))
        return 0;
    return uint16_t(uint64_t(int64_t(value)));
}

// The text cut to width - 1 bytes and terminated, never reading past the
// source's array even if it lacks a terminator of its own.
void copy_text(char *field, size_t width, const char *source,
               size_t source_width)
{
    const size_t length = strnlen(source, source_width);
    const size_t kept = length < width - 1 ? length : width - 1;
    std::memcpy(field, source, kept);
    field[kept] = '\0';
    field[width - 1] = '\0';
}

// LibRaw's flip in the record's Exif numbering. 0, 3 and 6 mean the same in
// both. LibRaw reports Exif orientation 8 (turned counter-clockwise) as 5,
// which as Exif would be a transpose; 8 is the value whose table row stands
// the picture upright.
uint16_t orientation_from_flip(int flip)
{
    constexpr int kFlipCounterClockwise = 5;
    constexpr uint16_t kExifRotate270 = 8;
    return flip == kFlipCounterClockwise ? kExifRotate270 : uint16_t(flip);
}

void fill_from_libraw(const libraw_data_t *raw, image_metadata *meta)
{
    meta->width = raw->sizes.width;
    meta->height = raw->sizes.height;

    const time_t stamp = raw->other.timestamp;
    struct tm local;
    if (localtime_r(&stamp, &local)) {
        // Formatted in full, then cut to the field as a bounded print
        // would cut it: only a year past 9999 is long enough to be cut.
        char text[6 * 11 + 5 + 1];
        std::snprintf(text, sizeof text, "%04d:%02d:%02d %02d:%02d:%02d",
                      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                      local.tm_hour, local.tm_min, local.tm_sec);
        copy_text(meta->date_time, sizeof meta->date_time, text, sizeof text);
    }

    copy_text(meta->make, sizeof meta->make, raw->idata.make,
              sizeof raw->idata.make);
    copy_text(meta->model, sizeof meta->model, raw->idata.model,
              sizeof raw->idata.model);

    // Thousandths over a whole denominator; no shutter value gives 1000/0.
    const double shutter = raw->other.shutter;
    meta->exposure_time = {1000, shutter > 0.0 ? whole_u32(1000.0 / shutter) : 0};

    meta->orientation = orientation_from_flip(raw->sizes.flip);
    meta->orientation_valid = 1;
    meta->f_number = {whole_u32(raw->other.aperture), 1};
    meta->iso = truncated_low16(raw->other.iso_speed);
    meta->iso_valid = 1;
    meta->flash = truncated_low16(raw->color.flash_used);
    meta->flash_valid = 1;
    meta->focal_length = {whole_u32(raw->other.focal_len), 1};
}

}  // namespace

int32_t image_metadata_from_raw(const char *path, image_metadata *meta)
{
    if (!meta)
        return 0;
    // Cleared before any test, so that a failure leaves a record of zeros.
    std::memset(meta, 0, sizeof *meta);
    struct stat st;
    if (!path || stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0)
        return -1;
    libraw_data_t *raw = image_libraw_init();
    if (!raw)
        return -1;
    if (libraw_open_file(raw, path) != LIBRAW_SUCCESS) {
        libraw_close(raw);
        return -1;
    }
    fill_from_libraw(raw, meta);
    libraw_close(raw);
    return 0;
}
