#!/bin/sh
# Drives brix-lock from the shell: usage, running a command under the lock, its exit status,
# timeouts (75), shared holders together, --status, and a holder killed with -9.
set -u
tool="$1"
work=$(mktemp -d)
pids=""
cleanup() { for p in $pids; do kill -9 "$p" 2>/dev/null; done; rm -rf "$work"; }
trap cleanup EXIT
. "$(dirname "$0")/../common/cliExpect.sh"

# hold NAME ARGS...: runs brix-lock ARGS around a sleeper in the background ($held) and waits
# (at most 10 s) until it holds; release NAME kills both.
hold() {
   name=$1; shift
   "$tool" "$@" -- sh -c "echo \$\$ >'$work/$name.pid'; exec sleep 30" >/dev/null 2>&1 &
   held=$!; pids="$pids $held"
   n=0
   while [ ! -s "$work/$name.pid" ] && [ $n -lt 200 ]; do sleep 0.05; n=$((n + 1)); done
   [ -s "$work/$name.pid" ] || fail "$name never held the lock"
}
release() { kill -9 "$held"; wait "$held" 2>/dev/null; kill -9 "$(cat "$work/$1.pid")"; }

f="$work/data"
"$tool" --help | grep -q '^Usage: brix-lock' || fail "--help prints no usage"
expect 2 ""; expect_err '^brix-lock: missing PATH'
expect 2 "" --frob "$f" -- true; expect_err "unknown option '--frob'"
expect 2 "" --wait soon "$f" -- true; expect_err 'milliseconds'
expect 2 "" "$f" true; expect_err "missing '--'"
expect 2 "" "$f" --; expect_err "missing '--'"

# The command runs under the lock and its status comes back; the lock is gone afterwards.
expect 0 "locked" "$f" -- sh -c "[ -d '$f.lck' ] && ls '$f.lck' | grep -q '^M' && echo locked"
[ -e "$f.lck" ] && fail "the lock directory stays after the command"
expect 7 "" "$f" -- sh -c 'exit 7'
expect 127 "" "$f" -- /nonexistent/command; expect_err "cannot run '/nonexistent/command'"
expect 1 "" --status "$f"

# Held by another: --no-wait and --wait give 75 with the message on stderr.
hold held "$f"
expect 75 "" --no-wait "$f" -- true; expect_err 'A file locking error \([0-9]+\) has occurred'
start=$(date +%s%N)
expect 75 "" --wait 400 "$f" -- true
elapsed=$((($(date +%s%N) - start) / 1000000))
[ "$elapsed" -ge 400 ] || fail "--wait 400 gave up after $elapsed ms"
out=$("$tool" --status "$f") || fail "--status of a held lock failed"
echo "$out" | grep -Eq "^M[0-9]{5}\.lck machine=uuid=[^ ]+ execution=$held-[0-9]+ kind=exclusive number=1$" ||
   fail "--status printed '$out'"

# A holder killed with -9 is cleared at once (well within 300 ms) by the next locker here.
release held
start=$(date +%s%N)
expect 0 "next" --wait 2000 "$f" -- echo next
[ $((($(date +%s%N) - start) / 1000000)) -lt 300 ] || fail "a dead holder was not cleared at once"

# Shared holders run together.
hold s1 --shared "$f"
expect 0 "together" --shared --no-wait "$f" -- echo together
expect 75 "" --no-wait "$f" -- true
release s1

[ "$failures" -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
