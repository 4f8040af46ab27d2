# SPDX-License-Identifier: Apache-2.0
"""First copies, TLS and updates: sections of bench/replicate.py on one image in RAM."""

import os
import sys

from replicate_peers import (CODECS, COUNTING, FloorCopy, FloorUpdate, NbdCopy, Penstock, QemuImg,
                             Rsync)
from replicate_report import median, mib
from replicate_rig import BLOCK, change_blocks, demand_room

WHOLE = ["-W", "--inplace"]
FRACTIONS = (0, 0.01, 0.1)
UPDATE_GOALS = {0: 0.5, 0.01: 0.33, 0.1: 0.5}


def rounds(title, contenders, repetitions, measure):
    """All contenders once, and again, each time with another one first: what the machine does in
    between falls on everyone. Returns their samples by name; None for who is not here."""
    measured = {}
    here = []
    for contender in contenders:
        missing = contender.missing()
        measured[contender.name] = None if missing else []
        if not missing:
            here.append(contender)
    for turn in range(repetitions):
        print(f"{title}: {turn + 1} of {repetitions}", file=sys.stderr, flush=True)
        first = turn % len(here)
        for contender in here[first:] + here[:first]:
            measured[contender.name].append(measure(contender))
    return measured


class Copies:
    """`bench` has programs, rig, report, image, RAM place, key, repetitions and seed."""

    def __init__(self, bench):
        self.bench = bench

    def make(self, kind, *args, **kwargs):
        return kind(self.bench.programs, self.bench.rig, self.bench.ram, *args, **kwargs)

    def _rounds(self, title, contenders):
        measured = rounds(title, contenders, self.bench.repetitions,
                          lambda contender: contender.first(self.bench.image))
        self.bench.report.keep(title, measured)
        return measured

    # --- First copies. ---

    def first(self):
        print("\n## First copy, plaintext, not compressed")
        measured = self._rounds("first", [
            self.make(Penstock), self.make(Rsync, WHOLE), self.make(NbdCopy), self.make(QemuImg),
            self.make(FloorCopy, "none")])
        self.bench.report.table("first copy", measured, "penstock none",
                                {"rsync -W --inplace": 0.7, "nbdcopy --flush": 1.4})

    def compressed(self):
        print("\n## First copy, plaintext, compressed")
        for codec in CODECS[1:]:
            measured = self._rounds(f"compressed {codec}", [
                self.make(Penstock, codec), self.make(Rsync, WHOLE, codec),
                self.make(FloorCopy, codec)])
            self.bench.report.table(
                f"first copy, {codec}", measured, f"penstock {codec}",
                {f"rsync -W --inplace {codec}": 0.85, f"floor {codec}": 1.25})

    def tls(self):
        print("\n## First copy over TLS, with a pre-shared key")
        psk = self.bench.key()
        for codec in CODECS:
            plain = self.make(Penstock, codec)
            tls = self.make(Penstock, codec, psk=psk)
            measured = self._rounds(f"tls {codec}", [plain, tls])
            self.bench.report.table(f"first copy, {codec}", measured, tls.name, {plain.name: 1.3})

    # --- Updates. ---

    def update(self):
        image, report = self.bench.image, self.bench.report
        demand_room(self.bench.ram.folder, 3.2 * os.path.getsize(image), "the section update")
        contenders = [self.make(Penstock), self.make(Rsync, []), self.make(Rsync, ["-B", "4096"]),
                      self.make(Rsync, ["--inplace"]), self.make(Rsync, WHOLE),
                      self.make(FloorUpdate)]
        wire = []
        changed = os.path.join(self.bench.folder, "changed.img")
        print("\n## Update, plaintext, not compressed")
        for fraction in FRACTIONS:
            blocks = change_blocks(image, changed, fraction, self.bench.seed)
            what = f"update, {fraction:.0%} of the blocks changed"
            measured = rounds(what, contenders, self.bench.repetitions,
                              lambda contender: contender.update(image, changed))
            report.keep(what, measured)
            goals = {"floor": 1.7}
            peers = [name for name, samples in measured.items()
                     if name.startswith("rsync") and samples]
            if peers:
                best = min(peers, key=lambda name: median(measured[name]))
                goals[best] = UPDATE_GOALS[fraction]
            report.table(what, measured, "penstock none", goals)
            wire.append((fraction, len(blocks), self._on_the_wire(what, changed)))
            os.remove(changed)
        print("\nThe goal beside an rsync is that of the fastest of them.")
        self._wire_table(wire)

    def _on_the_wire(self, what, changed):
        sample = self.make(Penstock, link=COUNTING).update(self.bench.image, changed)
        self.bench.report.keep(what, {"penstock none, counted": [sample]})
        return sample

    def _wire_table(self, rows):
        print("\nBytes on the wire of an update, in MiB: sent as penstock reports, and both"
              " directions as a relay counted them in a run of its own. The least is 4 KiB for each"
              " changed block (its data is random, which no codec shortens) and 8 bytes for each"
              " block of the image, and 2 %.\n")
        print("| blocks changed | sent | both directions | the least | ratio | goal |")
        print("|---|---|---|---|---|---|")
        for fraction, changed, sample in rows:
            blocks = -(-os.path.getsize(self.bench.image) // BLOCK)
            least = (changed * BLOCK + 8 * blocks) * 1.02
            shown = self.bench.report.goal(f"bytes on the wire, {fraction:.0%} changed",
                                           sample.wire / least, 1.1)
            print(f"| {fraction:.0%} | {mib(sample.report['wireBytes'])} | {mib(sample.wire)} |"
                  f" {mib(least)} | {shown} | 1.1 |")
