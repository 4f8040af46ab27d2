#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Cuts the power of a target's disk at random moments, and looks at what is there afterwards.

State and volumes lie on an ext4 file system of their own, in a file. A power cut is the ioctl that
shuts it down: whatever is not on the device yet is dropped. Then the target is killed, the file
system mounted again, which replays its journal, and the target started again.

A relay between source and target reads the frames, so it is known block by block what the target
acknowledged. All of that must be there after each cut, and a volume that is called good must equal
a point that the source was at. The volumes consist of blocks that describe themselves, so the copy
is judged without trusting the product.

Needs root, loop devices and mkfs.ext4; ends with 77 and the reason where that is not to be had.

usage: powercut_test.py [--penstock PROGRAM] [--rounds N] [--seed S]
"""
import argparse
import collections
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from blocks import (ACK, ANSWER, BLOCKS, DONE, END, FLUSHED, WELCOME, Ledger, Relay, Volume)
from power import CUTS, Disk, Failure, Skip, call, need
from rig import LIMIT

# When the power is cut: with the n-th frame of this type, n at most this.
MOMENTS = {WELCOME: 1, ANSWER: 12, BLOCKS: 12, END: 4, ACK: 5, DONE: 5, FLUSHED: 5}
SKIPPED = 77


class Test:
    def __init__(self, options, folder, disk):
        self.penstock, self.folder, self.disk = options.penstock, folder, disk
        self.seed = options.seed
        self.rng = random.Random(options.seed)
        self.volumes = [Volume(folder, "alpha", 9000), Volume(folder, "beta", 517)]
        self.ledger = Ledger(self.volumes)
        self.state, self.copies = os.path.join(disk.at, "state"), os.path.join(disk.at, "copies")
        self.log_path = os.path.join(folder, "target.log")
        self.target = self.source = self.relay = self.address = None
        self.at_rest = 0  # the point that everything is good at, when no source came since
        self.counts = collections.Counter()
        self.moment = None  # [kind of frame, how many to go, what to do then]
        self.how, self.is_late, self.is_still = "dropped", False, False
        self.is_cut = threading.Event()
        self.said_before = 0
        self.cut_lock = threading.Lock()

    # --- Processes. ---

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            return log.read()

    def said(self):
        """Since the power was cut."""
        return self.log()[self.said_before :]

    def tail(self):
        return "\n--- the target's last words\n" + "".join(self.log().splitlines(True)[-10:])

    def start_target(self, wait=True):
        with open(self.log_path, "wb") as log:
            self.target = subprocess.Popen(
                [self.penstock, "target", "--listen", "127.0.0.1:0", "--plaintext",
                 "--state", self.state, "--volumes", self.copies],
                stdout=subprocess.PIPE, stderr=log, text=True)
        if not wait:
            return
        line = self.target.stdout.readline()
        need(line.startswith("listening on "), "the target does not start" + self.tail())
        self.address = line.split()[-1]
        if self.relay:
            self.relay.address_behind = self.address

    def end(self, process):
        if process:
            process.kill()
            process.wait()
            process.stdout.close()

    def kill_source(self):
        self.source.kill()

    def start_source(self, retry_for=60):
        self.at_rest = 0
        self.relay = Relay(self.address, self.ledger, self.on_frame)
        self.source = subprocess.Popen(
            [self.penstock, "sync", "--to", self.relay.address, "--group", "g", "--plaintext",
             "--quiet", "--json", "--retry-for", str(retry_for),
             "--compress", self.rng.choice(["none", "lz4", "zstd:1"])]
            + [f"{v.name}={v.path}" for v in self.volumes],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    def end_source(self, kill=False, code=0):
        """Ends it, or waits for its end. One that says that it is done is believed."""
        if kill:
            self.source.kill()
        output = self.source.communicate(timeout=LIMIT)[0]
        self.relay.close()
        ended, self.source, self.relay = self.source.returncode, None, None
        if ended == 0:
            self.synced(json.loads(output.splitlines()[-1]))
        elif not kill:
            need(ended == code, f"sync ended with {ended}: {output}{self.tail()}")
        return ended

    def synced(self, report):
        n = report["at"]
        need(n in self.ledger.points, f"sync is identical at {n}, which completes nothing")
        need(n <= self.ledger.flushed, f"sync is identical at {n}, which is not flushed")
        for volume in self.volumes:
            volume.oldest = list(self.ledger.points[n][volume.name])
        self.at_rest = n

    # --- The power. ---

    def on_frame(self, kinds, forward):
        """In the relay's threads."""
        act = None
        with self.cut_lock:
            if self.moment and self.moment[0] in kinds:
                self.moment[1] -= kinds.count(self.moment[0])
                if self.moment[1] <= 0:
                    act, self.moment = self.moment[2], None
        if act and not self.is_late:
            act()
        forward()
        if act and self.is_late:
            act()

    def cut(self):
        with self.cut_lock:
            self.moment = None
            if self.is_cut.is_set():
                return
            if self.is_still:
                self.stand_still()
            else:
                # A sync that the ioctl meets under way may return 0 and be lost: that is the
                # kernel's. A machine without power would not go on to tell of it.
                with self.ledger.lock:
                    self.ledger.is_dark = True
            self.said_before = len(self.log())
            self.disk.cut(self.how)
            self.is_cut.set()
            if self.is_still:
                self.target.send_signal(signal.SIGCONT)

    def stand_still(self):
        """Stops the target, and waits for the end of what is under way in the kernel."""
        self.target.send_signal(signal.SIGSTOP)
        tasks = f"/proc/{self.target.pid}/task"
        for task in os.listdir(tasks):
            state = None
            while state not in ("T", "gone"):
                try:
                    with open(f"{tasks}/{task}/stat", encoding="utf-8") as file:
                        state = file.read().rpartition(")")[2].split()[0]
                except (FileNotFoundError, ProcessLookupError):
                    state = "gone"

    def draw_cut(self, is_still):
        self.is_still, self.is_late = is_still, self.rng.random() < 0.5
        self.how = self.rng.choices(list(CUTS), (6, 1, 1))[0]
        self.counts[self.how] += 1

    def recover(self):
        self.end(self.target)
        self.ledger.is_dark = False
        self.disk.recover()
        self.is_cut.clear()
        self.check()

    def look_at_a_dead_disk(self):
        """The target goes on after the cut. It must notice, and say so; what it acknowledges
        nevertheless is missed after the recovery."""
        until = time.monotonic() + LIMIT
        while self.target.poll() is None and " error " not in self.said():
            need(time.monotonic() < until, "the target does not see it" + self.tail())
            if self.source and self.source.poll() is not None:
                self.end_source(code=3)
            if not self.source:
                at_rest = self.at_rest
                self.start_source(retry_for=0)
                need(self.end_source(code=3) == 3, "sync succeeded on a disk that is gone")
                self.at_rest = at_rest
            time.sleep(0.01)
        time.sleep(0.2)
        if self.target.poll() is None:
            need("Input/output error" in self.said(), "the target says nothing clear" + self.tail())
            self.counts["target goes on without a disk, and says so"] += 1
            return
        lines = [line for line in self.said().splitlines() if line.startswith("penstock: ")]
        need(self.target.returncode == 3 and len(lines) == 1 and
             "nothing was acknowledged that is not on disk" in lines[0],
             f"the target ended with {self.target.returncode}" + self.tail())
        self.counts["target ends without a disk"] += 1

    # --- What must be there. ---

    def copy_of(self, volume):
        return os.path.join(self.copies, "g", volume.name + ".img")

    def check(self, address=None):
        where = ["--of", address, "--plaintext"] if address else ["--state", self.state]
        done = subprocess.run([self.penstock, "status", *where, "--json"], capture_output=True,
                              text=True, check=False, timeout=LIMIT)
        ledger = self.ledger
        if done.returncode != 0:
            # It may have been cut before it had a state.
            need(ledger.epoch == 0 and "there is no state" in done.stderr, "status: " + done.stderr)
            groups = []
        else:
            groups = json.loads(done.stdout)["groups"]
        need(groups or ledger.epoch == 0, "the group is lost")
        for group in groups:
            for name, least in (("epoch", ledger.epoch), ("durable", ledger.acked),
                                ("flushed", ledger.flushed)):
                need(group[name] >= least, f"{name} was {least}, and is {group[name]} now")
            need(group["counters"]["quarantined"] == 0, "a file was put aside" + self.tail())
        states = {v["name"]: v for group in groups for v in group["volumes"]}
        for volume in self.volumes:
            self.check_volume(volume, states.get(volume.name))

    def check_volume(self, volume, status):
        copy = self.copy_of(volume)
        fault = volume.check(copy, newest=False)
        need(not fault, f"{fault}; acknowledged up to {self.ledger.acked}" + self.tail())
        if status is None:
            need(self.ledger.epoch == 0, f"volume {volume.name} is lost")
            return
        # One that was made and never complete may have to be compared.
        was_good = any(n <= self.ledger.flushed for n in self.ledger.points)
        need(status["state"] != "needs resync" or not was_good,
             f"{volume.name} needs a resync" + self.tail())
        good_at = status["goodAt"] if status["state"] == "good" else 0
        if self.at_rest:
            need(good_at == self.at_rest, f"was good at {self.at_rest}, and is {status}")
        if good_at:
            points = [n for n in self.ledger.points if n <= good_at]
            need(points, f"{volume.name} is good at {good_at}, which the source never was")
            need(volume.versions_in(copy) == self.ledger.points[max(points)][volume.name],
                 f"{volume.name} is called good at {good_at}, and differs from it")
            self.counts["good"] += 1
        if status["state"] == "new" and os.path.exists(copy):
            need(not any(volume.versions_in(copy) or []), f"{volume.name} is not new")

    # --- A round. ---

    def replicate_until_cut(self, kind):
        self.moment = kind and [kind, self.rng.randint(1, MOMENTS[kind]), self.cut]
        self.start_source()
        until = time.monotonic() + LIMIT
        while not self.is_cut.is_set() and self.source.poll() is None:
            need(time.monotonic() < until, "sync does not end" + self.tail())
            time.sleep(0.002)
        if not self.is_cut.is_set():
            self.end_source()
            self.counts["at rest"] += 1
            self.cut()

    def cut_at_the_start(self):
        self.draw_cut(is_still=False)
        self.start_target(wait=False)
        time.sleep(self.rng.random() * 0.03)
        self.counts["at the start"] += 1
        self.cut()
        self.recover()

    def round(self, number):
        self.rng = random.Random(f"{self.seed}/{number}")
        # What an interrupted source has sent is the same for the next one: it must be synced, too.
        is_second = self.rng.random() < 0.4
        for volume in self.volumes:
            volume.change(self.rng, self.rng.choice([1, 20] if is_second else [1, 20, 600, 3000]))
        if is_second:
            self.is_late = True
            self.moment = [self.rng.choice([BLOCKS, END]), self.rng.randint(1, 2), self.kill_source]
            self.start_source()
            self.end_source(code=-signal.SIGKILL)
        kills_source, looks, starts = (self.rng.random() < odds for odds in (0.5, 0.6, 0.3))
        self.draw_cut(is_still=self.rng.random() < 0.5)
        self.replicate_until_cut(self.rng.choice([*MOMENTS] + [None] * (9 if is_second else 2)))
        if self.source and kills_source:
            self.end_source(kill=True)
        if self.is_still and looks:
            self.look_at_a_dead_disk()
        if self.source and self.source.poll() == 0:
            self.end_source()
        self.recover()
        if starts:
            self.cut_at_the_start()
        self.start_target()
        if self.source:
            self.counts["source goes on"] += 1
            self.end_source()
        else:
            self.check(self.address)

    def finish(self):
        self.start_source()
        self.end_source()
        for volume in self.volumes:
            fault = volume.check(self.copy_of(volume), newest=True)
            need(not fault, f"at the end: {fault}")
        call(self.penstock, "verify", "--to", self.address, "--plaintext", "--quiet", "--group",
             "g", *[f"{v.name}={v.path}" for v in self.volumes])
        self.target.terminate()
        code = self.target.wait(LIMIT)
        need(code == 0, f"the target ended with {code}" + self.tail())
        self.disk.unmount()


def parse():
    env = os.environ
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--penstock", default=env.get("PENSTOCK"))
    parser.add_argument("--rounds", type=int, default=int(env.get("PENSTOCK_POWERCUT_ROUNDS", "6")))
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000)
    options = parser.parse_args()
    if not options.penstock:
        parser.error("--penstock, or PENSTOCK, must name the program")
    return options


def main():
    options = parse()
    print(f"seed {options.seed}", flush=True)
    signals = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    for number in signals:
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    folder = tempfile.mkdtemp(prefix="penstock-powercut-")
    disk = Disk(folder)
    test = Test(options, folder, disk)
    done = 0
    try:
        disk.make()
        test.start_target()
        for done in range(options.rounds):
            test.round(done)
        test.finish()
    except Skip as why:
        print(f"skipped: {why}")
        return SKIPPED
    except Failure as fault:
        print(f"FAIL: round {done + 1}, seed {options.seed}: {fault}")
        return 1
    finally:
        for number in signals:
            signal.signal(number, signal.SIG_IGN)
        test.end(test.source)
        test.end(test.target)
        disk.remove()
        shutil.rmtree(folder, ignore_errors=True)
    seen = ", ".join(f"{name} {count}" for name, count in sorted(test.counts.items()))
    print(f"{options.rounds} rounds: {seen}; {test.ledger.settled} acknowledged blocks are there")
    return 0


if __name__ == "__main__":
    sys.exit(main())
