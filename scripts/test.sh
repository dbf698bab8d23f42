#!/usr/bin/env bash
# Builds the library and runs the whole test suite.
#   scripts/test.sh             plain build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-asan/
#   scripts/test.sh --tsan      ThreadSanitizer in build-tsan/: only the tests that
#                               share state between threads (trace output, containers,
#                               parameter registry) and only their executables
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_test_packages[@]}" "${quillane_bench_packages[@]}"

build=$root/build
# The benchmarks are compiled with the plain build (never run as tests).
options=(-DQUILLANE_BUILD_BENCH=ON)
targets=()
select=()
run=()
if [ "${1:-}" = "--sanitize" ]; then
    build=$root/build-asan
    options=(-DQUILLANE_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug)
    export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}
    export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
elif [ "${1:-}" = "--tsan" ]; then
    build=$root/build-tsan
    options=(-DQUILLANE_TSAN=ON -DCMAKE_BUILD_TYPE=Debug -DQUILLANE_BUILD_BENCH=OFF)
    targets=(quillane_tests quillane_param_tests quillane_internal_tests)
    select=(-R '^(TraceTest|CmdDumpTest|LifecycleTest|NolocksLocaltime|Containers|Model|OutOfMemory|ParameterTest|ParameterOutOfMemory)\.')
    export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
    # This runtime expects the address-space layout of at most 28 random
    # mmap bits and stops with "unexpected memory mapping" beyond that. Lower
    # the setting only when it is higher; without the right to, run the tests
    # without address randomisation instead (a per-process personality).
    rnd_bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)
    if [ "$rnd_bits" -gt 28 ]; then
        if [ -w /proc/sys/vm/mmap_rnd_bits ]; then
            echo "lowering vm.mmap_rnd_bits from $rnd_bits to 28 for ThreadSanitizer"
            sysctl -qw vm.mmap_rnd_bits=28
        else
            run=(setarch "$(uname -m)" -R)
        fi
    fi
fi
cmake -S "$root" -B "$build" -G Ninja "${options[@]}" >/dev/null
cmake --build "$build" ${targets[@]:+--target "${targets[@]}"}
"${run[@]}" ctest --test-dir "$build" --output-on-failure --no-tests=error -j2 "${select[@]}"
