#!/usr/bin/env bash
# SYSLOG and JOURNAL routes checked from what real collectors parsed: a site
# rsyslogd (local socket, UDP, TCP) forwarding to a central rsyslogd over TCP,
# and systemd-journald in a journal namespace of the test's own.
. "$(dirname "$0")/lib/common.sh"
. "$(dirname "$0")/lib/collectors.sh"
build=$1
export NLSPATH="$build/nls/msg/%L/%N" LC_ALL=C.UTF-8
unset KP_SVC_ROUTING_FILE SVC_BRIEF SVC_WSC_DBG SVC_COLLECTOR_QUEUE
for s in FATAL ERROR WARNING NOTICE NOTICE_VERBOSE; do unset "SVC_$s"; done
command -v rsyslogd >/dev/null && [ -x /lib/systemd/systemd-journald ] ||
  fail "rsyslogd or systemd-journald missing (scripts/deps installs them)"

startRsyslog central
startRsyslog site "$(cat "$tmp/central/tcp")"
startJournald
site=$tmp/site
declare -A where=([unix]="unix,$site/log.sock" [udp]="udp,127.0.0.1,$(cat "$site/udp")"
                  [tcp]="tcp,127.0.0.1,$(cat "$site/tcp")")
long=$(printf 'L%.0s' $(seq 9000))
code=0x38C5209C
msgid=7a61720de7c04f6e9b1c5d2a38c5209c

# Every severity and a debug record through each transport; the odd texts
# through the local socket and the journal.
# name  severity(--sev|--debug)  syslog-severity  text
cases="fatal --sev=fatal 2
error --sev=error 3
warning --sev=warning 4
notice --sev=notice 5
verbose --sev=verbose 6
debug --debug=5 7"
printCase() {  # route-element tag sev-option text
  local opt=${3%%=*} val=${3#*=}
  if [ "$opt" = --debug ]; then
    SVC_WSC_DBG="wsc:core.9:$1" "$zar" log --debug "$val" "%s/%d" "$2 $4" 7
  else
    env "SVC_$(echo "$val" | tr a-z A-Z | sed 's/^VERBOSE/NOTICE_VERBOSE/')=$1" \
      "$zar" log --sev "$val" "$code" "$2 $4" 7
  fi
}
while read -r name opt sev; do
  for t in unix udp tcp; do printCase "SYSLOG:local3,${where[$t]}" "$t-$name" "$opt" ""; done
  printCase "JOURNAL:unix,$journalSocket" "journal-$name" "$opt" ""
done <<<"$cases"
odd=$'quote" bracket] back\\slash\nsecond line Grüße 日本'
for r in "SYSLOG:${where[unix]}" "JOURNAL:unix,$journalSocket"; do
  printCase "$r" odd --sev=warning "$odd"
  printCase "$r" long --sev=warning "$long"
done
printCase "SYSLOG:${where[unix]}" invalid --sev=warning $'bad\xffbyte'
big=$(printf 'B%.0s' $(seq 120000))
SVC_WSC_DBG="wsc:core.9:JOURNAL:unix,$journalSocket" "$zar" log --debug 1 "%s%s" "$big" "$big"
# Waits until command prints at least n lines.
waitFor() {  # n command...
  local n=$1; shift
  for _ in $(seq 100); do [ "$("$@" 2>/dev/null | grep -c .)" -ge "$n" ] && return 0; sleep 0.1; done
  fail "$*: $("$@" | grep -c .) of $n records"
}
waitFor 21 grep '"msgid"' "$site/records.json"
waitFor 20 grep '"msgid"' "$tmp/central/records.json"
waitFor 9 journalJson ZAR_COMPONENT=wsc

host=$(hostname)
ts='^[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{6}[+-][0-9]{2}:[0-9]{2}$'
sdRe='^\[zar@32473 (status="0x38C5209C"|level="5") component="wsc" subcomponent="core" file="(tools/zar/)?log" line="[0-9]+" thread="0x[0-9a-f]{8,}"\]$'
check() {  # file tag msgid pri input
  local rec
  rec=$(jq -c --arg tag "$2 " 'select(.msg | contains($tag))' "$1")
  [ "$(echo "$rec" | grep -c .)" = 1 ] || fail "$1: $2: $(echo "$rec" | grep -c .) records"
  echo "$rec" | jq -e --arg msgid "$3" --arg pri "$4" --arg input "$5" --arg host "$host" \
    --arg ts "$ts" --arg sd "$sdRe" --arg tag "$2 " '
    .pri == $pri and .app == "zar" and .hostname == $host and .msgid == $msgid and
    (.procid | test("^[0-9]+$")) and (.timestamp | test($ts)) and (.sd | test($sd)) and
    (.input == $input or $input == "") and (.msg | startswith("\ufeff"))' >/dev/null ||
    fail "$1: $2: $rec"
}
while read -r name opt sev; do
  id=$code; [ "$name" = debug ] && id=-
  for t in unix udp tcp; do
    check "$site/records.json" "$t-$name" "$id" $((19 * 8 + sev)) "im${t/unix/uxsock}"
    check "$tmp/central/records.json" "$t-$name" "$id" $((19 * 8 + sev)) ""
  done
done <<<"$cases"
check "$site/records.json" odd "$code" 12 imuxsock
[[ $(jq -r 'select(.msg | contains("odd ")) | .msg' "$site/records.json") == *"$odd"* ]] ||
  fail "odd text changed"
grep -q '"msg":"[^"]*invalid bad�byte ' "$site/records.json" || fail "invalid UTF-8 not replaced"
# A long text is cut so that the whole record is 8192 bytes, never split.
len=$(jq -r 'select(.msg | contains("long ")) | .msg' "$site/records.json" | grep -o L | wc -l)
[ "$len" -gt 7500 ] && [ "$len" -lt 8192 ] || fail "long text: $len of 9000 bytes arrived"
[ "$(grep -c '"msg":"[^"]*LLLL' "$site/records.json")" = 1 ] || fail "long text split"

# The journal: every field, found by MESSAGE_ID; odd text whole, the big
# record through a sealed memory file.
[ "$(journalJson MESSAGE_ID=$msgid | grep -c .)" = 7 ] ||
  fail "MESSAGE_ID finds $(journalJson MESSAGE_ID=$msgid | grep -c .) of 7 records"
while read -r name opt sev; do
  rec=$(journalJson ZAR_COMPONENT=wsc | jq -c --arg tag "journal-$name " 'select(.MESSAGE | strings | contains($tag))')
  zsev=$(echo "$opt" | sed 's/--sev=//;s/--debug=/DEBUG/' | tr a-z A-Z | sed 's/^VERBOSE/NOTICE_VERBOSE/')
  echo "$rec" | jq -e --arg sev "$sev" --arg zsev "$zsev" '
    .PRIORITY == $sev and .SYSLOG_IDENTIFIER == "zar" and .SYSLOG_PID == ._PID and
    (.CODE_FILE | test("^(tools/zar/)?log$")) and (.CODE_LINE | test("^[0-9]+$")) and .TID == ._PID and
    .ZAR_COMPONENT == "wsc" and .ZAR_SUBCOMPONENT == "core" and .ZAR_SEVERITY == $zsev and
    (.ZAR_THREAD | test("^0x[0-9a-f]{8,}$")) and
    (if $zsev == "DEBUG5" then .ZAR_STATUS == null and .MESSAGE_ID == null
     else .ZAR_STATUS == "0x38C5209C" end)' >/dev/null || fail "journal $name: $rec"
done <<<"$cases"
[[ $(journalJson ZAR_COMPONENT=wsc | jq -r '.MESSAGE | strings | select(contains("odd "))') == *"$odd"* ]] ||
  fail "journal: odd text changed"
journalJson --all ZAR_SEVERITY=DEBUG1 | jq -e '.MESSAGE | length == 240000' >/dev/null ||
  fail "journal: big record"
echo "collectors: ok"
