#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Errors on the way of a guest's write: above the plugin, by nbdkit's own filters; below it, by a
disk that fails; and beside it, at the target. A guest gets the errors of its own volume and no
others, and the copy is what the volume is.
"""
import errno
import os
import shutil
import signal
import subprocess
import threading
import time

from guest import PLUGIN, Filtered, Served, nbd, wait_for
from rig import BLOCK, MIB, Rig, main

SIZE = 8 * MIB
KEYS = ("memory=16M", "max-dataset=1M", "interval=100ms", "compress=none")
OPTIONS = ("--memory", "16M", "--max-dataset", "1M", "--interval", "100ms")


class Ground(Rig):
    def copy_of(self, name="v"):
        return os.path.join("volumes", "g", name + ".img")

    def assert_followed(self, served, name="v", volume=None):
        served.point("flushed")
        self.assertTrue(self.read(volume or name + ".img") == self.read(self.copy_of(name)),
                        "the copy differs")

    def serve(self, address, *more, volume=None):
        served = Served(self.folder, address, {"v": volume or self.path("v.img")}, *OPTIONS, *more)
        self.addCleanup(served.end, signal.SIGKILL)
        return served.ready()

    def place(self, longest, size=SIZE):
        length = self.random.randrange(1, longest)
        return self.random.randrange(size - length), length

    def leave_out(self, why):
        print(f"skipped: {self.id()}: {why}", flush=True)
        self.skipTest(why)

    def small_disk(self, name, size):
        """A file system in memory that holds so little."""
        if os.geteuid() != 0:
            self.leave_out("only root can mount a file system")
        at = self.path(name)
        os.mkdir(at, 0o700)
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=0700", "none", at],
                              check=False, capture_output=True, text=True)
        if done.returncode != 0:
            self.leave_out(f"a file system in memory can't be mounted: {done.stderr.strip()}")
        self.addCleanup(subprocess.run, ["umount", "--lazy", at], check=False)
        return at


class Above(Ground):
    """nbdkit's filters stand between guest and plugin."""

    def filtered(self, filters, *keys):
        self.image("v.img", SIZE)
        _, address = self.target()
        served = Filtered(self.folder, address, {"v": self.path("v.img")}, *KEYS, *keys,
                          filters=filters, security=("plaintext=true",))
        self.addCleanup(served.end, signal.SIGKILL)
        served.ready().wait_state("replicating")
        return served

    def write_one(self, guest, model, injected):
        """One request of a guest; returns whether it failed, as one that is injected does."""
        offset, length = self.place(60_000)
        kind = self.random.choice(list(injected))
        data = bytes(length) if kind != "write" else self.random.randbytes(length)
        try:
            if kind == "write":
                guest.pwrite(data, offset)
            elif kind == "zero":
                guest.zero(length, offset)
            else:
                guest.trim(length, offset)
        except nbd.Error as fault:
            self.assertEqual(fault.errnum, injected[kind], f"{kind}: {fault}")
            return True
        model[offset : offset + length] = data
        return False

    def test_injected_errors_are_the_guests_and_nobody_elses(self):
        injected = {"write": errno.ENOSPC, "zero": errno.EPERM, "trim": errno.ENOMEM}
        served = self.filtered(
            ("error",), "error-pwrite=ENOSPC", "error-pwrite-rate=20%", "error-zero=EPERM",
            "error-zero-rate=30%", "error-trim=ENOMEM", "error-trim-rate=40%")
        guest = served.guest("v")
        model = bytearray(self.read("v.img"))
        failed = sum(self.write_one(guest, model, injected) for _ in range(500))
        self.assertGreater(failed, 50)
        self.assertLess(failed, 350)
        # What failed above the plugin changed nothing, here or there.
        self.assertTrue(self.read("v.img") == model)
        self.assert_followed(served)
        said = served.said()
        self.assertEqual(said.count("error: injecting "), failed)
        self.assertEqual(said.count("error: "), failed, said)
        self.assertNotRegex(said, r"(?m)^\S+ \S+ (error|warning) ")

    def test_when_every_write_fails_nothing_is_replicated(self):
        served = self.filtered(("error",), "error-pwrite=EIO", "error-pwrite-rate=100%",
                               f"error-pwrite-file={self.path('on')}")
        guest = served.guest("v")
        guest.pwrite(b"1" * BLOCK, 0)
        served.point("flushed")
        before, written = self.read("v.img"), served.status()["writes"]
        self.write("on", b"")
        for i in range(50):
            with self.assertRaises(nbd.Error) as fault:
                guest.pwrite(b"2" * BLOCK, i * BLOCK)
            self.assertEqual(fault.exception.errnum, errno.EIO)
        served.point("flushed")
        self.assertEqual(served.status()["writes"], written)
        self.assertTrue(self.read(self.copy_of()) == before)
        os.unlink(self.path("on"))
        guest.pwrite(b"3" * BLOCK, BLOCK)
        self.assert_followed(served)

    def test_delayed_requests_of_many_guests(self):
        served = self.filtered(("delay",), "delay-write=30ms", "delay-zero=50ms", "delay-trim=10ms",
                               "delay-read=5ms")
        seeds = [self.random.random() for _ in range(6)]

        def work(number):
            guest = served.guest("v")
            for i in range(20):
                # All of them in the same places.
                offset = (i * 7919 * 512 + int(seeds[number] * 9000)) % (SIZE - 70_000)
                if i % 5 == number % 5:
                    guest.zero(9000, offset)
                elif i % 7 == number:
                    guest.trim(20_000, offset)
                else:
                    guest.pwrite(bytes([number + 1]) * 30_000, offset)

        threads = [threading.Thread(target=work, args=(n,)) for n in range(len(seeds))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assert_followed(served)


class Below(Ground):
    """The disk that a volume lies on fails."""

    def fill(self, guest, chunk):
        """Writes until the disk is full. Returns how often it went well."""
        for i in range(SIZE // chunk):
            try:
                guest.pwrite(self.random.randbytes(chunk), i * chunk)
            except nbd.Error as fault:
                self.assertEqual(fault.errnum, errno.ENOSPC, fault)
                return i
        self.fail("the disk does not get full")

    def test_a_full_disk(self):
        at = self.small_disk("small", "3M")
        volume = os.path.join(at, "v.img")
        self.sparse(volume, SIZE)
        _, address = self.target()
        served = self.serve(address, volume=volume)
        served.wait_state("replicating")
        guest = served.guest("v")
        # More than a page of memory at a time: a part of what fails is written.
        went_well = self.fill(guest, 300_000)
        self.assertGreater(went_well, 5)
        self.assertIn("No space left on device", served.said())
        self.assert_followed(served, volume=volume)
        # Elsewhere the volume goes on, and when there is room again, everywhere.
        guest.pwrite(b"x" * BLOCK, 0)
        self.assert_followed(served, volume=volume)
        guest.trim(2 * MIB, 0)
        guest.pwrite(self.random.randbytes(MIB), 6 * MIB)
        self.assert_followed(served, volume=volume)
        self.assertEqual(served.status()["state"], "replicating")

    def test_what_failed_is_compared_after_a_kill(self):
        at = self.small_disk("small", "3M")
        volume = os.path.join(at, "v.img")
        self.sparse(volume, SIZE)
        _, address = self.target()
        served = self.serve(address, volume=volume)
        served.wait_state("replicating")
        self.fill(served.guest("v"), 300_000)
        served.end(signal.SIGKILL)
        served = self.serve(address, volume=volume)
        self.assert_followed(served, volume=volume)

    def test_a_disk_that_loses_what_it_took(self):
        """Writes are taken, and the sync fails: only then is it known that there is no room."""
        if not shutil.which("losetup"):
            self.leave_out("losetup is not installed")
        at = self.small_disk("small", "3M")
        self.sparse(os.path.join(at, "disk"), SIZE)
        made = subprocess.run(["losetup", "--find", "--show", os.path.join(at, "disk")],
                              check=False, capture_output=True, text=True)
        if made.returncode != 0:
            self.leave_out(f"no loop device: {made.stderr.strip()}")
        device = made.stdout.strip()
        self.addCleanup(subprocess.run, ["losetup", "-d", device], check=False)
        _, address = self.target("--volume", f"g/v={self.sparse('copy.img', SIZE)}")
        served = self.serve(address, volume=device)
        # Before the device is given back.
        self.addCleanup(served.end, signal.SIGKILL)
        served.wait_state("replicating")
        guest = served.guest("v")
        guest.pwrite(b"1" * BLOCK, 0, nbd.CMD_FLAG_FUA)
        for i in range(6):
            guest.pwrite(self.random.randbytes(MIB), i * MIB)
        with self.assertRaises(nbd.Error) as fault:
            guest.flush()
        self.assertIn(fault.exception.errnum, (errno.EIO, errno.ENOSPC))
        # The system tells of it once. It stays so here: nobody knows what the disk has.
        with self.assertRaises(nbd.Error):
            guest.flush()
        with self.assertRaises(nbd.Error):
            guest.pwrite(b"2" * BLOCK, 0, nbd.CMD_FLAG_FUA)
        self.assertIn("can't sync", served.said())

    def test_a_volume_that_is_cut_short(self):
        self.image("v.img", SIZE)
        _, address = self.target()
        served = self.serve(address)
        served.point("flushed")
        guest = served.guest("v")
        os.truncate(self.path("v.img"), SIZE // 2)
        with self.assertRaises(nbd.Error) as fault:
            guest.pread(BLOCK, SIZE // 2 + BLOCK)
        self.assertEqual(fault.exception.errnum, errno.EIO)
        self.assertIn("has become shorter", served.said())
        # What is left of it is served, and followed.
        guest.pwrite(b"x" * BLOCK, BLOCK)
        self.assertEqual(guest.pread(BLOCK, BLOCK), b"x" * BLOCK)
        served.point("flushed")
        self.assertTrue(self.read("v.img") == self.read(self.copy_of())[: SIZE // 2])


class Beside(Ground):
    """Whatever the target's troubles are, a guest's requests succeed."""

    def setUp(self):
        super().setUp()
        self.image("v.img", SIZE)
        self.faults = []
        self.count = 0
        self.is_over = threading.Event()

    def keep_writing(self, served):
        def work():
            guest = served.guest("v")
            try:
                while not self.is_over.is_set():
                    offset = (self.count * 77_777) % (SIZE - 90_000)
                    data = bytes([self.count % 251 + 1]) * 90_000
                    guest.pwrite(data, offset)
                    if guest.pread(90_000, offset) != data:
                        self.faults.append(f"write {self.count} reads back as something else")
                    if self.count % 7 == 0:
                        guest.trim(BLOCK, offset // BLOCK * BLOCK)
                        guest.flush()
                    self.count += 1
                    time.sleep(0.001)
            except nbd.Error as fault:
                self.faults.append(str(fault))

        thread = threading.Thread(target=work, daemon=True)
        thread.start()
        self.addCleanup(self.end_writing, thread)
        return thread

    def end_writing(self, thread):
        self.is_over.set()
        thread.join()
        self.assertEqual(self.faults, [])

    def more_writes(self, count=150):
        """Waits for so many, which need no target."""
        end = self.count + count
        wait_for(lambda: self.count >= end or self.faults, "writes go on")
        self.assertEqual(self.faults, [])

    def test_a_target_that_is_killed_stopped_and_started(self):
        target, address = self.target()
        served = self.serve(address, "--spool-max", "4M")
        thread = self.keep_writing(served)
        for _ in range(2):
            self.more_writes()
            target.signal(signal.SIGSTOP)
            self.more_writes()
            self.stop(target, signal.SIGKILL)
            self.more_writes(300)
            target, _ = self.target(listen=address)
        self.end_writing(thread)
        self.assert_followed(served)

    def test_a_target_without_room(self):
        at = self.small_disk("volumes", "4M")
        _, address = self.target()
        served = self.serve(address, "--spool-max", "4M")
        thread = self.keep_writing(served)
        wait_for(lambda: "no space" in self.status_of(address), "the target has no room")
        self.more_writes(300)
        subprocess.run(["mount", "-o", "remount,size=32M", at], check=True)
        self.end_writing(thread)
        self.assert_followed(served)

    def status_of(self, address):
        return self.ok("status", "--of", address, "--plaintext").out

    def test_a_target_that_refuses(self):
        for name in ("right", "wrong"):
            self.ok("keygen", "--psk", self.path(name), "--identity", "db1")
        target, address = self.target(security=("--tls-psk", self.path("wrong")))
        served = Served(self.folder, address, {"v": self.path("v.img")}, *OPTIONS,
                        security=("--tls-psk", self.path("right")))
        self.addCleanup(served.end, signal.SIGKILL)
        served.ready()
        thread = self.keep_writing(served)
        wait_for(lambda: "trouble" in served.status() or "failure" in served.status(), "refused")
        self.more_writes(300)
        self.end_writing(thread)
        self.stop(target)
        self.target(listen=address, security=("--tls-psk", self.path("right")))
        if served.status()["state"] == "stopped":
            served.end()
            served = Served(self.folder, address, {"v": self.path("v.img")}, *OPTIONS,
                            security=("--tls-psk", self.path("right")))
            self.addCleanup(served.end, signal.SIGKILL)
            served.ready()
        self.assert_followed(served)


if __name__ == "__main__":
    if not PLUGIN:
        raise SystemExit("PENSTOCK_PLUGIN must name the plugin")
    main()
