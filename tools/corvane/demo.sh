#!/usr/bin/env bash
# The whole road against a relying party that checks every byte: discover, register a user with
# the pattern lock, sync the user's white-box tables, authenticate with a transaction and with
# "wb_encryption", deregister, and see a further authentication refused.
#
# usage: demo.sh BUILD_DIR
# Interactive on a terminal (draw the pattern 0,1,2,5,8,7 or your own, twice to register);
# scripted otherwise. Exits 0 only when every verdict is right.
set -uo pipefail

build=${1:-build/default}
rp="$build/tools/corvane-rp/corvane-rp"
corvane="$build/tools/corvane/corvane"
work=$(mktemp -d)
rp_pid=""
cleanup() {
  [ -n "$rp_pid" ] && kill "$rp_pid" 2>/dev/null && wait "$rp_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

if [ -t 0 ] && [ -z "${DEMO_SCRIPTED:-}" ]; then
  screens=()
  echo "Interactive: the pattern and transaction screens appear in this terminal."
else
  screens=(--pattern 0,1,2,5,8,7 --confirm)
fi

failures=0
step() { printf '\n== %s\n' "$*"; }
verdict() {  # verdict EXPECTED(ok|refused) TEXT
  if [ "$1" = ok ]; then echo "   verdict: ok"; else echo "   verdict: refused, as it should be"; fi
}
wrong() { echo "   WRONG: $*"; failures=$((failures + 1)); }

facet=$("$corvane" facet-id) || { echo "cannot run $corvane"; exit 1; }
"$rp" serve --state-dir "$work/rp" --port 0 --facet-id "$facet" > "$work/rp.out" 2> "$work/rp.err" &
rp_pid=$!
for _ in $(seq 50); do [ -s "$work/rp.out" ] && break; sleep 0.1; done
port=$(head -n 1 "$work/rp.out")
[ -n "$port" ] || { echo "corvane-rp did not start:"; cat "$work/rp.err"; exit 1; }
base="https://127.0.0.1:$port"
ca="$work/rp/ca.pem"
client=("$corvane" --home "$work/home" --ca-file "$ca")
fetch() { curl -sSf --cacert "$ca" "$base$1"; }
post() { curl -sS --cacert "$ca" -X POST --data-binary @"$2" "$base$1"; }
# The relying party's verdict on a response: "ok" or the failing checks.
judge() {
  local result
  result=$(post "$1" "$2")
  printf '%s' "$result" > "$work/verdict.json"
  if [ "$(jq -r .ok <<< "$result")" = true ]; then
    echo "   relying party: $(jq -r .passed <<< "$result") checks passed"
    return 0
  fi
  echo "   relying party: $(jq -r '[.checks[] | select(.ok | not) | "\(.name): \(.reason)"] | join("; ")' <<< "$result")"
  return 1
}

echo "corvane-rp listens on $base; this application is $facet"

step "1. discover"
if "${client[@]}" discover > "$work/discover.json"; then
  jq -r '.availableAuthenticators[] | "   authenticator \(.aaid): \(.title), user verification \(.userVerification)"' "$work/discover.json"
  verdict ok
else
  wrong "discovery failed"
fi

step "2. register alice with the pattern lock"
fetch "/uaf/reg/request?username=alice" > "$work/reg-request.json"
if "${client[@]}" "${screens[@]}" register --request "$work/reg-request.json" \
    --user-verification pattern --display-name Alice > "$work/reg-response.json" &&
   judge /uaf/reg/response "$work/reg-response.json" > "$work/judge.txt"; then
  cat "$work/judge.txt"; verdict ok
  keyid=$(jq -r '.registrations[0].keyID' "$work/verdict.json")
else
  cat "$work/judge.txt" 2>/dev/null; wrong "registration"
  keyid=none
fi

step "3. sync alice's white-box tables"
if fetch "/wb/bundle?username=alice" | jq .regData1 > "$work/tables.json" &&
   "${client[@]}" sync --username alice --tables "$work/tables.json" > /dev/null; then
  echo "   $(wc -c < "$work/tables.json") bytes of tables stored"; verdict ok
else
  wrong "sync"
fi

step "4. authenticate alice: transaction \"Pay 10 EUR to Bob\" and wb_encryption"
fetch "/uaf/auth/request?username=alice&transaction=Pay%2010%20EUR%20to%20Bob&wb=1" > "$work/auth-request.json"
if "${client[@]}" "${screens[@]}" authenticate --request "$work/auth-request.json" \
    --username alice --display-name Alice > "$work/auth-response.json" &&
   judge /uaf/auth/response "$work/auth-response.json" > "$work/judge.txt"; then
  cat "$work/judge.txt"; verdict ok
else
  cat "$work/judge.txt" 2>/dev/null; wrong "authentication"
fi

step "5. deregister alice's key"
fetch "/uaf/dereg/request?aaid=0F3D%230002&keyID=$keyid" > "$work/dereg-request.json"
if "${client[@]}" deregister --request "$work/dereg-request.json" > /dev/null; then
  echo "   key $keyid removed"; verdict ok
else
  wrong "deregistration"
fi

step "6. authenticate alice again"
fetch "/uaf/auth/request" > "$work/auth2-request.json"
if "${client[@]}" "${screens[@]}" authenticate --request "$work/auth2-request.json" \
    --username alice > /dev/null 2> "$work/error.json"; then
  wrong "an authentication after deregistration was answered"
else
  echo "   corvane: $(cat "$work/error.json")"; verdict refused
fi

echo
if [ "$failures" -eq 0 ]; then echo "Every verdict is right."; exit 0; fi
echo "$failures step(s) went wrong."; exit 1
