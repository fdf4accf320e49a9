// The row store: one aligned allocation per row, so the stages can hand
// rows on, point views at them and free them one by one; and the pixel
// mapping of the eight transform codes.
#include <cstdlib>
#include <cstring>

#include "common/common.h"

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
