#!/bin/sh
# Stamps a freshly encoded 29.97 fps stream with quillane-tcstamp, across the
# first drop-frame minute boundary, and holds what the tool says it wrote
# against two readers it shares no code with: FFmpeg's decoder (through
# ffprobe) and GStreamer's codec parsers (gst_timecode_reader).
#
#   timecode_interop.sh h264|h265 TCSTAMP GST_READER
set -u
codec=$1 tcstamp=$2 reader=$3
frames=100

work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-interop.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

status=0
fail() {
    echo "FAIL [$codec]: $*" >&2
    status=1
}
# Shows the first lines where two listings part.
show_diff() {
    diff "$1" "$2" | head -n 12 >&2
}

# The encoder's own SEI units are removed so that every time code in the
# stream is ours.
if [ "$codec" = h264 ]; then
    set -- -c:v libx264 -bf 0 -g 30 \
        -x264-params nal-hrd=vbr:pic-struct=1:vbv-maxrate=500:vbv-bufsize=1000 \
        -bsf:v filter_units=remove_types=6 -f h264
else
    set -- -c:v libx265 -x265-params bframes=0:keyint=30:log-level=error \
        -bsf:v filter_units=remove_types=39 -f hevc
fi
if ! ffmpeg -nostdin -v error -f lavfi -i testsrc=size=160x120:rate=30000/1001 -frames:v $frames "$@" in.bin; then
    echo "FAIL [$codec]: ffmpeg could not encode the test stream" >&2
    exit 1
fi

# 00:00:59;20 + 10 frames runs into minute 1, whose counts 00 and 01 drop.
if ! "$tcstamp" in.bin out.bin --codec "$codec" --fps 2997 --start 00:00:59:20 --list >list.txt 2>tool.err; then
    echo "FAIL [$codec]: quillane-tcstamp failed: $(cat tool.err)" >&2
    exit 1
fi
if [ -s tool.err ]; then
    fail "quillane-tcstamp warned: $(cat tool.err)"
fi
# "<index> HH:MM:SS;FF" per frame; the readers print ':' throughout.
grep -E '^[0-9]+ [0-9]{2}:[0-9]{2}:[0-9]{2}[:;][0-9]{2}$' list.txt | tr ';' ':' >tool.txt
listed=$(wc -l <tool.txt)
if [ "$listed" -ne $frames ]; then
    fail "the tool listed $listed frames, $frames were encoded"
fi
if ! grep -q '^[0-9]* 00:00:59;29$' list.txt || [ "$(grep -A1 '^[0-9]* 00:00:59;29$' list.txt | sed -n '2s/^[0-9]* //p')" != "00:01:00;02" ]; then
    fail "the tool's listing does not go from 00:00:59;29 straight to 00:01:00;02:"
    grep -E ' 00:00:59;2[89]$| 00:01:00;0[0-3]$' list.txt >&2
fi

# (a) FFmpeg's time code of every frame, by frame index.
ffprobe -v error -show_entries frame_tags=timecode -of flat out.bin |
    sed -n 's/^frames\.frame\.\([0-9]*\)\.tags\.timecode="\(.*\)"$/\1 \2/p' | tr ';' ':' >ffprobe.txt
if ! cmp -s tool.txt ffprobe.txt; then
    fail "ffprobe's time codes differ from the tool's listing (< tool, > ffprobe):"
    show_diff tool.txt ffprobe.txt
fi

# (b) GStreamer's reading, with the flags. cnt_dropped_flag marks the frame
# whose count follows dropped ones: second 00, frame 02 of a minute that is
# not a multiple of ten. counting_type 4 is drop-frame counting.
awk '{ split($2, t, ":");
       dropped = (t[3] == "00" && t[4] == "02" && t[2] % 10 != 0) ? 1 : 0;
       print $2, dropped, 4 }' tool.txt >expected_gst.txt
if ! "$reader" "$codec" out.bin >gst.txt 2>gst.err; then
    fail "GStreamer's parser rejected a unit: $(cat gst.err)"
fi
if ! cmp -s expected_gst.txt gst.txt; then
    fail "GStreamer's reading differs from the tool's listing (< expected 'time code, cnt_dropped_flag, counting_type', > GStreamer):"
    show_diff expected_gst.txt gst.txt
fi
if [ "$(grep -c ' 1 4$' gst.txt)" -ne 1 ] || ! grep -q '^00:01:00:02 1 4$' gst.txt; then
    fail "GStreamer should see cnt_dropped_flag 1 on 00:01:00;02 alone, it saw it on: $(grep ' 1 [0-9]*$' gst.txt | cut -d' ' -f1 | tr '\n' ' ')"
fi

# (c) The stamped stream holds as many pictures as the tool says it stamped.
decoded=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 out.bin)
if [ "$decoded" != "$listed" ]; then
    fail "ffprobe counts $decoded frames in the stamped stream, the tool listed $listed"
fi

# (d) The inserted units leave the stream decodable.
ffmpeg -nostdin -v error -i out.bin -f null - >decode.txt 2>&1
if [ $? -ne 0 ] || [ -s decode.txt ]; then
    fail "the stamped stream does not decode cleanly:"
    head -n 5 decode.txt >&2
fi

[ $status -eq 0 ] && echo "[$codec] $listed frames: tool, ffprobe and GStreamer agree"
exit $status
