#!/usr/bin/env bash
# Builds the library and its tools, stamps the sample stream with a 29.97 fps
# drop-frame time code that crosses a minute boundary, and shows the time
# codes next to those that FFmpeg's ffprobe reads back from the stamped file.
#   scripts/demo.sh [IN.264|IN.265]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=deps.sh
source "$root/scripts/deps.sh"
quillane_ensure_packages "${quillane_build_packages[@]}" ffmpeg
build=$root/build-demo
cmake -S "$root" -B "$build" -G Ninja -DQUILLANE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" >/dev/null

in=${1:-$root/samples/sample_2997.264}
case "$in" in
    *.265 | *.hevc) out=$build/stamped.265 ;;
    *) out=$build/stamped.264 ;;
esac
echo "== quillane-tcstamp $(basename "$in") -> $out"
"$build/tools/tcstamp/quillane-tcstamp" "$in" "$out" --start 00:00:59:20 --list >"$build/stamped.list" 2>"$build/stamped.summary"
cat "$build/stamped.summary"
echo
echo "== frame  stamped       read back by ffprobe"
cp "$build/stamped.list" "$build/ours.txt"
ffprobe -v error -show_entries frame_tags=timecode -of csv=p=0 "$out" | grep . | tr -d ',' >"$build/theirs.txt"
paste -d ' ' "$build/ours.txt" "$build/theirs.txt" | awk '{ printf "   %3d   %s   %s\n", $1, $2, $3 }'
if [ "$(awk '{print $2}' "$build/ours.txt" | tr ';' ':')" = "$(tr ';' ':' <"$build/theirs.txt")" ]; then
    echo "== all $(wc -l <"$build/ours.txt") time codes read back as stamped"
else
    echo "== MISMATCH between stamped and read-back time codes" >&2
    exit 1
fi
