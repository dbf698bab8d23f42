#!/bin/sh
# Produces the files that must be byte-identical across architectures for one
# build: those of quillane_byte_identity and the stamping tool's output on the
# samples, with their console output.
#   produce.sh BUILD_DIR OUT_DIR [RUNNER...]
# RUNNER (an emulator and its options) starts the build's programs.
set -eu
build=$(cd "$1" && pwd)
out=$2
shift 2
samples=$(cd "$(dirname "$0")/../../samples" && pwd)
rm -rf "$out"
mkdir -p "$out"
out=$(cd "$out" && pwd)
status=0
"$@" "$build/tests/quillane_byte_identity" "$out/library" >"$out/library.stdout" 2>"$out/library.stderr" || status=1
# The tool prints its output path: relative names keep that text the same.
tool=$build/tools/tcstamp/quillane-tcstamp
cd "$out"
"$@" "$tool" --codec h264 --fps 2997 --start '00:00:59;10' --list "$samples/sample_2997.264" stamped_2997.264 \
    >tcstamp_h264.stdout 2>tcstamp_h264.stderr || status=1
"$@" "$tool" --codec h265 --start '23:59:59;10' --list "$samples/sample_2997.265" stamped_5994.265 \
    >tcstamp_h265.stdout 2>tcstamp_h265.stderr || status=1
if [ $status -ne 0 ]; then
    echo "produce.sh: a program failed in $build; see $out/*.stderr" >&2
fi
exit $status
