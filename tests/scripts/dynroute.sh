#!/usr/bin/env bash
# The route-type example: warnings routed to a type of the program's own are
# counted there; once the type is removed they reach standard error again.
set -euo pipefail
build=$1
demo=$build/examples/dynroute_demo
fail() { echo "FAIL: $*" >&2; exit 1; }
export NLSPATH="$build/nls/msg/%L/%N"
unset LC_ALL LC_MESSAGES LANG KP_SVC_ROUTING_FILE SVC_WARNING
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

"$demo" 4 >"$dir/out" 2>"$dir/err" || fail "exit status $?"
want="COUNTER summary: 1 route(s) opened, 0 closed
  WARNING: 4 record(s)
  last: XKJSC0156E   The read system routine failed: system error code: 3"
[ "$(cat "$dir/out")" = "$want" ] || fail "summary: $(cat "$dir/out")"
# Only the warning after the removal, as a two-line record on standard error.
[ "$(wc -l <"$dir/err")" = 2 ] || fail "standard error: $(cat "$dir/err")"
grep -q " WARNING wsc core dynroute_demo.c [0-9]* 0x" "$dir/err" || fail "prefix: $(cat "$dir/err")"
grep -qx "XKJSC0156E   The write system routine failed: system error code: 99" "$dir/err" ||
  fail "text: $(cat "$dir/err")"
echo "dynroute: ok"
