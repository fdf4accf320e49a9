// Faults at the entry points, from one table of calls: the Nth allocation of
// a call failing (swept over N), a full disk, inputs missing, unreadable,
// folders or FIFOs, outputs in a missing folder, a FIFO or the input itself.
// Each gives its documented code and leaves no block, no descriptor and no
// changed source behind. The malloc family here replaces libc's for the whole
// process (libjpeg, libpng, libexif too); a sanitizer brings its own, so under
// one the hooks are left out and the sweep is skipped.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "common/common.h"
#include "core/core.h"
#include "dng_writer.h"
#include "exif_writer.h"
#include "png_writer.h"
#include "test_jpeg.h"

using namespace qbtest;
namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QB_ALLOC_HOOKS 0
#else
#define QB_ALLOC_HOOKS 1
#endif

// Counts the allocations of an armed call, fails the chosen one and keeps the
// blocks it allocates until they are freed. It allocates nothing itself and
// takes a spin lock: any thread may allocate while a call is armed.
namespace watch {

constexpr bool available = QB_ALLOC_HOOKS;
struct Block { void *ptr; size_t size; };
Block g_live[1 << 15];
size_t g_live_count = 0;
unsigned long g_count = 0, g_fail_at = 0;  // allocations while armed; the one to fail (0: none)
bool g_armed = false, g_failed = false, g_overflow = false;
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;

struct Lock {
    Lock() { while (g_lock.test_and_set(std::memory_order_acquire)) {} }
    ~Lock() { g_lock.clear(std::memory_order_release); }
};

void arm(bool on, unsigned long fail_at = 0)
{
    Lock lock;
    if ((g_armed = on))
        g_live_count = g_count = 0, g_fail_at = fail_at, g_failed = g_overflow = false;
}

bool fail_now()
{
    Lock lock;
    return g_armed && ++g_count == g_fail_at && (g_failed = true);
}

void remember(void *p, size_t size)
{
    Lock lock;
    if (p && g_armed && g_live_count == std::size(g_live))
        g_overflow = true;
    else if (p && g_armed)
        g_live[g_live_count++] = {p, size};
}

bool forget(void *p)  // false for a block from before the call
{
    Lock lock;
    for (size_t i = g_armed ? g_live_count : 0; i-- > 0;)
        if (g_live[i].ptr == p) {
            g_live[i] = g_live[--g_live_count];
            return true;
        }
    return false;
}

template <class Alloc> void *hooked(size_t size, Alloc alloc)
{
    if (fail_now())
        return errno = ENOMEM, nullptr;
    void *p = alloc();
    remember(p, size);
    return p;
}

}  // namespace watch

#if QB_ALLOC_HOOKS
extern "C" {
void *__libc_malloc(size_t size) noexcept;
void *__libc_calloc(size_t count, size_t size) noexcept;
void *__libc_realloc(void *ptr, size_t size) noexcept;
void __libc_free(void *ptr) noexcept;
void *__libc_memalign(size_t alignment, size_t size) noexcept;

void *malloc(size_t n) noexcept { return watch::hooked(n, [&] { return __libc_malloc(n); }); }
void *calloc(size_t c, size_t n) noexcept { return watch::hooked(c * n, [&] { return __libc_calloc(c, n); }); }
void *memalign(size_t a, size_t n) noexcept { return watch::hooked(n, [&] { return __libc_memalign(a, n); }); }
void *aligned_alloc(size_t a, size_t n) noexcept { return memalign(a, n); }
void free(void *ptr) noexcept { watch::forget(ptr), __libc_free(ptr); }

void *realloc(void *ptr, size_t size) noexcept
{
    if (!ptr)
        return malloc(size);
    if (size == 0)
        return free(ptr), nullptr;
    if (watch::fail_now())
        return errno = ENOMEM, nullptr;
    const bool ours = watch::forget(ptr);  // a block from before the call stays the caller's
    void *p = __libc_realloc(ptr, size);
    if (ours)
        watch::remember(p ? p : ptr, size);
    return p;
}

int posix_memalign(void **out, size_t alignment, size_t size) noexcept
{
    if (alignment < sizeof(void *) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void *p = memalign(alignment, size);
    return p ? (*out = p, 0) : ENOMEM;
}
}  // extern "C"
#endif

namespace {

// A gradient whose alpha runs across the picture; with `box` a frame's alpha
// instead: clear inside 40 x 30 at 8, 8, half outside.
Rgba rgba_picture(int width, int height, bool box)
{
    Rgba p{width, height, std::vector<uint8_t>(size_t(width) * height * 4)};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool inside = x >= 8 && x < 48 && y >= 8 && y < 38;
            uint8_t *px = p.at(x, y);
            px[0] = uint8_t(x * 255 / width), px[1] = uint8_t(y * 255 / height), px[2] = 90;
            px[3] = box ? (inside ? 0 : 128) : uint8_t(x * 255 / (width - 1));
        }
    return p;
}

struct Sources {
    TempDir dir;
    std::string jpeg_exif = dir.path("exif.jpg");    // 96 x 64, orientation 6, camera data
    std::string jpeg_grid = dir.path("grid.jpg");    // 32 x 32 4:2:0: coefficient route for 5
    std::string jpeg_odd = dir.path("odd.jpg");      // 37 x 29: pixel route
    std::string dng = dir.path("photo.dng");         // 1920 x 1280 preview
    std::string png = dir.path("photo.png");         // 90 x 60, alpha across
    std::string frame = dir.path("frame.png");       // 64 x 48, a clear box at 8, 8
    std::string jpeg_small = dir.path("small.jpg");  // 16 x 12: overlay and stamp thumbnail
    std::string missing = dir.path("missing.jpg");
    bool ok = false;

    Sources()
    {
        // glibc re-reads an unset TZ on every localtime() (LibRaw calls it)
        // and swaps its saved copy of the name: a block that would look left
        // behind by the call. The same zone, named, is read once.
        setenv("TZ", ":/etc/localtime", 0);
        const ExifBlock exif{
            .ifd0 = {exif_short(274, {6}), exif_ascii(271, "Qbcam"), exif_ascii(272, "QB-1"),
                     exif_ascii(306, "2021:06:15 14:30:45")},
            .exif = {{33434, kTiffRational, {1, 250}}, {33437, kTiffRational, {28, 10}},
                     exif_short(37385, {1}), {40962, kTiffLong, {96}}, {40963, kTiffLong, {64}}},
            .gps = {exif_ascii(1, "N"), {2, kTiffRational, {48, 1, 51, 1, 30, 1}}}};
        ok = write_jpeg(jpeg_exif, make_picture(96, 64, 3),
                        {.markers = {{JPEG_APP0 + 1, build_exif(exif)}}, .write_jfif = false}) &&
             write_jpeg(jpeg_grid, make_picture(32, 32, 3)) && write_jpeg(jpeg_odd, make_picture(37, 29, 3)) &&
             write_dng(dng, {.preview_width = 1920, .preview_height = 1280}) &&
             write_png_rgba(png, rgba_picture(90, 60, false)) && write_png_rgba(frame, rgba_picture(64, 48, true)) &&
             write_jpeg(jpeg_small, make_picture(16, 12, 3));
    }
    std::vector<std::string> all() const { return {jpeg_exif, jpeg_grid, jpeg_odd, dng, png, frame, jpeg_small}; }
};

const Sources &sources()
{
    static const Sources s;
    return s;
}

using Call = int32_t (*)(const char *in, const char *out);

void keep_log(int32_t, void *, int32_t, const char *, int32_t, const char *format, ...)
{
    static char line[512];  // allocates nothing, so it may run armed
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
}
const image_ctx kCtx{nullptr, nullptr, nullptr, keep_log, 0, 1, 2, 3};
image_metadata g_record;  // what a metadata call gave

int32_t thumb(const char *in, const char *out) { return easy_image_create_thumb(in, out, 40, 40, 85, 0xFFFFFF); }
int32_t transform90(const char *in, const char *out)
{
    return image_jpeg_transform(in, out, IMAGE_XFORM_ROT_90, nullptr, 85);
}
template <int Decode, int Xform> int32_t raw_preview(const char *in, const char *out)
{
    return image_raw_to_preview_jpeg(in, out, Decode, Xform, 85);
}
template <image_media_type Type> int32_t metadata(const char *in, const char *)
{
    return image_get_metadata(&kCtx, in, Type, &g_record);
}

// A host's use of the decode cache: a turned, padded size with an overlay and
// an Exif stamp into `out`, then a size at another DCT scale into `out`.2.
// Variant 1 names a missing overlay, 2 a missing stamp thumbnail. Returns the
// scaler's first failure, or 1 when the host's jump fired.
template <int Variant> int32_t host_scale(const char *in, const char *out)
{
    const Sources &s = sources();
    char out2[4096];  // a std::string would throw when its allocation fails
    std::snprintf(out2, sizeof out2, "%s.2", out);
    image_overlay overlay{(Variant == 1 ? s.missing : s.jpeg_small).c_str(), 0.5, 0};
    const HostRequest requests[] = {
        {out, IMAGE_XFORM_ROT_90, {IMAGE_SCALE_FIT_BOX_PAD, 40, 40, 10.0, 85, 0, 0},
         (Variant == 2 ? s.missing : s.jpeg_small).c_str(), &overlay},
        {out2, IMAGE_XFORM_NONE, {IMAGE_SCALE_FIT_BOX, 12, 12, 10.0, 85, 0, 0}}};
    return qbtest::host_scale(in, requests, 2);
}

constexpr int32_t kNone = 1000;  // the case does not apply

struct Row {
    const char *name;
    Call call;
    std::string Sources::*input;
    int32_t bad_input, bad_output, own_input, full_disk;  // own_input: the output is the input
    std::vector<int32_t> oom{};  // codes a failed allocation may give; none: not swept
    std::vector<Call> also{};    // calls whose results a failed allocation may give with 0
    bool may_go_black = false;   // a resampler runs (see black_centre)
};

// LibRaw is not swept: it crashes when its own allocations fail. A failed
// metadata read leaves a thumbnail unturned; a refused overlay and a stamp
// thumbnail that cannot be opened are left out of the picture. A decode that
// could not write is not turned: the turn finds no file.
const Row kRows[] = {
    {"thumbnail of a JPEG", thumb, &Sources::jpeg_exif, 2, 9, 9, 9, {2, 9},
     {[](const char *in, const char *out) {
         const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, 40, 40, 10.0, 85, 0, 0};
         return image_thumb_from_jpeg(&kCtx, in, out, &p, IMAGE_XFORM_NONE);
     }}, true},
    {"thumbnail of a RAW", thumb, &Sources::dng, 9, 9, 9, 9},
    {"thumbnail of a PNG", thumb, &Sources::png, 9, 9, 9, 9, {9}, {}, true},
    {"image_jpeg_scale: overlay, stamp, two scales", host_scale<0>, &Sources::jpeg_exif, kNone, -1, -1, -2,
     {1, -1, -2}, {host_scale<1>, host_scale<2>}, true},
    {"transform, coefficient route", transform90, &Sources::jpeg_grid, -1, -2, -2, -4, {-1, -2, -3, -4}},
    {"transform, pixel route", transform90, &Sources::jpeg_odd, -1, -2, -2, -4, {-1, -2, -3, -4}},
    {"RAW preview, embedded", raw_preview<0, 0>, &Sources::dng, -1, -2, -2, -1},
    {"RAW preview, decoded", raw_preview<1, 0>, &Sources::dng, -1, -2, -2, -1},
    {"RAW preview, decoded and turned", raw_preview<1, 6>, &Sources::dng, -1, -1, -2, -1},
    {"metadata of a JPEG", metadata<IMAGE_MEDIA_JPEG>, &Sources::jpeg_exif, 9, kNone, kNone, kNone, {9}},
    {"metadata of a RAW", metadata<IMAGE_MEDIA_RAW>, &Sources::dng, 9, kNone, kNone, kNone},
    {"framed image, its frame", [](const char *in, const char *out) {
         return image_create_framed_image(&kCtx, in, sources().jpeg_grid.c_str(), out, 8, 8, 40, 30);
     }, &Sources::frame, 9, 9, 9, 9, {9}},
    {"framed image, its photo", [](const char *in, const char *out) {
         return image_create_framed_image(&kCtx, sources().frame.c_str(), in, out, 8, 8, 40, 30);
     }, &Sources::jpeg_grid, 9, 9, 9, 9},
};

struct Outcome {
    int32_t rc = 0;
    bool failed = false;           // the chosen allocation was reached
    std::string faults;            // what went wrong beyond the code
    std::vector<uint8_t> product;  // the output files and the metadata record
};

// call(in, out) armed to fail its fail_at-th allocation (0: none), after a
// first call unarmed if `warm_up` (lazily made state is no leak), and what
// they left behind: blocks, descriptors, changed sources.
Outcome watched(Call call, const std::string &in, const std::string &out, unsigned long fail_at, bool warm_up = false)
{
    std::vector<std::pair<std::string, std::vector<uint8_t>>> before;
    for (const std::string &s : sources().all())
        before.emplace_back(s, read_file(s));
    const long fds = std::distance(fs::directory_iterator("/proc/self/fd"), {});
    if (warm_up)
        call(in.c_str(), out.c_str());
    Outcome o;
    watch::arm(true, fail_at);
    o.rc = call(in.c_str(), out.c_str());
    watch::arm(false);
    o.failed = watch::g_failed;
    size_t leaked = 0;
    for (size_t i = 0; i < watch::g_live_count; ++i)
        leaked += watch::g_live[i].size;
    if (watch::g_live_count)
        o.faults += " " + std::to_string(watch::g_live_count) + " blocks (" + std::to_string(leaked) + " bytes) not freed;";
    if (watch::g_overflow)
        o.faults += " too many blocks to track;";
    if (std::distance(fs::directory_iterator("/proc/self/fd"), {}) != fds)
        o.faults += " a descriptor left open;";
    for (const auto &[path, bytes] : before)
        if (read_file(path) != bytes)
            o.faults += " source " + path + " changed;";
    return o;
}

// How a call's input or output goes wrong, with the row's code for it: the
// input, or an output named `out` (null: the input itself) in an empty folder,
// made ready by `make` from the row's source.
struct Case {
    const char *name;
    int32_t Row::*code;
    const char *out;
    bool (*make)(const std::string &path, const std::string &src);
    const char *skip = nullptr;
};

void PrintTo(const Case &c, std::ostream *os) { *os << c.name; }
bool as_is(const std::string &, const std::string &) { return true; }
bool fifo(const std::string &path, const std::string &) { return mkfifo(path.c_str(), 0600) == 0; }

const Case kCases[] = {
    {"MissingInput", &Row::bad_input, "out", as_is},
    {"UnreadableInput", &Row::bad_input, "out",
     [](auto &path, auto &src) { return write_file(path, read_file(src)) && chmod(path.c_str(), 0) == 0; },
     geteuid() == 0 ? "chmod does not keep root from reading" : nullptr},
    {"DirectoryInput", &Row::bad_input, "out", [](auto &path, auto &) { return mkdir(path.c_str(), 0700) == 0; }},
    {"FifoInputIsRefusedWithoutBlocking", &Row::bad_input, "out", fifo},
    {"OutputInAMissingFolder", &Row::bad_output, "gone/out", as_is},
    {"OutputIsAFifoWithoutReader", &Row::bad_output, "fifo", fifo},
    {"OutputIsTheInput", &Row::own_input, nullptr, as_is},
    {"OutputIsASymlinkToTheInput", &Row::own_input, "soft",
     [](auto &path, auto &src) { return symlink(src.c_str(), path.c_str()) == 0; }},
    {"OutputIsAHardLinkToTheInput", &Row::own_input, "hard",
     [](auto &path, auto &src) { return link(src.c_str(), path.c_str()) == 0; }},
    {"FullDisk", &Row::full_disk, "/dev/full", as_is, fs::exists("/dev/full") ? nullptr : "no /dev/full here"},
};

std::vector<std::string> listing(const TempDir &t)
{
    std::vector<std::string> names;
    for (const fs::directory_entry &e : fs::recursive_directory_iterator(t.dir()))
        names.push_back(e.path());
    std::sort(names.begin(), names.end());
    return names;
}

struct Faults : ::testing::TestWithParam<Case> {};

// Each row gives its code, leaves nothing behind and writes or makes nothing.
TEST_P(Faults, GiveTheirCodeAndLeaveNothing)
{
    const Case &c = GetParam();
    if (c.skip)
        GTEST_SKIP() << c.skip;
    ASSERT_TRUE(sources().ok);
    for (const Row &r : kRows) {
        if (r.*c.code == kNone)
            continue;
        SCOPED_TRACE(r.name);
        const TempDir t;
        const std::string src = sources().*r.input, out = !c.out ? src : c.out[0] == '/' ? c.out : t.path(c.out);
        const bool bad_input = c.code == &Row::bad_input;
        const std::string in = bad_input ? t.path("in" + fs::path(src).extension().string()) : src;
        ASSERT_TRUE(c.make(bad_input ? in : out, src));
        const std::vector<std::string> names = listing(t);
        const Outcome o = watched(r.call, in, out, 0, true);
        EXPECT_EQ(o.rc, r.*c.code);
        EXPECT_EQ(o.faults, "");
        EXPECT_EQ(listing(t), names);
    }
}

INSTANTIATE_TEST_SUITE_P(BadPaths, Faults, ::testing::ValuesIn(kCases), [](const auto &p) { return p.param.name; });

// The resamplers have no result: when their working memory cannot be had, the
// picture goes on as the zeroed rows they were given, black.
bool black_centre(const std::vector<uint8_t> &jpeg)
{
    const Picture p = decode_jpeg(jpeg);
    const uint8_t *px = p.width ? p.at(p.width / 2, p.height / 2) : nullptr;
    return px && std::all_of(px, px + p.components, [](uint8_t v) { return v < 24; });
}

// Fails the 1st, 2nd, ... allocation of the call until it runs through without
// reaching the failure. Each failure gives one of the row's codes, or 0 with a
// result the row accepts; nothing is left behind.
TEST(AllocationFailure, EveryAllocationOfTheCall)
{
    if (!watch::available)
        GTEST_SKIP() << "the sanitizer's allocator is in place";
    ASSERT_TRUE(sources().ok);
    constexpr unsigned long kCap = 4000;
    const TempDir tmp;
    const std::string out = tmp.path("out.jpg"), out2 = out + ".2";
    for (const Row &r : kRows) {
        if (r.oom.empty())
            continue;
        SCOPED_TRACE(r.name);
        const auto run = [&](Call call, unsigned long fail_at) {
            fs::remove(out), fs::remove(out2);
            std::memset(&g_record, 0, sizeof g_record);
            Outcome o = watched(call, sources().*r.input, out, fail_at);
            for (const std::string &f : {out, out2})
                for (uint8_t b : read_file(f))
                    o.product.push_back(b);
            const auto *record = reinterpret_cast<const uint8_t *>(&g_record);
            o.product.insert(o.product.end(), record, record + sizeof g_record);
            return o;
        };
        const Outcome clean = run(r.call, 0);
        ASSERT_EQ(clean.rc, 0);
        ASSERT_EQ(clean.faults, "");
        std::vector<std::vector<uint8_t>> accepted = {clean.product};
        for (Call also : r.also) {
            const Outcome o = run(also, 0);
            ASSERT_EQ(o.rc, 0);
            accepted.push_back(o.product);
        }
        std::string problems;
        unsigned long n = 1;
        for (; n <= kCap; ++n) {
            const Outcome o = run(r.call, n);
            if (!o.failed) {
                EXPECT_EQ(o.rc, 0);
                EXPECT_EQ(o.product, clean.product);
                break;
            }
            const bool same = std::find(accepted.begin(), accepted.end(), o.product) != accepted.end() ||
                              (r.may_go_black && black_centre(o.product));
            std::string fault = o.faults;
            if (std::find(r.oom.begin(), r.oom.end(), o.rc) == r.oom.end() && !(o.rc == 0 && same))
                fault += " returned " + std::to_string(o.rc) + (o.rc == 0 ? " with a different result;" : ";");
            if (!fault.empty() && problems.size() < 2000)
                problems += "\n  allocation " + std::to_string(n) + ":" + fault;
        }
        EXPECT_LE(n, kCap) << "still allocating after " << kCap;
        EXPECT_EQ(problems, "");
        std::printf("[          ] %s: %lu allocations swept\n", r.name, n - 1);
    }
}

}  // namespace
