# SPDX-License-Identifier: Apache-2.0
"""Medians, ratios, goals and Markdown for bench/replicate.py."""

import json
import statistics

from replicate_rig import MIB


def median(samples):
    return statistics.median(sample.seconds for sample in samples)


def spread(samples):
    seconds = [sample.seconds for sample in samples]
    return f"{min(seconds):.2f} to {max(seconds):.2f}"


class Report:
    def __init__(self):
        self.goals = []
        self.raw = {}

    def missed(self):
        return [goal for goal in self.goals if not goal["met"]]

    def goal(self, what, value, limit):
        """Notes whether a goal is met. Returns the figure as it is shown."""
        met = value <= limit
        self.goals.append({"what": what, "value": value, "limit": limit, "met": met})
        return f"{value:.2f}" + ("" if met else " (missed)")

    def least(self, what, value, limit):
        """The same for what may not be less."""
        met = value >= limit
        self.goals.append({"what": what, "value": value, "limit": limit, "met": met})
        return f"{value:.2f}" + ("" if met else " (missed)")

    def keep(self, section, measured):
        """Raw figures of a section, for --json."""
        for name, samples in measured.items():
            rows = self.raw.setdefault(section, {}).setdefault(name, [])
            rows.extend(sample.raw() for sample in samples or [])

    def table(self, what, measured, ours, goals=()):
        """One row a contender: medians, and what `ours` takes of its time. `goals` has the limits
        of those ratios, by contender; who is not measured is named all the same."""
        goals = dict(goals)
        print(f"\n| {what} | median, s | all, s | {ours} / it |" + (" goal |" if goals else ""))
        print("|---" * (5 if goals else 4) + "|")
        for name, samples in measured.items():
            limit = goals.get(name)
            if samples is None:
                cells = [name, "not here", "", ""]
            else:
                ratio = median(measured[ours]) / median(samples)
                cells = [name, f"{median(samples):.2f}", spread(samples),
                         "" if name == ours else f"{ratio:.2f}"]
                if limit is not None:
                    cells[3] = self.goal(f"{what}: {ours} / {name}", ratio, limit)
            if goals:
                cells.append(str(limit or ""))
            print("| " + " | ".join(cells) + " |", flush=True)

    def save(self, path, about):
        with open(path, "w", encoding="utf-8") as file:
            json.dump({**about, "sections": self.raw, "goals": self.goals}, file, indent=1)
            file.write("\n")


def mib(size):
    return f"{size / MIB:.1f}" if size < 10 * MIB else f"{size / MIB:.0f}"
