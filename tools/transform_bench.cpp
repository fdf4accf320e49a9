// Helper of bench/transform_bench.sh; built by that script, not by CMake.
//
//   transform_bench gen WIDTH HEIGHT OUT.jpg   write a textured 4:2:0 JPEG
//   transform_bench run IN.jpg OUT.jpg XFORM   one image_jpeg_transform call
//
// The picture is a gradient with deterministic noise, so the entropy coder
// has photo-like work to do rather than flat blocks.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qbimage.h"

namespace {

int generate(int width, int height, const char *path)
{
    FILE *f = std::fopen(path, "wb");
    if (!f)
        return 1;
    jpeg_compress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);  // a fatal error exits the tool
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(width);
    cinfo.image_height = JDIMENSION(height);
    cinfo.input_components = 3;
    cinfo.in_color_space = JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 90, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    std::vector<unsigned char> row(size_t(width) * 3);
    uint32_t seed = 12345;
    while (cinfo.next_scanline < cinfo.image_height) {
        const int y = int(cinfo.next_scanline);
        for (int x = 0; x < width; ++x) {
            seed = seed * 1664525u + 1013904223u;
            const int noise = int(seed >> 27);  // 0..31
            row[size_t(x) * 3 + 0] = (unsigned char)((x * 255 / width + noise) & 255);
            row[size_t(x) * 3 + 1] = (unsigned char)((y * 255 / height + noise) & 255);
            row[size_t(x) * 3 + 2] = (unsigned char)(((x + y) / 16 * 37 + noise) & 255);
        }
        JSAMPROW r = row.data();
        jpeg_write_scanlines(&cinfo, &r, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return std::fclose(f) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 5 && std::strcmp(argv[1], "gen") == 0)
        return generate(std::atoi(argv[2]), std::atoi(argv[3]), argv[4]);
    if (argc == 5 && std::strcmp(argv[1], "run") == 0) {
        const int32_t r = image_jpeg_transform(argv[2], argv[3],
                                               image_xform(std::atoi(argv[4])), nullptr, 90);
        if (r != 0)
            std::fprintf(stderr, "image_jpeg_transform: %d\n", r);
        return r == 0 ? 0 : 1;
    }
    std::fprintf(stderr, "usage: %s gen W H OUT | run IN OUT XFORM\n", argv[0]);
    return 2;
}
