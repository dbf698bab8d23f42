#!/usr/bin/env bash
# Builds the library and runs the demonstration program.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}"
cmake -S "$root" -B "$root/build-demo" -G Ninja -DQUILLANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build-demo" >/dev/null
"$root/build-demo/examples/quillane_demo" "$@"
