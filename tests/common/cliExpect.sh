# Shared checks for the shell-driven tool tests. The sourcing script sets $tool (the program
# under test) and $work (a scratch folder) first.
failures=0

fail() {
   echo "FAIL: $*" >&2
   failures=$((failures + 1))
}

# expect STATUS EXPECTED-STDOUT ARGS...: runs the tool, compares status and standard output.
expect() {
   want_status="$1"
   want_out="$2"
   shift 2
   out=$("$tool" "$@" 2>"$work/err")
   status=$?
   [ "$status" -eq "$want_status" ] || fail "$*: status $status, wanted $want_status ($(cat "$work/err"))"
   [ "$out" = "$want_out" ] || fail "$*: printed '$out', wanted '$want_out'"
}

# expect_err PATTERN: the last command's standard error matches the pattern (grep -E).
expect_err() {
   grep -Eq "$1" "$work/err" || fail "stderr '$(cat "$work/err")' lacks '$1'"
}
