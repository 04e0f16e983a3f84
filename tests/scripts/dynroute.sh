#!/usr/bin/env bash
# The route-type example: warnings routed to a type of the program's own are
# counted there; once the type is removed they reach standard error again.
. "$(dirname "$0")/lib/common.sh"
build=$1
demo=$build/examples/dynroute_demo
export NLSPATH="$build/nls/msg/%L/%N"
unset LC_ALL LC_MESSAGES LANG KP_SVC_ROUTING_FILE SVC_WARNING

"$demo" 4 >"$tmp/out" 2>"$tmp/err" || fail "exit status $?"
want="COUNTER summary: 1 route(s) opened, 0 closed
  WARNING: 4 record(s)
  last: XKJSC0156E   The read system routine failed: system error code: 3"
[ "$(cat "$tmp/out")" = "$want" ] || fail "summary: $(cat "$tmp/out")"
# Only the warning after the removal, as a two-line record on standard error.
[ "$(wc -l <"$tmp/err")" = 2 ] || fail "standard error: $(cat "$tmp/err")"
grep -q " WARNING wsc core dynroute_demo.c [0-9]* 0x" "$tmp/err" || fail "prefix: $(cat "$tmp/err")"
grep -qx "XKJSC0156E   The write system routine failed: system error code: 99" "$tmp/err" ||
  fail "text: $(cat "$tmp/err")"
echo "dynroute: ok"
