#!/usr/bin/env bash
# zar log --debug: debug messages of the product's components, with levels
# and routes from SVC_<COMPONENT>_DBG or a routing-file component line.
. "$(dirname "$0")/lib/common.sh"
build=$1
export NLSPATH="$build/nls/msg/%L/%N"
unset LC_ALL LC_MESSAGES LANG KP_SVC_ROUTING_FILE SVC_BRIEF SVC_WSC_DBG SVC_WSD_DBG
time_re='[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}I-----'

# Nothing configured: a debug message goes nowhere.
[ -z "$("$zar" log --debug 1 hello 2>&1)" ] || fail "printed without settings"
# SVC_WSC_DBG: printed up to the sub-component's level, with the debug prefix.
out=$(SVC_WSC_DBG="wsc:core.5,admin.2:STDOUT:" "$zar" log --debug 5 "n=%d s=%s" 42 abc)
echo "$out" | head -1 | grep -Eq "^$time_re zar DEBUG5 wsc core tools/zar/log [0-9]+ 0x[0-9a-f]{8,}$" ||
  fail "prefix line: $out"
[ "$(echo "$out" | sed -n 2p)" = "n=42 s=abc" ] || fail "text line: $out"
[ -z "$(SVC_WSC_DBG="wsc:core.5:STDOUT:" "$zar" log --debug 6 x)" ] || fail "level 6 printed"
[ -z "$(SVC_WSC_DBG="wsc:core.5,admin.2:STDOUT:" "$zar" log --debug 3 --sub admin x)" ] ||
  fail "admin at 2 printed level 3"
SVC_WSC_DBG="wsc:*.9:XMLSTDOUT:" "$zar" log --debug 7 --sub 1 x | grep -q '^<Trace Level="MAX">$' ||
  fail "XML trace record"

# A routing-file component line; a variable naming another component is
# refused and the file is not read then.
printf 'WARNING:STDERR:\nwsd:*.4:TEXTFILE:%s/d.log\n*:*.1:STDOUT:\n' "$tmp" >"$tmp/routing"
export KP_SVC_ROUTING_FILE=$tmp/routing
"$zar" log --debug 4 --comp wsd --sub srvshlib "to %s" file
grep -Eq " zar DEBUG4 wsd srvshlib tools/zar/log [0-9]+ 0x[0-9a-f]+ to file$" "$tmp/d.log" ||
  fail "routing-file line: $(cat "$tmp/d.log")"
[ "$("$zar" log --debug 1 wildcard | sed -n 2p)" = wildcard ] || fail "wildcard component line"
[ -z "$(SVC_WSC_DBG="xyz:*.9:STDOUT:" "$zar" log --debug 1 x)" ] || fail "another component's setting"
unset KP_SVC_ROUTING_FILE

usage_errors log "--debug 0 x" "--debug 10 x" "--debug x y" "--debug 3" "--debug 3 --sev error x" \
  "--debug 3 --brief x" "--debug 3 %d" "--debug 3 %d 1 2" "--debug 3 %d x" "--debug 3 --sub nosuch x"
echo "logdebug: ok"
