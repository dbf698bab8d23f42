#!/usr/bin/env bash
# Builds an optimised tree and runs the benchmarks side by side.
# Extra arguments go to Google Benchmark.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
# The NAL unit scan benchmark compares against GStreamer's H.264 parser; the
# build only picks that variant up when the package is there.
quillane_ensure_packages "${quillane_build_packages[@]}" "${quillane_bench_packages[@]}" \
    libgstreamer-plugins-bad1.0-dev
cmake -S "$root" -B "$root/build-bench" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQUILLANE_BUILD_TESTS=OFF \
    -DQUILLANE_BUILD_EXAMPLES=OFF -DQUILLANE_BUILD_BENCH=ON >/dev/null
cmake --build "$root/build-bench" >/dev/null
for b in "$root"/build-bench/bench/bench_*; do
    "$b" "$@"
done
