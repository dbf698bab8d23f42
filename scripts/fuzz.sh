#!/usr/bin/env bash
# Builds the libFuzzer targets under fuzz/ with clang in build-fuzz/ and runs
# each one for a fixed time on a copy of its seed corpus.
#   scripts/fuzz.sh [seconds]   seconds per target, 60 by default
# Crash inputs go to build-fuzz/artifacts/; the run fails if any target crashes.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages cmake ninja-build clang libclang-rt-14-dev

seconds=${1:-60}
if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
    echo "usage: $0 [seconds per target]" >&2
    exit 2
fi

build=$root/build-fuzz
CC=clang CXX=clang++ cmake -S "$root/fuzz" -B "$build" -G Ninja >/dev/null
cmake --build "$build"

artifacts=$build/artifacts
mkdir -p "$artifacts"
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

failed=()
summary=()
for bin in "$build"/fuzz_*; do
    [ -f "$bin" ] && [ -x "$bin" ] || continue
    target=$(basename "$bin")
    name=${target#fuzz_}
    # New inputs land in the build tree's copy, never in the repository.
    corpus=$build/corpus/$name
    rm -rf "$corpus"
    mkdir -p "$corpus"
    if [ -d "$root/fuzz/corpus/$name" ]; then
        cp -R "$root/fuzz/corpus/$name/." "$corpus/"
    fi
    log=$build/$target.log
    echo "=== $target for ${seconds} s"
    # The range validator promises that any rule it accepts compiles and
    # matches in a few megabytes and milliseconds: any input that costs far
    # more counts as a crash. One input may take a second (the sanitizers
    # and the coverage counters slow the library's own matcher about eight
    # times) and no single allocation may pass 32 MB. The fuzzing process
    # itself grows to about 90 MB under the sanitizers over five minutes (its
    # corpus and a small quarantine, returned to the system), so the limit
    # on the whole process is well above that.
    limits=()
    asan_options=$ASAN_OPTIONS
    if [ "$name" = range_check ]; then
        limits=(-rss_limit_mb=256 -malloc_limit_mb=32 -timeout=1)
        asan_options=$ASAN_OPTIONS:quarantine_size_mb=4:allocator_release_to_os_interval_ms=200
    fi
    # -close_fd_mask=2 silences the library's error messages; libFuzzer and
    # the sanitizers keep reporting through their own copy of stderr.
    set +e
    ASAN_OPTIONS=$asan_options "$bin" "$corpus" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=2 \
        "${limits[@]}" -artifact_prefix="$artifacts/$target-" >"$log" 2>&1
    rc=$?
    set -e
    if [ $rc -ne 0 ]; then
        echo "$target failed (exit $rc); log: $log"
        tail -n 60 "$log"
        failed+=("$target")
        continue
    fi
    summary+=("$target: $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -n 1)")
    summary+=("$(grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$log" | sed 's/^/    /')")
done

echo "=== fuzzing summary"
[ ${#summary[@]} -gt 0 ] && printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "crashed: ${failed[*]} (inputs in $artifacts)"
    echo "once fixed, keep each input in fuzz/corpus/<name>/: the test suite replays it (fuzz_corpus_<name>)"
    exit 1
fi
