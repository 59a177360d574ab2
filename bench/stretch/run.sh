#!/usr/bin/env bash
# Cost of the stretcher at half speed (time factor 2) in 512-frame slices on a 60 s musical
# file: the adapter against raw Rubber Band in real-time mode (same options; target: at most
# 1.05x), and beside the rubberband tool (R2 and R3, offline) and sox tempo 0.5; then the best
# level at 96 kHz against raw R3 there.
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
tool="$build/bench/stretch/stretch_bench"
if [ ! -x "$tool" ]; then
    cmake --build "$build" --target stretch_bench >/dev/null
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 60 s of music at 120 bpm: plucked chords on every beat over a bass line, and a noise hat on
# the off-beats.
chords=("C3 E3 G3 C4" "A2 C3 E3 A3" "F2 A2 C3 F3" "G2 B2 D3 G3")
n=0
for chord in "${chords[@]}"; do
    set -- $chord
    sox -n -r 44100 -c 1 "$work/c$n.wav" synth 0.5 pluck "$1" pluck "$2" pluck "$3" pluck "$4" \
        remix - gain -n -6
    n=$((n + 1))
done
sox -n -r 44100 -c 1 "$work/hat.wav" synth 0.05 whitenoise fade 0 0.05 0.045 pad 0.2 0.25 \
    gain -n -20
sox "$work/c0.wav" "$work/c1.wav" "$work/c2.wav" "$work/c3.wav" "$work/bar.wav"
sox "$work/hat.wav" "$work/hat.wav" "$work/hat.wav" "$work/hat.wav" "$work/hats.wav"
sox -m "$work/bar.wav" "$work/hats.wav" "$work/bar2.wav"
sox "$work/bar2.wav" -c 2 "$work/music.wav" repeat 29 remix 1 1v0.8 gain -n -3
sox "$work/music.wav" -t f32 -e floating-point "$work/music.f32"
seconds=$(soxi -D "$work/music.wav")
echo "test file: ${seconds} s, 44.1 kHz stereo"

"$tool" "$work/music.f32" 2 512 2 | tee "$work/bench.txt"

cpu() { # CPU seconds (user + system) of a command
    /usr/bin/time -f "%U %S" -o "$work/time.txt" "$@" >/dev/null 2>&1
    awk '{ print $1 + $2 }' "$work/time.txt"
}
best() { # the smallest of three runs
    local a b c
    a=$(cpu "$@"); b=$(cpu "$@"); c=$(cpu "$@")
    printf '%s\n%s\n%s\n' "$a" "$b" "$c" | sort -g | head -1
}

peers=()
if command -v rubberband >/dev/null; then
    r2=$(best rubberband -q -t 2 "$work/music.wav" "$work/r2.wav")
    r3=$(best rubberband -q -3 -t 2 "$work/music.wav" "$work/r3.wav")
    peers+=("rubberband-R2:$r2" "rubberband-R3:$r3")
fi
if command -v sox >/dev/null; then
    st=$(best sox "$work/music.wav" "$work/sox.wav" tempo 0.5)
    peers+=("sox-tempo:$st")
fi

echo
echo "CPU seconds for the whole file at half speed, and ratios (adapter / peer):"
printf '%-16s %8s   %s\n' peer "cpu s" "best  good  low-CPU"
for peer in "${peers[@]}"; do
    name=${peer%%:*}
    secs=${peer#*:}
    ratios=$(awk -v p="$secs" '/^RESULT/ { split($3, a, "="); printf "%5.2f ", a[2] / p }' "$work/bench.txt")
    printf '%-16s %8.2f   %s\n' "$name" "$secs" "$ratios"
done
awk '/^RESULT/ { split($3, r, "="); split($4, a, "=");
      printf "adapter / raw Rubber Band, %-5s %.3f %s\n", $2, a[2] / r[2], (a[2] / r[2] <= 1.05 ? "(ok, <= 1.05)" : "(over 1.05)") }' \
    "$work/bench.txt"

# At 96 kHz the best level runs Rubber Band at 48 kHz between its rate divider's filters; raw
# Rubber Band runs at 96 kHz.
echo
sox "$work/music.wav" -r 96000 -t f32 -e floating-point "$work/music96.f32"
"$tool" "$work/music96.f32" 2 512 1 96000 > "$work/bench96.txt"
awk '/^RESULT best/ { split($3, r, "="); split($4, a, "=");
      printf "96 kHz, best level: adapter %.2f s, raw R3 at 96 kHz %.2f s, ratio %.2f\n", a[2], r[2], a[2] / r[2] }' \
    "$work/bench96.txt"
