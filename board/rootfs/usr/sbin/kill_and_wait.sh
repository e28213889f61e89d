#!/usr/bin/dash
# kill_and_wait.sh NAME: ends every process of that name and waits until it is gone; after 5 s kills it. Succeeds too if
# there is none.
set -eu

[ $# -eq 1 ] || { echo "usage: kill_and_wait.sh NAME" >&2; exit 2; }
running() {
    # The kernel keeps only the first 15 bytes of a program's name.
    pgrep -x "$(printf %.15s "$1")" > /dev/null
}
running "$1" || exit 0
killall -q -TERM "$1" || true
for _ in $(seq 50); do
    running "$1" || exit 0
    sleep 0.1
done
killall -q -KILL "$1" || true
while running "$1"; do sleep 0.1; done
