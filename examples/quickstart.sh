#!/usr/bin/env bash
# Serves a disk that is in use and keeps a copy of it: a workload writes all the time, the target is
# killed twice on the way and comes back, and at the end the copy is compared byte for byte. Ends
# with "replica identical at point N" and a plot of how far the copy was behind.
#
# usage: examples/quickstart.sh [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=/dev/null
. "$root/examples/setup.sh"
seconds=${1:-16}
packages=(g++ cmake ninja-build pkg-config python3 e2fsprogs nbdkit nbdkit-plugin-dev python3-libnbd
  libboost1.81-dev libssl-dev libzstd-dev liblz4-dev libxxhash-dev libsqlite3-dev libspdlog-dev
  nlohmann-json3-dev libcli11-dev)

build() {
  cmake -S "$root" -B "$root/build/program" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DPENSTOCK_PROGRAMS=ON >/dev/null
  cmake --build "$root/build/program" --target penstock_program penstock_plugin -j"$(nproc)" |
    tail -1
}

start_target() {
  : >"$work/target.out"
  "$penstock" target --listen "${address:-127.0.0.1:0}" --tls-psk "$work/key" \
    --state "$work/target" --volumes "$work/copies" >"$work/target.out" 2>>"$work/target.log" &
  target=$!
  for _ in {1..100}; do
    address=$(sed -n 's/^listening on //p' "$work/target.out")
    [[ -n $address ]] && return
    sleep 0.1
  done
  echo "the target does not start:" >&2
  cat "$work/target.log" >&2
  exit 1
}

kill_target() {
  kill -9 "$target"
  wait "$target" 2>/dev/null || true
}

status() { "$penstock" status --state "$work/source" --json; }
field() { status | python3 -c "import json, sys; print(json.load(sys.stdin)['$1'])"; }

# Small random writes, now and then a trim, until it is told to stop.
workload() {
  /usr/bin/python3 - "$work/source/nbd.sock" "$work/stop" <<'PYTHON'
import os
import random
import sys
import time

import nbd

guest = nbd.NBD()
guest.set_export_name("disk")
guest.connect_unix(sys.argv[1])
size = guest.get_size()
while not os.path.exists(sys.argv[2]):
    offset = random.randrange(size // 4096) * 4096
    if random.random() < 0.02:
        guest.trim(4096, offset)
    else:
        guest.pwrite(random.randbytes(2048) * 2, offset)
    time.sleep(0.0005)
guest.flush()
guest.shutdown()
PYTHON
}

# One column for each half second: how far behind.
plot() {
  python3 - "$work/lags" <<'PYTHON'
import sys

with open(sys.argv[1], encoding="utf-8") as file:
    lags = [float(line) for line in file]
top = max(max(lags), 1.0)
for row in range(6, 0, -1):
    line = "".join("#" if lag > top * (row - 0.5) / 6 else " " for lag in lags)
    print(f"{top * row / 6:6.1f} s |{line}")
print("         +" + "-" * len(lags) + f"> {len(lags) / 2:.0f} s")
PYTHON
}

install_packages "${packages[@]}"
echo "== build"
build
penstock=$root/build/program/replicator/penstock
work=$(mktemp -d)
chmod 700 "$work"
address='' target='' source=''
end() {  # the source first: it gets the rest to the target
  local process
  for process in $source $target; do
    kill "$process" 2>/dev/null || continue
    wait "$process" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap end EXIT
mkdir -m 700 "$work/target" "$work/copies"
"$penstock" keygen --psk "$work/key" >/dev/null
truncate -s 64M "$work/disk.img"
mkfs.ext4 -q -d "$root/docs" "$work/disk.img"

echo "== serve"
start_target
"$penstock" serve --to "$address" --tls-psk "$work/key" --group demo --state "$work/source" \
  --memory 16M --max-dataset 2M "disk=$work/disk.img" >/dev/null 2>"$work/source.log" &
source=$!
for _ in {1..100}; do
  [[ -S $work/source/nbd.sock && -S $work/source/source.sock ]] && break
  sleep 0.1
done
workload &
guest=$!
for ((i = 0; i < 2 * seconds; ++i)); do
  case $i in
    $((seconds / 2))) kill_target; echo "the target is killed" ;;
    $((seconds))) start_target; echo "the target is back" ;;
    $((seconds * 3 / 2))) kill_target; start_target; echo "the target is killed and restarted" ;;
  esac
  field lagSeconds >>"$work/lags"
  sleep 0.5
done
touch "$work/stop"
wait "$guest"
point=$("$penstock" point --state "$work/source" --wait flushed)
status | python3 -c "import json, sys; s = json.load(sys.stdin); print(
    s['writes'], 'writes,', s['writtenBytes'] >> 10, 'KiB written,', s['sentBytes'] >> 10, 'KiB sent')"
plot
cmp "$work/disk.img" "$work/copies/demo/disk.img"
echo "replica identical at point $point"
