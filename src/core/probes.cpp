// Media types by file extension, and the processor level for the resamplers.
#include <strings.h>

#include <array>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "common/common.h"

namespace {

struct media_row {
    char ext[8];  // zero-filled; compared over at most 8 characters
    image_media_type type;
};

// The end mark (an empty text of type UNKNOWN) stops the walk and is never
// compared, so an empty extension is unknown rather than a match.
constexpr std::array<media_row, 30> media_table{{
    {"jpg", IMAGE_MEDIA_JPEG},   {"jpeg", IMAGE_MEDIA_JPEG},
    {"raw", IMAGE_MEDIA_RAW},    {"cr2", IMAGE_MEDIA_RAW},
    {"tif", IMAGE_MEDIA_RAW},    {"crw", IMAGE_MEDIA_RAW},
    {"nef", IMAGE_MEDIA_RAW},    {"raf", IMAGE_MEDIA_RAW},
    {"dcr", IMAGE_MEDIA_RAW},    {"orf", IMAGE_MEDIA_RAW},
    {"pef", IMAGE_MEDIA_RAW},    {"mrw", IMAGE_MEDIA_RAW},
    {"srf", IMAGE_MEDIA_RAW},    {"sr2", IMAGE_MEDIA_RAW},
    {"arw", IMAGE_MEDIA_RAW},    {"mef", IMAGE_MEDIA_RAW},
    {"erf", IMAGE_MEDIA_RAW},    {"dng", IMAGE_MEDIA_RAW},
    {"rw2", IMAGE_MEDIA_RAW},    {"srw", IMAGE_MEDIA_RAW},
    {"mov", IMAGE_MEDIA_VIDEO},  {"avi", IMAGE_MEDIA_VIDEO},
    {"m4v", IMAGE_MEDIA_VIDEO},  {"mp4", IMAGE_MEDIA_VIDEO},
    {"m2ts", IMAGE_MEDIA_VIDEO}, {"mp3", IMAGE_MEDIA_AUDIO},
    {"aac", IMAGE_MEDIA_AUDIO},  {"m4a", IMAGE_MEDIA_AUDIO},
    {"png", IMAGE_MEDIA_PNG},    {"", IMAGE_MEDIA_UNKNOWN},
}};

static_assert(media_table.back().type == IMAGE_MEDIA_UNKNOWN,
              "the table must end with its end mark");

}  // namespace

extern "C" QB_API image_media_type utils_get_media_type(const char *extension)
{
    if (!extension)
        return IMAGE_MEDIA_UNKNOWN;
    for (const media_row &row : media_table) {
        if (row.type == IMAGE_MEDIA_UNKNOWN)
            break;
        if (strncasecmp(row.ext, extension, sizeof row.ext) == 0)
            return row.type;
    }
    return IMAGE_MEDIA_UNKNOWN;
}

extern "C" QB_API image_hw_level utils_check_hw(void)
{
#if defined(__x86_64__) || defined(__i386__)
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return IMAGE_HW_BASIC;
    if (ecx & 1u)
        return IMAGE_HW_SSE3;
    if (edx & (1u << 26))
        return IMAGE_HW_SSE2;
    return IMAGE_HW_BASIC;
#else
    // Without CPUID there is no SSE: the portable double forms serve.
    return IMAGE_HW_BASIC;
#endif
}
