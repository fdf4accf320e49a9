// The PNG row store: plain rows, one malloc each, as libpng reads and
// writes them. Unlike image_rows nothing is rounded, aligned or cleared.
#include <cstdlib>

#include "png/png.h"

image_png_rows image_png_rows_alloc(uint32_t width, uint32_t height,
                                    uint32_t bytes_per_pixel)
{
    const uint64_t row_bytes = uint64_t(width) * bytes_per_pixel;
    if (row_bytes > UINT32_MAX)
        return nullptr;
    // One slot at least, so that malloc(0) cannot be mistaken for failure.
    auto rows = static_cast<image_png_rows>(
        std::malloc(sizeof(unsigned char *) * (height ? height : 1u)));
    if (!rows)
        return nullptr;
    // malloc(0) may give null or a pointer: ask for a byte at least, so
    // that a row that exists is never null.
    const size_t bytes = row_bytes ? size_t(row_bytes) : 1u;
    for (uint32_t y = 0; y < height; ++y) {
        rows[y] = static_cast<unsigned char *>(std::malloc(bytes));
        if (!rows[y]) {
            image_png_rows_free(rows, y);
            return nullptr;
        }
    }
    return rows;
}

void image_png_rows_free(image_png_rows rows, uint32_t height)
{
    if (!rows)
        return;
    for (uint32_t y = 0; y < height; ++y)
        std::free(rows[y]);
    std::free(rows);
}
