"""lbctl explain on a router in trouble: what it says of faults that were really made, and what to do next.

    router wan1 10.1.0.2 ---- 10.1.0.1 far1 198.51.100.1
    router wan2 10.2.0.2 ---- 10.2.0.1 far2 198.51.100.2       bird or nobody takes the routes
"""

import os

import pytest

from lab import configtext, waiting
from lab.bird import Bird
from lab.configtext import interface, ping, ping_ext, rule
from lab.tool import ctl, program

FILE = "usr_etc/routing-wlb.conf"
TARGETS = {1: "198.51.100.1", 2: "198.51.100.2"}


@pytest.fixture
def links(lab):
    return {number: lab.uplink(number, far_end="kernel", target=target) for number, target in TARGETS.items()}


def config(links, rules=None, **of_wan1):
    settings = {"success_ct": 1, "nexthop": links[1].gateway, **of_wan1}
    tests = settings.pop("tests", [ping(TARGETS[1], resp_time=900)])
    interfaces = [interface("wan1", tests, **settings),
                  interface("wan2", [ping(TARGETS[2], resp_time=900)], success_ct=1, nexthop=links[2].gateway)]
    return configtext.build(interfaces, rules or [rule("1_ipv4", {"wan1": 1, "wan2": 2}, {"0.0.0.0/0": None})])


def explain(lab, *arguments, conf=True):
    return ctl(lab, "explain", *(("-f", lab.path("lb.conf")) if conf else ()), "-o", lab.path("out"), *arguments)


def wait_said(lab, *sentences, of=(), status=1, conf=True):
    """Waits until all sentences are in the explanation; returns it. Every explanation names a next step."""
    last = [None]

    def said():
        last[0] = explain(lab, *of, conf=conf)
        return last[0].status == status and all(sentence in last[0].stdout for sentence in sentences)

    waiting.wait_until(said, lambda: f"{sentences}\nstatus {last[0].status}\n{last[0].stdout}{last[0].stderr}",
                       interval=0.2)
    assert last[0].stderr == ""
    return last[0].stdout


def test_from_all_well_over_a_cut_and_back(lab, links):
    Bird(lab)
    lab.start_lb(config(links))
    assert wait_said(lab, "All is well", status=0) == "All is well: 2 interfaces active, 1 destination routed.\n"
    links[1].cut()
    text = wait_said(lab, "wan1 is FAILED", "Target 198.51.100.1: the last probe was not answered; 1 failure in a row, "
                     "1 settles it as failed.", "It comes back when its target has been reached once.",
                     "Next step: Try from the router: ping -4 -I wan1 198.51.100.1")
    assert "wan2 is" not in text, text
    wait_said(lab, "0.0.0.0/0 (rule 1_ipv4) leads to wan2.", "wan1 is FAILED for",
              "wan2 carries it by 10.2.0.1, weight 2.", of=["default"], status=0)
    wait_said(lab, "0.0.0.0/0 (rule 1_ipv4) leads to wan2.", of=["203.0.113.5"], status=0)
    links[2].cut()
    wait_said(lab, "0.0.0.0/0 (rule 1_ipv4) has no next hop.", "Next step: lbctl explain wan1")
    links[1].restore()
    links[2].restore()
    wait_said(lab, "All is well", status=0)
    wait_said(lab, "wan1 is ACTIVE for", of=["wan1"], status=0)


def test_dead_gateway_and_dead_device(lab, links):
    lab.start_lb(config(links)).wait_status("wan1", "active")
    lab.ip("addr del 10.1.0.1/24 dev f1", "addr add 10.1.0.9/24 dev f1", netns="far1")
    lab.ip("neigh flush dev wan1")
    wait_said(lab, "ARP requests", "next hop 10.1.0.1",
              "See whether the gateway is on that link: ip -4 neigh show dev wan1", of=["wan1"])
    lab.ip("link set f1 down", netns="far1")
    wait_said(lab, "The device wan1 is up, but has no carrier.", of=["wan1"])
    lab.ip("link set wan1 down")
    wait_said(lab, "The device wan1 is down.", "Next step: Bring it up: ip link set wan1 up", of=["wan1"])
    lab.ip("link del wan1")
    wait_said(lab, "There is no device wan1 in VRF default.", of=["wan1"])


def test_next_hop_that_nobody_names(lab, links):
    lb = lab.start_lb(config(links, nexthop="dhcp", tests=[]))
    wait_said(lab, "it is looked for in the lease file /var/db/dhclient_wan1.leases (No such file or directory)",
              "A test without target waits for the next hop", of=["wan1"])
    lab.write("var_db/dhclient_wan1.leases", "lease {\n}\n")
    wait_said(lab, "(it names no router that is in force)", of=["wan1"])
    # Without the configuration less can be said, and that is said.
    wait_said(lab, "No next hop has been found: it is looked for in a DHCP lease.",
              "The configuration was not looked at", of=["wan1"], conf=False)
    lab.write("etc/wan_lb/lb.conf", lab.read("lb.conf"))
    assert "The configuration was not looked at" not in explain(lab, "wan1", conf=False).stdout
    lab.write("var_db/dhclient_wan1.leases", "  option routers 10.1.0.1;\n")
    lb.wait_status("wan1", "active")
    wait_said(lab, "wan1 is ACTIVE for", of=["wan1"], status=0)


def test_burst_over_its_limits_and_hold_down(lab):
    links = {number: lab.uplink(number) for number in TARGETS}
    lb = lab.start_lb(config(links, hold_down=600, failure_ct=1,
                             tests=[ping_ext(TARGETS[1], period=1, count=2, rtt=20, loss=50)]))
    lb.wait_status("wan1", "active")
    links[1].responder.delay(0.06)
    text = wait_said(lab, "wan1 is FAILED", "the last burst had loss 0 % (limit 50 %), mean round trip", of=["wan1"])
    assert "ms (limit 20 ms, reached)" in text, text
    links[1].responder.delay(0)
    wait_said(lab, "It is healthy again and held down", "(hold-down 600)", "Wait, or lower hold-down", of=["wan1"])
    assert lb.statuses()["wan1"] == "failed"


def test_route_stops_on_its_way(lab, links):
    """In the file, but nobody takes it; refused by bird; then another program's route is preferred."""
    lab.start_lb(config(links, [rule("1_ipv4", {"wan1": 1000, "wan2": 2}, {"0.0.0.0/0": None})]))
    wait_said(lab, "but not in the kernel's table", "The routing daemon does not seem to run: its pid file "
              "/var/run/routing.pid: No such file or directory.", of=["default"])
    stand_in = lab.routing_daemon()
    wait_said(lab, "bird refuses the whole file: /usr/etc/routing-wlb.conf:4:", "lbctl check", of=["default"])
    stand_in.stop()
    wait_said(lab, "which is no more", of=["default"])


def test_route_of_another_program_is_preferred(lab, links):
    Bird(lab)
    lab.start_lb(config(links))
    wait_said(lab, "All is well", status=0)
    lab.ip("route add default via 10.1.0.77 dev wan1 proto dhcp metric 1")
    wait_said(lab, "but another route is preferred: by 10.1.0.77 dev wan1 (metric 1, from a DHCP client).",
              "Take the other route away")


def test_file_cannot_be_written(lab, links):
    os.mkdir(lab.path(FILE))
    lb = lab.start_lb(config(links))
    for link in links.values():
        lb.wait_status(link.name, "active")  # another text would be written anew
    wait_said(lab, "The routing daemon's file /usr/etc/routing-wlb.conf cannot be read: not a regular file.",
              of=["default"])
    os.rmdir(lab.path(FILE))
    wait_said(lab, "cannot be read: No such file or directory.", "look for \"error writing file\" in the log",
              of=["default"])


def test_failover_and_the_rule_of_another_vrf(lab, links):
    Bird(lab)
    lab.add_netns("red")
    lab.start_lb(config(links, [
        rule("1_ipv4", {"wan1": 9, "wan2": 2}, {"0.0.0.0/0": None}, failover=True),
        rule("2_ipv4", {"wan1": 1}, {"10.77.0.0/16": None}, namespace="red")]))
    wait_said(lab, "0.0.0.0/0 (rule 1_ipv4, failover) leads to wan1.",
              "wan2 stands by: wan1 is heavier (weight 9 against 2).", of=["default"], status=0)
    wait_said(lab, "10.77.0.0/16 (rule 2_ipv4 in VRF red) has no next hop.", "VRF red has no IPv4 interface",
              of=["10.77.1.1/32"])


def test_vrf_that_may_not_be_entered(lab):
    """Without root what can be read is still told, and what could not be looked at is named."""
    lab.add_netns("red")
    os.makedirs(lab.path("var_vrfs/red/usr/etc"))
    link = lab.uplink(3, vrf="red", far_end="kernel")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan3", "active")
    link.cut()
    lb.wait_status("wan3", "failed")
    wait_said(lab, "wan3 is FAILED", " in VRF red.", "ip netns exec red ping -4 -I wan3", of=["wan3"])
    bare = lab.run(["setpriv", "--bounding-set", "-sys_admin", "--inh-caps", "-all", program(), "explain", "wan3",
                    "-f", lab.path("lb.conf"), "-o", lab.path("out")], check=False)
    assert "The device wan3 was not looked at: VRF red cannot be entered: Operation not permitted." in bare.stdout


def test_what_cannot_be_answered(lab, links):
    nothing = explain(lab, conf=False)
    assert nothing.status == 3 and "no dump files there" in nothing.stderr
    lb = lab.start_lb(config(links))
    lb.wait_status("wan1", "active")
    unknown = explain(lab, "wan9")
    assert unknown.status == 2 and "'wan9' is neither an interface" in unknown.stderr and unknown.stdout == ""
    lb.stop()
    stale = "The daemon writes them every second: it does not run, or hangs."
    for name in os.listdir(lab.path("out/wlb_dump")):
        os.utime(lab.path(f"out/wlb_dump/{name}"), (1, 1))
    assert stale in explain(lab).stdout
