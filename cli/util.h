// Shared pieces of the qbimage tool: argument parsing helpers, the words
// for the library's return codes, a log record that prints or collects the
// library's lines, outputs staged under a temporary name, and signals.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <qbimage.h>

namespace CLI {
class App;
}

namespace qbcli {

// Exit status of every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;       // a file could not be done
constexpr int kExitUsage = 2;        // the command line is wrong
constexpr int kExitInterrupted = 130;

// What main runs once the command line is parsed.
using Runner = std::function<int()>;

// Subcommands; each adds itself to the app and sets `run` when chosen.
void add_thumb(CLI::App &app, Runner &run);
void add_scale(CLI::App &app, Runner &run);
void add_transform(CLI::App &app, Runner &run);
void add_meta(CLI::App &app, Runner &run);
void add_raw_preview(CLI::App &app, Runner &run);
void add_frame(CLI::App &app, Runner &run);
void add_batch(CLI::App &app, Runner &run);

// "qbimage CMD: message" on stderr.
void report(const std::string &command, const std::string &message);

// ---------------------------------------------------------------------------
// Parsing

struct Size {
    int32_t width = 0;
    int32_t height = 0;
};
// "WxH" with decimal sides; zero sides only with allow_zero.
std::optional<Size> parse_size(const std::string &text, bool allow_zero);
// "A,B,C,D" as four non-negative 32-bit numbers.
std::optional<std::array<int32_t, 4>> parse_rect(const std::string &text);
// "RRGGBB" or "#RRGGBB".
std::optional<uint32_t> parse_colour(const std::string &text);

// Names accepted beside the numbers (case ignored).
const std::vector<std::pair<std::string, int>> &xform_names();
const std::vector<std::pair<std::string, int>> &mode_names();
const std::vector<std::pair<std::string, int>> &position_names();
std::string xform_name(uint32_t xform);

// Adds --log to a subcommand.
void add_log_flag(CLI::App &sub, bool &flag);

// ---------------------------------------------------------------------------
// Return codes in words

enum class Call { thumb, scale, transform, raw_preview, metadata, frame };
// "code N: what it means for this call".
std::string code_words(Call call, int32_t code);

// Why a path cannot serve as an input, in words; empty if it is a regular
// file we can read.
std::string input_problem(const std::string &path);
// True if both name one existing file (same device and inode).
bool same_file(const std::string &a, const std::string &b);

// ---------------------------------------------------------------------------
// The library's log lines

// An image_ctx whose error level prints: with `echo` every line goes to
// stderr as it comes; either way the lines with a non-zero code are kept,
// so that a failure can quote the library's own reason. Safe to share
// between threads.
class LibraryLog {
public:
    explicit LibraryLog(bool echo);
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;
    ~LibraryLog();

    const image_ctx *ctx() const { return &ctx_; }
    bool echo() const { return echo_; }
    // Lines with a non-zero code since the last take(), joined by "; ".
    std::string take_failures();

private:
    static void on_log(int32_t level, void *user, int32_t code, const char *file,
                       int32_t line, const char *format, ...);
    struct State;
    image_ctx ctx_{};
    bool echo_;
    State *state_;
};

// ---------------------------------------------------------------------------
// Outputs under a temporary name

// An output is written under a temporary name in the folder of its final
// name and renamed over it only when complete, so that a failed or
// interrupted call never leaves a partial file under the final name, and an
// existing file stays as it was. "-" means standard output: a call that can
// write there itself gets "-"; for the others the file is staged in
// $TMPDIR and copied to standard output.
class StagedOutput {
public:
    StagedOutput() = default;
    StagedOutput(const StagedOutput &) = delete;
    StagedOutput &operator=(const StagedOutput &) = delete;
    StagedOutput(StagedOutput &&other) noexcept;
    StagedOutput &operator=(StagedOutput &&) = delete;
    ~StagedOutput();

    // false with words in *error if no temporary file can be made.
    bool open(const std::string &final_path, bool call_writes_stdout, std::string *error);
    // The path to hand to the library.
    const char *path() const { return temp_.empty() ? final_.c_str() : temp_.c_str(); }
    // Renames over the final name (or copies to standard output).
    bool commit(std::string *error);
    // Removes the temporary file and what the library may have left beside it.
    void discard();

private:
    std::string final_;
    std::string temp_;  // empty: the library writes `final_` ("-") itself
    bool to_stdout_ = false;
};

// ---------------------------------------------------------------------------
// Signals

// SIGINT, SIGTERM and SIGHUP are blocked in every thread and taken by one
// thread of their own. By default a signal removes the temporary files of
// all staged outputs and ends the program with 128 + signal. In graceful
// mode (batch) the first signal only asks to stop; a second one ends at
// once in the same way.
namespace signals {
void install();
void set_graceful(bool graceful);
bool stop_requested();
int stop_signal();
}  // namespace signals

}  // namespace qbcli
