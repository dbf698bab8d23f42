#!/usr/bin/env bash
# Builds the library and runs the whole test suite.
#   scripts/test.sh             plain build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-asan/
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_test_packages[@]}" "${quillane_bench_packages[@]}"

build=$root/build
# The benchmarks are compiled with the plain build (never run as tests).
options=(-DQUILLANE_BUILD_BENCH=ON)
if [ "${1:-}" = "--sanitize" ]; then
    build=$root/build-asan
    options=(-DQUILLANE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
fi
cmake -S "$root" -B "$build" -G Ninja "${options[@]}" >/dev/null
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j2
