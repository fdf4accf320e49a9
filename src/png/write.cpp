// The PNG writer: RGBA rows to an 8-bit RGBA PNG file. The version string
// and the silent handlers are explained in read.cpp.
//
// The writer needs a jump target of its own even though nothing here
// recovers from much: a libpng error (a failed write: "Write Error" on a full disk) with no jump
// target set aborts the process in libpng 1.6. A jump gives -1 with the
// file closed. Small files may fail only when stdio flushes its buffer, so
// the stream's error flag and fclose are checked too.
#include <cstdio>

#include "common/files.h"
#include "png/png.h"
#include "png/silent.h"

int32_t image_png_write_rgba(const char *path, image_png_rows rows,
                             png_uint_32 width, png_uint_32 height)
{
    if (!path || !rows)
        return -1;
    // Opened without blocking: a FIFO with no reader fails at once.
    FILE *file = image_open_output(path, nullptr, 0);
    if (!file)
        return -1;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr,
                                              image_png_silent_error,
                                              image_png_silent_warning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        std::fclose(file);
        return -1;
    }

    int32_t result = 0;  // set only behind the jump: no volatile needed
    if (setjmp(png_jmpbuf(png))) {
        result = -1;
    } else {
        png_init_io(png, file);
        png_set_IHDR(png, info, width, height, 8, PNG_COLOR_TYPE_RGB_ALPHA,
                     PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                     PNG_FILTER_TYPE_DEFAULT);
        png_write_info(png, info);
        png_write_image(png, rows);
        png_write_end(png, info);
    }
    png_destroy_write_struct(&png, &info);
    if (std::ferror(file))
        result = -1;
    if (std::fclose(file) != 0)
        result = -1;
    return result;
}
