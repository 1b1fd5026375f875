#!/usr/bin/env bash
# The corvane tool's contract, command by command, against corvane-rp: what goes to standard
# output, the exit status, and the one JSON error line on standard error. Also: a response with
# one flipped byte is refused by the relying party.
#
# usage: contract_test.sh BUILD_DIR
set -uo pipefail

build=$1
rp="$build/tools/corvane-rp/corvane-rp"
corvane="$build/tools/corvane/corvane"
work=$(mktemp -d)
rp_pid=""
trap '[ -n "$rp_pid" ] && kill "$rp_pid" 2>/dev/null; rm -rf "$work"' EXIT
failures=0
check() {  # check NAME CONDITION...
  local name=$1; shift
  if "$@"; then echo "ok   $name"; else echo "FAIL $name"; failures=$((failures + 1)); fi
}

"$rp" serve --state-dir "$work/rp" --port 0 --facet-id "$("$corvane" facet-id)" > "$work/rp.out" &
rp_pid=$!
for _ in $(seq 50); do [ -s "$work/rp.out" ] && break; sleep 0.1; done
base="https://127.0.0.1:$(head -n 1 "$work/rp.out")"
ca="$work/rp/ca.pem"
fetch() { curl -sSf --cacert "$ca" "$base$1"; }
verdict() { curl -sS --cacert "$ca" -X POST --data-binary @"$2" "$base$1" | jq -r .ok; }
c=("$corvane" --home "$work/home" --ca-file "$ca")
scripted=(--pattern 0,1,2,5,8,7 --confirm)
# run NAME ARGS...: stdout to NAME.out, stderr to NAME.err, status to NAME.status
run() { local n=$1; shift; "$@" > "$work/$n.out" 2> "$work/$n.err"; echo $? > "$work/$n.status"; }
status() { [ "$(cat "$work/$1.status")" = "$2" ]; }
quiet() { [ ! -s "$work/$1.out" ]; }
error_line() {  # error_line NAME CODE NAME_TEXT: exactly one JSON line with code, name, message
  [ "$(wc -l < "$work/$1.err")" = 1 ] &&
    [ "$(jq -c '[.code, .name, (.message | type)]' "$work/$1.err")" = "[$2,\"$3\",\"string\"]" ]
}

run facet "${c[@]}" facet-id
check "facet-id prints the facet ID" grep -qx "ios:bundle-id:org.corvane.demo" "$work/facet.out"
run name "$corvane" status-name 20003
check "status-name names the code" grep -qx USER_HAS_ENROLLED "$work/name.out"
run badname "$corvane" status-name 12345
check "status-name refuses an unknown code" eval 'status badname 1 && quiet badname && error_line badname 60001 INVALID_ARGUMENT'

run discover "${c[@]}" discover
check "discover prints the discovery JSON" eval 'status discover 0 && [ "$(jq -r .clientVendor "$work/discover.out")" = 0F3D ]'

run discoverbio "${c[@]}" --biometry fprintd discover
check "without a reader only the pattern lock is offered" eval 'status discoverbio 0 && [ "$(jq -c "[.availableAuthenticators[].userVerification]" "$work/discoverbio.out")" = "[146]" ]'

fetch "/uaf/reg/request?username=alice" > "$work/reg.json"
run supported "${c[@]}" supported --request - < "$work/reg.json"
check "supported reads the request from standard input" eval 'status supported 0 && [ "$(jq -r .status "$work/supported.out")" = 2 ]'

run register "${c[@]}" "${scripted[@]}" register --request "$work/reg.json" --user-verification pattern --display-name Alice
check "register prints a response the relying party accepts" eval 'status register 0 && [ "$(verdict /uaf/reg/response "$work/register.out")" = true ]'

fetch "/uaf/auth/request?username=alice&transaction=Hello" > "$work/auth.json"
run auth "${c[@]}" "${scripted[@]}" authenticate --request "$work/auth.json" --username alice --display-name Alice
# One flipped byte in the middle of the assertion's base64url text.
jq -c '.[0].assertions[0].assertion |= (.[0:40] + (if .[40:41] == "A" then "B" else "A" end) + .[41:])' \
  "$work/auth.out" > "$work/tampered.json"
check "a response with one flipped byte is refused" eval '[ "$(verdict /uaf/auth/response "$work/tampered.json")" = false ]'
fetch "/uaf/auth/request?username=alice&transaction=Hello" > "$work/auth2.json"
run auth2 "${c[@]}" "${scripted[@]}" authenticate --request "$work/auth2.json" --username alice
check "authenticate prints a response the relying party accepts" eval 'status auth2 0 && [ "$(verdict /uaf/auth/response "$work/auth2.out")" = true ]'

run cancelled "${c[@]}" --pattern 0,1,2,5,8,7 --cancel authenticate --request "$work/auth2.json" --username alice
check "a refused request prints only the error line" eval 'status cancelled 1 && quiet cancelled && error_line cancelled 30000 USER_CANCELLED'
run notjson "${c[@]}" authenticate --request - --username alice <<< "not json"
check "a request that is not JSON" eval 'status notjson 1 && quiet notjson && error_line notjson 60001 INVALID_ARGUMENT'

run sync "${c[@]}" sync --username alice --data1 ZANDREL_FIDO_NO_DATA --data2 ZANDREL_FIDO_NO_DATA
check "sync with the no-data marker" eval 'status sync 0 && quiet sync'
fetch "/wb/bundle?username=alice" | jq .regData1 > "$work/tables.json"
run synctables "${c[@]}" sync --username alice --tables "$work/tables.json"
check "sync with a tables file" status synctables 0

run deraaid "${c[@]}" deregister --aaid 0F3D#0002 --key-id no-such-key --app-id "$base/uaf/facets" --username alice
check "deregister by AAID and key ID" status deraaid 0
keyid=$(fetch "/uaf/auth/request?username=alice" | jq -r '.[0].policy.accepted[0][0].keyIDs[0]')
fetch "/uaf/dereg/request?aaid=0F3D%230002&keyID=$keyid" > "$work/dereg.json"
run dereq "${c[@]}" deregister --request "$work/dereg.json"
check "deregister by request" status dereq 0
run deruser "${c[@]}" deregister --username alice
check "deregister by user name" status deruser 0
run gone "${c[@]}" "${scripted[@]}" authenticate --request "$work/auth2.json" --username alice
check "no authentication after deregistration" eval 'status gone 1 && quiet gone && error_line gone 20001 USER_NOT_ENROLLED'

run unknown "${c[@]}" fly
check "an unknown command" eval 'status unknown 1 && quiet unknown'

[ "$failures" -eq 0 ] && { echo "contract: ok"; exit 0; }
echo "contract: $failures failed"; exit 1
