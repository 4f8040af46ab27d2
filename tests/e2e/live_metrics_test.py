#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Goal: penstock serve --metrics tells monitoring what the source's status says; and what is
installed for monitoring, and the manual, name the metrics that are there, all of them and no others.

Method: a target and a source with a guest, both scraped through a strict parser.
"""
import http.client
import json
import os
import re
import signal

from guest import Served, has_sanitizer, wait_for
from rig import BLOCK, MIB, Rig, main
from scrape import scrape

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
METRIC = re.compile(r"\bpenstock_[a-z][a-z0-9_]*\b")


def read(*names):
    with open(os.path.join(SOURCE, *names), encoding="utf-8") as file:
        return file.read()


class SourceMetrics(Rig):
    def serve(self, address, *more):
        served = Served(self.folder, address, {"v": self.path("v.img")}, "--interval", "100ms",
                        "--memory", "16M", "--max-dataset", "2M", "--metrics", "127.0.0.1:0", *more)
        self.addCleanup(served.end, signal.SIGKILL)
        served.ready()
        place = re.findall(r"metrics on (\S+)", served.said())
        self.assertEqual(len(place), 1, served.said())
        return served, place[0]

    def test_it_says_what_the_status_says(self):
        self.image("v.img", 4 * MIB)
        _, address = self.target()
        served, metrics = self.serve(address)
        served.point("flushed")
        served.wait_state("replicating")
        before = scrape(metrics)
        guest = served.guest("v")
        for i in range(7):
            guest.pwrite(self.random.randbytes(BLOCK), i * MIB // 2)
        at = served.point("flushed")
        status = served.status()
        found = scrape(metrics)
        self.assertEqual(found("penstock_build_info", side="source"), 1)
        self.assertEqual(found.word("penstock_source_state", "state", group="g"), status["state"])
        self.assertEqual(found("penstock_source_connected", group="g"), 1)
        self.assertGreaterEqual(found("penstock_source_point", group="g", stage="flushed"), at)
        for name, key in (("epoch", "epoch"), ("memory_limit_bytes", "memoryLimit"),
                          ("spool_limit_bytes", "spoolLimit"), ("spool_bytes", "spoolBytes"),
                          ("spool_datasets", "spoolDatasets"), ("overflows_total", "overflows"),
                          ("writes_total", "writes"), ("written_bytes_total", "writtenBytes"),
                          ("raw_bytes_total", "rawBytes"), ("packed_bytes_total", "packedBytes"),
                          ("sent_bytes_total", "sentBytes"), ("map_saves_total", "mapSaves"),
                          ("reconnects_total", "reconnects")):
            self.assertEqual(found("penstock_source_" + name, group="g"), status[key], name)
        for name, least in (("writes_total", 7), ("written_bytes_total", 7 * BLOCK),
                            ("raw_bytes_total", 7 * BLOCK), ("sent_bytes_total", 1)):
            name = "penstock_source_" + name
            self.assertGreaterEqual(found(name) - before(name), least, name)
        self.assertLess(found("penstock_source_lag_seconds"), 30)

    def test_an_outage_is_seen(self):
        self.image("v.img", MIB)
        target, address = self.target()
        served, metrics = self.serve(address, "--spool-max", "0")
        served.point("flushed")
        self.stop(target)
        guest = served.guest("v")
        guest.pwrite(b"x" * BLOCK, 0)
        wait_for(lambda: scrape(metrics)("penstock_source_lag_seconds") > 0.5, "a lag")
        self.assertEqual(scrape(metrics)("penstock_source_connected"), 0)

        def has_overflowed():
            guest.pwrite(self.random.randbytes(MIB), 0)
            return scrape(metrics)("penstock_source_overflows_total") > 0

        wait_for(has_overflowed, "an overflow")
        found = scrape(metrics)
        self.assertEqual(found.word("penstock_source_state", "state"), "tracking only")
        self.assertEqual(found("penstock_source_marked_bytes"), MIB)
        self.target(listen=address)
        wait_for(lambda: scrape(metrics).word("penstock_source_state", "state") == "replicating",
                 "replicating again")
        served.order("pause")
        self.assertEqual(scrape(metrics).word("penstock_source_state", "state"), "paused")

    def test_a_request_of_another_kind_is_answered_so(self):
        self.image("v.img", MIB)
        _, address = self.target()
        _, metrics = self.serve(address)
        for method, path, status in (("HEAD", "/metrics", 200), ("GET", "/", 404),
                                     ("POST", "/metrics", 405)):
            connection = http.client.HTTPConnection(metrics, timeout=60)
            connection.request(method, path)
            self.assertEqual(connection.getresponse().status, status, (method, path))
            connection.close()

    def test_a_place_that_is_refused_is_told_at_the_start(self):
        self.image("v.img", MIB)
        _, address = self.target()
        _, metrics = self.serve(address)
        self.image("w.img", MIB)
        second = Served(self.folder, address, {"w": self.path("w.img")}, "--metrics", metrics,
                        state="second")
        complaint = f"can't serve metrics on {metrics}: Address already in use"
        wait_for(lambda: complaint in second.said(), "the complaint")
        if has_sanitizer():
            # Served.end says why.
            print("not looked at with a sanitizer: the exit code")
            second.end(signal.SIGKILL)
        else:
            self.assertNotEqual(second._process.wait(60), 0)
            second.end()
        self.refused(2, "metrics: no port", "serve", "--to", address, "--group", "g", "--state",
                     self.path("third"), "--plaintext", "--metrics", "9101",
                     f"w={self.path('w.img')}")


class Papers(Rig):
    """What is written about the metrics, beside a scrape of each side."""

    def setUp(self):
        super().setUp()
        self.image("v.img", MIB)
        process = self.start("target", "--listen", "127.0.0.1:0", "--state", self.path("state"),
                             "--volumes", self.path("volumes"), "--plaintext",
                             "--metrics", "127.0.0.1:0")
        place = process.read_line().split()[2]
        address = process.read_line().split()[2]
        served, metrics = SourceMetrics.serve(self, address)
        served.point("flushed")
        self.found = dict(scrape(metrics).metrics)
        self.found.update(scrape(place).metrics)
        self.manual = read("docs", "operations.md")

    def samples(self):
        names = set(self.found)
        for metric in self.found.values():
            if metric.kind == "histogram":
                names.update(metric.name + end for end in ("_bucket", "_sum", "_count"))
        return names

    def test_the_manual_has_every_metric_and_no_other(self):
        rows = dict((name, (kind, labels)) for name, kind, labels in
                    re.findall(r"^\| `(penstock_\w+)` \| (\w+) \|([^|]*)\| [^|]+ \|$",
                               self.manual, re.M))
        self.assertEqual(sorted(rows), sorted(self.found))
        for name, (kind, labels) in rows.items():
            metric = self.found[name]
            self.assertEqual(kind, metric.kind, name)
            if metric.labels is not None:
                self.assertEqual(re.findall(r"`(\w+)`", labels), list(metric.labels), name)

    def test_the_manual_has_every_state(self):
        states = {dict(labels)["state"]
                  for _, labels in self.found["penstock_source_state"].samples}
        table = self.manual.partition("| State | What it means")[2].partition("\n\n")[0]
        self.assertEqual(set(re.findall(r"^\| ([a-z ]+) \|", table, re.M)), states)
        used = set(re.findall(r'source_state\{[^}]*state="([^"]+)"',
                              read("monitoring", "alerts.yml").replace("\\", "")))
        self.assertTrue(used and used <= states, used - states)

    def test_the_alerts_name_metrics_that_are_there_and_headings_that_help(self):
        text = read("monitoring", "alerts.yml")
        names = set(METRIC.findall(text))
        self.assertGreater(len(names), 10)
        self.assertEqual(names - self.samples(), set())
        headings = {re.sub(r"[^a-z0-9 -]", "", title.lower()).replace(" ", "-")
                    for title in re.findall(r"^#+ (.+)$", self.manual, re.M)}
        alerts = re.split(r"^ *- alert: ", text, flags=re.M)[1:]
        self.assertGreater(len(alerts), 10)
        self.assertEqual(len(alerts), len({alert.split()[0] for alert in alerts}))
        for alert in alerts:
            for key in ("expr", "for", "severity", "summary", "description", "runbook"):
                self.assertRegex(alert, rf"(?m)^ +{key}: ?\S", alert)
            runbook = re.search(r"^ +runbook: docs/operations\.md#(\S+)$", alert, re.M)
            self.assertTrue(runbook and runbook.group(1) in headings, alert)
        try:
            import yaml
        except ImportError:
            print("alerts.yml is not parsed as YAML: python3-yaml is not installed", flush=True)
            return
        rules = [rule for group in yaml.safe_load(text)["groups"] for rule in group["rules"]]
        self.assertEqual(len(rules), len(alerts))

    def test_the_dashboard_names_metrics_that_are_there(self):
        board = json.loads(read("monitoring", "dashboard.json"))
        panels = [panel for panel in board["panels"] if panel["type"] != "row"]
        self.assertEqual(len({panel["id"] for panel in board["panels"]}), len(board["panels"]))
        expressions = [target["expr"] for panel in panels for target in panel["targets"]]
        self.assertGreater(len(expressions), 20)
        for text in expressions:
            names = set(METRIC.findall(text))
            self.assertTrue(names, text)
            self.assertEqual(names - self.samples(), set())
            for name in names - {"penstock_build_info"}:
                if "group" in (self.found[name].labels or ()):
                    self.assertIn('group=~"$group"', text)
        for side in ("source", "target"):
            self.assertTrue(any(f"penstock_{side}_" in text for text in expressions))
        self.assertIn("group", [each["name"] for each in board["templating"]["list"]])


if __name__ == "__main__":
    main()
