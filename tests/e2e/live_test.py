#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""penstock serve: what a guest writes gets to the target, whatever happens to either."""
import os
import random
import signal
import threading

from guest import NBDKIT, Served, free_port, nbd, wait_for
from rig import BLOCK, LIMIT, MIB, Rig, main, run

SMALL = ("--memory", "16M", "--max-dataset", "2M", "--interval", "100ms")


class Live(Rig):
    def serve(self, address, *more, state="live", volumes=None, **kwargs):
        if volumes is None:
            volumes = {"v": self.path("v.img")}
        served = Served(self.folder, address, volumes, *more, state=state, **kwargs)
        self.addCleanup(served.end, signal.SIGKILL)
        return served.ready()

    def copy(self, name="v"):
        return self.read(os.path.join("volumes", "g", name + ".img"))

    def assert_followed(self, served, *names):
        served.point("flushed")
        for name in names or ("v",):
            self.assertTrue(self.read(name + ".img") == self.copy(name), f"{name} differs")

    def scribble(self, guest, size, count, longest=40_000):
        for _ in range(count):
            offset = self.random.randrange(size)
            length = min(size - offset, self.random.randrange(1, longest))
            if self.random.random() < 0.2:
                guest.trim(length, offset)
            elif self.random.random() < 0.2:
                guest.zero(length, offset)
            else:
                guest.pwrite(self.random.randbytes(length), offset)

    @staticmethod
    def first_copy(served):
        served.wait_state("replicating")
        served.point("flushed")

    def serve_alone(self, *more):
        """A source whose target has the first copy, and is away since."""
        self.image("v.img", 64 * MIB)
        target, address = self.target()
        served = self.serve(address, *SMALL, "--compress", "none", *more)
        self.first_copy(served)
        self.stop(target)
        return served, address

    def test_what_is_written_follows(self):
        size = 5 * MIB + 123
        self.image("v.img", size)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        guest = served.guest("v")
        self.assertEqual(guest.get_size(), size)
        for _ in range(5):
            self.scribble(guest, size, 40)
            self.assert_followed(served)
        guest.close()  # nbdkit ends when its clients have
        self.assertEqual(served.end(), 0)

    def test_a_point_in_the_first_copy_is_waited_for_until_the_copy_is_good(self):
        self.image("v.img", 64 * MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL, "--compress", "none")
        wait_for(lambda: served.status()["sentBytes"] > 0, "the first copy")
        served.point("durable")
        self.assertEqual(served.status()["state"], "replicating")
        self.assert_followed(served)

    def test_a_point_with_a_name_is_in_the_targets_list(self):
        self.image("v.img", MIB)
        target, address = self.target()
        served = self.serve(address, *SMALL)
        guest = served.guest("v")
        served.point("flushed")
        self.scribble(guest, MIB, 5)
        code, first, err = served.order("point", "--mark", "before the upgrade", "--wait", "flushed")
        self.assertEqual(code, 0, err)
        # Another one waits in the spool while both are down.
        self.stop(target, signal.SIGKILL)
        self.scribble(guest, MIB, 5)
        code, second, err = served.order("point", "--mark", "behind it")
        self.assertEqual(code, 0, err)
        for _ in range(10):
            guest.pwrite(self.random.randbytes(MIB), 0)
        wait_for(lambda: served.status()["spoolDatasets"] > 0, "the spool")
        served.end(signal.SIGKILL)
        self.target(listen=address)
        served = self.serve(address, *SMALL)
        self.assert_followed(served)
        points = self.ok("status", "--json", "--of", address,
                         "--plaintext").json()["groups"][0]["points"]
        self.assertEqual([(p["n"], p["name"]) for p in points],
                         [(int(first), "before the upgrade"), (int(second), "behind it")])
        table = self.ok("status", "--of", address, "--plaintext").out
        self.assertIn(f'point {first} "before the upgrade", 20', table)
        self.refused(3, "a mark is printable ASCII", "point", "--state", served.state,
                     "--mark", "\u00fc")

    def test_several_volumes_share_their_points(self):
        self.image("a.img", MIB)
        self.image("b.img", 2 * MIB)
        _, address = self.target()
        volumes = {"a": self.path("a.img"), "b": self.path("b.img")}
        served = self.serve(address, *SMALL, volumes=volumes)
        for name, size in (("a", MIB), ("b", 2 * MIB)):
            self.scribble(served.guest(name), size, 50)
        self.assert_followed(served, "a", "b")

    def test_guests_that_write_over_each_other(self):
        self.sparse("v.img", MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        served.wait_state("replicating")

        def write(number):
            guest = served.guest("v")
            for i in range(300):
                offset = (i * 7919 + number * 13) % (MIB - 9000)
                guest.pwrite(bytes([number + 1]) * 9000, offset)

        threads = [threading.Thread(target=write, args=(n,)) for n in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assert_followed(served)

    def test_a_trim_is_a_hole_at_the_target(self):
        self.image("v.img", 4 * MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        served.point("flushed")
        served.guest("v").trim(3 * MIB, 0)
        self.assert_followed(served)
        self.assertLess(self.allocated(os.path.join("volumes", "g", "v.img")), 2 * MIB)

    def test_a_clean_stop_needs_no_comparison(self):
        self.image("v.img", 8 * MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        guest = served.guest("v")
        self.scribble(guest, 8 * MIB, 30)
        self.assert_followed(served)
        guest.close()
        self.assertEqual(served.end(), 0)
        served = self.serve(address, *SMALL)
        served.wait_state("replicating")
        status = served.status()
        self.assertEqual((status["markedBytes"], status["sentBytes"]), (0, 0), status)
        self.assert_followed(served)

    def test_nor_does_one_without_the_target(self):
        served, address = self.serve_alone()
        guest = served.guest("v")
        for i in range(10):
            guest.pwrite(self.random.randbytes(BLOCK), 6 * i * MIB)
        guest.close()
        self.assertEqual(served.end(), 0)
        served = self.serve(address, *SMALL, "--compress", "none")
        self.assertIn("stopped; what the target lacks is kept for the next start", served.said())
        self.target(listen=address)
        self.assert_followed(served)
        status = served.status()
        self.assertEqual(status["rawBytes"], 0, "what was sent is from the spool alone")

    def test_a_stop_does_not_wait_for_idle_guests(self):
        self.image("v.img", 8 * MIB)
        _, address = self.target()
        port = free_port()
        for at in ("unix:" + self.path("nbd.sock"), f"127.0.0.1:{port}", f"[::1]:{port}"):
            served = self.serve(address, *SMALL, "--nbd", at)
            idle = served.guest("v")
            idle.pwrite(self.random.randbytes(BLOCK), 0)
            served.wait_state("replicating")  # one that has no target yet does not wait for it
            self.assertEqual(served.end(), 0)
            self.assertIn("stopped; the target has everything", served.said())
            self.assertTrue(self.read("v.img") == self.copy())
            self.assertRaises(nbd.Error, idle.pread, BLOCK, 0)

    def test_a_stop_within_traffic_loses_nothing_that_was_answered(self):
        size = 8 * MIB
        self.image("v.img", size)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        self.first_copy(served)
        answered = {}
        writing = threading.Semaphore(0)

        def write(place):
            guest = served.guest("v")
            data = random.Random(place)
            try:
                while True:
                    block = data.randbytes(BLOCK)
                    guest.pwrite(block, place * BLOCK)
                    answered[place] = block
                    writing.release()
            except nbd.Error:
                pass

        threads = [threading.Thread(target=write, args=(place,)) for place in range(4)]
        for thread in threads:
            thread.start()
        for _ in range(200):
            writing.acquire()
        self.assertEqual(served.end(), 0)
        for thread in threads:
            thread.join(LIMIT)
        self.assertIn("stopped; the target has everything", served.said())
        volume = self.read("v.img")
        self.assertTrue(volume == self.copy())
        for place, block in answered.items():
            # One that was under way when its client was cut off may be there, too.
            after = random.Random(place)
            then = next(b for b in iter(lambda: after.randbytes(BLOCK), None) if b == block)
            self.assertIn(volume[place * BLOCK:][:BLOCK], (then, after.randbytes(BLOCK)))

    def test_after_a_kill_only_what_is_marked_is_compared(self):
        self.image("v.img", 32 * MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        served.point("flushed")
        self.assertEqual(served.end(), 0)
        served = self.serve(address, *SMALL)
        served.wait_state("replicating")
        served.guest("v").pwrite(self.random.randbytes(BLOCK), 7 * MIB)
        served.end(signal.SIGKILL)
        served = self.serve(address, *SMALL)
        self.assert_followed(served)
        self.assertLessEqual(served.status()["rawBytes"], MIB, "one extent was marked")

    def test_the_spool_holds_what_the_target_does_not_take(self):
        served, address = self.serve_alone()
        guest = served.guest("v")
        for i in range(40):
            guest.pwrite(self.random.randbytes(MIB), i * MIB)
        served.wait_state("spooling")
        status = served.status()
        self.assertGreater(status["spoolBytes"], 16 * MIB)
        self.assertLessEqual(status["memoryBytes"], 18 * MIB)
        self.assertEqual(status["overflows"], 0)
        self.target(listen=address)
        self.assert_followed(served)
        status = served.status()
        self.assertEqual((status["overflows"], status["spoolBytes"]), (0, 0), status)

    def test_a_spool_outlives_its_process(self):
        served, address = self.serve_alone()
        guest = served.guest("v")
        for i in range(30):
            guest.pwrite(self.random.randbytes(MIB), i * MIB)
        wait_for(lambda: served.status()["spoolDatasets"] >= 5, "spooled")
        served.end(signal.SIGKILL)
        served = self.serve(address, *SMALL, "--compress", "none")
        self.target(listen=address)
        self.assert_followed(served)

    def test_beyond_the_spool_changes_are_tracked(self):
        served, address = self.serve_alone("--spool-max", "10M")
        guest = served.guest("v")
        for i in range(60):
            guest.pwrite(self.random.randbytes(MIB), i * MIB)
        served.wait_state("tracking only")
        status = served.status()
        self.assertGreater(status["markedBytes"], 20 * MIB)
        code, _, err = served.order("point")
        self.assertEqual(code, 3)
        self.assertIn("there is no point now, the source is tracking only", err)
        guest.trim(MIB, 3 * MIB)
        self.target(listen=address)
        self.scribble(guest, 64 * MIB, 50)
        self.assert_followed(served)

    def test_monitoring_is_told_how_far_the_target_is_behind(self):
        self.image("v.img", MIB)
        target, address = self.target()
        served = self.serve(address, *SMALL)
        served.point("flushed")
        served.wait_state("replicating")
        code, out, _ = served.order("check")
        self.assertEqual(code, 0, out)
        self.assertRegex(out, r"^PENSTOCK OK: replicating, 0.\d s behind, .*\|lag=0\.\d+s$")
        self.stop(target)
        served.guest("v").pwrite(b"z" * BLOCK, 0)
        wait_for(lambda: served.status()["lagSeconds"] > 0.5, "a lag")
        code, out, _ = served.order("check", "--max-lag", "300ms")
        self.assertEqual(code, 2, out)
        served.end(signal.SIGKILL)
        self.assertEqual(served.order("check")[0], 2)
        self.assertEqual(served.order("check", "--max-lag", "soon")[0], 3)

    def test_a_pause_holds_the_connection_and_nothing_else(self):
        self.image("v.img", MIB)
        _, address = self.target()
        served = self.serve(address, *SMALL)
        served.point("flushed")
        self.assertEqual(served.order("pause")[0], 0)
        self.assertEqual(served.status()["state"], "paused")
        self.scribble(served.guest("v"), MIB, 20)
        before = served.status()
        self.assertEqual(before["flushed"], served.status()["flushed"])
        self.assertEqual(served.order("limit-rate", "100M")[1], "limited to 100M")
        self.assertEqual(served.order("resume")[0], 0)
        self.assert_followed(served)

    def test_a_target_that_was_emptied_is_refused(self):
        self.image("v.img", MIB)
        target, address = self.target()
        served = self.serve(address, *SMALL)
        self.first_copy(served)
        self.stop(target)
        os.rename(self.path("state"), self.path("state.old"))
        os.rename(self.path("volumes"), self.path("volumes.old"))
        self.target(listen=address)
        served.wait_state("stopped")
        self.assertIn("was it restored from a copy", served.status()["failure"])
        served.guest("v").pwrite(b"x" * BLOCK, 0)
        served.end()
        served = self.serve(address, *SMALL, "--take-over")
        self.assert_followed(served)

    def test_a_newer_source_fences_the_older(self):
        self.image("v.img", MIB)
        self.image("w.img", MIB)
        _, address = self.target()
        older = self.serve(address, *SMALL)
        older.point("flushed")
        newer = self.serve(address, *SMALL, state="other", volumes={"v": self.path("w.img")})
        older.wait_state("stopped")
        self.assertIn("fenced", older.status()["failure"])
        older.guest("v").pwrite(b"y" * BLOCK, 0)
        newer.point("flushed")
        self.assertTrue(self.read("w.img") == self.copy())

    def test_wrong_input_is_refused_in_one_line(self):
        self.image("v.img", MIB)
        common = ("--group", "g", "--state", self.path("live"), "--plaintext")
        to = ("--to", "127.0.0.1:1")
        volume = f"v={self.path('v.img')}"
        self.refused(2, "is no interval", "serve", *to, *common, "--interval", "soon", volume)
        self.refused(2, "at least 16M", "serve", *to, *common, "--memory", "1M", volume)
        self.refused(2, "max-dataset", "serve", *to, *common, "--max-dataset", "1G", volume)
        self.refused(2, "VOL=PATH", "serve", *to, *common, "v")
        self.refused(2, "loopback", "serve", "--to", "192.0.2.1:7", *common, volume)
        self.refused(3, "no source is running", "point", "--state", self.path("live"))

    def test_a_state_directory_has_one_source(self):
        self.image("v.img", MIB)
        self.image("w.img", MIB)
        _, address = self.target()
        self.serve(address, *SMALL)
        second = run("serve", "--to", address, "--group", "g", "--state", self.path("live"),
                     "--plaintext", "--nbdkit", NBDKIT, "--nbd", "unix:" + self.path("other.sock"),
                     f"w={self.path('w.img')}")
        self.assertNotEqual(second.code, 0)
        self.assertIn("in use by another source", second.err)


if __name__ == "__main__":
    main()
