#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Kills the target, the source or both at random moments while they replicate, and looks at the copy.

Every 4 KiB block of the volumes describes itself: volume, number, version, and a hash of the rest.
So the copy is judged without trusting the product: after each kill every block of it must be one
that the source really had at that place, and after a sync that was left alone it must be the newest.

usage: crash_test.py --penstock PROGRAM [--rounds N] [--seed S]
"""
import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from blocks import Volume


class Rig:
    def __init__(self, options, folder):
        self.penstock = options.penstock
        self.rng = random.Random(options.seed)
        self.folder = folder
        self.volumes = [Volume(folder, "alpha", 3000), Volume(folder, "beta", 517)]
        self.target = None
        self.address = None
        for name in ("state", "copies"):
            os.mkdir(os.path.join(folder, name), 0o700)

    def start_target(self):
        log = open(os.path.join(self.folder, "target.log"), "ab")
        self.target = subprocess.Popen(
            [self.penstock, "target", "--listen", "127.0.0.1:0", "--plaintext",
             "--state", os.path.join(self.folder, "state"),
             "--volumes", os.path.join(self.folder, "copies")],
            stdout=subprocess.PIPE, stderr=log, text=True)
        line = self.target.stdout.readline()
        if not line.startswith("listening on "):
            raise SystemExit("FAIL: the target did not start: " + self.tail())
        self.address = line.split()[-1]

    def tail(self):
        with open(os.path.join(self.folder, "target.log"), encoding="utf-8", errors="replace") as log:
            return "".join(log.readlines()[-10:])

    def start_source(self):
        return subprocess.Popen(
            [self.penstock, "sync", "--to", self.address, "--group", "g", "--plaintext", "--quiet",
             "--retry-for", "10", "--compress", self.rng.choice(["none", "lz4", "zstd:1"])]
            + [f"{v.name}={v.path}" for v in self.volumes],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)

    def kill(self, process):
        process.send_signal(signal.SIGKILL)
        process.wait()

    def check(self, newest):
        for volume in self.volumes:
            copy = os.path.join(self.folder, "copies", "g", volume.name + ".img")
            fault = volume.check(copy, newest)
            if fault:
                raise SystemExit(f"FAIL: {fault}\n{self.tail()}")

    def sync_alone(self):
        source = self.start_source()
        _, errors = source.communicate(timeout=60)
        if source.returncode != 0:
            raise SystemExit(f"FAIL: sync ended with {source.returncode}: {errors}{self.tail()}")
        self.check(newest=True)

    def round(self):
        for volume in self.volumes:
            volume.change(self.rng, self.rng.choice([1, 20, 600]))
        source = self.start_source()
        time.sleep(self.rng.random() ** 2 * 0.15)
        victim = self.rng.choice(["target", "source", "both"])
        if victim != "target":
            self.kill(source)
        if victim != "source":
            self.kill(self.target)
        self.check(newest=False)
        if victim != "source":
            self.start_target()
        if victim == "target":
            # It has another address now: the source can't find it.
            self.kill(source)
        return victim


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--penstock", required=True)
    parser.add_argument("--rounds", type=int, default=100)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    folder = tempfile.mkdtemp(prefix="penstock-crash-")
    rig = Rig(options, folder)
    killed = {"target": 0, "source": 0, "both": 0}
    try:
        rig.start_target()
        for number in range(options.rounds):
            killed[rig.round()] += 1
            if number % 5 == 4:
                rig.sync_alone()
        rig.sync_alone()
    finally:
        if rig.target:
            rig.target.kill()
        shutil.rmtree(folder)
    print(f"{options.rounds} rounds: killed {killed}; every block accounted for")


if __name__ == "__main__":
    sys.exit(main())
