// qbimage batch: thumbnails of every supported file under a folder tree, on
// N threads of the tool (the library starts none; one call per file is
// safe in parallel), mirrored under another folder.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "util.h"

namespace qbcli {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct BatchOptions {
    std::string src, dst, size = "128x128", background = "FFFFFF";
    unsigned jobs = std::max(1u, std::thread::hardware_concurrency());
    int quality = 85;
    bool quiet = false, log = false;
};

struct Item {
    fs::path source;
    fs::path target;  // final name of the thumbnail
};

struct Failure {
    std::string file;
    std::string reason;
};

// What the walk found.
struct Plan {
    std::vector<Item> todo;
    size_t skipped = 0;  // thumbnail not older than its source
    size_t ignored = 0;  // not a JPEG, PNG or RAW file, or a linked folder
    std::vector<Failure> failures;
};

bool is_photo(const fs::path &p)
{
    const std::string ext = p.extension().string();
    if (ext.size() < 2)
        return false;
    const image_media_type t = utils_get_media_type(ext.c_str() + 1);
    return t == IMAGE_MEDIA_JPEG || t == IMAGE_MEDIA_PNG || t == IMAGE_MEDIA_RAW;
}

// Walks `dir` (relative part `rel`), folder by folder, so that a folder that
// cannot be read is reported rather than skipped in silence. Linked folders
// are not followed (no loops); the destination tree is left out when it
// lies inside the source.
void walk(const fs::path &dir, const fs::path &rel, const fs::path &dst_root,
          const fs::path &dst_canonical, Plan &plan)
{
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec) {
        plan.failures.push_back({dir.string(), "cannot list the folder: " + ec.message()});
        return;
    }
    std::vector<fs::directory_entry> entries;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec)
            break;
        entries.push_back(*it);
    }
    if (ec)
        plan.failures.push_back({dir.string(), "cannot list the folder: " + ec.message()});
    std::sort(entries.begin(), entries.end());
    for (const fs::directory_entry &e : entries) {
        const fs::path name = e.path().filename();
        std::error_code sec;
        if (e.is_symlink(sec) && e.is_directory(sec)) {
            ++plan.ignored;
            continue;
        }
        if (e.is_directory(sec)) {
            if (fs::equivalent(e.path(), dst_canonical, sec))
                continue;  // our own output
            walk(e.path(), rel / name, dst_root, dst_canonical, plan);
            continue;
        }
        if (!e.is_regular_file(sec) || !is_photo(e.path())) {
            ++plan.ignored;
            continue;
        }
        Item item{e.path(), dst_root / rel / (name.string() + ".jpg")};
        std::error_code tec;
        const auto target_time = fs::last_write_time(item.target, tec);
        if (!tec) {
            std::error_code src_ec;
            const auto source_time = fs::last_write_time(item.source, src_ec);
            if (!src_ec && target_time >= source_time) {
                ++plan.skipped;
                continue;
            }
        }
        plan.todo.push_back(std::move(item));
    }
}

std::string seconds_text(double s)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", s);
    return buf;
}

std::string clock_text(double s)
{
    const long t = long(s + 0.5);
    char buf[32];
    if (t >= 3600)
        std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60);
    else
        std::snprintf(buf, sizeof buf, "%ld:%02ld", t / 60, t % 60);
    return buf;
}

// The shared state of one run.
struct Run {
    const BatchOptions &options;
    const std::vector<Item> &items;
    Size size;
    uint32_t background;
    LibraryLog log;
    std::atomic<size_t> next{0};
    std::mutex mutex;
    std::condition_variable changed;
    size_t finished = 0;  // under mutex
    size_t done = 0;
    std::vector<Failure> failures;
    size_t workers_left = 0;

    Run(const BatchOptions &o, const std::vector<Item> &i, Size s, uint32_t bg)
        : options(o), items(i), size(s), background(bg), log(o.log)
    {
    }
};

void make_one(Run &run, const Item &item)
{
    std::string reason;
    if (run.options.log) {
        const fs::path ext = item.source.extension();
        const image_media_type t = utils_get_media_type(ext.string().c_str() + 1);
        if (t == IMAGE_MEDIA_JPEG || t == IMAGE_MEDIA_RAW) {
            image_metadata meta{};
            image_get_metadata(run.log.ctx(), item.source.c_str(), t, &meta);
        }
    }
    StagedOutput output;
    std::error_code ec;
    fs::create_directories(item.target.parent_path(), ec);
    if (ec) {
        reason = "cannot make the folder " + item.target.parent_path().string() + ": " +
                 ec.message();
    } else if (!output.open(item.target.string(), false, &reason)) {
        reason = item.target.string() + ": " + reason;
    } else {
        const int32_t rc = easy_image_create_thumb(item.source.c_str(), output.path(),
                                                   run.size.width, run.size.height,
                                                   run.options.quality, run.background);
        if (rc != IMAGE_RC_OK)
            reason = code_words(Call::thumb, rc);
        else if (!output.commit(&reason))
            reason = item.target.string() + ": " + reason;
    }
    std::lock_guard<std::mutex> lock(run.mutex);
    ++run.finished;
    if (reason.empty())
        ++run.done;
    else
        run.failures.push_back({item.source.string(), reason});
    run.changed.notify_all();
}

void worker(Run &run)
{
    while (!signals::stop_requested()) {
        const size_t i = run.next.fetch_add(1);
        if (i >= run.items.size())
            break;
        make_one(run, run.items[i]);
    }
    std::lock_guard<std::mutex> lock(run.mutex);
    --run.workers_left;
    run.changed.notify_all();
}

// Progress: a bar redrawn in place on a terminal, else a plain line at
// every tenth of the way.
class Progress {
public:
    Progress(size_t total, bool quiet)
        : total_(total), quiet_(quiet), tty_(isatty(STDERR_FILENO) == 1), start_(Clock::now())
    {
    }

    void show(size_t finished)
    {
        if (quiet_ || total_ == 0)
            return;
        const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
        const double rate = elapsed > 0 ? double(finished) / elapsed : 0.0;
        const std::string counts = std::to_string(finished) + "/" + std::to_string(total_);
        if (tty_) {
            // At most ten redraws a second, and always the last.
            const Clock::time_point now = Clock::now();
            if (drawn_ && finished < total_ && now - last_draw_ < std::chrono::milliseconds(100))
                return;
            last_draw_ = now;
            constexpr size_t kWidth = 30;
            const size_t filled = finished * kWidth / total_;
            std::string line = "\r\033[K[" + std::string(filled, '#') +
                               std::string(kWidth - filled, '-') + "] " + counts + "  " +
                               seconds_text(rate) + " files/s";
            if (rate > 0 && finished < total_)
                line += "  " + clock_text(double(total_ - finished) / rate) + " left";
            std::fputs(line.c_str(), stderr);
            std::fflush(stderr);
            drawn_ = true;
        } else {
            const size_t tenth = finished * 10 / total_;
            if (tenth == last_tenth_)
                return;
            last_tenth_ = tenth;
            std::string line = "batch: " + counts + " (" + std::to_string(tenth * 10) + "%)  " +
                               seconds_text(rate) + " files/s";
            if (rate > 0 && finished < total_)
                line += "  " + clock_text(double(total_ - finished) / rate) + " left";
            line += "\n";
            std::fputs(line.c_str(), stderr);
        }
    }

    void clear()
    {
        if (drawn_)
            std::fputs("\r\033[K", stderr);
        drawn_ = false;
    }

    double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

private:
    size_t total_;
    bool quiet_;
    bool tty_;
    Clock::time_point start_;
    Clock::time_point last_draw_{};
    size_t last_tenth_ = 0;
    bool drawn_ = false;
};

int run_batch(const BatchOptions &o)
{
    const std::string cmd = "batch";
    const auto size = parse_size(o.size, false);
    const auto colour = parse_colour(o.background);
    if (!size || !colour) {
        report(cmd, !size ? "--size: expected WxH with positive sides, got '" + o.size + "'"
                          : "--background: expected RRGGBB in hex, got '" + o.background + "'");
        return kExitUsage;
    }
    std::error_code ec;
    if (!fs::is_directory(o.src, ec)) {
        report(cmd, o.src + ": not a folder");
        return kExitFailed;
    }
    fs::create_directories(o.dst, ec);
    if (ec || !fs::is_directory(o.dst)) {
        report(cmd, o.dst + ": cannot make the folder" + (ec ? ": " + ec.message() : ""));
        return kExitFailed;
    }

    Plan plan;
    walk(fs::path(o.src), fs::path(), fs::path(o.dst), fs::canonical(o.dst, ec), plan);

    signals::set_graceful(true);
    Run run(o, plan.todo, *size, *colour);
    run.failures = plan.failures;
    Progress progress(plan.todo.size(), o.quiet);
    const size_t threads = std::min<size_t>(std::max(1u, o.jobs), plan.todo.size());
    std::vector<std::thread> pool;
    run.workers_left = threads;
    for (size_t t = 0; t < threads; ++t)
        pool.emplace_back(worker, std::ref(run));
    {
        std::unique_lock<std::mutex> lock(run.mutex);
        bool told = false;
        while (run.workers_left > 0) {
            const size_t finished = run.finished;
            lock.unlock();
            progress.show(finished);
            if (!told && signals::stop_requested()) {
                progress.clear();
                report(cmd, "interrupted: finishing the files in progress (again to stop at once)");
                told = true;
            }
            lock.lock();
            run.changed.wait_for(lock, std::chrono::milliseconds(200));
        }
    }
    for (std::thread &t : pool)
        t.join();
    progress.show(run.finished);
    progress.clear();

    const double seconds = progress.seconds();
    const bool interrupted = signals::stop_requested();
    std::sort(run.failures.begin(), run.failures.end(),
              [](const Failure &a, const Failure &b) { return a.file < b.file; });
    for (const Failure &f : run.failures)
        report(cmd, "failed: " + f.file + ": " + f.reason);
    if (!o.quiet || interrupted) {
        std::string line = std::string(interrupted ? "interrupted: " : "") +
                           std::to_string(run.done) + " done, " + std::to_string(plan.skipped) +
                           " skipped (up to date), " + std::to_string(run.failures.size()) +
                           " failed";
        if (interrupted)
            line += ", " + std::to_string(plan.todo.size() - run.finished) + " not started";
        line += " in " + seconds_text(seconds) + " s (" +
                seconds_text(seconds > 0 ? double(run.done) / seconds : 0.0) + " files/s)";
        if (plan.ignored)
            line += "; " + std::to_string(plan.ignored) +
                    (plan.ignored == 1 ? " other file ignored" : " other files ignored");
        report(cmd, line);
    }
    if (interrupted)
        return 128 + signals::stop_signal();
    return run.failures.empty() ? kExitOk : kExitFailed;
}

}  // namespace

void add_batch(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<BatchOptions>();
    CLI::App *sub = app.add_subcommand(
        "batch", "Thumbnails of every JPEG, PNG and RAW file under SRC_DIR, mirrored under "
                 "DST_DIR with .jpg appended; up-to-date thumbnails are skipped");
    sub->add_option("SRC_DIR", o->src, "Folder tree of photos")->required();
    sub->add_option("DST_DIR", o->dst, "Folder for the thumbnails (made if missing)")->required();
    sub->add_option("--size", o->size, "Box of the thumbnails, WxH")->capture_default_str();
    sub->add_option("--jobs", o->jobs, "Files made at once (default: the number of processors)")
        ->check(CLI::Range(1u, 1024u))
        ->capture_default_str();
    sub->add_option("--quality", o->quality, "JPEG quality")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    sub->add_option("--background", o->background,
                    "PNG only: colour under transparent pixels, RRGGBB")
        ->capture_default_str();
    sub->add_flag("--quiet", o->quiet, "No progress and no summary; failures are still listed");
    add_log_flag(*sub, o->log);
    sub->footer("Exit status: 0 all done or skipped, 1 a file failed, 2 usage, 130 interrupted "
                "(Ctrl-C finishes the files in progress, a second Ctrl-C stops at once; no "
                "partial thumbnail is left under its final name).");
    sub->final_callback([o, &run] { run = [o] { return run_batch(*o); }; });
}

}  // namespace qbcli
