# SPDX-License-Identifier: Apache-2.0
"""Goal: what can't be done is refused with its exit code and one line that says what to do.

Method: real processes, each given one mistake; whatever was there stays as it was.
"""
import os
import socket
import subprocess
import unittest

from rig import MIB, PROGRAM, Rig, main, run


class Usage(Rig):
    def test_a_mistake_of_usage_ends_with_2(self):
        for args in ((), ("sink",), ("sync",), ("replicate", "a"), ("verify",), ("keygen",),
                     ("status",), ("replicate", "a", "b", "--no-such-option"),
                     ("replicate", "a", "b", "--jobs", "many")):
            with self.subTest(args=args):
                result = run(*args)
                self.assertEqual(result.code, 2, result)
                self.assertIn("help", result.complaint() if args != ("status",) else "help")

    def test_values_that_make_no_sense(self):
        self.image("a", MIB)
        copy = ("replicate", self.path("a"), self.path("b"))
        self.refused(2, "--compress", *copy, "--compress", "rar")
        self.refused(2, "--limit-rate", *copy, "--limit-rate", "fast")
        self.refused(2, "--log-level", *copy, "--log-level", "loud")
        self.refused(2, "--log-format", *copy, "--log-format", "xml")
        sync = ("sync", "--plaintext", "--to", "127.0.0.1:9", "--group")
        self.refused(2, "no name of a group", *sync, "../g", f"v={self.path('a')}")
        self.refused(2, "no name of a volume", *sync, "g", f"../v={self.path('a')}")
        self.refused(2, "is not VOL=PATH", *sync, "g", "v")
        self.refused(2, "named twice", *sync, "g", f"v={self.path('a')}", f"v={self.path('a')}")
        self.refused(2, "no port", "status", "--plaintext", "--of", "127.0.0.1")
        self.assertFalse(os.path.exists(self.path("b")))


class Files(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 2 * MIB)

    def replicate(self, code, text, source="a", destination="b"):
        return self.refused(code, text, "replicate", self.path(source), self.path(destination))

    def test_a_source_that_is_not_there(self):
        self.replicate(2, "can't open", source="nothing")

    def test_a_source_that_is_empty(self):
        self.write("empty", b"")
        self.replicate(2, "is empty", source="empty")

    def test_a_source_that_is_a_directory(self):
        os.mkdir(self.path("folder"))
        self.replicate(2, "neither a regular file nor a block device", source="folder")

    def test_the_same_file_twice(self):
        os.link(self.path("a"), self.path("b"))
        self.replicate(2, "are the same file")

    def test_a_copy_that_is_smaller(self):
        self.image("b", MIB)
        before = self.read("b")
        self.replicate(2, f"make it the same size (truncate -s {2 * MIB}")
        self.assertTrue(before == self.read("b"))

    def test_a_copy_that_is_larger(self):
        self.image("b", 3 * MIB)
        self.replicate(2, "make it the same size")

    def test_a_directory_that_is_not_there(self):
        self.replicate(2, "make it first", destination="nowhere/b")

    def test_a_copy_that_another_run_has(self):
        self.image("v", 2 * MIB)
        _, address = self.target()
        self.sync(address, ("v", "v"))
        self.replicate(2, "in use by another penstock", destination="volumes/g/v.img")

    def test_a_state_that_is_open_to_others(self):
        os.mkdir(self.path("b.penstock"))
        os.chmod(self.path("b.penstock"), 0o755)
        self.replicate(2, "run: chmod 700")

    def test_a_state_that_is_damaged(self):
        os.mkdir(self.path("b.penstock"), 0o700)
        self.write("b.penstock/state.db", b"no database" * 1000)
        self.replicate(2, "state.db")

    def test_a_source_that_can_not_be_read(self):
        os.chmod(self.path("a"), 0)
        # Root reads everything, unless it may not.
        prefix = (["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]
                  if os.geteuid() == 0 else [])
        done = subprocess.run([*prefix, PROGRAM, "replicate", self.path("a"), self.path("b")],
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 2, done)
        self.assertEqual(done.stderr,
                         f"penstock: can't open {self.path('a')}: Permission denied\n")


class Target(Rig):
    def target_refused(self, code, text, *args):
        return self.refused(code, text, "target", "--state", self.path("state"), "--volumes",
                            self.path("volumes"), *args)

    def test_without_security(self):
        self.target_refused(2, "give --tls-certs DIR or --tls-psk FILE", "--listen", "127.0.0.1:0")

    def test_plaintext_beyond_this_machine(self):
        self.target_refused(2, "loopback addresses and UNIX sockets only", "--plaintext",
                            "--listen", "0.0.0.0:0")

    def test_two_kinds_of_security(self):
        self.target_refused(2, "not several", "--plaintext", "--tls-psk", "k", "--listen",
                            "127.0.0.1:0")

    def test_a_port_that_is_taken(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            self.target_refused(3, "Address already in use", "--plaintext", "--listen",
                                f"127.0.0.1:{taken.getsockname()[1]}")

    def test_a_state_that_another_has(self):
        self.target()
        self.target_refused(2, "in use by another penstock", "--plaintext", "--listen",
                            "127.0.0.1:0")

    def test_a_key_that_others_read(self):
        self.ok("keygen", "--psk", self.path("key"))
        os.chmod(self.path("key"), 0o640)
        self.target_refused(2, "chmod 600", "--tls-psk", self.path("key"), "--listen",
                            "127.0.0.1:0")

    def test_grants_that_are_wrong(self):
        self.write("grants", b"a g write\n")
        self.target_refused(2, "line 1: unknown right 'write'", "--plaintext", "--listen",
                            "127.0.0.1:0", "--grants", self.path("grants"))

    def test_no_place_for_volumes(self):
        self.refused(2, "there is no place for volumes", "target", "--state", self.path("state"),
                     "--plaintext", "--listen", "127.0.0.1:0")

    def test_a_key_is_not_overwritten(self):
        self.ok("keygen", "--psk", self.path("key"))
        before = self.read("key")
        self.refused(2, "exists already", "keygen", "--psk", self.path("key"))
        self.assertEqual(before, self.read("key"))


class Sync(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", 2 * MIB)

    def sync_refused(self, code, text, address, *more, volume="a", security=("--plaintext",)):
        return self.refused(code, text, "sync", "--to", address, "--group", "g", "--retry-for", "0",
                            *security, *more, f"{volume}={self.path('a')}")

    def test_a_port_where_nobody_listens(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            port = taken.getsockname()[1]
        self.sync_refused(3, "nobody listens there", f"127.0.0.1:{port}")

    def test_another_size(self):
        _, address = self.target()
        self.sync(address, ("a", "a"))
        self.image("a", 3 * MIB)
        self.sync_refused(2, "make them the same", address)

    def test_plaintext_to_another_machine(self):
        self.sync_refused(2, "loopback addresses and UNIX sockets only", "192.0.2.1:7000")

    def test_without_security(self):
        self.sync_refused(2, "nothing would prove who we are", "127.0.0.1:7000", security=())

    def test_a_volume_without_a_grant(self):
        self.write("grants", b"plaintext g/b replicate\n")
        os.chmod(self.path("grants"), 0o600)
        _, address = self.target("--grants", self.path("grants"))
        self.sync_refused(2, "no grant for g/a", address)
        self.sync(address, ("b", "a"))

    def test_a_volume_that_is_nowhere(self):
        process = self.start("target", "--listen", "127.0.0.1:0", "--state", self.path("state"),
                             "--plaintext", "--volume", f"g/b={self.path('b')}")
        address = process.read_line().split()[2]
        self.sync_refused(2, "map it to a file with --volume", address)


class Keys(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", MIB)
        for name in ("right", "wrong"):
            self.ok("keygen", "--psk", self.path(name), "--identity", "db1")
        self.ok("keygen", "--psk", self.path("stranger"), "--identity", "db2")
        _, self.address = self.target(security=("--tls-psk", self.path("right")))

    def sync_with(self, *security):
        return run("sync", "--to", self.address, "--group", "g", *security,
                   f"a={self.path('a')}")

    def test_the_right_key(self):
        result = self.sync_with("--tls-psk", self.path("right"))
        self.assertEqual(result.code, 0, result)
        self.assert_same("a", "volumes/g/a.img")

    def test_a_wrong_key_is_refused_at_once(self):
        result = self.sync_with("--tls-psk", self.path("wrong"))
        self.assertEqual(result.code, 2, result)
        self.assertIn("another key under our name", result.complaint())

    def test_an_unknown_identity_is_refused_at_once(self):
        result = self.sync_with("--tls-psk", self.path("stranger"))
        self.assertEqual(result.code, 2, result)
        self.assertIn("unknown key", result.complaint())

    def test_plaintext_is_not_understood(self):
        result = self.sync_with("--plaintext", "--retry-for", "0")
        self.assertEqual(result.code, 3, result)
        self.assertFalse(os.path.exists(self.path("volumes/g")))


class Certificates(Rig):
    def setUp(self):
        super().setUp()
        self.image("a", MIB)
        for ca in ("ours", "theirs"):
            self.issue(ca)
        _, self.address = self.target(security=("--tls-certs", self.path("ours", "target")))

    def issue(self, ca):
        script = os.path.join(os.environ["PENSTOCK_SOURCE"], "examples", "make_certificates.sh")
        subprocess.run([script, self.path(ca), "backup", "127.0.0.1", "db1"], check=True,
                       capture_output=True)

    def sync_with(self, *folder):
        return run("sync", "--to", self.address, "--tls-name", "backup", "--group", "g",
                   "--tls-certs", self.path(*folder), f"a={self.path('a')}")

    def test_a_certificate_of_our_ca(self):
        result = self.sync_with("ours", "db1")
        self.assertEqual(result.code, 0, result)
        self.assert_same("a", "volumes/g/a.img")

    def test_a_certificate_of_another_ca(self):
        result = self.sync_with("theirs", "db1")
        self.assertEqual(result.code, 2, result)
        self.assertIn("TLS", result.complaint())

    def test_a_certificate_for_the_wrong_end(self):
        result = self.sync_with("ours", "target")
        self.assertEqual(result.code, 2, result)


if __name__ == "__main__":
    main()
