#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Sets up everything and runs minimal_host: installs what is missing (as root, by apt), builds and
# installs the library below build/, builds the examples against the installed package, and runs
# minimal_host with the arguments given, or with --demo.
#
# usage: examples/run.sh [MINIMAL_HOST-ARGUMENT]...
#        examples/run.sh OLD NEW
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/run
log=$build/log

die() {
  printf 'run.sh: %s\n' "$1" >&2
  exit 1
}

missing=()
need() { missing+=("$1"); }
command -v cmake >/dev/null || need cmake
command -v ninja >/dev/null || need ninja-build
command -v c++ >/dev/null || need g++
command -v pkg-config >/dev/null || need pkg-config
pkg-config --exists libxxhash 2>/dev/null || need libxxhash-dev

mkdir -p "$build"
: >"$log"

# quietly COMMAND...: its output goes to the log, and to standard error when it fails.
quietly() {
  "$@" >>"$log" 2>&1 || {
    tail -n 30 "$log" >&2
    die "this failed: $*; all of its output is in $log"
  }
}

if [ "${#missing[@]}" -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ] || ! command -v apt-get >/dev/null; then
    die "these packages are missing: ${missing[*]}: install them, or run this as root on Debian"
  fi
  echo "installing ${missing[*]}" >&2
  quietly apt-get update
  quietly env DEBIAN_FRONTEND=noninteractive apt-get install -y "${missing[@]}"
fi

echo 'building the library and the examples' >&2
quietly cmake -G Ninja -S "$root" -B "$build/library" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_INSTALL_PREFIX="$build/prefix"
quietly cmake --build "$build/library" --target install
quietly cmake -G Ninja -S "$root/examples" -B "$build/examples" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$build/prefix"
quietly cmake --build "$build/examples" --target minimal_host

[ "$#" -gt 0 ] || set -- --demo
exec "$build/examples/minimal_host" "$@"
