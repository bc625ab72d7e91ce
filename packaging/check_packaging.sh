#!/usr/bin/env bash
# Checks the files a Linux user installs, the way systemd, man and dpkg read
# them. One check per call:
#
#   check_packaging.sh units UNIT_DIR MAN_PAGE
#       systemd-analyze --user verify on UNIT_DIR/porvane.service and
#       porvane.timer (a copy whose ExecStart names the built program; verify
#       requires it to exist), with MAN_PAGE reachable as man:porvane(1).
#       Any message from verify fails the check: unknown keys are only
#       warnings there.
#   check_packaging.sh man MAN_PAGE
#       groff and man render the page without a single warning.
#   check_packaging.sh install CMAKE BUILD_DIR
#       installs the components "integration" and "development" into a
#       DESTDIR with prefix /usr, and into another prefix, and checks where
#       the files land (the manual pages compressed, the documents, the
#       headers), the service's ExecStart and porvane.pc's paths.
#   check_packaging.sh deb CPACK BUILD_DIR
#       builds the three packages (porvane, libporvane1, porvane-dev),
#       checks their files, versions and library dependencies (porvane needs
#       neither libporvane1 nor libplist nor libsystemd; the library exports
#       its face and nothing of its inside), runs the unpacked porvane
#       against the unpacked receiver, and last has lintian check each
#       package: any error or warning fails.
#
# Exit status: 0 passed, 1 failed, 77 skipped (a tool is missing).
set -euo pipefail

# The packaging folder, which holds the sources of the installed documents.
here=$(cd "$(dirname "$0")" && pwd)
man_pages=(porvane porvane-receiver porvane-unlock)

fail() { echo "FAIL: $*" >&2; exit 1; }
skip() { echo "SKIP: $*"; exit 77; }
need() { command -v "$1" >/dev/null 2>&1 || skip "$1 is not installed"; }

scratch=$(mktemp -d "${TMPDIR:-/tmp}/porvane-packaging.XXXXXX")
receiver_pid=""
cleanup() {
  if [ -n "$receiver_pid" ]; then kill "$receiver_pid" 2>/dev/null; wait "$receiver_pid" 2>/dev/null; fi
  rm -rf "$scratch"
}
trap cleanup EXIT

check_units() {
  local unit_dir=$1 man_page=$2
  need systemd-analyze
  local program
  program=$(sed -n 's/^ExecStart=//p' "$unit_dir/porvane.service")
  [ -x "$program" ] || fail "$program does not exist: build the porvane target first"

  # verify runs man for Documentation=; a private MANPATH makes it find the
  # page under test rather than an installed one. A user-mode check needs
  # a runtime folder of its own.
  mkdir -p "$scratch/man/man1" "$scratch/runtime"
  cp "$man_page" "$scratch/man/man1/porvane.1"
  local out
  if ! out=$(MANPATH="$scratch/man" XDG_RUNTIME_DIR="$scratch/runtime" \
      systemd-analyze --user verify "$unit_dir/porvane.service" "$unit_dir/porvane.timer" 2>&1); then
    fail "systemd-analyze verify failed: $out"
  fi
  [ -z "$out" ] || fail "systemd-analyze verify warned: $out"
  echo "units verified"
}

check_man() {
  local man_page=$1
  need groff
  local out
  out=$(groff -ww -z -man "$man_page" 2>&1) || fail "groff failed: $out"
  [ -z "$out" ] || fail "groff warned: $out"
  if command -v man >/dev/null 2>&1; then
    out=$(MANWIDTH=80 man --warnings -l "$man_page" 2>&1 >/dev/null) || fail "man failed: $out"
    [ -z "$out" ] || fail "man warned: $out"
  fi
  echo "manual page renders cleanly"
}

# REQUIRES: $1 is a tree installed with prefix /usr.
check_tree() {
  local root=$1
  local service="$root/usr/lib/systemd/user/porvane.service"
  [ -f "$service" ] || fail "no $service"
  [ -f "$root/usr/lib/systemd/user/porvane.timer" ] || fail "no porvane.timer"
  # Each page, and the changelog, compressed from the current source.
  local page doc="$root/usr/share/doc/porvane"
  for page in "${man_pages[@]}"; do
    gzip -dc "$root/usr/share/man/man1/$page.1.gz" | cmp -s - "$here/$page.1" ||
      fail "man1/$page.1.gz is not packaging/$page.1 compressed"
  done
  gzip -dc "$doc/changelog.Debian.gz" | cmp -s - "$here/changelog.Debian" ||
    fail "no changelog.Debian.gz made from packaging/changelog.Debian"
  cmp -s "$doc/copyright" "$here/copyright" || fail "no copyright file from packaging/copyright"
  cmp -s "$doc/receiver.md" "$here/../docs/receiver.md" || fail "no receiver.md from docs/receiver.md"
  cmp -s "$doc/host.md" "$here/../docs/host.md" || fail "no host.md from docs/host.md"
  local exec_start
  exec_start=$(grep '^ExecStart=' "$service")
  [ "$exec_start" = "ExecStart=/usr/bin/porvane" ] || fail "service has '$exec_start'"
}

# REQUIRES: $1 is a tree with the component "development" installed with
# prefix $2.
check_development_tree() {
  local root=$1 prefix=$2
  local pc
  pc=$(find "$root$prefix/lib" -path '*/pkgconfig/porvane.pc' -print -quit)
  [ -n "$pc" ] || fail "no porvane.pc under $root$prefix"
  grep -qx "prefix=$prefix" "$pc" || fail "porvane.pc: $(grep '^prefix=' "$pc"), not $prefix"
  [ "$(PKG_CONFIG_SYSROOT_DIR="" PKG_CONFIG_PATH="${pc%/*}" pkg-config --variable=agent porvane)" = "$prefix/bin/porvane" ] ||
    fail "porvane.pc does not name $prefix/bin/porvane"
  [ -f "$root$prefix/include/porvane/Locations.h" ] || fail "no include/porvane/Locations.h"
  [ -f "$(dirname "${pc%/*}")/cmake/Porvane/PorvaneConfig.cmake" ] || fail "no PorvaneConfig.cmake beside porvane.pc"
}

check_install() {
  local cmake=$1 build=$2 component
  need pkg-config
  for component in integration development; do
    DESTDIR="$scratch/root" "$cmake" --install "$build" --prefix /usr --component "$component" >/dev/null
    # The service and porvane.pc follow the prefix chosen at install time,
    # not at configure time.
    "$cmake" --install "$build" --prefix "$scratch/opt" --component "$component" >/dev/null
  done
  check_tree "$scratch/root"
  check_development_tree "$scratch/root" /usr
  check_development_tree "" "$scratch/opt"
  local exec_start
  exec_start=$(grep '^ExecStart=' "$scratch/opt/lib/systemd/user/porvane.service")
  [ "$exec_start" = "ExecStart=$scratch/opt/bin/porvane" ] || fail "service under $scratch/opt has '$exec_start'"
  echo "install tree as expected"
}

# check_needed DEPENDS FILE...: every library a file names (ELF NEEDED) comes
# from a package that DEPENDS lists.
check_needed() {
  local depends=$1 file soname owner multiarch
  shift
  multiarch=$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
  for file in "$@"; do
    for soname in $(objdump -p "$file" | awk '$1 == "NEEDED" { print $2 }'); do
      # Only the host architecture's copy counts (libc6-i386 holds a libm too).
      owner=$(dpkg -S "*/$multiarch/$soname" 2>/dev/null | awk -F: 'NR == 1 { print $1 }') ||
        fail "no installed package holds $soname"
      [ -n "$owner" ] || fail "no installed package holds $soname"
      case ", $depends," in
        *", $owner "*|*", $owner,"*) ;;
        *) fail "$(basename "$file") needs $soname from $owner, not in Depends '$depends'" ;;
      esac
    done
  done
}

# check_library LIB_DEB DEV_DEB VERSION
check_library() {
  local lib=$1 dev=$2 version=$3
  dpkg-deb -x "$lib" "$scratch/lib"
  dpkg-deb -x "$dev" "$scratch/dev"
  [ "$(dpkg-deb -f "$lib" Package) $(dpkg-deb -f "$dev" Package)" = "libporvane1 porvane-dev" ] ||
    fail "package names of $lib and $dev"
  local so
  so=$(find "$scratch/lib" -name 'libporvane.so.1.*' -type f)
  [ -n "$so" ] && [ -L "$(dirname "$so")/libporvane.so.1" ] || fail "no libporvane.so.1 in libporvane1"
  objdump -p "$so" | grep -q 'SONAME *libporvane\.so\.1$' || fail "libporvane's SONAME is not libporvane.so.1"
  check_needed "$(dpkg-deb -f "$lib" Depends)" "$so"
  # The face is exported, the inside is not.
  local exported
  exported=$(nm -D --defined-only "$so")
  grep -qw GetDefaultLogFolder <<<"$exported" || fail "libporvane does not export GetDefaultLogFolder"
  ! grep -q StartDetached <<<"$exported" || fail "libporvane exports StartDetached, which is not in its headers"
  dpkg-deb --ctrl-tarfile "$lib" | tar -xO ./shlibs | grep -q "^libporvane 1 libporvane1 (>= $version)" ||
    fail "libporvane1 has no shlibs entry for version $version"
  # The development package: the link, headers, porvane.pc and the CMake
  # package, for this very version of the library.
  local in_dev="$scratch/dev$(dirname "${so#"$scratch/lib"}")/libporvane.so"
  [ "$(readlink "$in_dev")" = libporvane.so.1 ] ||
    fail "no libporvane.so -> libporvane.so.1 in porvane-dev"
  check_development_tree "$scratch/dev" /usr
  [ "$(dpkg-deb -f "$dev" Depends)" = "libporvane1 (= $version)" ] ||
    fail "porvane-dev depends on '$(dpkg-deb -f "$dev" Depends)'"
}

check_deb() {
  local cpack=$1 build=$2
  need dpkg-deb
  need dpkg-shlibdeps
  # CPack first brings the whole build up to date; in a tree where the
  # programs were never built that would be a full build inside a test.
  [ -x "$build/bin/porvane" ] || fail "$build/bin/porvane does not exist: build everything first"
  "$cpack" --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1 ||
    fail "cpack failed: $(cat "$scratch/cpack.log")"
  local deb lib dev
  deb=$(ls "$scratch"/out/porvane_*.deb)
  lib=$(ls "$scratch"/out/libporvane1_*.deb)
  dev=$(ls "$scratch"/out/porvane-dev_*.deb)
  dpkg-deb -x "$deb" "$scratch/deb"
  check_tree "$scratch/deb"
  [ -x "$scratch/deb/usr/bin/porvane" ] || fail "no /usr/bin/porvane in the package"
  [ -f "$scratch/deb/usr/share/porvane/Porvane.cfg" ] || fail "no Porvane.cfg in the package"
  [ "$(dpkg-deb -f "$deb" Package)" = porvane ] || fail "package name"
  # The version is the one of the changelog's latest entry, and the manual
  # pages name its upstream part.
  local version page
  version=$(dpkg-deb -f "$deb" Version)
  head -n 1 "$here/changelog.Debian" | grep -qF "porvane ($version) " ||
    fail "version $version is not the changelog's latest"
  for page in "${man_pages[@]}"; do
    head -n 1 "$here/$page.1" | grep -qF "\"Porvane ${version%-*}\"" ||
      fail "$page.1 does not name Porvane ${version%-*}"
  done
  local depends
  depends=$(dpkg-deb -f "$deb" Depends)
  need objdump
  need nm
  check_needed "$depends" "$scratch"/deb/usr/bin/*
  # The programs link the static libraries, and the agent's part of them
  # needs neither libplist nor libsystemd.
  case "$depends" in
    *libporvane*|*libplist*|*libsystemd*) fail "porvane depends on '$depends'" ;;
  esac
  run_unpacked "$scratch/deb"
  echo "package $(basename "$deb") as expected; Depends: $depends"
  check_library "$lib" "$dev" "$version"
  echo "packages $(basename "$lib") and $(basename "$dev") as expected"

  need lintian
  local findings status=0
  findings=$(lintian --fail-on error,warning "$deb" "$lib" "$dev" 2>&1) || status=$?
  if [ "$status" -ne 0 ] || grep -q '^[EW]: ' <<<"$findings"; then
    fail "lintian (status $status): $findings"
  fi
  echo "lintian: no error, no warning"
}

# Runs the unpacked /usr/bin/porvane against the unpacked receiver, which it
# finds only through the unpacked <root>/usr/share/porvane/Porvane.cfg.
run_unpacked() {
  local root=$1 port status
  local logs="$scratch/home/state/Logs/Tarvo/Porvane"
  mkdir -p "$logs" "$scratch/spool"
  "$root/usr/bin/porvane-receiver" --port 0 --spool "$scratch/spool" >"$scratch/receiver.out" &
  receiver_pid=$!
  for _ in $(seq 200); do grep -q 'listening on' "$scratch/receiver.out" && break; sleep 0.05; done
  port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$scratch/receiver.out")
  [ -n "$port" ] || fail "the unpacked receiver did not start"
  printf '[System]\nUploadURL=http://127.0.0.1:%s/deb\n' "$port" >"$root/usr/share/porvane/Porvane.cfg"
  echo "from the package" >"$logs/deb_1.log"
  status=0
  env -i PATH=/usr/bin:/bin HOME="$scratch/home" XDG_STATE_HOME="$scratch/home/state" \
    XDG_DATA_HOME="$scratch/home/data" "$root/usr/bin/porvane" -noLock || status=$?
  [ "$status" -eq 0 ] || fail "the unpacked porvane exited $status"
  [ ! -e "$logs/deb_1.log" ] || fail "the unpacked porvane did not upload the log"
  grep -qx 'kind=deb file=deb_1.log bytes=17 answer=Active' "$scratch/receiver.out" ||
    fail "receiver saw: $(cat "$scratch/receiver.out")"
}

case "${1:-}" in
  units) check_units "$2" "$3" ;;
  man) check_man "$2" ;;
  install) check_install "$2" "$3" ;;
  deb) check_deb "$2" "$3" ;;
  *) fail "usage: $0 units|man|install|deb ..." ;;
esac
