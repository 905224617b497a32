"""The README's examples as they stand.

    198.51.100.7 2001:db8::7 far1 192.0.2.1   fe80::1 ---- eth0 (wan1) \\
                                                                         router: bird, lb
    198.51.100.8 2001:db8::8 far2 203.0.113.1 fe80::1 ---- eth1 (wan2) /
"""

import os
import re
import textwrap

import pytest

from lab import waiting
from lab.bird import README_CONFIG, Bird

README = os.path.join(os.path.dirname(os.path.abspath(__file__)), *[os.pardir] * 2, "README.md")


def blocks():
    """The README's indented blocks, in order, without their indent."""
    with open(README, encoding="utf-8") as file:
        text = file.read()
    return [textwrap.dedent(found) for found in re.findall(r"(?:^    .*\n(?:\n(?=    ))?)+", text, re.MULTILINE)]


def block_with(word):
    found = [block for block in blocks() if word in block]
    assert len(found) == 1, f"{len(found)} blocks with {word}"
    return found[0]


def far_end(lab, number, device, near, gateway, near6, targets):
    """A provider: a gateway with fe80::1, and targets behind it."""
    far = lab.add_netns(f"far{number}")
    lab.ip(f"link add {device} type veth peer name f{number} netns {far}")
    lab.ip(f"link set {device} up", f"addr add {near}/24 dev {device}", f"addr add {near6}/64 dev {device} nodad")
    lab.ip(f"link set f{number} up", f"addr add {gateway}/24 dev f{number}", f"addr add fe80::1/64 dev f{number} nodad",
           f"addr add {near6.replace('::10', '::1')}/64 dev f{number} nodad",
           *[f"addr add {target} dev lo" for target in targets], netns=far)
    return far


def default_routes(lab, family):
    """{(next hop, device)} of the kernel's default route that the routing daemon has put there."""
    text = lab.ip_text(f"-{family} route show default proto bird")
    return set(re.findall(r"via (\S+)\s+dev (\S+)", text))


def wait_routes(lab, family, expected):
    waiting.wait_until(lambda: default_routes(lab, family) == expected,
                       lambda: f"{expected}, but it is {lab.ip_text(f'-{family} route')}\nlog:\n{lab.log.text()}")


def test_two_providers_as_the_readme_has_them(lab):
    far1 = far_end(lab, 1, "eth0", "192.0.2.10", "192.0.2.1", "2001:db8:1::10", ["198.51.100.7", "2001:db8::7"])
    far_end(lab, 2, "eth1", "203.0.113.10", "203.0.113.1", "2001:db8:2::10", ["198.51.100.8", "2001:db8::8"])
    # What the client and the router advertisements leave.
    lab.ip("route add default via 203.0.113.1 dev eth1 proto dhcp metric 1024")
    lab.ip("-6 route add default via fe80::1 dev eth1 proto ra metric 1024")
    for name in ("routing-wlb.conf", "routing-wlb6.conf"):
        lab.write(f"usr_etc/{name}", "")
    bird_block = block_with("protocol kernel")
    config = bird_block.split("# in bird.conf\n")[1]
    command = bird_block.splitlines()[0].split("#")[0].split()
    assert command == ["bird", "-c", "/etc/bird/bird.conf", "-P", "/var/run/routing.pid"]
    Bird(lab, config)
    lab.start_lb(block_with("routing-daemon bird2"))

    both = {("192.0.2.1", "eth0"), ("203.0.113.1", "eth1")}
    wait_routes(lab, 4, both)
    wait_routes(lab, 6, {("fe80::1", "eth0")})

    lab.nft("table inet cut {\nchain receive {\ntype filter hook prerouting priority -300;\ndrop\n}\n}", netns=far1)
    wait_routes(lab, 4, {("203.0.113.1", "eth1")})
    wait_routes(lab, 6, {("fe80::1", "eth1")})

    lab.run(["nft", "delete", "table", "inet", "cut"], netns=far1)
    wait_routes(lab, 4, both)
    wait_routes(lab, 6, {("fe80::1", "eth0")})


def statements(text):
    """Lines without comments, and without what differs from one router to the next."""
    lines = [line.split("#")[0].strip() for line in text.splitlines()]
    return [line for line in lines if line and not line.startswith(("log ", "router id "))]


def test_home_routers_of_the_lab_have_the_readmes_lines():
    assert statements(README_CONFIG.replace("{{", "{").replace("}}", "}")) == \
        statements(block_with("protocol kernel").split("# in bird.conf\n")[1])


# Started on it the daemon says nothing but what it lacks: the examples' names are no devices here.
@pytest.mark.parametrize("word", ["routing-daemon bird2", "type ping_ext"])
def test_every_line_of_the_examples_is_understood(lab, word):
    text = block_with(word)
    lb = lab.start_lb(None, argv=["-t", "-f", lab.write("lb.conf", text)])
    assert lb.expect_end() == 0
    assert not lab.log.matching(".")
    known = {"options", "routing-daemon", "discovery", "replies", "keep-last-routes", "health", "interface",
             "interface6", "origin", "nexthop", "source_address", "failure-ct", "success-ct", "hold-down", "lease-file",
             "check_all", "test", "type", "target", "resp-time", "period", "count", "timeout", "loss", "rtt", "jitter",
             "namespace", "rule", "failover", "weight", "address", "metric", "}"}
    lines = [line.split("#")[0].split() for line in text.splitlines()]
    assert {line[0] for line in lines if line} <= known
