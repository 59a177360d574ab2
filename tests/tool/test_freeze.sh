#!/usr/bin/env bash
# vell freeze: the held sound written to a file has the length asked for and sound in it;
# isolation reaches the held sound; it plays on the null device; bad input gives exit status 1
# and bad usage 2.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in sox /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# 440 Hz on the left, 3 kHz on the right; and a file shorter than the freezer's window.
sox -n -r 44100 -c 2 "$dir/tones.wav" synth 3 sine 440 sine 3000 gain -6
sox -n -r 44100 -c 2 "$dir/short.wav" synth 0.1 sine 440

# wav_info FILE: "FRAMES CHANNELS LEFT_RMS RIGHT_RMS" of a 16-bit WAVE file.
wav_info() {
    /usr/bin/python3 - "$1" <<'PY'
import array, math, sys, wave
w = wave.open(sys.argv[1])
n, ch = w.getnframes(), w.getnchannels()
s = array.array('h', w.readframes(n))
rms = [math.sqrt(sum(x * x for x in s[c::ch]) / max(n, 1)) / 32768 for c in range(ch)]
print(n, ch, *('%.6f' % r for r in rms))
PY
}

"$VELL" freeze "$dir/tones.wav" --at 1 --seconds 2 -o "$dir/out.wav" || fail "freeze to a file"
read -r frames channels left right < <(wav_info "$dir/out.wav")
[ "$frames" = 88200 ] && [ "$channels" = 2 ] || fail "2 s stereo expected, got $frames x $channels"
/usr/bin/python3 -c "import sys; sys.exit(not ($left > 0.1 and $right > 0.1))" ||
    fail "the held sound is silent ($left, $right)"

# Without --seconds a file holds 5 s; m:ss times are understood.
"$VELL" freeze "$dir/tones.wav" --at 0:01.5 --semitones -3 -o "$dir/five.wav" ||
    fail "default length"
[ "$(wav_info "$dir/five.wav" | cut -d' ' -f1)" = 220500 ] || fail "default length is not 5 s"

# Keeping only the left of the field silences the right channel's tone.
"$VELL" freeze "$dir/tones.wav" --at 1 --seconds 1 -o "$dir/left.wav" \
    --isolate pan=0,width=0.2 || fail "isolated freeze"
read -r _ _ isoLeft isoRight < <(wav_info "$dir/left.wav")
/usr/bin/python3 -c "import sys; sys.exit(not ($isoLeft > 0.1 and $isoRight < 0.01 * $right))" ||
    fail "isolation: left $isoLeft, right $isoRight (unisolated right $right)"

# Played on the null device for as long as asked (standard input is not a terminal).
"$VELL" freeze "$dir/tones.wav" --at 1 --seconds 0.3 --device null </dev/null >"$dir/held" ||
    fail "playing on the null device"
grep -q "^held 0\.[3-9] s" "$dir/held" || fail "held for: $(cat "$dir/held")"

expect_status() { # STATUS ARGS...: vell must exit with STATUS
    local want=$1
    shift
    local got=0
    "$VELL" "$@" >/dev/null 2>"$dir/err" </dev/null || got=$?
    [ "$got" = "$want" ] || fail "vell $*: exit $got, expected $want"
    [ "$want" = 0 ] || [ -s "$dir/err" ] || fail "vell $*: no message"
    [ "$want" != 1 ] || [ "$(wc -l <"$dir/err")" = 1 ] || fail "vell $*: not a one-line message"
}
expect_status 1 freeze "$dir/missing.wav" --at 1 -o "$dir/x.wav"
expect_status 1 freeze "$dir/tones.wav" --at 9 -o "$dir/x.wav"
expect_status 1 freeze "$dir/tones.wav" --at 2.9 -o "$dir/x.wav" # too near the end
expect_status 1 freeze "$dir/short.wav" --at 0 -o "$dir/x.wav"
expect_status 1 freeze "$dir/tones.wav" --at 1 -o "$dir/no-such-dir/x.wav"
expect_status 2 freeze "$dir/tones.wav" -o "$dir/x.wav"
expect_status 2 freeze "$dir/tones.wav" --at 1 -o "$dir/x.mp3"
expect_status 2 freeze "$dir/tones.wav" --at 1 --seconds 0 -o "$dir/x.wav"
expect_status 2 freeze "$dir/tones.wav" --at 1 --semitones 30 -o "$dir/x.wav"
expect_status 2 freeze "$dir/tones.wav" --at 1 --isolate pan=3 -o "$dir/x.wav"
expect_status 2 freeze "$dir/tones.wav" --at 1 --device null -o "$dir/x.wav"

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "vell freeze: all checks passed"
