// image_create_framed_image: a fuzzed PNG frame and a fuzzed JPEG photo,
// and a fuzzed box inside the frame.
//
// Input: 12 parameter bytes, the frame, then the photo.
//   0-7    box x, y, width, height (big-endian 16-bit each, low 10 bits
//          used: the box is the host's choice and its size alone sets the
//          cost of the scaling)
//   8-11   length of the frame (big-endian); the photo is what follows
#include "harness.h"

namespace {
constexpr size_t kHeader = 12;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::Params p{data, size < kHeader ? size : kHeader};
    const uint32_t x = p.u16() & 0x3FFu;
    const uint32_t y = p.u16() & 0x3FFu;
    const uint32_t width = p.u16() & 0x3FFu;
    const uint32_t height = p.u16() & 0x3FFu;
    const uint32_t hi = p.u16();
    const uint32_t frame_length = hi << 16 | p.u16();

    const uint8_t *rest = qbfuzz::body(data, size, kHeader);
    const size_t rest_size = qbfuzz::body_size(size, kHeader);
    const size_t frame_size = frame_length < rest_size ? frame_length : rest_size;

    const qbfuzz::Path frame = qbfuzz::path_of("frame.png");
    const qbfuzz::Path photo = qbfuzz::path_of("photo.jpg");
    const qbfuzz::Path out = qbfuzz::path_of("framed.png");
    if (qbfuzz::write_file(frame, rest, frame_size) &&
        qbfuzz::write_file(photo, rest + frame_size, rest_size - frame_size)) {
        const image_ctx ctx = qbfuzz::silent_ctx();
        image_create_framed_image(&ctx, frame.text, photo.text, out.text, x, y, width,
                                  height);
    }
    qbfuzz::remove_file(frame);
    qbfuzz::remove_file(photo);
    qbfuzz::remove_file(out);
    return 0;
}
