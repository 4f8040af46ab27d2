#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a disk, a full file system and a bad network do to a target, with real system calls.

Failures of fdatasync and fsync are injected by strace, a small tmpfs runs full, and a relay damages,
cuts and stalls. The copy is judged by comparing it with the source. What this machine does not allow
is skipped, with the reason.
"""
import os
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from blocks import cut

PENSTOCK = os.environ["PENSTOCK"]


class Skip(Exception):
    pass


class Target:
    def __init__(self, folder, volumes=None, wrapper=()):
        self.folder = folder
        self.volumes = volumes or os.path.join(folder, "copies")
        os.makedirs(self.volumes, 0o700, exist_ok=True)
        self.log = os.path.join(folder, "target.log")
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                [*wrapper, PENSTOCK, "target", "--listen", "127.0.0.1:0", "--plaintext",
                 "--state", os.path.join(folder, "state"), "--volumes", self.volumes],
                stdout=subprocess.PIPE, stderr=log, text=True)
        line = self.process.stdout.readline()
        self.address = line.split()[-1] if line.startswith("listening on ") else None

    def said(self):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        return self.process.wait(timeout=30)


def make_image(path, size, seed):
    with open(path, "wb") as file:
        file.write(random.Random(seed).randbytes(size))


def sync(address, image, retry_for=30, timeout=120):
    return subprocess.run(
        [PENSTOCK, "sync", "--to", address, "--group", "g", "--plaintext", "--quiet",
         "--retry-for", str(retry_for), "--compress", "none", "v=" + image],
        capture_output=True, text=True, timeout=timeout)


def same(a, b):
    with open(a, "rb") as x, open(b, "rb") as y:
        return x.read() == y.read()


def need(condition, text):
    if not condition:
        raise AssertionError(text)


def strace_works():
    try:
        probe = subprocess.run(["strace", "-o", "/dev/null", "true"], capture_output=True)
    except FileNotFoundError:
        raise Skip("strace is not installed") from None
    if probe.returncode != 0:
        raise Skip("strace may not trace here")


def a_failed_sync_stops_the_target_and_loses_nothing(folder):
    strace_works()
    image = os.path.join(folder, "image")
    make_image(image, 40 << 20, 1)
    for call in ("fdatasync", "fsync"):
        target = Target(folder, wrapper=[
            "strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=" + call,
            "-e", f"inject={call}:error=EIO:when=2+"])
        if target.address is None:
            # It may fail as early as its own state: it must say so.
            need(target.stop() != 0, "the target went on after a failed sync")
            continue
        result = sync(target.address, image, retry_for=1)
        need(result.returncode != 0, f"sync succeeded although {call} fails")
        need(target.stop() == 3, f"the target did not end with 3 after {call} failed: "
             + target.said())
    target = Target(folder)
    result = sync(target.address, image)
    need(result.returncode == 0, "sync after the disk was well again: " + result.stderr)
    target.stop()
    need(same(image, os.path.join(folder, "copies", "g", "v.img")), "the copy differs")


def a_full_disk_holds_the_copy_up_and_no_more(folder):
    if os.geteuid() != 0:
        raise Skip("only root can mount a small tmpfs")
    small = os.path.join(folder, "small")
    os.mkdir(small)
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=24m", "tmpfs", small],
                      capture_output=True).returncode != 0:
        raise Skip("a tmpfs can't be mounted here")
    try:
        image = os.path.join(folder, "image")
        make_image(image, 40 << 20, 2)
        target = Target(folder, volumes=os.path.join(small, "copies"))
        source = subprocess.Popen(
            [PENSTOCK, "sync", "--to", target.address, "--group", "g", "--plaintext", "--quiet",
             "--retry-for", "60", "--compress", "none", "v=" + image],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        for _ in range(100):
            if "space" in target.said():
                break
            time.sleep(0.1)
        need("space" in target.said(), "the target does not say that there is no room")
        need(source.poll() is None, "sync gave up")
        need(subprocess.run(["mount", "-o", "remount,size=100m", small]).returncode == 0, "remount")
        output, _ = source.communicate(timeout=90)
        need(source.returncode == 0, "sync after there was room: " + output)
        target.stop()
        need(same(image, os.path.join(small, "copies", "g", "v.img")), "the copy differs")
    finally:
        subprocess.run(["umount", small])


class BadRelay:
    """Damages a byte, cuts, or stalls for a moment, by chance, for as long as it is bad."""

    def __init__(self, address, seed):
        host, port = address.rsplit(":", 1)
        self.to = (host, int(port))
        self.rng = random.Random(seed)
        self.bad = True
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = "127.0.0.1:%d" % self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            try:
                server = socket.create_connection(self.to)
            except OSError:
                client.close()
                continue
            for a, b in ((client, server), (server, client)):
                threading.Thread(target=self.pump, args=(a, b), daemon=True).start()

    def pump(self, source, sink):
        try:
            while True:
                data = bytearray(source.recv(1 << 16))
                if not data:
                    break
                dice = self.rng.random()
                if self.bad and dice < 0.004:
                    data[self.rng.randrange(len(data))] ^= 1 << self.rng.randrange(8)
                elif self.bad and dice < 0.006:
                    break
                elif self.bad and dice < 0.008:
                    time.sleep(0.3)
                sink.sendall(data)
        except OSError:
            pass
        cut(source, sink)


def a_bad_network_delays_and_damages_nothing(folder):
    image = os.path.join(folder, "image")
    make_image(image, 64 << 20, 3)
    target = Target(folder)
    relay = BadRelay(target.address, seed=int(os.environ.get("PENSTOCK_TEST_SEED", "7")))
    threading.Timer(8, lambda: setattr(relay, "bad", False)).start()
    result = sync(relay.address, image, retry_for=60)
    need(result.returncode == 0, "sync over a bad network: " + result.stderr + target.said()[-2000:])
    target.stop()
    need(same(image, os.path.join(folder, "copies", "g", "v.img")), "the copy differs")


def main():
    failed = 0
    for test in (a_failed_sync_stops_the_target_and_loses_nothing,
                 a_full_disk_holds_the_copy_up_and_no_more,
                 a_bad_network_delays_and_damages_nothing):
        name = test.__name__.replace("_", " ")
        folder = tempfile.mkdtemp(prefix="penstock-faults-")
        os.mkdir(os.path.join(folder, "state"), 0o700)
        try:
            test(folder)
            print("ok:", name, flush=True)
        except Skip as why:
            print(f"skipped: {name}: {why}", flush=True)
        except AssertionError as fault:
            failed += 1
            print(f"FAIL: {name}: {fault}", flush=True)
        finally:
            shutil.rmtree(folder, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
