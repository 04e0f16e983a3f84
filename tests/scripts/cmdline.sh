#!/usr/bin/env bash
# The example cmdline_demo with a real response file: the command line
# overrides the file, only the named stanza is read, unknown options of both
# sources and repeated options are reported with the product's texts; a file
# that cannot be opened, and one with a bad line whose earlier entries stay.
. "$(dirname "$0")/lib/common.sh"
build=$1
demo=$build/examples/cmdline_demo
unset NLSPATH LC_ALL LC_MESSAGES LANG
[ -x "$demo" ] || fail "$demo was not built"

run() {  # expected-exit args...; leaves standard output and error in $tmp/out, $tmp/err
  local want=$1 status=0
  shift
  "$demo" "$@" >"$tmp/out" 2>"$tmp/err" || status=$?
  [ "$status" = "$want" ] || fail "cmdline_demo $*: exit $status, want $want: $(cat "$tmp/err")"
}

cat >"$tmp/demo.rsp" <<'RSP'
# options of the demo
[other]
host = elsewhere
[cmdline_demo]
host = server.example   # the front end
port = 80
verbose = Yes
colour = blue
RSP
run 2 -port 81 -bogus -rspfile "$tmp/demo.rsp" -port 82 stray
[ "$(cat "$tmp/out")" = "command: $demo
host = server.example
port = 81
verbose = yes" ] || fail "options: $(cat "$tmp/out")"
p="cmdline_demo: "
[ "$(cat "$tmp/err")" = "${p}XKJSD0308E   The entry colour in the stanza [cmdline_demo] of the response file is not a known option.
${p}XKJSC0499E   The option -bogus is not valid for the command cmdline_demo.
${p}XKJSD0295W   The option -port was given more than once; the value '81' is used.
${p}XKJSD0295W   The option -port was given more than once; the value '81' is used." ] ||
  fail "reports: $(cat "$tmp/err")"

# Another stanza, named on the command line.
run 0 -rspfile "$tmp/demo.rsp" -stanza other
grep -qx "host = elsewhere" "$tmp/out" || fail "stanza other: $(cat "$tmp/out")"
[ ! -s "$tmp/err" ] || fail "stanza other reported: $(cat "$tmp/err")"

# No such file; a value that is not yes or no.
run 2 -rspfile "$tmp/none" -verbose maybe
grep -q "XKJSD0306E   The response file $tmp/none could not be read (status 0x38c520a8)." "$tmp/err" ||
  fail "missing file: $(cat "$tmp/err")"
grep -q "XKJSD0298E   The value 'maybe' of the option -verbose must be yes or no." "$tmp/err" ||
  fail "bad yes/no value: $(cat "$tmp/err")"

# A bad line ends the walk: its status is reported, the entries before it stay.
printf '[cmdline_demo]\nhost = h\nbad line\nport = 1\n' >"$tmp/bad.rsp"
run 1 -rspfile "$tmp/bad.rsp"
grep -qx "host = h" "$tmp/out" && ! grep -q "^port" "$tmp/out" || fail "bad line: $(cat "$tmp/out")"
grep -q "XKJSC0166E" "$tmp/err" && grep -q "(status 0x38c520ab)" "$tmp/err" ||
  fail "bad line reports: $(cat "$tmp/err")"
echo "cmdline: all checks passed"
