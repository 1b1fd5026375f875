#!/usr/bin/env bash
# The terminal screens under tmux, driven by keystrokes: the registration grid is drawn, a
# five-dot pattern is refused with its text, a six-dot pattern is confirmed; an authentication
# with a transaction shows the content and takes the confirmation. The relying party verifies
# both responses.
#
# usage: terminal_test.sh BUILD_DIR
set -euo pipefail

build=$1
rp="$build/tools/corvane-rp/corvane-rp"
corvane="$build/tools/corvane/corvane"
work=$(mktemp -d)
session="corvane-screens-$$"
rp_pid=""
cleanup() {
  tmux kill-session -t "$session" 2>/dev/null || true
  [ -n "$rp_pid" ] && kill "$rp_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

"$rp" serve --state-dir "$work/rp" --port 0 --facet-id "$("$corvane" facet-id)" > "$work/rp.out" &
rp_pid=$!
for _ in $(seq 50); do [ -s "$work/rp.out" ] && break; sleep 0.1; done
base="https://127.0.0.1:$(head -n 1 "$work/rp.out")"
ca="$work/rp/ca.pem"
fetch() { curl -sSf --cacert "$ca" "$base$1"; }
verified() {
  [ "$(curl -sS --cacert "$ca" -X POST --data-binary @"$2" "$base$1" | jq -r .ok)" = true ] ||
    { echo "the relying party refused $2"; exit 1; }
}

# Waits until the pane (with its history) shows TEXT.
shows() {
  for _ in $(seq 150); do
    tmux capture-pane -p -S -2000 -t "$session" | grep -qF -- "$1" && return 0
    sleep 0.1
  done
  echo "the screen never showed: $1"
  tmux capture-pane -p -S -2000 -t "$session"
  exit 1
}
type() { tmux send-keys -t "$session" -l "$1"; tmux send-keys -t "$session" Enter; }
finished() {
  for _ in $(seq 150); do [ -s "$work/status" ] && break; sleep 0.1; done
  [ "$(cat "$work/status" 2>/dev/null)" = 0 ] || { echo "corvane failed:"; cat "$work/err.txt"; exit 1; }
  rm -f "$work/status"
}
run() {  # run OUTPUT ARGS...: corvane in the tmux pane, its terminal the pane
  local out=$1; shift
  tmux new-session -d -s "$session" -x 100 -y 40 \
    "NO_COLOR=1 $corvane --home $work/home --ca-file $ca $* > $out 2> $work/err.txt; echo \$? > $work/status; sleep 60"
}

fetch "/uaf/reg/request?username=alice" > "$work/reg.json"
run "$work/reg-response.json" register --request "$work/reg.json" --user-verification pattern \
  --display-name Alice
shows "Create an unlock pattern"
shows "  0   1   2"
shows "  6   7   8"
type "0,1,2,5,8"
shows "Your pattern must connect at least 6 dots. Please try again."
type "0,1,2,5,8,7"
type "0,1,2,5,8,7"
finished
verified /uaf/reg/response "$work/reg-response.json"
tmux kill-session -t "$session"

fetch "/uaf/auth/request?username=alice&transaction=Pay%2010%20EUR%20to%20Bob" > "$work/auth.json"
run "$work/auth-response.json" authenticate --request "$work/auth.json" --username alice
shows "Pay 10 EUR to Bob"
type "c"
shows "Dots (e.g."
type "0,1,2,5,8,7"
finished
verified /uaf/auth/response "$work/auth-response.json"
echo "terminal screens: ok"
