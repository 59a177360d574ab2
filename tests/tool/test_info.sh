#!/usr/bin/env bash
# vell info: format, rate, channels, exact frame count and duration of real files, as text and
# JSON; bad files give one line on stderr and exit status 1.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in ffmpeg sox /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# 2.5 s at 44.1 kHz plus a few frames that fill no codec packet.
frames=110257
sox -V1 -r 44100 -c 2 -n -b 16 "$dir/source.wav" synth "${frames}s" sine 200-4000 sine 300-5000
sox -V1 -r 48000 -c 1 -n -b 24 "$dir/mono.flac" synth 1 sine 440
ffmpeg -v error -y -i "$dir/source.wav" -c:a libmp3lame -b:a 192k "$dir/song.mp3"
ffmpeg -v error -y -i "$dir/source.wav" -c:a aac -b:a 160k "$dir/song.m4a"

# field FILE KEY: one key of the JSON output.
field() {
    "$VELL" info "$1" --json | /usr/bin/python3 -c "import json,sys; print(json.load(sys.stdin)['$2'])"
}

check() { # FILE KEY EXPECTED
    local got
    got=$(field "$1" "$2") || { fail "$1: vell info --json failed"; return; }
    [ "$got" = "$3" ] || fail "$(basename "$1") $2: expected $3, got $got"
}

for f in source.wav song.mp3 song.m4a; do
    check "$dir/$f" frames "$frames"
    check "$dir/$f" sampleRate 44100
    check "$dir/$f" channels 2
    check "$dir/$f" clientChannels 2
done
check "$dir/source.wav" container wav
check "$dir/source.wav" codec pcm_s16le
check "$dir/song.mp3" container mp3
check "$dir/song.mp3" codec mp3
check "$dir/song.m4a" container mp4
check "$dir/song.m4a" codec aac
check "$dir/mono.flac" channels 1
check "$dir/mono.flac" clientChannels 2
check "$dir/mono.flac" frames 48000
check "$dir/mono.flac" duration 1.0
check "$dir/mono.flac" bitsPerSample 24
check "$dir/song.m4a" path "$dir/song.m4a"

# Every key is there and the duration agrees with the frames.
"$VELL" info "$dir/song.mp3" --json | /usr/bin/python3 -c '
import json, sys
info = json.load(sys.stdin)
keys = {"path", "container", "codec", "sampleRate", "channels", "clientChannels", "frames", "duration"}
missing = keys - info.keys()
assert not missing, missing
assert abs(info["duration"] - info["frames"] / info["sampleRate"]) < 1e-9, info
' || fail "JSON keys or duration"

# The text form names the same facts.
text=$("$VELL" info "$dir/song.m4a") || fail "vell info song.m4a failed"
for expected in "mp4 / aac" "44100 Hz" "2 in the file, 2 decoded" "$frames" "0:02.500"; do
    grep -qF -- "$expected" <<<"$text" || fail "text output lacks \"$expected\": $text"
done

# Bad files: exit status 1, one line on stderr naming the problem, nothing on stdout.
: > "$dir/empty.mp3"
echo "not music" > "$dir/text.mp3"
printf '#EXTM3U\n#EXT-X-TARGETDURATION:3\n#EXTINF:2.5,\n%s\n#EXT-X-ENDLIST\n' "$dir/source.wav" \
    > "$dir/playlist.mp3"
sox -V1 -r 44100 -c 2 -n "$dir/long.wav" synth 4 sine 300
ffmpeg -v error -y -i "$dir/long.wav" -c:a aac "$dir/whole.m4a"
head -c "$(($(stat -c %s "$dir/whole.m4a") / 2))" "$dir/whole.m4a" > "$dir/half.m4a"
for case in "missing.mp3:does not exist" "empty.mp3:empty" "text.mp3:not an audio file" \
    "playlist.mp3:not an audio file" "half.m4a:incomplete or damaged"; do
    name=${case%%:*}
    reason=${case#*:}
    for json in "" --json; do
        status=0
        "$VELL" info "$dir/$name" $json >"$dir/out" 2>"$dir/err" || status=$?
        [ "$status" = 1 ] || fail "$name $json: exit status $status, expected 1"
        [ "$(wc -l <"$dir/err")" = 1 ] || fail "$name $json: stderr is not one line: $(cat "$dir/err")"
        grep -qF "$reason" "$dir/err" || fail "$name $json: stderr lacks \"$reason\": $(cat "$dir/err")"
        [ ! -s "$dir/out" ] || fail "$name $json: printed on stdout: $(cat "$dir/out")"
    done
done

# Usage errors.
status=0
"$VELL" info >/dev/null 2>&1 || status=$?
[ "$status" = 2 ] || fail "no FILE: exit status $status, expected 2"
status=0
"$VELL" info "$dir/song.mp3" --bogus >/dev/null 2>&1 || status=$?
[ "$status" = 2 ] || fail "unknown option: exit status $status, expected 2"

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "ok"
