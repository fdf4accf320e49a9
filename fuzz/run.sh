#!/bin/sh
# Builds the fuzz targets with clang, makes their seed corpora and runs each
# for SECONDS (default 30), two at a time on a two-core machine.
#
#   sh fuzz/run.sh [SECONDS]
#
# Every finding (crash, sanitizer report, leak, timeout over 5 s, memory
# over 2048 MB) fails the run, and its input is copied to
# tests/fuzz-regressions/<target>/, where the test suite replays it. Per
# target it prints the executions and the coverage (cov: and ft: of
# libFuzzer's last line), and the peak memory when it passed 256 MB.
#
# Environment: QB_FUZZ_BUILD (build folder, default build-fuzz),
# QB_FUZZ_JOBS (targets run at once, default the cores, at most 2),
# QB_FUZZ_TARGETS (names to run, default all).
set -eu
seconds=${1:-30}
case "$seconds" in
'' | *[!0-9]*) echo "usage: sh fuzz/run.sh [SECONDS]" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.."
root=$(pwd)
build=${QB_FUZZ_BUILD:-$root/build-fuzz}
jobs=${QB_FUZZ_JOBS:-$(nproc 2>/dev/null || echo 1)}
[ "$jobs" -gt 2 ] && [ -z "${QB_FUZZ_JOBS:-}" ] && jobs=2
regressions=$root/tests/fuzz-regressions
start=$(date +%s)

cmake -S fuzz -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs"

rm -rf "$build/seeds" "$build/run"
"$build/make_seeds" "$build/seeds"
mkdir -p "$build/run" "$build/corpus"

if [ -n "${QB_FUZZ_TARGETS:-}" ]; then
    targets=$QB_FUZZ_TARGETS
else
    targets=$(cd "$build" && ls fuzz_* | sed 's/^fuzz_//' | sort)
fi

# The dictionary of a target: JPEG markers, TIFF tags, PNG chunks, or a mix.
dict_of() {
    case "$1" in
    metadata_jpeg) cat fuzz/jpeg.dict fuzz/tiff.dict ;;
    scale | transform | thumb_jpeg) cat fuzz/jpeg.dict ;;
    metadata_raw | thumb_dng | exif_patch) cat fuzz/tiff.dict ;;
    framed) cat fuzz/png.dict fuzz/jpeg.dict ;;
    png_read | thumb_png) cat fuzz/png.dict ;;
    esac
}

run_one() {
    t=$1
    dir=$build/run/$t
    mkdir -p "$dir/artifacts" "$dir/tmp" "$build/corpus/$t"
    dict_of "$t" >"$dir/dict"
    set -- "$build/corpus/$t"
    [ -d "$build/seeds/$t" ] && set -- "$@" "$build/seeds/$t"
    [ -d "$regressions/$t" ] && set -- "$@" "$regressions/$t"
    dict=
    [ -s "$dir/dict" ] && dict=-dict=$dir/dict
    rc=0
    TMPDIR=$dir/tmp \
    ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=32 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/fuzz_$t" -max_total_time="$seconds" -rss_limit_mb=2048 \
            -timeout=5 -max_len=65536 -report_slow_units=1 -print_final_stats=1 \
            -artifact_prefix="$dir/artifacts/" $dict "$@" >"$dir/log" 2>&1 || rc=$?
    echo "$rc" >"$dir/rc"
    rm -rf "$dir/tmp"
}

# Two (or QB_FUZZ_JOBS) at a time; each batch ends before the next starts.
set -- $targets
while [ $# -gt 0 ]; do
    n=0
    while [ $# -gt 0 ] && [ "$n" -lt "$jobs" ]; do
        run_one "$1" &
        shift
        n=$((n + 1))
    done
    wait
done

failed=0
printf '%-14s %10s %7s %8s %s\n' target execs cov ft notes
for t in $targets; do
    dir=$build/run/$t
    rc=$(cat "$dir/rc" 2>/dev/null || echo 1)
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
    peak=$(sed -n 's/^stat::peak_rss_mb: *//p' "$dir/log" | tail -n 1)
    last=$(grep -E '^#[0-9]+.*cov: [0-9]+' "$dir/log" | tail -n 1 || true)
    cov=$(printf '%s\n' "$last" | sed -n 's/.*cov: \([0-9]*\).*/\1/p')
    ft=$(printf '%s\n' "$last" | sed -n 's/.*ft: \([0-9]*\).*/\1/p')
    notes=
    if [ -n "$peak" ] && [ "$peak" -gt 256 ]; then
        notes="peak ${peak} MB;"
    fi
    slow=$(sed -n 's/^Slowest unit: \([0-9]*\) s.*/\1/p' "$dir/log" | tail -n 1)
    [ -n "$slow" ] && notes="$notes slowest input ${slow} s;"
    found=0
    for a in "$dir"/artifacts/crash-* "$dir"/artifacts/leak-* "$dir"/artifacts/timeout-* \
             "$dir"/artifacts/oom-*; do
        [ -f "$a" ] || continue
        found=1
        # An input already kept (under any name) still fails: not copied again.
        known=
        for r in "$regressions/$t"/*; do
            [ -f "$r" ] && cmp -s "$a" "$r" && known=$r && break
        done
        if [ -n "$known" ]; then
            notes="$notes STILL FAILS tests/fuzz-regressions/$t/$(basename "$known");"
        else
            mkdir -p "$regressions/$t"
            cp "$a" "$regressions/$t/"
            notes="$notes NEW $(basename "$a") -> tests/fuzz-regressions/$t/;"
        fi
    done
    if [ "$rc" -ne 0 ] || [ "$found" -ne 0 ]; then
        failed=1
        [ "$found" -eq 0 ] && notes="$notes exit $rc without an input, see $dir/log;"
        notes="$notes log $dir/log"
    fi
    printf '%-14s %10s %7s %8s %s\n' "$t" "${execs:--}" "${cov:--}" "${ft:--}" "$notes"
done
echo "fuzz: $(( $(date +%s) - start )) s in all, $seconds s per target"
if [ "$failed" -ne 0 ]; then
    echo "fuzz: FINDINGS (inputs under tests/fuzz-regressions/)"
    exit 1
fi
echo "fuzz: no findings"
