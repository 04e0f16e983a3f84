#!/usr/bin/env bash
# zar log: a message by status code to the routes the environment and the
# routing file configure, its arguments converted by the message's text.
. "$(dirname "$0")/lib/common.sh"
build=$1
export NLSPATH="$build/nls/msg/%L/%N"
unset LC_ALL LC_MESSAGES LANG KP_SVC_ROUTING_FILE SVC_BRIEF
for s in FATAL ERROR WARNING NOTICE NOTICE_VERBOSE; do unset "SVC_$s"; done
time_re='[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}I-----'

# Default: an error is two lines on standard error, program name "zar".
err=$("$zar" log 0x38C5209C open 2 2>&1 >/dev/null)
echo "$err" | head -1 | grep -Eq "^$time_re 0x38C5209C zar ERROR wsc core log [0-9]+ 0x[0-9a-f]{8,}$" ||
  fail "prefix line: $err"
[ "$(echo "$err" | sed -n 2p)" = "XKJSC0156E   The open system routine failed: system error code: 2" ] ||
  fail "text line: $err"
# A notice goes nowhere; sub-component and component are chosen.
[ -z "$("$zar" log --sev notice 0x38C52097 2>&1)" ] || fail "notice printed"
"$zar" log --sev warning --comp wsd --sub 5 0x38C53137 2>&1 | grep -q " WARNING wsd srvshlib " ||
  fail "--comp/--sub"

# Environment beats the routing file; the routing file beats the default.
printf '# routes\nERROR:TEXTFILE:%s/file.log\n' "$tmp" >"$tmp/routing"
KP_SVC_ROUTING_FILE=$tmp/routing SVC_ERROR=STDOUT: "$zar" log 0x38C52097 >"$tmp/out" 2>"$tmp/err"
[ "$(wc -l <"$tmp/out")" = 2 ] && [ ! -s "$tmp/err" ] && [ ! -e "$tmp/file.log" ] ||
  fail "SVC_ERROR did not win"
KP_SVC_ROUTING_FILE=$tmp/routing "$zar" log 0x38C52097 2>"$tmp/err"
[ "$(wc -l <"$tmp/file.log")" = 1 ] && [ ! -s "$tmp/err" ] || fail "routing file not used"
grep -q " ERROR wsc core log [0-9]* 0x[0-9a-f]* XKJSC0151E" "$tmp/file.log" || fail "file record"

# --brief prints the text only; --stderr adds a copy on standard error.
[ "$(SVC_ERROR=STDOUT: "$zar" log --brief 0x38C52097)" = "XKJSC0151E   Memory could not be allocated." ] ||
  fail "--brief"
SVC_ERROR=STDOUT: "$zar" log --stderr 0x38C52097 >"$tmp/out" 2>"$tmp/err"
cmp -s "$tmp/out" "$tmp/err" && [ -s "$tmp/out" ] || fail "--stderr copy"

# Arguments by conversion: %S takes a wide text, %d a number.
SVC_ERROR=STDOUT: "$zar" log --brief 0x38C520A4 main | grep -q "stanza name: main\." || fail "%S"
# XML records: well formed (wrapped in one root) with their Params.
if command -v xmllint >/dev/null; then
  SVC_ERROR="XMLFILE:$tmp/r.xml" "$zar" log 0x38C5209F ssl /etc/kp.conf keyfile
  { echo "<Log>"; cat "$tmp/r.xml"; echo "</Log>"; } >"$tmp/doc.xml"
  xmllint --noout "$tmp/doc.xml" || fail "XML record not well formed"
  [ "$(xmllint --xpath 'count(//Param)' "$tmp/doc.xml")" = 3 ] || fail "Param lines"
fi

# zar routes: each list and where it comes from; --check says where a text is wrong.
out=$(KP_SVC_ROUTING_FILE=$tmp/routing SVC_WARNING=STDOUT: SVC_WSC_DBG=wsc:core.3:STDERR: "$zar" routes)
for want in "ERROR +routing file +TEXTFILE:$tmp/file.log" "WARNING +environment +STDOUT:" \
            "FATAL +default +STDERR:" "wsc +environment +core.3:STDERR:" "wsd +none "; do
  echo "$out" | grep -Eq "^$want" || fail "zar routes: no '$want' in: $out"
done
for t in "TEXTFILE.5:/x|11" "stderr:|1" "wsc:nosub.3|5" "wsc:*.12|7" "ERROR:XMLFILE:/tmp/a%s|21"; do
  rc=0
  "$zar" routes --check "${t%|*}" >"$tmp/check" || rc=$?
  [ $rc = 1 ] && grep -q "^error at column ${t#*|}:" "$tmp/check" || fail "check ${t%|*}: $(cat "$tmp/check")"
done
"$zar" routes --check 'WARN:GOESTO:ERROR;TEXTFILE.3.10:/tmp/x_%d.log' | tail -1 | grep -qx ok ||
  fail "a good route string refused"
[ "$("$zar" version)" = "$("$zar" --version)" ] && "$zar" version | grep -q "^zar (libzar) [0-9]" ||
  fail "zar --version"
"$zar" log --list | grep -Eq "^wsd +5  srvshlib " || fail "zar log --list"

usage_errors log "" "--sev bogus 0x38C52097" "--comp abc 0x38C52097" "--sub 3 0x38C52097" \
  "--sub x 0x38C52097" "0x38C5209C open x" "0x38C5209C open" "0x38C52097 extra" "nonsense" \
  "--bogus 0x38C52097"
echo "log: ok"
