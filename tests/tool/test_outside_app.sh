#!/usr/bin/env bash
# An application outside the tree builds against the installed library (pkg-config vellaudio)
# and plays a song; through a real sound server's null sink, what it plays and what `vell play`
# plays are recorded: the music is there, and the metronome's clicks fall on the song's beats.
set -euo pipefail
: "${VELL:?path of the vell tool}" "${VELL_SOURCE_DIR:?}"
command -v pkg-config >/dev/null || { echo "skipped: pkg-config missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
export XDG_CONFIG_HOME="$dir/config" XDG_CACHE_HOME="$dir/cache"

build=$(cd "$(dirname "$VELL")/../.." && pwd)
cmake --install "$build" --prefix "$dir/prefix" >/dev/null
pc=$(find "$dir/prefix" -name vellaudio.pc | head -n 1)
[ -n "$pc" ] || { echo "FAIL: no vellaudio.pc installed"; exit 1; }
# Installed elsewhere than the prefix it was configured for: the file says where it now is.
sed -i "s|^prefix=.*|prefix=$dir/prefix|" "$pc"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
libdir=$(pkg-config --variable=libdir vellaudio)
# Only the installed headers: the source tree is not on the include path.
c++ -std=c++20 -O1 -o "$dir/play_file" "$VELL_SOURCE_DIR/tests/outside/play_file.cpp" \
    $(pkg-config --cflags --libs vellaudio) -Wl,-rpath,"$libdir" ||
    { echo "FAIL: the outside program does not build against the installed library"; exit 1; }

"$VELL" demo --write "$dir" >/dev/null
song="$dir/demo.wav"
doc="$dir/demo.json"
VELL_AUDIO_DEVICE=null "$dir/play_file" "$song" "$doc" 1 >"$dir/out" ||
    fail "play_file on the null device: $(cat "$dir/out")"
grep -qE "^played .* to (0\.[89]|1\.[0-9]) s" "$dir/out" || fail "play_file did not play a second: $(cat "$dir/out")"
status=0
VELL_AUDIO_DEVICE=null "$dir/play_file" "$dir/missing.wav" "$doc" 1 2>"$dir/err" || status=$?
[ "$status" = 1 ] && grep -q "Bad Audio File" "$dir/err" || fail "a missing song: $(cat "$dir/err")"

sink="$VELL_SOURCE_DIR/../shared/tools/with-null-sink"
[ -x "$sink" ] || { echo "with-null-sink missing: the sound-server part is skipped"; exit "$failures"; }
status=0
timeout 60 "$sink" --capture "$dir/api.f32" -- "$dir/play_file" "$song" "$doc" 3 >/dev/null ||
    status=$?
if [ "$status" = 77 ]; then
    echo "no sound server can run here: the recorded checks are skipped"
    [ "$failures" = 0 ] && exit 0 || exit 1
fi
[ "$status" = 0 ] || fail "play_file through the sink: exit $status"
timeout 60 "$sink" --capture "$dir/play.f32" -- \
    "$VELL" play "$song" --doc "$doc" --metronome --for 3 </dev/null >/dev/null ||
    fail "vell play through the sink: exit $?"

# Both recordings hold the song with the metronome on it. The song is found by correlation;
# what is left once it is taken away are the clicks, each on a beat of the document.
/usr/bin/python3 - "$song" "$doc" "$dir/api.f32" "$dir/play.f32" <<'EOF' || fail "recordings: see above"
import json, sys, wave
import numpy as np

rate = 44100
with wave.open(sys.argv[1]) as w:
    song = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").reshape(-1, 2)[:, 0] / 32768.0
doc = json.load(open(sys.argv[2]))
beats = doc["beats"]
first_down = next(i for i, b in enumerate(beats) if b.get("downbeat"))
clicks_at = np.array([b["location"] for b in beats[first_down::2]], dtype=float)
bad = 0
for name in sys.argv[3:]:
    rec = np.fromfile(name, dtype="<f4").reshape(-1, 2)[:, 0].astype(float)
    loud = np.nonzero(np.abs(rec) > 1e-3)[0]
    if len(loud) == 0:
        print(f"{name}: silence"); bad += 1; continue
    rec = rec[max(loud[0] - 4410, 0):]
    # Align the song: the lag with the best correlation over the first two seconds.
    n = 2 * rate
    ref = song[:n]
    spectrum = np.fft.rfft(rec[: 3 * n], 4 * n) * np.conj(np.fft.rfft(ref, 4 * n))
    lag = int(np.argmax(np.fft.irfft(spectrum)[: 2 * n]))
    seg = rec[lag : lag + n]
    gain = float(np.dot(seg, ref) / np.dot(ref, ref))
    residual = seg - gain * ref
    match = 1 - np.dot(residual, residual) / np.dot(seg, seg)
    print(f"{name}: song at {lag / rate:.3f} s, gain {gain:.2f}, explains {match:.2f} of the power")
    if gain < 0.5 or match < 0.5:
        print(f"{name}: the song is not in the recording"); bad += 1; continue
    # Onsets of what is left: the clicks.
    env = np.abs(residual)
    threshold = env.max() * 10 ** (-30 / 20)
    onsets, last = [], -rate
    for i in np.nonzero(env > threshold)[0]:
        if i - last > rate // 10:
            onsets.append(i)
        last = i
    expected = clicks_at[clicks_at < n - rate // 20]
    if len(onsets) < 3 or len(onsets) != len(expected):
        print(f"{name}: {len(onsets)} clicks, expected {len(expected)}"); bad += 1; continue
    offsets = (np.array(onsets) - expected) / rate * 1000
    print(f"{name}: click offsets from their beats {np.round(offsets, 2)} ms")
    if np.max(np.abs(offsets - np.median(offsets))) > 2 or abs(np.median(offsets)) > 5:
        print(f"{name}: the clicks are not on the beats"); bad += 1
sys.exit(1 if bad else 0)
EOF

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "outside application: all checks passed"
