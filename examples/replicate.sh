#!/usr/bin/env bash
# Sets everything up and replicates a real image end to end: makes an ext4 image filled with real
# files (or takes yours), certificates, a target on loopback with TLS, cuts the connection on the way,
# lets the source go on, changes the image and brings the copy up to date. Ends with "identical at N".
#
# usage: examples/replicate.sh [IMAGE]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=/dev/null
. "$root/examples/setup.sh"
packages=(g++ cmake ninja-build pkg-config python3 openssl e2fsprogs libboost1.81-dev libssl-dev
  libzstd-dev liblz4-dev libxxhash-dev libsqlite3-dev libspdlog-dev nlohmann-json3-dev libcli11-dev)

build() {
  cmake -S "$root" -B "$root/build/program" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DPENSTOCK_PROGRAMS=ON >/dev/null
  cmake --build "$root/build/program" --target penstock_program -j"$(nproc)" | tail -1
}

make_image() {  # PATH: a small file system full of what this machine has
  local files="$work/files" budget=$((160 << 20)) size path
  mkdir "$files"
  while IFS=' ' read -r size path; do
    ((budget -= size)) || true
    [[ $budget -gt 0 ]] || break
    cp --parents "$path" "$files"
  done < <(find /usr/include /usr/share /usr/lib/python3* -xdev -type f -size +8k -readable \
    -printf '%s %p\n' 2>/dev/null)
  truncate -s 256M "$1"
  mkfs.ext4 -q -N 65536 -d "$files" "$1"
  rm -r "$files"
}

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
  sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'
  exit 0
fi
if [[ $# -gt 1 || ($# -eq 1 && ! -r $1) ]]; then
  echo "usage: examples/replicate.sh [IMAGE]    IMAGE: a file or block device that you may read" >&2
  exit 2
fi

install_packages "${packages[@]}"
echo "== building"
build
penstock="$root/build/program/replicator/penstock"
work=$(mktemp -d)
target='' cutter=''
finish() {
  [[ -n $cutter ]] && kill "$cutter" 2>/dev/null
  [[ -n $target ]] && kill "$target" 2>/dev/null && wait "$target" 2>/dev/null
  rm -rf "$work"
}
trap finish EXIT

image="$work/disk.img"
echo "== image"
if [[ $# -eq 1 ]]; then
  cp --sparse=always "$1" "$image"
else
  make_image "$image"
fi
stat -c '%s bytes' "$image"

echo "== certificates, target"
"$root/examples/make_certificates.sh" "$work/certs" localhost 127.0.0.1 source >/dev/null
mkdir -m 700 "$work/state" "$work/volumes"
"$penstock" target --listen 127.0.0.1:0 --state "$work/state" --volumes "$work/volumes" \
  --tls-certs "$work/certs/target" >"$work/target.out" 2>"$work/target.log" &
target=$!
for _ in $(seq 100); do
  grep -q '^listening on ' "$work/target.out" && break
  kill -0 "$target" || { cat "$work/target.log" >&2; exit 3; }
  sleep 0.1
done
address=$(sed -n 's/^listening on //p' "$work/target.out")
echo "listening on $address"

# The source talks to the target through a relay that cuts the first connection halfway.
python3 "$root/examples/cutting_relay.py" "$address" $(($(stat -c %s "$image") / 8)) \
  >"$work/relay.out" &
cutter=$!
for _ in $(seq 100); do [[ -s $work/relay.out ]] && break; sleep 0.1; done
relay=$(head -1 "$work/relay.out")

sync_once() {
  "$penstock" sync --to "$relay" --group demo --tls-certs "$work/certs/source" \
    --tls-name localhost --compress lz4 disk="$image"
}
echo "== first copy, cut on the way"
sync_once
grep -v '^127' "$work/relay.out" || true
echo "== update"
printf 'changed' | dd of="$image" bs=1 seek=12345 conv=notrunc status=none
sync_once
echo "== verify"
"$penstock" verify --to "$address" --group demo --tls-certs "$work/certs/source" \
  --tls-name localhost disk="$image"
cmp "$image" "$work/volumes/demo/disk.img"
echo "the copy and the image are the same, byte for byte"
