# SPDX-License-Identifier: Apache-2.0
"""A disk whose power can be cut: an ext4 file system in a file, and the ioctl that shuts it down."""
import fcntl
import os
import shutil
import struct
import subprocess

from rig import LIMIT, MIB

EXT4_IOC_SHUTDOWN = 0x8004587D  # _IOR('X', 125, __u32)
CUTS = {"dropped": 2, "journal flushed": 1, "all flushed": 0}  # EXT4_GOING_FLAGS_*


class Failure(Exception):
    pass


class Skip(Exception):
    pass


def need(condition, text):
    if not condition:
        raise Failure(text)


def call(*command, codes=(0,)):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, timeout=LIMIT)
    need(done.returncode in codes, f"{' '.join(command)}: {done.returncode}: {done.stdout.strip()}")
    return done.stdout


class Disk:
    """A file system in a file. Its loop device goes by itself when it is unmounted."""

    def __init__(self, folder):
        self.image = os.path.join(folder, "disk")
        self.at = os.path.join(folder, "mounted")

    def make(self):
        if os.geteuid() != 0:
            raise Skip("only root can mount a file system")
        for tool in ("mkfs.ext4", "e2fsck", "mount", "umount", "losetup"):
            if not shutil.which(tool):
                raise Skip(f"{tool} is not installed")
        os.mkdir(self.at)
        with open(self.image, "wb") as file:
            file.truncate(192 * MIB)
        try:
            call("mkfs.ext4", "-q", "-F", self.image)
            self.mount()
        except Failure as why:
            raise Skip(f"a file can't be mounted here: {why}") from None
        try:
            self.cut("dropped")
        except OSError as why:
            raise Skip(f"the file system can't be shut down: {why}") from None
        self.recover()

    def mount(self):
        # Nothing but a sync brings anything to the disk: no commit every few seconds, no flush
        # because of a rename.
        call("mount", "-t", "ext4", "-o", "loop,commit=1000,noauto_da_alloc", self.image, self.at)

    def cut(self, how):
        fd = os.open(self.at, os.O_RDONLY | os.O_DIRECTORY)
        try:
            fcntl.ioctl(fd, EXT4_IOC_SHUTDOWN, struct.pack("I", CUTS[how]))
        finally:
            os.close(fd)

    def unmount(self):
        call("umount", self.at)
        call("e2fsck", "-fn", self.image)  # what is wrong is not the file system's fault

    def recover(self):
        call("umount", self.at)
        self.mount()  # replays the journal
        self.unmount()
        self.mount()

    def remove(self):
        if not os.path.exists(self.image):
            return
        if os.path.ismount(self.at):
            subprocess.run(["umount", "--lazy", self.at], check=False)
        left = subprocess.run(["losetup", "-n", "-O", "NAME", "-j", self.image], check=False,
                              stdout=subprocess.PIPE, text=True)
        for device in left.stdout.split():  # one that has not gone by itself
            subprocess.run(["losetup", "-d", device], stderr=subprocess.DEVNULL, check=False)
