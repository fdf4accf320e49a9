// The PNG reader (_read_png_to_rgba) on a .png file: to RGBA for inputs of
// odd length, to RGB over a background colour for even ones, so a file's
// choice never changes between a run and its replay.
#include "harness.h"
#include "png/png.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr uint8_t kBackground[3] = {0x20, 0x40, 0x80};
    const qbfuzz::Path in = qbfuzz::path_of("input.png");
    if (!qbfuzz::write_file(in, data, size))
        return 0;
    png_uint_32 width = 0;
    png_uint_32 height = 0;
    image_png_rows rows =
        _read_png_to_rgba(in.text, &width, &height, (size & 1) ? nullptr : kBackground);
    if (rows) {
        // Each row must hold the promised layout: its first and last bytes
        // are read, so a row shorter than that is caught.
        const size_t row_bytes = size_t(width) * ((size & 1) ? 4 : 3);
        unsigned sum = 0;
        for (png_uint_32 y = 0; row_bytes != 0 && y < height; ++y)
            sum += rows[y][0] + rows[y][row_bytes - 1];
        (void)sum;
        image_png_rows_free(rows, height);
    }
    qbfuzz::remove_file(in);
    return 0;
}
