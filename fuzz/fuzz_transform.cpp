// image_jpeg_transform with a fuzzed code, crop and quality.
//
// Input: 12 parameter bytes, then the JPEG file.
//   0      transform code (0..15; 8 and above are not codes)
//   1      bit 0 a crop; bit 1 one side of it at an extreme, bits 2-3
//          which one, bit 4 INT32_MIN rather than INT32_MAX
//   2-9    crop x, y, width, height (signed 16-bit each)
//   10     quality - 28
//   11     unused
#include <limits>

#include "harness.h"

namespace {
constexpr size_t kHeader = 12;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::Params p{data, size < kHeader ? size : kHeader};
    const image_xform xform = p.u8() & 15;
    const uint8_t flags = p.u8();
    image_crop crop;
    crop.x = p.s16();
    crop.y = p.s16();
    crop.width = p.s16();
    crop.height = p.s16();
    const int32_t quality = int32_t(p.u8()) - 28;
    if (flags & 2) {
        int32_t *sides[4] = {&crop.x, &crop.y, &crop.width, &crop.height};
        *sides[(flags >> 2) & 3] = (flags & 16) ? std::numeric_limits<int32_t>::min()
                                                : std::numeric_limits<int32_t>::max();
    }

    const qbfuzz::Path in = qbfuzz::path_of("input.jpg");
    const qbfuzz::Path out = qbfuzz::path_of("turned.jpg");
    if (!qbfuzz::write_file(in, qbfuzz::body(data, size, kHeader),
                            qbfuzz::body_size(size, kHeader)))
        return 0;
    image_jpeg_transform(in.text, out.text, xform, (flags & 1) ? &crop : nullptr, quality);
    qbfuzz::remove_file(in);
    qbfuzz::remove_file(out);
    return 0;
}
