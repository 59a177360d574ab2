#!/usr/bin/env bash
# vell demo --write: a 30-second stereo WAV at 44.1 kHz whose lead is only in the left channel,
# and a practice document that parses and describes it; vell demo -o: the song at half speed
# with clicks and notes; vell demo: played; bad usage gives exit status 2.
set -euo pipefail
: "${VELL:?path of the vell tool}"
[ -x /usr/bin/python3 ] || { echo "skipped: /usr/bin/python3 missing"; exit 77; }
/usr/bin/python3 -c 'import numpy' 2>/dev/null || { echo "skipped: numpy missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

"$VELL" demo --write "$dir/out" >"$dir/stdout" || fail "demo --write failed"
[ -s "$dir/out/demo.wav" ] || fail "no demo.wav"
[ -s "$dir/out/demo.json" ] || fail "no demo.json"
grep -q "demo.wav" "$dir/stdout" || fail "no report of what was written"

# Format as the usual tools see it.
if command -v soxi >/dev/null; then
    [ "$(soxi -r "$dir/out/demo.wav")" = 44100 ] || fail "soxi: rate is not 44100"
    [ "$(soxi -c "$dir/out/demo.wav")" = 2 ] || fail "soxi: not stereo"
    duration=$(soxi -D "$dir/out/demo.wav")
    /usr/bin/python3 -c "import sys; sys.exit(0 if 29 <= float('$duration') <= 32 else 1)" ||
        fail "soxi: duration $duration is not about 30 s"
fi
if command -v ffprobe >/dev/null; then
    probe=$(ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate,channels \
        -of default=noprint_wrappers=1 "$dir/out/demo.wav")
    grep -qx "sample_rate=44100" <<<"$probe" || fail "ffprobe: $probe"
    grep -qx "channels=2" <<<"$probe" || fail "ffprobe: $probe"
fi

# The signal and the document, read independently of the engine.
/usr/bin/python3 - "$dir/out/demo.wav" "$dir/out/demo.json" <<'PY' || fail "signal or document check"
import json, sys, wave
import numpy as np

with wave.open(sys.argv[1]) as w:
    assert w.getframerate() == 44100 and w.getnchannels() == 2 and w.getsampwidth() == 2
    data = np.frombuffer(w.readframes(w.getnframes()), dtype='<i2').reshape(-1, 2) / 32768.0
left, right = data[:, 0], data[:, 1]
doc = json.load(open(sys.argv[2]))
assert doc["format"] == "vell-practice-document" and doc["version"] == 1, doc.get("format")
assert doc["sampleRate"] == 44100
notes = doc["notes"]
assert len(notes) > 20, "too few lead notes"

peak = np.abs(data).max()
assert 0.5 < peak < 1.0, f"peak {peak}"

# Inside the lead's notes, left minus right carries real energy; outside them, none.
covered = np.zeros(len(left), dtype=bool)
for n in notes:
    covered[n["location"]:n["location"] + n["length"] + 8000] = True
side = left - right
inside = np.sum(side[covered] ** 2)
outside = np.sum(side[~covered] ** 2)
assert inside > 100, f"no lead in the left channel ({inside})"
assert outside < 1e-4 * inside, f"left and right differ outside the lead ({outside} vs {inside})"

# The right channel lacks the lead: at each high lead note's pitch it is much quieter.
ratios = []
for n in notes:
    if n["pitch"] < 72 or n["length"] < 20000:
        continue
    start, end = n["location"] + 2000, n["location"] + n["length"]
    window = np.hanning(end - start)
    spectrum_l = np.abs(np.fft.rfft(left[start:end] * window))
    spectrum_r = np.abs(np.fft.rfft(right[start:end] * window))
    freq = 440.0 * 2 ** ((n["pitch"] - 69) / 12)
    k = int(round(freq * (end - start) / 44100))
    ratios.append(spectrum_l[k - 1:k + 2].max() / max(spectrum_r[k - 1:k + 2].max(), 1e-9))
assert len(ratios) >= 10 and min(ratios) > 4, f"lead/right ratios {ratios}"

# The document's grid: 4/4 at 96 BPM, a downbeat every 8 beat entries, regions and markers.
assert doc["timeSignatures"][0]["numerator"] == 4 and doc["timeSignatures"][0]["denominator"] == 4
assert abs(doc["tempos"][0]["tempo"] - 96) < 1e-6
beats = doc["beats"]
assert all(b.get("downbeat", False) == (i % 8 == 0) for i, b in enumerate(beats))
assert [r["name"] for r in doc["regions"]] == ["Verse 1", "Verse 2", "Chorus"]
assert len(doc["markers"]) >= 2 and doc["keys"][0]["tonic"] == "Am"
PY

# Writing twice gives the same bytes.
"$VELL" demo --write "$dir/again" >/dev/null || fail "second write"
cmp -s "$dir/out/demo.wav" "$dir/again/demo.wav" || fail "the audio is not deterministic"
cmp -s "$dir/out/demo.json" "$dir/again/demo.json" || fail "the document is not deterministic"

# Exported at half speed with the metronome and the lead's notes: the same as exporting the
# written song with its notes, plus a click on every beat (1.25 s apart at half of 96 BPM).
"$VELL" demo -o "$dir/half.wav" >"$dir/stdout" || fail "demo -o failed"
grep -qF "wrote $dir/half.wav: 62.0 s, 0.5x" "$dir/stdout" || fail "demo -o: $(cat "$dir/stdout")"
"$VELL" export "$dir/out/demo.wav" --doc "$dir/out/demo.json" --notes --speed 0.5 --to 5 \
    -o "$dir/notes.wav" >/dev/null || fail "export with notes"
/usr/bin/python3 - "$dir/half.wav" "$dir/notes.wav" <<'PY' || fail "demo -o: length or clicks"
import sys, wave
import numpy as np
def load(path):
    with wave.open(path) as w:
        assert w.getframerate() == 44100 and w.getnchannels() == 2
        return np.frombuffer(w.readframes(w.getnframes()), dtype='<i2').reshape(-1, 2) / 32768.0
demo, notes = load(sys.argv[1]), load(sys.argv[2])
assert 61.9 < len(demo) / 44100 < 62.2, len(demo) / 44100
n = 10 * 44100
clicks = np.abs(demo[:n] - notes[:n]).max(axis=1)
peak = lambda t, w: clicks[max(0, int(t * 44100)):int((t + w) * 44100)].max()
on_beats = np.median([peak(1.25 * k - 0.01, 0.08) for k in range(8)])
between = np.median([peak(1.25 * k + 0.4, 0.5) for k in range(8)])
assert on_beats > 0.1 and on_beats > 2.5 * between, (on_beats, between)
PY

# Played on the null device for a moment.
"$VELL" demo --device null --for 0.5 </dev/null >"$dir/stdout" || fail "demo --device null"
grep -qx "played 0:00.[56]" "$dir/stdout" || fail "demo play: $(cat "$dir/stdout")"

# Usage: writing, exporting and playing exclude each other; a file in the way is a failure.
for args in "--write $dir/w -o $dir/w.wav" "--write $dir/w --for 1" "-o $dir/w.wav --device null"; do
    status=0
    "$VELL" demo $args >/dev/null 2>"$dir/err" || status=$?
    [ "$status" = 2 ] || fail "vell demo $args: exit $status, expected 2"
done
status=0
"$VELL" demo -o "$dir/demo.mp3" 2>"$dir/err" || status=$?
[ "$status" = 1 ] && [ ! -e "$dir/demo.mp3" ] || fail "vell demo -o demo.mp3: exit $status"
touch "$dir/file"
set +e
"$VELL" demo --write "$dir/file" 2>"$dir/err"
status=$?
set -e
[ "$status" = 1 ] || fail "--write onto a file: exit $status, expected 1"

[ "$failures" = 0 ] || exit 1
echo "demo: all checks passed"
