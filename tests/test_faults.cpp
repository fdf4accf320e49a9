// Faults around the entry points: a failed allocation (the Nth of the call,
// swept over N), a full disk, missing and unreadable inputs, outputs in
// missing folders. Every case must return its documented code, leave no
// allocation and no descriptor behind, and leave its sources as they were.
//
// The executable brings its own malloc family. Strong definitions here take
// the place of libc's for the whole process (libjpeg, libpng and libexif
// included) and forward to glibc's. Armed around one call, they count its
// allocations, fail the chosen one and keep every block the call allocates
// until it is freed. The sanitizers bring allocators of their own: under
// them the hooks are left out, the sweep is skipped, and the other cases
// still check codes, outputs and sources.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "common/common.h"
#include "core/core.h"
#include "dng_writer.h"
#include "exif_writer.h"
#include "png_writer.h"
#include "test_jpeg.h"

using namespace qbtest;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QB_ALLOC_HOOKS 0
#else
#define QB_ALLOC_HOOKS 1
#endif

// ---------------------------------------------------------------------------
// The allocation watch

namespace watch {

struct Report {
    bool failed = false;      // the chosen allocation was reached and failed
    unsigned long count = 0;  // allocations while armed
    unsigned long leaks = 0;  // blocks allocated while armed and not freed
    size_t leaked_bytes = 0;
    bool overflow = false;    // too many blocks to keep track of
};

#if QB_ALLOC_HOOKS
namespace {

constexpr int kSlotBits = 16;
constexpr size_t kSlots = size_t(1) << kSlotBits;
struct Block {
    void *ptr;  // null: empty; kGone: freed
    size_t size;
};
void *const kGone = reinterpret_cast<void *>(uintptr_t(1));

// No allocation happens in here: a fixed open-addressing table under a spin
// lock (any thread may allocate while a call is armed).
Block g_blocks[kSlots];
size_t g_used = 0;
std::atomic<bool> g_armed{false};
std::atomic_flag g_lock = ATOMIC_FLAG_INIT;
Report g_report;
unsigned long g_fail_at = 0;

struct Lock {
    Lock() { while (g_lock.test_and_set(std::memory_order_acquire)) {} }
    ~Lock() { g_lock.clear(std::memory_order_release); }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
};

size_t slot_of(const void *p)
{
    return size_t((uint64_t(uintptr_t(p)) >> 4) * 0x9E3779B97F4A7C15ull >> (64 - kSlotBits));
}

bool armed() { return g_armed.load(std::memory_order_relaxed); }

bool fail_now()
{
    if (!armed())
        return false;
    Lock lock;
    if (++g_report.count != g_fail_at)
        return false;
    g_report.failed = true;
    return true;
}

void remember(void *p, size_t size)
{
    if (!p || !armed())
        return;
    Lock lock;
    if (g_used + 1 >= kSlots / 2) {
        g_report.overflow = true;
        return;
    }
    size_t i = slot_of(p);
    while (g_blocks[i].ptr)
        i = (i + 1) & (kSlots - 1);
    g_blocks[i] = {p, size};
    ++g_used;
}

bool forget(void *p)
{
    if (!p || !armed())
        return false;
    Lock lock;
    for (size_t i = slot_of(p); g_blocks[i].ptr; i = (i + 1) & (kSlots - 1)) {
        if (g_blocks[i].ptr == p) {
            g_blocks[i].ptr = kGone;
            return true;
        }
    }
    return false;
}

}  // namespace

constexpr bool available = true;

void arm(unsigned long fail_at)
{
    Lock lock;
    std::memset(g_blocks, 0, sizeof g_blocks);
    g_used = 0;
    g_report = Report();
    g_fail_at = fail_at;
    g_armed.store(true, std::memory_order_relaxed);
}

Report disarm()
{
    g_armed.store(false, std::memory_order_relaxed);
    Lock lock;
    for (const Block &b : g_blocks) {
        if (b.ptr && b.ptr != kGone) {
            ++g_report.leaks;
            g_report.leaked_bytes += b.size;
        }
    }
    return g_report;
}

#else
constexpr bool available = false;
void arm(unsigned long) {}
Report disarm() { return Report(); }
#endif

}  // namespace watch

#if QB_ALLOC_HOOKS
extern "C" {
void *__libc_malloc(size_t size) noexcept;
void *__libc_calloc(size_t count, size_t size) noexcept;
void *__libc_realloc(void *ptr, size_t size) noexcept;
void __libc_free(void *ptr) noexcept;
void *__libc_memalign(size_t alignment, size_t size) noexcept;

void *malloc(size_t size) noexcept
{
    if (watch::fail_now()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = __libc_malloc(size);
    watch::remember(p, size);
    return p;
}

void *calloc(size_t count, size_t size) noexcept
{
    if (watch::fail_now()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = __libc_calloc(count, size);
    watch::remember(p, count * size);
    return p;
}

void free(void *ptr) noexcept
{
    watch::forget(ptr);
    __libc_free(ptr);
}

void *realloc(void *ptr, size_t size) noexcept
{
    if (!ptr)
        return malloc(size);
    if (size == 0) {
        free(ptr);
        return nullptr;
    }
    if (watch::fail_now()) {
        errno = ENOMEM;
        return nullptr;
    }
    // A block from before the call stays the caller's when it moves.
    const bool ours = watch::forget(ptr);
    void *p = __libc_realloc(ptr, size);
    if (ours)
        watch::remember(p ? p : ptr, size);
    return p;
}

void *memalign(size_t alignment, size_t size) noexcept
{
    if (watch::fail_now()) {
        errno = ENOMEM;
        return nullptr;
    }
    void *p = __libc_memalign(alignment, size);
    watch::remember(p, size);
    return p;
}

void *aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }

int posix_memalign(void **out, size_t alignment, size_t size) noexcept
{
    if (alignment < sizeof(void *) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    void *p = memalign(alignment, size);
    if (!p)
        return ENOMEM;
    *out = p;
    return 0;
}
}  // extern "C"
#endif

namespace {

// ---------------------------------------------------------------------------
// Sources and calls

// A gradient whose alpha runs across the picture; with `box` the frame's
// alpha instead: clear inside 40 x 30 at 8, 8, half outside.
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
    std::string jpeg_exif = dir.path("exif.jpg");  // 96 x 64, orientation 6, camera data
    std::string jpeg_grid = dir.path("grid.jpg");  // 32 x 32 4:2:0: coefficient route for 5
    std::string jpeg_odd = dir.path("odd.jpg");    // 37 x 29: pixel route
    std::string dng = dir.path("photo.dng");       // 1920 x 1280 preview
    std::string png = dir.path("photo.png");       // 90 x 60, alpha across
    std::string frame = dir.path("frame.png");     // 64 x 48, a clear box at 8, 8
    std::string jpeg_small = dir.path("small.jpg");  // 16 x 12: overlay and stamp thumbnail
    std::string missing = dir.path("missing.jpg");
    bool ok = false;

    Sources()
    {
        // glibc re-reads an unset TZ on every localtime() (LibRaw calls it)
        // and swaps its saved copy of the name: a block that would look
        // left behind by the call. The same zone, named, is read once.
        setenv("TZ", ":/etc/localtime", 0);
        const ExifBlock exif{
            .ifd0 = {exif_short(274, {6}), exif_ascii(271, "Qbcam"), exif_ascii(272, "QB-1"),
                     exif_ascii(306, "2021:06:15 14:30:45")},
            .exif = {{33434, kTiffRational, {1, 250}}, {33437, kTiffRational, {28, 10}},
                     exif_short(37385, {1}), {40962, kTiffLong, {96}}, {40963, kTiffLong, {64}}},
            .gps = {exif_ascii(1, "N"), {2, kTiffRational, {48, 1, 51, 1, 30, 1}}}};
        ok = write_jpeg(jpeg_exif, make_picture(96, 64, 3),
                        {.markers = {{JPEG_APP0 + 1, build_exif(exif)}}, .write_jfif = false}) &&
             write_jpeg(jpeg_grid, make_picture(32, 32, 3)) &&
             write_jpeg(jpeg_odd, make_picture(37, 29, 3)) &&
             write_dng(dng, {.preview_width = 1920, .preview_height = 1280}) &&
             write_png_rgba(png, rgba_picture(90, 60, false)) &&
             write_png_rgba(frame, rgba_picture(64, 48, true)) &&
             write_jpeg(jpeg_small, make_picture(16, 12, 3));
    }

    // The sources a call is checked to leave alone (the DNG only where it
    // is the input: it is large).
    std::vector<std::string> small() const
    {
        return {jpeg_exif, jpeg_grid, jpeg_odd, png, frame, jpeg_small};
    }
    std::vector<std::string> checked(const std::string &in) const
    {
        std::vector<std::string> all = small();
        if (in == dng)
            all.push_back(dng);
        return all;
    }
};

const Sources &sources()
{
    static const Sources s;
    return s;
}

using Source = std::string Sources::*;
using Call = int32_t (*)(const char *in, const char *out);

// A log callback that allocates nothing, so it may run armed.
char g_log[512];
void keep_log(int32_t, void *, int32_t, const char *, int32_t, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(g_log, sizeof g_log, format, ap);
    va_end(ap);
}
const image_ctx kCtx{nullptr, nullptr, nullptr, keep_log, 0, 1, 2, 3};

image_metadata g_record;  // what the metadata call gave

int32_t thumb(const char *in, const char *out)
{
    return easy_image_create_thumb(in, out, 40, 40, 85, 0xFFFFFF);
}
int32_t transform90(const char *in, const char *out)
{
    return image_jpeg_transform(in, out, IMAGE_XFORM_ROT_90, nullptr, 85);
}
// RAW previews: the embedded one, a decode, a decode turned.
int32_t raw_preview(const char *in, const char *out) { return image_raw_to_preview_jpeg(in, out, 0, 0, 85); }
int32_t raw_decode(const char *in, const char *out) { return image_raw_to_preview_jpeg(in, out, 1, 0, 85); }
int32_t raw_turned(const char *in, const char *out) { return image_raw_to_preview_jpeg(in, out, 1, 6, 85); }
int32_t framed_frame(const char *in, const char *out)
{
    return image_create_framed_image(&kCtx, in, sources().jpeg_grid.c_str(), out, 8, 8, 40, 30);
}
int32_t framed_photo(const char *in, const char *out)
{
    return image_create_framed_image(&kCtx, sources().frame.c_str(), in, out, 8, 8, 40, 30);
}
int32_t metadata(const char *in, const char *)
{
    std::memset(&g_record, 0, sizeof g_record);
    const char *dot = std::strrchr(in, '.');
    const bool jpeg = dot && std::strcmp(dot, ".jpg") == 0;
    return image_get_metadata(&kCtx, in, jpeg ? IMAGE_MEDIA_JPEG : IMAGE_MEDIA_RAW, &g_record);
}

// The thumbnail entry's JPEG route without the turn, as after a failed
// metadata read.
int32_t thumb_unturned(const char *in, const char *out)
{
    const image_ctx quiet{};
    const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, 40, 40, 10.0, 85, 0, 0};
    return image_thumb_from_jpeg(&quiet, in, out, &p, IMAGE_XFORM_NONE);
}

// A host's use of the decode cache: a turned, padded size with an overlay
// and an Exif stamp into `out`, then a size at another DCT scale into
// `out`.2. Variant 1 names a missing overlay, 2 a missing stamp thumbnail.
// Returns the scaler's first failure, or 1 when the host's jump fired.
template <int Variant>
int32_t host_scale(const char *in, const char *out)
{
    const Sources &s = sources();
    char out2[4096];
    std::snprintf(out2, sizeof out2, "%s.2", out);
    image_overlay overlay{(Variant == 1 ? s.missing : s.jpeg_small).c_str(), 0.5, 0};
    const char *stamp = (Variant == 2 ? s.missing : s.jpeg_small).c_str();
    FILE *first = std::fopen(in, "rb");
    FILE *second = std::fopen(in, "rb");
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
        const image_scale_params p{IMAGE_SCALE_FIT_BOX_PAD, 40, 40, 10.0, 85, 0, 0};
        const image_scale_params p2{IMAGE_SCALE_FIT_BOX, 12, 12, 10.0, 85, 0, 0};
        rc = image_jpeg_scale(utils_check_hw(), &cache, second, out, IMAGE_XFORM_ROT_90, &p,
                              stamp, &overlay);
        if (rc == 0)
            rc = image_jpeg_scale(utils_check_hw(), &cache, second, out2, IMAGE_XFORM_NONE, &p2,
                                  nullptr, nullptr);
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

// ---------------------------------------------------------------------------
// One watched call

int open_descriptors()
{
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d))
            ++n;
        closedir(d);
    }
    return n;
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

struct Outcome {
    int32_t rc = 0;
    watch::Report report;
    std::vector<uint8_t> product;  // the output files, or the metadata record
    std::string faults;            // what went wrong beyond the code, if anything
};

// Runs call(in, out) armed to fail its fail_at-th allocation (0: none), and
// checks what it leaves: blocks, descriptors, and the bytes of `sources`.
Outcome watched(Call call, const std::string &in, const std::string &out,
                const std::vector<std::string> &sources, unsigned long fail_at = 0)
{
    std::vector<std::vector<uint8_t>> before;
    for (const std::string &s : sources)
        before.push_back(read_file(s));
    if (out != "/dev/full")
        for (const std::string &f : {out, out + ".2"})
            unlink(f.c_str());
    const int fds = open_descriptors();
    Outcome o;
    watch::arm(fail_at);
    o.rc = call(in.c_str(), out.c_str());
    o.report = watch::disarm();
    if (call == metadata)
        o.product.assign(reinterpret_cast<const uint8_t *>(&g_record),
                         reinterpret_cast<const uint8_t *>(&g_record + 1));
    else if (out != "/dev/full")
        for (const std::string &f : {out, out + ".2"}) {
            const std::vector<uint8_t> bytes = read_file(f);
            o.product.insert(o.product.end(), bytes.begin(), bytes.end());
        }
    if (o.report.leaks)
        o.faults += " " + std::to_string(o.report.leaks) + " blocks (" +
                    std::to_string(o.report.leaked_bytes) + " bytes) not freed;";
    if (o.report.overflow)
        o.faults += " too many blocks to track;";
    if (open_descriptors() != fds)
        o.faults += " a descriptor left open;";
    for (size_t i = 0; i < sources.size(); ++i)
        if (read_file(sources[i]) != before[i])
            o.faults += " source " + sources[i] + " changed;";
    return o;
}

// ---------------------------------------------------------------------------
// Bad inputs and outputs

constexpr int32_t kNone = 1000;  // the case does not apply

struct Row {
    const char *name;
    Call call;
    Source input;
    int32_t bad_input, bad_output, full_disk;
};

const Row kRows[] = {
    {"thumbnail of a JPEG", thumb, &Sources::jpeg_exif, 2, 9, 9},
    {"thumbnail of a RAW", thumb, &Sources::dng, 9, 9, 9},
    {"thumbnail of a PNG", thumb, &Sources::png, 9, 9, 9},
    {"image_jpeg_scale", host_scale<0>, &Sources::jpeg_exif, kNone, -1, -2},
    {"transform, coefficient route", transform90, &Sources::jpeg_grid, -1, -2, -4},
    {"transform, pixel route", transform90, &Sources::jpeg_odd, -1, -2, -4},
    {"RAW preview, embedded", raw_preview, &Sources::dng, -1, -2, -1},
    {"RAW preview, decoded", raw_decode, &Sources::dng, -1, -2, -1},
    // A decode that could not write is not turned: the turn finds no file.
    {"RAW preview, decoded and turned", raw_turned, &Sources::dng, -1, -1, -1},
    {"metadata of a JPEG", metadata, &Sources::jpeg_exif, 9, kNone, kNone},
    {"metadata of a RAW", metadata, &Sources::dng, 9, kNone, kNone},
    {"framed image, its frame", framed_frame, &Sources::frame, 9, 9, 9},
    {"framed image, its photo", framed_photo, &Sources::jpeg_grid, 9, 9, 9},
};

std::string extension(const std::string &path) { return path.substr(path.rfind('.')); }

enum class BadInput { missing, unreadable, directory };

// Each row with its input replaced by one it cannot read: the documented
// code, and no output written.
void run_bad_inputs(BadInput kind)
{
    const Sources &s = sources();
    ASSERT_TRUE(s.ok);
    TempDir tmp;
    for (const Row &r : kRows) {
        if (r.bad_input == kNone)
            continue;
        SCOPED_TRACE(r.name);
        const std::string in = tmp.path("input" + extension(s.*r.input));
        if (kind == BadInput::unreadable) {
            ASSERT_TRUE(write_file(in, read_file(s.*r.input)));
            ASSERT_EQ(chmod(in.c_str(), 0), 0);
        } else if (kind == BadInput::directory) {
            ASSERT_EQ(mkdir(in.c_str(), 0700), 0);
        }
        const std::string out = tmp.path("out.jpg");
        r.call(in.c_str(), out.c_str());  // warms up lazily made state
        const Outcome o = watched(r.call, in, out, s.small());
        EXPECT_EQ(o.rc, r.bad_input);
        EXPECT_EQ(o.faults, "");
        EXPECT_FALSE(exists(out));
        if (kind == BadInput::directory)
            rmdir(in.c_str());
        else
            unlink(in.c_str());
    }
}

TEST(BadInput, Missing) { run_bad_inputs(BadInput::missing); }

TEST(BadInput, Unreadable)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "chmod does not keep root from reading";
    run_bad_inputs(BadInput::unreadable);
}

TEST(BadInput, Directory) { run_bad_inputs(BadInput::directory); }

// Each row writing into a folder that does not exist, and to a full disk.
TEST(BadOutput, MissingFolderAndFullDisk)
{
    const Sources &s = sources();
    ASSERT_TRUE(s.ok);
    TempDir tmp;
    const std::string missing = tmp.path("gone/out.jpg");
    const bool have_full = exists("/dev/full");
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        const std::string in = s.*r.input;
        r.call(in.c_str(), tmp.path("warm.jpg").c_str());
        if (r.bad_output != kNone) {
            const Outcome o = watched(r.call, in, missing, s.checked(in));
            EXPECT_EQ(o.rc, r.bad_output);
            EXPECT_EQ(o.faults, "");
            EXPECT_FALSE(exists(tmp.path("gone")));
        }
        if (r.full_disk != kNone && have_full) {
            const Outcome o = watched(r.call, in, "/dev/full", s.checked(in));
            EXPECT_EQ(o.rc, r.full_disk) << "on a full disk";
            EXPECT_EQ(o.faults, "") << "on a full disk";
        }
    }
    if (!have_full)
        GTEST_SKIP() << "no /dev/full here";
}

// ---------------------------------------------------------------------------
// Allocation failures

struct SweepRow {
    const char *name;
    Call call;
    Source input;
    std::vector<int32_t> codes;  // what a failure may return
    std::vector<Call> also;      // calls whose results a failure may give with 0
    bool may_go_black;           // a resampler runs (see black_centre)
};

// LibRaw is left out: it crashes when its own allocations fail. A failed
// metadata read leaves a thumbnail unturned; a refused overlay and a stamp
// thumbnail that cannot be opened are left out of the picture.
const SweepRow kSweep[] = {
    {"thumbnail of a turned JPEG", thumb, &Sources::jpeg_exif, {2, 9}, {thumb_unturned}, true},
    {"image_jpeg_scale: overlay, stamp, two scales", host_scale<0>, &Sources::jpeg_exif,
     {1, -1, -2}, {host_scale<1>, host_scale<2>}, true},
    {"transform, coefficient route", transform90, &Sources::jpeg_grid, {-1, -2, -3, -4}, {}, false},
    {"transform, pixel route", transform90, &Sources::jpeg_odd, {-1, -2, -3, -4}, {}, false},
    {"metadata of a JPEG with Exif", metadata, &Sources::jpeg_exif, {9}, {}, false},
    {"thumbnail of a PNG", thumb, &Sources::png, {9}, {}, true},
    {"framed image", framed_frame, &Sources::frame, {9}, {}, false},
};

constexpr unsigned long kSweepCap = 4000;

// The resamplers have no result: when their working memory cannot be had,
// the picture goes on as the zeroed rows they were given, black.
bool black_centre(const std::vector<uint8_t> &jpeg)
{
    const Picture p = decode_jpeg(jpeg);
    const uint8_t *px = p.width ? p.at(p.width / 2, p.height / 2) : nullptr;
    return px && std::all_of(px, px + p.components, [](uint8_t v) { return v < 24; });
}

// Fails the 1st, 2nd, ... allocation of the call until it runs through
// without reaching the failure. Each failure gives one of the row's codes,
// or 0 with the output exactly as without a failure; nothing is left
// behind. Some failures are absorbed by design: the row says which.
TEST(AllocationFailure, EveryAllocationOfTheCall)
{
    if (!watch::available)
        GTEST_SKIP() << "the sanitizer's allocator is in place";
    const Sources &s = sources();
    ASSERT_TRUE(s.ok);
    TempDir tmp;
    const std::string out = tmp.path("out.jpg");
    for (const SweepRow &r : kSweep) {
        SCOPED_TRACE(r.name);
        const std::string in = s.*r.input;
        const Outcome clean = watched(r.call, in, out, s.small());
        ASSERT_EQ(clean.rc, 0);
        ASSERT_EQ(clean.faults, "");
        std::vector<std::vector<uint8_t>> accepted = {clean.product};
        for (Call also : r.also) {
            const Outcome o = watched(also, in, out, s.small());
            ASSERT_EQ(o.rc, 0);
            accepted.push_back(o.product);
        }
        std::string problems;
        unsigned long n = 1;
        for (; n <= kSweepCap; ++n) {
            const Outcome o = watched(r.call, in, out, s.small(), n);
            if (!o.report.failed) {
                EXPECT_EQ(o.rc, 0);
                EXPECT_EQ(o.product, clean.product);
                break;
            }
            std::string fault = o.faults;
            const bool known = std::find(r.codes.begin(), r.codes.end(), o.rc) != r.codes.end();
            const bool same =
                std::find(accepted.begin(), accepted.end(), o.product) != accepted.end() ||
                (r.may_go_black && black_centre(o.product));
            if (!known && !(o.rc == 0 && same))
                fault += " returned " + std::to_string(o.rc) +
                         (o.rc == 0 ? " with a different result;" : ";");
            if (!fault.empty() && problems.size() < 2000)
                problems += "\n  allocation " + std::to_string(n) + ":" + fault;
        }
        EXPECT_LE(n, kSweepCap) << "still allocating after " << kSweepCap;
        EXPECT_EQ(problems, "");
        std::printf("[          ] %s: %lu allocations swept\n", r.name, n - 1);
    }
}

}  // namespace
