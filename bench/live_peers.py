# SPDX-License-Identifier: Apache-2.0
"""Who is measured by bench/live.py: servers of one volume by NBD.

Each is opened in a folder of its own with a volume that is full of data, and serves until it is
closed. A server that has a second copy has that copy whole before the clock runs.
"""

import json
import os
import socket
import subprocess
import time

from replicate_rig import START_LIMIT, Trouble, copy_file, demand_same

SETTLE_LIMIT = 300  # seconds until a copy must be whole


def wait_until(condition, what, limit=SETTLE_LIMIT):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise Trouble(f"{what}: not within {limit} s")
        time.sleep(0.05)


class Server:
    """Base: a folder and a copy of the volume's first contents."""

    tools = ("nbdkit",)
    name = ""

    def __init__(self, programs, rig):
        self.programs, self.rig = programs, rig
        self.folder = self.volume = None
        self.processes = []

    def missing(self):
        return [tool for tool in self.tools if tool not in self.programs]

    def open(self, folder, image):
        self.folder = self.rig.folder(folder)
        self.volume = os.path.join(self.folder, "disk.img")
        copy_file(image, self.volume)
        try:
            self.serve()
        except BaseException:
            self.close()
            raise

    def close(self):
        for process in reversed(self.processes):
            self.rig.stop(process)
        self.processes = []
        if self.folder:
            self.rig.remove(self.folder)
        self.folder = None

    def launch(self, command, path):
        """Starts what makes a socket at `path`."""
        process = self.rig.start(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.processes.append(process)
        wait_until(lambda: os.path.exists(path) or process.poll() is not None, command[0],
                   START_LIMIT)
        if process.poll() is not None:
            raise Trouble(f"{command[0]} ended; try it by hand: " + " ".join(map(str, command)))
        return process

    def place(self, name):
        return os.path.join(self.folder, name)

    def serve(self):
        raise NotImplementedError

    def uri(self):
        raise NotImplementedError


class FilePlugin(Server):
    """The peer: nbdkit with its own plugin for files, one copy."""

    name = "nbdkit file"

    def serve(self):
        self.launch([self.programs["nbdkit"], "--foreground", "--unix", self.place("nbd.sock"),
                     "file", self.volume], self.place("nbd.sock"))

    def uri(self):
        return f"nbd+unix:///?socket={self.place('nbd.sock')}"


class Mirror(Server):
    """qemu-storage-daemon, mirroring to another NBD server over TCP. It copies changed blocks in
    the background, in no order, and loses what it knows of them with its process."""

    tools = ("nbdkit", "qemu-storage-daemon")
    name = "qemu-storage-daemon mirror"
    mode = "background"

    def serve(self):
        copy = self.place("copy.img")
        copy_file(self.volume, copy)
        port = self._free_port()
        second = self.rig.start_server(
            [self.programs["nbdkit"], "--foreground", "--ipaddr", "127.0.0.1", "--port", port,
             "file", copy], port)
        self.processes.append(second)
        self.launch(
            [self.programs["qemu-storage-daemon"],
             "--blockdev", f"driver=file,node-name=disk,filename={self.volume},discard=unmap",
             "--blockdev", "driver=nbd,node-name=copy,server.type=inet,server.host=127.0.0.1,"
             f"server.port={port}",
             "--chardev", f"socket,id=ask,path={self.place('qmp')},server=on,wait=off",
             "--monitor", "chardev=ask",
             "--nbd-server", f"addr.type=unix,addr.path={self.place('nbd.sock')}",
             "--export", "type=nbd,id=it,node-name=disk,name=disk,writable=on"],
            self.place("nbd.sock"))
        self._mirror()

    @staticmethod
    def _free_port():
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            return probe.getsockname()[1]

    def _mirror(self):
        with socket.socket(socket.AF_UNIX) as line:
            line.settimeout(START_LIMIT)
            line.connect(self.place("qmp"))
            file = line.makefile("rw")
            file.readline()
            self._do(file, "qmp_capabilities")
            # Both hold the same: the copy is whole from the start.
            self._do(file, "blockdev-mirror", {
                "job-id": "m", "device": "disk", "target": "copy", "sync": "none",
                "copy-mode": self.mode})

    @staticmethod
    def _do(file, command, arguments=None):
        request = {"execute": command}
        if arguments:
            request["arguments"] = arguments
        file.write(json.dumps(request) + "\n")
        file.flush()
        while True:
            answer = json.loads(file.readline())
            if "error" in answer:
                raise Trouble(f"qemu-storage-daemon: {answer['error']['desc']}")
            if "return" in answer:
                return

    def uri(self):
        return f"nbd+unix:///disk?socket={self.place('nbd.sock')}"


class WritingMirror(Mirror):
    """The same, each write at both before it is answered."""

    name = "qemu-storage-daemon mirror, write-blocking"
    mode = "write-blocking"


class Penstock(Server):
    """The program under test, with its defaults. `state`: what the source is doing meanwhile."""

    tools = ("nbdkit", "penstock")
    more = ()
    state = "replicating"
    name = "penstock, replicating"

    def serve(self):
        target, self.address = self.rig.start_listener(
            [self.programs["penstock"], "target", "--plaintext", "--listen", "127.0.0.1:0",
             "--state", self.place("target"), "--volumes", self.place("copies"), "--log-level", "error"])
        self.processes.append(target)
        self.target = target
        self.launch(
            [self.programs["penstock"], "serve", "--plaintext", "--to", self.address, "--group",
             "g", "--state", self.place("live"), "--log-level", "error", *self.more,
             f"disk={self.volume}"], self.place("live/nbd.sock"))
        wait_until(lambda: self.status().get("state") == "replicating"
                   and self.status()["markedBytes"] == 0, "the first copy")
        if self.state != "replicating":
            self.cut()

    def cut(self):
        """The link goes down for good."""
        self.processes.remove(self.target)
        self.rig.stop(self.target, 9)

    def status(self):
        done = subprocess.run([self.programs["penstock"], "status", "--json", "--state",
                               self.place("live")], check=False, capture_output=True, text=True)
        return json.loads(done.stdout) if done.returncode == 0 else {}

    def point(self, wait):
        subprocess.run([self.programs["penstock"], "point", "--state", self.place("live"),
                        "--wait", wait], check=True, capture_output=True)

    def demand_copy(self):
        """A copy that is wrong has no time."""
        wait_until(lambda: self.status().get("state") == "replicating", "being in order again")
        self.point("flushed")
        demand_same(self.volume, self.place("copies/g/disk.img"), self.name)

    def uri(self):
        return f"nbd+unix:///disk?socket={self.place('live/nbd.sock')}"


class Spooling(Penstock):
    """The link is down, and what is written waits in memory and on the disk."""

    name = "penstock, link down, spooling"
    state = "spooling"


class Tracking(Penstock):
    """The link is down, and nothing but what changed is known."""

    name = "penstock, link down, tracking only"
    state = "tracking only"
    more = ("--memory", "16M", "--max-dataset", "4M", "--spool-max", "0")
