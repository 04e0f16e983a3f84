#!/usr/bin/env bash
# zar errtext against the built catalogs: texts of the compiled tables and of
# catalog-only codes, German texts in the locale's code set and in UTF-8,
# exit statuses and usage errors.
. "$(dirname "$0")/lib/common.sh"
build=$1
export NLSPATH="$build/nls/msg/%L/%N"
unset LC_ALL LC_MESSAGES LANG

expect() {  # expected-status expected-output args...
  local want_status=$1 want=$2 got status=0
  shift 2
  got=$("$zar" errtext "$@" 2>&1) || status=$?
  [ "$status" = "$want_status" ] || fail "errtext $*: exit $status, want $want_status ($got)"
  [ "$got" = "$want" ] || fail "errtext $*: got '$got', want '$want'"
}

expect 0 "0x38c52097: XKJSC0151E   Memory could not be allocated. (kp / wsc)" 0x38C52097
expect 0 "0x38c52097: XKJSC0151E   Memory could not be allocated. (kp / wsc)" 952443031
expect 0 "0x10652209: The operation completed successfully. (dce / bas)" 0x10652209
expect 0 "0x00000000: The operation completed successfully. (dce / bas)" 0
expect 0 "0x10652203: Memory could not be allocated for a message text or a message table. (kp / bas)" --utf8 0x10652203
expect 1 "0x12345678: status 0x12345678 (dce / fz2)" 0x12345678
out=$("$zar" errtext 0x38C52097 0x12345678) && fail "a code without text must give exit 1"
[ "$(echo "$out" | wc -l)" = 2 ] || fail "one line per code: $out"

usage_errors errtext "" "--utf8" "nonsense" "0x1FFFFFFFF" "-1" "--bogus 0x1"

# German texts: ISO-8859-1 in a latin1 locale, UTF-8 with --utf8.
if [ -d "${LOCPATH:-}/de_DE.ISO-8859-1" ]; then
  got=$(LC_ALL=de_DE.ISO-8859-1 "$zar" errtext 0)
  want=$(printf '0x00000000: Die Operation wurde erfolgreich ausgef\374hrt. (dce / bas)')
  [ "$got" = "$want" ] || fail "German latin1 text: $got"
  got=$(LC_ALL=de_DE.ISO-8859-1 "$zar" errtext --utf8 0)
  want=$(printf '0x00000000: Die Operation wurde erfolgreich ausgef\303\274hrt. (kp / bas)')
  [ "$got" = "$want" ] || fail "German UTF-8 text: $got"
fi
"$zar" --help | grep -q "errtext" || fail "zar --help does not list errtext"
echo "errtext: all checks passed"
