"""What changes between two probes is right for the second one, and costs no probe.

    router wan1 10.1.0.2 -------- f1 far1: responder that answers whoever asks
"""

import socket

import pytest

from lab import configtext, sniffer, waiting
from lab.configtext import ping

OTHER_MAC = "02:00:00:00:99:99"


@pytest.fixture
def link(lab):
    return lab.uplink(1, ipv6=True)


def source_of(frame):
    """The hardware and the IP address that a request comes from."""
    ipv6 = frame.data[12:14] == b"\x86\xdd"
    address = frame.data[22:38] if ipv6 else frame.data[26:30]
    return frame.data[6:12].hex(":"), socket.inet_ntop(socket.AF_INET6 if ipv6 else socket.AF_INET, address)


def expect_change(lab, link, family, config, change, expected):
    """All requests after the change are from `expected`, and none of them is lost."""
    capture = link.sniff()
    is_request, is_reply = {4: (sniffer.is_echo_request, sniffer.is_echo_reply),
                            6: (sniffer.is_echo6_request, sniffer.is_echo6_reply)}[family]
    lb = lab.start_lb(config)
    lb.wait_status("wan1", "active", family=family)
    lab.log.wait_for("interface wan1 changed state to active$")
    mark = lab.log.mark()
    for _ in range(2):  # the second time it is as it was
        change()
        seen = len(capture.frames)
        requests = capture.wait_for(is_request, since=seen, count=3)
        wanted = expected()
        assert {source_of(frame) for frame in requests} == {wanted}
        capture.wait_for(is_reply, since=seen, count=3)  # none is on its way to what changes next
    assert not lab.log.matching("changed state", since=mark)


def test_own_address(lab, link):
    addresses = ["10.1.0.77", link.address]

    def change():
        new, old = addresses
        addresses.reverse()
        lab.ip(f"addr add {new}/24 dev wan1", f"addr del {old}/24 dev wan1", f"addr replace {new}/24 dev wan1")

    lab.sysctl("net.ipv4.conf.wan1.promote_secondaries=1")
    expect_change(lab, link, 4, configtext.single(link, [ping(link.gateway, resp_time=waiting.milliseconds(900))]),
                  change, lambda: (link.mac, addresses[1]))


def test_link_local_address(lab, link):
    addresses = ["fe80::77", "fe80::78"]

    def change():
        new, old = addresses
        addresses.reverse()
        lab.ip("addr flush dev wan1 scope link", f"addr add {new}/64 dev wan1 nodad")
        assert old not in lab.ip_text("-6 addr show dev wan1")

    config = configtext.single(link, [ping(link.gateway6, resp_time=waiting.milliseconds(900))], ipv6=True)
    expect_change(lab, link, 6, config, change, lambda: (link.mac, addresses[1]))


@pytest.mark.parametrize("family", [4, 6], ids=["ipv4", "ipv6"])
def test_hardware_address(lab, link, family):
    macs = [OTHER_MAC, link.mac]
    target = link.gateway if family == 4 else link.gateway6

    def change():
        # The kernel drops the entries. On a busy machine the answer to a new question may come too late for a probe.
        lab.ip(f"link set wan1 address {macs[0]}",
               f"neigh replace {target} lladdr {link.far_mac} dev wan1 nud permanent")
        macs.reverse()

    keywords = {"source_address": link.address6} if family == 6 else {}
    config = configtext.single(link, [ping(target, resp_time=waiting.milliseconds(900))], ipv6=family == 6, **keywords)
    expect_change(lab, link, family, config, change,
                  lambda: (macs[1], link.address if family == 4 else link.address6))


def test_source_that_comes_and_goes(lab, link):
    """A configured address of another interface: it is missed at once, and found at once."""
    lab.ip("addr add 10.1.0.55/32 dev wan1")
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=waiting.milliseconds(900))],
                                        source_address="10.1.0.55"))
    lb.wait_status("wan1", "active")
    lab.ip("addr del 10.1.0.55/32 dev wan1")
    seen = len(capture.frames)
    lab.log.wait_for("address '10.1.0.55' not present on any interface")
    lb.wait_status("wan1", "failed")
    assert not capture.select(sniffer.is_echo_request, since=seen)
    lab.ip("addr add 10.1.0.55/32 dev wan1")
    lb.wait_status("wan1", "active")
