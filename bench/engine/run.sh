#!/usr/bin/env bash
# The engine (file player and output unit): exporting a 60 s file at half speed against the
# rubberband tool (best level with the metronome against R3, good level against R2; medians of
# N runs each, N=3 unless set; target: the engine at least as fast), then the CPU time of each
# 512-frame render cycle with everything on, as a share of its 11.6 ms deadline (targets: median
# at most 10 %, worst at most 30 %): paced as on a device, then the same cycles run three times
# with each cycle's least time kept (the engine's own cost, without a shared machine's noise),
# and the cycles after speed, pitch and position changes (also in 64-frame cycles).
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
runs=${N:-3}
export_tool="$build/bench/engine/engine_export"
cycle_tool="$build/bench/engine/engine_render_cycle"
if [ ! -x "$export_tool" ] || [ ! -x "$cycle_tool" ]; then
    cmake --build "$build" --target engine_export engine_render_cycle >/dev/null
fi
for need in sox rubberband; do
    command -v "$need" >/dev/null || { echo "engine: $need is missing, skipped"; exit 0; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# 60 s of music at 120 bpm: plucked chords on every beat, mostly left, and a noise hat on the
# off-beats, mostly right.
chords=("C3 E3 G3 C4" "A2 C3 E3 A3" "F2 A2 C3 F3" "G2 B2 D3 G3")
n=0
for chord in "${chords[@]}"; do
    read -r -a note <<<"$chord"
    sox -n -r 44100 -c 1 "$work/c$n.wav" synth 0.5 pluck "${note[0]}" pluck "${note[1]}" \
        pluck "${note[2]}" pluck "${note[3]}" remix - gain -n -6
    n=$((n + 1))
done
sox -n -r 44100 -c 1 "$work/hat.wav" synth 0.05 whitenoise fade 0 0.05 0.045 pad 0.2 0.25 \
    gain -n -20
sox "$work/c0.wav" "$work/c1.wav" "$work/c2.wav" "$work/c3.wav" "$work/bar.wav"
sox "$work/hat.wav" "$work/hat.wav" "$work/hat.wav" "$work/hat.wav" "$work/hats.wav"
sox -M "$work/bar.wav" "$work/hats.wav" "$work/bar2.wav"
sox "$work/bar2.wav" "$work/music.wav" repeat 29 remix 1,2v0.5 1v0.8,2 gain -n -3
echo "test file: $(soxi -D "$work/music.wav") s, 44.1 kHz stereo; load before: $(cut -d' ' -f1-3 /proc/loadavg)"

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
timed() { # NAME COMMAND...: appends the wall and CPU seconds (user + system) of the command
    local name=$1
    shift
    /usr/bin/time -f "%e %U %S" -o "$work/time.txt" "$@" >"$work/out.txt" 2>&1 ||
        { cat "$work/out.txt" >&2; exit 1; }
    awk '{ print $1 }' "$work/time.txt" >>"$work/$name.wall"
    awk '{ print $2 + $3 }' "$work/time.txt" >>"$work/$name.cpu"
}

for ((i = 0; i < runs; i++)); do
    # Alternate engine and peer so drift in machine load hits both alike.
    timed best "$export_tool" "$work/music.wav" "$work/best.wav" 206 303 0.5 metronome
    timed r3 rubberband -q -3 -t 2 "$work/music.wav" "$work/r3.wav"
    timed good "$export_tool" "$work/music.wav" "$work/good.wav" 206 300 0.5
    timed r2 rubberband -q -t 2 "$work/music.wav" "$work/r2.wav"
    timed r2single rubberband -q --no-threads -t 2 "$work/music.wav" "$work/r2single.wav"
done
echo "outputs: engine best $(soxi -D "$work/best.wav") s, good $(soxi -D "$work/good.wav") s;" \
    "rubberband -3 $(soxi -D "$work/r3.wav") s, -t 2 $(soxi -D "$work/r2.wav") s"
echo "export of the whole file at 0.5x, whole processes, medians of $runs (ratio = peer / engine;" \
    "above 1 the engine is faster; target >= 1.0):"
compare() { # LABEL ENGINE PEER-LABEL PEER
    local ew ec pw pc
    ew=$(median <"$work/$2.wall"); ec=$(median <"$work/$2.cpu")
    pw=$(median <"$work/$4.wall"); pc=$(median <"$work/$4.cpu")
    awk -v l="$1" -v p="$3" -v ew="$ew" -v ec="$ec" -v pw="$pw" -v pc="$pc" 'BEGIN {
        printf "  %s: %.2f s, %s: %.2f s, ratio %.2f (%s); CPU %.2f s against %.2f s, ratio %.2f\n",
            l, ew, p, pw, pw / ew, (pw / ew >= 1.0 ? "ok" : "below 1.0"), ec, pc, pc / ec }'
    echo "    wall of each run: $(paste -sd' ' "$work/$2.wall") against $(paste -sd' ' "$work/$4.wall")"
}
compare "engine best+metronome" best "rubberband -3" r3
compare "engine good" good "rubberband -t 2" r2
# R2 offline runs one thread per channel; the engine renders on one thread.
compare "engine good" good "rubberband --no-threads -t 2" r2single

verdict() { # FILE: the targets against the RESULT line
    awk '/^RESULT/ { split($2, m, "="); split($4, w, "="); split($5, s, "=");
          printf "  median %.2f %% (target <= 10: %s), worst %.2f %% (target <= 30: %s), worst after the first cycle %.2f %%\n",
              m[2], (m[2] <= 10 ? "ok" : "over"), w[2], (w[2] <= 30 ? "ok" : "over"), s[2] }' "$1"
}
echo
echo "render cycles, best level, 0.5x, +2 semitones, isolation, metronome and notes, as on a device:"
"$cycle_tool" "$work/music.wav" --seconds 60 | tee "$work/cycle.txt" | grep -v '^RESULT'
verdict "$work/cycle.txt"
echo
echo "the same cycles back to back, reader waiting, three times; each cycle's least time:"
"$cycle_tool" "$work/music.wav" --seconds 60 --unpaced --reader-waits --repeat 3 |
    tee "$work/own.txt" | grep -v '^RESULT'
verdict "$work/own.txt"
echo
echo "with a change every 2 s (speed 0.5 <-> 0.6, +2 <-> +3 semitones, seek 5 s back), likewise:"
"$cycle_tool" "$work/music.wav" --seconds 30 --changes 2 --unpaced --reader-waits --repeat 3 |
    grep -v '^RESULT'
echo
echo "the same changes in 64-frame cycles (a host's small buffers; the device runs 512):"
"$cycle_tool" "$work/music.wav" --seconds 30 --cycle 64 --changes 2 --unpaced --reader-waits \
    --repeat 3 | grep -E '^(thread CPU|worst within)'
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
