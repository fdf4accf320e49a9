// LibRaw handles that keep quiet; see libraw.h.
#include "common/libraw.h"

namespace {

void no_data_report(void *, const char *, const int) {}
void no_memory_report(void *, const char *, const char *) {}

}  // namespace

libraw_data_t *image_libraw_init()
{
    libraw_data_t *raw = libraw_init(0);
    if (raw) {
        libraw_set_dataerror_handler(raw, no_data_report, nullptr);
        libraw_set_memerror_handler(raw, no_memory_report, nullptr);
    }
    return raw;
}
