#!/bin/sh
# The stamping tool's streams, listings and verifier reports on the samples, which must be
# byte-identical across architectures (SEI bits, drop-frame counting, drift and label arithmetic).
#   produce.sh BUILD_DIR OUT_DIR [RUNNER...]   (RUNNER: an emulator and its options)
set -eu
build=$(cd "$1" && pwd)
out=$2
shift 2
samples=$(cd "$(dirname "$0")/../../samples" && pwd)
rm -rf "$out"
mkdir -p "$out"
cd "$out"
tool=$build/tools/tcstamp/quillane-tcstamp
status=0
# name, input, options; relative names keep the tool's own output the same.
while read -r name input options; do
    # shellcheck disable=SC2086
    "$@" "$tool" $options --list "$samples/$input" "$name.stamped" \
        >"$name.stdout" 2>"$name.stderr" || status=1
    "$@" "$tool" --verify --json "$name.stamped" >"$name.verify" 2>&1 || status=1
done <<'ROWS'
h264_2997 sample_2997.264 --codec h264 --fps 2997 --start 00:00:59;10
h264_25 sample_25.264 --start 23:59:59:20
h264_30 sample_30.264 --start 09:59:59:29
h265_2997 sample_2997.265 --codec h265 --start 23:59:59;10
ROWS
[ $status -eq 0 ] || echo "produce.sh: a program failed in $build; see $out/*.stderr" >&2
exit $status
