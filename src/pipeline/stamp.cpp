// The Exif stamp: a minimal APP1 written behind SOI of a scaled JPEG, with
// Orientation, Software and, in IFD1, a ready-made small JPEG as the
// embedded thumbnail. Built byte by byte, little-endian.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "pipeline/pipeline.h"

namespace {

constexpr char kSoftware[] = "KESTREL QuietBay Gallery 2";
constexpr size_t kSoftwareField = 32;  // the text, its terminator, zero padding
constexpr size_t kStructure = 256;     // room for the 118 bytes of structure

static_assert(sizeof kSoftware == 27, "the Software count is its length plus 1");

}  // namespace

size_t image_put_u16(uint8_t *p, uint16_t v)
{
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    return 2;
}

size_t image_put_u32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = uint8_t(v >> (8 * i));
    return 4;
}

size_t image_put_ifd_entry(uint8_t *p, uint16_t tag, uint16_t type,
                           uint32_t count, uint32_t value)
{
    size_t n = image_put_u16(p, tag);
    n += image_put_u16(p + n, type);
    n += image_put_u32(p + n, count);
    n += image_put_u32(p + n, value);
    return n;
}

// Returns 0. A payload beyond what a marker
// holds raises libjpeg's fatal error, which leaves through the encoder's
// jump target; the buffer is owned by the frame below that jump, so it is
// kept in the compressor's pool, which jpeg_destroy_compress releases.
int image_exif_stamp_write(j_compress_ptr cinfo, uint32_t orientation,
                           const char *thumb_path)
{
    struct stat st;
    bool have_thumb = thumb_path && stat(thumb_path, &st) == 0 && st.st_size >= 0;
    // A thumbnail that could never fit a marker still goes through: libjpeg
    // refuses the marker and the whole file fails, which is the contract.
    // Only the allocation is capped, at a size beyond any marker.
    size_t n = have_thumb ? size_t(st.st_size) : 0;
    if (n > 65536)
        n = 65536;
    const size_t cap = n + kStructure;
    // From the compressor's pool: a refused marker jumps past this frame,
    // and jpeg_destroy_compress at the recovery point releases the pool.
    // The thumbnail file is opened after it and closed before any further
    // libjpeg call that could jump.
    auto *buf = static_cast<uint8_t *>((*cinfo->mem->alloc_large)(
        reinterpret_cast<j_common_ptr>(cinfo), JPOOL_IMAGE, cap));
    // A thumbnail that exists but cannot be opened is treated like a missing
    // one: no IFD1 at all, rather than a directory that promises bytes it
    // does not hold.
    FILE *thumb = have_thumb ? image_open_input(thumb_path) : nullptr;
    have_thumb = thumb != nullptr;

    uint8_t *p = buf;
    std::memcpy(p, "Exif\0\0", 6);
    p += 6;
    uint8_t *const tiff = p;
    *p++ = 0x49;
    *p++ = 0x49;
    p += image_put_u16(p, 42);
    p += image_put_u32(p, 8);
    p += image_put_u16(p, 2);  // IFD0: Orientation, Software
    p += image_put_ifd_entry(p, 0x0112, 3, 1, orientation);
    // The Software text lies behind the rest of this directory: one more
    // 12-byte entry and the 4-byte link.
    const auto software_at = uint32_t(p + 16 - tiff);
    p += image_put_ifd_entry(p, 0x0131, 2, sizeof kSoftware, software_at);
    uint8_t *const link = p;
    p += image_put_u32(p, 0);
    std::memset(p, 0, kSoftwareField);
    std::memcpy(p, kSoftware, sizeof kSoftware - 1);
    p += kSoftwareField;

    if (have_thumb) {
        image_put_u32(link, uint32_t(p - tiff));
        p += image_put_u16(p, 3);  // IFD1: Compression, offset, length
        p += image_put_ifd_entry(p, 0x0103, 3, 1, 6);
        // The data follows the two remaining entries and the final link.
        const auto data_at = uint32_t(p + 28 - tiff);
        p += image_put_ifd_entry(p, 0x0201, 4, 1, data_at);
        p += image_put_ifd_entry(p, 0x0202, 4, 1, uint32_t(st.st_size));
        p += image_put_u32(p, 0);
        p += std::fread(p, 1, n, thumb);
        std::fclose(thumb);
    }
    jpeg_write_marker(cinfo, JPEG_APP0 + 1, buf, unsigned(p - buf));
    return 0;
}
