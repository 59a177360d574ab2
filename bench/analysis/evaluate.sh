#!/usr/bin/env bash
# Analyses every known-truth song in DIR with the vell tool and scores the documents
# (evaluate.sh VELL DIR); the documents land beside the songs.
set -euo pipefail
vell=${1:?usage: evaluate.sh VELL DIR}
dir=${2:?usage: evaluate.sh VELL DIR}
here=$(cd "$(dirname "$0")" && pwd)
for song in "$dir"/*.wav; do
    "$vell" analyze "$song" --force >/dev/null || echo "analysis failed: $song" >&2
done
/usr/bin/python3 "$here/score.py" "$dir"
