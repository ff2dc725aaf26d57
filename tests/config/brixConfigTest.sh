#!/bin/sh
# Drives brix-config from the shell: every command, its output, its exit status and its errors.
set -u
tool="$1"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
. "$(dirname "$0")/../common/cliExpect.sh"

cfg="$work/config"
printf '# site settings\nname = "value"  # why\n\ncount = "12"\nflag = "yes"\n' >"$cfg"


"$tool" --help | grep -q '^Usage: brix-config' || fail "--help prints no usage"
expect 2 "" ; expect_err '^brix-config: missing command'
expect 2 "" frobnicate; expect_err "^brix-config: unknown command 'frobnicate'"
expect 2 "" get "$cfg"; expect_err '^brix-config: get takes FILE and NAME'
expect 2 "" get "$cfg" name --type colour; expect_err "unknown type 'colour'"
expect 2 "" set "$cfg" "bad name" x; expect_err "invalid name 'bad name'"

expect 0 "value" get "$cfg" name
expect 0 "12" get "$cfg" count --type long
expect 0 "TRUE" get "$cfg" flag --type bool
expect 1 "" get "$cfg" name --type long
expect_err '^brix-config: Value "value" for variable "name" is not a valid integer value'
expect 1 "" get "$cfg" missing; expect_err '"missing" is not set'
expect 0 "7" get "$cfg" missing --type long --default 7
expect 1 "" get "$cfg" missing --type bool --default perhaps; expect_err 'not a valid boolean'

expect 0 "" unset "$cfg" flag
expect 1 "" unset "$cfg" flag; expect_err '"flag" is not set'

"$tool" dump "$cfg" | grep -q '^DICT  *name = "value"$' || fail "dump shows no entry"

expect 0 "" check "$cfg"
printf 'a = 1\na = 2\nb = x y\n' >"$work/broken"
expect 1 "" check "$work/broken"
expect_err "^brix-config: File \"$work/broken\" line 3: Syntax error.\$"

# The user's preferences layer, under a private home (the home the library's "~" expands to).
mkdir -p "$work/home/Library/Preferences/Larkview"
printf 'pref.colour = "blue"\n' >"$work/home/Library/Preferences/Larkview/preferences"
out=$(CFFIXED_USER_HOME="$work/home" "$tool" prefs pref.colour) || fail "prefs failed"
[ "$out" = "blue
USER PREFERENCES $work/home/Library/Preferences/Larkview/preferences" ] || fail "prefs printed '$out'"
CFFIXED_USER_HOME="$work/home" "$tool" prefs pref.unknown 2>"$work/err" && fail "prefs of an unset name succeeded"
expect_err 'not set in any preference layer'

[ "$failures" -eq 0 ] || exit 1
echo "brix-config: all checks passed"
