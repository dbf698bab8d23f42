#!/bin/sh
# filesrc ! h26Xparse ! quillanetcstamp ! filesink on a stream with B-frames
# encoded here at 29.97 fps, started ten frames before the first drop-frame
# minute boundary, then read back by two readers that share no code with
# the library: FFmpeg (ffprobe, in presentation order) and GStreamer's codec
# parsers (gst_timecode_reader, in stream order). A second run with the
# drift check on must be refused with a warning on this non-live pipeline
# and give the same bytes.
#
#   element_interop.sh h264|h265 GST_LAUNCH GST_READER
set -u
codec=$1 launch=$2 reader=$3
frames=100
start='00:00:59;20'

work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-gst-interop.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
status=0
fail() {
    echo "FAIL [$codec]: $*" >&2
    status=1
}

# The encoder's own SEI units are removed so that every time code in the
# stream is the element's. H.264 signals HRD parameters and pic_struct,
# without which readers skip picture timing.
if [ "$codec" = h264 ]; then
    parser=h264parse sei=6 aud=9 format=h264
    set -- -c:v libx264 -bf 2 -g 30 -x264-params nal-hrd=vbr:pic-struct=1:vbv-maxrate=500:vbv-bufsize=1000
else
    parser=h265parse sei=39 aud=35 format=hevc
    set -- -c:v libx265 -x265-params bframes=2:keyint=30:log-level=error
fi
if ! ffmpeg -nostdin -v error -f lavfi -i testsrc=size=160x120:rate=30000/1001 -frames:v $frames "$@" \
    -bsf:v filter_units=remove_types=$sei -f $format in.bin; then
    echo "FAIL [$codec]: ffmpeg could not encode the test stream" >&2
    exit 1
fi

stamp() {
    # Not quiet: gst-launch-1.0 -q prints no warnings.
    "$launch" filesrc location=in.bin ! $parser ! quillanetcstamp source=start start-time-code="$start" \
        trace-file="$work/trace.log" "$@" ! filesink location="$out" >launch.txt 2>&1
}
out=out.bin
if ! stamp; then
    echo "FAIL [$codec]: the pipeline failed:" >&2
    head -n 20 launch.txt >&2
    exit 1
fi
if grep -Eq 'WARNING|ERROR|CRITICAL' launch.txt; then
    fail "the pipeline reported:"
    grep -E -A2 'WARNING|ERROR|CRITICAL' launch.txt | head -n 12 >&2
fi
out=drift.bin
stamp drift-check=true frames-before-first-check=10
if [ "$(grep -c 'drift-check is ignored: the pipeline is not live' launch.txt)" != 1 ] || ! cmp -s out.bin drift.bin; then
    fail "drift-check on a non-live pipeline was not ignored with one warning:"
    head -n 6 launch.txt >&2
fi

# What drop-frame counting gives from the start: counts 00 and 01 of second
# 00 are skipped in every minute that is not a multiple of ten. Lines are
# "index HH:MM:SS:FF dropped", dropped being cnt_dropped_flag.
awk -v n=$frames -v start="$start" 'BEGIN {
    split(start, t, /[:;]/); h = t[1] + 0; m = t[2] + 0; s = t[3] + 0; f = t[4] + 0; d = 0
    for (i = 0; i < n; i++) {
        printf "%d %02d:%02d:%02d:%02d %d\n", i, h, m, s, f, d
        d = 0
        if (++f == 30) { f = 0; if (++s == 60) { s = 0; if (++m == 60) { m = 0; h = (h + 1) % 24 } } }
        if (f == 0 && s == 0 && m % 10 != 0) { f = 2; d = 1 }
    }
}' >expected.txt
if ! grep -q '^10 00:01:00:02 1$' expected.txt; then
    fail "the expected listing does not cross the minute boundary where it should"
fi

# (a) FFmpeg's time code of every frame in presentation order. ffprobe
# decodes each frame for it: the inserted units must not disturb the decoder.
ffprobe -v error -show_frames -show_entries frame_tags=timecode -of flat out.bin 2>ffprobe.err |
    sed -n 's/^frames\.frame\.\([0-9]*\)\.tags\.timecode="\(.*\)"$/\1 \2/p' | tr ';' ':' >ffprobe.txt
if [ -s ffprobe.err ]; then
    fail "ffprobe reported while decoding the stamped stream:"
    head -n 5 ffprobe.err >&2
fi
cut -d' ' -f1,2 expected.txt >expected_ffprobe.txt
if ! cmp -s expected_ffprobe.txt ffprobe.txt; then
    fail "ffprobe's time codes differ from drop-frame counting from $start (< expected, > ffprobe):"
    diff expected_ffprobe.txt ffprobe.txt | head -n 12 >&2
fi

# (b) GStreamer's reading, with cnt_dropped_flag and counting_type 4
# (drop-frame counting). It reads in stream order: the same labels, sorted.
awk '{ print $2, $3, 4 }' expected.txt | sort >expected_gst.txt
if ! "$reader" "$codec" out.bin >gst_stream_order.txt 2>gst.err; then
    fail "GStreamer's parser rejected a unit: $(cat gst.err)"
fi
sort gst_stream_order.txt >gst.txt
if ! cmp -s expected_gst.txt gst.txt; then
    fail "GStreamer's reading differs (< expected 'time code, cnt_dropped_flag, counting_type', > GStreamer):"
    diff expected_gst.txt gst.txt | head -n 12 >&2
fi

# (c) Without the SEI units and the delimiters the parser adds, the output
# is the input, byte for byte: no frame dropped, reordered or altered.
ffmpeg -nostdin -v error -i out.bin -c copy -bsf:v "filter_units=remove_types=$sei|$aud" -f $format back.bin
if ! cmp -s in.bin back.bin; then
    fail "the stamped stream holds more than the input and the SEI units"
fi

[ $status -eq 0 ] && echo "[$codec] $frames frames through the element: ffprobe and GStreamer read every time code"
exit $status
