#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures live capture beside nbdkit's own file plugin and a mirror, and prints tables as Markdown.

fio writes through its NBD engine to each server in turn. Every ratio is taken within one run, from
the medians of the repetitions, in which everyone takes turns. The goals are those that
docs/performance.md states; a goal that is missed makes the exit code 1.

    bench/live.py [--build build/release] [--repetitions 5] [--only rate,lag]
"""

import argparse
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import threading
import time

from live_peers import (FilePlugin, Mirror, Penstock, Spooling, Tracking, WritingMirror,
                        wait_until)
from replicate_report import Report
from replicate_rig import GIB, MIB, Trouble, demand_room, file_system, peak_memory, run_bench
from replicate_peers import find_programs
from run import machine

# name: fio's words; the goals of each contender, as parts of the peer's rate.
WORK = {
    "4 KiB random writes, depth 1": ("--rw=randwrite --bs=4k --iodepth=1", {
        "penstock, replicating": 0.85, "penstock, link down, spooling": 0.85,
        "penstock, link down, tracking only": 0.90}),
    "4 KiB random writes, depth 32": ("--rw=randwrite --bs=4k --iodepth=32", {
        "penstock, replicating": 0.62, "penstock, link down, spooling": 0.85,
        "penstock, link down, tracking only": 0.90}),
    "1 MiB sequential writes, depth 4": ("--rw=write --bs=1m --iodepth=4", {
        "penstock, replicating": 0.6}),
    "4 KiB random, 70 % reads, depth 32": ("--rw=randrw --rwmixread=70 --bs=4k --iodepth=32", {
        "penstock, replicating": 0.85}),
    "4 KiB random reads, depth 32": ("--rw=randread --bs=4k --iodepth=32", {
        "penstock, replicating": 0.97}),
}
P99_GOAL = 1.5  # times the peer's, of random writes
MIRROR_GOAL = 2.5  # times the mirror's rate, of random writes
CONTENDERS = (FilePlugin, Penstock, Spooling, Tracking, Mirror, WritingMirror)


def run_fio(rig, uri, words, size, seconds, ramp=1):
    _, out, _ = rig.run(["fio", "--name=guest", "--ioengine=nbd", f"--uri={uri}", *words.split(),
                         f"--size={size}", f"--runtime={seconds}", f"--ramp_time={ramp}",
                         "--time_based", "--randrepeat=0", "--norandommap", "--refill_buffers",
                         "--output-format=json"])
    job = json.loads(out[out.index("{"):])["jobs"][0]
    sides = [job[side] for side in ("read", "write") if job[side]["total_ios"] > 0]
    if job["error"] or not sides:
        raise Trouble(f"fio failed on {uri}: error {job['error']}")
    p99 = max(side["clat_ns"]["percentile"]["99.000000"] for side in sides) / 1000
    return {"iops": sum(side["iops"] for side in sides), "p99": p99,
            "written": job["write"]["io_bytes"]}


class Bench:
    def __init__(self, args, programs, rig):
        self.args, self.programs, self.rig = args, programs, rig
        self.report = Report()
        self.folder = rig.folder(args.dir)
        self.image = os.path.join(self.folder, "first.img")
        draw = random.Random(args.seed)
        with open(self.image, "wb") as file:
            for _ in range(args.size // MIB):
                file.write(draw.randbytes(MIB // 2) + bytes(MIB // 2))

    def contenders(self):
        for kind in CONTENDERS:
            server = kind(self.programs, self.rig)
            if lacking := server.missing():
                print(f"missing for {server.name}: {', '.join(lacking)}", file=sys.stderr)
            else:
                yield server

    # --- Rates. ---

    def rate(self):
        for work, (words, goals) in WORK.items():
            samples = {}
            contenders = [server for server in self.contenders()
                          if isinstance(server, FilePlugin) or server.name in goals
                          or (isinstance(server, Mirror) and "random writes" in work)]
            for turn in range(self.args.repetitions):
                for server in contenders[turn % len(contenders):] + \
                        contenders[:turn % len(contenders)]:
                    samples.setdefault(server.name, []).append(self.sample(server, words))
            self.show(work, samples, goals)

    def sample(self, server, words):
        server.open(self.folder, self.image)
        try:
            if server.name == Tracking.name:
                self.overflow(server)
            figures = run_fio(self.rig, server.uri(), words, self.args.size, self.args.seconds)
            if isinstance(server, Penstock):
                status = server.status()
                figures["state"], figures["overflows"] = status["state"], status["overflows"]
                if server.state == "replicating":
                    server.demand_copy()
                elif status["state"] != server.state:
                    figures["state"] += " (!)"
            return figures
        finally:
            server.close()

    def overflow(self, server):
        """Writes until nothing is kept any more."""
        def is_tracking():
            run_fio(self.rig, server.uri(), "--rw=randwrite --bs=1m --iodepth=4", self.args.size,
                    1, 0)
            return server.status()["state"] == server.state

        wait_until(is_tracking, "an overflow")

    def show(self, work, samples, goals):
        self.report.raw.setdefault("rate", {})[work] = samples
        peer = statistics.median(one["iops"] for one in samples[FilePlugin.name])
        slow = statistics.median(one["p99"] for one in samples[FilePlugin.name])
        print(f"\n### {work}\n\n| server | a second | all | of nbdkit file | goal | p99, us | of"
              " nbdkit file | overflows |\n|---|---|---|---|---|---|---|---|")
        medians = {}
        for name, runs in samples.items():
            rates = [one["iops"] for one in runs]
            medians[name] = statistics.median(rates)
            p99 = statistics.median(one["p99"] for one in runs)
            ratio, late = medians[name] / peer, p99 / slow
            shown, tail = f"{ratio:.2f}", f"{late:.2f}"
            if name in goals:
                shown = self.report.least(f"{work}: {name} / nbdkit file", ratio, goals[name])
                if "random writes" in work:
                    tail = self.report.goal(f"{work}: p99 of {name}", late, P99_GOAL)
            print(f"| {name} | {medians[name]:.0f} | {min(rates):.0f} to {max(rates):.0f} | {shown}"
                  f" | {goals.get(name, '')} | {p99:.0f} | {tail} |"
                  f" {max(one.get('overflows', 0) for one in runs) or ''} |", flush=True)
        mirrors = [medians[kind.name] for kind in (Mirror, WritingMirror) if kind.name in medians]
        if mirrors:
            ratio = medians[Penstock.name] / max(mirrors)
            print(f"\nReplicating beside the faster mirror: "
                  + self.report.least(f"{work}: penstock / mirror", ratio, MIRROR_GOAL)
                  + f" (goal {MIRROR_GOAL})", flush=True)

    # --- How far the target is behind, and what it costs. ---

    def lag(self):
        """5,000 writes a second: from a point's close until it is applied; bytes on the wire."""
        server = Penstock(self.programs, self.rig)
        server.open(self.folder, self.image)
        try:
            before = server.status()
            seen = {"closed": {}, "applied": {}}
            done = threading.Event()
            watcher = threading.Thread(target=self.watch, args=(server, seen, done))
            watcher.start()
            try:
                run_fio(self.rig, server.uri(),
                        "--rw=randwrite --bs=4k --iodepth=8 --rate_iops=5000",
                        self.args.size // 8, self.args.lag_seconds, 0)
            finally:
                done.set()
                watcher.join()
            server.demand_copy()
            after = server.status()
        finally:
            server.close()
        self.show_lag(seen, before, after)

    @staticmethod
    def watch(server, seen, done):
        command = [server.programs["penstock"], "status", "--json", "--state",
                   server.place("live")]
        while not done.is_set():
            out = subprocess.run(command, check=False, capture_output=True, text=True).stdout
            now = time.monotonic()
            status = json.loads(out) if out.startswith("{") else {}
            for kind, times in seen.items():
                # The points since the last look were reached since then: this is the latest time.
                for n in range(max(times, default=status.get(kind, 0) - 1) + 1,
                               status.get(kind, 0) + 1):
                    times[n] = now
            time.sleep(0.02)

    def show_lag(self, seen, before, after):
        took = sorted(seen["applied"][n] - at for n, at in seen["closed"].items()
                      if n in seen["applied"] and n > min(seen["closed"]))
        if len(took) < 5:
            raise Trouble(f"only {len(took)} points in {self.args.lag_seconds} s")
        late = took[min(len(took) - 1, int(len(took) * 0.99))]
        written = after["writtenBytes"] - before["writtenBytes"]
        sent = after["sentBytes"] - before["sentBytes"]
        self.report.raw["lag"] = {"seconds": took, "written": written, "sent": sent}
        print("\n### Lag at 5,000 writes a second of 4 KiB, one dataset a second\n\n"
              "| points | median, s | 99 %, s | goal | written, MiB | sent, MiB | sent / written |"
              " goal |\n|---|---|---|---|---|---|---|---|\n"
              f"| {len(took)} | {statistics.median(took):.2f} |"
              f" {self.report.goal('lag of 99 % of points, s', late, 2.0)} | 2.0 |"
              f" {written / MIB:.0f} | {sent / MIB:.0f} |"
              f" {self.report.goal('sent / written', sent / written, 1.0)} | 1.0 |", flush=True)

    # --- The change map. ---

    def marks(self):
        """A hot set: how often a write has to wait for its mark; and a crash: how much is read."""
        size = self.args.hot
        demand_room(self.folder, 2.2 * size, "the hot set")
        image = os.path.join(self.folder, "hot.img")
        with open(image, "wb") as file:
            file.truncate(2 * size)
        server = Penstock(self.programs, self.rig)
        server.open(self.folder, image)
        try:
            words = "--rw=randwrite --bs=4k --iodepth=32"
            run_fio(self.rig, server.uri(), words, size, 5, 0)
            before = server.status()
            run_fio(self.rig, server.uri(), words, size, self.args.lag_seconds, 0)
            after = server.status()
        finally:
            server.close()
            os.unlink(image)
        writes = after["writes"] - before["writes"]
        saves = after["mapSaves"] - before["mapSaves"]
        self.report.raw["marks"] = {"writes": writes, "saves": saves}
        print(f"\n### Marks on a hot set of {size / GIB:.1f} GiB\n\n| writes | saves of the map that"
              f" one waited for | for 1,000 writes | goal |\n|---|---|---|---|\n| {writes} | {saves}"
              f" | {self.report.goal('marks for 1,000 writes', 1000 * saves / writes, 1.0)} | 1.0 |",
              flush=True)

    # --- Memory, while the link comes and goes. ---

    def flapping(self):
        server = Penstock(self.programs, self.rig)
        server.more = ("--memory", "128M", "--max-dataset", "32M", "--spool-max", "512M")
        server.open(self.folder, self.image)
        most = {"memoryBytes": 0, "spoolBytes": 0, "resident": 0}
        try:
            source = server.processes[-1]
            guest = self.rig.start(
                ["fio", "--name=guest", "--ioengine=nbd", f"--uri={server.uri()}", "--rw=randwrite",
                 "--bsrange=4k-64k", "--iodepth=16", f"--size={self.args.size}", "--time_based",
                 f"--runtime={60 * self.args.flap_minutes:.0f}", "--rate=60m"],
                stdout=subprocess.DEVNULL)
            self.flap(server, guest, most)
            most["resident"] = peak_memory(source)
            server.demand_copy()
            overflows = server.status()["overflows"]
        finally:
            server.close()
        self.report.raw["flapping"] = {**most, "overflows": overflows}
        limit = (128 + 32) * MIB
        memory = self.report.goal("memory, of its limit and one dataset",
                                  most["memoryBytes"] / limit, 1.0)
        spool = self.report.goal("spool, of its limit and one dataset",
                                 most["spoolBytes"] / ((512 + 32) * MIB), 1.0)
        print(f"\n### {self.args.flap_minutes:g} minutes with the link coming and going\n\n"
              "| most | MiB | of limit and one dataset | goal |\n|---|---|---|---|\n"
              f"| captured writes in memory | {most['memoryBytes'] / MIB:.0f} | {memory} | 1.0 |\n"
              f"| spool | {most['spoolBytes'] / MIB:.0f} | {spool} | 1.0 |\n"
              f"| resident, the whole process | {most['resident'] / MIB:.0f} | | |\n\n"
              f"Overflows: {overflows}; the copy was identical at the end.", flush=True)

    def flap(self, server, guest, most):
        draw = random.Random(self.args.seed)
        address = server.address
        while guest.poll() is None:
            until = time.monotonic() + draw.uniform(1, 15)
            while time.monotonic() < until and guest.poll() is None:
                status = server.status()
                for kind in ("memoryBytes", "spoolBytes"):
                    most[kind] = max(most[kind], status.get(kind, 0))
                time.sleep(0.1)
            if server.target in server.processes:
                server.cut()
            else:
                self.revive(server, address)
        if server.target not in server.processes:
            self.revive(server, address)
        if guest.returncode != 0:
            raise Trouble("the guest saw an error")

    def revive(self, server, address):
        server.target, _ = self.rig.start_listener(
            [self.programs["penstock"], "target", "--plaintext", "--listen", address, "--state",
             server.place("target"), "--volumes", server.place("copies"), "--log-level", "error"])
        server.processes.insert(0, server.target)


SECTIONS = {"rate": Bench.rate, "lag": Bench.lag, "marks": Bench.marks,
            "flapping": Bench.flapping}


def sections_of(text):
    for name in text.split(","):
        if name not in SECTIONS:
            raise argparse.ArgumentTypeError(f"no section {name}: there are {', '.join(SECTIONS)}")
    return text.split(",")


def parse():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", default="build/release", help="a Release build folder")
    parser.add_argument("--repetitions", type=int, default=5, help="medians are of this many")
    parser.add_argument("--seconds", type=int, default=4, help="of each run")
    parser.add_argument("--lag-seconds", type=int, default=30,
                        help="of the sections lag and marks")
    parser.add_argument("--flap-minutes", type=float, default=60, help="of the section flapping")
    parser.add_argument("--size", type=int, default=1024, metavar="MIB", help="of the volume")
    parser.add_argument("--hot", type=int, default=4096, metavar="MIB",
                        help="of the hot set of the section marks")
    parser.add_argument("--only", type=sections_of, default=list(SECTIONS),
                        help="some of " + ",".join(SECTIONS))
    parser.add_argument("--dir", default="/dev/shm", help="a folder in RAM")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000,
                        help="of the data and of the link's coming and going")
    parser.add_argument("--json", metavar="FILE", help="raw figures go here")
    args = parser.parse_args()
    args.size, args.hot = args.size * MIB, args.hot * MIB
    return args


def new_file_rate(folder, size):
    """Bytes a second. In RAM it is the machine's price of fresh memory: high in a virtual one that
    hands back what it does not use."""
    piece = bytes(MIB)
    with tempfile.TemporaryFile(dir=folder) as file:
        begin = time.monotonic()
        for _ in range(size // MIB):
            file.write(piece)
        file.flush()
        return size / (time.monotonic() - begin)


def measure(args, rig):
    programs = find_programs(args.build, ("qemu-storage-daemon", "fio"))
    if "fio" not in programs:
        raise Trouble("there is no guest without fio (Debian package fio)")
    about = {"machine": machine(), "seed": args.seed, "repetitions": args.repetitions,
             "command": ("bench/live.py " + " ".join(sys.argv[1:])).strip()}
    print(f"Machine: {about['machine']}. Command: `{about['command']}`. Seed: {args.seed}.\n"
          f"Folder: {args.dir} ({file_system(args.dir)}). TCP congestion control:"
          f" {rig.congestion}.", flush=True)
    demand_room(args.dir, 6 * args.size, "a volume with its copy and spool")
    rate = new_file_rate(args.dir, 2 * args.size) / GIB  # within the room just demanded
    print(f"A new file there gets {rate:.1f} GiB/s, which bounds the spool and the target's journal.",
          flush=True)
    bench = Bench(args, programs, rig)
    try:
        for name in args.only:
            SECTIONS[name](bench)
    finally:
        if args.json:
            bench.report.save(args.json, about)
    return bench.report.missed()


def main():
    args = parse()
    run_bench("bench/live.py", lambda rig: measure(args, rig))


if __name__ == "__main__":
    main()
