// The PNG reader: any PNG file to 8-bit RGBA, or to RGB over a background
// colour, with libpng's transformations doing the work.
//
// libpng reports fatal errors by longjmp to the read struct's jump buffer,
// so the function that holds the jump target keeps its frame plain (no
// objects with destructors) and does its own teardown behind it.
//
// About the version string. The reader was designed against the libpng 1.2
// interface ("1.2.50"). libpng 1.6, which this library builds with,
// refuses a version string of another x.y series in png_create_read_struct
// and png_create_write_struct (they return null), because that string is a
// promise about the header the caller was compiled with. So both pass the
// header's own PNG_LIBPNG_VER_STRING. The calls themselves are still the
// right ones: every one used here (png_set_gamma, png_set_palette_to_rgb,
// png_set_gray_to_rgb, png_set_strip_16, png_set_expand_gray_1_2_4_to_8,
// png_set_tRNS_to_alpha, png_read_update_info, png_read_image, and on the
// writing side png_set_IHDR, png_write_info, png_write_image, png_write_end)
// is part of the 1.2 interface and keeps its 1.2 meaning in 1.6, and the
// order of calls is the one that interface prescribes.
//
// About the error callbacks. libpng's default handlers print "libpng
// error: ..." and "libpng warning: ..." on stderr. The library prints
// nothing of its own (a failing thumbnail gives only its return code, Part
// 1.1), and libjpeg's fatal message is not printed either, so both libpng
// structs get handlers that are silent: the error handler leaves through
// libpng's own jump buffer exactly as the default one would, and the
// warning handler drops the text. Nothing else changes.
#include <cstdio>
#include <cstring>

#include "common/files.h"
#include "common/limits.h"
#include "png/png.h"
#include "png/silent.h"

namespace {

// Step 11 of the reader: brings the rows as read (4 bytes a pixel
// allocated; RGBA if `transparent`, else RGB packed from the start) to the
// layout the caller asked for. Returns the result rows, which are `read`
// itself or new rows (then `read` is freed); null, with `read` freed, if
// memory is short.
image_png_rows image_png_layout(image_png_rows read, uint32_t width,
                                uint32_t height, bool transparent,
                                const uint8_t *background)
{
    if (transparent == (background == nullptr))
        return read;  // RGBA as read, or RGB as read: nothing to do

    image_png_rows out = image_png_rows_alloc(width, height, transparent ? 3 : 4);
    if (out) {
        for (uint32_t y = 0; y < height; ++y) {
            const unsigned char *s = read[y];
            unsigned char *d = out[y];
            if (transparent) {
                // RGBA over the background: RGB, each component blended.
                for (uint32_t x = 0; x < width; ++x, s += 4, d += 3) {
                    d[0] = image_png_blend(s[0], background[0], s[3]);
                    d[1] = image_png_blend(s[1], background[1], s[3]);
                    d[2] = image_png_blend(s[2], background[2], s[3]);
                }
            } else {
                // RGB to RGBA, opaque.
                for (uint32_t x = 0; x < width; ++x, s += 3, d += 4) {
                    d[0] = s[0];
                    d[1] = s[1];
                    d[2] = s[2];
                    d[3] = 255;
                }
            }
        }
    }
    image_png_rows_free(read, height);
    return out;
}

}  // namespace

image_png_rows _read_png_to_rgba(const char *path, png_uint_32 *width,
                                 png_uint_32 *height,
                                 const uint8_t *background)
{
    if (!path || !width || !height)
        return nullptr;
    // Regular files only: a FIFO or a device could block or never end.
    FILE *file = image_open_input(path);
    if (!file)
        return nullptr;
    constexpr png_alloc_size_t kChunkLimit = 1u << 20;
    static constexpr png_byte kUnused[] =
        "tEXt\0zTXt\0iTXt\0eXIf\0tIME\0pHYs\0oFFs\0pCAL\0sCAL\0sPLT\0hIST\0bKGD\0sBIT";
    static_assert(sizeof kUnused == 13 * 5);
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr,
                                             image_png_silent_error,
                                             image_png_silent_warning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        std::fclose(file);
        return nullptr;
    }

    // Changed after setjmp and read after a jump: kept out of registers.
    // `read` holds the rows while libpng may still jump; `result` is set
    // only when no libpng call is left.
    unsigned char **volatile read = nullptr;
    volatile png_uint_32 read_height = 0;
    unsigned char **volatile result = nullptr;

    if (setjmp(png_jmpbuf(png))) {
        // A file that is no PNG, a bad header or CRC, a truncated file. If
        // the rows exist they are half read: the caller would take them
        // for a finished picture, so they go and the result is null.
        image_png_rows_free(read, read_height);
        read = nullptr;
    } else {
        png_init_io(png, file);
        // Only the chunks that shape the pixels are read (IHDR, PLTE, tRNS,
        // gAMA and the colour-space chunks that may stand in for gAMA);
        // the rest are passed over unread. libpng reports an oversized
        // ancillary chunk as a mere warning and would then allocate what it
        // claims (a 70-byte file can claim a zTXt of a gigabyte). One
        // megabyte bounds what the chunks read may decompress to.
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, 0);
        png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, kUnused,
                                    int(sizeof kUnused / 5));
        png_set_chunk_malloc_max(png, kChunkLimit);
        png_read_info(png, info);
        int bit_depth = 0, color_type = 0;
        png_get_IHDR(png, info, width, height, &bit_depth, &color_type,
                     nullptr, nullptr, nullptr);

        // Only a file that states its gamma is corrected.
        double file_gamma = 0.0;
        if (png_get_gAMA(png, info, &file_gamma))
            png_set_gamma(png, 2.2, file_gamma);

        switch (color_type) {
        case PNG_COLOR_TYPE_PALETTE:
            png_set_palette_to_rgb(png);
            break;
        case PNG_COLOR_TYPE_GRAY:
        case PNG_COLOR_TYPE_GRAY_ALPHA:
            png_set_gray_to_rgb(png);
            if (bit_depth == 16)
                png_set_strip_16(png);
            else if (bit_depth < 8)
                png_set_expand_gray_1_2_4_to_8(png);
            break;
        case PNG_COLOR_TYPE_RGB:
        case PNG_COLOR_TYPE_RGB_ALPHA:
            if (bit_depth == 16)
                png_set_strip_16(png);
            break;
        default:
            break;  // libpng refuses other types in png_read_info
        }
        const bool trns = png_get_valid(png, info, PNG_INFO_tRNS) != 0;
        if (trns)
            png_set_tRNS_to_alpha(png);
        const bool transparent = (color_type & PNG_COLOR_MASK_ALPHA) != 0 || trns;
        png_read_update_info(png, info);

        // The rows hold 4 bytes a pixel. The transformations above always
        // give 8-bit RGB or RGBA; anything else would not fit the layouts,
        // nor perhaps the rows, so it is refused rather than read. So is a
        // header that claims more pixels than common/limits.h allows: a few
        // bytes of IHDR must not buy gigabytes of rows.
        const bool fits = image_source_size_ok(*width, *height, image_file_bytes(file)) &&
                          png_get_bit_depth(png, info) == 8 &&
                          png_get_channels(png, info) == (transparent ? 4 : 3) &&
                          png_get_rowbytes(png, info) <= size_t(*width) * 4;
        image_png_rows rows = fits ? image_png_rows_alloc(*width, *height, 4) : nullptr;
        if (rows) {
            read_height = *height;
            read = rows;
            png_read_image(png, rows);
            // No libpng call follows: the rows are complete.
            read = nullptr;
            result = image_png_layout(rows, *width, *height, transparent, background);
        }
    }
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return result;
}
