#!/usr/bin/env bash
# The zar base64 filter: known texts, both alphabets, and a round trip of
# every byte value.
. "$(dirname "$0")/lib/common.sh"

check() {  # input-as-printf args expected
  local got
  got=$(printf -- "$1" | "$zar" base64 $2)
  [ "$got" = "$3" ] || fail "base64 $2 of '$1': got '$got', want '$3'"
}
check 'A' '' 'QQ=='
check '\377\377\377' '' '////'
check '\377\377\377' '--uri' '----'
check '' '' ''
check 'QUJD\n' '--decode' 'ABC'
check 'QUJDRA' '-d' 'ABCD'
check '----' '-d -u' "$(printf '\377\377\377')"

# Every byte value, and a block large enough for the wide loops.
for i in $(seq 0 255); do printf "\\$(printf %03o "$i")"; done >"$tmp/bytes"
head -c 100000 /dev/urandom >>"$tmp/bytes"
for alpha in "" --uri; do
  "$zar" base64 $alpha <"$tmp/bytes" >"$tmp/text"
  "$zar" base64 --decode $alpha <"$tmp/text" >"$tmp/back"
  cmp -s "$tmp/bytes" "$tmp/back" || fail "round trip $alpha"
done

usage_errors base64 --bogus
echo "base64 script: ok"
