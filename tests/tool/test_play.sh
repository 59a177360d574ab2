#!/usr/bin/env bash
# vell play: on the null device it plays for --for seconds, or to the end of a range, and ends
# with one line; without a sound device it says how to go on; devices and options are checked.
set -euo pipefail
: "${VELL:?path of the vell tool}"
command -v sox >/dev/null || { echo "skipped: sox missing"; exit 77; }
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

sox -V1 -n -r 44100 -c 2 "$dir/tone.wav" synth 3 sine 440 gain -6

# play_for SECONDS_MIN SECONDS_MAX ARGS...: vell play must exit 0 within the bounds (wall clock)
# with one line on stdout, kept in $dir/out.
play_for() {
    local low=$1 high=$2
    shift 2
    local start end status=0
    start=$(date +%s.%N)
    timeout 20 "$VELL" play "$@" </dev/null >"$dir/out" 2>"$dir/err" || status=$?
    end=$(date +%s.%N)
    [ "$status" = 0 ] || { fail "vell play $*: exit $status: $(cat "$dir/err")"; return; }
    awk -v s="$start" -v e="$end" -v lo="$low" -v hi="$high" \
        'BEGIN { exit !(e - s >= lo && e - s <= hi) }' ||
        fail "vell play $*: took $(awk -v s="$start" -v e="$end" 'BEGIN { print e - s }') s"
    [ "$(wc -l <"$dir/out")" = 1 ] || fail "vell play $*: stdout is not one line: $(cat "$dir/out")"
}

play_for 1 5 "$dir/tone.wav" --device null --for 1
grep -qx "played 0:01.[01]" "$dir/out" || fail "--for 1: $(cat "$dir/out")"

# A range plays once, in real time: a second of file at double speed takes half a second.
play_for 0.4 4 "$dir/tone.wav" --device null --from 1.5 --to 2.5 --speed 2
grep -qx "played 0:00.[4-7]" "$dir/out" || fail "range at double speed: $(cat "$dir/out")"
# Backwards to the start of the file.
play_for 0.4 4 "$dir/tone.wav" --device null --to 1 --speed -2 --semitones -3 --volume 0.5
grep -qx "played 0:00.[4-7]" "$dir/out" || fail "range backwards: $(cat "$dir/out")"
# Backwards without a range: the whole file, from its end.
play_for 2.5 6 "$dir/tone.wav" --device null --speed -1
grep -qx "played 0:0[23].[0-9]" "$dir/out" || fail "whole file backwards: $(cat "$dir/out")"
# A looped range plays until --for.
play_for 1.2 5 "$dir/tone.wav" --device null --from 2 --to 2.5 --loop 1 --for 1.2
grep -qx "played 0:01.[23]" "$dir/out" || fail "loop with --for: $(cat "$dir/out")"

expect_status() { # STATUS ARGS...: vell must exit with STATUS and explain on stderr
    local want=$1
    shift
    local got=0
    timeout 20 "$VELL" "$@" </dev/null >/dev/null 2>"$dir/err" || got=$?
    [ "$got" = "$want" ] || fail "vell $*: exit $got, expected $want"
    [ -s "$dir/err" ] || fail "vell $*: no message"
}
# Without a real device (as on a build machine), play says what to do instead.
if "$VELL" play "$dir/tone.wav" --for 0.1 </dev/null >/dev/null 2>"$dir/err"; then
    echo "a sound device answers here: the no-device message is not checked"
else
    [ "$(cat "$dir/err")" = "vell: no sound device: use --device null to play without sound" ] ||
        fail "no device: $(cat "$dir/err")"
fi
expect_status 1 play "$dir/tone.wav" --device no-such-device-here
grep -qF "null" "$dir/err" || fail "an unknown device does not list the devices: $(cat "$dir/err")"
expect_status 1 play "$dir/missing.wav" --device null
expect_status 1 play "$dir/tone.wav" --device null --metronome
expect_status 1 play "$dir/tone.wav" --device null --from 4
expect_status 2 play "$dir/tone.wav" --device null --volume 3
expect_status 2 play "$dir/tone.wav" --device null --for soon
expect_status 2 play --device null

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "vell play: all checks passed"
