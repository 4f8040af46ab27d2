#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Volumes in use, written by the tools that others use: fio, qemu-io and libnbd, over a link with
TLS. Each of them checks what it reads back; then the copies must be what the volumes are.
"""
import os
import shutil
import signal
import subprocess
import threading

from guest import Served, nbd
from rig import LIMIT, MIB, SEED, Rig, main

SIZE = 16 * MIB
ALIGNED = 4096
OPTIONS = ("--memory", "64M", "--max-dataset", "2M", "--interval", "200ms")


def need_tool(name, package):
    if not shutil.which(name):
        print(f"skipped: {name} is not installed (Debian's {package})", flush=True)
        raise SystemExit(77)


class Model:
    """What a volume must hold, kept beside what a tool is told to do to it."""

    def __init__(self, rng, size):
        self.rng = rng
        self.data = bytearray(size)

    def place(self, longest, unit=1):
        length = min(self.rng.choice((1, 512, 4096, 4097, 65536, longest)), longest)
        length = max(unit, length // unit * unit)
        offset = self.rng.randrange((len(self.data) - length) // unit + 1) * unit
        return offset, length

    def fill(self, offset, length, byte):
        self.data[offset : offset + length] = bytes([byte]) * length


class Tools(Rig):
    def setUp(self):
        super().setUp()
        self.ok("keygen", "--psk", self.path("key"), "--identity", "db1")
        self.security = ("--tls-psk", self.path("key"))
        _, self.address = self.target(security=self.security)

    def serve(self, *names, security=None):
        for name in names:
            self.sparse(name + ".img", SIZE, [self.random.randrange(SIZE) for _ in range(50)])
        served = Served(self.folder, self.address, {n: self.path(n + ".img") for n in names},
                        *OPTIONS, security=security or self.security)
        self.addCleanup(served.end, signal.SIGKILL)
        return served.ready()

    def uri(self, served, name):
        return f"nbd+unix:///{name}?socket={served.socket}"

    def assert_followed(self, served, *names):
        served.point("flushed")
        for name in names:
            self.assert_same(name + ".img", os.path.join("volumes", "g", name + ".img"))
        self.assertEqual(served.status()["overflows"], 0)

    def call(self, *command, **kwargs):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False, timeout=LIMIT, cwd=self.folder, **kwargs)
        self.assertEqual(done.returncode, 0, f"{' '.join(command)}\n{done.stdout}")
        return done.stdout

    # --- What each of them does. ---

    def fio(self, served, name, *job):
        return self.call(
            "fio", "--name=job", "--ioengine=nbd", f"--uri={self.uri(served, name)}",
            f"--randseed={SEED}", f"--size={SIZE}", "--iodepth=16", *job)

    def write_with_fio(self, served, name):
        # Sizes that are no multiple of a page, and of everything up to many of them.
        self.fio(served, name, "--rw=randwrite", "--bsrange=512-128k", "--blockalign=512",
                 "--io_size=24M", "--fsync=64", "--verify=crc32c", "--verify_fatal=1")
        self.fio(served, name, "--rw=randtrim", "--bs=64k", "--io_size=2M")
        self.fio(served, name, "--rw=randwrite", "--bs=4k", "--io_size=4M", "--verify=crc32c",
                 "--verify_fatal=1", "--verify_backlog=256")

    def write_with_qemu(self, served, name):
        model = Model(self.random, SIZE)
        model.data[:] = self.read(name + ".img")
        orders = []
        for _ in range(150):
            kind = self.random.choice(("write", "write", "write -f", "write -z", "write -zu",
                                       "discard", "flush", "read"))
            byte = self.random.randrange(1, 256)
            if kind == "flush":
                orders.append("flush")
                continue
            # What is discarded in parts of pages may be left as it is.
            offset, length = model.place(MIB, ALIGNED if kind == "discard" else 1)
            if kind == "read":
                orders += self.reads_of(model, offset)
                continue
            is_zero = kind in ("write -z", "write -zu", "discard")
            model.fill(offset, length, 0 if is_zero else byte)
            pattern = "" if is_zero else f"-P {byte} "
            orders.append(f"{kind} {pattern}{offset} {length}")
        for _ in range(50):
            orders += self.reads_of(model, self.random.randrange(SIZE))
        command = ["qemu-io", "-f", "raw", "-t", "writeback"]
        for order in orders:
            command += ["-c", order]
        said = self.call(*command, self.uri(served, name))
        for trouble in ("failed", "verification"):
            self.assertNotIn(trouble, said)
        self.assertTrue(self.read(name + ".img") == model.data, "not what qemu-io was told to write")

    def reads_of(self, model, offset):
        """That the bytes from there on that are alike are so."""
        byte = model.data[offset]
        length = 1
        while offset + length < SIZE and model.data[offset + length] == byte and length < MIB:
            length += 1
        return [f"read -P {byte} {offset} {length}"]

    def write_with_libnbd(self, served, name):
        model = Model(self.random, SIZE)
        guest = served.guest(name)
        model.data[:] = self.read(name + ".img")
        for _ in range(600):
            offset, length = model.place(256 << 10)
            fua = nbd.CMD_FLAG_FUA if self.random.random() < 0.05 else 0
            kind = self.random.choice(("write", "write", "zero", "no hole", "trim", "read", "flush"))
            if kind == "write":
                data = self.random.randbytes(length)
                guest.pwrite(data, offset, fua)
                model.data[offset : offset + length] = data
            elif kind == "zero":
                guest.zero(length, offset, fua)
                model.fill(offset, length, 0)
            elif kind == "no hole":
                guest.zero(length, offset, fua | nbd.CMD_FLAG_NO_HOLE)
                model.fill(offset, length, 0)
            elif kind == "trim":
                guest.trim(length, offset, fua)
                model.fill(offset, length, 0)
            elif kind == "flush":
                guest.flush()
            else:
                self.assertTrue(guest.pread(length, offset) == model.data[offset : offset + length])
        guest.close()
        self.assertTrue(self.read(name + ".img") == model.data, "not what libnbd was told to write")

    # --- The tests. ---

    def test_fio(self):
        served = self.serve("v")
        self.write_with_fio(served, "v")
        self.assert_followed(served, "v")

    def test_qemu_io(self):
        served = self.serve("v")
        self.write_with_qemu(served, "v")
        self.assert_followed(served, "v")

    def test_libnbd(self):
        served = self.serve("v")
        self.write_with_libnbd(served, "v")
        self.assert_followed(served, "v")

    def test_all_at_once(self):
        served = self.serve("a", "b", "c")
        faults = []

        def work(write, name):
            try:
                write(served, name)
            except (AssertionError, nbd.Error, subprocess.TimeoutExpired) as fault:
                faults.append(f"{name}: {fault}")

        threads = [threading.Thread(target=work, args=each) for each in (
            (self.write_with_fio, "a"), (self.write_with_qemu, "b"), (self.write_with_libnbd, "c"))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(faults, [])
        self.assert_followed(served, "a", "b", "c")


class Certificates(Tools):
    """The same with certificates."""

    def setUp(self):
        Rig.setUp(self)
        script = os.path.join(os.environ["PENSTOCK_SOURCE"], "examples", "make_certificates.sh")
        self.call(script, self.path("certs"), "backup", "127.0.0.1", "db1")
        _, self.address = self.target(
            security=("--tls-certs", self.path("certs", "target")))
        self.security = ("--tls-certs", self.path("certs", "db1"))

    test_fio = test_qemu_io = test_all_at_once = None


if __name__ == "__main__":
    need_tool("fio", "fio")
    need_tool("qemu-io", "qemu-utils")
    main()
