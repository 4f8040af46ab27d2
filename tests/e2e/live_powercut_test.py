#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Cuts the power of a source's disk at random moments, and looks at what is there afterwards.

Volumes, change maps, spool and state lie on an ext4 file system of their own, in a file. A power cut
is the ioctl that shuts it down: whatever is not on the device yet is dropped. Then the source is
killed, the file system mounted again, which replays its journal, and the source started again.

Guests write blocks that describe themselves, some with FUA, and flush now and then. After each cut

  - every block whose write was flushed is in its volume, in that version or a later one;
  - no more has to be compared than was written to since the last clean stop, a part of the volumes,
    and no more is read: the system counts it;
  - the copy becomes what the volume is, byte for byte, also where the cut took something back that
    the target had already.

Needs root, loop devices and mkfs.ext4; ends with 77 and the reason where that is not to be had.

usage: live_powercut_test.py [--rounds N] [--seed S]
"""
import argparse
import collections
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from blocks import Volume, make_block
from guest import Served, nbd
from power import CUTS, Disk, Failure, Skip, call, need
from rig import BLOCK, LIMIT, MIB, PROGRAM

OPTIONS = ("--memory", "16M", "--max-dataset", "1M", "--interval", "50ms", "--compress", "none")
# Beside volumes and spool: maps, state, the program itself.
OTHER_READS = MIB


class Writer(threading.Thread):
    """A guest of one volume, until there is no power any more."""

    def __init__(self, test, volume, hot):
        super().__init__(daemon=True)
        self.test, self.volume, self.hot = test, volume, hot
        self.rng = random.Random(test.rng.random())
        self.guest = test.served.guest(volume.name)
        self.written = list(volume.oldest)  # what the volume has, and was answered for
        self.longest = self.rng.choice((1, 8, 64))
        self.is_over = threading.Event()
        self.fault = None

    def run(self):
        try:
            while not self.is_over.is_set():
                kind = self.rng.choices(("write", "fua", "flush"), (8, 1, 1))[0]
                if kind == "flush":
                    self.guest.flush()
                    self.settle(self.written)
                else:
                    self.write(kind == "fua")
                if self.rng.random() < 0.2:
                    time.sleep(0.002)
        except nbd.Error as fault:
            with self.test.lock:
                if not self.test.is_dark:
                    self.fault = str(fault)

    def write(self, fua):
        first = self.rng.choice(self.hot)
        count = min(self.rng.randint(1, self.longest), len(self.volume.versions) - first)
        data = b""
        for number in range(first, first + count):
            self.volume.versions[number] += 1
            data += make_block(self.volume.name, number, self.volume.versions[number])
        self.test.touch(self.volume, first, count)
        self.guest.pwrite(data, first * BLOCK, nbd.CMD_FLAG_FUA if fua else 0)
        self.written[first : first + count] = self.volume.versions[first : first + count]
        if fua:
            self.settle(self.written, first, first + count)
            self.test.counts["writes with FUA"] += 1

    def settle(self, versions, first=0, end=None):
        """From here on these are on the disk, if there was power until the answer came."""
        with self.test.lock:
            if not self.test.is_dark:
                self.volume.oldest[first:end] = versions[first:end]


class Test:
    def __init__(self, seed, folder, disk):
        self.seed, self.folder, self.disk = seed, folder, disk
        self.rng = random.Random(seed)
        self.lock = threading.Lock()
        self.is_dark = False
        self.counts = collections.Counter()
        self.touched = set()  # extents that were written to since the last clean stop
        self.served = self.target = None
        self.copies = os.path.join(folder, "copies")

    def start(self):
        self.disk.make()
        self.volumes = [Volume(self.disk.at, "a", 24 * MIB // BLOCK),
                        Volume(self.disk.at, "b", 8 * MIB // BLOCK)]
        call("sync", "-f", self.disk.at)
        self.size = sum(len(volume.versions) for volume in self.volumes) * BLOCK
        with open(os.path.join(self.folder, "target.log"), "w", encoding="utf-8") as log:
            self.target = subprocess.Popen(
                [PROGRAM, "target", "--plaintext", "--listen", "127.0.0.1:0", "--state",
                 os.path.join(self.folder, "target"), "--volumes", self.copies],
                stdout=subprocess.PIPE, stderr=log, text=True)
        line = self.target.stdout.readline()
        need(line.startswith("listening on "), "the target does not start")
        self.address = line.split()[2]
        self.serve()
        self.served.point("flushed")
        self.stop_cleanly()

    # --- Processes and power. ---

    def serve(self, wait=True):
        self.served = Served(self.folder, self.address, {v.name: v.path for v in self.volumes},
                             *OPTIONS, state=os.path.join("mounted", "live"))
        if wait:
            self.served.ready()

    def stop_cleanly(self):
        code = self.served.end()
        need(code == 0, f"the source ended with {code}" + self.tail())
        self.touched.clear()
        self.counts["clean stops"] += 1

    def tail(self):
        return "\n--- the source's last words\n" + "".join(
            self.served.said().splitlines(True)[-10:])

    def touch(self, volume, first, count):
        for block in (first, first + count - 1):
            self.touched.add((volume.name, block * BLOCK // MIB))

    def cut(self):
        how = self.rng.choices(list(CUTS), (6, 1, 1))[0]
        self.counts[how] += 1
        with self.lock:
            self.is_dark = True
        self.disk.cut(how)

    def recover(self):
        self.served.end(signal.SIGKILL)
        self.disk.recover()
        self.is_dark = False
        for volume in self.volumes:
            fault = volume.check(volume.path, newest=False)
            need(not fault, f"{fault}; it was flushed" + self.tail())
            self.counts["blocks taken back"] += sum(
                has < newest for has, newest in zip(volume.versions_in(volume.path),
                                                    volume.versions))
            volume.oldest = volume.versions_in(volume.path)  # it was read from the disk

    # --- A round. ---

    def start_writers(self):
        """In a part of each volume that is a few extents."""
        writers = []
        for volume in self.volumes:
            blocks = len(volume.versions)
            first = self.rng.randrange(blocks)
            hot = range(first, min(first + self.rng.choice((10, 300, 600)), blocks))
            writers.append(Writer(self, volume, hot))
        for writer in writers:
            writer.start()
        return writers

    def end_writers(self, writers):
        for writer in writers:
            writer.is_over.set()
        if self.is_dark:
            self.served.end(signal.SIGKILL)
        for writer in writers:
            writer.join(LIMIT)
            need(not writer.fault, f"a guest was refused with power on: {writer.fault}")
            writer.guest.close()

    def write_until_cut(self):
        is_alone = self.rng.random() < 0.4
        if is_alone:
            self.target.send_signal(signal.SIGSTOP)
        writers = self.start_writers()
        time.sleep(self.rng.random() ** 2 * 0.8)
        self.cut()
        self.end_writers(writers)
        if is_alone:
            self.target.send_signal(signal.SIGCONT)

    def write_and_stop(self):
        writers = self.start_writers()
        time.sleep(self.rng.random() * 0.1)
        self.end_writers(writers)
        self.stop_cleanly()

    def bytes_in_spool(self):
        return sum(os.path.getsize(os.path.join(at, name))
                   for at, _, names in os.walk(os.path.join(self.disk.at, "live", "spool"))
                   for name in names)

    def converge(self):
        """What is compared is what may differ; then both are the same."""
        spool = self.bytes_in_spool()
        self.target.send_signal(signal.SIGSTOP)
        try:
            self.serve()
            status = self.served.status()
        finally:
            self.target.send_signal(signal.SIGCONT)
        marked = status["markedBytes"]
        need(marked <= len(self.touched) * MIB, f"{marked} bytes are compared, but only "
             f"{len(self.touched)} extents were written to" + self.tail())
        need(marked < self.size / 2 or len(self.touched) * MIB >= self.size / 2,
             f"{marked} bytes are compared")
        self.counts["MiB compared"] += marked // MIB
        self.counts["MiB of volumes"] += self.size // MIB
        self.served.point("flushed")
        # What is in the spool is looked at once, and read again to be sent.
        read = self.served.bytes_read()
        need(read <= marked + 2 * spool + OTHER_READS,
             f"{read} bytes were read, for {marked} that are marked and {spool} in the spool"
             + self.tail())
        self.counts["KiB in the spool"] += spool // 1024
        for volume in self.volumes:
            call("cmp", volume.path, os.path.join(self.copies, "g", volume.name + ".img"))

    def cut_at_the_start(self):
        self.serve(wait=False)
        time.sleep(self.rng.random() * 0.1)
        self.counts["cuts at the start"] += 1
        self.cut()
        self.recover()

    def round(self, number):
        self.rng = random.Random(f"{self.seed}/{number}")
        self.serve()
        # Whether the target has been reached yet is left to chance.
        if self.rng.random() < 0.7:
            self.served.wait_state("replicating")
        self.write_until_cut()
        self.recover()
        if self.rng.random() < 0.3:
            self.cut_at_the_start()
        self.converge()
        if self.rng.random() < 0.5:
            self.served.end(signal.SIGKILL)
            return
        # What a clean stop leaves needs no comparison, also when the power goes at once.
        self.write_and_stop()
        self.cut()
        self.recover()
        self.converge()
        need(self.served.status()["sentBytes"] == 0, "something is sent after a clean stop")
        self.stop_cleanly()

    def end(self):
        if self.served:
            self.served.end(signal.SIGKILL)
        if self.target:
            self.target.kill()
            self.target.wait(LIMIT)
            self.target.stdout.close()
        self.disk.remove()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int,
                        default=int(os.environ.get("PENSTOCK_POWERCUT_ROUNDS", "6")))
    parser.add_argument("--seed", type=int, default=int(
        os.environ.get("PENSTOCK_SEED") or time.time_ns() % 1_000_000))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    signals = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    for number in signals:
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    folder = tempfile.mkdtemp(prefix="penstock-livecut-")
    os.chmod(folder, 0o700)
    test = Test(options.seed, folder, Disk(folder))
    done = 0
    try:
        test.start()
        for done in range(options.rounds):
            test.round(done)
    except Skip as why:
        print(f"skipped: {why}")
        return 77
    except (Failure, AssertionError) as fault:
        print(f"FAIL: round {done + 1}, seed {options.seed}: {fault}")
        return 1
    finally:
        for number in signals:
            signal.signal(number, signal.SIG_IGN)
        test.end()
        shutil.rmtree(folder, ignore_errors=True)
    seen = ", ".join(f"{name} {count}" for name, count in sorted(test.counts.items()))
    print(f"{options.rounds} rounds: {seen}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
