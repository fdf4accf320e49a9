// image_jpeg_scale through the decode cache, as a host drives it: one or
// two requests on one decode, with fuzzed size mode, box, aspect bound,
// quality, transform, chroma, processor level, Exif stamp and overlay.
//
// Input: 16 parameter bytes, then the JPEG file.
//   0      mode (0..7; 7 is refused)
//   1-2    box width, 3-4 box height (see side())
//   5      max_aspect, from a table with the bad values in it
//   6      quality - 28
//   7      transform of the first request (low nibble, 8..15 invalid),
//          of the second (high nibble)
//   8      bit 0 full chroma; bits 1-2 stamp thumbnail: none, the input
//          itself, a missing file; bit 3 overlay (the input itself);
//          bit 4 a second request; bit 5 that one without the stream (the
//          cached rows as they are); bits 6-7 processor level 0..3
//   9      overlay position (signed)
//   10     overlay opacity, from a table with the bad values in it
//   11     mode of the second request
//   12-15  box of the second request
#include <cmath>
#include <csetjmp>
#include <limits>

#include "harness.h"

namespace {

constexpr size_t kHeader = 16;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kAspects[16] = {10.0, 1.0,  1.5, 4.0 / 3.0, 0.5,  2.0, 100.0, 1e-9,
                                 0.0,  -1.0, kNaN, kInf,     1e12, 3.0, 0.75,  -kInf};
constexpr double kOpacities[8] = {0.5, 0.0, 1.0, 0.25, -1.0, 2.0, kNaN, 0.999};

// A box side: up to 1023 in the usual case; the top two bits ask for the
// negative, or for one of the values a planner has to refuse.
int32_t side(uint16_t v)
{
    const int32_t small = v & 0x3FF;
    switch (v >> 14) {
    case 0:
    case 1:
        return small;
    case 2:
        return -small;
    default: {
        constexpr int32_t kEdges[4] = {0, -1, std::numeric_limits<int32_t>::max(),
                                       std::numeric_limits<int32_t>::min()};
        return kEdges[v & 3];
    }
    }
}

struct Request {
    image_scale_params params;
    image_xform xform;
    bool with_stream;
};

struct HostError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

extern "C" void host_error_exit(j_common_ptr cinfo)
{
    longjmp(reinterpret_cast<HostError *>(cinfo->err)->jump, 1);
}
extern "C" void host_silent(j_common_ptr) {}

// The host's sequence (see README.md). This frame holds the jump target, so
// it holds nothing with a destructor.
void scale_file(const char *path, const char *output, image_hw_level level,
                const Request *requests, int count, const char *thumb,
                image_overlay *overlay)
{
    FILE *first = std::fopen(path, "rb");
    if (!first)
        return;
    FILE *second = std::fopen(path, "rb");
    if (!second) {
        std::fclose(first);
        return;
    }
    image_jcache cache;
    HostError err;
    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = host_error_exit;
    err.mgr.output_message = host_silent;
    if (setjmp(err.jump) == 0) {
        jpeg_create_decompress(&cache.cinfo);
        jpeg_stdio_src(&cache.cinfo, first);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
        for (int i = 0; i < count; ++i)
            image_jpeg_scale(level, &cache, requests[i].with_stream ? second : nullptr,
                             output, requests[i].xform, &requests[i].params, thumb,
                             overlay);
        if (cache.rows)
            jpeg_finish_decompress(&cache.cinfo);
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    std::fclose(second);
    std::fclose(first);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    qbfuzz::Params p{data, size < kHeader ? size : kHeader};
    Request requests[2];
    image_scale_params &a = requests[0].params;
    a.mode = p.u8() & 7;
    a.width = side(p.u16());
    a.height = side(p.u16());
    a.max_aspect = kAspects[p.u8() & 15];
    a.quality = int32_t(p.u8()) - 28;
    const uint8_t xforms = p.u8();
    const uint8_t flags = p.u8();
    a.full_chroma = flags & 1;
    a.reserved = 0;
    requests[0].xform = xforms & 15;
    requests[0].with_stream = true;

    image_overlay overlay;
    overlay.position = int8_t(p.u8());
    overlay.opacity = kOpacities[p.u8() & 7];

    requests[1] = requests[0];
    requests[1].params.mode = p.u8() & 7;
    requests[1].params.width = side(p.u16());
    requests[1].params.height = side(p.u16());
    requests[1].xform = xforms >> 4;
    requests[1].with_stream = (flags & 32) == 0;
    const int count = (flags & 16) ? 2 : 1;
    const auto level = image_hw_level(flags >> 6);

    const qbfuzz::Path in = qbfuzz::path_of("input.jpg");
    const qbfuzz::Path out = qbfuzz::path_of("scaled.jpg");
    const qbfuzz::Path missing = qbfuzz::path_of("missing.jpg");
    if (!qbfuzz::write_file(in, qbfuzz::body(data, size, kHeader),
                            qbfuzz::body_size(size, kHeader)))
        return 0;
    const char *thumb = nullptr;
    switch ((flags >> 1) & 3) {
    case 1:
        thumb = in.text;
        break;
    case 2:
        thumb = missing.text;
        break;
    default:
        break;
    }
    overlay.path = in.text;
    scale_file(in.text, out.text, level, requests, count, thumb,
               (flags & 8) ? &overlay : nullptr);
    qbfuzz::remove_file(in);
    qbfuzz::remove_file(out);
    return 0;
}
