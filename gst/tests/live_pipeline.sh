#!/bin/sh
# quillanetcstamp as a camera pipeline runs it: a live source, a real
# encoder, the parser, the element with its drift check on, to the end of
# the stream without a warning or an error (gst-launch-1.0 without -q, which
# would hide warnings). And gst-inspect-1.0 finds the
# plugin and describes every property.
#
#   live_pipeline.sh GST_LAUNCH GST_INSPECT
set -u
launch=$1 inspect=$2
frames=90

work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-gst-live.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
status=0
fail() {
    echo "FAIL: $*" >&2
    status=1
}

if ! "$inspect" quillanetcstamp >"$work/inspect.txt" 2>&1; then
    fail "gst-inspect-1.0 does not find quillanetcstamp:"
    head -n 5 "$work/inspect.txt" >&2
fi
for property in source max-fps-x100 drift-check \
    frames-before-first-check start-time-code trace-file; do
    # "  name   : description", the description at least a few words long
    if ! grep -Eq "^  $property *: [^ ]+( [^ ]+){4}" "$work/inspect.txt"; then
        fail "gst-inspect-1.0 shows no description of the property $property"
    fi
done

# The encoder signals HRD parameters and pic_struct, as decoders need them
# to read picture timing; without them the element warns, once.
# The first drift check comes after one second of frames, within the run.
"$launch" videotestsrc is-live=true num-buffers=$frames \
    ! video/x-raw,width=320,height=240,framerate=30/1 \
    ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=30 vbv-buf-capacity=1000 \
    option-string="nal-hrd=vbr:pic-struct=1" \
    ! h264parse ! quillanetcstamp drift-check=true frames-before-first-check=30 trace-file="$work/trace.log" \
    ! fakesink >"$work/launch.txt" 2>&1
rc=$?
if [ $rc -ne 0 ]; then
    fail "the live pipeline ended with status $rc:"
    head -n 20 "$work/launch.txt" >&2
elif grep -Eq 'WARNING|ERROR|CRITICAL' "$work/launch.txt"; then
    fail "the live pipeline reported:"
    grep -E -A2 'WARNING|ERROR|CRITICAL' "$work/launch.txt" | head -n 20 >&2
fi
# The stream was synchronised with the clock once, at its first key frame,
# and counted from there.
if [ "$(grep -c 'no add one frame' "$work/trace.log" 2>/dev/null)" != 1 ]; then
    fail "the library did not start counting exactly once:"
    grep -v 'alin of 8\|bits=' "$work/trace.log" | head -n 10 >&2
fi

[ $status -eq 0 ] && echo "live pipeline: $frames frames stamped without a warning"
exit $status
