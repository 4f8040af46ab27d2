#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An ext4 file system is made and used on a volume that is replicated, and its copy is looked at in
the middle of it.

The export becomes a file by nbdfuse, the file a loop device, and that is mounted. Files come, change
their names and go, and some are kept: once such a file and its directory are synced, a point is
closed, and from that point on every copy must have it. About every 500 ms there is a point; every
tenth time the source is paused, so that the target stands at one point, and its volume is copied.
The copy must be a file system without a fault that has every kept file of that point.

A copy is what a disk is after a power cut: its journal is not replayed yet. e2fsck without leave to
write would complain about that alone, so it replays the journal of the copy first, and then must
find nothing to complain about.

Needs root, /dev/fuse, loop devices, nbdfuse and e2fsprogs; ends with 77 and the reason where one of
them is not to be had. PENSTOCK_SEED repeats what is done to the files.
"""
import hashlib
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

from guest import Served, wait_for
from power import Failure, Skip, call, need
from rig import LIMIT, MIB, PROGRAM, SEED

SIZE = 64 * MIB
POINTS, LOOK_EVERY = 30, 10
PERIOD = 0.5  # seconds
OPTIONS = ("--memory", "32M", "--max-dataset", "2M", "--interval", "60m")


def content(name):
    return (hashlib.sha256(name.encode()).hexdigest() * 700).encode()[: 1000 + 37 * len(name) ** 3]


class FileSystem:
    """A file system on an export: nbdfuse, a loop device, a mount."""

    def __init__(self, folder, uri):
        self.uri = uri
        self.fuse_at, self.at = os.path.join(folder, "fuse"), os.path.join(folder, "mounted")
        self.fuse = self.device = None

    def make(self):
        os.mkdir(self.fuse_at)
        os.mkdir(self.at)
        image = os.path.join(self.fuse_at, "nbd")
        self.fuse = subprocess.Popen(["nbdfuse", image, self.uri], stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, text=True)
        wait_for(lambda: os.path.exists(image) or self.fuse.poll() is not None, "nbdfuse")
        if self.fuse.poll() is not None:
            raise Skip(f"nbdfuse does not work here: {self.fuse.stdout.read().strip()}")
        call("mkfs.ext4", "-q", "-F", "-E", "nodiscard", image)
        try:
            self.device = call("losetup", "--find", "--show", image).strip()
            call("mount", "-t", "ext4", "-o", "commit=1,discard", self.device, self.at)
        except Failure as why:
            raise Skip(f"a file can't be mounted here: {why}") from None

    def unmount(self):
        call("umount", self.at)
        call("losetup", "-d", self.device)
        self.device = None
        self.end_fuse()

    def end_fuse(self):
        self.fuse.terminate()  # it unmounts itself
        self.fuse.communicate(timeout=LIMIT)
        self.fuse = None

    def remove(self):
        for at in (self.at, self.fuse_at):
            if os.path.ismount(at):
                subprocess.run(["umount", "--lazy", at], check=False)
        if self.device:
            subprocess.run(["losetup", "-d", self.device], check=False)
        if self.fuse:
            self.fuse.kill()
            self.fuse.communicate(timeout=LIMIT)


class User(threading.Thread):
    """Somebody who works with files all the time."""

    def __init__(self, at, close_point):
        super().__init__(daemon=True)
        self.rng = random.Random(SEED)
        self.at, self.close_point = at, close_point
        self.names = []  # of those that come and go
        self.kept = []  # (point, name): from that point on it is there
        self.count = 0
        self.is_over = threading.Event()
        self.fault = None
        for name in ("a", "b", "kept"):
            os.mkdir(os.path.join(at, name))

    def run(self):
        try:
            while not self.is_over.is_set():
                self.step()
        except (OSError, Failure) as fault:
            self.fault = fault

    def path(self, name):
        return os.path.join(self.at, name)

    def step(self):
        self.count += 1
        kind = self.rng.choices(("create", "rename", "remove", "append", "sync", "keep"),
                                (8, 6, 5, 4, 1, 1))[0]
        if kind == "keep":
            return self.keep()
        if kind == "create" and len(self.names) < 300:
            name = f"{self.rng.choice('ab')}/{self.count}"
            with open(self.path(name), "wb") as file:
                file.write(content(name) * self.rng.randrange(1, 5))
            self.names.append(name)
        elif kind == "sync":
            os.sync() if self.count % 50 == 0 else self.sync(self.rng.choice("ab"))
        elif self.names:
            which = self.rng.randrange(len(self.names))
            name = self.names[which]
            if kind == "rename":
                self.names[which] = f"{self.rng.choice('ab')}/{self.count}"
                os.rename(self.path(name), self.path(self.names[which]))
            elif kind == "append":
                with open(self.path(name), "r+b") as file:
                    file.seek(self.rng.randrange(20_000))
                    file.write(content(name))
                    if self.rng.random() < 0.2:
                        os.fsync(file.fileno())
            else:
                os.unlink(self.path(name))
                del self.names[which]
        time.sleep(0.001)

    def sync(self, name):
        fd = os.open(self.path(name), os.O_RDONLY)
        try:
            os.fsync(fd)
        finally:
            os.close(fd)

    def keep(self):
        name = f"kept/{self.count}"
        with open(self.path(name), "wb") as file:
            file.write(content(name))
            file.flush()
            os.fsync(file.fileno())
        self.sync("kept")
        point = self.close_point()
        if point:
            self.kept.append((point, name))


class Test:
    def __init__(self, folder):
        self.folder = folder
        self.image = os.path.join(folder, "v.img")
        with open(self.image, "wb") as file:
            file.truncate(SIZE)
        self.copies = os.path.join(folder, "volumes")
        with open(os.path.join(folder, "target.log"), "w", encoding="utf-8") as log:
            self.target = subprocess.Popen(
                [PROGRAM, "target", "--plaintext", "--listen", "127.0.0.1:0", "--state",
                 os.path.join(folder, "state"), "--volumes", self.copies],
                stdout=subprocess.PIPE, stderr=log, text=True)
        line = self.target.stdout.readline()
        need(line.startswith("listening on "), "the target does not start")
        self.address = line.split()[2]
        self.served = Served(folder, self.address, {"v": self.image}, *OPTIONS).ready()
        self.disk = FileSystem(folder, f"nbd+unix:///v?socket={self.served.socket}")
        self.user = None

    def close_point(self):
        """0: there is none now."""
        code, out, _ = self.served.order("point")
        return int(out) if code == 0 else 0

    def stands_at(self):
        """The point at which the target's volume stands; 0 while anything is on its way there."""
        done = subprocess.run([PROGRAM, "status", "--of", self.address, "--plaintext", "--json"],
                              capture_output=True, text=True, check=True, timeout=LIMIT)
        group = json.loads(done.stdout)["groups"][0]
        volume = group["volumes"][0]
        # What came before the connection's end is still taken, whole datasets of it.
        is_still = (not group["connected"] and volume["state"] == "good"
                    and group["durable"] == group["flushed"])
        return volume["goodAt"] if is_still else 0

    def look(self):
        """Copies what the target has at one point, and looks at it."""
        need(self.served.order("pause")[0] == 0, "no pause")
        copy = os.path.join(self.folder, "copy.img")
        at = -1
        while self.stands_at() != at:  # the point before the copying and after it
            wait_for(self.stands_at, "the target at one point")
            at = self.stands_at()
            call("cp", "--sparse=always", os.path.join(self.copies, "g", "v.img"), copy)
        need(self.served.order("resume")[0] == 0, "no resume")
        self.check(copy, at, [name for point, name in list(self.user.kept) if point <= at])

    def check(self, copy, at, kept):
        call("e2fsck", "-y", "-E", "journal_only", copy)
        call("e2fsck", "-fn", copy)
        for name in kept:
            dump = os.path.join(self.folder, "dump")
            call("debugfs", "-R", f"dump /{name} {dump}", copy)
            need(os.path.exists(dump), f"at point {at} {name} is missing")
            with open(dump, "rb") as file:
                need(file.read() == content(name), f"at point {at} {name} is not what was synced")
            os.unlink(dump)
        print(f"point {at}: clean, with {len(kept)} of the files that are kept", flush=True)

    def run(self):
        self.disk.make()
        self.served.point("flushed")
        self.user = User(self.disk.at, self.close_point)
        self.user.start()
        seen = 0
        for number in range(1, POINTS + 1):
            time.sleep(PERIOD)
            self.close_point()
            if number % LOOK_EVERY == 0:
                self.look()
                seen += 1
        self.user.is_over.set()
        self.user.join(LIMIT)
        need(not self.user.fault, f"the file system failed its user: {self.user.fault}")
        need(len(self.user.kept) > POINTS, f"only {len(self.user.kept)} files were kept")
        self.disk.unmount()
        self.finish()
        return seen

    def finish(self):
        self.served.point("flushed")
        status = self.served.status()
        need(status["overflows"] == 0, f"the backlog was given up: {status}")
        copy = os.path.join(self.copies, "g", "v.img")
        call("cmp", self.image, copy)
        call("e2fsck", "-fn", copy)  # it was unmounted: there is nothing to replay

    def remove(self):
        if self.user:
            self.user.is_over.set()
            self.user.join(LIMIT)
        self.disk.remove()
        self.served.end(signal.SIGKILL)
        self.target.kill()
        self.target.wait(LIMIT)
        self.target.stdout.close()


def check_ground():
    if os.geteuid() != 0:
        raise Skip("only root can mount a file system")
    if not os.path.exists("/dev/fuse"):
        raise Skip("there is no /dev/fuse")
    for tool in ("nbdfuse", "losetup", "mount", "mkfs.ext4", "e2fsck", "debugfs"):
        if not shutil.which(tool):
            raise Skip(f"{tool} is not installed")


def main():
    print(f"seed {SEED} (repeat with PENSTOCK_SEED={SEED})", flush=True)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))
    folder = tempfile.mkdtemp(prefix="penstock-ext4-")
    os.chmod(folder, 0o700)
    test = None
    try:
        check_ground()
        test = Test(folder)
        seen = test.run()
    except Skip as why:
        print(f"skipped: {why}")
        return 77
    except (Failure, AssertionError) as fault:
        print(f"FAIL: seed {SEED}: {fault}")
        return 1
    finally:
        if test:
            test.remove()
        shutil.rmtree(folder, ignore_errors=True)
    print(f"{POINTS} points, {seen} times looked at; {test.user.count} steps of a user")
    return 0


if __name__ == "__main__":
    sys.exit(main())
