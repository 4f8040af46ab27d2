#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the program beside public peers and hand-written floors, and prints tables as Markdown.

Every ratio is taken within one run, from the medians of the repetitions, in which everyone takes
turns. The goals are those that docs/performance.md states; a goal that is missed makes the exit
code 1. Peers that are not installed are named and left out. bdsync, which compares block devices
as this program does, is no package of Debian 12, so it is not among them.

    bench/replicate.py [--build build/release] [--repetitions 5] [--only first,update]
"""

import argparse
import os
import platform
import subprocess
import sys
import time

from replicate_copies import Copies
from replicate_peers import PACKAGES, Place, find_programs
from replicate_report import Report
from replicate_rig import (GIB, MIB, Trouble, allocated, demand_room, file_system, make_image,
                           memory_of, run_bench)
from replicate_scale import Scale
from run import machine

SECTIONS = {"first": Copies.first, "compressed": Copies.compressed, "tls": Copies.tls,
            "update": Copies.update, "memory": Scale.memory, "growth": Scale.growth,
            "volumes": Scale.volumes, "commit": Scale.commit, "disk": Scale.disk,
            "links": Scale.links}
VERSIONS = {"penstock": "--version", "rsync": "--version", "nbdkit": "--version",
            "nbdcopy": "--version", "qemu-img": "--version", "mke2fs": "-V"}
ON_THE_IMAGE = set(SECTIONS) - {"links", "commit"}


class Bench:
    """What the sections need."""

    def __init__(self, args, programs, rig):
        self.programs, self.rig, self.report = programs, rig, Report()
        self.folder = rig.folder(args.dir)
        self.ram = Place(self.folder, False)
        self.disk = args.disk_dir
        self.repetitions, self.seed = args.repetitions, args.seed
        self.growth_max, self.link_size = args.growth_max, args.link_size
        self.image = os.path.join(self.folder, "disk.img")

    def key(self):
        path = os.path.join(self.folder, "psk")
        self.rig.run([self.programs["penstock"], "keygen", "--psk", path])
        return path


def bytes_of(text):
    units = {"K": 1 << 10, "M": MIB, "G": GIB}
    value = float(text[:-1]) * units[text[-1]] if text[-1:] in units else float(text)
    if value < 64 * MIB:
        raise argparse.ArgumentTypeError("at least 64M")
    return int(value) // MIB * MIB


def sections_of(text):
    names = text.split(",")
    for name in names:
        if name not in SECTIONS:
            raise argparse.ArgumentTypeError(f"no section {name}: there are {', '.join(SECTIONS)}")
    return names


def positive(text):
    if int(text) < 1:
        raise argparse.ArgumentTypeError("at least 1")
    return int(text)


def parse():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", default="build/release", help="a Release build folder")
    parser.add_argument("--repetitions", type=positive, default=5,
                        help="medians are of this many; over slow links of 3 at most")
    parser.add_argument("--only", type=sections_of, default=list(SECTIONS),
                        help="some of " + ",".join(SECTIONS))
    parser.add_argument("--size", type=bytes_of, default="1.5G", help="of the image")
    parser.add_argument("--link-size", type=bytes_of, default="128M",
                        help="of the image of the slow links")
    parser.add_argument("--growth-max", type=positive, default=16, metavar="GIB",
                        help="the largest image of the section growth")
    parser.add_argument("--dir", default="/dev/shm", help="a folder in RAM")
    parser.add_argument("--disk-dir", default="/var/tmp", help="a folder on a disk")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000,
                        help="of the files and blocks that are drawn")
    parser.add_argument("--json", metavar="FILE", help="raw figures go here")
    return parser.parse_args()


def version(program, flag):
    done = subprocess.run([program, flag], check=False, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    return " ".join(done.stdout.split("\n", maxsplit=1)[0].split()) or "unknown"


def describe(args, programs, rig):
    """Says where and with whom. Returns the same for --json."""
    command = "bench/replicate.py " + " ".join(sys.argv[1:])
    ram = memory_of("MemTotal")
    print(f"Machine: {machine()}, {ram / GIB:.0f} GiB of RAM. Command:"
          f" `{command.strip()}`. Seed: {args.seed}.")
    print(f"Folders: {args.dir} ({file_system(args.dir)}) and {args.disk_dir}"
          f" ({file_system(args.disk_dir)}).")
    print(f"TCP congestion control: {rig.congestion}.\n")
    versions = {}
    for tool, flag in VERSIONS.items():
        if tool in programs:
            versions[tool] = version(programs[tool], flag)
            print(f"- {tool}: {versions[tool]}")
        else:
            print(f"- {tool}: not here")
            print(f"missing: {tool} (Debian package {PACKAGES[tool]})", file=sys.stderr)
    return {"machine": machine(), "kernel": platform.release(), "command": command,
            "ram": ram, "seed": args.seed, "repetitions": args.repetitions, "size": args.size,
            "congestion": rig.congestion, "versions": versions}


def measure(args, programs, rig):
    """Runs the sections. Returns the goals that were missed."""
    about = describe(args, programs, rig)
    if "mke2fs" not in programs:
        raise Trouble("there is no image without mke2fs")
    bench = Bench(args, programs, rig)
    if ON_THE_IMAGE & set(args.only):
        demand_room(bench.folder, 2.2 * args.size, "the image")
        make_image(rig, bench.image, args.size, args.seed)
        print(f"\nImage: {args.size / GIB:.2f} GiB, ext4, {allocated(bench.image) / args.size:.0%}"
              f" of it allocated, files of this machine's /usr.", flush=True)
    parts = {Copies: Copies(bench), Scale: Scale(bench)}
    try:
        for name in args.only:
            section = SECTIONS[name]
            section(parts[Copies if name in vars(Copies) else Scale])
    finally:
        if args.json:
            bench.report.save(args.json, about)
    return bench.report.missed()


def main():
    args = parse()
    run_bench("bench/replicate.py", lambda rig: measure(args, find_programs(args.build), rig))


if __name__ == "__main__":
    main()
