#!/usr/bin/env bash
# vell demo in a real terminal (tmux, 80x24): the practice view follows the playhead, the keys
# change speed and pitch and pause, and every way out (q, Ctrl-C, a crash signal) gives the
# terminal back.
set -euo pipefail
: "${VELL:?path of the vell tool}"
command -v tmux >/dev/null || { echo "skipped: tmux missing"; exit 77; }
dir=$(mktemp -d)
socket=""
tm() { tmux -L "$socket" "$@"; }
sockets=()
trap 'for s in "${sockets[@]}"; do tmux -L "$s" kill-server 2>/dev/null || true; done; rm -rf "$dir"' EXIT
failures=0
fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }

# start NAME: vell demo in a fresh 80x24 window, its exit status kept in $dir/NAME.status.
start() { # each run on a server of its own: a server still shutting down cannot take it
    socket="vell-keys-$$-$1"
    sockets+=("$socket")
    tm new-session -d -x 80 -y 24 \
        "cd '$dir' && '$VELL' demo --device null; echo \$? >'$dir/$1.status'; sleep 60"
}
screen() { tm capture-pane -p; }
# wait_for PATTERN: until the screen shows it (5 s at most).
wait_for() {
    for _ in $(seq 50); do
        screen | grep -qE -- "$1" && return 0
        sleep 0.1
    done
    fail "the screen never showed '$1':"$'\n'"$(screen)"
    return 1
}
# restored NAME STATUS: vell exited with STATUS and left the alternate screen.
restored() {
    for _ in $(seq 50); do [ -s "$dir/$1.status" ] && break; sleep 0.1; done
    [ "$(cat "$dir/$1.status" 2>/dev/null)" = "$2" ] ||
        fail "$1: exit $(cat "$dir/$1.status" 2>/dev/null), expected $2"
    [ "$(tm display -p '#{alternate_on}')" = 0 ] || fail "$1: the alternate screen is still on"
}

start keys
wait_for "playing +0:0[1-9]" || true
first=$(screen | grep -oE '0:[0-9]{2}\.[0-9] / 0:31.0' | head -1)
sleep 1
second=$(screen | grep -oE '0:[0-9]{2}\.[0-9] / 0:31.0' | head -1)
[ "$first" != "$second" ] || fail "the time does not advance: $first"
screen | awk 'length > 80 { bad = 1 } END { exit bad }' || fail "a line is wider than 80"
tm send-keys ']'
wait_for "speed 105%" || true
tm send-keys '+'
wait_for "pitch \+1 semitone " || true
tm send-keys ' '
wait_for "paused" || true
paused=$(screen | grep -oE '0:[0-9]{2}\.[0-9] / ' | head -1)
sleep 0.5
[ "$(screen | grep -oE '0:[0-9]{2}\.[0-9] / ' | head -1)" = "$paused" ] ||
    fail "the time moves while paused"
tm send-keys '?'
wait_for "hold to freeze" || true
tm send-keys 'q'
restored keys 0
screen | grep -qE "^played 0:0[0-9]" || fail "no 'played' line after q: $(screen)"

start interrupt
wait_for "playing" || true
tm send-keys C-c
restored interrupt 0

start crash
wait_for "playing" || true
pkill -SEGV -f "$VELL demo --device null" || fail "no vell process to signal"
restored crash 139

[ "$failures" = 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "vell play keys: all checks passed"
