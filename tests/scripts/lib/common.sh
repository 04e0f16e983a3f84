# Sourced by the script tests: $1 is the build directory. Sets zar (the tool)
# and tmp (a directory removed at exit), and gives fail and usage_errors.
set -euo pipefail
zar=$1/tools/zar
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# usage_errors SUBCOMMAND ARGS...: each ARGS word (split at blanks) given to
# the subcommand must exit with status 2, print its usage line on standard
# error and write nothing to standard output. Standard input is empty.
usage_errors() {
  local sub=$1 args rc
  shift
  for args in "$@"; do
    rc=0
    # shellcheck disable=SC2086
    "$zar" "$sub" $args </dev/null >"$tmp/usage.out" 2>"$tmp/usage.err" || rc=$?
    [ "$rc" = 2 ] || fail "zar $sub $args: exit $rc, want 2"
    grep -q "usage: zar $sub" "$tmp/usage.err" || fail "zar $sub $args: no usage line"
    [ ! -s "$tmp/usage.out" ] || fail "zar $sub $args: wrote to standard output"
    ! grep -q " ERROR \| WARNING " "$tmp/usage.err" || fail "zar $sub $args: printed a record"
  done
}
