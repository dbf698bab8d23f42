#!/bin/sh
# Real encoder output, stamped by quillane-tcstamp and by the quillanetcstamp
# element (filesrc ! h26Xparse ! quillanetcstamp ! filesink), then read back
# by readers that share no code with us: FFmpeg's decoder (ffprobe, frames in
# presentation order), GStreamer's parser and decoder (gst_meta_reader) and
# GStreamer's codec parsers (gst_timecode_reader, in stream order, with the
# drop-frame flags). One row per kind of stream; each row either stamps, and
# then every reader must see one label per stamped picture, consecutive in
# presentation order from the start label, the stream must decode as cleanly
# as before and hold nothing new but time codes, and a second stamping must
# give the same bytes; or it is refused with the row's message, exit status 1
# and no output file. The element must also run without a warning, and ignore
# the drift check (with one warning) on a pipeline that is not live.
#
#   stamp_matrix.sh TCSTAMP GST_META_READER [GST_PLUGIN_DIR]
#
# gst_timecode_reader is built beside gst_meta_reader.
set -u
tcstamp=$1 reader=$2 plugin_dir=${3:-}
codec_reader=$(dirname "$reader")/gst_timecode_reader
work=$(mktemp -d "${TMPDIR:-/tmp}/quillane-matrix.XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
# A registry of our own: a sanitizer build of the element that fails to load
# must not be remembered in the user's cache.
export GST_REGISTRY="$work/registry.bin"
failures=0 rows=0
fail() {
    echo "FAIL [$name]: $*" >&2
    failures=$((failures + 1))
}

element=no
if [ -n "$plugin_dir" ] && GST_PLUGIN_PATH=$plugin_dir gst-inspect-1.0 quillanetcstamp 2>/dev/null | grep -q '^  source '; then
    element=yes
fi

hrd='nal-hrd=vbr:pic-struct=1:vbv-maxrate=500:vbv-bufsize=1000'
# encode NAME CODEC RATE FRAMES ENCODER-ARGS...
encode() {
    file=$1.$2 codec=$2 rate=$3 frames=$4
    shift 4
    format=h264
    [ "$codec" = h265 ] && format=hevc
    # testsrc2 moves enough for x264 to choose B-frames on its own.
    ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=160x120:rate=$rate" -frames:v "$frames" "$@" \
        -f $format "$file" || fail "ffmpeg could not encode"
}

# The labels drop-frame or plain counting gives from START, N of them, each
# with cnt_dropped_flag: set on the label that follows skipped counts.
labels() {
    awk -v start="$1" -v n="$2" -v fps="$3" 'BEGIN {
        split(start, t, /[:;]/); h = t[1] + 0; m = t[2] + 0; s = t[3] + 0; f = t[4] + 0; d = 0
        whole = int((fps + 50) / 100); drop = fps == 2997 ? 2 : fps == 5994 ? 4 : 0
        for (i = 0; i < n; i++) {
            printf "%02d:%02d:%02d:%02d %d\n", h, m, s, f, d
            d = 0
            if (++f == whole) { f = 0; if (++s == 60) { s = 0; if (++m == 60) { m = 0; h = (h + 1) % 24 } } }
            if (f == 0 && s == 0 && m % 10 != 0 && drop) { f = drop; d = 1 }
        }
    }'
}
name=reference
[ "$(labels '00:00:59;28' 3 2997 | tail -n 1)" = '00:01:00:02 1' ] || fail "drop-frame counting skips no counts at the minute"

# check OUT CODEC START FPS STAMPED IN: what the readers read of OUT.
check() {
    out=$1 codec=$2 start=$3 fps=$4 stamped=$5 in=$6
    labels "$start" "$stamped" "$fps" >expected_flags.txt
    cut -d' ' -f1 expected_flags.txt >expected.txt
    ffprobe -v error -show_entries frame_tags=timecode -of flat "$out" |
        sed -n 's/^frames\.frame\.[0-9]*\.tags\.timecode="\(.*\)"$/\1/p' | tr ';' ':' >ffprobe.txt
    cmp -s expected.txt ffprobe.txt || { fail "$out: FFmpeg reads other labels (< expected, > ffprobe):"; diff expected.txt ffprobe.txt | head -n 8 >&2; }
    # Our own reader finds nothing wrong, and reads what FFmpeg reads.
    "$tcstamp" --verify "$out" >verify.txt 2>&1 || fail "$out: --verify reports: $(grep -m 3 '^!' verify.txt)"
    grep -v '^!' verify.txt | sed '$d' | awk '$3 != "-" { print $3 }' | tr ';' ':' >verify_labels.txt
    cmp -s ffprobe.txt verify_labels.txt || { fail "$out: --verify reads other labels than FFmpeg (< ffprobe, > verify):"; diff ffprobe.txt verify_labels.txt | head -n 8 >&2; }
    "$reader" "$codec" "$out" 2>gst.err | grep -v '^none$' | cut -d' ' -f1 | tr ';,.' ':::' >gst.txt
    cmp -s expected.txt gst.txt || { fail "$out: GStreamer reads other labels (< expected, > GStreamer):"; diff expected.txt gst.txt | head -n 8 >&2; }
    # The codec parsers read the flags too: counting_type 4 is drop-frame
    # counting. They cannot size the time codes of a cut stream that come
    # before its first parameter sets.
    if [ -z "${CUT:-}" ]; then
        counting=1
        [ "$fps" = 2997 ] || [ "$fps" = 5994 ] && counting=4
        awk -v c=$counting '{ print $1, $2, c }' expected_flags.txt | sort >expected_units.txt
        "$codec_reader" "$codec" "$out" 2>units.err | grep -v '^absent$' | sort >units.txt
        [ -s units.err ] && fail "$out: GStreamer's codec parser rejected a unit: $(head -n 3 units.err)"
        cmp -s expected_units.txt units.txt || { fail "$out: the codec parsers read other time codes (< expected 'label cnt_dropped_flag counting_type', > GStreamer):"; diff expected_units.txt units.txt | head -n 8 >&2; }
    fi
    # Without SEI units and access unit delimiters (a parser may add those),
    # output and input are the same bytes: no unit dropped, reordered or altered.
    units=6\|9 format=h264
    [ "$codec" = h265 ] && units=35\|39\|40 format=hevc
    ffmpeg -nostdin -v error -i "$in" -c copy -bsf:v "filter_units=remove_types=$units" -f $format -y bare_in.bin
    ffmpeg -nostdin -v error -i "$out" -c copy -bsf:v "filter_units=remove_types=$units" -f $format -y bare_out.bin
    cmp -s bare_in.bin bare_out.bin || fail "$out: holds more than the input and its time codes"
    # Stamping adds no decoding error (a cut stream has its own).
    ffmpeg -nostdin -v error -i "$in" -f null - 2>&1 | wc -l >errors_in.txt
    ffmpeg -nostdin -v error -i "$out" -f null - 2>&1 | wc -l >errors_out.txt
    cmp -s errors_in.txt errors_out.txt || fail "$out: FFmpeg reports decoding errors the input did not have"
    ffprobe -v error -show_entries frame=interlaced_frame -of csv=p=0 "$in" 2>/dev/null | tr -d , | grep . >interlaced_in.txt
    ffprobe -v error -show_entries frame=interlaced_frame -of csv=p=0 "$out" 2>/dev/null | tr -d , | grep . >interlaced_out.txt
    cmp -s interlaced_in.txt interlaced_out.txt || fail "$out: the interlace flags changed"
}

# row NAME CODEC RATE FPS_X100 START EXPECT -- ENCODER-ARGS...
# EXPECT: ok, or the words the refusal must contain.
row() {
    name=$1 codec=$2 rate=$3 fps=$4 start=$5 expect=$6
    shift 7
    rows=$((rows + 1))
    encode "$name" "$codec" "$rate" 60 "$@"
    in=$name.$codec
    [ -n "${CUT:-}" ] && { pos=$(ffprobe -v error -show_entries packet=pos -of csv=p=0 "$in" | sed -n "$((CUT + 1))p"); tail -c +$((pos + 1)) "$in" >cut && mv cut "$in"; }
    "$tcstamp" "$in" out.$codec --start "$start" >list.txt 2>tool.err
    status=$?
    if [ "$expect" != ok ]; then
        [ $status -eq 1 ] || fail "exit status $status, not 1, for a stream that must be refused"
        grep -q -- "$expect" tool.err || fail "refusal without \"$expect\": $(cat tool.err)"
        [ ! -e out.$codec ] || fail "an output file was left behind"
        return
    fi
    [ $status -eq 0 ] || { fail "quillane-tcstamp failed: $(cat tool.err)"; return; }
    stamped=$(sed -n 's/.*: \([0-9]*\) frames stamped.*/\1/p' tool.err)
    check out.$codec "$codec" "$start" "$fps" "$stamped" "$in"
    "$tcstamp" out.$codec again.$codec --start "$start" 2>/dev/null || fail "stamping the output again failed"
    cmp -s out.$codec again.$codec || fail "stamping the output again changed it"
    # The parser in front of the element treats the undecodable start of a
    # cut stream its own way, so that row is the tool's alone.
    if [ $element = yes ] && [ -z "${CUT:-}" ]; then
        element element.$codec || { fail "the element failed: $(head -n 5 launch.txt)"; return; }
        ! grep -Eq 'WARNING|ERROR|CRITICAL' launch.txt || fail "the element's pipeline reported: $(grep -E -m 3 'WARNING|ERROR|CRITICAL' launch.txt)"
        check element.$codec "$codec" "$start" "$fps" "$stamped" "$in"
        # The drift check wants a live clock: here it is ignored, once, and changes nothing.
        element drift.$codec drift-check=true frames-before-first-check=10
        [ "$(grep -c 'drift-check is ignored: the pipeline is not live' launch.txt)" = 1 ] && cmp -s element.$codec drift.$codec ||
            fail "drift-check on a non-live pipeline was not ignored with one warning: $(head -n 6 launch.txt)"
    fi
}

# element OUT PROPERTIES...: the element's stamping of $in, with its trace
# file on. Not quiet: gst-launch-1.0 -q prints no warnings.
element() {
    out=$1
    shift
    GST_PLUGIN_PATH=$plugin_dir gst-launch-1.0 filesrc location="$in" ! ${codec}parse ! quillanetcstamp source=start \
        start-time-code="$start" trace-file="$work/trace.log" "$@" ! filesink location="$out" >launch.txt 2>&1
}

x264() { echo -c:v libx264 "$@"; }
x265() { echo -c:v libx265 -x265-params "log-level=error:$1"; }
# shellcheck disable=SC2046
{
row h264_progressive_25 h264 25 2500 01:00:00:00 ok -- $(x264 -bf 0 -g 25 -x264-params $hrd)
row h264_bframes1_2997 h264 30000/1001 2997 '00:00:59;20' ok -- $(x264 -bf 1 -g 30 -x264-params $hrd)
row h264_bframes3_pyramid h264 25 2500 10:59:59:10 ok -- $(x264 -bf 3 -b_strategy 2 -x264-params "$hrd:b-pyramid=normal")
row h264_open_gop_23976 h264 24000/1001 2398 00:00:00:00 ok -- $(x264 -bf 3 -g 24 -x264-params "$hrd:open-gop=1")
row h264_interlaced_tff_25 h264 25 2500 00:00:10:00 ok -- $(x264 -bf 2 -flags +ildct+ilme -x264-params "$hrd:tff=1")
row h264_interlaced_bff_2997 h264 30000/1001 2997 '00:09:59;25' ok -- $(x264 -bf 2 -flags +ildct+ilme -x264-params "$hrd:bff=1")
row h264_no_encoder_sei_50 h264 50 5000 23:59:59:40 ok -- $(x264 -bf 2 -x264-params $hrd) -bsf:v filter_units=remove_types=6
row h264_bframes2_5994 h264 60000/1001 5994 '00:00:59;50' ok -- $(x264 -bf 2 -x264-params $hrd)
row h264_24 h264 24 2400 00:00:59:20 ok -- $(x264 -bf 1 -x264-params $hrd)
row h264_48 h264 48 4800 00:00:59:40 ok -- $(x264 -bf 0 -x264-params $hrd)
CUT=10
row h264_cut_inside_gop h264 25 2500 01:00:00:00 ok -- $(x264 -bf 2 -g 25 -x264-params $hrd)
CUT=
row h264_without_hrd h264 25 2500 01:00:00:00 'nal-hrd' -- $(x264 -bf 2 -x264-params pic-struct=1)
row h264_without_pic_struct h264 25 2500 01:00:00:00 'pic-struct' -- $(x264 -bf 2 -x264-params nal-hrd=vbr:vbv-maxrate=500:vbv-bufsize=1000)
row h264_label_that_does_not_exist h264 30000/1001 2997 '00:01:00;00' 'does not exist' -- $(x264 -bf 0 -x264-params $hrd)
row h265_progressive_25 h265 25 2500 01:00:00:00 ok -- $(x265 bframes=0:keyint=25)
row h265_bframes3_2997 h265 30000/1001 2997 '00:00:59;20' ok -- $(x265 bframes=3:keyint=30)
row h265_open_gop_23976 h265 24000/1001 2398 00:00:00:00 ok -- $(x265 bframes=4:keyint=24:open-gop=1)
row h265_bframes2_5994_no_sei h265 60000/1001 5994 '00:00:59;50' ok -- $(x265 bframes=2:keyint=60) -bsf:v filter_units=remove_types=39
row h265_bframes2_50 h265 50 5000 00:00:00:00 ok -- $(x265 bframes=2:keyint=50:b-pyramid=1)
row h265_30 h265 30 3000 00:00:59:20 ok -- $(x265 bframes=0:keyint=30)
row h265_60 h265 60 6000 00:00:59:40 ok -- $(x265 bframes=1:keyint=60)
}

# Inputs and options the tool refuses, each with its message and status;
# none leaves an output file behind.
name=bad_inputs
encode plain h264 25 10 $(x264 -bf 0 -x264-params $hrd)
encode plain h265 25 10 $(x265 bframes=0)
mkdir dir
printf 'not a stream' >text.bin
refuse() {
    expect_status=$1 expect=$2
    shift 2
    rm -f out.bin
    "$tcstamp" "$@" >/dev/null 2>tool.err
    status=$?
    [ $status -eq "$expect_status" ] || fail "$*: exit status $status, not $expect_status"
    grep -q -- "$expect" tool.err || fail "$*: no \"$expect\" in: $(cat tool.err)"
    [ ! -e out.bin ] || fail "$*: an output file was left behind"
}
refuse 1 'it is a directory' dir out.bin
refuse 1 'not an Annex B' text.bin out.bin
refuse 1 'cannot read' missing.bin out.bin
refuse 1 'the stream is H.265, not H.264' plain.h265 out.bin --codec h264
refuse 1 'conflicts with the stream' plain.h264 out.bin --fps 5994
refuse 1 'does not exist at 25.00 fps' plain.h264 out.bin --start 00:00:00:40
refuse 1 'asks for drop-frame counting' plain.h264 out.bin --start '00:00:00;10'
refuse 2 'takes HH:MM:SS:FF' plain.h264 out.bin --start 1:2:3
refuse 2 'expects IN and OUT' plain.h264
refuse 2 'unknown option' plain.h264 out.bin --frobnicate
refuse 2 'expects IN alone' --verify plain.h264 out.bin
cp plain.h264 same.h264
refuse 2 'is the input itself' same.h264 same.h264
cmp -s plain.h264 same.h264 || fail "stamping a file onto itself damaged it"
# An unstamped stream verifies with findings, exit status 1.
"$tcstamp" --verify plain.h264 >verify.txt 2>&1
[ $? -eq 1 ] && grep -q '^! frame 0: a time-code message without a clock timestamp' verify.txt || fail "--verify on an unstamped stream: $(tail -n 2 verify.txt)"
# Standard input and output, with the summary on standard error.
"$tcstamp" - - --start 01:00:00:00 <plain.h264 >piped.h264 2>piped.err || fail "- - failed: $(cat piped.err)"
"$tcstamp" plain.h264 file.h264 --start 01:00:00:00 2>/dev/null
cmp -s piped.h264 file.h264 || fail "stamping through - - gives other bytes than through files"
grep -q '10 frames stamped' piped.err || fail "no summary on standard error: $(cat piped.err)"

echo "$rows rows, element: $element, $failures failures"
[ $failures -eq 0 ]
