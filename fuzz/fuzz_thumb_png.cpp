// easy_image_create_thumb on a .png file.
#include "thumb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::thumb(data, size, "input.png");
    return 0;
}
