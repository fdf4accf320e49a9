// Internal declarations of the library frame: the thumbnail entry's JPEG
// route. Nothing here is exported from the shared object.
#pragma once

#include "common/common.h"

int32_t image_thumb_from_jpeg(const image_ctx *ctx, const char *path,
                              const char *output,
                              const image_scale_params *params,
                              image_xform xform);

