"""Replies read from the wire: neither reverse-path filter nor firewall decides about an uplink's health.

    198.51.100.1 (far1) 10.1.0.1 / fd00:1::1 ---- wan1 \\
                                                          router: bird, lb, rp_filter or nft
    198.51.100.2 (far2) 10.2.0.1 / fd00:2::1 ---- wan2 /

Without the option the same set-ups stay FAILED, which each scenario shows as well.
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule
from lab.two_uplinks import TwoUplinks

WIRE = pytest.mark.parametrize("wire", [True, False], ids=["wire", "raw"])
FILTERS = pytest.mark.parametrize("rp_filter", [0, 1, 2])
TARGET = "198.51.100.1"


def options(wire):
    return configtext.options("replies wire") if wire else ""


def set_rp_filter(lab, value, netns=None):
    """For every device that is there and that will come."""
    names = lab.run(["ls", "/proc/sys/net/ipv4/conf"], netns).stdout.split()
    lab.sysctl(*[f"net/ipv4/conf/{name}/rp_filter={value}" for name in names], netns=netns)


def uplink(lab, number=1, **keywords):
    """An uplink with a target behind its far end, a real kernel, to which no route leads."""
    return lab.uplink(number, far_end="kernel", target=TARGET, **keywords)


def started(lab, link, wire, tests=None, **keywords):
    return lab.start_lb(options(wire) + configtext.single(link, tests or [ping(TARGET, resp_time=900)], **keywords))


def expect(lb, active, name="wan1", families=(4,)):
    """The interface becomes active, or stays failed for as many cycles as it would take several times over."""
    for family in families:
        if active:
            lb.wait_status(name, "active", family=family)
        else:
            lb.wait_cycles(5, family=family)
            assert lb.statuses(family)[name] == "failed"


@WIRE
@FILTERS
def test_both_silent_and_back(lab, wire, rp_filter):
    """While no uplink carries the default route, the kernel has no way back to the targets."""
    network = TwoUplinks(lab)
    network.config_text = options(wire) + network.config_text
    network.start()
    network.wait_both(families=(4,))
    set_rp_filter(lab, rp_filter)
    network.cut(1)
    network.cut(2)
    waiting.wait_until(lambda: network.kernel_weights() == {}, "no default route")
    for name in ("wan1", "wan2"):
        network.lb.wait_status(name, "failed")
    waiting.never(lambda: "active" in network.lb.statuses().values(), 10)
    network.restore(1)
    network.restore(2)
    if wire or rp_filter == 0:
        network.wait_both(families=(4,))
    else:
        expect(network.lb, False, "wan1")
        expect(network.lb, False, "wan2")


@WIRE
@FILTERS
def test_cold_start_without_a_default_route(lab, wire, rp_filter):
    set_rp_filter(lab, rp_filter)
    network = TwoUplinks(lab)
    network.config_text = options(wire) + network.config_text
    network.start()
    for name in ("wan1", "wan2"):
        expect(network.lb, wire or rp_filter == 0, name)
    if wire:
        network.wait_both(families=(4, 6))


@pytest.mark.parametrize("wire,rp_filter,recovers", [(True, 1, True), (False, 1, False), (False, 2, True)])
def test_one_silent_and_back(lab, wire, rp_filter, recovers):
    """The default route goes by the other one: only the loose filter lets a raw socket see the replies."""
    network = TwoUplinks(lab)
    network.config_text = options(wire) + network.config_text
    network.start()
    network.wait_both(families=(4,))
    set_rp_filter(lab, rp_filter)
    network.cut(1)
    network.wait_only(2, families=(4,))
    network.restore(1)
    expect(network.lb, recovers)


# Neighbour discovery is let in, as every firewall has to.
RULES = {
    "input": "type filter hook input priority 0; policy drop;\n"
             "icmpv6 type {nd-neighbor-solicit, nd-neighbor-advert} accept",
    "raw": "type filter hook prerouting priority -300;\nicmp type echo-reply drop\nicmpv6 type echo-reply drop",
    "reverse path": "type filter hook prerouting priority -150;\n"
                    "icmpv6 type {nd-neighbor-solicit, nd-neighbor-advert} accept\n"
                    "fib saddr . iif oif missing drop",
    "invalid": "type filter hook prerouting priority -150;\nct state invalid,untracked drop\n}\n"
               "chain untracked {\ntype filter hook prerouting priority -300;\n"
               "icmp type echo-reply notrack\nicmpv6 type echo-reply notrack",
}


@WIRE
@pytest.mark.parametrize("rules", RULES.values(), ids=RULES)
def test_firewall(lab, wire, rules):
    lab.nft(f"table inet strict {{\nchain filter {{\n{rules}\n}}\n}}")
    network = TwoUplinks(lab)
    network.config_text = options(wire) + network.config_text
    network.start()
    for name in ("wan1", "wan2"):
        expect(network.lb, wire, name, families=(4, 6))


@WIRE
@pytest.mark.parametrize("arp", [True, False], ids=["frame", "raw"])
def test_burst(lab, wire, arp):
    link = lab.uplink(1, arp=arp)
    set_rp_filter(lab, 1)
    lb = started(lab, link, wire, [ping_ext(TARGET, count=3, period=1, rtt=5000, jitter=5000)])
    expect(lb, wire)
    if wire:
        assert lb.outbounds()[0]["tests"][0]["measurement"][1] == 0, "no reply is lost"


@WIRE
def test_both_kinds_on_one_interface(lab, wire):
    link = uplink(lab)
    set_rp_filter(lab, 1)
    lb = started(lab, link, wire, [ping(TARGET, resp_time=900),
                                   ping_ext(link.gateway, count=3, period=1, rtt=5000, jitter=5000)], check_all=True)
    expect(lb, wire)


@WIRE
@pytest.mark.usefixtures("tun_devices")
@pytest.mark.parametrize("kind", [ping, ping_ext])
def test_tunnel(lab, wire, kind):
    """A device without link-layer addresses: its packets start with the IP header."""
    peer = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.1")
    set_rp_filter(lab, 1)
    settings = {"resp_time": 900} if kind is ping else {"count": 3, "period": 1, "rtt": 5000, "jitter": 5000}
    lb = lab.start_lb(options(wire) + configtext.build(
        [interface("tun0", [kind(TARGET, **settings)], success_ct=1, nexthop="tunnel")],
        [rule("1_ipv4", {"tun0": 1}, {"0.0.0.0/0": None})]))
    expect(lb, wire, "tun0")
    assert {request.target for request in peer.requests} == {TARGET}


def add_device(lab, link):
    """The device and its far end, as they were, after both were deleted."""
    lab.ip(f"link add {link.name} address {link.mac} type veth peer name {link.far_name} address {link.far_mac}"
           f" netns {link.far}", f"link set {link.name} up", f"addr add {link.address}/24 dev {link.name}")
    lab.ip(f"link set {link.far_name} up", f"addr add {link.gateway}/24 dev {link.far_name}", netns=link.far)
    set_rp_filter(lab, 1)


@WIRE
@pytest.mark.parametrize("kind", [ping, ping_ext])
def test_device_is_made_anew(lab, wire, kind):
    """Another device to the kernel, of another index. Not there at the start, then deleted and made again."""
    link = uplink(lab)
    lab.ip(f"link del {link.name}")
    settings = {"resp_time": 900} if kind is ping else {"count": 3, "period": 1, "rtt": 5000, "jitter": 5000}
    lb = started(lab, link, wire, [kind(TARGET, **settings)])
    lb.wait_cycles(2)
    for _ in range(2):
        add_device(lab, link)
        expect(lb, wire)
        lab.ip(f"link del {link.name}")
        lb.wait_status("wan1", "failed")
    assert not lab.log.matching("recv for ipv4 failed")


def test_device_goes_down_and_comes_up(lab):
    link = uplink(lab)
    set_rp_filter(lab, 1)
    lb = started(lab, link, True)
    for _ in range(2):
        lb.wait_status("wan1", "active")
        lab.ip("link set wan1 down")
        lb.wait_status("wan1", "failed")
        lab.ip("link set wan1 up")
    lb.wait_status("wan1", "active")
    assert not lab.log.matching("recv for ipv4 failed")


@WIRE
def test_namespace_of_its_own(lab, wire):
    lab.add_netns("blue")
    link = uplink(lab, vrf="blue")
    set_rp_filter(lab, 1, netns="blue")
    expect(started(lab, link, wire), wire)


# A packet that answers a probe by its key is no answer on the wire unless it is whole and from the target.
WRONG = {
    "another source": lambda request: request.reply(source="10.1.0.77"),
    "a wrong checksum": lambda request: request.reply(checksum=0x1234),
    "key cut off": lambda request: request.reply(truncate=11),
    "an echo request": lambda request: request.reply(type=8),
}


@pytest.mark.parametrize("answer", WRONG.values(), ids=WRONG)
@pytest.mark.parametrize("arp", [True, False], ids=["frame", "raw"])
def test_wrong_replies_change_nothing(lab, answer, arp):
    link = lab.uplink(1, arp=arp)
    link.responder.echo = answer
    lb = started(lab, link, True, [ping(link.gateway, resp_time=50)])
    link.responder.wait_requests(4)
    assert lb.statuses() == {"wan1": "failed"} and not lab.log.matching("changed state to active")
    link.responder.echo = lambda request: request.reply()
    lb.wait_status("wan1", "active")


def test_reply_by_another_interface_changes_nothing(lab):
    """What comes by wan2 says nothing of wan1, whoever sends it."""
    first, second = lab.uplink(1), lab.uplink(2)
    first.responder.echo = None
    lb = lab.start_lb(options(True) + configtext.build(
        [interface(link.name, [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway)
         for link in (first, second)],
        [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None})]))

    def answer_both(request):
        """The own reply, and those to all that wan1 has been asked so far."""
        return [(0.0, request.reply())] + [(0.0, asked.reply()) for asked in first.responder.requests[-3:]]

    second.responder.echo = answer_both
    lb.wait_status("wan2", "active")
    first.responder.wait_requests(4)
    assert lb.statuses()["wan1"] == "failed" and not lab.log.matching("wan1.*changed state to active")
    first.responder.echo = lambda request: request.reply()
    lb.wait_status("wan1", "active")
