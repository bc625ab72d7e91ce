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
#       installs the component "integration" into a DESTDIR with prefix /usr,
#       and into another prefix, and checks where the files land (the manual
#       pages compressed, the documents), and the service's ExecStart.
#   check_packaging.sh deb CPACK BUILD_DIR
#       builds the .deb, checks its files, its version, its ExecStart and its
#       library dependencies, runs the unpacked porvane against the unpacked
#       receiver, and last has lintian check the package: any error or
#       warning fails.
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
  local exec_start
  exec_start=$(grep '^ExecStart=' "$service")
  [ "$exec_start" = "ExecStart=/usr/bin/porvane" ] || fail "service has '$exec_start'"
}

check_install() {
  local cmake=$1 build=$2
  DESTDIR="$scratch/root" "$cmake" --install "$build" --prefix /usr --component integration >/dev/null
  check_tree "$scratch/root"
  # The service follows the prefix chosen at install time, not at configure
  # time.
  "$cmake" --install "$build" --prefix "$scratch/opt" --component integration >/dev/null
  local exec_start
  exec_start=$(grep '^ExecStart=' "$scratch/opt/lib/systemd/user/porvane.service")
  [ "$exec_start" = "ExecStart=$scratch/opt/bin/porvane" ] || fail "service under $scratch/opt has '$exec_start'"
  echo "install tree as expected"
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
  local deb
  deb=$(ls "$scratch"/out/porvane_*.deb)
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
  # Every library a packaged program names (ELF NEEDED) must come from a
  # package that Depends lists.
  need objdump
  local program soname owner multiarch
  multiarch=$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
  for program in "$scratch"/deb/usr/bin/*; do
    for soname in $(objdump -p "$program" | awk '$1 == "NEEDED" { print $2 }'); do
      # Only the host architecture's copy counts (libc6-i386 holds a libm too).
      owner=$(dpkg -S "*/$multiarch/$soname" 2>/dev/null | awk -F: 'NR == 1 { print $1 }') ||
        fail "no installed package holds $soname"
      [ -n "$owner" ] || fail "no installed package holds $soname"
      case ", $depends," in
        *", $owner "*|*", $owner,"*) ;;
        *) fail "$(basename "$program") needs $soname from $owner, not in Depends '$depends'" ;;
      esac
    done
  done
  run_unpacked "$scratch/deb"
  echo "package $(basename "$deb") as expected; Depends: $depends"

  need lintian
  local findings status=0
  findings=$(lintian --fail-on error,warning "$deb" 2>&1) || status=$?
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
