# SPDX-License-Identifier: Apache-2.0
"""What judges a copy without trusting the product: volumes of blocks that describe themselves, and a
relay that reads along what a source sent and a target answered.
"""
import hashlib
import os
import socket
import struct
import threading

from rig import BLOCK, LIMIT

# Types of frames; BLOCKS is BLOCK there.
START, BLOCKS, WELCOME, END, ACK, DONE, FLUSHED, ANSWER = 56, 100, 201, 210, 220, 221, 222, 231


def make_block(volume, number, version):
    """A block that says what it is; its filling depends on all of it."""
    head = struct.pack("<8sQQ", volume.encode(), number, version)
    filling = hashlib.sha256(head).digest()
    body = head + filling * ((BLOCK - len(head) - 32) // 32)
    body = body.ljust(BLOCK - 32, b".")
    return body + hashlib.sha256(body).digest()


class WrongCopy(Exception):
    """A block that can't be: what is wrong with it."""


class Volume:
    """A source's volume of blocks that describe themselves. So a copy is judged without trusting
    the product: version 0 is zeros, and each change of a block writes the next version."""

    def __init__(self, folder, name, blocks):
        self.name = name
        self.path = os.path.join(folder, name + ".img")
        self.versions = [0] * blocks
        self.oldest = [0] * blocks  # a copy may still hold any version from here on
        with open(self.path, "wb") as file:
            file.truncate(blocks * BLOCK)

    def change(self, rng, count):
        with open(self.path, "r+b") as file:
            for _ in range(count):
                number = rng.randrange(len(self.versions))
                self.versions[number] += 1
                file.seek(number * BLOCK)
                file.write(make_block(self.name, number, self.versions[number]))

    def versions_in(self, copy):
        """Of every block of a copy that is a block that the source had there. None: there is no
        copy, or an empty one."""
        if not os.path.exists(copy):
            return None
        with open(copy, "rb") as file:
            data = file.read()
        if not data:
            return None
        if len(data) != len(self.versions) * BLOCK:
            raise WrongCopy(f"{copy} has {len(data)} bytes")
        found = [0] * len(self.versions)
        for number, newest in enumerate(self.versions):
            block = data[number * BLOCK : (number + 1) * BLOCK]
            if block.strip(b"\0"):
                found[number] = struct.unpack_from("<8sQQ", block)[2]
                if found[number] > newest or block != make_block(self.name, number, found[number]):
                    raise WrongCopy(f"block {number} of {self.name} is none that the source ever "
                                    "had there")
        return found

    def check(self, copy, newest):
        """Returns what is wrong with the copy, or None."""
        try:
            found = self.versions_in(copy)
        except WrongCopy as fault:
            return str(fault)
        if found is None:
            return f"there is no copy {copy}" if newest or any(self.oldest) else None
        for number, version in enumerate(self.versions):
            if found[number] < self.oldest[number] or (newest and found[number] != version):
                return (f"block {number} of {self.name} has version {found[number]}; "
                        f"{self.oldest[number]} to {version} are possible")
        if newest:
            self.oldest = list(self.versions)
        return None


class Frames:
    """The frames of one direction of a connection: see docs/protocol.md."""

    def __init__(self):
        self.data = bytearray()
        self.dataset, self.places = 0, []  # of the last START, and its volumes

    def feed(self, data):
        self.data += data
        while len(self.data) >= 24:
            size, kind = struct.unpack_from("<II", self.data)
            if len(self.data) < 24 + size:
                break
            payload = bytes(self.data[24 : 24 + size])
            del self.data[: 24 + size]
            yield kind, payload


class Ledger:
    """What was sent, and what the target answered for."""

    def __init__(self, volumes):
        self.volumes = volumes
        self.by_id = {hashlib.sha256(f"g/{v.name}".encode()).digest()[:16]: v for v in volumes}
        self.lock = threading.Lock()
        self.sent = {}  # by dataset: [(volume, block, version)]
        self.points = {}  # by dataset that completes a pass: the versions of each volume
        self.acked = self.flushed = self.epoch = 0
        self.settled = 0  # blocks
        self.is_dark = False  # without power nothing is said any more

    def note(self, stream, kind, payload):
        with self.lock:
            if self.is_dark:
                raise OSError("there is no power")
            if kind == START:
                self.started(stream, payload)
            elif kind == BLOCKS:
                self.passed(stream, payload)
            elif kind == WELCOME:
                epoch, durable, flushed = (struct.unpack_from("<Q", payload, at)[0]
                                           for at in (2, 26, 42))
                self.epoch = max(self.epoch, epoch)
                self.flushed = max(self.flushed, flushed)
                self.settle(durable)
                for n in [n for n in self.points if n > durable]:
                    del self.points[n]
                self.sent.clear()
            elif kind == ACK:
                self.settle(struct.unpack_from("<Q", payload)[0])
            elif kind == FLUSHED:
                self.flushed = max(self.flushed, struct.unpack_from("<Q", payload)[0])

    def started(self, stream, payload):
        n, flags, count = (struct.unpack_from(form, payload, at)[0]
                           for form, at in (("<Q", 0), ("<I", 36), ("<H", 40)))
        stream.dataset = n
        stream.places = [self.by_id[payload[44 + 16 * i : 60 + 16 * i]] for i in range(count)]
        self.sent[n] = []
        self.points.pop(n, None)
        if flags & 1:  # complete
            self.points[n] = {volume.name: list(volume.versions) for volume in self.volumes}

    def passed(self, stream, payload):
        volume = stream.places[payload[12]]
        blocks = self.sent.setdefault(stream.dataset, [])
        for i in range(struct.unpack_from("<H", payload, 14)[0]):
            offset, length = struct.unpack_from("<QI", payload, 20 + 12 * i)
            for block in range(-(-offset // BLOCK), (offset + length) // BLOCK):
                blocks.append((volume, block, volume.versions[block]))

    def settle(self, durable):
        self.acked = max(self.acked, durable)
        for n in [n for n in self.sent if n <= durable]:
            for volume, block, version in self.sent.pop(n):
                self.settled += 1
                volume.oldest[block] = max(volume.oldest[block], version)


def cut(*sockets):
    """Ends connections in both directions, those that are gone already, too."""
    for each in sockets:
        try:
            each.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


class Relay:
    """Between one source and the targets of its life; it reads along."""

    def __init__(self, address, ledger, on_frame):
        self.address_behind = address
        self.ledger, self.on_frame = ledger, on_frame
        self.sockets, self.threads = [], []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.address = "127.0.0.1:%d" % self.listener.getsockname()[1]
        self.start(self.accept)

    def start(self, work, *args):
        self.threads.append(threading.Thread(target=work, args=args, daemon=True))
        self.threads[-1].start()

    def accept(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            self.sockets.append(client)
            host, port = self.address_behind.rsplit(":", 1)
            try:
                if self.ledger.is_dark:
                    raise OSError("there is no power")
                server = socket.create_connection((host, int(port)))
            except OSError:
                client.close()
                continue
            self.sockets.append(server)
            self.start(self.pump, client, server)
            self.start(self.pump, server, client)

    def pump(self, source, sink):
        frames = Frames()
        try:
            while data := source.recv(1 << 16):
                kinds = []
                for kind, payload in frames.feed(data):
                    self.ledger.note(frames, kind, payload)
                    kinds.append(kind)
                self.on_frame(kinds, lambda: sink.sendall(data))
        except OSError:
            pass
        cut(source, sink)

    def close(self):
        """Afterwards the ledger hears nothing more of it."""
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.threads[0].join(LIMIT)
        cut(*self.sockets)
        for thread in self.threads:
            thread.join(LIMIT)
        for each in self.sockets:
            each.close()
