#!/usr/bin/env bash
# Opening a 5-minute 44.1 kHz stereo MP3 and M4A against FFmpeg decoding the same file to
# nowhere: medians of N runs each (N=7 unless set), and peak memory against the decoded size.
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
runs=${N:-7}
tool="$build/bench/audiofile/audiofile_open"
if [ ! -x "$tool" ]; then
    cmake --build "$build" --target audiofile_open >/dev/null
fi
for need in ffmpeg sox; do
    command -v "$need" >/dev/null || { echo "audiofile: $need is missing, skipped"; exit 0; }
done
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# A sweep on the left and noise on the right: nothing a codec can shortcut.
sox -V1 -r 44100 -c 2 -n -b 16 "$dir/long.wav" synth 300 sine 100-6000 pinknoise vol 0.5
ffmpeg -v error -y -i "$dir/long.wav" -c:a libmp3lame -b:a 192k "$dir/long.mp3"
ffmpeg -v error -y -i "$dir/long.wav" -c:a aac -b:a 192k "$dir/long.m4a"
rm "$dir/long.wav"
sox -V1 -r 44100 -c 2 -n -b 16 "$dir/short.wav" synth 1 sine 440
ffmpeg -v error -y -i "$dir/short.wav" -c:a libmp3lame -b:a 192k "$dir/short.mp3"
ffmpeg -v error -y -i "$dir/short.wav" -c:a aac -b:a 192k "$dir/short.m4a"

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
now() { date +%s.%N; }

printf '%-9s %9s %9s %9s %7s %11s %9s %9s %9s %9s\n' file ffmpeg_s vell_s open_s ratio \
    decoded_MiB peak_MiB peak/dec added/dec warm/dec
for f in long.mp3 long.m4a; do
    : > "$dir/ffmpeg.t"
    : > "$dir/vell.t"
    : > "$dir/open.t"
    for ((i = 0; i < runs; i++)); do
        # Alternate the two so drift in machine load hits both alike.
        t0=$(now)
        ffmpeg -v error -i "$dir/$f" -f f32le -y /dev/null
        t1=$(now)
        line=$("$tool" "$dir/$f")
        t2=$(now)
        awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }' >>"$dir/ffmpeg.t"
        awk -v a="$t1" -v b="$t2" 'BEGIN { print b - a }' >>"$dir/vell.t"
        sed 's/.*open_s=\([0-9.]*\).*/\1/' <<<"$line" >>"$dir/open.t"
    done
    ff=$(median <"$dir/ffmpeg.t")
    ours=$(median <"$dir/vell.t")
    open=$(median <"$dir/open.t")
    decoded=$(sed 's/.*decoded_kib=\([0-9]*\).*/\1/' <<<"$line")
    before=$(sed 's/.*rss_before_kib=\([0-9]*\).*/\1/' <<<"$line")
    peak=$(sed 's/.*peak_rss_kib=\([0-9]*\).*/\1/' <<<"$line")
    warm=$("$tool" "$dir/$f" "$dir/short.${f##*.}")
    warmBefore=$(sed 's/.*rss_before_kib=\([0-9]*\).*/\1/' <<<"$warm")
    warmPeak=$(sed 's/.*peak_rss_kib=\([0-9]*\).*/\1/' <<<"$warm")
    awk -v f="$f" -v ff="$ff" -v ours="$ours" -v open="$open" -v d="$decoded" -v b="$before" \
        -v p="$peak" -v wb="$warmBefore" -v wp="$warmPeak" 'BEGIN {
        printf "%-9s %9.3f %9.3f %9.3f %7.3f %11.1f %9.1f %9.3f %9.3f %9.3f\n", f, ff, ours, open,
            ours / ff, d / 1024, p / 1024, p / d, (p - b) / d, (wp - wb) / d }'
done
echo "ratio: whole vell process / whole ffmpeg process (target <= 1.10)"
echo "peak/dec: the process's whole peak (with FFmpeg's libraries mapped) over the decoded size"
echo "added/dec: peak above the process's memory before the open, over the decoded size (target <= 1.10)"
echo "warm/dec: the same after a first small open paid FFmpeg's one-time set-up"
