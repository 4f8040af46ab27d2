# SPDX-License-Identifier: Apache-2.0
"""Who is measured by bench/replicate.py: penstock, its peers, and the hand-written floors.

Each contender makes a first copy, or updates one, and returns a Sample. Servers are started before
the clock, and stopped behind it; the clock runs from the start of the client's process until it
has ended and the copy's file is synced (fsync, for everyone, whether or not the client did it).
Then the copy is compared byte for byte.
"""

import json
import os
import shutil
from collections import namedtuple

from replicate_rig import (Trouble, copy_file, demand_same, evict, free_port, peak_memory,
                           sync_file)

# Where the files of a contender lie, and whether they are read from the disk.
Place = namedtuple("Place", "folder evicts")
# A line between client and server: bits a second (0: unlimited), milliseconds each way.
Link = namedtuple("Link", "name rate delay")
COUNTING = Link("counting", None, None)

CODECS = ("none", "lz4", "zstd:1")
RSYNC_CODECS = {"none": [], "lz4": ["-z", "--zc=lz4"], "zstd:1": ["-z", "--zc=zstd", "--zl=1"]}
PACKAGES = {"rsync": "rsync", "nbdkit": "nbdkit", "nbdcopy": "libnbd-bin",
            "qemu-img": "qemu-utils", "mke2fs": "e2fsprogs"}


class Sample:
    """One run: seconds, and what else is known of it."""

    def __init__(self, seconds, source_peak=0, target_peak=0, report=None):
        self.seconds = seconds
        self.source_peak, self.target_peak = source_peak, target_peak  # bytes
        self.report = report or {}  # penstock's own, as JSON
        self.wire = None  # bytes of both directions, when a relay counted them

    def raw(self):
        return {name: value for name, value in vars(self).items() if value}


class Contender:
    """Base: a folder for one run, a line for it, and what is always the same."""

    tools = ()

    def __init__(self, programs, rig, place, name, link=None):
        self.programs, self.rig, self.place, self.link = programs, rig, place, link
        self.name = name

    def missing(self):
        return [tool for tool in self.tools if tool not in self.programs]

    def first(self, image):
        return self._in_folder(lambda folder: self.run_first(folder, {"disk": image}))

    def first_of(self, images):
        """Several volumes, by name."""
        return self._in_folder(lambda folder: self.run_first(folder, images))

    def update(self, old, new):
        return self.update_of({"disk": old}, {"disk": new})

    def update_of(self, old, new):
        return self._in_folder(lambda folder: self.run_update(folder, old, new))

    def _in_folder(self, run):
        folder = self.rig.folder(self.place.folder)
        try:
            return run(folder)
        finally:
            self.rig.remove(folder)

    def settle(self, *paths):
        """Before the clock starts."""
        if self.place.evicts:
            for path in paths:
                evict(path)

    def through_link(self, address):
        """Returns the relay, if there is one, and the address to connect to."""
        if self.link is None:
            return None, address
        shape = [] if self.link.rate is None else [self.link.rate, self.link.delay]
        return self.rig.start_listener([self.programs["shaped_relay"], address, *shape])

    def measure(self, address, command, then=None):
        """Runs `command`, a function of the address to connect to."""
        relay, near = self.through_link(address)
        try:
            seconds, out, peak = self.rig.run(command(near), then)
            sample = Sample(seconds, source_peak=peak)
            sample.report = json.loads(out) if out.startswith("{") else {}
        finally:
            counted = self.rig.stop(relay) if relay else None
        if counted:
            sample.wire = sum(json.loads(counted).values())
        return sample


class Penstock(Contender):
    """The program under test. Every run has a target with a fresh state."""

    tools = ("penstock",)

    def __init__(self, programs, rig, place, codec="none", psk=None, link=None):
        name = f"penstock {codec}" + (", TLS" if psk else "")
        super().__init__(programs, rig, place, name, link)
        self.codec = codec
        self.security = ["--tls-psk", psk] if psk else ["--plaintext"]

    def start_target(self, folder):
        return self.rig.start_listener(
            [self.programs["penstock"], "target", "--listen", "127.0.0.1:0", "--log-level",
             "warning", "--state", f"{folder}/state", "--volumes", f"{folder}/volumes",
             *self.security])

    def sync_command(self, images):
        volumes = [f"{name}={path}" for name, path in images.items()]
        return lambda address: [
            self.programs["penstock"], "sync", "--to", address, "--group", "g", "--quiet", "--json",
            "--compress", self.codec, *self.security, *volumes]

    def run_first(self, folder, images):
        return self._measured(folder, {}, images)

    def run_update(self, folder, old, new):
        return self._measured(folder, old, new)

    def _measured(self, folder, known, images):
        target, address = self.start_target(folder)
        try:
            if known:
                self.rig.run(self.sync_command(known)(address))
            copies = {name: f"{folder}/volumes/g/{name}.img" for name in images}
            self.settle(*images.values(), *(copies.values() if known else ()))

            def sync():
                for copy in copies.values():
                    sync_file(copy)
            sample = self.measure(address, self.sync_command(images), sync)
            sample.target_peak = peak_memory(target)
            if sample.report.get("result") != "identical":
                raise Trouble(f"{self.name} does not say 'identical': {sample.report}")
        finally:
            self.rig.stop(target)
        for name, path in images.items():
            demand_same(path, copies[name], self.name)
        return sample


class Peer(Contender):
    """Copies one file. `serve` starts the server for `copy` and returns it and its address;
    `command` is the client's."""

    def run_first(self, folder, images):
        return self._measured(folder, None, images["disk"])

    def run_update(self, folder, old, new):
        return self._measured(folder, old["disk"], new["disk"])

    def _measured(self, folder, known, image):
        copy = f"{folder}/disk.img"
        if known:
            copy_file(known, copy)
        server, address = self.serve(folder, copy, image)
        try:
            self.settle(image, *([copy] if known else []))
            sample = self.measure(address, lambda near: self.command(near, image),
                                  lambda: sync_file(copy))
        finally:
            self.rig.stop(server)
        demand_same(image, copy, self.name)
        return sample


class Rsync(Peer):
    tools = ("rsync",)

    def __init__(self, programs, rig, place, flags, codec="none", link=None):
        name = " ".join(["rsync", *flags] if flags else ["rsync", "(default)"])
        super().__init__(programs, rig, place, name + ("" if codec == "none" else f" {codec}"),
                         link)
        self.flags = [*flags, *RSYNC_CODECS[codec]]

    def serve(self, folder, copy, _image):
        port = free_port()
        owner = "uid = root\ngid = root\n" if os.geteuid() == 0 else ""
        with open(f"{folder}/rsyncd.conf", "w", encoding="ascii") as file:
            file.write(f"use chroot = no\n{owner}[copy]\npath = {os.path.dirname(copy)}\n"
                       "read only = no\n")
        server = self.rig.start_server(
            [self.programs["rsync"], "--daemon", "--no-detach", f"--config={folder}/rsyncd.conf",
             "--address=127.0.0.1", f"--port={port}"], port)
        return server, f"127.0.0.1:{port}"

    def command(self, address, image):
        # -I: the copy has the same size, and is to be compared in any case.
        return [self.programs["rsync"], "-I", *self.flags, image,
                f"rsync://{address}/copy/disk.img"]


class Nbd(Peer):
    """A client of nbdkit's file plugin."""

    def serve(self, folder, copy, image):
        with open(copy, "wb") as file:
            file.truncate(os.path.getsize(image))
        port = free_port()
        server = self.rig.start_server(
            [self.programs["nbdkit"], "-f", "-i", "127.0.0.1", "-p", port, "file", copy], port)
        return server, f"127.0.0.1:{port}"


class NbdCopy(Nbd):
    tools = ("nbdkit", "nbdcopy")

    def __init__(self, programs, rig, place):
        super().__init__(programs, rig, place, "nbdcopy --flush")

    def command(self, address, image):
        return [self.programs["nbdcopy"], "--flush", image, f"nbd://{address}"]


class QemuImg(Nbd):
    tools = ("nbdkit", "qemu-img")

    def __init__(self, programs, rig, place):
        super().__init__(programs, rig, place, "qemu-img convert -n -W")

    def command(self, address, image):
        return [self.programs["qemu-img"], "convert", "-n", "-W", "-t", "writeback", "-f", "raw",
                "-O", "raw", image, f"nbd://{address}"]


class FloorCopy(Peer):
    tools = ("floor_copy",)

    def __init__(self, programs, rig, place, codec):
        super().__init__(programs, rig, place, f"floor {codec}")
        self.codec = codec

    def serve(self, folder, copy, _image):
        return self.rig.start_listener([self.programs["floor_copy"], "receive", copy])

    def command(self, address, image):
        return [self.programs["floor_copy"], "send", address, image, self.codec]


class FloorUpdate(Peer):
    tools = ("floor_update",)

    def __init__(self, programs, rig, place):
        super().__init__(programs, rig, place, "floor")

    def serve(self, folder, copy, _image):
        return self.rig.start_listener([self.programs["floor_update"], "target", copy])

    def command(self, address, image):
        return [self.programs["floor_update"], "source", address, image]


def find_programs(build, more=()):
    """Everything that is there, by name, with these tools. Ends when the build lacks what is
    measured."""
    programs = {"penstock": os.path.join(build, "replicator", "penstock")}
    for name in ("floor_copy", "floor_update", "shaped_relay", "commit"):
        programs[name] = os.path.join(build, "bench", "penstock_" + name)
    for path in programs.values():
        if not os.access(path, os.X_OK):
            raise Trouble(f"no {path}: build it with 'cmake --preset release &&"
                          " cmake --build --preset release'")
    search = os.environ.get("PATH", os.defpath) + ":/usr/sbin:/sbin"
    for tool in (*PACKAGES, *more):
        if path := shutil.which(tool, path=search):
            programs[tool] = path
    return programs
