#!/usr/bin/env bash
# The example host (examples/host/) as a host author builds it: the project
# installed into a private prefix, the example built out of the tree against
# that prefix twice, with pkg-config and with find_package(Porvane), and each
# build run against the installed reference receiver until its file has
# arrived and left the log folder; its C companion, built alongside, must
# name the same log folder.
#
#   host_example.sh CMAKE BUILD_DIR SOURCE_DIR LIBDIR [FLAGS]
#
# LIBDIR is the install's library folder below the prefix; FLAGS are added
# to the example's compile and link (the sanitizers of the build under test).
# Everything lives in one private temporary folder: the prefix, the home and
# its XDG folders, the receiver's spool. The agent runs with noLock, so the
# machine-wide lock is never touched, and no user manager is reachable (no
# session bus, an empty XDG_RUNTIME_DIR), so the host launches the agent
# itself.
#
# Exit status: 0 passed, 1 failed, 77 skipped (a tool is missing).
set -euo pipefail
cmake=$1 build=$2 source=$3 libdir=$4 flags=${5:-}

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
for tool in pkg-config make c++; do
  command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed"
done
[ -x "$build/bin/porvane" ] && [ -x "$build/bin/porvane-receiver" ] ||
  fail "$build/bin/porvane and porvane-receiver do not exist: build everything first"

scratch=$(mktemp -d "${TMPDIR:-/tmp}/porvane-host.XXXXXX")
prefix=$scratch/prefix
receiver_pid=""
cleanup() {
  if [ -n "$receiver_pid" ]; then kill "$receiver_pid" 2>/dev/null; wait "$receiver_pid" 2>/dev/null; fi
  # A launched agent lives on by itself; only this test runs this prefix's.
  local exe
  for exe in /proc/[0-9]*/exe; do
    if [ "$(readlink "$exe" 2>/dev/null)" = "$prefix/bin/porvane" ]; then
      exe=${exe#/proc/}; kill "${exe%/exe}" 2>/dev/null || true
    fi
  done
  rm -rf "$scratch"
}
trap cleanup EXIT

"$cmake" --install "$build" --prefix "$prefix" >"$scratch/install.log" 2>&1 ||
  fail "install: $(cat "$scratch/install.log")"

mkdir "$scratch/pc"
(cd "$scratch/pc" &&
  PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" make -s -f "$source/examples/host/Makefile" \
    CXXFLAGS="-O1 $flags" CFLAGS="-O1 $flags" LDFLAGS="-Wl,-rpath,$prefix/$libdir $flags") >"$scratch/pc.log" 2>&1 ||
  fail "make with pkg-config: $(cat "$scratch/pc.log")"

"$cmake" -S "$source/examples/host" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >"$scratch/cmake.log" 2>&1 &&
  "$cmake" --build "$scratch/cmake" >>"$scratch/cmake.log" 2>&1 ||
  fail "find_package build: $(cat "$scratch/cmake.log")"
grep -qx "Porvane_DIR:PATH=$prefix/$libdir/cmake/Porvane" "$scratch/cmake/CMakeCache.txt" ||
  fail "find_package(Porvane) did not find the private prefix: $(grep Porvane_DIR "$scratch/cmake/CMakeCache.txt")"

mkdir -p "$scratch/spool" "$scratch/run" "$scratch/tmp"
"$prefix/bin/porvane-receiver" --port 0 --spool "$scratch/spool" >"$scratch/receiver.out" &
receiver_pid=$!
for _ in $(seq 200); do grep -q 'listening on' "$scratch/receiver.out" && break; sleep 0.05; done
port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$scratch/receiver.out")
[ -n "$port" ] || fail "the installed receiver did not start"

logs=$scratch/home/state/Logs/Tarvo/Porvane
# as_user PROGRAM ARGS...: runs a program of the test's private user.
as_user() {
  env -i PATH=/usr/bin:/bin HOME="$scratch/home" XDG_STATE_HOME="$scratch/home/state" \
    XDG_DATA_HOME="$scratch/home/data" XDG_CONFIG_HOME="$scratch/home/config" XDG_RUNTIME_DIR="$scratch/run" \
    TMPDIR="$scratch/tmp" receiverURL="http://127.0.0.1:$port/host" noLock=1 "$@"
}
# run_host BUILD NAME: the C companion says where logs go; the host writes
# NAME.log there and launches a pass, which delivers it.
run_host() {
  local build=$1 name=$2 out="$scratch/$2.out"
  [ "$(as_user "$build/log_folder")" = "$logs" ] || fail "$name: log_folder said '$(as_user "$build/log_folder" 2>&1)'"
  as_user "$build/host" "$name" >"$out" 2>&1 || fail "$name: the host exited $?: $(cat "$out")"
  grep -qx "host: wrote $logs/$name.log" "$out" && grep -qx "host: pass started by launching $prefix/bin/porvane" "$out" ||
    fail "$name: the host said: $(cat "$out")"
  for _ in $(seq 300); do
    if grep -q "file=$name.log " "$scratch/receiver.out" && [ ! -e "$logs/$name.log" ]; then break; fi
    sleep 0.1
  done
  grep -qx "kind=${name%%_*} file=$name.log bytes=29 answer=Active" "$scratch/receiver.out" ||
    fail "$name: the receiver saw: $(cat "$scratch/receiver.out")"
  [ "$(cat "$scratch/spool/$name.log")" = "a line from the example host" ] || fail "$name: the spool holds another file"
  [ ! -e "$logs/$name.log" ] || fail "$name: the agent left $name.log in the log folder"
  echo "$name: delivered"
}
run_host "$scratch/pc" pkgconfig_1
run_host "$scratch/cmake" cmake_1
