#!/usr/bin/env bash
# Song analysis: renders the known-truth songs (4/4, 3/4, 6/8, 2/4, 5/4 at 60-200 BPM, tempo
# steps and glides, swing, quiet intros, human-like drift, a key change), analyses each with
# vell analyze and scores it (score.py: beat F at the annotated and any metrical level, downbeat
# F, key, meter, chords; targets 0.75 / 0.85 / 0.6 / 70 % / - / 70 %); then speed as real-time
# factor on one core and peak memory against the decoded audio, on a 3-minute and a 20-minute
# MP3 made from the songs (targets: at least 20x; below twice the decoded audio).
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
vell="$build/tools/vell/vell"
truth="$build/bench/analysis/analysis_truth"
if [ ! -x "$vell" ] || [ ! -x "$truth" ]; then
    cmake --build "$build" --target vell analysis_truth >/dev/null
fi
for need in sox ffmpeg /usr/bin/python3; do
    command -v "$need" >/dev/null || { echo "analysis: $need is missing, skipped"; exit 0; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_CACHE_HOME="$work/cache"

"$truth" "$work/songs" >/dev/null
bash "$here/evaluate.sh" "$vell" "$work/songs"

echo
echo "speed and memory (one core; decoded audio is 44.1 kHz stereo float):"
mapfile -t songs < <(ls "$work"/songs/*.wav)
sox -V1 "${songs[@]:0:3}" "$work/three.wav"
sox -V1 "${songs[@]:0:21}" "$work/twenty.wav"
for name in three twenty; do
    ffmpeg -v error -i "$work/$name.wav" -b:a 192k "$work/$name.mp3"
    seconds=$(soxi -D "$work/$name.wav")
    taskset -c 0 /usr/bin/time -f "%e %U %M" -o "$work/time.txt" \
        "$vell" analyze "$work/$name.mp3" -o "$work/$name.json" --force >/dev/null
    # The decode alone, for the share of time and memory that is the analysis's.
    taskset -c 0 /usr/bin/time -f "%e %U %M" -o "$work/info.txt" "$vell" info "$work/$name.mp3" \
        >/dev/null
    read -r wall _ rss <"$work/time.txt"
    read -r decodeWall _ decodeRss <"$work/info.txt"
    awk -v n="$name" -v s="$seconds" -v w="$wall" -v r="$rss" -v dw="$decodeWall" -v dr="$decodeRss" 'BEGIN {
        decoded = s * 44100 * 2 * 4 / 1024 / 1024
        printf "  %s (%.0f s of MP3): %.2f s in all, %.0fx real time (target >= 20: %s); analysis after decoding %.2f s, %.0fx\n",
            n, s, w, s / w, (s / w >= 20 ? "ok" : "below"), w - dw, s / (w - dw)
        printf "    peak memory %.0f MiB, decoded audio %.0f MiB, ratio %.2f (target < 2: %s); decoding alone peaks at %.0f MiB, so the analysis adds %.0f MiB (%.2fx the decoded audio)\n",
            r / 1024, decoded, r / 1024 / decoded, (r / 1024 / decoded < 2 ? "ok" : "over"), dr / 1024,
            (r - dr) / 1024, (r - dr) / 1024 / decoded }'
done
