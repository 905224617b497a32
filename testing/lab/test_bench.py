"""scripts/bench: what it makes of what it reads, what it refuses to tell, and one tiny run."""

import json
import os
import re
import socket
import struct
import sys
import time

import pytest

from lab import logsink, many_links

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "bench"))

# pylint: disable=wrong-import-position
from whole_run import bed, dead_gateway, distribution, far_end, goals, options, plot, record, route_events  # noqa: E402
from whole_run import row, run, switching, table, usage, windows  # noqa: E402
from whole_run.case import Case, cases  # noqa: E402


def window(probes=128, cpu_us=50.0, switches=2, cycles=(1.01, 1.03), seconds=2.0, **held):
    holdings = usage.Holdings(**{"resident_kib": 7000, "threads": 69, "descriptors": 200, **held})
    return windows.Window(seconds, probes, probes * cpu_us / 1e6, probes * switches, 0, 0, list(cycles), holdings)


def one_round(lb=None, even=None, burst=None):
    return windows.Round(lb or window(), even or window(cpu_us=100, cycles=()), burst or window(cpu_us=40, cycles=()))


# Order statistics


def test_percentiles_are_nearest_ranks():
    hundred = list(range(100, 0, -1))
    assert [distribution.percentile(hundred, percent) for percent in (1, 50, 99, 100)] == [1, 50, 99, 100]
    assert distribution.percentile([7], 99) == 7
    assert distribution.summary([3, 1, 2]) == {"count": 3, "p50": 2, "p99": 3, "max": 3}
    assert distribution.cumulative([3, 1]) == [(1, 0.5), (3, 1.0)]


# Ratios, and when there are none


def test_row_of_equal_rounds():
    made = row.row(Case(64), [one_round(), one_round(window(cpu_us=70)), one_round(window(cpu_us=60, cycles=[1.2]))])
    assert (made.refusal, round(made.lb_us, 6), round(made.ratio_even, 6), round(made.ratio_burst, 6)) == (
        "", 60, 0.6, 1.5)
    assert (made.switches, made.cycle, made.cycle_max, made.probes) == (2, 1.03, 1.2, 384)
    assert row.row(Case(32), [one_round(window(seconds=6))]).probe_every == 1.5


@pytest.mark.parametrize("side", ["even", "burst"])
@pytest.mark.parametrize("probes, refused", [(128, False), (120, False), (136, False), (119, True), (137, True),
                                             (64, True), (0, True)])
def test_no_ratio_of_unequal_numbers_of_probes(side, probes, refused):
    made = row.row(Case(64), [one_round(), one_round(**{side: window(probes=probes)})])
    assert bool(made.refusal) == refused
    assert (made.ratio_even is None) == (made.ratio_burst is None) == refused
    text = table.table([made])
    assert ("refused" in text) == ("no ratio, round 2" in text) == refused
    assert any(goal.measured == "refused" and not goal.met for goal in goals.of_rows([made])) == refused


def test_nothing_sent_is_no_ratio_either():
    made = row.row(Case(1), [one_round(window(probes=0), window(probes=0), window(probes=0))])
    assert made.refusal and made.ratio_even is None and "nan" not in table.table([made])


def test_memory_per_interface_is_beyond_one():
    rows = [row.row(Case(number, path=path), [one_round(window(resident_kib=kib))])
            for number, path, kib in ((1, "frame", 6000), (64, "frame", 6630), (64, "raw", 9000))]
    row.tell_memory_per_interface(rows)
    assert [one.kib_per_interface for one in rows] == [None, 10, None]


# What the kernel says


STATUS = ("Name:\tlb\nVmHWM:\t   99 kB\nVmRSS:\t   11136 kB\nThreads:\t69\nvoluntary_ctxt_switches:\t12\n"
          "nonvoluntary_ctxt_switches:\t7\n")


def test_proc_texts():
    assert usage.switches(STATUS) == (12, 7) and usage.memory_kib(STATUS) == 11136
    # A name may hold blanks and brackets.
    stat = "70001 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16"
    assert usage.children_ticks(stat) == 13 + 14


def test_threads_come_and_go():
    before = usage.Look(1_000_000_000, 1.0, {1: (10, 1), 2: (20, 2), 3: (5, 5)})
    after = usage.Look(1_250_000_000, 1.5, {1: (13, 1), 3: (5, 6), 4: (2, 1)})
    assert usage.used(before, after) == usage.Used(0.75, 5, 2, 1)


def test_own_processor_time():
    started, own = usage.cpu_nanoseconds(os.getpid()), time.process_time_ns()
    while time.process_time_ns() - own < 20_000_000:
        os.urandom(1 << 16)  # the kernel's work counts
    assert 15e6 < usage.cpu_nanoseconds(os.getpid()) - started < 40e6
    assert usage.holdings(os.getpid()).threads >= 1


def test_far_end_texts_and_frames():
    snmp = "Ip: Forwarding\nIp: 1\nIcmp: InMsgs InErrors InEchos\nIcmp: 9 0 7\nIcmpMsg: InType8\nIcmpMsg: 7\n"
    assert far_end.received_echo_requests(snmp, 4) == 7
    assert far_end.received_echo_requests("Ip6InReceives  \t12\nIcmp6InEchos  \t5\n", 6) == 5
    ipv4 = bytes(12) + b"\x08\x00" + b"\x45" + bytes(8) + b"\x01" + bytes(10)
    ipv6 = bytes(12) + b"\x86\xdd" + b"\x60" + bytes(5) + b"\x3a" + bytes(33)
    assert far_end.is_echo_request(ipv4 + b"\x08", 4) and not far_end.is_echo_request(ipv4 + b"\x00", 4)
    assert far_end.is_echo_request(ipv6 + b"\x80", 6) and not far_end.is_echo_request(ipv6 + b"\x81", 6)
    assert not far_end.is_echo_request(ipv4 + b"\x08", 6)
    assert not far_end.is_echo_request(bytes(12) + b"\x08\x06" + ipv4[14:] + b"\x08", 4)


def route_message(kind, destination, gateway):
    def attribute(name, value):
        return struct.pack("=HH", 4 + len(value), name) + value

    body = struct.pack("=BBBBBBBBI", socket.AF_INET, 24, 0, 0, 254, 12, 0, 1, 0)  # rtmsg
    body += attribute(1, socket.inet_aton(destination)) + (attribute(5, socket.inet_aton(gateway)) if gateway else b"")
    return struct.pack("=IHHII", 16 + len(body), kind, 0, 0, 0) + body


def test_route_notifications():
    new = route_message(24, "198.18.1.0", "10.21.0.1")
    assert route_events.new_routes(new + route_message(25, "198.18.2.0", "10.2.0.1") + new) == [
        ("198.18.1.0", "10.21.0.1")] * 2
    assert not route_events.new_routes(route_message(24, "198.18.1.0", None))
    for length in range(len(new)):
        assert not route_events.new_routes(new[:length])


# Cases, goals, output


def test_cases_and_addresses():
    assert [str(case) for case in cases([16, 1], [4, 6], ["raw"])] == [
        "1 interfaces, IPv4, raw path", "16 interfaces, IPv4, raw path",
        "1 interfaces, IPv6, raw path", "16 interfaces, IPv6, raw path"]
    strands = [many_links.Strand(number, ipv6=True) for number in range(1, 1001)]
    for name in ("name", "address", "gateway4", "gateway6", "mac", "far_mac"):
        assert len({getattr(strand, name) for strand in strands}) == 1000
    # A /24 of its own for each.
    assert len({strand.address.rsplit(".", 1)[0] for strand in strands}) == 1000
    assert bed.link_local("02:00:00:03:e8:02") == "fe80::ff:fe03:e802"
    assert bed.link_local("02:00:00:00:01:02") == "fe80::ff:fe00:102"


def test_goals_are_met_up_to_their_bound():
    def held(case, **values):
        made = row.row(case, [one_round(window(**values))])
        return {goal.name.split(": ")[1]: goal.met for goal in goals.of_rows([made])}

    good = held(Case(64), cpu_us=60, cycles=[1.05], switches=4, threads=69, descriptors=204)
    assert good and all(good.values())
    assert held(Case(64), cpu_us=61)["cost to fping's in bursts"] is False
    assert held(Case(64, path="raw"), cpu_us=41)["cost to fping's in bursts"] is False
    assert held(Case(64), cycles=[1.051])["cycle"] is False
    assert held(Case(64), switches=4.1)["context switches"] is False
    assert held(Case(256), probes=128, resident_kib=12288)["resident"] is True
    assert held(Case(256), probes=128, resident_kib=12289)["resident"] is False
    assert held(Case(64), threads=70)["threads"] is False
    few, many = [row.row(Case(number), [one_round(window(cpu_us=cost))]) for number, cost in ((16, 10), (256, 15.1))]
    assert {goal.name: goal.met for goal in goals.of_rows([few, many])}[f"{many.case}: cost to that of 16"] is False


def test_goals_of_times():
    times = switching.Switching(4, 0.9, detection=[2.0, 2.9], bounds=[2.9, 2.9], switch=[0.1, 0.15], back=[0.1, 0.151])
    assert [goal.met for goal in goals.of_switching(times)] == [True, False, True]
    times.detection.append(2.91)
    times.bounds.append(2.9)
    assert [goal.met for goal in goals.of_switching(times)] == [True, False, False]
    for added, met in ((0.101, True), (0.13, False)):
        dead = dead_gateway.DeadGateway(64, 4, 1.0, 1.0 + added)
        assert [goal.met for goal in goals.of_dead_gateway(dead)] == [met]
    assert "| IPv4: silence to FAILED            |    3 | 2900.0 |" in table.switching_table([times])


def test_bound_of_a_cut_is_by_the_cycles_of_its_time():
    cut = switching.Cut("wan01", silent=10.5, failed=12.4)
    assert switching.bound(cut, [8.0, 10.0, 11.1, 12.3, 13.4, 20.0], 0.9) == pytest.approx(0.9 + 2 * 1.2)


class InstantRouter:
    """In place of links, log and route notifications: a daemon that settles, and a kernel that follows 10 ms later."""

    def __init__(self, strands, standby):
        self.records, self.seen, self.standby = [], [], standby
        for strand in strands:
            self.change(strand, "active", strand.gateway)

    def change(self, strand, state, gateway):
        now = time.monotonic()
        text = f"IP interface {strand.name} changed state to {state}"
        self.records.append(logsink.Record(now, f"<6>Nov 22 20:00:00 wan_lb[1]: %WAN-I-INSTANCE: {text}"))
        self.seen.append((now + 0.010, switching.destination(strand), gateway))

    def silence(self, strand):
        # Of no concern: other destinations and gateways, another family's interface of that name.
        self.seen += [(0.0, "192.0.2.0", self.standby.gateway), (0.0, switching.destination(strand), "10.99.0.1")]
        self.records.append(logsink.Record(0.0, f"<6>x: IPv6 interface {strand.name} changed state to inactive"))
        self.change(strand, "inactive", self.standby.gateway)

    def restore(self, strand):
        self.change(strand, "active", strand.gateway)


def test_cuts_are_timed_one_by_one():
    strands = [many_links.Strand(number) for number in range(1, 5)]
    standby = strands.pop()
    router = InstantRouter(strands, standby)
    cutter = switching.Cutter(router, strands, standby, router, router, seed=1)
    cutter.run(5)
    assert len(cutter.done) == 5 and {cut.link for cut in cutter.done} <= {"wan01", "wan02", "wan03"}
    for cut in cutter.done:
        assert 0 <= cut.failed - cut.silent < 1 and cut.switched - cut.failed == pytest.approx(0.010)
        assert cut.restored >= cut.failed and cut.returned - cut.active == pytest.approx(0.010)


def test_json_is_whole(tmp_path):
    results = run.Results([row.row(Case(64), [one_round(window(probes=0))])],
                          [dead_gateway.DeadGateway(64, 4, 1.0, 1.1)],
                          [switching.Switching(4, 0.9, [2.0], [2.9], [0.1], [0.1])])
    path = tmp_path / "bench.json"
    record.write(path, record.record(results, list(goals.of_rows(results.rows))))

    def refuse(constant):
        raise ValueError(constant)

    with open(path, encoding="utf-8") as file:
        read = json.load(file, parse_constant=refuse)
    assert read["rows"][0]["case"] == {"interfaces": 64, "family": 4, "path": "frame", "vrfs": 1}
    assert read["rows"][0]["lb_us"] is None and read["rows"][0]["refusal"]
    assert read["rows"][0]["rounds"][0]["even"]["probes"] == 128
    assert read["switching"][0]["detection"] == [2.0] and read["goals"][0]["met"] is False


def test_plot_draws_every_curve():
    rows = [row.row(Case(number, 6, path), [one_round()]) for number in (1, 64) for path in ("frame", "raw")]
    text = plot.script(rows, [switching.Switching(4, 0.9, [2.0], [2.9], [0.1], [0.1])])
    assert all(title in text for title in ("'lb IPv6 frame'", "'fping IPv6 frame'", "'lb IPv6 raw'", "'fping IPv6 raw'",
                                           "'IPv4 silence to FAILED'",
                                           "'IPv4 FAILED to route'", "'IPv4 ACTIVE to route'"))
    assert "\n1 50\n64 50\nEOD" in text and "\n2000 1\nEOD" in text and "IPv4 frame" not in text
    assert plot.script([], []) == ""


@pytest.mark.parametrize("arguments", [["--interfaces", "0"], ["--interfaces", "1,x"], ["--interfaces", ""],
                                       ["--family", "5"], ["--path", "other"], ["--rounds", "0"], ["--seconds", "nan"],
                                       ["--cuts", "-1"], ["--part", "none"], ["--json", "/nowhere/at/all"], ["more"]])
def test_bad_arguments(arguments, capsys):
    with pytest.raises(SystemExit) as end:
        options.parse(arguments)
    assert end.value.code == 2 and "usage: scripts/bench" in capsys.readouterr().err


def test_quick_is_little():
    quick, whole = options.parse(["--quick"]), options.parse([])
    assert (quick.interfaces, quick.family, quick.path, quick.part) == ([64], [4], ["frame", "raw"], ["costs"])
    assert (whole.interfaces, whole.family, whole.cuts) == ([1, 16, 64, 256, 1000], [4, 6], 100)
    assert options.parse(["--quick", "--interfaces", "2,1"]).interfaces == [1, 2]


# A run


def test_two_interfaces(capsys):
    with bed.Bed(Case(2)) as made:
        rounds = windows.rounds(made, 1, 3.0, print)
        assert not made.lab.finish()
    result = row.row(Case(2), rounds)
    print(table.table([result]))
    assert not result.refusal and result.probes >= 2 and rounds[0].even.probes >= 2
    assert 5 < result.lb_us < 50_000 and 5 < result.even_us < 50_000
    assert 0 < result.ratio_even < 500 and 0 < result.switches < 500
    assert 0.95 <= result.cycle < 5 and result.resident_kib > 1000 and result.threads >= 5 and result.descriptors >= 10
    text = capsys.readouterr().out
    assert re.search(r"\| +2 \| +IPv4 \| +frame \|", text) and "round 1 of 1" in text
    assert not os.path.exists(made.lab.enclosure.top)
