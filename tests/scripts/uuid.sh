#!/usr/bin/env bash
# The zar uuid command: new UUIDs are distinct and parse back with their
# fields; bad texts give the library's error text and exit status 1.
. "$(dirname "$0")/lib/common.sh"

one=$("$zar" uuid)
[[ "$one" =~ ^[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$ ]] ||
  fail "not a version-1 DCE UUID: $one"
"$zar" uuid --parse "$one" >"$tmp/parsed" || fail "own UUID does not parse"
grep -q "^uuid: *$one\$" "$tmp/parsed" || fail "parse does not echo the UUID"
grep -q "^version: *1 (time-based)$" "$tmp/parsed" || fail "version"
grep -q "^variant: *DCE" "$tmp/parsed" || fail "variant"
year=$(date -u +%Y)
grep -q "^time (UTC): *$year-" "$tmp/parsed" || fail "time is not this year: $(cat "$tmp/parsed")"
node=$(echo "$one" | cut -d- -f5 | sed 's/../&:/g; s/:$//')
grep -q "^node: *$node" "$tmp/parsed" || fail "node"

"$zar" uuid -n 1000 >"$tmp/many"
[ "$(wc -l <"$tmp/many")" -eq 1000 ] || fail "count"
[ "$(sort -u "$tmp/many" | wc -l)" -eq 1000 ] || fail "duplicates"
[ -z "$("$zar" uuid -n 0)" ] || fail "-n 0 prints something"

# A known UUID, in both text forms.
"$zar" uuid --parse 01234567-89AB-11cd-af01-001b21aabbcc >"$tmp/known"
grep -q "^time_low: *0x01234567" "$tmp/known" || fail "time_low"
grep -q "^clock sequence: *12033" "$tmp/known" || fail "clock sequence"
"$zar" uuid --parse 0123456789ab.af.01.00.1b.21.aa.bb.cc | grep -q "^version: *0" ||
  fail "old form"

for bad in "" "0123" "01234567-89ab-11cd-af01-001b21aabbc" "01234567-89ab-11cd-af01-001b21aabbccd" \
    "0123456x-89ab-11cd-af01-001b21aabbcc" "01234567-89ab-11cd-e001-001b21aabbcc"; do
  [ -z "$bad" ] && continue
  set +e
  "$zar" uuid --parse "$bad" >"$tmp/out" 2>"$tmp/err"; rc=$?
  set -e
  [ "$rc" -eq 1 ] || fail "'$bad' exit status $rc"
  grep -q "rpc\|lib\|0x16c9a08\|0x1460101" "$tmp/err" || fail "'$bad' error text: $(cat "$tmp/err")"
done
usage_errors uuid "-n x"
echo "uuid script: ok"
