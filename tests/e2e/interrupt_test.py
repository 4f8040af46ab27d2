# SPDX-License-Identifier: Apache-2.0
"""Goal: a copy that was interrupted, or whose other end went away, goes on and comes to its end.

Method: real processes and signals; the rate is limited so that there is time to interrupt, and
every wait is for something that the other process says or does.
"""
import os
import signal
import subprocess
import tempfile
import time
import unittest

from rig import MIB, Rig, main, run


def wait_for(is_so, limit=30):
    """Polls: processes tell of their progress by files only."""
    end = time.monotonic() + limit
    while not is_so():
        if time.monotonic() > end:
            raise AssertionError("it did not come about")
        time.sleep(0.005)


class Interrupted(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 48 * MIB)

    def replicate(self, *more):
        return ("replicate", self.path("a"), self.path("b"), "--json", *more)

    def begun(self):
        return os.path.exists(self.path("b")) and self.allocated("b") > 4 * MIB

    def check_stops_and_goes_on(self, number):
        process = self.start(*self.replicate("--limit-rate", "30M"))
        wait_for(self.begun)
        result = self.stop(process, number)
        self.assertEqual(result.code, 4, result)
        self.assertIn("run the same command again", result.complaint())
        done = self.ok(*self.replicate()).json()
        self.assert_same("a", "b")
        self.assertGreater(done["equalBytes"], 0)

    def test_replicate_stops_with_4_at_sigint_and_goes_on(self):
        self.check_stops_and_goes_on(signal.SIGINT)

    def test_replicate_stops_with_4_at_sigterm_and_goes_on(self):
        self.check_stops_and_goes_on(signal.SIGTERM)

    def test_replicate_survives_being_killed(self):
        process = self.start(*self.replicate("--limit-rate", "30M"))
        wait_for(self.begun)
        self.assertEqual(self.stop(process, signal.SIGKILL).code, -9)
        self.ok(*self.replicate())
        self.assert_same("a", "b")

    def test_sync_stops_with_4_and_goes_on(self):
        _, address = self.target()
        process = self.start("sync", "--to", address, "--plaintext", "--group", "g", "--limit-rate",
                             "30M", f"a={self.path('a')}")
        wait_for(lambda: os.path.exists(self.path("volumes/g/a.img")) and
                 self.allocated("volumes/g/a.img") > 4 * MIB)
        self.assertEqual(self.stop(process, signal.SIGINT).code, 4)
        done = self.sync(address, ("a", "a")).json()
        self.assertGreater(done["equalBytes"], 0)
        self.assert_same("a", "volumes/g/a.img")


class TargetGone(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 48 * MIB)
        self.socket = f"unix:{self.path('socket')}"

    def copying(self, address):
        process = self.start("sync", "--to", address, "--plaintext", "--group", "g", "--limit-rate",
                             "30M", "--json", f"a={self.path('a')}")
        wait_for(lambda: os.path.exists(self.path("volumes/g/a.img")) and
                 self.allocated("volumes/g/a.img") > 4 * MIB)
        return process

    def test_a_target_that_is_stopped_ends_with_0_and_the_source_goes_on_with_the_next(self):
        target, address = self.target(listen=self.socket)
        source = self.copying(address)
        self.assertEqual(self.stop(target).code, 0)
        self.target(listen=self.socket)
        result = source.wait()
        self.assertEqual(result.code, 0, result)
        self.assertGreaterEqual(result.json()["reconnects"], 1)
        self.assert_same("a", "volumes/g/a.img")

    def test_a_target_that_is_killed_is_taken_up_again(self):
        target, address = self.target(listen=self.socket)
        source = self.copying(address)
        self.assertEqual(self.stop(target, signal.SIGKILL).code, -9)
        self.target(listen=self.socket)
        result = source.wait()
        self.assertEqual(result.code, 0, result)
        self.assert_same("a", "volumes/g/a.img")

    def test_a_target_that_stays_away_is_given_up(self):
        target, address = self.target(listen=self.socket)
        self.assertEqual(self.stop(target).code, 0)
        result = self.refused(3, "gave up after 1 s", "sync", "--to", address, "--plaintext",
                              "--group", "g", "--retry-for", "1", f"a={self.path('a')}")
        self.assertIn("reconnecting", result.err)

    def test_a_second_source_fences_the_first(self):
        _, address = self.target(listen=self.socket)
        first = self.copying(address)
        self.sync(address, ("a", "a"))
        result = first.wait()
        self.assertEqual(result.code, 2, result)
        self.assertIn("a newer source", result.complaint())


@unittest.skipUnless(os.geteuid() == 0, "only root mounts a small file system")
class NoSpace(Rig):
    def setUp(self):
        super().setUp()
        self.small = tempfile.mkdtemp(dir=self.folder)
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=12m,mode=700", "none",
                               self.small], capture_output=True, check=False)
        if done.returncode != 0:
            self.skipTest("no mounts here")
        self.addCleanup(subprocess.run, ["umount", "-l", self.small], check=True)
        self.image("a", 24 * MIB)

    def test_a_full_disk_ends_with_3_and_says_so(self):
        destination = os.path.join(self.small, "b")
        self.refused(3, "No space left on device", "replicate", self.path("a"), destination)

    def test_with_room_again_the_same_command_goes_on(self):
        destination = os.path.join(self.small, "b")
        run("replicate", self.path("a"), destination)
        subprocess.run(["mount", "-o", "remount,size=64m", self.small], check=True)
        self.ok("replicate", self.path("a"), destination)
        with open(destination, "rb") as file:
            self.assertTrue(file.read() == self.read("a"))


if __name__ == "__main__":
    main()
