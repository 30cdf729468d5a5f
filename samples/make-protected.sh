#!/bin/sh
# Makes samples/protected from samples/sample: one video variant and one audio rendition whose
# segments are encrypted with a content key (AES-128-CBC over each whole segment), under key tags
# with "skd://ovalto-demo" URIs, plus the demo licence server's keys and identity:
#   keys.json         the content key and IV of the asset, as `ovalto license-server --keys` reads it
#   license-key.pem   the licence server's private key
#   license-cert.pem  the application certificate that goes with it
# Needs the openssl command. Run from anywhere; it replaces samples/protected.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
source_dir="$here/sample"
out="$here/protected"
asset=ovalto-demo

rm -rf "$out"
mkdir -p "$out/video/low" "$out/audio/en"

key=$(openssl rand -hex 16)
iv=$(openssl rand -hex 16)
printf '{\n  "%s": {"key": "%s", "iv": "%s"}\n}\n' "$asset" "$key" "$iv" > "$out/keys.json"
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$out/license-key.pem" 2>/dev/null
openssl req -new -x509 -key "$out/license-key.pem" -out "$out/license-cert.pem" -days 3650 \
    -subj "/CN=Ovalto demo licence server" 2>/dev/null

# The key tag goes after the map: initialisation sections stay clear, media segments do not.
protect() {
    from="$source_dir/$1"
    to="$out/$1"
    cp "$from/init.mp4" "$to/init.mp4"
    awk -v uri="skd://$asset" '
        { print }
        /^#EXT-X-MAP:/ {
            print "#EXT-X-KEY:METHOD=AES-128,URI=\"" uri "\",KEYFORMAT=\"com.apple.streamingkeydelivery\",KEYFORMATVERSIONS=\"1\""
        }' "$from/media.m3u8" > "$to/media.m3u8"
    for segment in "$from"/seg*.m4s; do
        openssl enc -aes-128-cbc -K "$key" -iv "$iv" -in "$segment" -out "$to/$(basename "$segment")"
    done
}
protect video/low
protect audio/en

cat > "$out/master.m3u8" <<PLAYLIST
#EXTM3U
#EXT-X-VERSION:7
#EXT-X-INDEPENDENT-SEGMENTS
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="aud",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,CHANNELS="1",URI="audio/en/media.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=241581,CODECS="avc1.42c01e,mp4a.40.2",RESOLUTION=320x180,FRAME-RATE=25.000,AUDIO="aud"
video/low/media.m3u8
PLAYLIST
echo "made $out (asset $asset)"
