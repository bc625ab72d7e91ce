#!/usr/bin/env bash
# The stop trial: does a stop request end a pass at once, and is every file
# delivered or still in its folder afterwards?
#
#   bench/stop_trial.sh [BUILD] [RUNS] [FILES]     (defaults: build 12 4000)
#
# RUNS passes, each over FILES fresh files of 200 bytes, each sent SIGTERM at
# a random moment of its pass; then one agent sent SIGTERM 0.3 s into its
# wait for the lock, which another agent holds and frees 0.1 s later.
# Prints one line per run (how long the agent took to end after the signal,
# its exit status) and a verdict line. Runs in a private mount namespace
# (its own /dev/shm, so the lock is never the machine's) when root, and only
# on loopback; every loop is bounded.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
runs=${2:-12}
files=${3:-4000}

if [[ -z ${PORVANE_TRIAL_INSIDE:-} && $(id -u) -eq 0 ]]; then
  exec env PORVANE_TRIAL_INSIDE=1 unshare -m sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$0" "$@"' "$0" "$build" "$runs" "$files"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/porvane-stop.XXXXXX")
receiver_pid=
cleanup() {
  [[ -n $receiver_pid ]] && kill "$receiver_pid" 2>/dev/null && wait "$receiver_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work"/{home,state,data,config,cache,spool,logs}
agent=(env -i PATH=/usr/bin:/bin HOME="$work/home" XDG_STATE_HOME="$work/state" XDG_DATA_HOME="$work/data"
  XDG_CONFIG_HOME="$work/config" XDG_CACHE_HOME="$work/cache" "$build/bin/porvane")

# start_receiver SPOOL [OPTIONS]: sets url and receiver_pid.
start_receiver() {
  local spool=$1
  shift
  "$build/bin/porvane-receiver" --spool "$spool" --port 0 "$@" >"$spool.out" 2>&1 &
  receiver_pid=$!
  for _ in $(seq 100); do
    grep -q 'listening on' "$spool.out" 2>/dev/null && break
    sleep 0.05
  done
  url="http://$(sed -n 's/.*listening on \([^ ]*\).*/\1/p' "$spool.out" | head -1)/upload"
}
start_receiver "$work/spool"
# until_handling PID: waits until PID has its SIGTERM handler in place (the
# signal's bit in SigCgt), so a signal tests the pass and not the loader.
until_handling() {
  for _ in $(seq 200); do
    local caught
    caught=$(awk '/^SigCgt/ { print $2 }' "/proc/$1/status" 2>/dev/null) || return
    [[ -n $caught ]] && (((16#$caught & 0x4000) != 0)) && return
    sleep 0.01
  done
}
ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.0f", (b - a) * 1000 }'; }

slow=0
for run in $(seq "$runs"); do
  for i in $(seq "$files"); do printf 'run %s file %s %0180d\n' "$run" "$i" 0 >"$work/logs/k_r${run}_$i.log"; done
  "${agent[@]}" -noLock -logDir="$work/logs" -receiverURL="$url" &
  pid=$!
  until_handling "$pid"
  sleep "0.$((RANDOM % 9 + 1))"
  sent=$(date +%s.%N)
  kill -TERM "$pid" 2>/dev/null || true
  status=0
  wait "$pid" || status=$?
  took=$(ms "$sent" "$(date +%s.%N)")
  ((took <= 1000)) || slow=$((slow + 1))
  echo "run $run: ended ${took} ms after SIGTERM, status $status, $(ls "$work/logs" | wc -l) files left"
done

# Every file is acknowledged or still in the folder; none is acknowledged
# twice unless it was in flight when its pass stopped (at most one a run).
sleep 0.5
kill "$receiver_pid"
wait "$receiver_pid" 2>/dev/null || true
receiver_pid=
sed -n 's/.* file=\([^ ]*\) .*/\1/p' "$work/spool.out" | sort >"$work/acked"
ls "$work/logs" | sort >"$work/left"
lost=$(comm -23 <(for r in $(seq "$runs"); do for i in $(seq "$files"); do echo "k_r${r}_$i.log"; done; done | sort) \
  <(sort -u "$work/acked" "$work/left") | wc -l)
twice=$(uniq -d "$work/acked" | wc -l)
both=$(comm -12 <(sort -u "$work/acked") "$work/left" | wc -l)
echo "stop trial: $runs runs of $files files: $lost lost, $twice acknowledged twice, $both acknowledged and kept (in flight at the stop), $slow ended more than 1 s after SIGTERM"

# The lock wait: the lock held (the semaphore made by hand), an agent
# stopped 0.3 s into its wait, the lock freed 0.1 s after the signal.
mkdir -p "$work/other"
for i in $(seq 50); do printf 'y' >"$work/other/k_$i.log"; done
python3 - "$work/free" <<'PY' &
import ctypes, os, sys, time
libc = ctypes.CDLL(None)
libc.sem_open.restype = ctypes.c_void_p
name = b"/rDYSDwOgFCbsPgPa4MYm3Q=="
assert libc.sem_open(name, os.O_CREAT | os.O_EXCL, 0o700, 1) not in (None, 0), "the lock is taken"
open(sys.argv[1] + ".held", "w").close()
while not os.path.exists(sys.argv[1]): time.sleep(0.005)
time.sleep(0.1)
libc.sem_unlink(name)
PY
holder=$!
for _ in $(seq 200); do [[ -e $work/free.held ]] && break; sleep 0.01; done
start_receiver "$work/spool-lock"
"${agent[@]}" -logDir="$work/other" -receiverURL="$url" &
waiter=$!
until_handling "$waiter"
sleep 0.3
sent=$(date +%s.%N)
kill -TERM "$waiter"
touch "$work/free"
status=0
wait "$waiter" || status=$?
took=$(ms "$sent" "$(date +%s.%N)")
wait "$holder" || true
echo "lock wait: ended ${took} ms after SIGTERM, status $status, $(ls "$work/other" | wc -l) of 50 files still there"
[[ $lost -eq 0 && $slow -eq 0 && $status -eq 1 && $(ls "$work/other" | wc -l) -eq 50 ]]
