#!/usr/bin/env bash
# Regenerates the sample streams: two seconds of a test pattern at 29.97 fps,
# encoded with HRD parameters and pic_struct (so decoders read H.264 picture
# timing), with the encoder's own SEI removed.
set -euo pipefail
cd "$(dirname "$0")"
common=(-hide_banner -loglevel error -y -f lavfi -i testsrc=size=160x120:rate=30000/1001 -frames:v 60 -pix_fmt yuv420p)
ffmpeg "${common[@]}" -c:v libx264 -bf 0 -g 30 \
    -x264-params nal-hrd=vbr:pic-struct=1:vbv-maxrate=300:vbv-bufsize=600 \
    -bsf:v filter_units=remove_types=6 -f h264 sample_2997.264
ffmpeg "${common[@]}" -c:v libx265 -x265-params bframes=0:keyint=30:log-level=error \
    -bsf:v filter_units=remove_types=39 -f hevc sample_2997.265
# The same H.264 stream at 25 and 30 fps: their parameter sets differ from
# the 29.97 one's in the timing alone, which the time-code reader's tests
# swap to give a stream labels that do not fit its rate.
for rate in 25 30; do
    ffmpeg "${common[@]/rate=30000\/1001/rate=$rate}" -c:v libx264 -bf 0 -g 30 \
        -x264-params nal-hrd=vbr:pic-struct=1:vbv-maxrate=300:vbv-bufsize=600 \
        -bsf:v filter_units=remove_types=6 -f h264 "sample_$rate.264"
done
ls -l sample_2997.264 sample_2997.265 sample_25.264 sample_30.264
