// The thumbnail inside one process: easy_image_create_thumb called in a
// loop through the C API, against libjpeg decoding the same file at 1/8 of
// its size (what `djpeg -scale 1/8` does, less writing the pixels out).
// The two take turns, so that a change in the machine's load falls on both
// alike; one warm-up call of each goes first.
//
//   qbbench-inproc thumb IN.jpg OUT.jpg RUNS [SIZE]
//   qbbench-inproc peak floor|ours IN.jpg OUT.jpg
//
// The second makes one call of either and prints the process's peak
// resident set in KiB (VmHWM: getrusage's figure would carry over the peak
// of whatever process started this one, across exec). Both load the same
// libraries, so the difference is what the call itself holds at its peak.
//
// Prints one JSON object: the wall-clock and the CPU milliseconds of every
// call of each, in call order, for the driver to take medians and ratios of
// (on a loaded machine the CPU time is the steadier figure).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <time.h>

#include "qbimage.h"

namespace {

using Clock = std::chrono::steady_clock;

// libjpeg at 1/8 with djpeg's settings (the library defaults: accurate
// integer IDCT, fancy upsampling, RGB out), every row read and dropped.
// Returns false if the file cannot be read.
bool floor_decode(const char *path)
{
    FILE *f = std::fopen(path, "rb");
    if (!f)
        return false;
    jpeg_decompress_struct cinfo;
    jpeg_error_mgr err;
    cinfo.err = jpeg_std_error(&err);  // a fatal error ends the program
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, f);
    jpeg_read_header(&cinfo, TRUE);
    cinfo.scale_num = 1;
    cinfo.scale_denom = 8;
    jpeg_start_decompress(&cinfo);
    const size_t stride = size_t(cinfo.output_width) * size_t(cinfo.output_components);
    JSAMPARRAY rows = (*cinfo.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&cinfo),
                                                 JPOOL_IMAGE, JDIMENSION(stride),
                                                 JDIMENSION(cinfo.rec_outbuf_height));
    while (cinfo.output_scanline < cinfo.output_height)
        jpeg_read_scanlines(&cinfo, rows, JDIMENSION(cinfo.rec_outbuf_height));
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    std::fclose(f);
    return true;
}

bool ours(const char *in, const char *out, int size)
{
    return easy_image_create_thumb(in, out, size, size, 85, 0xFFFFFFu) == IMAGE_RC_OK;
}

double ms_since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double cpu_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
}

void print_list(const char *name, const std::vector<double> &v, bool last)
{
    std::printf("\"%s\": [", name);
    for (size_t i = 0; i < v.size(); ++i)
        std::printf("%s%.4f", i ? ", " : "", v[i]);
    std::printf("]%s", last ? "" : ", ");
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc == 5 && std::strcmp(argv[1], "peak") == 0) {
        const bool floor_call = std::strcmp(argv[2], "floor") == 0;
        if (!(floor_call ? floor_decode(argv[3]) : ours(argv[3], argv[4], 128)))
            return 1;
        FILE *status = std::fopen("/proc/self/status", "r");
        char line[256];
        long kib = -1;
        while (status && std::fgets(line, sizeof line, status))
            if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1)
                break;
        if (status)
            std::fclose(status);
        if (kib < 0)
            return 1;
        std::printf("%ld\n", kib);
        return 0;
    }
    if (argc < 5 || std::strcmp(argv[1], "thumb") != 0) {
        std::fprintf(stderr,
                     "usage: %s thumb IN.jpg OUT.jpg RUNS [SIZE]\n"
                     "       %s peak floor|ours IN.jpg OUT.jpg\n",
                     argv[0], argv[0]);
        return 2;
    }
    const char *in = argv[2];
    const char *out = argv[3];
    const int runs = std::max(1, std::atoi(argv[4]));
    const int size = argc > 5 ? std::atoi(argv[5]) : 128;
    if (!floor_decode(in) || !ours(in, out, size)) {
        std::fprintf(stderr, "%s: cannot make the thumbnail\n", in);
        return 1;
    }
    std::vector<double> floor_ms, ours_ms, floor_cpu, ours_cpu;
    for (int r = 0; r < runs; ++r) {
        // Alternate which goes first, too.
        for (int k = 0; k < 2; ++k) {
            const bool floor_turn = (k == 0) == (r % 2 == 0);
            const double cpu_start = cpu_ms();
            const Clock::time_point start = Clock::now();
            const bool ok = floor_turn ? floor_decode(in) : ours(in, out, size);
            const double ms = ms_since(start);
            const double cpu = cpu_ms() - cpu_start;
            if (!ok)
                return 1;
            (floor_turn ? floor_ms : ours_ms).push_back(ms);
            (floor_turn ? floor_cpu : ours_cpu).push_back(cpu);
        }
    }
    std::printf("{");
    print_list("floor_ms", floor_ms, false);
    print_list("ours_ms", ours_ms, false);
    print_list("floor_cpu_ms", floor_cpu, false);
    print_list("ours_cpu_ms", ours_cpu, true);
    std::printf("}\n");
    return 0;
}
