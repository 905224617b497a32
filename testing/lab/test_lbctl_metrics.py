"""lbctl metrics: held against promtool, and a counter that is kept over failures and restarts.

    router wan1 10.1.0.2 / fd00:1::2 -------- far1: responder
"""

import os
import re

from lab.configtext import build, interface, ping, ping_ext, rule
from lab.tool import ctl, program

FILE = "metrics/wan_lb.prom"


def samples(text):
    """{(name, labels as a frozenset of pairs): value}"""
    found = {}
    for line in text.splitlines():
        if line.startswith("#"):
            continue
        name, labels, value = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line).groups()
        found[name, frozenset(re.findall(r'(\w+)="([^"]*)"', labels or ""))] = float(value)
    return found


def value_of(found, name, **labels):
    return found[name, frozenset(labels.items())]


def wan1(family="ipv4", **more):
    return {"interface": "wan1", "family": family, "vrf": "default", **more}


def start(lab, link):
    text = build(
        [interface(link.name, [ping(link.gateway, resp_time=900),
                               ping_ext(link.address, period=2, count=2, timeout=1000, loss=20, rtt=200, jitter=50)],
                   success_ct=1, nexthop=link.gateway),
         interface(link.name, [ping(link.gateway6, resp_time=900)], ipv6=True, success_ct=1, nexthop=link.gateway6)],
        [rule("1_ipv4", {link.name: 1}, {"0.0.0.0/0": None}, failover=True),
         rule("1_ipv6", {link.name: 1}, {"::/0": None})])
    lb = lab.start_lb(text)
    for family in (4, 6):
        lb.wait_status(link.name, "active", family=family)
        lb.wait_cycles(1, family=family)
    return lb


def write(lab, lb):
    """What the file says after a call, which has to replace it at once."""
    done = ctl(lab, "metrics", "-o", lb.out, "--output", lab.path(FILE))
    assert (done.status, done.stdout, done.stderr) == (0, "", ""), done.stderr
    assert os.listdir(lab.path("metrics")) == ["wan_lb.prom"]
    text = lab.read(FILE)
    checked = lab.run(["promtool", "check", "metrics"], stdin_text=text, check=False)
    assert (checked.status, checked.stdout, checked.stderr) == (0, "", ""), checked.stdout + checked.stderr + text
    return samples(text)


def changes(found, family="ipv4"):
    return value_of(found, "wan_lb_interface_state_changes_total", **wan1(family))


def test_values_and_the_counter(lab):
    os.mkdir(lab.path("metrics"))
    link = lab.uplink(1, ipv6=True)
    lb = start(lab, link)
    found = write(lab, lb)
    assert value_of(found, "wan_lb_interface_active", **wan1()) == 1
    assert value_of(found, "wan_lb_interface_active", **wan1("ipv6")) == 1
    assert changes(found) == changes(found, "ipv6") == 0
    assert value_of(found, "wan_lb_test_success", **wan1(target=link.gateway)) == 1
    assert value_of(found, "wan_lb_route_nexthop_info", family="ipv4", vrf="default", destination="0.0.0.0/0",
                    nexthop=link.gateway) == 1
    written = os.stat(os.path.join(lb.out, "wlb_dump/wlb_ipv4_outbounds.bin")).st_mtime
    assert abs(value_of(found, "wan_lb_last_write_timestamp_seconds") - written) < 10
    since = value_of(found, "wan_lb_interface_last_change_timestamp_seconds", **wan1())
    assert 0 <= written - since < 60

    # One moment stays one, over many calls.
    for _ in range(20):
        found = write(lab, lb)
        assert changes(found) == 0
        assert value_of(found, "wan_lb_interface_last_change_timestamp_seconds", **wan1()) == since

    link.cut()
    for family in (4, 6):
        lb.wait_status("wan1", "failed", family=family)
        lb.wait_cycles(1, family=family)
    found = write(lab, lb)
    assert changes(found) == changes(found, "ipv6") == 1
    assert value_of(found, "wan_lb_interface_active", **wan1()) == 0
    assert value_of(found, "wan_lb_test_success", **wan1(target=link.gateway)) == 0
    assert not any(name == "wan_lb_route_nexthop_info" for name, _ in found)
    # It comes back and fails again, and nobody looks meanwhile.
    link.restore()
    lb.wait_status("wan1", "active", family=6)
    link.cut()
    lb.wait_status("wan1", "failed", family=6)
    lb.wait_cycles(1, family=6)
    assert changes(write(lab, lb), "ipv6") == 3


def test_bursts(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(build(
        [interface(link.name, [ping_ext(link.gateway, period=2, count=2, timeout=1000, loss=20, rtt=200, jitter=50)],
                   success_ct=1, nexthop=link.gateway)], [rule("1_ipv4", {link.name: 1}, {"0.0.0.0/0": None})]))
    lb.wait_status(link.name, "active")
    lb.wait_cycles(1)
    found = samples(ctl(lab, "metrics", "-o", lb.out).stdout)
    labels = wan1(target=link.gateway)
    assert value_of(found, "wan_lb_test_loss_ratio", **labels) == 0
    assert 0 <= value_of(found, "wan_lb_test_rtt_seconds", **labels) < 0.2
    assert 0 <= value_of(found, "wan_lb_test_jitter_seconds", **labels) < 0.05
    # Of two requests one stays without an answer, for which the whole wait counts.
    link.responder.drop(1, of=2)
    lb.wait_status(link.name, "failed")
    lb.wait_cycles(1)
    found = samples(ctl(lab, "metrics", "-o", lb.out).stdout)
    assert value_of(found, "wan_lb_test_success", **labels) == 0
    assert value_of(found, "wan_lb_test_loss_ratio", **labels) == 0.5
    assert 0.5 <= value_of(found, "wan_lb_test_rtt_seconds", **labels) < 0.6
    assert 0.4 < value_of(found, "wan_lb_test_jitter_seconds", **labels) <= 0.5


def test_a_reader_never_finds_half_a_file(lab):
    """The file is looked at all the time while it is written anew."""
    os.mkdir(lab.path("metrics"))
    link = lab.uplink(1, ipv6=True)
    lb = start(lab, link)
    write(lab, lb)
    inodes = set()
    loop = lab.enclosure.spawn(["sh", "-c", 'for i in $(seq 50); do "$@" || exit 1; done', "sh",
                                program(), "metrics", "-o", lb.out, "--output", lab.path(FILE)])
    while loop.status is None:
        inodes.add(os.stat(lab.path(FILE)).st_ino)
        text = lab.read(FILE)
        assert text.startswith("# HELP ") and "\nwan_lb_last_write_timestamp_seconds " in text
        assert text.endswith("\n")
    assert loop.status == 0, loop.stderr
    assert len(inodes) > 1, "renamed over"
