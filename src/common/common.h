// The ground every subsystem stands on: the libjpeg error record, the row
// store with the transform codes' pixel mapping, and the log macro.
// Nothing here is exported from the shared object.
#pragma once

#include <csetjmp>
#include <cstdint>
#include <cstdio>

#include "qbimage.h"

// A libjpeg error manager with a jump buffer right behind it. Each libjpeg
// object of the library has its own; image_jpeg_error_exit finds the buffer
// through the object's `err` pointer and jumps there, so a fatal libjpeg
// error never returns into libjpeg and its message is never printed.
struct image_jpeg_error {
    struct jpeg_error_mgr mgr;
    jmp_buf jump;
};

extern "C" void image_jpeg_error_exit(j_common_ptr cinfo);

// An output_message that prints nothing.
extern "C" void image_jpeg_silent_message(j_common_ptr cinfo);

// Fill `err` with libjpeg's defaults and install image_jpeg_error_exit.
// Returns the manager to hand to libjpeg.
struct jpeg_error_mgr *image_jpeg_error_init(image_jpeg_error *err);

// Codes 3, 4, 5 and 7 exchange width and height.
constexpr bool image_xform_exchanges_sides(uint32_t xform)
{
    return xform == IMAGE_XFORM_TRANSPOSE || xform == IMAGE_XFORM_TRANSVERSE ||
           xform == IMAGE_XFORM_ROT_90 || xform == IMAGE_XFORM_ROT_270;
}

// ---- row store ----
image_rows image_rows_alloc(uint32_t width, uint32_t height,
                            uint32_t components);
void image_rows_free(image_rows rows, uint32_t height, int owned);
void image_rows_rotate(const image_rows source, image_rows target,
                       image_xform xform, uint32_t width, uint32_t height,
                       uint32_t components);

// Log through the host's callback, always at level_error.
#define IMAGE_LOG(ctx, code, file, line, ...)                                 \
    do {                                                                      \
        if ((ctx)->log)                                                       \
            (ctx)->log((ctx)->level_error, (ctx)->user, (code), (file),       \
                       (line), __VA_ARGS__);                                  \
    } while (0)
