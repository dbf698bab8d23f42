#!/bin/sh
# shellcheck disable=SC2046 # the rows' encoder options are split into words on purpose
# Encoder output stamped by quillane-tcstamp and the element, read back by FFmpeg, GStreamer and --verify:
# labels, clean decoding, the same bytes stamped again; or refused with its message, status 1, no file.
#   stamp_matrix.sh TCSTAMP GST_META_READER [GST_PLUGIN_DIR]
set -u
tcstamp=$1 reader=$2 plugin_dir=${3:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-matrix.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
# A sanitizer build of the element that fails to load must not stay in the user's registry.
export GST_REGISTRY="$work/registry.bin"
failures=0
fail() {
    echo "FAIL [$name]: $*" >&2
    failures=$((failures + 1))
}

[ -n "$plugin_dir" ] && GST_PLUGIN_PATH=$plugin_dir gst-inspect-1.0 quillanetcstamp 2>/dev/null |
    grep -q '^  source ' && element=yes || element=no

hrd='nal-hrd=vbr:pic-struct=1:vbv-maxrate=500:vbv-bufsize=1000'

# labels START N FPS_X100: "HH:MM:SS:FF cnt_dropped_flag counting_type" for the N labels from START.
labels() {
    awk -v start="$1" -v n="$2" -v fps="$3" 'BEGIN {
        split(start, t, /[:;]/); h = t[1] + 0; m = t[2] + 0; s = t[3] + 0; f = t[4] + 0; d = 0
        whole = int((fps + 50) / 100); drop = fps == 2997 ? 2 : fps == 5994 ? 4 : 0
        for (i = 0; i < n; i++) {
            printf "%02d:%02d:%02d%s%02d %d %d\n", h, m, s, drop ? ";" : ":", f, d, drop ? 4 : 1
            d = 0
            if (++f == whole) { f = 0; if (++s == 60) { s = 0; if (++m == 60) { m = 0; h = (h + 1) % 24 } } }
            if (f == 0 && s == 0 && m % 10 != 0 && drop) { f = drop; d = 1 }
        }
    }'
}

differ() {
    cmp -s "$2" "$3" || { fail "$1 (< expected, > read):"; diff "$2" "$3" | head -n 8 >&2; }
}

# facts FILE: the stream without SEI and delimiters, its count of decoding errors, its interlace flags.
facts() {
    ffmpeg -nostdin -v error -i "$1" -c copy -bsf:v "filter_units=remove_types=$units" -f $format - | cksum
    ffmpeg -nostdin -v error -i "$1" -f null - 2>&1 | wc -l
    ffprobe -v error -show_entries frame=interlaced_frame -of csv=p=0 "$1" 2>/dev/null | tr -d , | grep .
}

# check OUT: the labels FFmpeg, GStreamer and --verify read, and nothing else changed.
check() {
    out=$1
    # FFmpeg's syntax reader is strict where its decoder is not (payload alignment bits).
    ffmpeg -nostdin -v error -i "$out" -c copy -bsf:v trace_headers -f null - 2>&1 |
        grep 'Failed to read' >syntax.txt
    [ -s syntax.txt ] && fail "$out: FFmpeg cannot read a unit's syntax: $(head -n 1 syntax.txt)"
    ffprobe -v error -show_entries frame_tags=timecode -of flat "$out" |
        sed -n 's/^frames\.frame\.[0-9]*\.tags\.timecode="\(.*\)"$/\1/p' | tr ';' ':' >ffprobe.txt
    # GStreamer's meta says drop-frame counting too; "." and "," mark the second field.
    "$reader" "$codec" "$out" 2>gst.err | grep -v '^none$' | tr ',.' ';:' >gst.txt
    [ -s gst.err ] && fail "$out: GStreamer reports: $(head -n 3 gst.err)"
    "$tcstamp" --verify "$out" >verify.txt 2>&1 || fail "$out: --verify reports: $(grep -m 3 '^!' verify.txt)"
    sed -n 's/^[0-9]* . \([0-9:;]*\) .*counting_type=\([0-9]*\) cnt_dropped_flag=\([0-9]\).*/\1 \3 \2/p' \
        verify.txt >verify_flags.txt
    labels "$start" "$stamped" "$fps" | awk '{ p = $1; sub(/;/, ":", p); print p, $1, $0 }' >expected.txt
    paste -d' ' ffprobe.txt gst.txt verify_flags.txt >read.txt
    differ "$out: labels read (FFmpeg, GStreamer, then --verify with cnt_dropped_flag counting_type)" \
        expected.txt read.txt
    facts "$in" >facts.in
    facts "$out" >facts.out
    differ "$out: the stream without its time codes, decoding errors or interlace flags" facts.in facts.out
}

# refuse STATUS WORDS ARGS...: exit status and message, and no out.bin left behind.
refuse() {
    want="^status $1: .*$2"
    shift 2
    rm -f out.bin
    "$tcstamp" "$@" >/dev/null 2>tool.err
    echo "status $?: $(tr '\n' ' ' <tool.err)" | grep -q -- "$want" ||
        fail "$*: not \"$want\": $(cat tool.err)"
    [ ! -e out.bin ] || fail "$*: an output file was left behind"
}

# row NAME RATE START ok|REFUSAL-WORDS -- ENCODER-ARGS... (the codec is the name's prefix)
row() {
    name=$1 codec=${1%%_*} rate=$2 start=$3 expect=$4 in=$1.${1%%_*}
    shift 5
    units=6\|9 format=h264
    [ "$codec" = h265 ] && units=35\|39\|40 format=hevc
    fps=$(echo "$rate" | awk -F/ '{ printf "%d", $1 * 100 / ($2 ? $2 : 1) + 0.5 }')
    # testsrc2 moves enough for x264 to choose B-frames on its own.
    ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=160x120:rate=$rate" -frames:v 60 "$@" \
        -f $format "$in" || { fail "ffmpeg could not encode"; return; }
    [ "$expect" = ok ] || { refuse 1 "$expect" "$in" out.bin --start "$start"; return; }
    "$tcstamp" "$in" out.$codec --start "$start" >list.txt 2>tool.err ||
        { fail "quillane-tcstamp failed: $(cat tool.err)"; return; }
    stamped=$(sed -n 's/.*: \([0-9]*\) frames stamped.*/\1/p' tool.err)
    check out.$codec
    "$tcstamp" out.$codec again.$codec --start "$start" 2>/dev/null || fail "stamping the output again failed"
    cmp -s out.$codec again.$codec || fail "stamping the output again changed it"
    [ $element = yes ] || return
    # Not quiet, as gst-launch-1.0 -q prints no warnings.
    GST_PLUGIN_PATH=$plugin_dir gst-launch-1.0 filesrc location="$in" ! "${codec}parse" ! quillanetcstamp \
        source=start start-time-code="$start" trace-file=trace.log ! filesink location=element.$codec \
        >launch.txt 2>&1 || { fail "the element failed: $(head -n 5 launch.txt)"; return; }
    ! grep -Eq 'WARNING|ERROR|CRITICAL' launch.txt || fail "the element's pipeline reported: $(head -n 3 launch.txt)"
    check element.$codec
}

h264() { echo -c:v libx264 "$@"; }
h265() { echo -c:v libx265 -x265-params "log-level=error:$1"; }
nohrd='nal-hrd=vbr:vbv-maxrate=500:vbv-bufsize=1000'
row h264_progressive_25 25 01:00:00:00 ok -- $(h264 -bf 0 -g 25 -x264-params $hrd)
row h264_bframes1_2997 30000/1001 '00:00:59;20' ok -- $(h264 -bf 1 -g 30 -x264-params $hrd)
row h264_bframes3_pyramid 25 10:59:59:10 ok -- $(h264 -bf 3 -b_strategy 2 -x264-params "$hrd:b-pyramid=normal")
row h264_open_gop_23976 24000/1001 00:00:00:00 ok -- $(h264 -bf 3 -g 24 -x264-params "$hrd:open-gop=1")
row h264_interlaced_tff_25 25 00:00:10:00 ok -- $(h264 -bf 2 -flags +ildct+ilme -x264-params "$hrd:tff=1")
row h264_interlaced_bff_2997 30000/1001 '00:09:59;25' ok -- $(h264 -bf 2 -flags +ildct+ilme -x264-params "$hrd:bff=1")
row h264_no_encoder_sei_50 50 23:59:59:40 ok -- $(h264 -bf 2 -x264-params $hrd) -bsf:v filter_units=remove_types=6
row h264_without_hrd 25 01:00:00:00 'nal-hrd' -- $(h264 -bf 2 -x264-params pic-struct=1)
row h264_without_pic_struct 25 01:00:00:00 'pic-struct' -- $(h264 -bf 2 -x264-params $nohrd)
row h264_label_that_does_not_exist 30000/1001 '00:01:00;00' 'does not exist' -- $(h264 -bf 0 -x264-params $hrd)
row h265_progressive_25 25 01:00:00:00 ok -- $(h265 bframes=0:keyint=25)
row h265_bframes3_2997 30000/1001 '00:00:59;20' ok -- $(h265 bframes=3:keyint=30)
row h265_open_gop_23976 24000/1001 00:00:00:00 ok -- $(h265 bframes=4:keyint=24:open-gop=1)
row h265_bframes2_5994_no_sei 60000/1001 '00:00:59;50' ok -- $(h265 bframes=2:keyint=60) -bsf:v filter_units=remove_types=39

# Stamping a file onto itself would lose the input: refused before anything is written.
name=same_file
cp h264_progressive_25.h264 same.h264
refuse 2 'is the input itself' same.h264 same.h264
cmp -s h264_progressive_25.h264 same.h264 || fail "stamping a file onto itself damaged it"

echo "element: $element, $failures failures"
[ $failures -eq 0 ]
