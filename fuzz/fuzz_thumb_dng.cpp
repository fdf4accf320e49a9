// easy_image_create_thumb on a .dng file.
#include "thumb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::thumb(data, size, "input.dng");
    return 0;
}
