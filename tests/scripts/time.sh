#!/usr/bin/env bash
# The zar time subcommand: fixed instants in UTC, in zone files and in rule
# strings, the zone line, the current time, and bad usage.
. "$(dirname "$0")/lib/common.sh"

check() {  # TZ-value expected args...
  local tz=$1 want=$2 got
  shift 2
  got=$(TZ=$tz "$zar" time "$@")
  [ "$got" = "$want" ] || fail "TZ='$tz' zar time $*: got '$got', want '$want'"
}
check "" "2024-02-29-12:00:00.123I-----" --gmt --at 1709208000.1234568
check "" "2024-02-29-12:00:00.000I-----" --gmt --at 1709207999.9995
check "" "1969-12-31-23:59:59.750I-----" --gmt --at=-0.25
check "" "1582-10-15-00:00:00.000I-----" --gmt --at -12219292800
check "" "2024-02-29-12:00:00.000+00:00I-----" --at 1709208000
check "America/New_York" "2024-02-29-07:00:00.500-05:00I-----" --at 1709208000.5
check "Europe/Berlin" "2024-07-01-14:00:00.000+02:00I-----
offset=7200 isdst=1 abbreviation=CEST" --at 1719835200 --zone
check "EST5EDT,M3.2.0,M11.1.0" "2024-07-01-08:00:00.000-04:00I-----
offset=-14400 isdst=1 abbreviation=EDT" --zone --at 1719835200
check "JST-9" "2024-02-29-12:00:00.000I-----
offset=32400 isdst=0 abbreviation=JST" --gmt --zone --at 1709208000

# The current time: one line of the local-time form, and the year of date(1).
now=$(TZ=UTC "$zar" time)
[[ "$now" =~ ^[0-9]{4}-[0-9]{2}-[0-9]{2}-[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\+00:00I-----$ ]] ||
  fail "current time '$now'"
[ "${now:0:4}" = "$(date -u +%Y)" ] || [ "${now:0:4}" = "$(date -u -d '-1 min' +%Y)" ] ||
  fail "current year in '$now'"

usage_errors time "--bogus" "--at" "--at 1.2.3" "--at 1." "--at abc" "--at 1.0123456789" \
  "--at 99999999999999999999" "--at -99999999999" "--at=+5"
echo "time: all checks passed"
