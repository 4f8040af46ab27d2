# SPDX-License-Identifier: Apache-2.0
"""Goal: verify, status and inspect tell the truth, in words and in JSON.

Method: real processes; copies and files are changed behind the target's back.
"""
import json
import os
import signal

from rig import BLOCK, MIB, Rig, main, run


class VerifyLocal(Rig):
    def verify(self, *more):
        return run("verify", "--local", self.path("a"), self.path("b"), *more)

    def test_equal_files_are_equal(self):
        self.image("a", 3 * MIB + 1)
        self.write("b", self.read("a"))
        result = self.verify()
        self.assertEqual(result.code, 0, result)
        self.assertEqual(result.out, "equal: 3.00 MiB compared\n")

    def test_each_differing_range_is_told_and_neighbours_are_one(self):
        self.image("a", 3 * MIB)
        self.write("b", self.read("a"))
        self.change("b", [0, BLOCK, MIB - BLOCK, MIB, 2 * MIB])
        result = self.verify()
        self.assertEqual(result.code, 1, result)
        self.assertEqual(result.out, f"- 0 {2 * BLOCK}\n- {MIB - BLOCK} {2 * BLOCK}\n"
                                     f"- {2 * MIB} {BLOCK}\n")

    def test_what_one_has_more_differs(self):
        self.image("a", MIB + 10)
        self.write("b", self.read("a")[:MIB])
        result = self.verify("--json")
        self.assertEqual(result.code, 1, result)
        self.assertEqual(result.json()["differing"],
                         [{"volume": "-", "offset": MIB, "length": 10}])

    def test_a_hole_and_zeros_are_the_same(self):
        self.sparse("a", MIB)
        self.write("b", bytes(MIB))
        self.assertEqual(self.verify().code, 0)

    def test_a_missing_file_is_trouble(self):
        self.image("a", MIB)
        result = self.verify()
        self.assertEqual(result.code, 2, result)
        self.assertIn("No such file", result.complaint())


class VerifyNetwork(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 40 * MIB + 77)
        self.sparse("b", 10 * MIB, [MIB])
        _, self.address = self.target()
        self.sync(self.address, ("a", "a"), ("b", "b"))

    def verify(self, *more, a="a"):
        return run("verify", "--to", self.address, "--plaintext", "--group", "g",
                   f"a={self.path(a)}", f"b={self.path('b')}", "--quiet", *more)

    def test_equal_copies_are_equal(self):
        result = self.verify("--json")
        self.assertEqual(result.code, 0, result)
        self.assertEqual(result.json(), {"result": "equal", "bytes": 50 * MIB + 77,
                                         "differingBytes": 0, "rangesCut": False,
                                         "differing": []})

    def test_a_bit_that_rotted_at_the_target_is_found(self):
        self.change("volumes/g/a.img", [33 * MIB + 4000], size=1)
        self.change("volumes/g/a.img", [40 * MIB + 76], size=1)
        self.change("volumes/g/b.img", [5 * MIB])
        # A byte may have been drawn as it was; the last range is as short as the volume's end.
        lines = set(self.verify().out.splitlines())
        self.assertIn(f"b {5 * MIB} {BLOCK}", lines)
        self.assertLessEqual(lines, {f"a {33 * MIB} {BLOCK}", f"a {40 * MIB} 77",
                                     f"b {5 * MIB} {BLOCK}"})

    def test_it_changes_nothing(self):
        self.change("a", [0])
        before = self.read("volumes/g/a.img")
        self.assertEqual(self.verify().code, 1)
        self.assertTrue(before == self.read("volumes/g/a.img"))

    def test_a_group_that_is_not_there_is_trouble(self):
        self.refused(2, "there is no group other", "verify", "--to", self.address, "--plaintext",
                     "--group", "other", f"a={self.path('a')}")

    def test_a_volume_that_is_not_there_is_trouble_and_is_not_made(self):
        self.refused(2, "there is no volume", "verify", "--to", self.address, "--plaintext",
                     "--group", "g", f"new={self.path('a')}")
        self.assertFalse(os.path.exists(self.path("volumes/g/new.img")))

    def test_another_size_is_trouble(self):
        self.image("short", MIB)
        result = self.verify(a="short")
        self.assertEqual(result.code, 2, result)
        self.assertIn("bytes at the target", result.complaint())


class Status(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 3 * MIB)
        self.process, self.address = self.target()
        self.at = self.sync(self.address, ("a", "a")).json()["at"]

    def check(self, groups):
        self.assertEqual(len(groups), 1)
        group = groups[0]
        for name in ("closed", "sent", "received", "durable", "applied", "flushed"):
            self.assertEqual(group[name], self.at)
        self.assertEqual(group["epoch"], 1)
        for name in ("lagSeconds", "lagBytes", "lagDatasets", "journalBytes"):
            self.assertEqual(group[name], 0)
        self.assertEqual(group["volumes"],
                         [{"name": "a", "size": 3 * MIB, "state": "good", "goodAt": self.at}])
        self.assertEqual(group["counters"]["rawBytes"], 3 * MIB)

    def test_of_a_running_target(self):
        result = self.ok("status", "--of", self.address, "--plaintext", "--json")
        self.check(result.json()["groups"])

    def test_of_a_state_that_a_target_has_open(self):
        self.check(self.ok("status", "--state", self.path("state"), "--json").json()["groups"])

    def test_of_a_state_at_rest(self):
        self.assertEqual(self.stop(self.process, signal.SIGINT).code, 0)
        self.check(self.ok("status", "--state", self.path("state"), "--json").json()["groups"])

    def test_of_a_copy_under_way(self):
        self.image("large", 64 * MIB)
        process = self.start("sync", "--to", self.address, "--plaintext", "--group", "h",
                             "--limit-rate", "16M", "--compress", "none", "--quiet",
                             f"v={self.path('large')}")
        seen = []
        while not any(0 < percent < 100 for percent in seen):
            groups = self.ok("status", "--of", self.address, "--plaintext",
                             "--json").json()["groups"]
            group = next((group for group in groups if group["name"] == "h"), None)
            if group is None or not group["volumes"]:
                continue
            seen.append(group["volumes"][0].get("percent", 0))
            self.assertTrue(process.is_running(), f"it ended unseen: {seen}")
        self.assertTrue(group["connected"])
        self.assertEqual(group["volumes"][0]["state"], "syncing")
        self.assertGreaterEqual(group["closed"], group["durable"])
        self.assertGreater(group["lagBytes"], 0)
        self.assertEqual(group["journalQuota"], 16 << 30)
        table = self.ok("status", "--of", self.address, "--plaintext").out
        self.assertRegex(table, r"v: syncing \d+ %, 64.0 MiB")
        self.assertEqual(process.wait().code, 0)

    def test_for_people(self):
        result = self.ok("status", "--of", self.address, "--plaintext")
        self.assertIn(f"a: good at {self.at}, 3.00 MiB", result.out)
        self.assertIn("group g: epoch 1, no source", result.out)

    def test_shows_what_is_granted_only(self):
        self.assertEqual(self.stop(self.process).code, 0)
        self.write("grants", b"plaintext other status\n")
        os.chmod(self.path("grants"), 0o600)
        _, address = self.target("--grants", self.path("grants"))
        result = self.ok("status", "--of", address, "--plaintext", "--json")
        self.assertEqual(result.json(), {"groups": []})

    def test_a_target_that_is_not_there(self):
        self.assertEqual(self.stop(self.process).code, 0)
        self.refused(3, "nobody listens there", "status", "--of", self.address, "--plaintext")


class Inspect(Rig):
    """The sample: dataset 7 of one volume, two blocks, as the writer of dataset files makes it."""

    def setUp(self):
        super().setUp()
        self.file = os.path.join(os.path.dirname(__file__), "sample.ds")

    def test_a_whole_file(self):
        result = self.ok("inspect", self.file, "--json", "--records")
        found = result.json()["files"][0]
        self.assertTrue(found["whole"])
        self.assertEqual(found["n"], 7)
        self.assertEqual([r["codec"] for r in found["records"]], ["raw", "zero"])
        self.assertEqual(found["records"][0]["extents"], [[4096, 8]])

    def test_every_flipped_byte_is_found_with_its_place(self):
        with open(self.file, "rb") as file:
            sample = file.read()
        for at in range(0, len(sample), 7):
            damaged = bytearray(sample)
            damaged[at] ^= 0x10
            self.write("damaged.ds", bytes(damaged))
            result = run("inspect", self.path("damaged.ds"), "--json")
            self.assertEqual(result.code, 1, f"byte {at}: {result}")
            self.assertLessEqual(result.json()["files"][0]["damage"]["at"], len(sample))

    def test_a_file_that_ends_early(self):
        with open(self.file, "rb") as file:
            sample = file.read()
        self.write("short.ds", sample[:-1])
        result = run("inspect", self.path("short.ds"))
        self.assertEqual(result.code, 1, result)
        self.assertIn("DAMAGED at byte", result.out)

    def test_one_damaged_of_several(self):
        self.write("none.ds", b"")
        result = run("inspect", self.file, self.path("none.ds"))
        self.assertEqual(result.code, 1, result)
        self.assertIn("whole: every hash is right", result.out)

    def test_a_file_that_is_not_there(self):
        self.refused(2, "No such file", "inspect", self.path("nothing"))


class Results(Rig):
    def test_json_is_one_line(self):
        self.image("a", MIB)
        result = self.ok("replicate", self.path("a"), self.path("b"), "--json", "--quiet")
        self.assertEqual(len(result.out.splitlines()), 1)
        json.loads(result.out)


if __name__ == "__main__":
    main()
