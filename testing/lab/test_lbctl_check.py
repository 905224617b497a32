"""lbctl check on a router: what it asks of the machine, what it prints, and that what it finds clean works.

    198.51.100.1 far1 10.1.0.1 ---- wan1 \\
                                           router: lbctl, lb
    198.51.100.2 far2 10.2.0.1 ---- wan2 /
"""

import json
import os

from lab import configtext, pages
from lab.configtext import interface, ping, rule
from lab.tool import ctl, document
from lab.two_uplinks import TwoUplinks


def codes(lab, text, *options, netns=None):
    """{code: line} of the findings."""
    path = lab.write("checked.conf", text)
    found = json.loads(ctl(lab, "check", "--json", *options, path, netns=netns).stdout)["findings"]
    return {finding["code"]: finding["line"] for finding in found}


def text_with(options=(), name="wan1", target="198.51.100.1", ipv6=False, metric=None, **keywords):
    keywords = {"nexthop": "fe80::1" if ipv6 else "10.1.0.1", **keywords}
    version = 6 if ipv6 else 4
    return configtext.options("routing-daemon bird2", *options) + configtext.build(
        [interface(name, [ping(target)], ipv6=ipv6, **keywords)],
        [rule(f"1_ipv{version}", {name: 1}, {"::/0" if ipv6 else "0.0.0.0/0": metric},
              namespace=keywords.get("namespace"))])


def test_devices_and_vrfs_of_the_machine(lab):
    TwoUplinks(lab)
    lab.add_netns("blue")
    lab.ip("link add blue1 type veth peer name blue2", netns="blue")
    assert codes(lab, text_with()) == {}
    assert codes(lab, text_with(name="wan7")) == {"no-such-device": 5}
    assert codes(lab, text_with(origin="wan7")) == {"no-such-device": 7}
    assert codes(lab, text_with(name="blue1", namespace="blue")) == {}
    assert codes(lab, text_with(name="wan1", namespace="blue")) == {"no-such-device": 5}
    assert codes(lab, text_with(namespace="red")) == {"no-such-vrf": 7}
    assert codes(lab, text_with(namespace="red"), "--offline") == {}


def test_ipv6_needs_link_layer_addresses(lab):
    TwoUplinks(lab)
    assert codes(lab, text_with(ipv6=True, target="2001:db8::7")) == {}
    lab.ip("link set wan1 arp off")
    assert codes(lab, text_with(ipv6=True, target="2001:db8::7")) == {"raw-ipv6": 5}
    assert codes(lab, text_with()) == {}


def test_reverse_path_filter(lab):
    TwoUplinks(lab)
    lab.ip("route add default via 10.2.0.1 dev wan2 metric 1024")
    lab.sysctl("net.ipv4.conf.all.rp_filter=0", "net.ipv4.conf.wan1.rp_filter=0")
    assert codes(lab, text_with()) == {}
    lab.sysctl("net.ipv4.conf.wan1.rp_filter=1")
    assert codes(lab, text_with()) == {"rp-filter": 9}
    assert codes(lab, text_with(options=["replies wire"])) == {}
    # The way back leads by it.
    assert codes(lab, text_with(target="10.1.0.1")) == {}
    lab.ip("rule add from 10.1.0.2 table 101", "route add default via 10.1.0.1 dev wan1 table 101")
    assert codes(lab, text_with()) == {}
    lab.ip("rule del from 10.1.0.2 table 101")
    assert codes(lab, text_with()) == {"rp-filter": 9}
    # Any way at all is enough for the loose filter.
    lab.sysctl("net.ipv4.conf.wan1.rp_filter=2")
    assert codes(lab, text_with()) == {}
    lab.ip("route del default via 10.2.0.1 dev wan2 metric 1024")
    assert codes(lab, text_with()) == {"rp-filter": 9}


def test_reverse_path_filter_takes_any_next_hop(lab):
    """The routing daemon's own route by both uplinks; the kernel would choose one of them by the addresses."""
    TwoUplinks(lab)
    lab.ip("addr add 10.1.0.77/32 dev wan1",
           "route add default metric 1024 nexthop via 10.1.0.1 dev wan1 nexthop via 10.2.0.1 dev wan2")
    lab.sysctl("net.ipv4.conf.wan1.rp_filter=1")
    for last in range(1, 9):
        assert codes(lab, text_with(target=f"198.51.100.{last}", source_address="10.1.0.77")) == {}


def test_default_route_of_another_program(lab):
    TwoUplinks(lab)
    lab.ip("route add default via 10.2.0.1 dev wan2 metric 1024")
    assert codes(lab, text_with()) == {}
    assert list(codes(lab, text_with(metric=2000))) == ["shadowed-default"]
    lab.ip("route add default via 10.2.0.1 dev wan2")
    assert list(codes(lab, text_with())) == ["shadowed-default"]
    assert list(codes(lab, text_with(), "--offline")) == []


def test_document_and_exit_statuses(lab):
    good = lab.write("good.conf", text_with())
    warned = lab.write("warned.conf", text_with(source_address="auto", target="www.example.net"))
    bad = lab.write("bad\033.conf", text_with().replace("weight", "wieght"))
    assert document(lab, "check", "check", "--offline", "--json", good)["findings"] == []
    found = document(lab, "check", "check", "--offline", "--json", good, warned, bad)["findings"]
    assert [finding["file"] for finding in found] == [warned, bad]
    assert [finding["code"] for finding in found] == ["host-name", "unknown-keyword"]
    for arguments, status in (((good,), 0), ((good, warned), 1), ((warned, "--strict"), 2), ((bad, warned), 2),
                              ((bad, "/nowhere"), 3), ((os.path.dirname(good), good), 3), ((), 2), ((good, "-x"), 2)):
        assert ctl(lab, "check", "--offline", *arguments).status == status, arguments
    printed = ctl(lab, "check", "--offline", bad).stdout
    assert "\033" not in printed and "did you mean 'weight'?" in printed
    missing = ctl(lab, "check", "/nowhere", bad)
    assert missing.stderr.startswith("lbctl: /nowhere: ") and "unknown-keyword" in missing.stdout


def test_the_readmes_example_is_clean(lab):
    path = lab.write("lb.conf", pages.text_of("packaging/examples/two-uplinks.conf"))
    checked = ctl(lab, "check", "--offline", path)
    assert (checked.status, checked.stdout, checked.stderr) == (0, "", "")


def test_help_shows_an_example(lab):
    text = ctl(lab, "check", "--help").stdout
    assert "lbctl check /etc/wan_lb/lb.conf" in text and "--offline" in text
