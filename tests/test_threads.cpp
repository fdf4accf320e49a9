// Many calls at once: thumbnails of JPEG, PNG and RAW files, scaled copies
// from a host's decode cache, transforms on both routes, RAW previews,
// metadata and framed images, all on shared sources from 8 threads, each result byte for byte
// the one a single thread gets. tests/run-tsan.sh runs this under
// ThreadSanitizer.
#include <gtest/gtest.h>

#include <csetjmp>
#include <cstring>
#include <functional>
#include <iterator>
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

constexpr int kThreads = 8;
constexpr int kRounds = 2;

// A gradient whose alpha runs across the picture.
Rgba rgba(int width, int height)
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
    std::string large = dir.path("large.jpg");    // 640 x 480: DCT scaling
    std::string grid = dir.path("grid.jpg");      // 48 x 32 4:2:0: coefficient route
    std::string odd = dir.path("odd.jpg");        // 45 x 37: pixel route
    std::string dng = dir.path("photo.dng");      // orientation 6, 60 x 40 preview
    std::string png = dir.path("photo.png");      // 120 x 90, alpha across
    std::string frame = dir.path("frame.png");    // 80 x 60, alpha across

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
    bool ok = false;
};

// What a call gives: its code, then the bytes it wrote (files, record, log).
using Result = std::vector<uint8_t>;

Result with_code(int32_t rc, const std::vector<std::string> &files = {}, const void *extra = nullptr,
                 size_t extra_size = 0)
{
    Result r(reinterpret_cast<const uint8_t *>(&rc), reinterpret_cast<const uint8_t *>(&rc + 1));
    for (const std::string &f : files) {
        const std::vector<uint8_t> bytes = read_file(f);
        r.push_back(uint8_t(bytes.size() != 0));
        r.insert(r.end(), bytes.begin(), bytes.end());
    }
    const auto *e = static_cast<const uint8_t *>(extra);
    r.insert(r.end(), e, e + extra_size);
    return r;
}

// A host's decode cache: three sizes from one decode and one re-decode.
int32_t host_sizes(const std::string &in, const std::string &out)
{
    FILE *first = std::fopen(in.c_str(), "rb");
    FILE *second = std::fopen(in.c_str(), "rb");
    image_jcache cache;
    image_jpeg_error err;
    volatile int32_t rc = 1;
    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = image_jpeg_error_exit;
    if (first && second && setjmp(err.jump) != 0) {
        rc = 1;  // the decoder failed
    } else if (first && second) {
        jpeg_create_decompress(&cache.cinfo);
        jpeg_stdio_src(&cache.cinfo, first);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
        const image_scale_params sizes[] = {{IMAGE_SCALE_FIT_BOX, 100, 100, 10.0, 80, 0, 0},
                                            {IMAGE_SCALE_FILL_CENTRE, 48, 48, 10.0, 80, 1, 0},
                                            {IMAGE_SCALE_FIT_WIDTH, 300, 300, 10.0, 80, 0, 0}};
        rc = 0;
        for (int i = 0; i < 3 && rc == 0; ++i)
            rc = image_jpeg_scale(utils_check_hw(), &cache, second, (out + char('a' + i)).c_str(),
                                  image_xform(i * 3), &sizes[i], nullptr, nullptr);
        if (rc == 0)
            jpeg_finish_decompress(&cache.cinfo);
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    for (FILE *f : {first, second})
        if (f)
            std::fclose(f);
    return rc;
}

// Metadata, and each thread's log lines through its own record.
Result metadata_of(const std::string &in, image_media_type type)
{
    image_metadata m{};
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 0, 1, 2, 3};
    const int32_t rc = image_get_metadata(&ctx, in.c_str(), type, &m);
    Result r = with_code(rc, {}, &m, sizeof m);
    r.insert(r.end(), log.begin(), log.end());
    return r;
}

Result framed(const Sources &s, const std::string &out)
{
    std::string log;
    const image_ctx ctx{&log, nullptr, nullptr, capture_log, 0, 1, 2, 3};
    const int32_t rc = image_create_framed_image(&ctx, s.frame.c_str(), s.large.c_str(),
                                                 out.c_str(), 10, 6, 60, 50);
    Result r = with_code(rc, {out});
    r.insert(r.end(), log.begin(), log.end());
    return r;
}

struct Job {
    const char *name;
    std::function<Result(const Sources &, const std::string &out)> run;
};

const image_crop kCrop{3, 5, 30, 20};

const Job kJobs[] = {
    {"thumbnail of a turned JPEG",
     [](const Sources &s, const std::string &o) {
         return with_code(easy_image_create_thumb(s.turned.c_str(), o.c_str(), 64, 48, 85, 0), {o});
     }},
    {"thumbnail of a large JPEG",
     [](const Sources &s, const std::string &o) {
         return with_code(easy_image_create_thumb(s.large.c_str(), o.c_str(), 96, 96, 75, 0), {o});
     }},
    {"thumbnail of a PNG",
     [](const Sources &s, const std::string &o) {
         return with_code(easy_image_create_thumb(s.png.c_str(), o.c_str(), 64, 64, 85, 0x2040C0), {o});
     }},
    {"thumbnail of a RAW",
     [](const Sources &s, const std::string &o) {
         return with_code(easy_image_create_thumb(s.dng.c_str(), o.c_str(), 48, 48, 85, 0), {o});
     }},
    {"sizes from a host's cache",
     [](const Sources &s, const std::string &o) {
         return with_code(host_sizes(s.large, o), {o + 'a', o + 'b', o + 'c'});
     }},
    {"transform, coefficient route",
     [](const Sources &s, const std::string &o) {
         return with_code(image_jpeg_transform(s.grid.c_str(), o.c_str(), 5, &kCrop, 85), {o});
     }},
    {"transform, pixel route",
     [](const Sources &s, const std::string &o) {
         return with_code(image_jpeg_transform(s.odd.c_str(), o.c_str(), 7, &kCrop, 85), {o});
     }},
    {"RAW preview, decoded and turned",
     [](const Sources &s, const std::string &o) {
         return with_code(image_raw_to_preview_jpeg(s.dng.c_str(), o.c_str(), 1, 6, 85), {o});
     }},
    {"metadata of a JPEG",
     [](const Sources &s, const std::string &) { return metadata_of(s.turned, IMAGE_MEDIA_JPEG); }},
    {"metadata of a RAW",
     [](const Sources &s, const std::string &) { return metadata_of(s.dng, IMAGE_MEDIA_RAW); }},
    {"framed image", framed},
};
constexpr int kJobCount = int(std::size(kJobs));

TEST(Threads, ManyCallsAtOnceGiveWhatOneThreadGets)
{
    const Sources s;
    ASSERT_TRUE(s.ok);
    std::vector<Result> expected;
    for (const Job &j : kJobs) {
        expected.push_back(j.run(s, s.dir.path("reference")));
        int32_t rc = -1;
        std::memcpy(&rc, expected.back().data(), sizeof rc);
        ASSERT_EQ(rc, 0) << j.name;
        ASSERT_GT(expected.back().size(), 100u) << j.name;
    }

    // Each thread starts at another job, so different calls overlap.
    std::vector<std::string> failures(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            const std::string out = s.dir.path("out" + std::to_string(t));
            for (int i = 0; i < kRounds * kJobCount; ++i) {
                const int k = (t + i) % kJobCount;
                if (kJobs[k].run(s, out) != expected[size_t(k)])
                    failures[size_t(t)] += std::string(" ") + kJobs[k].name + ";";
            }
        });
    for (std::thread &t : threads)
        t.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(failures[size_t(t)], "") << "thread " << t;
}

}  // namespace
