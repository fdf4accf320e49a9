// Speed of the six resampling forms (box and bicubic, each in double
// precision, four-lane single precision and 16.16 fixed point) with Google
// Benchmark, in megapixels per second, on three-component pictures with
// and without the Adobe RGB matrix:
//
//   reduce_12mpx   4000x3000 to 1024x768 (box, ratio 3.90625) or to
//                  2560x1920 (bicubic, ratio 1.5625): each filter at a
//                  ratio the planner gives it
//   enlarge        the top-left 800x600 to 1600x1200 (ratio 0.5)
//
//   resample_bench [--benchmark_filter=REGEX] [--benchmark_min_time=SECONDS] ...
//
// Megapixels count the larger side of the work: the source area a reduction
// covers, or the destination of an enlargement. The counter same_as_double
// is the share of output bytes equal to the double form's on the same call:
// the speed of a form that strayed would mean nothing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "common/common.h"
#include "resample/resample.h"

namespace {

using form_fn = void (*)(const image_rows, image_rows, int32_t, int32_t, int32_t, double, int32_t,
                         int32_t, int32_t, int32_t, int32_t);

constexpr int kSrcWidth = 4000, kSrcHeight = 3000;

struct Case {
    const char *name;
    double ratio;
    int dst_w, dst_h;
};

// Per filter: its reduction and the shared enlargement.
constexpr Case kBoxReduce = {"reduce_12mpx", 3.90625, 1024, 768};
constexpr Case kBicubicReduce = {"reduce_12mpx", 1.5625, 2560, 1920};
constexpr Case kEnlarge = {"enlarge", 0.5, 1600, 1200};

// A photo-like source: smooth gradients, hard-edged bands and deterministic
// noise, so that neighbouring samples differ as in a photograph.
image_rows source()
{
    static image_rows rows = [] {
        image_rows r = image_rows_alloc(kSrcWidth, kSrcHeight, 3);
        if (!r) {
            std::fprintf(stderr, "out of memory\n");
            std::exit(1);
        }
        uint32_t seed = 12345;
        for (int y = 0; y < kSrcHeight; ++y)
            for (int x = 0; x < kSrcWidth; ++x) {
                seed = seed * 1664525u + 1013904223u;
                const int noise = int(seed >> 26);  // 0..63
                const int band = ((x + 2 * y) / 97) % 3 == 0 ? 60 : 0;
                uint8_t *p = r[y] + size_t(x) * 3;
                p[0] = uint8_t((x * 191 / kSrcWidth + noise + band) & 255);
                p[1] = uint8_t((y * 191 / kSrcHeight + noise) & 255);
                p[2] = uint8_t(((x + y) / 16 * 37 + noise + band) & 255);
            }
        return r;
    }();
    return rows;
}

struct Rows {
    image_rows rows;
    int height;
    Rows(int w, int h) : rows(image_rows_alloc(uint32_t(w), uint32_t(h), 3)), height(h)
    {
        if (!rows) {
            std::fprintf(stderr, "out of memory\n");
            std::exit(1);
        }
    }
    ~Rows() { image_rows_free(rows, uint32_t(height), 1); }
    Rows(const Rows &) = delete;
    Rows &operator=(const Rows &) = delete;
};

void run(form_fn form, const Case &c, int adobe, image_rows dst)
{
    form(source(), dst, 0, 0, kSrcWidth, c.ratio, kSrcHeight, c.dst_w, c.dst_h, 3, adobe);
}

void bench(benchmark::State &state, form_fn form, form_fn reference, Case c)
{
    const int adobe = int(state.range(0));
    Rows out(c.dst_w, c.dst_h), ref(c.dst_w, c.dst_h);
    // Equal bytes against the double form, outside the timed loop.
    run(form, c, adobe, out.rows);
    run(reference, c, adobe, ref.rows);
    size_t same = 0;
    for (int y = 0; y < c.dst_h; ++y)
        for (int i = 0; i < c.dst_w * 3; ++i)
            same += out.rows[y][i] == ref.rows[y][i];

    for (auto _ : state) {
        run(form, c, adobe, out.rows);
        benchmark::DoNotOptimize(out.rows[0][0]);
        benchmark::ClobberMemory();
    }
    const double mpx = double(c.dst_w) * c.dst_h * std::max(1.0, c.ratio * c.ratio) / 1e6;
    state.counters["Mpx/s"] =
        benchmark::Counter(mpx * double(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["same_as_double"] = double(same) / (double(c.dst_w) * c.dst_h * 3);
}

struct Form {
    const char *name;
    form_fn fn;
};

}  // namespace

int main(int argc, char **argv)
{
#if defined(IMAGE_RESAMPLE_SSE2)
    const Form box[3] = {{"image_resample_box_double", image_resample_box_double},
                         {"image_resample_box_vector", image_resample_box_vector},
                         {"image_resample_box_fixed", image_resample_box_fixed}};
    const Form bicubic[3] = {{"image_resample_bicubic_double", image_resample_bicubic_double},
                             {"image_resample_bicubic_vector", image_resample_bicubic_vector},
                             {"image_resample_bicubic_fixed", image_resample_bicubic_fixed}};
    for (const auto &[forms, reduce] :
         {std::pair{box, kBoxReduce}, std::pair{bicubic, kBicubicReduce}})
        for (const Case &c : {reduce, kEnlarge})
            for (int f = 0; f < 3; ++f)
                benchmark::RegisterBenchmark(
                    (std::string(forms[f].name) + "/" + c.name).c_str(), bench, forms[f].fn,
                    forms[0].fn, c)
                    ->ArgName("adobe")
                    ->Arg(0)
                    ->Arg(1)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
#else
    std::printf("built without SSE2: there is no vector form to measure\n");
#endif
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
