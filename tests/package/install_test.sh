#!/usr/bin/env bash
# Installs the package into an empty folder, moves the folder, and builds a stranger's program
# against it by each way: find_package with the targets in every order, a host support of the
# stranger's own, pkg-config with and without the default support.
#
# usage: install_test.sh BUILD_DIR SOURCE_DIR CXX
set -euo pipefail
build=$1 source=$2 cxx=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
expected='pipes [RECV ]  [XMIT 1]  [DONE 0:1]  [FLUSH ] calls 2 version'

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

expect_program() {  # NAME PROGRAM
  local out
  out=$("$2" 2>"$work/stderr") || fail "$1: the program failed: $(cat "$work/stderr")"
  [[ $out == "$expected"* ]] || fail "$1: it printed '$out'"
  echo "ok: $1"
}

cmake --install "$build" --prefix "$work/first" >"$work/install.log"
mv "$work/first" "$work/moved"  # nothing may hold on to the place it was installed to
if grep -rIl -e "$work/first" -e "$source" -e "$build" "$work/moved"; then
  fail "these installed files name a folder of the build"
fi
libdir=$(dirname "$(find "$work/moved" -name libpenstock.so)")
[[ -n $libdir ]] || fail "libpenstock.so is not installed"
for name in libpenstock.so libpenstock-host.so; do
  [[ -L $libdir/$name && -L $libdir/$name.0 ]] || fail "$name or $name.0 is not a link"
done

cmake -G Ninja -S "$source/tests/package/consumer" -B "$work/consumer" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$work/moved" >"$work/configure.log" || fail "find_package"
cmake --build "$work/consumer" >"$work/build.log" || fail "$(cat "$work/build.log")"
for program in both reversed host_only own_support; do
  expect_program "find_package, $program" "$work/consumer/$program"
done
grep -q 'own support: Pipeline::PushDs()' "$work/stderr" || fail "own support was not used"

if [[ -x $work/moved/bin/penstock ]]; then
  for name in alerts.yml dashboard.json; do
    [[ -s $work/moved/share/penstock/monitoring/$name ]] || fail "$name is not installed"
  done
  echo "ok: what monitoring needs is installed"
  if [[ -n $(find "$work/moved" -name nbdkit-penstock-plugin.so) ]]; then
    page=$work/moved/share/man/man1/nbdkit-penstock-plugin.1
    [[ -s $page ]] || ! command -v nbdkit >/dev/null || fail "the plugin's manual page is missing"
  fi
fi

export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
main=$source/tests/package/consumer/main.cpp
# Flags are words: they are meant to split.
# shellcheck disable=SC2046
"$cxx" "$main" -o "$work/pc" $(pkg-config --cflags --libs penstock) || fail "pkg-config penstock"
expect_program "pkg-config penstock" "$work/pc"
# shellcheck disable=SC2046
"$cxx" "$main" "${main%main.cpp}own_support.cpp" -o "$work/pc_core" \
  $(pkg-config --cflags --libs penstock-core) || fail "pkg-config penstock-core"
expect_program "pkg-config penstock-core, own support" "$work/pc_core"

version=$(pkg-config --modversion penstock)
[[ $("$work/pc") == *"version $version" ]] || fail "the headers and penstock.pc differ in version"
echo "ok: versions agree"
