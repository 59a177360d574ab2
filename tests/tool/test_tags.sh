#!/usr/bin/env bash
# vell tags: reading tags (the engine's readers, FFmpeg's for the rest) as text and JSON, cover
# extraction, and edits of M4A files that keep the audio and never damage the original.
set -euo pipefail
: "${VELL:?path of the vell tool}"
for tool in ffmpeg ffprobe /usr/bin/python3; do
    command -v "$tool" >/dev/null || { echo "skipped: $tool missing"; exit 77; }
done
/usr/bin/python3 -c 'import mutagen' 2>/dev/null || { echo "skipped: python3-mutagen missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
py() { /usr/bin/python3 "$@"; }

sine() { ffmpeg -nostdin -v error -y -f lavfi -i "sine=frequency=440:duration=${2:-2}" "${@:3}" "$1"; }
sine "$dir/first.m4a" 2 -c:a aac -b:a 64k -metadata title=Before -metadata album=Kept -movflags +faststart
sine "$dir/last.m4a" 2 -c:a aac -b:a 64k -metadata title=Before -metadata album=Kept
sine "$dir/song.flac" 1 -c:a flac -metadata title="Flac Title" -metadata artist="Flac Artist"
sine "$dir/song.opus" 1 -c:a libopus -metadata title="Opus Title"
sine "$dir/plain.mp3" 1 -c:a libmp3lame -b:a 64k -id3v2_version 0 -write_xing 0
ffmpeg -nostdin -v error -y -f lavfi -i "color=c=red:s=40x30:d=1" -frames:v 1 "$dir/cover.png"
ffmpeg -nostdin -v error -y -f lavfi -i "color=c=blue:s=24x16:d=1" -frames:v 1 "$dir/cover.jpg"
cp "$dir/plain.mp3" "$dir/utf8.mp3"
cp "$dir/plain.mp3" "$dir/utf16.mp3"
py - "$dir" <<'PY'
import sys
from mutagen.id3 import ID3, TIT2, TPE1, APIC
d = sys.argv[1]
for name, version, encoding in (("utf8.mp3", 4, 3), ("utf16.mp3", 3, 1)):
    t = ID3()
    t.add(TIT2(encoding=encoding, text="Caf\u00e9 " + name))
    t.add(TPE1(encoding=0, text="Plain Artist"))
    t.add(APIC(encoding=0, mime="image/png", type=3, desc="Front", data=open(d + "/cover.png", "rb").read()))
    t.save(d + "/" + name, v2_version=version)
PY

# field FILE KEY SUBKEY: one value of vell tags --json ("None" when absent).
field() {
    "$VELL" tags "$1" --json | py -c 'import json, sys
t = json.load(sys.stdin)[sys.argv[1]]
print(t if t is None else t[sys.argv[2]])' "$2" "$3"
}
expect() { # FILE KEY SUBKEY EXPECTED
    local got
    got=$(field "$1" "$2" "$3") || { fail "$1: vell tags --json failed"; return; }
    [ "$got" = "$4" ] || fail "$(basename "$1") $2.$3: expected \"$4\", got \"$got\""
}

# Reading: each field names the reader it came from.
expect "$dir/first.m4a" title value Before
expect "$dir/first.m4a" title source mp4
expect "$dir/first.m4a" artist value None
expect "$dir/song.flac" artist value "Flac Artist"
expect "$dir/song.flac" title source ffmpeg
expect "$dir/song.opus" title value "Opus Title"
expect "$dir/utf8.mp3" title value "Café utf8.mp3"
expect "$dir/utf8.mp3" title source mp3
expect "$dir/utf16.mp3" title value "Café utf16.mp3"
expect "$dir/utf16.mp3" title source ffmpeg
expect "$dir/utf16.mp3" artist source mp3
expect "$dir/utf16.mp3" coverArt width 40
expect "$dir/plain.mp3" title value None
text=$("$VELL" tags "$dir/first.m4a") || fail "vell tags first.m4a failed"
for expected in "Title:        Before" "Album:        Kept" "Cover art:    none"; do
    grep -qF -- "$expected" <<<"$text" || fail "text output lacks \"$expected\": $text"
done

# Cover extraction: PNG as stored, JPEG encoded.
"$VELL" tags "$dir/utf8.mp3" --extract-cover "$dir/out.png" >/dev/null || fail "--extract-cover png"
"$VELL" tags "$dir/utf8.mp3" --extract-cover "$dir/out.jpg" >/dev/null || fail "--extract-cover jpg"
cmp -s "$dir/out.png" "$dir/cover.png" || fail "the extracted PNG differs from the stored one"
[ "$(head -c 3 "$dir/out.jpg" | od -An -tx1 | tr -d ' ')" = ffd8ff ] || fail "out.jpg is not JPEG"
status=0
"$VELL" tags "$dir/first.m4a" --extract-cover "$dir/none.png" >/dev/null 2>"$dir/err" || status=$?
[ "$status" = 1 ] && grep -q "no cover art" "$dir/err" || fail "no cover: status $status $(cat "$dir/err")"

# Edits keep every audio packet and read back with ffprobe and mutagen.
packets() { ffmpeg -nostdin -v fatal -i "$1" -map 0:a -c copy -f framemd5 -; }
for f in first.m4a last.m4a; do
    before=$(packets "$dir/$f")
    "$VELL" tags "$dir/$f" --set "title=Blue in Green" --set artist=Miles --set date=1959 \
        --set "lyrics=line one" --cover "$dir/cover.jpg" >/dev/null || fail "$f: --set failed"
    [ "$(packets "$dir/$f")" = "$before" ] || fail "$f: audio packets changed"
    got=$(ffprobe -v error -show_entries format_tags -of json "$dir/$f" | py -c 'import json, sys
t = json.load(sys.stdin)["format"]["tags"]
print(t["title"], t["artist"], t["album"], sep="|")')
    [ "$got" = "Blue in Green|Miles|Kept" ] || fail "$f: ffprobe reads $got"
    got=$(py -c 'import sys
from mutagen.mp4 import MP4
f = MP4(sys.argv[1])
print(f["\xa9nam"][0], f["\xa9day"][0], f["\xa9lyr"][0], f["covr"][0].imageformat, sep="|")' "$dir/$f")
    [ "$got" = "Blue in Green|1959|line one|14" ] || fail "$f: mutagen reads $got"
    expect "$dir/$f" coverArt width 24
    if ls -A "$dir" | grep -q vell-tags; then fail "$f: a temporary copy was left behind"; fi
done

# Refusals leave the file byte for byte as it was.
refused() { # FILE REASON ARGS...
    local file=$1 reason=$2 status=0
    shift 2
    cp "$file" "$dir/before"
    "$VELL" tags "$file" "$@" >/dev/null 2>"$dir/err" || status=$?
    [ "$status" = 1 ] || fail "$(basename "$file"): exit status $status, expected 1"
    grep -qF -- "$reason" "$dir/err" || fail "$(basename "$file"): stderr lacks \"$reason\": $(cat "$dir/err")"
    cmp -s "$file" "$dir/before" || fail "$(basename "$file"): the file changed"
    if ls -A "$dir" | grep -q vell-tags; then fail "$(basename "$file"): a temporary copy was left behind"; fi
}
refused "$dir/utf8.mp3" "read-only" --set title=x
refused "$dir/song.flac" "Only MP4 and M4A" --set title=x
ffmpeg -nostdin -v error -y -f lavfi -i sine=duration=1 -f lavfi -i sine=frequency=880:duration=1 \
    -map 0 -map 1 -c:a aac -movflags +faststart "$dir/two.m4a"
refused "$dir/two.m4a" "several tracks" --set title=x
sine "$dir/frag.m4a" 1 -c:a aac -movflags frag_keyframe+empty_moov
refused "$dir/frag.m4a" "fragmented" --set title=x
echo "not a picture" >"$dir/bad.png"
refused "$dir/first.m4a" "not a PNG, JPEG" --cover "$dir/bad.png"
# A file-size limit below the copy's size: the copy cannot be made, the original is kept.
sine "$dir/big.m4a" 20 -c:a aac -b:a 128k
limit=$(($(stat -c %s "$dir/big.m4a") / 2048))
cp "$dir/big.m4a" "$dir/before-big"
status=0
(ulimit -f "$limit"; "$VELL" tags "$dir/big.m4a" --set title=x >/dev/null 2>"$dir/err") || status=$?
[ "$status" = 1 ] || fail "file-size limit: exit status $status: $(cat "$dir/err")"
cmp -s "$dir/big.m4a" "$dir/before-big" || fail "file-size limit: the original changed"
if ls -A "$dir" | grep -q vell-tags; then fail "file-size limit: a temporary copy was left behind"; fi

# Usage errors.
for args in "--set title" "--set colour=red" "--extract-cover $dir/x.gif"; do
    status=0
    "$VELL" tags "$dir/first.m4a" $args >/dev/null 2>&1 || status=$?
    [ "$status" = 2 ] || fail "$args: exit status $status, expected 2"
done
status=0
"$VELL" tags "$dir/missing.m4a" >/dev/null 2>&1 || status=$?
[ "$status" = 1 ] || fail "missing file: exit status $status, expected 1"

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "ok"
