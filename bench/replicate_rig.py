# SPDX-License-Identifier: Apache-2.0
"""What the parts of bench/replicate.py share: folders, images, processes, and TCP's settings.

Whatever a Rig made or changed (folders, processes, the system's congestion control) it takes back
in close(), which the caller calls whatever happens.
"""

import errno
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

BLOCK = 4096
MIB = 1 << 20
GIB = 1 << 30
CHUNK = 4 * MIB
START_LIMIT = 60  # seconds until a server must listen
RUN_LIMIT = 3600  # seconds that no measured command may take
CONGESTION = "/proc/sys/net/ipv4/tcp_congestion_control"
PINNED = "reno"


class Trouble(Exception):
    """What keeps the benchmark from going on; its text is for people."""


class Rig:
    def __init__(self):
        self._processes = []
        self._folders = []
        self._congestion = None  # to be restored
        self.env = dict(os.environ)
        self.congestion = self._pin()

    def close(self):
        for process in list(self._processes):
            self.stop(process, signal.SIGKILL)
        for folder in list(self._folders):
            self.remove(folder)
        if self._congestion is not None:
            write_text(CONGESTION, self._congestion)
            self._congestion = None

    # --- The line. ---

    def _pin(self):
        """The same congestion control for everyone. Returns words that say which, and how."""
        default = read_text(CONGESTION).strip()
        if default != PINNED:
            try:
                write_text(CONGESTION, PINNED)
            except OSError as fault:
                self.env.pop("PENSTOCK_TCP_CONGESTION", None)
                return (f"{default}, the system's, for everyone: {PINNED} could not be set"
                        f" ({fault.strerror})")
            self._congestion = default
        self.env["PENSTOCK_TCP_CONGESTION"] = PINNED
        return f"{PINNED} for everyone" + (f" (the system's is {default})" if self._congestion
                                           else ", the system's")

    # --- Folders. ---

    def folder(self, where):
        made = tempfile.mkdtemp(prefix="penstock-bench-", dir=where)
        self._folders.append(made)
        return made

    def remove(self, folder):
        shutil.rmtree(folder, ignore_errors=True)
        if folder in self._folders:
            self._folders.remove(folder)

    # --- Processes. ---

    def start(self, command, **kwargs):
        """A process beside the measured one, in a session of its own: stop() ends its children,
        too."""
        process = subprocess.Popen([str(word) for word in command], env=self.env,
                                   stdin=subprocess.DEVNULL, start_new_session=True, text=True,
                                   **kwargs)
        self._processes.append(process)
        return process

    def start_listener(self, command):
        """Starts what prints `listening on ADDR`. Returns it and the address."""
        process = self.start(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        line = process.stdout.readline().split()
        if line[:2] != ["listening", "on"]:
            code = process.wait(START_LIMIT)
            raise Trouble(f"{command[0]} did not start: exit code {code}; try it by hand: "
                          + " ".join(map(str, command)))
        return process, line[2]

    def start_server(self, command, port):
        """Starts what listens on `port` of 127.0.0.1 and does not say so."""
        process = self.start(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        end = time.monotonic() + START_LIMIT
        while time.monotonic() < end and process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return process
            except OSError:
                time.sleep(0.02)
        raise Trouble(f"{command[0]} does not listen; try it by hand: "
                      + " ".join(map(str, command)))

    def stop(self, process, number=signal.SIGTERM):
        """Ends a process and its session. Returns what it had still to say."""
        if process.poll() is None:
            try:
                os.killpg(process.pid, number)
            except ProcessLookupError:
                pass
        try:
            out = process.communicate(timeout=START_LIMIT)[0]
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            out = process.communicate()[0]
        if process in self._processes:
            self._processes.remove(process)
        return out

    def run(self, command, then=None):
        """Runs a command to its end, and `then`. Returns the seconds that both took, its output,
        and the most memory that it had, in bytes. (What the kernel tells of that begins with this
        script's own at the time: less than 50 MiB.)"""
        begin = time.monotonic()
        process = self.start(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        limit = threading.Timer(RUN_LIMIT, os.killpg, (process.pid, signal.SIGKILL))
        limit.start()
        try:
            # Nothing that is measured prints more than a pipe holds.
            _, status, usage = os.wait4(process.pid, 0)
        finally:
            limit.cancel()
        if then:
            then()
        seconds = time.monotonic() - begin
        process.returncode = os.waitstatus_to_exitcode(status)
        out, err = process.communicate()
        self._processes.remove(process)
        if process.returncode != 0:
            raise Trouble(f"exit code {process.returncode} of {' '.join(map(str, command))}\n"
                          f"{out}{err}".rstrip())
        return seconds, out, usage.ru_maxrss * 1024


def read_text(path):
    with open(path, encoding="ascii", errors="replace") as file:
        return file.read()


def write_text(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def peak_memory(process):
    """The most memory that a running process has had, in bytes."""
    for line in read_text(f"/proc/{process.pid}/status").splitlines():
        if line.startswith("VmHWM:"):
            return int(line.split()[1]) * 1024
    raise Trouble("the kernel does not tell VmHWM")


def memory_of(kind):
    """MemTotal or MemAvailable, in bytes."""
    for line in read_text("/proc/meminfo").splitlines():
        if line.startswith(kind + ":"):
            return int(line.split()[1]) * 1024
    return 0


def room_in(folder):
    room = shutil.disk_usage(folder).free
    return min(room, memory_of("MemAvailable")) if is_ram(folder) else room


def file_system(folder):
    return subprocess.run(["stat", "-f", "-c", "%T", folder], check=False, capture_output=True,
                          text=True).stdout.strip() or "unknown"


def is_ram(folder):
    return file_system(folder) in ("tmpfs", "ramfs")


def demand_room(folder, needed, what):
    room = room_in(folder)
    if room < needed:
        raise Trouble(f"{what} needs {needed / GIB:.1f} GiB in {folder}, which has"
                      f" {room / GIB:.1f}; give a smaller --size, or another --dir or --disk-dir")


# --- Files. ---

def sync_file(path):
    with open(path, "rb+") as file:
        os.fsync(file.fileno())


def evict(path):
    """Takes a file out of the page cache, so that it is read from the disk."""
    with open(path, "rb+") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def allocated(path):
    return os.stat(path).st_blocks * 512


def next_data(file, offset, size):
    """Where the next data lies: what is before it is a hole."""
    try:
        return os.lseek(file.fileno(), offset, os.SEEK_DATA)
    except OSError as fault:
        return size if fault.errno == errno.ENXIO else offset


def demand_same(a, b, who):
    """Compares byte for byte, but what is a hole in both: a copy that is wrong has no time."""
    size = os.path.getsize(a)
    if size != os.path.getsize(b):
        raise Trouble(f"the copy of {who} has another size than its source")
    with open(a, "rb", buffering=0) as left, open(b, "rb", buffering=0) as right:
        at = 0
        while at < size:
            at = min(next_data(left, at, size), next_data(right, at, size))
            ours = os.pread(left.fileno(), CHUNK, at)
            if os.pread(right.fileno(), CHUNK, at) != ours:
                raise Trouble(f"the copy of {who} differs from its source")
            at += len(ours)


def copy_file(path, copy):
    subprocess.run(["cp", "--sparse=always", path, copy], check=True)


def real_files(budget, seed):
    """Files of /usr, in an order that the seed draws, up to `budget` bytes of blocks; those of
    their folders count, too."""
    paths = []
    for folder, _, names in os.walk("/usr"):
        paths.extend(os.path.join(folder, name) for name in names)
    paths.sort()
    random.Random(seed).shuffle(paths)
    folders = set()
    for path in paths:
        if os.path.islink(path) or not os.access(path, os.R_OK) or not os.path.isfile(path):
            continue
        size = -(-os.path.getsize(path) // BLOCK) * BLOCK
        above = {path[:at] for at, letter in enumerate(path) if letter == "/"} - folders
        needed = size + len(above) * BLOCK
        if 0 < size <= 256 * MIB and needed <= budget:
            budget -= needed
            folders |= above
            yield path


def make_image(rig, path, size, seed):
    """An ext4 file system of this size, nearly full of files of this machine."""
    staging = rig.folder(os.path.dirname(path))
    count = 0
    for count, source in enumerate(real_files(int(size * 0.96), seed)):
        copy = staging + source
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copyfile(source, copy)
    with open(path, "wb") as file:
        file.truncate(size)
    env = dict(os.environ, PATH=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")
    made = subprocess.run(
        ["mke2fs", "-q", "-F", "-t", "ext4", "-m", "0", "-J", "size=4", "-N", str(2 * count + 1000),
         "-d", staging, path], check=False, env=env, capture_output=True, text=True)
    rig.remove(staging)
    if made.returncode != 0:
        raise Trouble(f"mke2fs makes no image of {size / MIB:.0f} MiB: {made.stderr.strip()}")
    if allocated(path) < size * 0.8:
        print(f"bench/replicate.py: the files of /usr fill only {allocated(path) / size:.0%} of"
              " the image", file=sys.stderr)


def repeat_image(image, path, size, density):
    """A file of this size: of each of its GiB the first `density` holds the image's data, over and
    over, and the rest is a hole."""
    whole = os.path.getsize(image) // MIB * MIB
    at = 0
    with open(image, "rb") as source, open(path, "wb") as file:
        file.truncate(size)
        for begin in range(0, size, GIB):
            file.seek(begin)
            for _ in range(int(min(GIB, size - begin) * density) // MIB):
                file.write(os.pread(source.fileno(), MIB, at))
                at = (at + MIB) % whole


def change_blocks(path, copy, fraction, seed):
    """A copy in which this part of the blocks, drawn at random, holds random data. Returns their
    offsets."""
    copy_file(path, copy)
    draw = random.Random(f"{seed}/{fraction}")
    count = os.path.getsize(path) // BLOCK
    blocks = sorted(draw.sample(range(count), round(count * fraction)))
    with open(copy, "rb+") as file:
        for block in blocks:
            file.seek(block * BLOCK)
            file.write(draw.randbytes(BLOCK))
    return [block * BLOCK for block in blocks]


def run_bench(name, measure):
    """Runs `measure(rig)`, which returns the goals that were missed, to the end of the process:
    whoever ends it, what it started and made goes."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda got, _: sys.exit(128 + got))
    rig = None
    try:
        rig = Rig()
        missed = measure(rig)
    except Trouble as fault:
        sys.exit(f"{name}: {fault}")
    except KeyboardInterrupt:
        sys.exit(130)
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)
        if rig:
            rig.close()
    if missed:
        sys.exit("goals missed:\n  " + "\n  ".join(
            f"{goal['what']}: {goal['value']:.2f}, goal {goal['limit']}" for goal in missed))
