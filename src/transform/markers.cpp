// Carrying the source's APPn markers over to a transformed JPEG, and
// rewriting the Exif pixel-dimension entries when the size changes.
//
// The Exif walk reads a block that comes straight from a file, so every
// offset is checked against the marker's length before it is used, and a
// block that fails a check is written out as it stands.
#include <cstdarg>
#include <cstring>

#include "transform/transform.h"

namespace {

constexpr int MARKER_JFIF = JPEG_APP0;
constexpr int MARKER_EXIF = JPEG_APP0 + 1;
constexpr int MARKER_ADOBE = JPEG_APP0 + 14;

constexpr unsigned char JFIF_SIGNATURE[] = {'J', 'F', 'I', 'F', 0};
constexpr unsigned char ADOBE_SIGNATURE[] = {'A', 'd', 'o', 'b', 'e'};
constexpr unsigned char EXIF_SIGNATURE[] = {'E', 'x', 'i', 'f', 0, 0};

// The TIFF header starts behind the Exif signature.
constexpr uint32_t EXIF_TIFF_START = sizeof EXIF_SIGNATURE;

constexpr uint32_t TIFF_MAGIC = 42;
constexpr uint32_t TIFF_HEADER_SIZE = 12;  // the least a walk can start on
constexpr uint32_t IFD_ENTRY_SIZE = 12;
constexpr uint32_t IFD_COUNT_SIZE = 2;
constexpr uint32_t TAG_EXIF_IFD = 34665;
constexpr uint32_t TAG_PIXEL_X = 40962;
constexpr uint32_t TAG_PIXEL_Y = 40963;
constexpr uint32_t TIFF_TYPE_LONG = 4;

bool has_signature(const jpeg_saved_marker_ptr m, int code,
                   const unsigned char *sig, unsigned int sig_len,
                   unsigned int min_len)
{
    return m->marker == code && m->data_length >= min_len &&
           std::memcmp(m->data, sig, sig_len) == 0;
}

bool is_jfif(const jpeg_saved_marker_ptr m)
{
    return has_signature(m, MARKER_JFIF, JFIF_SIGNATURE, sizeof JFIF_SIGNATURE, 5);
}

bool is_adobe(const jpeg_saved_marker_ptr m)
{
    return has_signature(m, MARKER_ADOBE, ADOBE_SIGNATURE, sizeof ADOBE_SIGNATURE, 5);
}

bool is_exif(const jpeg_saved_marker_ptr m)
{
    return has_signature(m, MARKER_EXIF, EXIF_SIGNATURE, sizeof EXIF_SIGNATURE, 6);
}

}  // namespace

void image_transform_copy_markers(j_decompress_ptr dinfo, j_compress_ptr cinfo)
{
    const bool resized = cinfo->image_width != dinfo->image_width ||
                         cinfo->image_height != dinfo->image_height;
    for (jpeg_saved_marker_ptr m = dinfo->marker_list; m; m = m->next) {
        // libjpeg writes its own JFIF or Adobe marker when these are set;
        // the source's would then stand twice.
        if (cinfo->write_JFIF_header && is_jfif(m))
            continue;
        if (cinfo->write_Adobe_marker && is_adobe(m))
            continue;
        if (resized && is_exif(m))
            image_exif_patch_size(m->data + EXIF_TIFF_START,
                                  m->data_length - EXIF_TIFF_START,
                                  cinfo->image_width, cinfo->image_height);
        jpeg_write_marker(cinfo, m->marker, m->data, m->data_length);
    }
}

uint32_t image_exif_read_short(int big_endian, const unsigned char *bytes)
{
    return big_endian ? uint32_t(bytes[0]) * 256u + bytes[1]
                      : uint32_t(bytes[1]) * 256u + bytes[0];
}

int image_exif_read_long(int big_endian, const unsigned char *bytes,
                         uint32_t *value)
{
    // Offsets inside one JPEG marker never reach 65536, so a value with
    // either upper byte set is refused rather than followed.
    if (big_endian) {
        if (bytes[0] != 0 || bytes[1] != 0)
            return -1;
        *value = uint32_t(bytes[2]) * 256u + bytes[3];
    } else {
        if (bytes[3] != 0 || bytes[2] != 0)
            return -1;
        *value = uint32_t(bytes[1]) * 256u + bytes[0];
    }
    return 0;
}

int image_exif_write_fields(int big_endian, unsigned char *dest, ...)
{
    va_list ap;
    va_start(ap, dest);
    int result = 0;
    for (;;) {
        const uint32_t size = va_arg(ap, uint32_t);
        const uint32_t value = va_arg(ap, uint32_t);
        if (size == 0)
            break;
        if (size != 2 && size != 4) {
            result = -1;
            break;
        }
        for (uint32_t i = 0; i < size; ++i) {
            const uint32_t shift = big_endian ? 8u * (size - 1 - i) : 8u * i;
            dest[i] = static_cast<unsigned char>(value >> shift);
        }
        dest += size;
    }
    va_end(ap);
    return result;
}

void image_exif_patch_size(unsigned char *tiff, uint32_t length,
                           uint32_t width, uint32_t height)
{
    if (length < TIFF_HEADER_SIZE)
        return;
    int big_endian;
    if (tiff[0] == 'I' && tiff[1] == 'I')
        big_endian = 0;
    else if (tiff[0] == 'M' && tiff[1] == 'M')
        big_endian = 1;
    else
        return;
    if (image_exif_read_short(big_endian, tiff + 2) != TIFF_MAGIC)
        return;

    // IFD0, searched for the pointer to the Exif directory.
    uint32_t offset = 0;
    if (image_exif_read_long(big_endian, tiff + 4, &offset) != 0)
        return;
    if (offset > length - IFD_COUNT_SIZE)
        return;
    uint32_t entries = image_exif_read_short(big_endian, tiff + offset);
    if (entries == 0)
        return;
    offset += IFD_COUNT_SIZE;
    for (;;) {
        if (offset > length - IFD_ENTRY_SIZE)
            return;
        if (image_exif_read_short(big_endian, tiff + offset) == TAG_EXIF_IFD)
            break;
        if (--entries == 0)
            return;
        offset += IFD_ENTRY_SIZE;
    }

    // The Exif directory: every entry is visited, tags in any order, and
    // each size tag becomes one LONG holding the new size.
    uint32_t exif = 0;
    if (image_exif_read_long(big_endian, tiff + offset + 8, &exif) != 0)
        return;
    if (exif > length - IFD_COUNT_SIZE)
        return;
    entries = image_exif_read_short(big_endian, tiff + exif);
    if (entries < 2)
        return;
    exif += IFD_COUNT_SIZE;
    while (entries != 0) {
        if (exif > length - IFD_ENTRY_SIZE)
            return;
        const uint32_t tag = image_exif_read_short(big_endian, tiff + exif);
        if (tag == TAG_PIXEL_X || tag == TAG_PIXEL_Y) {
            const uint32_t value = tag == TAG_PIXEL_X ? width : height;
            if (image_exif_write_fields(big_endian, tiff + exif + 2,
                                        uint32_t(2), TIFF_TYPE_LONG,
                                        uint32_t(4), uint32_t(1),
                                        uint32_t(4), value,
                                        uint32_t(0), uint32_t(0)) != 0)
                return;
        }
        exif += IFD_ENTRY_SIZE;
        --entries;
    }
}
