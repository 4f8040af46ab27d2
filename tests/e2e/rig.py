# SPDX-License-Identifier: Apache-2.0
"""What the tests of the program share: a folder of their own, images, and the program as processes.

PENSTOCK names the program. PENSTOCK_SEED repeats a run: what is random is drawn from it.
"""
import json
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

PROGRAM = os.environ.get("PENSTOCK")
SEED = int(os.environ.get("PENSTOCK_SEED") or time.time_ns() % 1_000_000)
LIMIT = 60  # seconds; nothing here takes a tenth of it
BLOCK = 4096
MIB = 1 << 20


class Result:
    """How a process ended, and what it said."""

    def __init__(self, code, out, err):
        self.code, self.out, self.err = code, out, err

    def __repr__(self):
        return f"exit code {self.code}\n--- out\n{self.out}--- err\n{self.err}"

    def json(self):
        return json.loads(self.out)

    def complaint(self):
        """The one line that says what is wrong."""
        lines = [line for line in self.err.splitlines() if line.startswith("penstock: ")]
        assert len(lines) == 1, self
        return lines[0]


def run(*args, **kwargs):
    done = subprocess.run([PROGRAM, *map(str, args)], capture_output=True, text=True,
                          timeout=LIMIT, check=False, **kwargs)
    return Result(done.returncode, done.stdout, done.stderr)


class Process:
    """A process that runs beside the test."""

    def __init__(self, folder, *args, **kwargs):
        self._err = open(os.path.join(folder, "stderr"), "w+", encoding="utf-8")
        self._process = subprocess.Popen([PROGRAM, *map(str, args)], stdout=subprocess.PIPE,
                                         stderr=self._err, text=True, **kwargs)

    def read_line(self):
        return self._process.stdout.readline()

    def errors(self):
        self._err.flush()
        with open(self._err.name, encoding="utf-8") as file:
            return file.read()

    def is_running(self):
        return self._process.poll() is None

    def signal(self, number):
        self._process.send_signal(number)

    def wait(self):
        code = self._process.wait(LIMIT)
        out = self._process.stdout.read()
        self._process.stdout.close()
        self._err.close()
        with open(self._err.name, encoding="utf-8") as file:
            return Result(code, out, file.read())

    def end(self):
        if self.is_running():
            self._process.kill()
        if not self._process.stdout.closed:
            self.wait()


class Rig(unittest.TestCase):
    """A private folder, and verbs."""

    def setUp(self):
        self.random = random.Random(f"{SEED}/{self.id()}")
        self.folder = tempfile.mkdtemp(prefix="penstock-e2e-")
        os.chmod(self.folder, 0o700)
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)

    def path(self, *names):
        return os.path.join(self.folder, *names)

    # --- Images. ---

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def image(self, name, size):
        """Random data throughout."""
        return self.write(name, self.random.randbytes(size))

    def sparse(self, name, size, data=()):
        """A hole with random blocks at the offsets of `data`."""
        with open(self.path(name), "wb") as file:
            file.truncate(size)
            for offset in data:
                file.seek(offset)
                file.write(self.random.randbytes(min(BLOCK, size - offset)))
        return self.path(name)

    def change(self, name, offsets, size=BLOCK):
        with open(self.path(name), "r+b") as file:
            for offset in offsets:
                file.seek(offset)
                file.write(self.random.randbytes(size))

    def allocated(self, name):
        return os.stat(self.path(name)).st_blocks * 512

    def assert_same(self, a, b):
        self.assertTrue(self.read(a) == self.read(b), f"{a} and {b} differ")

    # --- The program. ---

    def ok(self, *args, **kwargs):
        result = run(*args, **kwargs)
        self.assertEqual(result.code, 0, result)
        return result

    def refused(self, code, text, *args, **kwargs):
        """Ends with this code, and one line that says so."""
        result = run(*args, **kwargs)
        self.assertEqual(result.code, code, result)
        self.assertIn(text, result.complaint())
        return result

    def start(self, *args, **kwargs):
        folder = tempfile.mkdtemp(dir=self.folder)
        process = Process(folder, *args, **kwargs)
        self.addCleanup(process.end)
        return process

    def target(self, *more, listen="127.0.0.1:0", security=("--plaintext",), **kwargs):
        """Starts a target. Returns it and its address."""
        process = self.start("target", "--listen", listen, "--state", self.path("state"),
                             "--volumes", self.path("volumes"), *security, *more, **kwargs)
        line = process.read_line()
        self.assertRegex(line, r"^listening on \S+\n$", process.errors())
        return process, line.split()[2]

    def sync(self, address, *volumes, code=0, security=("--plaintext",), more=()):
        result = run("sync", "--to", address, "--group", "g", "--json", "--retry-for", "5",
                     *security, *more, *[f"{name}={self.path(path)}" for name, path in volumes])
        self.assertEqual(result.code, code, result)
        return result

    def stop(self, process, number=signal.SIGTERM):
        process.signal(number)
        return process.wait()


def main():
    if not PROGRAM:
        raise SystemExit("PENSTOCK must name the program")
    print(f"seed {SEED} (repeat with PENSTOCK_SEED={SEED})", flush=True)
    unittest.main(verbosity=1)
