#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Kills what serves, what receives, or both, while a guest writes.

Every block describes itself. After each round the target is started again, and what it says it has
must be a point that the source closed, of both volumes at once; then everything must get across.

PENSTOCK_LIVE_ROUNDS: how many rounds. PENSTOCK_SEED repeats the choice of what is killed when.
"""
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from blocks import Volume, make_block
from guest import Served, nbd
from rig import BLOCK, LIMIT, PROGRAM, SEED, run

ROUNDS = int(os.environ.get("PENSTOCK_LIVE_ROUNDS", "10"))
BLOCKS = 512
OPTIONS = ("--memory", "16M", "--max-dataset", "1M", "--interval", "60m")


class Round(Exception):
    """What was wrong in a round."""


class Crashes:
    def __init__(self, folder):
        self.folder = folder
        self.rng = random.Random(SEED)
        self.volumes = [Volume(folder, name, BLOCKS) for name in ("a", "b")]
        self.points = {}  # by number: the versions of all volumes
        self.address = "127.0.0.1:0"
        self.target = None
        self.served = None
        self.start_target()
        self.start_served()

    def start_target(self):
        with open(os.path.join(self.folder, "target.log"), "a", encoding="utf-8") as log:
            self.target = subprocess.Popen(
                [PROGRAM, "target", "--plaintext", "--listen", self.address, "--state",
                 os.path.join(self.folder, "state"), "--volumes",
                 os.path.join(self.folder, "volumes")],
                stdout=subprocess.PIPE, stderr=log, text=True)
        line = self.target.stdout.readline()
        if not line.startswith("listening on "):
            raise Round("the target does not come back")
        self.address = line.split()[2]

    def start_served(self):
        volumes = {volume.name: volume.path for volume in self.volumes}
        self.served = Served(self.folder, self.address, volumes, *OPTIONS).ready()

    def kill_target(self):
        self.target.kill()
        self.target.wait(LIMIT)
        self.target.stdout.close()

    def write(self, seconds):
        """Writes and closes points until the time is over, or nobody serves any more."""
        end = time.monotonic() + seconds
        guests = [self.served.guest(volume.name) for volume in self.volumes]
        try:
            while time.monotonic() < end:
                for _ in range(self.rng.randrange(1, 30)):
                    which = self.rng.randrange(len(self.volumes))
                    number = self.rng.randrange(BLOCKS)
                    volume = self.volumes[which]
                    version = volume.versions[number] + 1
                    # From here on the block may be either: the answer may get lost.
                    volume.versions[number] = version
                    guests[which].pwrite(make_block(volume.name, number, version), number * BLOCK)
                versions = [list(volume.versions) for volume in self.volumes]
                code, out, _ = self.served.order("point")
                if code == 0:
                    self.points[int(out)] = versions
        except nbd.Error:
            pass

    def found(self):
        """What both copies hold."""
        copies = [os.path.join(self.folder, "volumes", "g", v.name + ".img")
                  for v in self.volumes]
        return [v.versions_in(copy) for v, copy in zip(self.volumes, copies)]

    def check_point(self):
        """What the target says it is good at is a point of both volumes."""
        result = run("status", "--of", self.address, "--plaintext", "--json")
        groups = json.loads(result.out)["groups"] if result.code == 0 else []
        if not groups or any(v["state"] != "good" for v in groups[0]["volumes"]):
            return False
        at = {v["goodAt"] for v in groups[0]["volumes"]}
        if len(at) != 1:
            raise Round(f"the volumes are good at {at}")
        point = at.pop()
        if point not in self.points:
            return False  # one that a resync ended with
        if self.found() != self.points[point]:
            raise Round(f"the copy is not what the source was at point {point}")
        return True

    def check_all(self):
        """Everything that the source's volumes hold gets across."""
        self.served.point("flushed")
        for volume, found in zip(self.volumes, self.found()):
            now = volume.versions_in(volume.path)
            if now != found:
                raise Round(f"the copy of {volume.name} is not what its volume is")
            volume.versions = now

    def round(self):
        what = self.rng.choice(["source", "target", "both"])
        # What is killed is killed in the middle of writing.
        kill_after = self.rng.uniform(0.02, 0.25)
        killer = None
        if what != "target":
            killer = subprocess.Popen(
                ["sh", "-c", f"sleep {kill_after}; kill -9 {self.served._process.pid}"])
        self.write(kill_after if what == "target" else kill_after + 0.2)
        if killer:
            killer.wait(LIMIT)
            self.served.end(signal.SIGKILL)
        if what != "source":
            self.kill_target()
            if what == "target":
                self.write(self.rng.uniform(0.02, 0.2))
            if what == "both":
                self.start_target()
                seen = self.check_point()
                self.start_served()
                self.check_all()
                return seen
            self.start_target()
        if what != "target":
            self.start_served()
        self.check_all()
        return False

    def end(self):
        self.served.end(signal.SIGKILL)
        self.kill_target()


def main():
    print(f"seed {SEED} (repeat with PENSTOCK_SEED={SEED})", flush=True)
    folder = tempfile.mkdtemp(prefix="penstock-live-")
    os.chmod(folder, 0o700)
    crashes = Crashes(folder)
    points = 0
    try:
        crashes.check_all()
        for number in range(ROUNDS):
            try:
                points += crashes.round()
            except (Round, AssertionError, nbd.Error) as fault:
                print(f"round {number}: {fault}\n{crashes.served.said()[-3000:]}")
                print(f"everything is kept in {folder}")
                return 1
        crashes.end()
    finally:
        if crashes.target.poll() is None:
            crashes.end()
    shutil.rmtree(folder, ignore_errors=True)
    print(f"{ROUNDS} rounds; {points} times the copy was compared with a point of the source")
    return 0


if __name__ == "__main__":
    sys.exit(main())
