#!/usr/bin/env bash
# vell note and vell strum: rendered into WAVE files they sound, last as long as they should,
# stay below full scale, ring out, and sit at the right pitch; live through a sound server the
# note reaches the sink; bad names give one line and exit status 1, usage errors 2.
set -euo pipefail
: "${VELL:?path of the vell tool}"
[ -x /usr/bin/python3 ] && /usr/bin/python3 -c 'import numpy' 2>/dev/null ||
    { echo "skipped: python3-numpy missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# check FILE MIN_SECONDS MAX_SECONDS LOW_HZ HIGH_HZ EXPECTED_HZ: a 44.1 kHz stereo 16-bit file
# of that length, audible, below full scale, quiet at its end, whose strongest frequency
# between LOW_HZ and HIGH_HZ (after the attack) is EXPECTED_HZ within 1.5%.
check() {
    /usr/bin/python3 - "$@" <<'EOF'
import sys, wave
import numpy as np
path, shortest, longest, low, high, expected = sys.argv[1], *map(float, sys.argv[2:])
with wave.open(path) as w:
    assert (w.getframerate(), w.getnchannels(), w.getsampwidth()) == (44100, 2, 2), w.getparams()
    rate = w.getframerate()
    samples = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").reshape(-1, 2)
seconds = len(samples) / rate
assert shortest <= seconds <= longest, f"{seconds:.2f} s"
peak = np.abs(samples.astype(np.int32)).max()
assert 0.1 * 32768 < peak < 32767, f"peak {peak}"
tail = np.abs(samples[-int(0.05 * rate):].astype(np.int32)).max()
assert tail < 0.003 * 32768, f"has not rung out: {tail}"
n = 1 << min(15, int(np.log2(len(samples) - int(0.1 * rate))))
segment = samples[int(0.1 * rate):int(0.1 * rate) + n, 0] * np.hanning(n)
spectrum = np.abs(np.fft.rfft(segment))
hz = np.fft.rfftfreq(n, 1 / rate)
band = (hz >= low) & (hz <= high)
strongest = hz[band][spectrum[band].argmax()]
assert abs(strongest - expected) < 0.015 * expected, f"strongest {strongest:.1f} Hz"
EOF
}

# A4 held 1.5 s by default, then released.
"$VELL" note A4 -o "$dir/x.wav" >"$dir/out" || fail "vell note A4 -o: exit $?"
grep -qx "A4: MIDI 69, 440.00 Hz" "$dir/out" || fail "note line: $(cat "$dir/out")"
check "$dir/x.wav" 1.5 2.6 50 2000 440 || fail "note A4"
"$VELL" note Bb3 --for 0.5 -o "$dir/b.wav" >/dev/null || fail "vell note Bb3 --for 0.5: exit $?"
check "$dir/b.wav" 0.5 1.6 50 2000 233.08 || fail "note Bb3 --for 0.5"

# Am7 on the strings x02010: A2 is the lowest; it rings until it fades or is stopped at 5 s.
"$VELL" strum Am7 -o "$dir/y.wav" >"$dir/out" || fail "vell strum Am7 -o: exit $?"
grep -qx "Am7: A2 E3 G3 C4 E4" "$dir/out" || fail "strum line: $(cat "$dir/out")"
check "$dir/y.wav" 1 6.5 60 150 110 || fail "strum Am7"

# Without -o, --device null renders into nothing and exits.
"$VELL" strum G --device null >/dev/null || fail "vell strum G --device null: exit $?"

# Bad names: one line on stderr, exit status 1, no file.
for args in "note H9" "note ''" "strum H9" "strum ''"; do
    status=0
    eval "\"\$VELL\" $args -o \"\$dir/bad.wav\"" >"$dir/out" 2>"$dir/err" || status=$?
    [ "$status" = 1 ] || fail "vell $args: exit status $status, expected 1"
    [ "$(wc -l <"$dir/err")" = 1 ] || fail "vell $args: stderr is not one line: $(cat "$dir/err")"
    [ ! -e "$dir/bad.wav" ] || fail "vell $args: wrote a file"
done

# Usage errors.
for args in "note" "strum" "note A4 -o $dir/x.mp3" "strum Am7 --for"; do
    status=0
    "$VELL" $args >/dev/null 2>&1 || status=$?
    [ "$status" = 2 ] || fail "vell $args: exit status $status, expected 2"
done

# Live: the note reaches a sound server's sink (skipped where no server can run).
sink="${VELL_SOURCE_DIR:-}/../shared/tools/with-null-sink"
if [ -x "$sink" ]; then
    status=0
    timeout 60 "$sink" --capture "$dir/live.f32" -- "$VELL" note A4 --for 0.5 >/dev/null ||
        status=$?
    if [ "$status" = 0 ]; then
        /usr/bin/python3 - "$dir/live.f32" <<'EOF' || fail "live note: nothing at 440 Hz reached the sink"
import sys
import numpy as np
left = np.fromfile(sys.argv[1], dtype="<f4").reshape(-1, 2)[:, 0]
loud = np.nonzero(np.abs(left) > 0.01)[0]
assert len(loud) > 0
n = 16384
segment = left[loud[0] + 2205:loud[0] + 2205 + n] * np.hanning(n)
strongest = np.fft.rfftfreq(n, 1 / 44100)[np.abs(np.fft.rfft(segment)).argmax()]
assert abs(strongest - 440) < 6, strongest
EOF
    elif [ "$status" != 77 ]; then
        fail "vell note A4 through the sink: exit status $status"
    fi
fi

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "ok"
