// A main() for a fuzz target outside libFuzzer: feeds it every file named
// on the command line, and every file in every folder named there (in name
// order, so runs repeat), once each. A missing folder counts as empty: a
// target without recorded failures has none to replay.
//
// The test suite builds each target with this file against the library, so
// every input that once failed keeps being run, under the sanitizers too.
//
// An input that once hung must fail here too rather than stall the suite:
// each one gets QB_REPLAY_SECONDS (default 60, generous for a sanitizer
// build; the fuzz run allows 5) before the replay stops with an error.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "harness.h"

namespace {

namespace fs = std::filesystem;

extern "C" void on_alarm(int)
{
    static const char kText[] = "replay: input ran out of time\n";
    (void)!write(2, kText, sizeof kText - 1);
    _exit(3);
}

bool replay(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<uint8_t> data{std::istreambuf_iterator<char>(in),
                                    std::istreambuf_iterator<char>()};
    std::printf("replay: %s (%zu bytes)\n", file.c_str(), data.size());
    std::fflush(stdout);
    // A copy of exactly the input's size, so a read past its end is caught.
    auto *copy = new uint8_t[data.empty() ? 1 : data.size()];
    std::copy(data.begin(), data.end(), copy);
    const char *limit = std::getenv("QB_REPLAY_SECONDS");
    alarm(limit && std::atoi(limit) > 0 ? unsigned(std::atoi(limit)) : 60u);
    LLVMFuzzerTestOneInput(copy, data.size());
    alarm(0);
    delete[] copy;
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    std::signal(SIGALRM, on_alarm);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        const fs::path arg(argv[i]);
        std::error_code ec;
        if (fs::is_directory(arg, ec)) {
            for (const fs::directory_entry &e : fs::directory_iterator(arg, ec))
                if (e.is_regular_file(ec) && e.path().filename().string()[0] != '.')
                    files.push_back(e.path());
        } else if (fs::exists(arg, ec)) {
            files.push_back(arg);
        }
    }
    std::sort(files.begin(), files.end());
    int failures = 0;
    for (const fs::path &f : files)
        failures += replay(f) ? 0 : 1;
    std::printf("replay: %zu inputs\n", files.size());
    return failures == 0 ? 0 : 1;
}
