#!/usr/bin/env bash
# vell export: speed sets the length, semitones the pitch, a negative speed reverses, --loop
# repeats the range, the metronome clicks on a --bpm grid; every file is 44.1 kHz stereo in the
# format its extension names; bad output types and options are refused.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in sox ffprobe /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
/usr/bin/python3 -c 'import numpy' 2>/dev/null || { echo "skipped: numpy missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

sox -V1 -n -r 44100 -c 2 "$dir/tone.wav" synth 4 sine 440 gain -6
sox -V1 -n -r 48000 -c 2 "$dir/tone48.wav" synth 2 sine 440 gain -6
sox -V1 -n -r 44100 -c 2 "$dir/low.wav" synth 1 sine 300 gain -6
sox -V1 -n -r 44100 -c 2 "$dir/high.wav" synth 1 sine 1200 gain -6
sox -V1 "$dir/low.wav" "$dir/high.wav" "$dir/rising.wav"
sox -V1 -n -r 44100 -c 2 "$dir/silence.wav" trim 0 3

export_ok() { # ARGS...: vell export must succeed
    local status=0
    "$VELL" export "$@" >"$dir/stdout" 2>"$dir/err" || status=$?
    [ "$status" = 0 ] || fail "vell export $*: exit $status: $(cat "$dir/err")"
    return "$status"
}
probe() { # FILE: codec, rate, channels and duration as key=value lines
    ffprobe -v error -select_streams a:0 \
        -show_entries stream=codec_name,sample_rate,channels:format=duration \
        -of default=noprint_wrappers=1 "$1"
}
# The export writes whole blocks, so a file may run up to 4096 frames (0.09 s) past its range.
duration_near() { # FILE SECONDS
    local got
    got=$(probe "$1" | sed -n 's/^duration=//p')
    /usr/bin/python3 -c "import sys; sys.exit(0 if -0.01 <= $got - $2 <= 0.15 else 1)" ||
        fail "$(basename "$1"): $got s, expected $2 s"
}
# pitch FILE FROM TO: the strongest frequency between FROM and TO seconds (any format sox reads).
pitch() {
    sox -V1 "$1" -t wav -b 16 "$dir/pitch.wav" trim "$2" "=$3"
    /usr/bin/python3 - "$dir/pitch.wav" <<'PY'
import sys, wave
import numpy as np
with wave.open(sys.argv[1]) as w:
    x = np.frombuffer(w.readframes(w.getnframes()), dtype='<i2').reshape(-1, 2)[:, 0] / 32768.0
    rate = w.getframerate()
spectrum = np.abs(np.fft.rfft(x * np.hanning(len(x))))
print(round(np.argmax(spectrum) * rate / len(x)))
PY
}
pitch_near() { # FILE FROM TO HZ: the strongest frequency there is within 2% of HZ
    local got
    got=$(pitch "$1" "$2" "$3")
    /usr/bin/python3 -c "import sys; sys.exit(0 if abs($got - $4) <= 0.02 * $4 else 1)" ||
        fail "$(basename "$1") $2-$3 s: $got Hz, expected $4 Hz"
}

# Speed: half speed doubles the length, double speed halves it; the pitch stays.
if export_ok "$dir/tone.wav" -o "$dir/slow.wav" --speed 0.5; then
    [ "$(cat "$dir/stdout")" = "wrote $dir/slow.wav: 8.0 s, 0.5x, 0 st" ] ||
        fail "report: $(cat "$dir/stdout")"
    duration_near "$dir/slow.wav" 8
    pitch_near "$dir/slow.wav" 2 6 440
fi
if export_ok "$dir/tone.wav" -o "$dir/fast.M4A" --speed 2 --quality low; then
    probe "$dir/fast.M4A" | grep -x "codec_name=aac" >/dev/null || fail "m4a: $(probe "$dir/fast.M4A")"
    duration_near "$dir/fast.M4A" 2
    ffprobe -v error -show_entries format_tags=comment -of default=nw=1:nk=1 "$dir/fast.M4A" |
        grep -qx "vell: 200% speed, +0 semitones, +0 cents" || fail "m4a comment"
fi

# Formats: AIFF is 16-bit big-endian; a 48 kHz song is written at 44.1 kHz; all stereo.
export_ok "$dir/tone.wav" -o "$dir/up.aif" --semitones 12 --from 1 --to 3 &&
    probe "$dir/up.aif" | grep -x "codec_name=pcm_s16be" >/dev/null || fail "aif: $(probe "$dir/up.aif")"
export_ok "$dir/tone48.wav" -o "$dir/from48.wav" && duration_near "$dir/from48.wav" 2
for f in fast.M4A up.aif from48.wav; do
    probe "$dir/$f" | grep -x "sample_rate=44100" >/dev/null || fail "$f: not 44.1 kHz"
    probe "$dir/$f" | grep -x "channels=2" >/dev/null || fail "$f: not stereo"
done

# Pitch: an octave up doubles the sine's frequency, over the range asked for only.
[ -s "$dir/up.aif" ] && duration_near "$dir/up.aif" 2 && pitch_near "$dir/up.aif" 0.5 1.5 880

# Backwards: the high half comes first.
if export_ok "$dir/rising.wav" -o "$dir/falling.wav" --speed -1; then
    pitch_near "$dir/falling.wav" 0.2 0.8 1200
    pitch_near "$dir/falling.wav" 1.2 1.8 300
fi

# --loop 3 plays the range three times through the loop: the file holds three of the 1.5 s.
export_ok "$dir/rising.wav" -o "$dir/loop.wav" --from 0:00.25 --to 1.75 --loop 3 &&
    duration_near "$dir/loop.wav" 4.5 && pitch_near "$dir/loop.wav" 1.6 2.1 300

# The metronome on a --bpm grid: at half speed and 120 BPM from 0.25 s, a click every second
# from 0.5 s on, and silence in between.
if export_ok "$dir/silence.wav" -o "$dir/clicks.wav" --bpm 120 --first-beat 0.25 --metronome \
    --speed 0.5; then
    /usr/bin/python3 - "$dir/clicks.wav" <<'PY' || fail "metronome clicks"
import sys, wave
import numpy as np
with wave.open(sys.argv[1]) as w:
    x = np.abs(np.frombuffer(w.readframes(w.getnframes()), dtype='<i2') / 32768.0)
    x = x.reshape(-1, 2).max(axis=1)
loud = np.flatnonzero(x > 0.05)
onsets = [loud[0]] + [b for a, b in zip(loud, loud[1:]) if b - a > 0.2 * 44100]
got = [round(i / 44100, 2) for i in onsets]
assert len(got) == 6 and all(abs(t - (0.5 + k)) < 0.02 for k, t in enumerate(got)), got
PY
fi

# A count-in of one bar before 2.25 s on the same grid at half speed: four clicks a second
# apart (the grid's beats from 0.25 s), then the range's; the file is the count-in longer.
if export_ok "$dir/silence.wav" -o "$dir/countin.wav" --bpm 120 --first-beat 0.25 --count-in 1 \
    --speed 0.5 --from 2.25 --to 2.75; then
    duration_near "$dir/countin.wav" 5
    /usr/bin/python3 - "$dir/countin.wav" <<'PY' || fail "count-in clicks"
import sys, wave
import numpy as np
with wave.open(sys.argv[1]) as w:
    x = np.abs(np.frombuffer(w.readframes(w.getnframes()), dtype='<i2') / 32768.0)
    x = x.reshape(-1, 2).max(axis=1)
loud = np.flatnonzero(x > 0.05)
onsets = [loud[0]] + [b for a, b in zip(loud, loud[1:]) if b - a > 0.2 * 44100]
got = [round(i / 44100, 2) for i in onsets]
assert len(got) >= 5 and all(abs(t - k) < 0.02 for k, t in enumerate(got[:5])), got
PY
fi

# Refusals. No file is left behind for a format the export cannot write.
expect_status() { # STATUS ARGS...: vell must exit with STATUS and explain on stderr
    local want=$1
    shift
    local got=0
    "$VELL" "$@" >/dev/null 2>"$dir/err" || got=$?
    [ "$got" = "$want" ] || fail "vell $*: exit $got, expected $want"
    [ -s "$dir/err" ] || fail "vell $*: no message"
}
expect_status 1 export "$dir/tone.wav" -o "$dir/out.mp3"
[ "$(cat "$dir/err")" = 'vell: unsupported output format ".mp3": use .wav, .aif or .m4a' ] ||
    fail "mp3 message: $(cat "$dir/err")"
[ ! -e "$dir/out.mp3" ] || fail "a refused .mp3 was written"
expect_status 1 export "$dir/tone.wav" -o "$dir/m.wav" --metronome
[ "$(cat "$dir/err")" = "vell: --metronome needs a beat grid: give --doc DOC.json or --bpm B" ] ||
    fail "metronome message: $(cat "$dir/err")"
expect_status 1 export "$dir/tone.wav" -o "$dir/x.wav" --from 9
grep -qF "4.000 s" "$dir/err" || fail "--from past the end does not name the length"
expect_status 1 export "$dir/missing.wav" -o "$dir/x.wav"
expect_status 1 export "$dir/tone.wav" -o "$dir/x.wav" --doc "$dir/missing.json"
expect_status 2 export "$dir/tone.wav"
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --speed 0
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --speed 9
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --semitones 25
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --quality great
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --from 3 --to 2
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --loop 0
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --bpm 96 --doc "$dir/d.json"
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --first-beat 1
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --volume 1
expect_status 2 export "$dir/tone.wav" -o "$dir/x.wav" --bpm 120 --count-in 1 --speed -1
[ ! -e "$dir/x.wav" ] || fail "a refused command wrote x.wav"

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "vell export: all checks passed"
