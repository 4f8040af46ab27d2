# SPDX-License-Identifier: Apache-2.0
"""Goal: a copy is the same as its source, whatever the source looks like, and says so.

Method: real processes on this machine; every copy is read back and compared here.
"""
import os

from rig import BLOCK, MIB, Rig, main, run


class Replicate(Rig):
    def replicate(self, *more):
        return self.ok("replicate", self.path("src"), self.path("dst"), "--json", *more).json()

    def test_makes_a_copy(self):
        self.image("src", 40 * MIB)
        result = self.replicate()
        self.assert_same("src", "dst")
        self.assertEqual(result["result"], "identical")
        self.assertEqual(result["sentBytes"], 40 * MIB)

    def test_sends_only_what_changed(self):
        self.image("src", 40 * MIB)
        self.replicate()
        self.change("src", [self.random.randrange(40 * 256) * BLOCK for _ in range(50)])
        result = self.replicate()
        self.assert_same("src", "dst")
        self.assertLessEqual(result["sentBytes"], 50 * BLOCK)
        self.assertEqual(result["equalBytes"] + result["sentBytes"], 40 * MIB)

    def test_sends_nothing_when_nothing_changed(self):
        self.image("src", 8 * MIB)
        self.replicate()
        self.assertEqual(self.replicate()["sentBytes"], 0)

    def test_copies_a_size_that_is_no_multiple_of_anything(self):
        for size in (1, 511, 4097, MIB + 1, 17 * MIB + 4095):
            with self.subTest(size=size):
                self.image("src", size)
                self.ok("replicate", self.path("src"), self.path(f"dst{size}"))
                self.assert_same("src", f"dst{size}")

    def test_an_image_of_zeros_takes_no_room(self):
        self.sparse("src", 64 * MIB)
        result = self.replicate()
        self.assert_same("src", "dst")
        self.assertEqual(result["sentBytes"], 0)
        self.assertEqual(self.allocated("dst"), 0)

    def test_zeros_that_are_written_are_not_sent_either(self):
        self.write("src", bytes(8 * MIB))
        self.assertEqual(self.replicate()["sentBytes"], 0)
        self.assert_same("src", "dst")

    def test_a_sparse_image_stays_sparse(self):
        self.sparse("src", 256 * MIB, [0, 5 * MIB, 100 * MIB + BLOCK, 256 * MIB - BLOCK])
        self.replicate()
        self.assert_same("src", "dst")
        self.assertLessEqual(self.allocated("dst"), 64 * BLOCK)

    def test_data_that_became_zeros_becomes_a_hole(self):
        self.image("src", 8 * MIB)
        self.replicate()
        self.sparse("src", 8 * MIB)
        self.replicate()
        self.assert_same("src", "dst")
        self.assertEqual(self.allocated("dst"), 0)

    def test_takes_up_a_copy_that_it_did_not_make(self):
        self.image("src", 8 * MIB)
        self.write("dst", self.read("src"))
        self.change("dst", [0, 4 * MIB])
        result = self.replicate()
        self.assert_same("src", "dst")
        self.assertEqual(result["sentBytes"], 2 * BLOCK)

    def test_an_old_copy_with_data_where_the_source_has_a_hole(self):
        self.sparse("src", 8 * MIB, [MIB])
        self.image("dst", 8 * MIB)
        self.replicate("--verify")
        self.assert_same("src", "dst")

    def test_fills_an_empty_file(self):
        self.image("src", 3 * MIB)
        self.write("dst", b"")
        self.replicate()
        self.assert_same("src", "dst")

    def test_verifies_at_the_end_when_asked(self):
        self.image("src", 3 * MIB)
        self.assertEqual(self.replicate("--verify")["result"], "identical")

    def test_keeps_its_state_where_it_is_told(self):
        self.image("src", MIB)
        self.replicate("--state", self.path("elsewhere"))
        self.assertEqual(os.stat(self.path("elsewhere")).st_mode & 0o777, 0o700)
        self.assertFalse(os.path.exists(self.path("dst.penstock")))

    def test_the_copy_is_for_its_owner_only(self):
        self.image("src", MIB)
        self.replicate()
        self.assertEqual(os.stat(self.path("dst")).st_mode & 0o777, 0o600)

    def test_says_in_one_line_how_it_came_out(self):
        self.image("src", 2 * MIB)
        result = self.ok("replicate", self.path("src"), self.path("dst"), "--quiet")
        self.assertRegex(result.out, r"^identical at \d+: 2\.00 MiB, equal 0 B, sent 2\.00 MiB, in ")
        self.assertEqual(result.err, "")

    def test_every_codec(self):
        for codec in ("none", "lz4", "zstd", "zstd:5", "auto"):
            with self.subTest(codec=codec):
                self.write("src", b"all work and no play " * (MIB // 5) + self.random.randbytes(MIB))
                self.ok("replicate", self.path("src"), self.path(f"dst-{codec}"), "--compress", codec)
                self.assert_same("src", f"dst-{codec}")


class Sync(Rig):
    def test_several_volumes_are_one_group(self):
        self.image("a", 20 * MIB + 5)
        self.sparse("b", 30 * MIB, [7 * MIB])
        self.image("c", 4097)
        _, address = self.target()
        result = self.sync(address, ("va", "a"), ("vb", "b"), ("vc", "c")).json()
        self.assertEqual(result["comparedBytes"], result["bytes"])
        for volume in "abc":
            self.assert_same(volume, f"volumes/g/v{volume}.img")

    def test_updates_them(self):
        self.image("a", 10 * MIB)
        self.image("b", 10 * MIB)
        _, address = self.target()
        self.sync(address, ("a", "a"), ("b", "b"))
        self.change("a", [0])
        self.change("b", [10 * MIB - BLOCK])
        result = self.sync(address, ("a", "a"), ("b", "b")).json()
        self.assertEqual(result["sentBytes"], 2 * BLOCK)
        self.assert_same("a", "volumes/g/a.img")
        self.assert_same("b", "volumes/g/b.img")

    def test_compresses_what_shrinks(self):
        self.write("a", b"all work and no play " * MIB)
        _, address = self.target()
        result = self.sync(address, ("a", "a"), more=("--compress", "zstd")).json()
        self.assertLess(result["packedBytes"], result["sentBytes"] // 10)
        self.assert_same("a", "volumes/g/a.img")

    def test_a_mapped_volume_is_where_it_was_mapped_to(self):
        self.image("a", MIB)
        _, address = self.target("--volume", f"g/a={self.path('mapped')}")
        self.sync(address, ("a", "a"))
        self.assert_same("a", "mapped")

    def test_groups_are_apart(self):
        self.image("a", MIB)
        self.image("b", MIB)
        _, address = self.target()
        for group, path in (("one", "a"), ("two", "b")):
            self.ok("sync", "--to", address, "--plaintext", "--group", group,
                    f"v={self.path(path)}")
        self.assert_same("a", "volumes/one/v.img")
        self.assert_same("b", "volumes/two/v.img")

    def test_over_a_unix_socket(self):
        self.image("a", 3 * MIB)
        _, address = self.target(listen=f"unix:{self.path('socket')}")
        self.sync(address, ("a", "a"))
        self.assert_same("a", "volumes/g/a.img")

    def test_a_target_goes_on_with_its_state(self):
        self.image("a", 5 * MIB)
        target, address = self.target()
        first = self.sync(address, ("a", "a")).json()
        self.assertEqual(self.stop(target).code, 0)
        _, address = self.target()
        second = self.sync(address, ("a", "a")).json()
        self.assertEqual(second["sentBytes"], 0)
        self.assertGreater(second["at"], first["at"])

    def test_a_limit_of_the_rate_holds(self):
        self.image("a", 4 * MIB)
        _, address = self.target()
        result = self.sync(address, ("a", "a"), more=("--limit-rate", "4M")).json()
        self.assertGreater(result["seconds"], 0.8)


class Help(Rig):
    def test_every_subcommand_shows_an_example(self):
        for command in ("replicate", "target", "sync", "serve", "point", "check", "pause", "resume",
                        "limit-rate", "verify", "status", "inspect", "keygen"):
            result = run(command, "--help")
            self.assertEqual(result.code, 0, result)
            self.assertIn(f"Example: penstock {command}", result.out)


if __name__ == "__main__":
    main()
