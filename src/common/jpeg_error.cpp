// The libjpeg error record: every libjpeg object of the library gets one,
// and its error_exit leaves by longjmp to the recovery point that owns the
// object, never back into libjpeg.
#include "common/common.h"

extern "C" void image_jpeg_error_exit(j_common_ptr cinfo)
{
    // The jump buffer sits right behind the manager; the message is
    // deliberately neither printed nor kept.
    auto *err = reinterpret_cast<image_jpeg_error *>(cinfo->err);
    longjmp(err->jump, 1);
}

extern "C" void image_jpeg_silent_message(j_common_ptr)
{
    // Warnings of damaged data are expected with uploaded files; a decode
    // that goes on anyway has nothing to report, and one that stops reports
    // through its result.
}

struct jpeg_error_mgr *image_jpeg_error_init(image_jpeg_error *err)
{
    struct jpeg_error_mgr *mgr = jpeg_std_error(&err->mgr);
    mgr->error_exit = image_jpeg_error_exit;
    mgr->output_message = image_jpeg_silent_message;
    return mgr;
}
