"""The daemon's probes behind the sample firewall, and connections through real switches of the routes.

    203.0.113.1 isp1 192.0.2.1    ---- eth0 \\
                                               router: the samples, bird, lb ---- eth2 lan 192.168.50.2
    203.0.113.2 isp2 198.51.100.1 ---- eth1 /
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule
from lab.two_isps import STOCK, Flow, TwoIsps, carry_out, guide

BY_SOURCE = [block for block in guide("beside-the-kernel.md") if block[0].startswith("2.")][1:]
WIRE = pytest.mark.parametrize("options", [(*STOCK, "replies wire"), STOCK], ids=["wire", "raw"])


@pytest.fixture
def network(lab):
    made = TwoIsps(lab)
    made.settings()
    made.rules()
    # Without them the loose reverse-path filter would have no way back before the first route.
    carry_out(lab, BY_SOURCE)
    return made


def each_kind(isp, ipv6):
    """One of each kind, all of which must succeed."""
    if ipv6:
        return [ping(isp.target6, resp_time=waiting.milliseconds(1000))]
    return [ping(isp.target, resp_time=waiting.milliseconds(1000)),
            ping_ext(isp.gateway, count=2, period=1, rtt=5000, jitter=5000)]


def wait_all(network, status, families=(4, 6)):
    for family in families:
        for isp in network.isps:
            network.lb.wait_status(f"isp{isp.number}", status, family=family, timeout=60)


@WIRE
def test_links_stay_active(lab, network, options):
    """Single echo requests, bursts and IPv6, from a cold start, through a failure and back. Neighbour entries are
    forgotten meanwhile, so that gateways are looked for behind the firewall, too."""
    network.firewall()
    network.start(options, families=(4, 6), tests=each_kind, check_all=True)
    wait_all(network, "active")
    for isp in network.isps:
        lab.ip(f"neigh flush dev {isp.name}")
        lab.ip(f"neigh flush dev {isp.far_name}", netns=isp.far)
    mark = lab.log.mark()
    for family in (4, 6):
        network.lb.wait_cycles(4, family=family)
    assert not lab.log.matching("changed state to", mark)
    first, second = network.isps
    first.cut()
    network.wait_route(second)
    first.restore()
    wait_all(network, "active")
    network.wait_route(first, second)


@pytest.mark.parametrize("line,options,families", [
    ("ct state established,related accept", (*STOCK, "replies wire"), ()),
    ("ct state established,related accept", STOCK, (4, 6)),
    ("nd-neighbor-solicit", (*STOCK, "replies wire"), (6,))], ids=["wire", "raw", "neighbours"])
def test_lines_that_probes_need(lab, network, line, options, families):
    """families: those whose probes all fail without the line. The other's go on."""
    network.firewall(line)
    network.start(options, families=(4, 6))
    for family in (4, 6):
        if family in families:
            network.lb.wait_report(lambda text: text.count("  -Test:") == 2, family=family)
            network.lb.wait_cycles(4, family=family)
            assert set(network.lb.statuses(family).values()) == {"failed"}
        else:
            wait_all(network, "active", [family])
    del lab


@WIRE
def test_cold_start_without_rules_by_source_address(lab, options):
    """The loose reverse-path filter asks for a route back, and there is none before the first link is active."""
    network = TwoIsps(lab)
    network.settings()
    network.rules()
    network.firewall()
    network.start(options)
    if "replies wire" in options:
        wait_all(network, "active", [4])
        return
    network.lb.wait_report(lambda text: text.count("  -Test:") == 2)
    network.lb.wait_cycles(4)
    assert set(network.lb.statuses().values()) == {"failed"}
    carry_out(lab, BY_SOURCE)
    wait_all(network, "active", [4])


def test_answers_that_are_not_tracked(lab, network):
    """The daemon enters its echo requests into the connection tracker; a firewall that has their answers pass by it
    drops them."""
    network.firewall()
    lab.nft("table ip untracked {\nchain receive {\ntype filter hook prerouting priority raw;\n"
            "icmp type echo-reply notrack\n}\n}")
    network.start(STOCK)
    network.lb.wait_report(lambda text: text.count("  -Test:") == 2)
    network.lb.wait_cycles(4)
    assert set(network.lb.statuses().values()) == {"failed"}
    lab.run(["nft", "delete", "table", "ip", "untracked"])
    wait_all(network, "active", [4])


@pytest.mark.usefixtures("tun_devices")
@pytest.mark.parametrize("accepts", [True, False], ids=["with", "without"])
@WIRE
def test_uplink_without_arp(lab, network, options, accepts):
    """The kernel sends its probes: of interest to a policy for what goes out."""
    network.firewall(more="table inet out {\nchain output {\ntype filter hook output priority 0; policy drop;\n"
                          f"{'icmp type echo-request accept' if accepts else ''}\n}}\n}}\n")
    lab.tun_peer("ppp0", "10.64.0.2", "10.64.0.1")
    lb = lab.start_lb(configtext.options(*options) + configtext.build(
        [interface("dsl", [ping("203.0.113.3", resp_time=waiting.milliseconds(900))], origin="ppp0", success_ct=1,
                   nexthop="tunnel")], [rule("1_ipv4", {"dsl": 1}, {"0.0.0.0/0": None})]))
    if accepts:
        lb.wait_status("dsl", "active")
    else:
        lb.wait_report("  -Test:")
        lb.wait_cycles(3)
        assert lb.statuses() == {"dsl": "failed"}


def follows(flow, expected):
    """With the second packet at most. Of the first one, that it is lost is not told from that it is heard late."""
    return flow.send(2) == expected or flow.send() == expected


def test_flows_through_switches(network):
    """Masquerading without marks for what goes out: the daemon's switch moves a flow with the second packet at most,
    by itself; with a fixed address it would stay (see the scenario without a daemon)."""
    network.firewall("oifname $wan1 ct state new", "oifname $wan2 ct state new")
    network.start((*STOCK, "replies wire"), failover=True)
    first, second = network.isps
    network.wait_route(first)
    flow = Flow(network)
    flow.wait(("isp1", first.address))
    assert flow.answered()
    first.cut()
    network.wait_route(second)
    assert follows(flow, ("isp2", second.address))
    assert flow.answered()
    first.restore()
    network.wait_route(first)
    assert follows(flow, ("isp1", first.address))


def test_ingress_hook_comes_before_the_wire(lab, network):
    """The only place of nftables where answers read from the device can be dropped."""
    network.firewall(more='table netdev hold {\nchain receive {\ntype filter hook ingress device "eth0" priority 0;\n'
                          "icmp type echo-reply drop\n}\n}\n")
    network.start((*STOCK, "replies wire"))
    network.lb.wait_status("isp2", "active")
    network.lb.wait_report("  -Test:")
    network.lb.wait_cycles(3)
    assert network.lb.statuses() == {"isp1": "failed", "isp2": "active"}
    lab.run(["nft", "delete", "table", "netdev", "hold"])
    network.lb.wait_status("isp1", "active")
