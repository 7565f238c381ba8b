#!/usr/bin/env bash
# Installs everything the tree needs on a fresh Debian 12 x86-64 machine:
# the i386 architecture, the multilib compilers and the i386 development packages.
# Safe to run again; it only installs what is missing.
set -u

log() { printf '[setup] %s\n' "$*" >&2; }

SUDO=""
if [ "$(id -u)" != 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

HOST_PKGS=(gcc-multilib g++-multilib cmake ninja-build pkg-config python3 git file
           libc6-dbg:i386 gdb valgrind libcli11-dev
           libdw-dev libelf-dev)  # the reader built for the host (64-bit) reads 32-bit traces with them
I386_PKGS=(zlib1g-dev:i386 libunwind-dev:i386 libzydis-dev:i386 libzycore-dev:i386
           libelf-dev:i386 libdw-dev:i386 libgtest-dev:i386 libgmock-dev:i386
           libbenchmark-dev:i386 libpython3.11-dev:i386 libpython3.11:i386
           pigz:i386 lua5.4:i386)

missing() {
  local out=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || out+=("$p")
  done
  [ ${#out[@]} -eq 0 ] || printf '%s\n' "${out[@]}"
}

# Python's own test modules (test_signal, test_threading, ...) for tests/e2e/python_suites_e2e.py. The package
# that holds them depends on the amd64 interpreter, so it is unpacked rather than installed, at the version of
# the i386 libpython3.11 (or the candidate, when the mirror no longer has that one). The stdlib already ships
# the frame of the `test` package (__init__, support, libregrtest); links to those pieces make the unpacked
# `test` directory one complete package, which the e2e host puts on sys.path ahead of the stdlib.
PYTHON_TESTS=/opt/vorx-python-tests
download_python_tests() {  # into the current directory; $1 is the version wanted
  apt-get download -q "libpython3.11-testsuite=$1" >>/tmp/vorx-apt-download.log 2>&1 ||
    apt-get download -q libpython3.11-testsuite >>/tmp/vorx-apt-download.log 2>&1
}
unpack_python_tests() {
  local ver dir tmp entry
  ver=$(dpkg-query -W -f='${Version}' libpython3.11:i386 2>/dev/null) || ver=""
  if [ -z "$ver" ]; then log "libpython3.11:i386 is not installed: no Python test modules"; return 1; fi
  dir=$PYTHON_TESTS/usr/lib/python3.11/test
  if [ "$(cat "$PYTHON_TESTS/VERSION" 2>/dev/null)" != "$ver" ] || [ ! -f "$dir/test_signal.py" ]; then
    log "unpacking libpython3.11-testsuite for $ver into $PYTHON_TESTS"
    tmp=$(mktemp -d)
    if ! (cd "$tmp" && download_python_tests "$ver"); then
      $SUDO apt-get update -q >>/tmp/vorx-apt-update.log 2>&1 || true
      if ! (cd "$tmp" && download_python_tests "$ver"); then
        log "could not download libpython3.11-testsuite (see /tmp/vorx-apt-download.log)"; rm -rf "$tmp"; return 1
      fi
    fi
    $SUDO rm -rf "$PYTHON_TESTS"
    $SUDO mkdir -p "$PYTHON_TESTS"
    $SUDO dpkg -x "$tmp"/libpython3.11-testsuite_*.deb "$PYTHON_TESTS" || { rm -rf "$tmp"; return 1; }
    rm -rf "$tmp"
    echo "$ver" | $SUDO tee "$PYTHON_TESTS/VERSION" >/dev/null
  fi
  for entry in /usr/lib/python3.11/test/*; do
    [ -e "$entry" ] && [ "$(basename "$entry")" != __pycache__ ] || continue
    [ -e "$dir/$(basename "$entry")" ] || $SUDO ln -s "$entry" "$dir/$(basename "$entry")"
  done
}

if ! dpkg --print-foreign-architectures | grep -qx i386; then
  log "adding the i386 architecture"
  $SUDO dpkg --add-architecture i386
fi

mapfile -t todo < <(missing "${HOST_PKGS[@]}" "${I386_PKGS[@]}")
if [ "${#todo[@]}" -eq 0 ]; then
  log "all packages already installed"
  unpack_python_tests || exit 1
  exit 0
fi

# The i386 index of the security suite can fail its size check while a mirror
# syncs; the other indexes still load, so a failed update is not fatal.
log "updating package lists"
$SUDO apt-get update -q >/tmp/vorx-apt-update.log 2>&1 || log "apt-get update reported errors (tolerated, see /tmp/vorx-apt-update.log)"

# Multi-Arch: same libraries must have one version on both architectures. When the
# amd64 copy is newer than what the i386 index offers, apt refuses; pin both copies
# to the i386 candidate and try again. --no-remove makes apt stop rather than remove.
pins=()
for round in 1 2 3 4 5 6 7 8; do
  mapfile -t todo < <(missing "${HOST_PKGS[@]}" "${I386_PKGS[@]}")
  [ "${#todo[@]}" -eq 0 ] && break
  log "installing (round $round): ${todo[*]} ${pins[*]:-}"
  if $SUDO apt-get install -y -q --no-remove --allow-downgrades --no-install-recommends "${todo[@]}" "${pins[@]}" \
       >/tmp/vorx-apt-install.log 2>&1; then
    continue
  fi
  mapfile -t bad < <(grep -oE '[A-Za-z0-9.+-]+:i386' /tmp/vorx-apt-install.log |
                     sed 's/:i386$//' | sort -u)
  added=0
  for name in "${bad[@]}"; do
    ver=$(apt-cache policy "$name:i386" 2>/dev/null | awk '/Candidate:/ {print $2}')
    [ -n "$ver" ] && [ "$ver" != "(none)" ] || continue
    # Every installed binary package built from the same source (python3.11 and
    # python3.11-minimal beside libpython3.11, say) must move to that version too.
    src=$(apt-cache show "$name:i386=$ver" 2>/dev/null | awk -F': ' '/^Source:/ {print $2; exit}' | cut -d' ' -f1)
    [ -n "$src" ] || src=$name
    family=$(dpkg-query -W -f='${Package} ${source:Package}\n' 2>/dev/null | awk -v s="$src" '$2 == s {print $1}' | sed 's/:.*//' | sort -u)
    for member in $name $family; do
      cands=()
      if dpkg-query -W -f='${Status}' "$member:amd64" 2>/dev/null | grep -q 'install ok installed' \
         || [ "$member" = "$name" ]; then
        cands+=("$member=$ver")
      fi
      if apt-cache show "$member:i386=$ver" >/dev/null 2>&1 && \
         { [ "$member" = "$name" ] || dpkg-query -W -f='${Status}' "$member:i386" 2>/dev/null | grep -q 'install ok installed'; }; then
        cands+=("$member:i386=$ver")
      fi
      for p in "${cands[@]}"; do
        apt-cache show "${p%%=*}=$ver" >/dev/null 2>&1 || continue
        case " ${pins[*]:-} " in *" $p "*) ;; *) pins+=("$p"); added=1;; esac
      done
    done
  done
  if [ "$added" = 0 ]; then
    log "apt failed and no version pin helps; last lines of /tmp/vorx-apt-install.log:"
    tail -n 20 /tmp/vorx-apt-install.log >&2
    exit 1
  fi
done

mapfile -t todo < <(missing "${HOST_PKGS[@]}" "${I386_PKGS[@]}")
if [ "${#todo[@]}" -ne 0 ]; then
  log "still missing: ${todo[*]}"; tail -n 20 /tmp/vorx-apt-install.log >&2; exit 1
fi
unpack_python_tests || exit 1
log "done"
