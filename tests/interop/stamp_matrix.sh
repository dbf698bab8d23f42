#!/bin/sh
# Real encoder output, stamped by quillane-tcstamp and by the quillanetcstamp
# element (filesrc ! h26Xparse ! quillanetcstamp ! filesink), then read back
# by FFmpeg's decoder (ffprobe) and GStreamer's parser and decoder
# (gst_meta_reader), which share no code with us, and by --verify. One row
# per kind of stream: it either stamps, and every reader sees one label per
# picture counting on in presentation order from the start label, the
# stream decodes as cleanly as before and holds nothing new but time codes,
# and stamping it again gives the same bytes; or it is refused with the
# row's message, exit status 1 and no output file. The element must run
# without a warning, and ignore the drift check (with one warning) on a
# pipeline that is not live.
#
#   stamp_matrix.sh TCSTAMP GST_META_READER [GST_PLUGIN_DIR]
set -u
tcstamp=$1 reader=$2 plugin_dir=${3:-}
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

# labels START N FPS_X100: "HH:MM:SS:FF cnt_dropped_flag counting_type" for
# the N labels from START; drop-frame counting writes ";" before FF and sets
# cnt_dropped_flag on the label that follows the skipped counts.
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

# differ WHAT EXPECTED ACTUAL: a failure with the first differences.
differ() {
    cmp -s "$2" "$3" || { fail "$1 (< expected, > read):"; diff "$2" "$3" | head -n 8 >&2; }
}

# check OUT CODEC START FPS STAMPED IN: what the readers read of OUT.
check() {
    out=$1 codec=$2 start=$3 fps=$4 stamped=$5 in=$6
    labels "$start" "$stamped" "$fps" >expected.txt
    cut -d' ' -f1 expected.txt >expected_labels.txt
    tr ';' ':' <expected_labels.txt >expected_plain.txt
    ffprobe -v error -show_entries frame_tags=timecode -of flat "$out" |
        sed -n 's/^frames\.frame\.[0-9]*\.tags\.timecode="\(.*\)"$/\1/p' | tr ';' ':' >ffprobe.txt
    differ "$out: FFmpeg reads other labels" expected_plain.txt ffprobe.txt
    # FFmpeg's syntax reader is strict where its decoder is not: every unit,
    # our SEI's payload alignment bits included, must parse.
    ffmpeg -nostdin -v error -i "$out" -c copy -bsf:v trace_headers -f null - 2>&1 | grep 'Failed to read' >syntax.txt
    [ -s syntax.txt ] && fail "$out: FFmpeg cannot read a unit's syntax: $(head -n 1 syntax.txt)"
    # GStreamer's meta says drop-frame counting too; "." and "," mark the second field.
    "$reader" "$codec" "$out" 2>gst.err | grep -v '^none$' | tr ',.' ';:' >gst.txt
    [ -s gst.err ] && fail "$out: GStreamer reports: $(head -n 3 gst.err)"
    differ "$out: GStreamer reads other labels" expected_labels.txt gst.txt
    # Our own reader finds nothing wrong, and reads the flags the counting needs.
    "$tcstamp" --verify "$out" >verify.txt 2>&1 || fail "$out: --verify reports: $(grep -m 3 '^!' verify.txt)"
    sed -n 's/^[0-9]* . \([0-9:;]*\) .*counting_type=\([0-9]*\) cnt_dropped_flag=\([0-9]\).*/\1 \3 \2/p' verify.txt >verify_flags.txt
    differ "$out: --verify reads other time codes ('label cnt_dropped_flag counting_type')" expected.txt verify_flags.txt
    facts "$in" in
    facts "$out" out
    cmp -s bare.in bare.out || fail "$out: holds more than the input and its time codes"
    cmp -s errors.in errors.out || fail "$out: FFmpeg reports decoding errors the input did not have"
    cmp -s interlaced.in interlaced.out || fail "$out: the interlace flags changed"
}

# facts FILE SUFFIX: the stream without SEI units and access unit delimiters
# (a parser may add those), so that stamping may change nothing else; the
# number of FFmpeg's decoding errors (a cut stream has its own); the
# interlace flags FFmpeg takes from pic_struct.
facts() {
    units=6\|9 format=h264
    [ "$codec" = h265 ] && units=35\|39\|40 format=hevc
    ffmpeg -nostdin -v error -i "$1" -c copy -bsf:v "filter_units=remove_types=$units" -f $format -y "bare.$2"
    ffmpeg -nostdin -v error -i "$1" -f null - 2>&1 | wc -l >"errors.$2"
    ffprobe -v error -show_entries frame=interlaced_frame -of csv=p=0 "$1" 2>/dev/null | tr -d , | grep . >"interlaced.$2"
}

# refuse STATUS WORDS ARGS...: the tool exits with STATUS, says WORDS, and
# leaves no out.bin behind.
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

# row NAME CODEC RATE FPS_X100 START EXPECT -- ENCODER-ARGS...
# EXPECT: ok, or the words the refusal must contain.
row() {
    name=$1 codec=$2 rate=$3 fps=$4 start=$5 expect=$6
    shift 7
    rows=$((rows + 1))
    encode "$name" "$codec" "$rate" 60 "$@"
    in=$name.$codec
    [ -n "${CUT:-}" ] && { pos=$(ffprobe -v error -show_entries packet=pos -of csv=p=0 "$in" | sed -n "$((CUT + 1))p"); tail -c +$((pos + 1)) "$in" >cut && mv cut "$in"; }
    [ "$expect" = ok ] || { refuse 1 "$expect" "$in" out.bin --start "$start"; return; }
    "$tcstamp" "$in" out.$codec --start "$start" >list.txt 2>tool.err || { fail "quillane-tcstamp failed: $(cat tool.err)"; return; }
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

# Inputs and options the tool refuses.
name=bad_inputs
encode plain h264 25 10 $(x264 -bf 0 -x264-params $hrd)
encode plain h265 25 10 $(x265 bframes=0)
mkdir dir
printf 'not a stream' >text.bin
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
