"""lbctl record beside a running daemon, and its trace simulated with the same configuration.

    router wan1 10.1.0.2, IPv6 -------- f1 far1: responder
           wan2 10.2.0.2, its next hop found in the kernel's routes -------- f2 far2: responder
"""

import re
import signal
import time

from lab import tool, waiting
from lab.configtext import build, interface, ping, rule

CHANGE = re.compile(r"%WAN-I-INSTANCE: IP(v6)? interface (\S+) changed state to (active|inactive)$")


def configuration(links):
    return build([interface("wan1", [ping(resp_time=300)], success_ct=2, failure_ct=2, nexthop=links[0].gateway),
                  interface("wan2", [ping(resp_time=300)], success_ct=1, failure_ct=1, nexthop="kernel"),
                  interface("wan1", [ping(resp_time=300)], ipv6=True, success_ct=1, failure_ct=1,
                            nexthop=links[0].gateway6)],
                 [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}, failover=True),
                  rule("1_ipv6", {"wan1": 1}, {"::/0": None})])


def logged_changes(lab, since=0):
    """(seconds of the monotonic clock, label, state), as the daemon has logged them."""
    changes = []
    for record in lab.log.records[since:]:
        found = CHANGE.match(record.text)
        if found:
            label = found[2] + ("/6" if found[1] else "")
            changes.append((record.when, label, "ACTIVE" if found[3] == "active" else "FAILED"))
    return changes


def start_recording(lab, lb):
    began = time.monotonic()
    recorder = lab.enclosure.spawn([tool.program(), "record", "-o", lb.out])
    waiting.wait_until(lambda: " is " in recorder.stdout, "the recorder's first lines")
    return recorder, began


def end_recording(recorder, number=signal.SIGINT):
    recorder.signal(number)
    assert recorder.wait() == 0 and not recorder.stderr
    assert recorder.stdout.endswith("\n")
    return recorder.stdout


def simulated(lab, trace, config="lb.conf"):
    """(seconds, label, state) of the simulation of a trace's text, and all that it printed."""
    path = lab.write("trace.txt", trace)
    text = tool.ctl(lab, "simulate", lab.path(config), path, check=True).stdout
    found = re.findall(r"^([0-9.]+) interface (\S+) (ACTIVE|FAILED)$", text, re.M)
    return [(float(at), label, state) for at, label, state in found], text


def by_interface(changes):
    """The order of changes in one cycle is of no account between interfaces."""
    return {label: [state for _, other, state in changes if other == label] for _, label, _ in changes}


def test_a_recorded_run_comes_back(lab):
    links = [lab.uplink(number, ipv6=True) for number in (1, 2)]
    lb = lab.start_lb(configuration(links))
    lb.wait_status("wan1", "active")
    lb.wait_status("wan1", "active", family=6)
    lb.wait_cycles(2)
    mark = len(lab.log.records)
    recorder, began = start_recording(lab, lb)

    lab.ip(f"route add default via {links[1].gateway} dev wan2 metric 1024")
    lb.wait_status("wan2", "active")
    links[0].responder.silent = True
    lb.wait_status("wan1", "failed")
    lb.wait_status("wan1", "failed", family=6)
    links[0].responder.silent = False
    lb.wait_status("wan1", "active")
    lb.wait_status("wan1", "active", family=6)
    links[1].cut()
    lb.wait_status("wan2", "failed")
    lb.wait_cycles(2)
    logged = logged_changes(lab, mark)
    trace = end_recording(recorder)

    assert by_interface(logged) == {"wan1": ["FAILED", "ACTIVE"], "wan1/6": ["FAILED", "ACTIVE"],
                                    "wan2": ["ACTIVE", "FAILED"]}
    shown = re.findall(r"^# ([0-9.]+) (\S+) is (ACTIVE|FAILED)$", trace, re.M)
    first = {"wan1": "ACTIVE", "wan1/6": "ACTIVE", "wan2": "FAILED"}
    expected = {label: [first[label], *states] for label, states in by_interface(logged).items()}
    assert by_interface(shown) == expected, trace
    changes, text = simulated(lab, trace)
    # A simulation starts with all of them inactive: that wan2 was is no change.
    expected["wan2"] = expected["wan2"][1:]
    assert by_interface(changes) == expected, trace
    for label in expected:
        times = [at for at, other, _ in changes if other == label][-2:]
        for at, (when, _, _) in zip(times, [change for change in logged if change[1] == label], strict=True):
            assert abs(at - (when - began)) < waiting.scaled(3), (label, changes, logged)
    assert f"nexthop wan2 {links[1].gateway}\n" in trace
    assert f"via {links[1].gateway} weight 1;" in text, "the failover rule went over to wan2"


def test_bursts_have_their_figures(lab):
    link = lab.uplink(1)
    config = build([interface("wan1", [ping(kind="ping_ext", count=4, timeout=1000, period=1, loss=50, rtt=5000,
                                            jitter=5000)], success_ct=1, nexthop=link.gateway)],
                   [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})])
    lb = lab.start_lb(config)
    lb.wait_status("wan1", "active")
    recorder, _ = start_recording(lab, lb)
    # Half of the replies: 50 per cent is too much.
    link.responder.echo = lambda request: None if request.sequence % 2 else request.reply()
    lb.wait_status("wan1", "failed")
    link.cut()
    lb.wait_cycles(3)
    trace = end_recording(recorder, signal.SIGTERM)
    assert re.search(rf"^[0-9.]+ burst wan1 {link.gateway} 50 [0-9]+ [0-9]+$", trace, re.M), trace
    assert by_interface(simulated(lab, trace)[0]) == {"wan1": ["ACTIVE", "FAILED"]}


def test_the_daemon_is_started_anew(lab):
    link = lab.uplink(1)
    text = build([interface("wan1", [ping(resp_time=300)], success_ct=3, failure_ct=2, nexthop=link.gateway)],
                 [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})])
    lb = lab.start_lb(text)
    lb.wait_status("wan1", "active")
    recorder, _ = start_recording(lab, lb)
    lb.wait_cycles(2)  # a simulation does not show what begins and ends within one cycle
    lb.stop()
    lb = lab.start_lb(text, out=lb.out)
    lab.log.wait_for("changed state to active", count=2)
    lb.wait_cycles(2)
    trace = end_recording(recorder)
    assert by_interface(simulated(lab, trace)[0]) == {"wan1": ["ACTIVE", "FAILED", "ACTIVE"]}, trace


def test_nothing_to_record(lab):
    ended = tool.ctl(lab, "record", "-o", lab.path("nowhere"))
    assert ended.status == 3 and not ended.stdout
    assert lab.path("nowhere/wlb_dump") in ended.stderr and ended.stderr.count("\n") == 1
