# SPDX-License-Identifier: Apache-2.0
"""A guest of penstock serve: nbdkit with the plugin, and a client that writes by NBD."""
import fcntl
import json
import os
import signal
import socket
import subprocess
import sys
import time

from rig import LIMIT, PROGRAM

try:
    import nbd
except ImportError:
    print("skipped: python3-libnbd is not installed")
    sys.exit(77)

NBDKIT = os.environ.get("PENSTOCK_NBDKIT", "nbdkit")
PLUGIN = os.environ.get("PENSTOCK_PLUGIN")


def has_sanitizer():
    """Whether nbdkit is started by a wrapper that loads a sanitizer's runtime before it."""
    if not os.path.isabs(NBDKIT):
        return False
    with open(NBDKIT, "rb") as file:
        return b"LD_PRELOAD" in file.read(4096)


def wait_for(condition, what, limit=LIMIT):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what}: not within {limit} s")
        time.sleep(0.02)


def free_port():
    """Of the loopback, which nobody else will take in the next moment."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Served:
    """penstock serve on volumes; what it says goes to a file in its folder."""

    def __init__(self, folder, address, volumes, *more, security=("--plaintext",), state="live"):
        self.folder = folder
        self.state = os.path.join(folder, state)
        self.log = os.path.join(folder, os.path.basename(state) + ".log")
        self._sink = open(self.log, "a", encoding="utf-8")
        self.socket = os.path.join(self.state, "nbd.sock")
        self.nbd = dict(zip(more, more[1:])).get("--nbd", "unix:" + self.socket)
        self._process = subprocess.Popen(self.command(address, volumes, more, security),
                                         stdout=subprocess.DEVNULL, stderr=self._sink)

    def command(self, address, volumes, more, security):
        return [PROGRAM, "serve", "--to", address, "--group", "g", "--state", self.state,
                *security, "--nbdkit", NBDKIT, *more,
                *[f"{name}={path}" for name, path in volumes.items()]]

    def ready(self):
        def is_there():
            if self._process.poll() is not None:
                raise AssertionError(f"serve ended with {self._process.returncode}: {self.said()}")
            try:
                self.guest(None).close()
                return True
            except nbd.Error:
                return False

        wait_for(is_there, "serving")
        return self

    def said(self):
        with open(self.log, encoding="utf-8") as file:
            return file.read()

    def bytes_read(self):
        """By the process, of files."""
        with open(f"/proc/{self._process.pid}/io", encoding="utf-8") as file:
            return int(file.readline().split()[1])

    def guest(self, volume):
        client = nbd.NBD()
        if volume is None:
            client.set_opt_mode(True)
        else:
            client.set_export_name(volume)
        if self.nbd.startswith("unix:"):
            client.connect_unix(self.nbd.removeprefix("unix:"))
        else:
            host, port = self.nbd.rsplit(":", 1)
            client.connect_tcp(host.strip("[]"), port)
        return Guest(client)

    def status(self):
        done = subprocess.run([PROGRAM, "status", "--state", self.state, "--json"],
                              capture_output=True, text=True, timeout=LIMIT, check=False)
        return json.loads(done.stdout) if done.returncode == 0 else {"state": done.stderr.strip()}

    def wait_state(self, state, limit=LIMIT):
        wait_for(lambda: self.status()["state"] == state, f"state {state!r}", limit)

    def order(self, *args):
        done = subprocess.run([PROGRAM, args[0], "--state", self.state, *args[1:]],
                              capture_output=True, text=True, timeout=LIMIT, check=False)
        return done.returncode, done.stdout.strip(), done.stderr.strip()

    def point(self, wait=None):
        """The number of a point that is closed now; waits through times in which there is none."""
        end = time.monotonic() + LIMIT
        while time.monotonic() < end:
            code, out, err = self.order("point", *(["--wait", wait] if wait else []))
            if code == 0:
                return int(out)
            time.sleep(0.05)
        raise AssertionError(f"no point: {err}; {self.status()}")

    def end(self, number=signal.SIGTERM):
        if self._process.poll() is None:
            self._process.send_signal(number)
        if has_sanitizer():
            code = self._end_with_sanitizer()
        else:
            code = self._process.wait(LIMIT)
        self._sink.close()
        return code

    def _end_with_sanitizer(self):
        """With a runtime before it nbdkit, also with its own plugins, may find the C library's lock
        of locales broken in exit(), and wait for it without end. The source is gone by then; the
        exit code is looked at in the other builds."""
        wait_for(lambda: self._process.poll() is not None or self._is_released(), "the end")
        try:
            return self._process.wait(5)
        except subprocess.TimeoutExpired:
            print("not looked at with a sanitizer: the exit code")
            self._process.kill()
            self._process.wait(LIMIT)
            return 0

    def _is_released(self):
        """Whether no process has the state directory."""
        try:
            with open(os.path.join(self.state, "source.lock"), "rb") as lock:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            return False
        except OSError:  # it was never made, or its disk is gone
            return True
        return True


class Filtered(Served):
    """nbdkit itself, with filters before the plugin; `more` and `security` are their keys and the
    plugin's, as key=value."""

    def __init__(self, *args, filters=(), **kwargs):
        self.filters = filters
        super().__init__(*args, **kwargs)

    def command(self, address, volumes, more, security):
        os.makedirs(self.state, mode=0o700, exist_ok=True)
        return [NBDKIT, "--foreground", "--unix", self.socket,
                *[f"--filter={name}" for name in self.filters], PLUGIN,
                f"to={address}", "group=g", f"state={self.state}", *security, *more,
                *[f"{name}={path}" for name, path in volumes.items()]]


class Guest:
    """A client, which is closed with the process that serves it."""

    def __init__(self, client):
        self._client = client

    def __getattr__(self, name):
        return getattr(self._client, name)

    def close(self):
        try:
            if self._client.get_opt_mode() and self._client.aio_is_negotiating():
                self._client.opt_abort()
            else:
                self._client.shutdown()
        except nbd.Error:
            pass
