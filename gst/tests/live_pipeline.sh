#!/bin/sh
# quillanetcstamp as a camera runs it (live source, encoder, parser, drift check on): no warning, so no -q.
#   live_pipeline.sh GST_LAUNCH GST_INSPECT
set -u
work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-gst-live.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $1:" >&2
    head -n 20 "$2" >&2
    exit 1
}

# The first drift check comes after one second of frames, within the run.
"$1" videotestsrc is-live=true num-buffers=90 ! video/x-raw,width=320,height=240,framerate=30/1 \
    ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=30 vbv-buf-capacity=1000 \
    option-string="nal-hrd=vbr:pic-struct=1" ! h264parse \
    ! quillanetcstamp drift-check=true frames-before-first-check=30 trace-file="$work/trace.log" \
    ! fakesink >"$work/launch.txt" 2>&1 && ! grep -Eq 'WARNING|ERROR|CRITICAL' "$work/launch.txt" ||
    fail "the live pipeline failed or reported problems" "$work/launch.txt"
# Synchronised with the clock once, at the first key frame, and counted from there.
[ "$(grep -c 'no add one frame' "$work/trace.log" 2>/dev/null)" = 1 ] ||
    fail "the library did not start counting exactly once" "$work/trace.log"
