#!/usr/bin/env bash
# Load of the isolation engine on 44.1 kHz stereo as a share of one core, for a few device block
# sizes. The budget is 10 % of real time with isolation on.
set -euo pipefail
build=$(cd "${1:?usage: run.sh BUILD_DIR}" && pwd)
tool="$build/bench/isolation/isolation_load"
if [ ! -x "$tool" ]; then
    cmake --build "$build" --target isolation_load >/dev/null
fi
for block in 64 512 4096; do
    echo "-- block $block"
    "$tool" "$block"
done
