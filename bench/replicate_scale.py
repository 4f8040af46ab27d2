# SPDX-License-Identifier: Apache-2.0
"""Memory, growth, small datasets, disks and slow links: sections of bench/replicate.py with images
of their own.
"""

import json
import os

from replicate_copies import WHOLE, rounds
from replicate_peers import CODECS, FloorCopy, Link, Penstock, Place, Rsync
from replicate_report import median, mib
from replicate_rig import (GIB, MIB, change_blocks, copy_file, demand_room, make_image,
                           repeat_image, room_in)

MEMORY_GOAL = 300 * MIB
LARGE = 8 * GIB
GROWTH_GOAL = 1.15
COMMIT_GOAL = 4
COMMITS = 1000
GROWTH = (1, 4, 16)  # GiB
VOLUMES = (1, 8, 64)
CHANGED = 0.01
LINKS = (Link("100 Mbit/s", 100_000_000, 0), Link("20 ms each way", 0, 20))


class Scale:
    """`bench` as in Copies, and the folder on the disk, and the sizes of --growth-max and
    --link-size."""

    def __init__(self, bench):
        self.bench = bench

    def make(self, kind, place, *args, **kwargs):
        return kind(self.bench.programs, self.bench.rig, place, *args, **kwargs)

    def path(self, name):
        return os.path.join(self.bench.folder, name)

    def _density(self, total):
        """Which part of files of `total` bytes together can be data, so that they fit into the RAM:
        in eighths."""
        folder = self.bench.ram.folder
        eighths = min(8, int(room_in(folder) * 0.75 / total * 8))
        if eighths == 0:
            demand_room(folder, total / 8 / 0.75, f"a section with {total / GIB:.0f} GiB")
        return eighths / 8

    # --- Memory. ---

    def memory(self):
        image = self.bench.image
        large = self.path("large.img")
        print("\n## The most memory that either process had, MiB\n")
        print(f"{CHANGED:.0%} of the blocks change between copy and update, and the target of an"
              " update has made the copy before.\n")
        print("| image | what | codec | source | target | goal |")
        print("|---|---|---|---|---|---|")
        for path in (image, large):
            note = ""
            if path == large:
                density = self._density(3 * LARGE)  # it, changed, and the copy
                repeat_image(image, large, LARGE, density)
                note = f", {density:.0%} of it data"
            shown = f"{os.path.getsize(path) / GIB:.2f} GiB{note}"
            changed = self.path("changed.img")
            change_blocks(path, changed, CHANGED, self.bench.seed)
            for codec in CODECS:
                contender = self.make(Penstock, self.bench.ram, codec)
                self._memory_row(shown, "first copy", codec, contender.first(path))
                self._memory_row(shown, "update", codec, contender.update(path, changed))
            os.remove(changed)
        os.remove(large)

    def _memory_row(self, image, what, codec, sample):
        report = self.bench.report
        report.keep("memory", {f"{image}, {what}, {codec}": [sample]})
        for side, peak in (("source", sample.source_peak), ("target", sample.target_peak)):
            report.goal(f"MiB of the {side}, {image}, {what}, {codec}", peak / MIB,
                        MEMORY_GOAL / MIB)
        print(f"| {image} | {what} | {codec} | {mib(sample.source_peak)} |"
              f" {mib(sample.target_peak)} | {MEMORY_GOAL // MIB} |", flush=True)

    # --- Growth. ---

    def growth(self):
        sizes = [size for size in GROWTH if size <= self.bench.growth_max]
        density = self._density((sum(sizes) + sizes[-1]) * GIB)
        print("\n## Growth with the image's size, seconds a GiB")
        print(f"\nOf each GiB the first {density:.0%} is data (the image's, repeated) and the rest"
              " a hole, in every size alike, so that all sizes and a copy fit into the folder. An"
              " update changes nothing, so all of it is compared. The floor is the bare copy over"
              " TCP of bench/floor_copy.cpp: what it grows by is the machine's, which may have to"
              " get fresh memory from its host.")
        images = {}
        for size in sizes:
            images[size] = self.path(f"{size}.img")
            repeat_image(self.bench.image, images[size], size * GIB, density)
        self._grow("size", {f"{size} GiB": ({"disk": path}, size) for size, path in images.items()},
                   self.make(FloorCopy, self.bench.ram, "none"))
        for path in images.values():
            os.remove(path)

    def volumes(self):
        size = os.path.getsize(self.bench.image)
        print("\n## Growth with the number of volumes, seconds a GiB")
        print(f"\nThe image's {size / GIB:.2f} GiB cut into so many volumes of one group.")
        kinds = {}
        for count in VOLUMES:
            kinds[f"{count} volumes" if count > 1 else "1 volume"] = (self._cut(count), size / GIB)
        self._grow("volumes", kinds)
        for images, _ in kinds.values():
            for path in images.values():
                if path != self.bench.image:
                    os.remove(path)

    def _cut(self, count):
        image = self.bench.image
        if count == 1:
            return {"disk": image}
        size = os.path.getsize(image)
        piece = -(-size // count // MIB) * MIB
        images = {}
        with open(image, "rb") as source:
            for begin in range(0, size, piece):
                name = f"disk{len(images)}"
                images[name] = self.path(f"{count}-{name}.img")
                with open(images[name], "wb") as file:
                    left = min(piece, size - begin)
                    file.truncate(left)
                    for at in range(0, left, MIB):
                        data = os.pread(source.fileno(), min(MIB, left - at), begin + at)
                        if data.count(0) != len(data):
                            os.pwrite(file.fileno(), data, at)
        return images

    def _grow(self, section, kinds, floor=None):
        """`kinds`: by name, the images and how many GiB they are. `floor` copies one image."""
        contender = self.make(Penstock, self.bench.ram)
        work = {"first copy": contender.first_of,
                "update": lambda images: contender.update_of(images, images)}
        if floor:
            work = {"floor": lambda images: floor.first(*images.values()), **work}
        samples = {what: {kind: [] for kind in kinds} for what in work}
        for turn in range(self.bench.repetitions):
            # Who comes first finds colder memory.
            order = list(work.items())[::-1 if turn % 2 else 1]
            for kind, (images, _) in kinds.items():
                for what, measure in order:
                    samples[what][kind].append(measure(images))
        print("\n| what | " + " | ".join(kinds) + " | most over the first | goal |")
        print("|---" * (len(kinds) + 3) + "|")
        for what, by_kind in samples.items():
            self.bench.report.keep(f"growth with {section}, {what}", by_kind)
            each = [median(by_kind[kind]) / gib for kind, (_, gib) in kinds.items()]
            most, goal = max(each) / each[0], ""
            shown = f"{most:.2f}"
            if what != "floor":
                goal = GROWTH_GOAL
                shown = self.bench.report.goal(f"growth with {section}, {what}", most, goal)
            print(f"| {what} | " + " | ".join(f"{value:.2f}" for value in each)
                  + f" | {shown} | {goal} |", flush=True)

    # --- Small datasets. ---

    def commit(self):
        """From END to ACK, beside a durable file of the same bytes."""
        rig = self.bench.rig
        folder = rig.folder(self.bench.disk)
        target, address = self.make(Penstock, Place(folder, False)).start_target(folder)
        _, out, _ = rig.run([self.bench.programs["commit"], address, f"{folder}/files", COMMITS])
        rig.stop(target)
        rig.remove(folder)
        row = json.loads(out)
        self.bench.report.raw["commit"] = row
        shown = self.bench.report.goal("END to ACK over a durable file",
                                       row["dataset_us"] / row["file_us"], COMMIT_GOAL)
        print(f"\n## Small datasets, {row['datasets']} of one block of 4 KiB, one at a time\n")
        print("| | median, us | ratio | goal |\n|---|---|---|---|")
        print(f"| from END to ACK: durable at the target | {row['dataset_us']:.0f} | {shown} |"
              f" {COMMIT_GOAL} |")
        print(f"| a new file of these bytes, its fsync, and its folder's | {row['file_us']:.0f} |"
              " | |", flush=True)

    # --- Other places and links. ---

    def _pairs(self, title, image, changed, place, link, repetitions):
        """A first copy and an update by each codec, beside rsync with the same."""
        report = self.bench.report
        for codec in CODECS:
            ours = self.make(Penstock, place, codec, link=link)
            measured = rounds(f"{title}, first copy {codec}",
                              [ours, self.make(Rsync, place, WHOLE, codec, link=link)],
                              repetitions, lambda contender: contender.first(image))
            report.keep(f"{title}, first copy", measured)
            report.table(f"{title}: first copy, {codec}", measured, ours.name)
            measured = rounds(f"{title}, update {codec}",
                              [ours, self.make(Rsync, place, [], codec, link=link)],
                              repetitions, lambda contender: contender.update(image, changed))
            report.keep(f"{title}, update", measured)
            report.table(f"{title}: update, {CHANGED:.0%} changed, {codec}", measured, ours.name)

    def disk(self):
        size = os.path.getsize(self.bench.image)
        demand_room(self.bench.disk, 4 * size, "the section disk")
        print("\n## Both ends on the disk's file system")
        print("\nWhat is read is taken out of the page cache before each run.")
        folder = self.bench.rig.folder(self.bench.disk)
        image, changed = os.path.join(folder, "disk.img"), os.path.join(folder, "changed.img")
        copy_file(self.bench.image, image)
        change_blocks(image, changed, CHANGED, self.bench.seed)
        self._pairs("disk", image, changed, Place(folder, True), None, self.bench.repetitions)
        self.bench.rig.remove(folder)

    def links(self):
        size = self.bench.link_size
        image, changed = self.path("small.img"), self.path("changed.img")
        make_image(self.bench.rig, image, size, self.bench.seed)
        change_blocks(image, changed, CHANGED, self.bench.seed)
        print(f"\n## Over slow links, an image of {size / MIB:.0f} MiB")
        for link in LINKS:
            self._pairs(link.name, image, changed, self.bench.ram, link,
                        min(self.bench.repetitions, 3))
        os.remove(image)
        os.remove(changed)
