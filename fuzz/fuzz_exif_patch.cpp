// The Exif size patch of the lossless transform on raw bytes: a TIFF
// structure (an Exif block behind its signature) in a buffer of exactly its
// length, so that any step past either end is caught.
//
// Input: the new width and height (big-endian 32-bit each), then the TIFF.
#include <vector>

#include "harness.h"
#include "transform/transform.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t kHeader = 8;
    if (size < kHeader)
        return 0;
    const uint32_t width = uint32_t(data[0]) << 24 | uint32_t(data[1]) << 16 |
                           uint32_t(data[2]) << 8 | data[3];
    const uint32_t height = uint32_t(data[4]) << 24 | uint32_t(data[5]) << 16 |
                            uint32_t(data[6]) << 8 | data[7];
    std::vector<unsigned char> tiff(data + kHeader, data + size);
    image_exif_patch_size(tiff.data(), uint32_t(tiff.size()), width, height);
    return 0;
}
