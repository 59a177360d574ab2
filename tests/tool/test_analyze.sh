#!/usr/bin/env bash
# vell analyze: a user's MP3 (the demo song encoded) gets its meter, tempo, key, bars, chords and
# sections; documents a person edited are kept unless --force; play and export analyse a bare
# file once and then use the cached analysis, so --metronome works on any song; silence, noise,
# a 10-second file, a 20-minute file and a broken file are handled.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in sox ffmpeg /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export XDG_CACHE_HOME="$dir/cache"
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
expect_status() { # STATUS ARGS...: vell must exit with STATUS and explain on stderr
    local want=$1
    shift
    local got=0
    "$VELL" "$@" >"$dir/stdout" 2>"$dir/err" || got=$?
    [ "$got" = "$want" ] || fail "vell $*: exit $got, expected $want: $(cat "$dir/err")"
    [ "$want" = 0 ] || [ -s "$dir/err" ] || fail "vell $*: no message"
}
check_json() { # FILE PYTHON-EXPRESSION-OVER-j: the summary must satisfy it
    /usr/bin/python3 -c "import json, sys; j = json.load(open('$1')); sys.exit(0 if ($2) else 1)" ||
        fail "$(basename "$1"): not ($2): $(head -c 600 "$1")"
}

"$VELL" demo --write "$dir/demo" >/dev/null
ffmpeg -v error -i "$dir/demo/demo.wav" -b:a 192k "$dir/song.mp3"

# The demo: 4/4 at 96 BPM in A minor, twelve bars of Am F C G ... with a one-second tail.
expect_status 0 analyze "$dir/song.mp3" --json
cp "$dir/stdout" "$dir/summary.json"
[ -s "$dir/song.mp3.vell.json" ] || fail "no song.mp3.vell.json"
check_json "$dir/summary.json" "j['meter'] == '4/4'"
check_json "$dir/summary.json" "abs(j['tempos'][0]['bpm'] - 96) < 3"
check_json "$dir/summary.json" "j['keys'][0]['key'] == 'Am'"
check_json "$dir/summary.json" "11 <= j['bars'] <= 13"
# Roots and major or minor (a seventh from the lead line may ride on a chord).
check_json "$dir/summary.json" \
    "[c['chord'].replace('maj7', '') for c in j['chords'][:4]] == ['Am', 'F', 'C', 'G']"
check_json "$dir/summary.json" "len(j['sections']) >= 1 and j['sections'][0]['name'] == 'A'"
# The beat grid lands on the demo's own (every 8th entry a downbeat, within 70 ms).
/usr/bin/python3 - "$dir/song.mp3.vell.json" "$dir/demo/demo.json" <<'PY' || fail "downbeats"
import json, sys
got = [b["location"] / 44100 for b in json.load(open(sys.argv[1]))["beats"] if b.get("downbeat")]
want = [b["location"] / 44100 for b in json.load(open(sys.argv[2]))["beats"] if b.get("downbeat")]
hits = sum(1 for w in want if any(abs(g - w) <= 0.07 for g in got))
sys.exit(0 if hits >= len(want) - 1 else 1)
PY

# The text summary; an unedited analysis is replaced freely, an edited one only with --force.
expect_status 0 analyze "$dir/song.mp3"
grep -q "^meter:    4/4$" "$dir/stdout" || fail "summary: $(cat "$dir/stdout")"
grep -q "^key:      A minor$" "$dir/stdout" || fail "summary key: $(cat "$dir/stdout")"
sed -i 's/"chord":"Am"/"chord":"A"/' "$dir/song.mp3.vell.json"
expect_status 1 analyze "$dir/song.mp3"
grep -q "force" "$dir/err" || fail "edited document: $(cat "$dir/err")"
grep -q '"chord":"A"' "$dir/song.mp3.vell.json" || fail "edited document was replaced"
expect_status 0 analyze "$dir/song.mp3" --force -o "$dir/song.mp3.vell.json"

# Play and export on a bare file: analysed once, cached by content, then instant.
cp "$dir/song.mp3" "$dir/bare.mp3"
expect_status 0 export "$dir/bare.mp3" -o "$dir/clicks.wav" --metronome --to 4
cached=("$XDG_CACHE_HOME"/vellaudio/analysis/*.json)
[ -s "${cached[0]}" ] || fail "no cached analysis"
before=$(stat -c %Y.%s "${cached[0]}")
sleep 1
expect_status 0 play "$dir/bare.mp3" --device null --for 0.5 --count-in 1
[ "$(stat -c %Y.%s "${cached[0]}")" = "$before" ] || fail "the cached analysis was made again"
[ ! -e "$dir/bare.mp3.vell.json" ] || fail "play or export wrote a document beside the song"

# Silence: a valid document without beats, and the metronome refuses for want of a grid.
sox -V1 -n -r 44100 -c 2 "$dir/silence.wav" trim 0 5
expect_status 0 analyze "$dir/silence.wav"
grep -q "no beat found: the audio is silent" "$dir/stdout" || fail "silence: $(cat "$dir/stdout")"
expect_status 1 export "$dir/silence.wav" -o "$dir/m.wav" --metronome
[ "$(cat "$dir/err")" = "vell: --metronome needs a beat grid: give --doc DOC.json or --bpm B" ] ||
    fail "silence metronome: $(cat "$dir/err")"

# Noise has no pulse.
sox -V1 -n -r 44100 -c 2 "$dir/noise.wav" synth 12 whitenoise gain -6
expect_status 0 analyze "$dir/noise.wav" --json
check_json "$dir/stdout" "j['bars'] == 0 and 'no steady pulse' in j['remarks'][0]"

# Ten seconds are enough for a grid and chords.
sox -V1 "$dir/demo/demo.wav" "$dir/ten.wav" trim 0 10
expect_status 0 analyze "$dir/ten.wav" --json
check_json "$dir/stdout" "j['meter'] == '4/4' and j['bars'] >= 3 and j['chordCount'] >= 3"

# Twenty minutes: the demo's twelve bars (30 s, without the tail) forty times over.
sox -V1 "$dir/demo/demo.wav" -r 22050 "$dir/long.wav" trim 0 30 repeat 39
expect_status 0 analyze "$dir/long.wav" --json
check_json "$dir/stdout" "j['meter'] == '4/4' and 470 <= j['bars'] <= 490"

# Bad input and usage.
head -c 20000 /dev/urandom >"$dir/broken.mp3"
expect_status 1 analyze "$dir/broken.mp3"
expect_status 2 analyze

[ "$failures" = 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "analyze: all checks passed"
