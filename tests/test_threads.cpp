// Every entry point at once on shared sources from 8 threads, each result
// byte for byte the one a single thread gets. tests/run-tsan.sh runs this
// under ThreadSanitizer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "common/common.h"
#include "dng_writer.h"
#include "exif_writer.h"
#include "png_writer.h"
#include "test_jpeg.h"

using namespace qbtest;

namespace {

Rgba rgba(int width, int height)  // a gradient, its alpha running across
{
    Rgba p{width, height, std::vector<uint8_t>(size_t(width) * height * 4)};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t *px = p.at(x, y);
            px[0] = uint8_t(x * 255 / width), px[1] = uint8_t(y * 255 / height), px[2] = 90;
            px[3] = uint8_t(x * 255 / (width - 1));
        }
    return p;
}

struct Sources {
    TempDir dir;
    std::string turned = dir.path("turned.jpg");  // 160 x 120, Exif orientation 6
    std::string large = dir.path("large.jpg");    // 640 x 480 progressive: DCT scaling
    std::string grid = dir.path("grid.jpg");      // 48 x 32 4:2:0: coefficient route
    std::string odd = dir.path("odd.jpg");        // 45 x 37 grey: pixel route
    std::string dng = dir.path("photo.dng");      // orientation 6, 60 x 40 preview
    std::string png = dir.path("photo.png");      // 120 x 90
    std::string frame = dir.path("frame.png");    // 80 x 60
    bool ok = false;

    Sources()
    {
        const ExifBlock exif{
            .ifd0 = {exif_short(274, {6}), exif_ascii(271, "Qbcam"), exif_ascii(272, "QB-1")},
            .exif = {{40962, kTiffLong, {160}}, {40963, kTiffLong, {120}}},
            .gps = {exif_ascii(1, "S"), {2, kTiffRational, {33, 1, 52, 1, 4, 1}}}};
        ok = write_jpeg(turned, make_picture(160, 120, 3),
                        {.markers = {{JPEG_APP0 + 1, build_exif(exif)}}, .write_jfif = false}) &&
             write_jpeg(large, make_picture(640, 480, 3), {.progressive = true}) &&
             write_jpeg(grid, make_picture(48, 32, 3)) && write_jpeg(odd, make_picture(45, 37, 1)) &&
             write_dng(dng, {.orientation = 6}) && write_png_rgba(png, rgba(120, 90)) &&
             write_png_rgba(frame, rgba(80, 60));
    }
};

// A host's decode cache: three sizes from one decode and one re-decode.
int32_t host_sizes(const std::string &in, const std::string &out)
{
    const std::string a = out + 'a', b = out + 'b', c = out + 'c';
    const HostRequest requests[] = {
        {a.c_str(), IMAGE_XFORM_NONE, {IMAGE_SCALE_FIT_BOX, 100, 100, 10.0, 80, 0, 0}},
        {b.c_str(), IMAGE_XFORM_TRANSPOSE, {IMAGE_SCALE_FILL_CENTRE, 48, 48, 10.0, 80, 1, 0}},
        {c.c_str(), IMAGE_XFORM_ROT_180, {IMAGE_SCALE_FIT_WIDTH, 300, 300, 10.0, 80, 0, 0}}};
    return host_scale(in.c_str(), requests, 3);
}

// The record goes to the output file, to be compared like a picture.
int32_t metadata(const std::string &in, const std::string &out, const image_ctx *ctx, image_media_type type)
{
    image_metadata m{};
    const int32_t rc = image_get_metadata(ctx, in.c_str(), type, &m);
    write_file(out, {reinterpret_cast<const uint8_t *>(&m), reinterpret_cast<const uint8_t *>(&m + 1)});
    return rc;
}

const image_crop kCrop{3, 5, 30, 20};
// Each call writes to `out` (the decode cache to outa, outb, outc) and logs
// through `ctx`.
const struct {
    const char *name;
    int32_t (*call)(const Sources &s, const std::string &out, const image_ctx *ctx);
} kJobs[] = {
    {"thumbnail of a turned JPEG",
     [](auto &s, auto &o, auto) { return easy_image_create_thumb(s.turned.c_str(), o.c_str(), 64, 48, 85, 0); }},
    {"thumbnail of a large JPEG",
     [](auto &s, auto &o, auto) { return easy_image_create_thumb(s.large.c_str(), o.c_str(), 96, 96, 75, 0); }},
    {"thumbnail of a PNG",
     [](auto &s, auto &o, auto) { return easy_image_create_thumb(s.png.c_str(), o.c_str(), 64, 64, 85, 0x2040C0); }},
    {"thumbnail of a RAW",
     [](auto &s, auto &o, auto) { return easy_image_create_thumb(s.dng.c_str(), o.c_str(), 48, 48, 85, 0); }},
    {"sizes from a host's cache", [](auto &s, auto &o, auto) { return host_sizes(s.large, o); }},
    {"transform, coefficient route",
     [](auto &s, auto &o, auto) { return image_jpeg_transform(s.grid.c_str(), o.c_str(), 5, &kCrop, 85); }},
    {"transform, pixel route",
     [](auto &s, auto &o, auto) { return image_jpeg_transform(s.odd.c_str(), o.c_str(), 7, &kCrop, 85); }},
    {"RAW preview, decoded and turned",
     [](auto &s, auto &o, auto) { return image_raw_to_preview_jpeg(s.dng.c_str(), o.c_str(), 1, 6, 85); }},
    {"metadata of a JPEG", [](auto &s, auto &o, auto ctx) { return metadata(s.turned, o, ctx, IMAGE_MEDIA_JPEG); }},
    {"metadata of a RAW", [](auto &s, auto &o, auto ctx) { return metadata(s.dng, o, ctx, IMAGE_MEDIA_RAW); }},
    {"framed image", [](auto &s, auto &o, auto ctx) {
         return image_create_framed_image(ctx, s.frame.c_str(), s.large.c_str(), o.c_str(), 10, 6, 60, 50);
     }},
};

struct Result {
    int32_t rc = -1;
    std::vector<uint8_t> bytes;  // each output behind a byte saying whether it was written, then the log
    bool operator==(const Result &) const = default;
};

Result run(size_t job, const Sources &s, const std::string &out)
{
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 0, 1, 2, 3};
    const std::string files[] = {out, out + 'a', out + 'b', out + 'c'};
    for (const std::string &f : files)
        unlink(f.c_str());
    Result r{kJobs[job].call(s, out, &ctx), {}};
    for (const std::string &f : files) {
        const std::vector<uint8_t> bytes = read_file(f);
        r.bytes.push_back(uint8_t(!bytes.empty()));
        r.bytes.insert(r.bytes.end(), bytes.begin(), bytes.end());
    }
    r.bytes.insert(r.bytes.end(), log.begin(), log.end());
    return r;
}

TEST(Threads, ManyCallsAtOnceGiveWhatOneThreadGets)
{
    constexpr size_t kThreads = 8, kRounds = 2, kJobCount = std::size(kJobs);
    const Sources s;
    ASSERT_TRUE(s.ok);
    std::vector<Result> expected;
    for (size_t k = 0; k < kJobCount; ++k) {
        expected.push_back(run(k, s, s.dir.path("reference")));
        ASSERT_EQ(expected.back().rc, 0) << kJobs[k].name;
        ASSERT_GT(expected.back().bytes.size(), 100u) << kJobs[k].name;
    }
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (size_t i = 0; i < kRounds * kJobCount; ++i) {
                const size_t k = (t + i) % kJobCount;  // each thread starts at another job
                if (run(k, s, s.dir.path("out" + std::to_string(t))) != expected[k])
                    failures[t] += std::string(" ") + kJobs[k].name + ";";
            }
        });
    for (std::thread &t : threads)
        t.join();
    for (size_t t = 0; t < kThreads; ++t)
        EXPECT_EQ(failures[t], "") << "thread " << t;
}

}  // namespace
