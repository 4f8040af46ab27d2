#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks and prints their figures, and the ratios to their floors, as Markdown.

Every ratio is taken within one run, from the medians of the repetitions, because absolute figures
of a shared machine say little. The goals are those that docs/performance.md states; a goal that is
missed makes the exit code 1.

    bench/run.py [--build build/release] [--repetitions 5]
"""

import argparse
import json
import os
import platform
import subprocess
import sys

SIZES = (1000, 100000, 1000000)
ORDERS = {0: "rising", 1: "random"}


def run_benchmarks(build, repetitions):
    program = os.path.join(build, "bench", "penstock_bench")
    out = subprocess.run(
        [program, f"--benchmark_repetitions={repetitions}", "--benchmark_min_time=0.2",
         "--benchmark_enable_random_interleaving=true",
         "--benchmark_report_aggregates_only=true", "--benchmark_format=json"],
        check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    medians = {}
    for row in json.loads(out)["benchmarks"]:
        if row.get("aggregate_name") == "median":
            name = row["run_name"].replace("/manual_time", "").replace("/iterations:2000", "")
            medians[name] = row
    return medians


def natural(name):
    return [int(part) if part.isdigit() else part for part in name.split("/")]


def ns_per_item(row):
    if "items_per_second" in row:
        return 1e9 / row["items_per_second"]
    unit = {"ns": 1, "us": 1e3, "ms": 1e6}[row["time_unit"]]
    return row["real_time"] * unit


class Report:
    def __init__(self):
        self.missed = []

    def goal(self, what, value, limit):
        met = value <= limit
        if not met:
            self.missed.append(f"{what}: {value:.2f}, goal {limit}")
        return f"{value:.2f}" + ("" if met else " (missed)")

    def admission(self, medians):
        print("\n## Admission, nanoseconds a buffer")
        for order, order_name in ORDERS.items():
            self.admission_in_order(medians, order, order_name)

    def admission_in_order(self, medians, order, order_name):
        print("\n| buffers | order | two streams | map insert | call | sum of floors | admission |"
              " ratio | goal |")
        print("|---|---|---|---|---|---|---|---|---|")
        ratios = {}
        for size in SIZES:
            streams = ns_per_item(medians[f"BM_FloorStreams/{size}"])
            insert = ns_per_item(medians[f"BM_FloorMap/{size}/{order}"])
            call = ns_per_item(medians[f"BM_FloorCall/{size}"])
            admission = ns_per_item(medians[f"BM_Admission/{size}/{order}"])
            floor = streams + insert + call
            ratios[size] = admission / floor
            shown = self.goal(f"admission of {size} {order_name}", ratios[size], 2.0)
            print(f"| {size} | {order_name} | {streams:.0f} | {insert:.0f} | {call:.1f} |"
                  f" {floor:.0f} | {admission:.0f} | {shown} | 2.0 |")
            if size == 100000:
                self.goal(f"admission at {size}, microseconds", admission / 1000, 2.0)
        growth = ratios[SIZES[-1]] / ratios[SIZES[0]]
        shown = self.goal(f"growth of the ratio, {order_name}", growth, 1.3)
        print(f"\nRatio at {SIZES[-1]} over ratio at {SIZES[0]}, {order_name}: {shown}"
              " (goal 1.3)")

    def records(self, medians):
        plain = ns_per_item(medians["BM_PlainRecordBelowThreshold"])
        fast = ns_per_item(medians["BM_RecordBelowThreshold"])
        floor = ns_per_item(medians["BM_FloorRecord"])
        print("\n## One log record below the threshold, nanoseconds\n")
        print("| before: the public statement | now: the library's statement | floor: the stream"
              " alone |")
        print("|---|---|---|")
        print(f"| {plain:.0f} | {fast:.0f} | {floor:.0f} |")

    def neighbours(self, medians):
        print("\n## The steps of a small dataset beside a large one\n")
        print("| buffers queued beside it | mean, us | worst call, us |")
        print("|---|---|---|")
        means = {}
        for size in (0,) + SIZES:
            row = medians[f"BM_BesideNeighbour/{size}"]
            means[size] = ns_per_item(row) / 1000
            print(f"| {size} | {means[size]:.1f} | {row['worst_us']:.0f} |")
        growth = means[SIZES[-1]] / means[0]
        shown = self.goal("growth beside a neighbour", growth, 1.3)
        print(f"\nMean beside {SIZES[-1]} buffers over mean beside none: {shown} (goal 1.3)")

    def steps(self, medians):
        print("\n## Other steps, nanoseconds an item\n")
        print("| step | items | ns |")
        print("|---|---|---|")
        for name, row in sorted(medians.items(), key=lambda item: natural(item[0])):
            if any(part in name for part in ("Floor", "Admission", "Neighbour", "Record")):
                continue
            step, *args = name.removeprefix("BM_").split("/")
            items = args[0] if args else "1"
            if step == "Coalescer":
                step += " (" + ORDERS[int(args[1])] + ")"
            if step == "FingerprintMatch":
                step += " (dropped)" if args[1] == "1" else " (kept)"
            unit = "" if "items_per_second" in row else " for the whole"
            print(f"| {step} | {items} | {ns_per_item(row):.0f}{unit} |")

    def heap(self, build):
        out = subprocess.run([os.path.join(build, "bench", "penstock_heap")], check=True,
                             stdout=subprocess.PIPE).stdout
        print("\n## Heap a buffer beyond its payload, bytes\n")
        print("| buffers | order | admitted | queued | peak | goal |")
        print("|---|---|---|---|---|---|")
        for row in json.loads(out):
            what = f"heap a buffer at {row['buffers']} {row['order']}"
            self.goal(what, row["peak"], 300)
            print(f"| {row['buffers']} | {row['order']} | {row['admitted']} | {row['queued']} |"
                  f" {row['peak']} | 300 |")


def machine():
    model = platform.processor() or platform.machine()
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as info:
        for line in info:
            if line.startswith("model name"):
                model = line.split(":", 1)[1].strip()
                break
    return f"{model}, {os.cpu_count()} cores, Linux {platform.release().split('-')[0]}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", default="build/release", help="a Release build folder")
    parser.add_argument("--repetitions", type=int, default=5, help="medians are of this many")
    args = parser.parse_args()
    if not os.path.exists(os.path.join(args.build, "bench", "penstock_bench")):
        sys.exit(f"bench/run.py: no benchmarks in {args.build}: build them with"
                 " 'cmake --preset release && cmake --build --preset release'")
    print(f"Machine: {machine()}. Command: `bench/run.py --repetitions {args.repetitions}`.")
    medians = run_benchmarks(args.build, args.repetitions)
    report = Report()
    report.admission(medians)
    report.records(medians)
    report.neighbours(medians)
    report.steps(medians)
    report.heap(args.build)
    if report.missed:
        sys.exit("goals missed:\n  " + "\n  ".join(report.missed))


if __name__ == "__main__":
    main()
