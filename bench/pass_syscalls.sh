#!/usr/bin/env bash
# What one pass asks of the file system: runs porvane once over N log files
# under strace, with Porvane.cfg naming a reference receiver, and counts
#   - opens of Porvane.cfg,
#   - reads of /proc/self/exe,
#   - calls that touch the user's data folder other than UserSettings.cfg.
#
#   bench/pass_syscalls.sh BUILD_DIR [FILES...]      (default: 10 40)
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR [FILES...]}" && pwd)
shift
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(10 40)

work=$(mktemp -d)
trap 'kill $receiver 2>/dev/null || true; [ -n "${KEEP:-}" ] || rm -rf "$work"' EXIT
mkdir -p "$work/prefix/bin" "$work/prefix/share/porvane" "$work/spool"
cp "$build/bin/porvane" "$work/prefix/bin/porvane"
"$build/bin/porvane-receiver" --spool "$work/spool" > "$work/receiver.out" &
receiver=$!
for _ in $(seq 100); do grep -q listening "$work/receiver.out" 2>/dev/null && break; sleep 0.05; done
port=$(sed -n 's/.*127.0.0.1:\([0-9]*\).*/\1/p' "$work/receiver.out" | head -1)
printf '[System]\nUploadURL=http://127.0.0.1:%s/upload\n' "$port" > "$work/prefix/share/porvane/Porvane.cfg"

for n in "${counts[@]}"; do
  home="$work/home$n"
  logs="$home/state/Logs/Tarvo/Porvane"
  mkdir -p "$logs"
  for i in $(seq "$n"); do echo "log $i" > "$logs/k$((i % 4))_$i.log"; done
  env -i PATH=/usr/bin:/bin HOME="$home" XDG_STATE_HOME="$home/state" XDG_DATA_HOME="$home/data" \
    strace -f -qq -o "$work/trace$n" -e trace=openat,readlink,newfstatat,mkdir \
    "$work/prefix/bin/porvane" -noLock
  left=$(find "$logs" -type f | wc -l)
  cfg=$(grep -c 'Porvane.cfg' "$work/trace$n" || true)
  exe=$(grep -c '/proc/self/exe' "$work/trace$n" || true)
  data=$(grep "$home/data" "$work/trace$n" | grep -vc 'UserSettings.cfg' || true)
  echo "files=$n left=$left Porvane.cfg=$cfg /proc/self/exe=$exe data-folder=$data"
done
