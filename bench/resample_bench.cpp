// Speed of the resampling forms: the double-precision, four-lane
// single-precision and 16.16 fixed-point form of each filter, on
// 12-megapixel three-component pictures, with and without the Adobe matrix.
//
//   resample_bench [RUNS]     median wall time of RUNS calls (default 9)
//
// Megapixels per second count the larger side of the work: the source area
// that a reduction covers, or the destination of an enlargement. Also
// reports how many output bytes each form shares with the double form on
// this picture, since the speed of a form that strays would mean nothing.
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

// What the encoder of the floating-point forms alone costs for an output of
// this many samples (median of five): one pow per output sample, a floor
// that neither of them goes below. The fixed form encodes by table.
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

// Share of equal bytes between two outputs, and the largest difference.
void compare(image_rows a, image_rows b, int dst_w, int dst_h, double *equal, int *worst) {
    size_t same = 0, total = 0;
    *worst = 0;
    for (int y = 0; y < dst_h; ++y)
        for (int i = 0; i < dst_w * 3; ++i) {
            const int d = std::abs(int(a[y][i]) - int(b[y][i]));
            same += d == 0;
            *worst = std::max(*worst, d);
            ++total;
        }
    *equal = double(same) / double(total);
}

struct forms {
    const char *name;
    form_fn by_form[3];  // double, vector, fixed
};

void measure(const forms &filter, image_rows src, double ratio, int dst_w, int dst_h, int runs) {
    const char *form_names[3] = {"double", "vector", "fixed"};
    image_rows out[3];
    for (image_rows &o : out) {
        o = image_rows_alloc(dst_w, dst_h, 3);
        if (!o) {
            std::fprintf(stderr, "out of memory\n");
            std::exit(1);
        }
    }
    const double covered = double(dst_w) * dst_h * std::max(1.0, ratio * ratio);
    std::printf("%s %dx%d ratio %g (%.1f Mpx of work), pow encoder alone %.1f ms\n", filter.name,
                dst_w, dst_h, ratio, covered / 1e6, encoder_ms(size_t(dst_w) * dst_h * 3));
    for (int adobe : {0, 1}) {
        // The forms take turns, so that a change in the machine's load falls
        // on all of them alike.
        std::vector<double> ms[3];
        for (int r = 0; r < runs; ++r)
            for (int f = 0; f < 3; ++f)
                ms[f].push_back(time_ms(filter.by_form[f], src, out[f], ratio, dst_w, dst_h, adobe));
        const double reference = median(ms[0]);
        std::printf("  adobe %d", adobe);
        for (int f = 0; f < 3; ++f) {
            const double t = median(ms[f]);
            std::printf("  %s %7.1f ms %6.1f Mpx/s", form_names[f], t, covered / 1e3 / t);
            if (f > 0) {
                double equal;
                int worst;
                compare(out[0], out[f], dst_w, dst_h, &equal, &worst);
                std::printf(" x%.2f (equal %.4f, worst %d)", reference / t, equal, worst);
            }
        }
        std::printf("\n");
    }
    for (image_rows o : out) image_rows_free(o, uint32_t(dst_h), 1);
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
    const forms box = {"box",
                       {image_resample_box_double, image_resample_box_vector,
                        image_resample_box_fixed}};
    const forms bicubic = {"bicubic",
                           {image_resample_bicubic_double, image_resample_bicubic_vector,
                            image_resample_bicubic_fixed}};
    // 4000 / 1024: a ratio that single precision and 16.16 hold exactly, and
    // one that they do not, where the vector form's window ends drift and
    // the fixed form's fall short.
    measure(box, src, 3.90625, 1024, 768, runs);
    measure(box, src, 3.9, 1025, 769, runs);
    measure(bicubic, src, 1.5625, 2560, 1920, runs);
    // Enlargement by 4 of the top-left 1000x750 to 4000x3000.
    measure(bicubic, src, 0.25, kSrcWidth, kSrcHeight, runs);
    image_rows_free(src, kSrcHeight, 1);
    return 0;
#else
    (void)argc;
    (void)argv;
    std::printf("built without SSE2: there is no vector form to measure\n");
    return 0;
#endif
}
