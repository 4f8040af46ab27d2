#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Goal: penstock target --metrics tells monitoring what the status says, to whoever asks properly,
and whoever asks otherwise, or not at all, disturbs nothing.

Method: real processes; every scrape goes through a strict parser.
"""
import http.client
import signal
import socket
import unittest

from rig import MIB, Rig, main
from scrape import Scrape, scrape


class Parser(unittest.TestCase):
    """The tests' own parser: what it takes for right is what the others stand on."""

    RIGHT = ('# HELP a_total All.\n# TYPE a_total counter\na_total{g="x"} 1\na_total{g="y"} 2e+09\n'
             '# HELP b b.\n# TYPE b gauge\nb -0.5\n'
             '# HELP h h.\n# TYPE h histogram\nh_bucket{le="0.1"} 1\nh_bucket{le="+Inf"} 2\n'
             'h_sum 7\nh_count 2\n')

    def test_takes_what_is_right(self):
        found = Scrape(self.RIGHT)
        self.assertEqual((found("a_total", g="y"), found("b"), found("h_count")), (2e9, -0.5, 2))

    def test_refuses_what_is_wrong(self):
        for old, new in (("a_total{g=\"y\"}", "a_total{g=\"x\"}"), ('{g="y"}', '{h="y"}'),
                         ('{g="y"}', "{g=y}"), ('{g="y"}', '{g="\\y"}'), ("-0.5", "-0,5"),
                         ("-0.5", ""), ("b -0.5", "c -0.5"), ("TYPE b", "TYPE c"),
                         ("# HELP b b.\n", ""), ("# HELP b b.", "# HELP a_total b."),
                         ("a_total", "a"), ('"+Inf"} 2', '"+Inf"} 3'), ('"0.1"} 1', '"0.1"} 3'),
                         ("h_sum 7\n", ""), ("h_count 2\n", "h_count 2"), ("} 1\n", "}  1\n"),
                         ("} 1\n", "} -1\n"), ("b -0.5\n", "b -0.5\n\n")):
            self.assertIn(old, self.RIGHT)
            with self.assertRaises((AssertionError, KeyError), msg=f"{old} -> {new}"):
                Scrape(self.RIGHT.replace(old, new))


class TargetMetrics(Rig):
    def serve(self, *more, **kwargs):
        process = self.start("target", "--listen", "127.0.0.1:0", "--state", self.path("state"),
                             "--volumes", self.path("volumes"), "--plaintext",
                             "--metrics", "127.0.0.1:0", *more, **kwargs)
        line = process.read_line()
        self.assertRegex(line, r"^metrics on 127\.0\.0\.1:\d+\n$", process.errors())
        metrics = line.split()[2]
        line = process.read_line()
        self.assertRegex(line, r"^listening on \S+\n$", process.errors())
        return process, line.split()[2], metrics

    def test_an_empty_target_has_no_groups(self):
        _, _, metrics = self.serve()
        found = scrape(metrics)
        self.assertEqual(found("penstock_build_info", side="target"), 1)
        self.assertEqual(found("penstock_target_groups"), 0)
        self.assertEqual(found.metrics["penstock_target_epoch"].samples, {})

    def test_it_says_what_the_status_says(self):
        self.image("a", 3 * MIB)
        self.image("b", MIB)
        _, address, metrics = self.serve()
        at = self.sync(address, ("a", "a"), ("b", "b")).json()["at"]
        group = self.ok("status", "--of", address, "--plaintext",
                        "--json").json()["groups"][0]
        found = scrape(metrics)
        for stage in ("closed", "sent", "received", "durable", "applied", "flushed"):
            self.assertEqual(found("penstock_target_point", group="g", stage=stage), group[stage])
        for name, key in (("epoch", "epoch"), ("lag_seconds", "lagSeconds"),
                          ("lag_bytes", "lagBytes"), ("lag_datasets", "lagDatasets"),
                          ("journal_bytes", "journalBytes"),
                          ("journal_quota_bytes", "journalQuota")):
            self.assertEqual(found("penstock_target_" + name, group="g"), group[key], name)
        for name, key in (("datasets", "datasets"), ("raw_bytes", "rawBytes"),
                          ("received_bytes", "receivedBytes"), ("equal_bytes", "equalBytes"),
                          ("refused_inputs", "refused"), ("quarantined_files", "quarantined"),
                          ("sessions", "connections")):
            self.assertEqual(found(f"penstock_target_{name}_total", group="g"),
                             group["counters"][key], name)
        for volume, size in (("a", 3 * MIB), ("b", MIB)):
            labels = {"group": "g", "volume": volume}
            self.assertEqual(found("penstock_target_volume_size_bytes", **labels), size)
            self.assertEqual(found("penstock_target_volume_good_point", **labels), at)
            self.assertEqual(found.word("penstock_target_volume_state", "state", **labels), "good")

    def test_counters_move(self):
        self.image("a", MIB)
        _, address, metrics = self.serve()
        self.sync(address, ("a", "a"))
        before = scrape(metrics)
        self.change("a", [0, 8192])
        self.sync(address, ("a", "a"))
        after = scrape(metrics)
        for name in ("datasets", "raw_bytes", "received_bytes", "equal_bytes", "sessions"):
            name = f"penstock_target_{name}_total"
            self.assertGreater(after(name, group="g"), before(name, group="g"), name)
        self.assertGreater(after("penstock_target_point", group="g", stage="flushed"),
                           before("penstock_target_point", group="g", stage="flushed"))

    def test_a_connected_source_is_seen(self):
        self.image("a", 64 * MIB)
        _, address, metrics = self.serve()
        process = self.start("sync", "--to", address, "--plaintext", "--group", "h", "--quiet",
                             "--limit-rate", "16M", "--compress", "none", f"v={self.path('a')}")
        while True:
            found = scrape(metrics)
            passed = found.metrics["penstock_target_volume_passed_bytes"].samples
            if passed and 0 < found("penstock_target_volume_passed_bytes", group="h") < 64 * MIB:
                break
            self.assertTrue(process.is_running(), "it ended unseen")
        self.assertEqual(found("penstock_target_connected", group="h"), 1)
        self.assertEqual(found("penstock_target_connections"), 1)
        self.assertEqual(found.word("penstock_target_volume_state", "state", group="h"), "syncing")
        self.assertEqual(process.wait().code, 0)

    def test_a_request_of_another_kind_is_answered_so(self):
        _, _, metrics = self.serve()

        def ask(method, path):
            connection = http.client.HTTPConnection(metrics, timeout=60)
            connection.request(method, path)
            answer = connection.getresponse()
            body = answer.read()
            connection.close()
            return answer, body

        got, text = ask("GET", "/metrics")
        head, nothing = ask("HEAD", "/metrics")
        self.assertEqual((got.status, head.status, nothing), (200, 200, b""))
        self.assertEqual(head.headers["Content-Type"], got.headers["Content-Type"])
        self.assertEqual(int(got.headers["Content-Length"]), len(text))
        for path in ("/", "/metrics/x", "/favicon.ico"):
            self.assertEqual(ask("GET", path)[0].status, 404, path)
        for method in ("POST", "PUT", "DELETE"):
            answer = ask(method, "/metrics")[0]
            self.assertEqual((answer.status, answer.headers["Allow"]), (405, "GET, HEAD"), method)

    def test_hostile_clients_disturb_nothing(self):
        self.image("a", MIB)
        process, address, metrics = self.serve()
        host, port = metrics.split(":")
        clients = []
        self.addCleanup(lambda: [client.close() for client in clients])
        for number in range(200):
            client = socket.create_connection((host, int(port)), timeout=60)
            clients.append(client)
            try:
                client.sendall((b"", b"GET /met", b"A" * 100_000, self.random.randbytes(5000))
                               [number % 4])
            except OSError:
                pass  # it was dropped
        scrape(metrics)
        self.sync(address, ("a", "a"))
        self.assertEqual(scrape(metrics)("penstock_target_groups"), 1)
        self.assertTrue(process.is_running())
        self.assertEqual(self.stop(process, signal.SIGTERM).code, 0)

    def test_a_place_that_is_refused_is_told_at_the_start(self):
        _, _, metrics = self.serve()
        common = ("target", "--listen", "127.0.0.1:0", "--state", self.path("other"), "--volumes",
                  self.path("others"), "--plaintext", "--metrics")
        self.refused(2, f"can't serve metrics on {metrics}: Address already in use", *common,
                     metrics)
        self.refused(2, "--metrics: no port in '9100'", *common, "9100")
        self.refused(2, "--metrics: give ADDR:PORT", *common, "unix:" + self.path("m.sock"))


if __name__ == "__main__":
    main()
