// Shared pieces of the qbimage tool; see util.h.
#include "util.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

namespace qbcli {

void report(const std::string &command, const std::string &message)
{
    std::string line = "qbimage";
    if (!command.empty())
        line += " " + command;
    line += ": " + message + "\n";
    std::fputs(line.c_str(), stderr);
}

// ---------------------------------------------------------------------------
// Parsing

namespace {

template <typename T>
std::optional<T> parse_number(std::string_view text)
{
    T value{};
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty())
        return std::nullopt;
    return value;
}

}  // namespace

std::optional<Size> parse_size(const std::string &text, bool allow_zero)
{
    const size_t x = text.find_first_of("xX");
    if (x == std::string::npos)
        return std::nullopt;
    const auto w = parse_number<int32_t>(std::string_view(text).substr(0, x));
    const auto h = parse_number<int32_t>(std::string_view(text).substr(x + 1));
    if (!w || !h || *w < 0 || *h < 0)
        return std::nullopt;
    if (!allow_zero && (*w == 0 || *h == 0))
        return std::nullopt;
    return Size{*w, *h};
}

std::optional<std::array<int32_t, 4>> parse_rect(const std::string &text)
{
    std::array<int32_t, 4> out{};
    std::string_view rest(text);
    for (size_t i = 0; i < 4; ++i) {
        const size_t comma = rest.find(',');
        const bool last = i == 3;
        if (last != (comma == std::string_view::npos))
            return std::nullopt;
        const auto v = parse_number<int32_t>(rest.substr(0, comma));
        if (!v || *v < 0)
            return std::nullopt;
        out[i] = *v;
        if (!last)
            rest = rest.substr(comma + 1);
    }
    return out;
}

std::optional<uint32_t> parse_colour(const std::string &text)
{
    std::string_view hex(text);
    if (!hex.empty() && hex.front() == '#')
        hex.remove_prefix(1);
    if (hex.size() != 6)
        return std::nullopt;
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(hex.data(), hex.data() + hex.size(), value, 16);
    if (ec != std::errc() || end != hex.data() + hex.size())
        return std::nullopt;
    return value;
}

const std::vector<std::pair<std::string, int>> &xform_names()
{
    static const std::vector<std::pair<std::string, int>> names{
        {"none", IMAGE_XFORM_NONE},           {"flip-h", IMAGE_XFORM_FLIP_H},
        {"flip-v", IMAGE_XFORM_FLIP_V},       {"transpose", IMAGE_XFORM_TRANSPOSE},
        {"transverse", IMAGE_XFORM_TRANSVERSE}, {"rot90", IMAGE_XFORM_ROT_90},
        {"rot180", IMAGE_XFORM_ROT_180},      {"rot270", IMAGE_XFORM_ROT_270}};
    return names;
}

const std::vector<std::pair<std::string, int>> &mode_names()
{
    static const std::vector<std::pair<std::string, int>> names{
        {"fit-width", IMAGE_SCALE_FIT_WIDTH},
        {"fit-height", IMAGE_SCALE_FIT_HEIGHT},
        {"fill-corner", IMAGE_SCALE_FILL_CORNER},
        {"fill-corner-pad", IMAGE_SCALE_FILL_CORNER_PAD},
        {"fit-box", IMAGE_SCALE_FIT_BOX},
        {"fit-box-pad", IMAGE_SCALE_FIT_BOX_PAD},
        {"fill-centre", IMAGE_SCALE_FILL_CENTRE}};
    return names;
}

const std::vector<std::pair<std::string, int>> &position_names()
{
    static const std::vector<std::pair<std::string, int>> names{
        {"top-left", 0},    {"top", 1},    {"top-right", 2},
        {"left", 3},        {"centre", 4}, {"right", 5},
        {"bottom-left", 6}, {"bottom", 7}, {"bottom-right", 8}};
    return names;
}

std::string xform_name(uint32_t xform)
{
    for (const auto &[name, code] : xform_names())
        if (uint32_t(code) == xform)
            return name;
    return std::to_string(xform);
}

void add_log_flag(CLI::App &sub, bool &flag)
{
    sub.add_flag("--log", flag,
                 "Show the library's own log lines on stderr (calls that take no log "
                 "record report by their code alone)");
}

// ---------------------------------------------------------------------------
// Return codes in words

std::string code_words(Call call, int32_t code)
{
    const char *words = nullptr;
    switch (call) {
    case Call::thumb:
        words = code == IMAGE_RC_NOT_FOUND ? "the file cannot be opened, or its name has no extension"
              : code == IMAGE_RC_FAILED
                  ? "no thumbnail could be made: not a supported photo, damaged or "
                    "refused, or the output not written"
                  : nullptr;
        break;
    case Call::scale:
        words = code == -1   ? "the output cannot be opened for writing"
              : code == -2 ? "the picture cannot be produced: size refused, damaged data or "
                             "the encoder failed"
                           : nullptr;
        break;
    case Call::transform:
        words = code == -1   ? "the input cannot be read"
              : code == -2 ? "the output cannot be opened for writing"
              : code == -3 ? "the decoder failed: not a JPEG, or damaged"
              : code == -4 ? "the encoder failed: an empty crop, a full disk or a picture it "
                             "refuses"
                           : nullptr;
        break;
    case Call::raw_preview:
        words = code == -1   ? "LibRaw refused the file or failed to decode it, or the rotation "
                               "failed"
              : code == -2 ? "the output cannot be written"
              : code == -4 ? "not a three-colour picture"
                           : nullptr;
        break;
    case Call::metadata:
        words = code == IMAGE_RC_FAILED ? "no metadata could be read" : nullptr;
        break;
    case Call::frame:
        words = code == IMAGE_RC_FAILED ? "the framed picture could not be made" : nullptr;
        break;
    }
    std::string out = words ? words : "unknown failure";
    return out + " (library code " + std::to_string(code) + ")";
}

std::string input_problem(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return errno == ENOENT ? "no such file" : std::strerror(errno);
    if (S_ISDIR(st.st_mode))
        return "is a folder, not a file";
    if (!S_ISREG(st.st_mode))
        return "not a regular file";
    if (access(path.c_str(), R_OK) != 0)
        return std::strerror(errno);
    return {};
}

bool same_file(const std::string &a, const std::string &b)
{
    struct stat sa;
    struct stat sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 &&
           sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// ---------------------------------------------------------------------------
// The library's log lines

struct LibraryLog::State {
    std::mutex mutex;
    std::string failures;
};

namespace {

void *ctx_alloc(void *, size_t size) { return std::malloc(size); }
void ctx_free(void *, void *ptr) { std::free(ptr); }

}  // namespace

LibraryLog::LibraryLog(bool echo) : echo_(echo), state_(new State)
{
    // Every line of the library comes at level_error; it must be above 0
    // for a logger to print it.
    ctx_ = image_ctx{this, ctx_alloc, ctx_free, &LibraryLog::on_log, 1, 2, 3, 4};
}

LibraryLog::~LibraryLog() { delete state_; }

std::string LibraryLog::take_failures()
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return std::exchange(state_->failures, std::string());
}

void LibraryLog::on_log(int32_t, void *user, int32_t code, const char *file,
                        int32_t line, const char *format, ...)
{
    auto *self = static_cast<LibraryLog *>(user);
    if (!self || !format)
        return;
    va_list ap;
    va_start(ap, format);
    va_list again;
    va_copy(again, ap);
    const int n = std::vsnprintf(nullptr, 0, format, ap);
    va_end(ap);
    std::string text(n > 0 ? size_t(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);

    if (self->echo_) {
        const std::string out = "qbimage: [library " + std::string(file ? file : "?") + ":" +
                                std::to_string(line) + " code " + std::to_string(code) +
                                "] " + text + "\n";
        std::fputs(out.c_str(), stderr);
    }
    if (code != 0) {
        std::lock_guard<std::mutex> lock(self->state_->mutex);
        if (!self->state_->failures.empty())
            self->state_->failures += "; ";
        self->state_->failures += text;
    }
}

// ---------------------------------------------------------------------------
// Signals and the temporary files they must not leave behind

namespace signals {
namespace {

struct Registry {
    std::mutex mutex;
    std::set<std::string> temps;
    bool graceful = false;
    bool stop = false;
    int signal = 0;
};

Registry &registry()
{
    static Registry *r = new Registry;  // never destroyed: the signal thread may outlive main
    return *r;
}

mode_t g_file_mode = 0644;

void remove_temps_locked(Registry &r)
{
    for (const std::string &t : r.temps) {
        unlink(t.c_str());
        unlink((t + ".tmp").c_str());
    }
    r.temps.clear();
}

void take(int sig)
{
    Registry &r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.graceful || r.stop) {
        remove_temps_locked(r);
        static const char msg[] = "qbimage: interrupted\n";
        [[maybe_unused]] const ssize_t w = write(STDERR_FILENO, msg, sizeof msg - 1);
        _exit(128 + sig);
    }
    r.stop = true;
    r.signal = sig;
}

}  // namespace

void install()
{
    // The mode new files get from open(..., 0666): read once, before any
    // thread exists, since umask can only be read by setting it.
    const mode_t mask = umask(0);
    umask(mask);
    g_file_mode = 0666 & ~mask;

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set] {
        for (;;) {
            int sig = 0;
            if (sigwait(&set, &sig) == 0)
                take(sig);
        }
    }).detach();
}

void set_graceful(bool graceful)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().graceful = graceful;
}

bool stop_requested()
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().stop;
}

int stop_signal()
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    return registry().signal;
}

// mkstemp on `tmpl`, which receives the name. The file is registered under
// the same lock that a signal takes, so no signal can fall between its
// creation and its registration.
int make_temp(std::string &tmpl)
{
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    std::lock_guard<std::mutex> lock(registry().mutex);
    const int fd = mkstemp(name.data());
    if (fd >= 0) {
        tmpl.assign(name.data());
        registry().temps.insert(tmpl);
    }
    return fd;
}

void drop_temp(const std::string &path)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    registry().temps.erase(path);
}

mode_t file_mode() { return g_file_mode; }

}  // namespace signals

// ---------------------------------------------------------------------------
// Outputs under a temporary name

StagedOutput::StagedOutput(StagedOutput &&other) noexcept
    : final_(std::move(other.final_)), temp_(std::exchange(other.temp_, std::string())),
      to_stdout_(other.to_stdout_)
{
}

StagedOutput::~StagedOutput() { discard(); }

bool StagedOutput::open(const std::string &final_path, bool call_writes_stdout,
                        std::string *error)
{
    discard();
    final_ = final_path;
    to_stdout_ = final_path == "-";
    if (to_stdout_ && call_writes_stdout)
        return true;

    std::string tmpl;
    if (to_stdout_) {
        const char *dir = std::getenv("TMPDIR");
        tmpl = std::string(dir && *dir ? dir : "/tmp") + "/qbimage-XXXXXX";
    } else {
        const std::filesystem::path p(final_path);
        std::string dir = p.parent_path().string();
        if (dir.empty())
            dir = ".";
        std::string base = p.filename().string();
        if (base.empty() || base == "." || base == "..") {
            *error = "not a file name";
            return false;
        }
        if (base.size() > 200)  // leave room for the suffix within NAME_MAX
            base.resize(200);
        tmpl = dir + "/." + base + ".qbimage-XXXXXX";
    }
    const int fd = signals::make_temp(tmpl);
    if (fd < 0) {
        *error = std::string("cannot create a file in its folder: ") + std::strerror(errno);
        return false;
    }
    temp_ = tmpl;
    fchmod(fd, signals::file_mode());
    close(fd);
    return true;
}

bool StagedOutput::commit(std::string *error)
{
    if (temp_.empty())
        return true;
    if (to_stdout_) {
        FILE *in = std::fopen(temp_.c_str(), "rb");
        bool ok = in != nullptr;
        char buf[65536];
        size_t n = 0;
        while (ok && (n = std::fread(buf, 1, sizeof buf, in)) > 0)
            ok = std::fwrite(buf, 1, n, stdout) == n;
        if (in)
            std::fclose(in);
        ok = ok && std::fflush(stdout) == 0;
        if (!ok)
            *error = "cannot write to standard output";
        discard();
        return ok;
    }
    if (std::rename(temp_.c_str(), final_.c_str()) != 0) {
        *error = std::string("cannot rename the finished file into place: ") +
                 std::strerror(errno);
        discard();
        return false;
    }
    signals::drop_temp(temp_);
    temp_.clear();
    return true;
}

void StagedOutput::discard()
{
    if (temp_.empty())
        return;
    unlink(temp_.c_str());
    // The RAW preview turns its file through "<name>.tmp" and leaves it
    // behind when that fails.
    unlink((temp_ + ".tmp").c_str());
    signals::drop_temp(temp_);
    temp_.clear();
}

}  // namespace qbcli
