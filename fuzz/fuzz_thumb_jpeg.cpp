// easy_image_create_thumb on a .jpg file.
#include "thumb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::thumb(data, size, "input.jpg");
    return 0;
}
