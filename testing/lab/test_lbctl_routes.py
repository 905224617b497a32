"""lbctl routes beside the running daemon: the same bytes, what a failure changes, and bird's opinion.

    default: wan1 10.1.0.2 / fd00:1::2 ---- far1      a DHCP lease names the IPv4 gateway
             wan2 10.2.0.2 / fd00:2::2 ---- far2
    red:     wan3 10.3.0.2 / fd00:3::2 ---- far3      the namespace's kernel routes name the IPv4 gateway
             wan4 10.4.0.2 / fd00:4::2 ---- far4
"""

import os

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, rule
from lab.tool import ctl

VRFS = {"default": (1, 2), "red": (3, 4)}
BIRD2 = configtext.options("routing-daemon bird2")


def file_of(vrf, family):
    directory = "usr_etc" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc"
    return f"{directory}/routing-wlb{'6' if family == 6 else ''}.conf"


def config(links, head=""):
    interfaces, rules = [], []
    for vrf, numbers in VRFS.items():
        for family in (4, 6):
            ipv6 = family == 6
            for number in numbers:
                link = links[number]
                nexthop = (link.gateway6 if ipv6 else {1: "dhcp", 3: "kernel"}.get(number, link.gateway))
                interfaces.append(interface(link.name, [ping(resp_time=900)], ipv6=ipv6, success_ct=1, namespace=vrf,
                                            nexthop=nexthop))
            names = [links[number].name for number in numbers]
            targets = {"::/0" if ipv6 else "0.0.0.0/0": None, "2001:db8::/32" if ipv6 else "192.0.2.0/24": None}
            rules += [rule(f"{numbers[0]}_ipv{family}", dict(zip(names, (1, 2))), targets, namespace=vrf),
                      rule(f"{numbers[1]}_ipv{family}", dict(zip(names, (9, 5))),
                           {"2001:db8:9::/48" if ipv6 else "198.51.100.0/24": None}, failover=True, namespace=vrf)]
    return head + configtext.build(interfaces, rules)


@pytest.fixture
def links(lab):
    lab.add_netns("red")
    os.makedirs(lab.path("var_vrfs/red/usr/etc"))
    made = {number: lab.uplink(number, vrf=None if vrf == "default" else vrf, ipv6=True)
            for vrf, numbers in VRFS.items() for number in numbers}
    lab.write("var_db/dhclient_wan1.leases", "  option routers 10.1.0.1;\n")
    lab.ip("route add default via 10.3.0.1 dev wan3", netns="red")
    return made


def wait_same(lab, vrf, family, *options):
    """Waits until the daemon's file is what lbctl prints for the state, byte for byte; returns it."""
    printed = ctl(lab, "routes", lab.path("lb.conf"), f"-{family}", "--vrf", vrf, *options)
    assert (printed.status, printed.stderr) == (0, "")
    lab.wait_text(file_of(vrf, family), printed.stdout)
    return printed.stdout


@pytest.mark.parametrize("head", ["", BIRD2], ids=["documented", "bird2"])
def test_bytes_are_the_daemons(lab, links, head):
    lab.start_lb(config(links, head))
    before = {(vrf, family): wait_same(lab, vrf, family) for vrf in VRFS for family in (4, 6)}
    assert all(text.count("protocol static") == 3 for text in before.values()), before
    links[1].cut()
    links[4].cut()
    down = {"default": "wan1", "red": "wan4"}
    for (vrf, family), text in before.items():
        label = down[vrf] + ("/6" if family == 6 else "")
        assert wait_same(lab, vrf, family, "--down", label) != text
    links[2].cut()
    assert wait_same(lab, "default", 4, "--down", "wan1,wan2") == ""


def test_difference_to_what_is_in_force(lab, links):
    lab.start_lb(config(links))
    for vrf in VRFS:
        for family in (4, 6):
            wait_same(lab, vrf, family)
    unchanged = ctl(lab, "routes", lab.path("lb.conf"), "--diff")
    assert (unchanged.status, unchanged.stdout, unchanged.stderr) == (0, "", "")
    ahead = ctl(lab, "routes", lab.path("lb.conf"), "--diff", "-4", "--vrf", "red", "--down", "wan3")
    assert ahead.status == 1
    assert "-route 0.0.0.0/0 via 10.3.0.1 weight 1 via 10.4.0.1 weight 2;\n" \
           "+route 0.0.0.0/0 via 10.4.0.1 weight 2;\n" in ahead.stdout
    # What was foreseen is what comes.
    links[3].cut()
    wait_same(lab, "red", 4, "--down", "wan3")
    assert ctl(lab, "routes", lab.path("lb.conf"), "--diff", "-4", "--vrf", "red", "--down", "wan3").status == 0


def test_bird_is_asked(lab, links):
    def ask(*options):
        return ctl(lab, "routes", lab.path("lb.conf"), "--check-bird", *options)

    lab.write("lb.conf", config(links))
    assert ask().status == 0
    lab.write("lb.conf", config(links, BIRD2))
    assert ask("--vrf", "red").status == 0
    lab.write("lb.conf", configtext.single(links[2], nexthop="10.2.0.1").replace("weight 1", "weight 1000"))
    refused = ask("-4")
    assert refused.status == 1
    assert refused.stdout.count("weight 1000") == 1, "the bytes are printed all the same"
    assert "bird refuses what would be /usr/etc/routing-wlb.conf:\n" in refused.stderr
    assert "lbctl: /usr/etc/routing-wlb.conf:4:" in refused.stderr


def test_a_vrf_that_is_not_there(lab):
    """Its next hops cannot be looked for, and that is said; those that are given are taken."""
    text = configtext.build([interface("gre0", nexthop="tunnel", namespace="gone")],
                            [rule("1_ipv4", {"gre0": 1}, {"10.0.0.0/8": None}, namespace="gone")])
    path = lab.write("lb.conf", text)
    blind = ctl(lab, "routes", path, "-4", "--vrf", "gone")
    assert (blind.status, blind.stdout) == (0, "")
    assert "VRF gone cannot be entered: No such file or directory" in blind.stderr
    given = ctl(lab, "routes", path, "-4", "--vrf", "gone", "--nexthop", "gre0=10.9.0.1")
    assert given.stdout == configtext.route_file("route 10.0.0.0/8 via 10.9.0.1 weight 1;") and given.stderr == ""


def test_each_foretells_every_cut(lab, links):
    lb = lab.start_lb(config(links))
    wait_same(lab, "default", 4)
    table = ctl(lab, "routes", lab.path("lb.conf"), "-4", "--each").stdout
    assert "wan1    1_ipv4  0.0.0.0/0        via 10.2.0.1 weight 2\n" in table, table
    assert "wan2    1_ipv4  0.0.0.0/0        via 10.1.0.1 weight 1\n" in table, table
    links[1].cut()
    waiting.wait_until(lambda: "route 0.0.0.0/0 via 10.2.0.1 weight 2;" in lab.read(file_of("default", 4)))
    assert lb.alive
