#!/usr/bin/env bash
# vell spectrum: pictures of the right kind and size; isolation changes what is drawn; bad input
# gives exit status 1 and bad usage 2.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in sox /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# 440 Hz on the left, 3 kHz on the right.
sox -n -r 44100 -c 2 "$dir/tones.wav" synth 3 sine 440 sine 3000 gain -6

# png_size FILE: "W H" from the PNG header, or nothing if it is not a PNG.
png_size() {
    /usr/bin/python3 - "$1" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read(24)
if data[:8] == b'\x89PNG\r\n\x1a\n':
    print(*struct.unpack('>II', data[16:24]))
PY
}

"$VELL" spectrum "$dir/tones.wav" --at 1.5 -o "$dir/mixed.png" || fail "mixed png"
[ "$(png_size "$dir/mixed.png")" = "1200 400" ] || fail "default size is not 1200x400"
"$VELL" spectrum "$dir/tones.wav" --at 0:01.5 -o "$dir/stereo.png" --stereo --pan 0.3 \
    --size 640x240 || fail "stereo png"
[ "$(png_size "$dir/stereo.png")" = "640 240" ] || fail "--size 640x240 not honoured"
"$VELL" spectrum "$dir/tones.wav" --at 1 -o "$dir/s.svg" --isolate pan=0,width=0.3 ||
    fail "isolated svg"
grep -q "<svg" "$dir/s.svg" || fail "the svg is not SVG"

# Keeping only the left of the field leaves the left's picture alone and changes the mix.
"$VELL" spectrum "$dir/tones.wav" --at 1.5 -o "$dir/left.png" --isolate pan=0,width=0.2 ||
    fail "isolated png"
cmp -s "$dir/mixed.png" "$dir/left.png" && fail "isolation did not change the picture"

expect_status() { # STATUS ARGS...: vell must exit with STATUS
    local want=$1
    shift
    local got=0
    "$VELL" "$@" >/dev/null 2>"$dir/err" || got=$?
    [ "$got" = "$want" ] || fail "vell $*: exit $got, expected $want"
    [ "$want" = 0 ] || [ -s "$dir/err" ] || fail "vell $*: no message"
}
expect_status 1 spectrum "$dir/missing.wav" --at 1 -o "$dir/x.png"
expect_status 1 spectrum "$dir/tones.wav" --at 9 -o "$dir/x.png"
expect_status 1 spectrum "$dir/tones.wav" --at 1 -o "$dir/no-such-dir/x.png"
expect_status 2 spectrum "$dir/tones.wav" --at 1 -o "$dir/x.jpg"
expect_status 2 spectrum "$dir/tones.wav" -o "$dir/x.png"
expect_status 2 spectrum "$dir/tones.wav" --at 1
expect_status 2 spectrum "$dir/tones.wav" --at 1 -o "$dir/x.png" --size 12
expect_status 2 spectrum "$dir/tones.wav" --at 1 -o "$dir/x.png" --isolate pan=3
expect_status 2 spectrum "$dir/tones.wav" --at 1 -o "$dir/x.png" --bogus

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "vell spectrum: all checks passed"
