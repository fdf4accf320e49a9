// image_get_metadata on a file read as IMAGE_MEDIA_RAW.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const qbfuzz::Path in = qbfuzz::path_of("input.dng");
    if (!qbfuzz::write_file(in, data, size))
        return 0;
    const image_ctx ctx = qbfuzz::silent_ctx();
    image_metadata meta;
    std::memset(&meta, 0, sizeof meta);
    image_get_metadata(&ctx, in.text, IMAGE_MEDIA_RAW, &meta);
    qbfuzz::remove_file(in);
    return 0;
}
