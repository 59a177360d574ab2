#!/bin/bash
# Rewrites the seed corpora: vell_fuzz_seeds for what the engine writes itself, then a few tiny
# audio files made by ffmpeg. Usage: fuzz/make-seeds.sh BUILD_DIR (a build with VELL_BUILD_FUZZ).
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="${1:?usage: make-seeds.sh BUILD_DIR}"
cmake --build "$build" --target vell_fuzz_seeds
"$build/fuzz/vell_fuzz_seeds" "$here/corpus"

# The AudioFile target takes its file name's extension from the first byte (an index into its
# list: .wav .mp3 .flac .m4a .ogg .aiff .opus .caf).
if command -v ffmpeg >/dev/null; then
    tmp="$(mktemp -d)"
    trap 'rm -rf "$tmp"' EXIT
    make_audio() { # INDEX NAME EXTENSION ENCODER OPTIONS...
        local index=$1 name=$2 ext=$3
        shift 3
        ffmpeg -nostdin -loglevel error -f lavfi -i "sine=frequency=440:sample_rate=8000:duration=0.1" \
            -ac 1 "$@" "$tmp/$name.$ext"
        { printf "\\x$(printf %02x "$index")"; cat "$tmp/$name.$ext"; } >"$here/corpus/AudioFile/$name"
    }
    make_audio 1 sine.mp3 mp3 -c:a libmp3lame -b:a 8k
    make_audio 2 sine.flac flac -c:a flac
    make_audio 3 sine.m4a m4a -c:a aac -b:a 8k
    make_audio 4 sine.ogg ogg -c:a libvorbis
    make_audio 5 sine.aiff aiff -c:a pcm_s16be
    make_audio 6 sine.opus opus -c:a libopus -b:a 6k -ar 8000
    # Formats that take the other conversion paths: many channels folded down, float, 24-bit,
    # compressed PCM, and a stream whose rate and channels change halfway.
    make_audio 0 six-channels.wav wav -ac 6 -c:a pcm_s16le -t 0.04
    make_audio 0 float.wav wav -c:a pcm_f32le -t 0.05
    make_audio 5 24-bit.aiff aiff -c:a pcm_s24be -t 0.05
    make_audio 0 ima-adpcm.wav wav -c:a adpcm_ima_wav -t 0.05
    make_audio 0 mu-law.wav wav -c:a pcm_mulaw -t 0.05
    make_audio 3 alac.m4a m4a -c:a alac -t 0.05
    make_audio 7 sine.caf caf -c:a pcm_s16le -t 0.05
    ffmpeg -nostdin -loglevel error -f lavfi -i "sine=frequency=440:sample_rate=16000:duration=0.1" \
        -ac 2 -c:a libmp3lame -b:a 16k "$tmp/second.mp3"
    { printf '\x01'; cat "$tmp/sine.mp3.mp3" "$tmp/second.mp3"; } >"$here/corpus/AudioFile/rate-change.mp3"
fi
