// Speed of the resampling forms: the four-lane single-precision form of
// each filter against its double-precision form, on a 12-megapixel
// three-component source, with and without the Adobe matrix.
//
//   resample_bench [RUNS]     median wall time of RUNS calls (default 9)
//
// Also reports how many output bytes the two forms share on this picture,
// since the speed of a form that strays would mean nothing.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pipeline/pipeline.h"
#include "resample/resample.h"

namespace {

using form_fn = void (*)(const image_rows, image_rows, int32_t, int32_t, int32_t, double, int32_t,
                         int32_t, int32_t, int32_t, int32_t);

constexpr int kSrcWidth = 4000, kSrcHeight = 3000;

// A gradient with deterministic noise: photo-like, not flat.
void fill(image_rows rows) {
    uint32_t seed = 12345;
    for (int y = 0; y < kSrcHeight; ++y)
        for (int x = 0; x < kSrcWidth; ++x) {
            seed = seed * 1664525u + 1013904223u;
            const int noise = int(seed >> 26);  // 0..63
            uint8_t *p = rows[y] + size_t(x) * 3;
            p[0] = uint8_t((x * 191 / kSrcWidth + noise) & 255);
            p[1] = uint8_t((y * 191 / kSrcHeight + noise) & 255);
            p[2] = uint8_t(((x + y) / 16 * 37 + noise) & 255);
        }
}

double median(std::vector<double> times) {
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

double time_ms(form_fn form, image_rows src, image_rows dst, double ratio, int dst_w, int dst_h,
               int adobe) {
    const auto start = std::chrono::steady_clock::now();
    form(src, dst, 0, 0, kSrcWidth, ratio, kSrcHeight, dst_w, dst_h, 3, adobe);
    const auto stop = std::chrono::steady_clock::now();
    return std::chrono::duration<double, std::milli>(stop - start).count();
}

// What the encoder alone costs for an output of this many samples (median
// of five): both forms end in one pow per output sample, a floor that
// neither goes below.
double encoder_ms(size_t samples) {
    std::vector<double> times;
    unsigned sink = 0;
    for (int r = 0; r < 5; ++r) {
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < samples; ++i)
            sink += image_linear_to_byte(0.001 + double(i % 997) / 1000.0);
        const auto stop = std::chrono::steady_clock::now();
        times.push_back(std::chrono::duration<double, std::milli>(stop - start).count());
    }
    if (sink == 1) std::printf(" ");  // keeps the loop
    return median(times);
}

void measure(const char *name, form_fn vector, form_fn reference, image_rows src, double ratio,
             int runs) {
    const int dst_w = int(kSrcWidth / ratio), dst_h = int(kSrcHeight / ratio);
    image_rows a = image_rows_alloc(dst_w, dst_h, 3), b = image_rows_alloc(dst_w, dst_h, 3);
    if (!a || !b) {
        std::fprintf(stderr, "out of memory\n");
        std::exit(1);
    }
    for (int adobe : {0, 1}) {
        // The two forms take turns, so that a change in the machine's load
        // falls on both alike.
        std::vector<double> ref_ms, vec_ms;
        for (int r = 0; r < runs; ++r) {
            ref_ms.push_back(time_ms(reference, src, a, ratio, dst_w, dst_h, adobe));
            vec_ms.push_back(time_ms(vector, src, b, ratio, dst_w, dst_h, adobe));
        }
        const double t_ref = median(ref_ms), t_vec = median(vec_ms);
        size_t equal = 0, total = 0;
        int worst = 0;
        for (int y = 0; y < dst_h; ++y)
            for (int i = 0; i < dst_w * 3; ++i) {
                const int d = std::abs(int(a[y][i]) - int(b[y][i]));
                equal += d == 0;
                worst = std::max(worst, d);
                ++total;
            }
        std::printf(
            "%-8s %4dx%-4d ratio %-7g adobe %d  double %7.1f ms  vector %7.1f ms  "
            "x%.2f  (encoder alone %5.1f ms)  equal %.5f worst %d\n",
            name, dst_w, dst_h, ratio, adobe, t_ref, t_vec, t_ref / t_vec, encoder_ms(total),
            double(equal) / double(total), worst);
    }
    image_rows_free(a, uint32_t(dst_h), 1);
    image_rows_free(b, uint32_t(dst_h), 1);
}

}  // namespace

int main(int argc, char **argv) {
#if defined(IMAGE_RESAMPLE_SSE2)
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
    image_rows src = image_rows_alloc(kSrcWidth, kSrcHeight, 3);
    if (!src) {
        std::fprintf(stderr, "out of memory\n");
        return 1;
    }
    fill(src);
    std::printf("source %dx%d, 3 components, median of %d runs\n", kSrcWidth, kSrcHeight, runs);
    // 4000 / 1024: a ratio that single precision holds exactly, and one that
    // it does not, where the box form's window ends drift.
    measure("box", image_resample_box_vector, image_resample_box_double, src, 3.90625, runs);
    measure("box", image_resample_box_vector, image_resample_box_double, src, 3.9, runs);
    measure("bicubic", image_resample_bicubic_vector, image_resample_bicubic_double, src, 1.5625,
            runs);
    image_rows_free(src, kSrcHeight, 1);
    return 0;
#else
    (void)argc;
    (void)argv;
    std::printf("built without SSE2: there is no vector form to measure\n");
    return 0;
#endif
}
