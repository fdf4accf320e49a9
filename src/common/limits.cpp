// The bounds of limits.h applied to a JPEG header.
#include "common/limits.h"

#include <sys/stat.h>

#include <jerror.h>

uint64_t image_file_bytes(FILE *stream)
{
    struct stat st;
    if (!stream || fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode))
        return UINT64_MAX;
    return uint64_t(st.st_size);
}

bool image_jpeg_header_refused(j_decompress_ptr cinfo, FILE *stream)
{
    const uint64_t bytes = image_file_bytes(stream);
    if (!image_source_size_ok(cinfo->image_width, cinfo->image_height, bytes))
        return true;
    if (bytes == UINT64_MAX)
        return false;
    uint64_t blocks = 0;
    for (int ci = 0; ci < cinfo->num_components; ++ci)
        blocks += uint64_t(cinfo->comp_info[ci].width_in_blocks) *
                  cinfo->comp_info[ci].height_in_blocks;
    const uint64_t bits_per_block =
        (cinfo->progressive_mode || cinfo->arith_code) ? 1 : 2;
    return bytes * 8 < blocks * bits_per_block;
}

namespace {

extern "C" void count_scans(j_common_ptr common)
{
    if (!common->is_decompressor)
        return;
    auto *cinfo = reinterpret_cast<j_decompress_ptr>(common);
    auto *budget = reinterpret_cast<image_scan_budget *>(common->progress);
    if (cinfo->input_scan_number == budget->scan)
        return;
    budget->scan = cinfo->input_scan_number;
    for (int i = 0; i < cinfo->comps_in_scan && i < MAX_COMPS_IN_SCAN; ++i)
        if (const jpeg_component_info *comp = cinfo->cur_comp_info[i])
            budget->spent += uint64_t(comp->width_in_blocks) * comp->height_in_blocks;
    if (budget->scan > IMAGE_MAX_SCANS || budget->spent > budget->allowed)
        ERREXIT(cinfo, JERR_NOT_COMPILED);  // any fatal error serves
}

}  // namespace

void image_scan_budget_arm(j_decompress_ptr cinfo, image_scan_budget *budget,
                           FILE *stream)
{
    const uint64_t bytes = image_file_bytes(stream);
    budget->mgr = {};
    budget->mgr.progress_monitor = count_scans;
    budget->allowed = bytes == UINT64_MAX || bytes > UINT64_MAX / 64
                          ? UINT64_MAX
                          : bytes * 8 * IMAGE_BLOCK_SCANS_PER_BIT;
    budget->spent = 0;
    budget->scan = 0;
    cinfo->progress = &budget->mgr;
}
