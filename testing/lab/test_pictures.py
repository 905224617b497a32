"""The dashboard and the alert rules, on the metrics of a lab run: every panel shows something, every alert fires.

    router wan1 10.1.0.2 / fd00:1::2 -------- far1
           wan2 10.2.0.2             -------- far2: responder, probed by bursts

The course of the run is laid out over hours: each look at the metrics stands for some minutes.
"""

import json
import os
import re
import time

import pytest

from lab import pages, waiting
from lab.configtext import build, interface, ping, ping_ext, rule
from lab.tool import ctl

DASHBOARD, ALERTS = "packaging/examples/grafana-dashboard.json", "packaging/examples/alerts.yml"
ADDED = 'instance="router:9100",job="node"'
WRITTEN = "wan_lb_last_write_timestamp_seconds"
TIMER = 15  # seconds from one writing of the metrics to the next

# Minutes of the virtual course: what each stands for. For 5 minutes a series is shown that is no longer there.
COURSE = [("good", 10), ("wan1 failed", 5), ("all failed", 8), ("good again", 10), ("flapped", 10), ("lossy", 20),
          ("stopped", 5)]


def samples(text, written_at):
    """{series: value}; when the daemon wrote last is told as its age in seconds."""
    found = {}
    for line in text.splitlines():
        if not line.startswith("#"):
            name, labels, value = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line).groups()
            number = written_at - float(value) if name == WRITTEN else float(value)
            found[f"{name}{{{','.join(filter(None, [labels, ADDED]))}}}"] = number
    return found


class Run:
    """A daemon whose metrics are looked at, a snapshot for each stage of the course."""

    def __init__(self, lab):
        self.lab = lab
        self.links = [lab.uplink(1, far_end="kernel", ipv6=True), lab.uplink(2)]
        first, second = self.links
        self.lb = lab.start_lb(build(
            [interface("wan1", [ping(first.gateway, resp_time=300)], success_ct=1, nexthop=first.gateway),
             interface("wan1", [ping(first.gateway6, resp_time=300)], ipv6=True, success_ct=1, nexthop=first.gateway6),
             interface("wan2", [ping_ext(second.gateway, period=1, count=2, loss=60, rtt=900, jitter=900)],
                       success_ct=1, nexthop=second.gateway)],
            [rule("1_ipv4", {"wan1": 2, "wan2": 1}, {"0.0.0.0/0": None}, failover=True),
             rule("1_ipv6", {"wan1": 1}, {"::/0": None})]))
        self.stages = {}
        os.mkdir(lab.path("metrics"))

    def wait(self, *states):
        for link, state in zip(self.links, states):
            self.lb.wait_status(link.name, state)
            if link.number == 1:
                self.lb.wait_status(link.name, state, family=6)

    def look(self, stage=None):
        """The counter goes on from look to look. The dumps are written after the report that was waited for."""
        if stage:
            self.lb.wait_cycles(1)
        done = ctl(self.lab, "metrics", "-o", self.lb.out, "--output", self.lab.path("metrics/wan_lb.prom"))
        assert done.status == 0, done.stderr
        if stage:
            self.stages[stage] = samples(self.lab.read("metrics/wan_lb.prom"), time.time())

    def carry_out(self):
        first, second = self.links
        self.wait("active", "active")
        self.look("good")
        first.cut()
        self.wait("failed", "active")
        self.look("wan1 failed")
        second.cut()
        self.wait("failed", "failed")
        self.look("all failed")
        second.restore()
        first.restore()
        self.wait("active", "active")
        self.look("good again")
        for _ in range(3):
            first.cut()
            self.wait("failed")
            self.look()
            first.restore()
            self.wait("active")
            self.look()
        self.look("flapped")
        second.responder.drop(1, of=2)
        waiting.wait_until(lambda: "loss 50 of 60 %" in ctl(self.lab, "status", "-o", self.lb.out).stdout,
                           "a burst with loss", interval=0.2)
        self.look("lossy")
        self.stages["stopped"] = self.stages["lossy"]


@pytest.fixture
def run(lab):
    made = Run(lab)
    made.carry_out()
    return made


def minutes_of(run):
    """The snapshot of each minute."""
    return [stage for stage, minutes in COURSE for _ in range(minutes)]


def last_minute_of(stage):
    at = 0
    for name, minutes in COURSE:
        at += minutes
        if name == stage:
            return at - 1
    raise KeyError(stage)


def value_at(run, series, minute, start=0.0):
    """The value of a series in a minute of a course that begins at `start`; None where it has none."""
    stage = minutes_of(run)[minute]
    value = run.stages[stage].get(series)
    if value is None or not series.startswith(WRITTEN):
        return value
    # The daemon's clock goes with the course, until it has stopped.
    alive = minute if stage != "stopped" else last_minute_of("lossy")
    return start + alive * 60 - TIMER - value


def all_series(run):
    return sorted({series for snapshot in run.stages.values() for series in snapshot})


# Alerts

def with_labels(severity, text=""):
    labels = dict(re.findall(r'(\w+)="([^"]*)"', f"{text},{ADDED}" if text else ADDED))
    return {**labels, "severity": severity}


def down(name, family):
    where = f'interface="{name}",family="{family}",vrf="default"'
    return {"exp_labels": with_labels("warning", where), "exp_annotations": {
        "summary": f"Uplink {name} ({family}) of router:9100 is down",
        "description": f"lbctl explain {name} on the router says why."}}


def all_down(family):
    labels = with_labels("critical", f'family="{family}",vrf="default"')
    del labels["job"]
    return {"exp_labels": labels, "exp_annotations": {
        "summary": f"No {family} uplink of router:9100 (VRF default) is up"}}


def flaps(name, family):
    where = f'interface="{name}",family="{family}",vrf="default"'
    return {"exp_labels": with_labels("warning", where), "exp_annotations": {
        "summary": f"Uplink {name} ({family}) of router:9100 comes and goes",
        "description": "More than six changes in an hour: raise failure-ct or success-ct, or set hold-down."}}


LOSSY = {"exp_labels": with_labels("warning", 'interface="wan2",family="ipv4",vrf="default",target="10.2.0.1"'),
         "exp_annotations": {"summary": "10.2.0.1 by wan2 of router:9100 loses 50%"}}
STALE = {"exp_labels": with_labels("critical"), "exp_annotations": {
    "summary": "The WAN load balancer of router:9100 writes no state any more"}}

# Which alerts fire at the end of each stage.
EXPECTED = {
    "UplinkDown": {"wan1 failed": [down("wan1", "ipv4"), down("wan1", "ipv6")],
                   "all failed": [down("wan1", "ipv4"), down("wan1", "ipv6"), down("wan2", "ipv4")]},
    "AllUplinksDown": {"wan1 failed": [all_down("ipv6")], "all failed": [all_down("ipv4"), all_down("ipv6")]},
    "UplinkFlaps": {stage: [flaps("wan1", "ipv4"), flaps("wan1", "ipv6")] for stage in ("flapped", "lossy", "stopped")},
    "UplinkLossy": {"lossy": [LOSSY], "stopped": [LOSSY]},
    "LoadBalancerStale": {"stopped": [STALE]},
}


def check_alerts(lab, run):
    count = sum(minutes for _, minutes in COURSE)
    inputs = []
    for series in all_series(run):
        values = [value_at(run, series, minute) for minute in range(count)]
        texts = ["_" if value is None else f"{value:.6g}" for value in values]
        inputs.append({"series": series, "values": " ".join(texts)})
    tests = [{"eval_time": f"{last_minute_of(stage)}m", "alertname": name, "exp_alerts": stages.get(stage, [])}
             for name, stages in EXPECTED.items() for stage, _ in COURSE]
    # Just before Prometheus looks again, once a minute, what it has is oldest.
    tests += [{"eval_time": f"{last_minute_of(stage) * 60 + 45}s", "alertname": "LoadBalancerStale", "exp_alerts": []}
              for stage, _ in COURSE if stage != "stopped"]
    lab.write("run/alerts.yml", pages.text_of(ALERTS))
    # JSON is YAML.
    lab.write("run/test.yml", json.dumps({"rule_files": ["alerts.yml"], "evaluation_interval": "15s", "tests": [
        {"interval": "1m", "input_series": inputs, "alert_rule_test": tests}]}))
    assert set(re.findall(r"alert: (\w+)", pages.text_of(ALERTS))) == set(EXPECTED)
    for what in (["check", "rules", lab.path("run/alerts.yml")], ["test", "rules", lab.path("run/test.yml")]):
        made = lab.run(["promtool", *what], check=False)
        assert made.status == 0, made.stdout + made.stderr


# The dashboard

def panels():
    """{title: its expressions}, with the variables' usual values."""
    found = {}
    for panel in json.loads(pages.text_of(DASHBOARD))["panels"]:
        found[panel["title"]] = [target["expr"].replace("$instance", "router:.*").replace("$__range", "1h")
                                 for target in panel["targets"]]
    return found


def start_prometheus(lab, run, end):
    """A server over the course, which ended at the time `end`; answers on the lab's own loopback."""
    count = sum(minutes for _, minutes in COURSE)
    start = end - 60 * (count - 1)
    lines = []
    for series in all_series(run):
        for minute in range(count):
            value = value_at(run, series, minute, start)
            if value is not None:
                lines.append(f"{series} {value!r} {start + 60 * minute}")
    lab.write("run/course.txt", "\n".join([*lines, "# EOF", ""]))
    lab.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", lab.path("run/course.txt"),
             lab.path("run/blocks")])
    lab.write("run/prometheus.yml", "global: {}\n")
    lab.ip("link set lo up")
    server = lab.enclosure.spawn(
        ["prometheus", f"--config.file={lab.path('run/prometheus.yml')}",
         f"--storage.tsdb.path={lab.path('run/blocks')}",
         "--web.listen-address=127.0.0.1:9090", "--storage.tsdb.retention.time=100y"])
    waiting.wait_until(lambda: "Server is ready" in server.stderr or server.status is not None, "prometheus")
    assert server.status is None, server.stderr
    return start


def query(lab, expression, at):
    """{labels as text: value} of the instant query."""
    made = lab.run(["promtool", "query", "instant", f"--time={at}", "http://127.0.0.1:9090", expression], check=False)
    assert made.status == 0, f"{expression}: {made.stderr}"
    return {labels: float(value) for labels, value in re.findall(r"^(.*) => (\S+) @", made.stdout, re.MULTILINE)}


def check_panels(lab, run):
    end = int(time.time()) - 60
    start = start_prometheus(lab, run, end)

    def shown(title, stage):
        expressions = panels()[title]
        assert len(expressions) == 1
        return query(lab, expressions[0], start + 60 * last_minute_of(stage))

    for title in panels():
        for stage in ("good", "lossy"):
            assert shown(title, stage), f"{title} shows nothing: {stage}"
    assert set(shown("State of the uplinks", "good").values()) == {1}
    assert set(shown("State of the uplinks", "all failed").values()) == {0}
    assert list(shown("Loss", "lossy").values()) == [0.5]
    assert list(shown("Loss", "good").values()) == [0]
    assert len(shown("Routes in use", "good")) == 1 and not shown("Routes in use", "all failed")
    away = [value for labels, value in shown("Availability in the time shown", "lossy").items() if "wan1" in labels]
    assert len(away) == 2 and all(0.74 < value < 0.82 for value in away), away  # 13 of 60 minutes
    assert 0 <= list(shown("Age of what the daemon wrote last", "lossy").values())[0] < 30
    assert 300 <= list(shown("Age of what the daemon wrote last", "stopped").values())[0] < 330
    for name in re.findall(r'"query": "label_values\((\w+), \w+\)"', pages.text_of(DASHBOARD)):
        assert query(lab, name, end)


def test_dashboard_and_alerts(lab, run):
    check_alerts(lab, run)
    check_panels(lab, run)
