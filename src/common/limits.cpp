// The bounds of limits.h applied to a JPEG header.
#include "common/limits.h"

#include <sys/stat.h>

bool image_jpeg_header_refused(j_decompress_ptr cinfo, FILE *stream)
{
    if (!image_source_size_ok(cinfo->image_width, cinfo->image_height))
        return true;
    struct stat st;
    if (!stream || fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    uint64_t blocks = 0;
    for (int ci = 0; ci < cinfo->num_components; ++ci)
        blocks += uint64_t(cinfo->comp_info[ci].width_in_blocks) *
                  cinfo->comp_info[ci].height_in_blocks;
    const uint64_t bits_per_block =
        (cinfo->progressive_mode || cinfo->arith_code) ? 1 : 2;
    return uint64_t(st.st_size) * 8 < blocks * bits_per_block;
}
