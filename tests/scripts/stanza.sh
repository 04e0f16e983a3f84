#!/usr/bin/env bash
# The zar stanza subcommand: list, get, set, delete and validate on a real
# file; exit statuses; --nowait against a lock held by another process; the
# local code page of the user's locale.
. "$(dirname "$0")/lib/common.sh"
conf=$tmp/server.conf
expect() {  # expected-status expected-stdout args...
  local want=$1 out=$2 rc=0 got
  shift 2
  got=$("$zar" stanza "$@" 2>"$tmp/err") || rc=$?
  [ "$rc" -eq "$want" ] || fail "stanza $*: exit $rc, want $want ($(cat "$tmp/err"))"
  [ "$got" = "$out" ] || fail "stanza $*: got '$got', want '$out'"
}

printf '# server\n[server]\nport = 80   # default\nhost = a\n\n[log]\nlevel=\n' >"$conf"
expect 0 "$(printf 'server\nlog')" "$conf" list
expect 0 "$(printf 'port = 80\nhost = a')" "$conf" list server
expect 0 "80" "$conf" get server port
expect 0 "" "$conf" get log level
expect 1 "" "$conf" get server missing
grep -q "no entry 'missing' in stanza \[server\]" "$tmp/err" || fail "missing entry: $(cat "$tmp/err")"
expect 1 "" "$conf" get nostanza port
expect 1 "" "$conf" list nostanza
expect 0 "" "$conf" set server port 8080
expect 0 "" "$conf" set server tls on
expect 1 "" "$conf" set cache size 10
grep -q "no stanza \[cache\] (give --create" "$tmp/err" || fail "unknown stanza: $(cat "$tmp/err")"
expect 0 "" "$conf" set --create cache size 10
expect 0 "" "$conf" delete log level
expect 1 "" "$conf" delete log level
expect 0 "" "$conf" validate
want='# server
[server]
port = 8080
host = a

tls = on
[log]
[cache]
size = 10'
[ "$(cat "$conf")" = "$want" ] || fail "edited file: $(cat "$conf")"
ino=$(stat -c %i "$conf")
expect 0 "" "$conf" delete cache
[ "$(stat -c %i "$conf")" = "$ino" ] || fail "an edit changed the inode"
expect 0 "$(printf 'server\nlog')" "$conf" list

# Names that would not read back are refused; nothing is written.
cp "$conf" "$tmp/before"
expect 1 "" "$conf" set server 'a=b' x
grep -q XKJSC0167E "$tmp/err" || fail "no message for a bad name: $(cat "$tmp/err")"
expect 1 "" "$conf" set 'x]y' k v
for bad in "server k a#b" "server k ' v'" "server k 'v '" "server k $'a\nb'" "' s' k v"; do
  eval "expect 2 '' \"\$conf\" set $bad"
done
cmp -s "$conf" "$tmp/before" || fail "a refused edit changed the file"

# validate: exit 1 with the library's message on the first bad line.
printf '[a]\nk = v\nno separator here\n' >"$tmp/bad.conf"
expect 1 "" "$tmp/bad.conf" validate
grep -q XKJSC0166E "$tmp/err" || fail "no parse message: $(cat "$tmp/err")"
grep -q XKJSC0171E "$tmp/err" || fail "no status text: $(cat "$tmp/err")"
expect 1 "" "$tmp/missing.conf" list
grep -q XKJSC0162E "$tmp/err" || fail "no open message: $(cat "$tmp/err")"

# Bad usage.
expect 2 "" "$conf" frobnicate
expect 2 "" "$conf" get server
expect 2 "" "$conf"

# Another process holds the exclusive lock until told to release it (a minute
# at most): --nowait fails at once, a plain read waits for the release.
perl -e '
  use Fcntl;
  open(my $f, "+<", $ARGV[0]) or die;
  my $lock = pack("s s x4 q q i x4", F_WRLCK, 0, 0, 0, 0);
  fcntl($f, F_SETLKW, $lock) or die "lock: $!";
  open(my $ready, ">", $ARGV[1]) or die; close($ready);
  for (1 .. 1200) { last if -e $ARGV[2]; select(undef, undef, undef, 0.05) }' "$conf" "$tmp/locked" "$tmp/release" &
holder=$!
for _ in $(seq 600); do [ -e "$tmp/locked" ] && break; sleep 0.05; done
[ -e "$tmp/locked" ] || fail "the lock holder did not start"
expect 1 "" --nowait "$conf" list
grep -q XKJSC0169E "$tmp/err" || fail "no would-block message: $(cat "$tmp/err")"
(sleep 0.5; touch "$tmp/release") &
expect 0 "8080" "$conf" get server port
wait "$holder"

# Names and values are in the code page of the user's locale.
printf '[Gr\303\266\303\237e]\nschl\303\274ssel = wert\n' >"$tmp/utf8.conf"
got=$(LC_ALL=en_US.UTF-8 "$zar" stanza "$tmp/utf8.conf" get "$(printf 'Gr\303\266\303\237e')" \
  "$(printf 'schl\303\274ssel')") || fail "UTF-8 lookup failed"
[ "$got" = wert ] || fail "UTF-8 lookup gave '$got'"
if LC_ALL=C "$zar" stanza "$tmp/utf8.conf" list >/dev/null 2>"$tmp/err"; then
  fail "bytes outside the C locale's code page were accepted"
fi
grep -q XKJSC0163E "$tmp/err" || fail "no conversion message: $(cat "$tmp/err")"
echo "stanza script: ok"
