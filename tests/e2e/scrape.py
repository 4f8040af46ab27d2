# SPDX-License-Identifier: Apache-2.0
"""Metrics as a scraper takes them: a strict parser of Prometheus' text format, version 0.0.4.

Stricter than the format where that finds mistakes: each metric has HELP, TYPE and its samples in one
go, a counter's name ends in _total, and the samples of a metric have the same label names.
"""
import re
import time
import urllib.request

from rig import LIMIT

NAME = r"[a-zA-Z_:][a-zA-Z0-9_:]*"
LABEL = r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\\n]|\\\\|\\"|\\n)*)"'
SAMPLE = re.compile(rf"({NAME})(?:\{{({LABEL}(?:,{LABEL})*)\}})? "
                    r"(-?[0-9]+(?:\.[0-9]+)?(?:e[+-][0-9]+)?|[+-]Inf|NaN)")
TYPE = re.compile(rf"# TYPE ({NAME}) (counter|gauge|histogram)")
HELP = re.compile(rf"# HELP ({NAME}) ((?:[^\\\n]|\\\\|\\n)+)")
CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8"


class Metric:
    """One metric: its type, its label names, and its samples, values by (name, labels)."""

    def __init__(self, name, kind, text):
        self.name, self.kind, self.help = name, kind, text
        self.labels = None
        self.samples = {}

    def take(self, name, labels, value):
        suffix = name.removeprefix(self.name)
        allowed = ("_bucket", "_sum", "_count") if self.kind == "histogram" else ("",)
        assert name.startswith(self.name) and suffix in allowed, f"{name} is not of {self.name}"
        assert self.kind != "counter" or value >= 0, f"{name} is {value}"
        names = tuple(label for label, _ in labels if suffix != "_bucket" or label != "le")
        assert len(set(names)) == len(names), f"{name}: a label is there twice"
        assert self.labels in (None, names), f"{name}: has {names}, another {self.labels}"
        self.labels = names
        key = (name, frozenset(labels))
        assert key not in self.samples, f"{name}: {labels} is there twice"
        self.samples[key] = value

    def check(self):
        assert self.kind != "counter" or self.name.endswith("_total"), self.name
        if self.kind != "histogram":
            return
        series = {}
        for (name, labels), value in self.samples.items():
            if name == self.name + "_bucket":
                bounds = dict(labels)
                bound = float(bounds.pop("le").replace("Inf", "inf"))
                series.setdefault(frozenset(bounds.items()), []).append((bound, value))
        for labels, buckets in series.items():
            assert buckets == sorted(buckets), f"{self.name}: {buckets}"
            assert [count for _, count in buckets] == sorted(count for _, count in buckets), buckets
            assert buckets[-1] == (float("inf"), self.samples[(self.name + "_count", labels)])
            assert (self.name + "_sum", labels) in self.samples


class Scrape:
    def __init__(self, text):
        self.text = text
        self.metrics = {}
        assert text.endswith("\n") and "\r" not in text
        metric = None
        helped = None
        for line in text[:-1].split("\n"):
            if line.startswith("# HELP "):
                found = HELP.fullmatch(line)
                assert found and helped is None, line
                helped = found.groups()
            elif line.startswith("# TYPE "):
                found = TYPE.fullmatch(line)
                assert found and helped and found.group(1) == helped[0], line
                assert helped[0] not in self.metrics, f"begun twice: {line}"
                metric = self.metrics[helped[0]] = Metric(helped[0], found.group(2), helped[1])
                helped = None
            else:
                found = SAMPLE.fullmatch(line)
                assert found and metric and helped is None, line
                labels = re.findall(LABEL, found.group(2) or "")
                value = float(found.group(found.lastindex).replace("Inf", "inf"))
                metric.take(found.group(1), labels, value)
        assert helped is None
        for each in self.metrics.values():
            each.check()

    def __call__(self, name, **labels):
        """The value of the one sample that has these labels, and maybe others."""
        want = set(labels.items())
        metric = self.metrics.get(name) or self.metrics[name.rsplit("_", 1)[0]]
        found = [value for (each, have), value in metric.samples.items()
                 if each == name and want <= set(have)]
        assert len(found) == 1, f"{name} {labels}: {found}"
        return found[0]

    def word(self, name, label, **labels):
        """What a state is: the label's value of its only sample that is 1."""
        want = set(labels.items())
        found = [dict(have)[label] for (_, have), value in self.metrics[name].samples.items()
                 if want <= set(have) and value == 1]
        assert len(found) == 1, f"{name} {labels}: {found}"
        return found[0]


def scrape(address):
    time.sleep(0.1)  # a text may be given again for ten times as long as it took to make
    with urllib.request.urlopen(f"http://{address}/metrics", timeout=LIMIT) as answer:
        assert answer.headers["Content-Type"] == CONTENT_TYPE, answer.headers
        text = answer.read().decode()
    result = Scrape(text)
    check_with_the_client(result)
    return result


def check_with_the_client(result):
    """Prometheus' own client sees the same, where it is installed."""
    try:
        from prometheus_client.parser import text_string_to_metric_families
    except ImportError:
        if not hasattr(check_with_the_client, "told"):
            print("not compared with prometheus_client: python3-prometheus-client is not installed "
                  "for this Python", flush=True)
            check_with_the_client.told = True
        return
    seen = {(sample.name, frozenset(sample.labels.items())): sample.value
            for family in text_string_to_metric_families(result.text)
            for sample in family.samples}
    own = {key: value for metric in result.metrics.values()
           for key, value in ((((name, frozenset(unescaped(labels))), value))
                              for (name, labels), value in metric.samples.items())}
    assert seen == own, set(seen.items()) ^ set(own.items())


def unescaped(labels):
    meaning = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}
    return [(name, re.sub(r"\\.", lambda found: meaning[found.group()], value))
            for name, value in labels]
