#!/bin/sh
# Builds the library and runs every test: a normal build, one under
# AddressSanitizer and UndefinedBehaviorSanitizer, the thread suite under
# ThreadSanitizer, and each fuzzer for a bounded time (QB_FUZZ_SECONDS,
# default 30 per target).
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)

echo "== normal build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQB_SANITIZE=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan --output-on-failure -j"$jobs"

echo "== ThreadSanitizer"
sh tests/run-tsan.sh build-tsan

echo "== fuzzers"
sh fuzz/run.sh "${QB_FUZZ_SECONDS:-30}"
