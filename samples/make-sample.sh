#!/usr/bin/env bash
# Remakes samples/sample: a 12-second HLS presentation (test pattern and tones) with three video
# variants, two audio renditions, a WebVTT subtitle rendition, fMP4 segments with #EXT-X-MAP,
# and side-car SubRip, WebVTT and TTML cue-point documents on the same timeline.
#
# ffmpeg is needed only here; the build and the tests use the committed output.
set -euo pipefail

OUT=$(cd "$(dirname "$0")" && pwd)/sample
DURATION=12
SEGMENT=2

command -v ffmpeg >/dev/null || {
    echo "make-sample.sh: ffmpeg is needed (apt-get install ffmpeg)" >&2
    exit 1
}
rm -rf "$OUT"
mkdir -p "$OUT"

hls() { # hls DIR INPUT-AND-CODEC-ARGS…
    local dir=$OUT/$1
    shift
    mkdir -p "$dir"
    ffmpeg -hide_banner -loglevel error -y "$@" \
        -f hls -hls_time $SEGMENT -hls_playlist_type vod -hls_segment_type fmp4 \
        -hls_fmp4_init_filename init.mp4 -hls_segment_filename "$dir/seg%d.m4s" "$dir/media.m3u8"
}

video() { # video NAME SIZE KBPS
    hls "video/$1" -f lavfi -i "testsrc2=size=$2:rate=25:duration=$DURATION" \
        -c:v libx264 -profile:v baseline -level 3.0 -pix_fmt yuv420p -preset veryfast \
        -b:v "${3}k" -maxrate "$(($3 * 12 / 10))k" -bufsize "$(($3 * 2))k" \
        -g 50 -keyint_min 50 -sc_threshold 0 -an
}

audio() { # audio LANGUAGE FREQUENCY
    hls "audio/$1" -f lavfi -i "sine=frequency=$2:sample_rate=44100:duration=$DURATION" \
        -c:a aac -b:a 64k -ac 1 -vn
}

video low 320x180 120
video mid 480x270 250
video high 640x360 450
audio en 440
audio ja 660

# Cues every two seconds, one second long, shared by every subtitle document.
cue_text() { echo "Cue $(($1 + 1)): the pattern at ${2} seconds"; }
srt_time() { printf '00:00:%02d,%03d' "$1" 0; }
vtt_time() { printf '00:00:%02d.%03d' "$1" 0; }

mkdir -p "$OUT/subtitles/en" "$OUT/sidecar"
{
    echo "WEBVTT"
    echo
    for i in 0 1 2 3 4 5; do
        start=$((i * 2))
        echo "$(vtt_time $start) --> $(vtt_time $((start + 1)))"
        cue_text $i $start
        echo
    done
} >"$OUT/subtitles/en/subtitles.vtt"
cp "$OUT/subtitles/en/subtitles.vtt" "$OUT/sidecar/subtitles.vtt"
cat >"$OUT/subtitles/en/media.m3u8" <<EOF
#EXTM3U
#EXT-X-VERSION:3
#EXT-X-TARGETDURATION:$DURATION
#EXT-X-MEDIA-SEQUENCE:0
#EXT-X-PLAYLIST-TYPE:VOD
#EXTINF:$DURATION.000,
subtitles.vtt
#EXT-X-ENDLIST
EOF

{
    for i in 0 1 2 3 4 5; do
        start=$((i * 2))
        echo $((i + 1))
        echo "$(srt_time $start) --> $(srt_time $((start + 1)))"
        cue_text $i $start
        echo
    done
} >"$OUT/sidecar/subtitles.srt"

{
    echo '<?xml version="1.0" encoding="UTF-8"?>'
    echo '<cuepoints lang="en">'
    for i in 0 1 2 3 4 5; do
        start=$((i * 2))
        echo "  <cuepoint time=\"$start\"><tt><body><div><p>$(cue_text $i $start)</p></div></body></tt></cuepoint>"
        echo "  <cuepoint time=\"$((start + 1))\"><tt><body><div><p></p></div></body></tt></cuepoint>"
    done
    echo '</cuepoints>'
} >"$OUT/sidecar/subtitles.ttml"

# The master lists renditions first, then the variants from the lowest bitrate up.
bandwidth() { # peak bits per second of a variant's video plus the audio
    local bytes
    bytes=$(cat "$OUT/video/$1"/seg*.m4s | wc -c)
    echo $((bytes * 8 / DURATION * 13 / 10 + 70000))
}
cat >"$OUT/master.m3u8" <<EOF
#EXTM3U
#EXT-X-VERSION:7
#EXT-X-INDEPENDENT-SEGMENTS
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,CHANNELS="1",URI="audio/en/media.m3u8"
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="Japanese",LANGUAGE="ja",DEFAULT=NO,AUTOSELECT=YES,CHANNELS="1",URI="audio/ja/media.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="en",DEFAULT=NO,AUTOSELECT=YES,URI="subtitles/en/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=$(bandwidth low),CODECS="avc1.42c01e,mp4a.40.2",RESOLUTION=320x180,FRAME-RATE=25.000,AUDIO="aud",SUBTITLES="subs"
video/low/media.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=$(bandwidth mid),CODECS="avc1.42c01e,mp4a.40.2",RESOLUTION=480x270,FRAME-RATE=25.000,AUDIO="aud",SUBTITLES="subs"
video/mid/media.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=$(bandwidth high),CODECS="avc1.42c01e,mp4a.40.2",RESOLUTION=640x360,FRAME-RATE=25.000,AUDIO="aud",SUBTITLES="subs"
video/high/media.m3u8
EOF

du -sh "$OUT"
