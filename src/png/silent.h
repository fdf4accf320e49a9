// libpng error and warning handlers that print nothing (see read.cpp for
// why). The error handler leaves through the struct's own jump buffer, as
// libpng's default handler does after printing; the warning is dropped.
#pragma once

#include <png.h>

extern "C" {

[[noreturn]] inline void image_png_silent_error(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}

inline void image_png_silent_warning(png_structp, png_const_charp) {}

}  // extern "C"
