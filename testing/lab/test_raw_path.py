"""IPv4 probes on an interface without ARP leave through the kernel's raw sockets.

    router wan1 10.1.0.2 (arp off) -------- f1 far1: responder for 10.1.0.1 and everything behind it
"""

import pytest

from lab import configtext, sniffer, waiting
from lab.configtext import ping, ping_ext


@pytest.fixture
def link(lab):
    return lab.uplink(1, arp=False)


def icmp_bytes(frame):
    return frame.data[34:14 + int.from_bytes(frame.data[16:18], "big")]


def test_request_byte_for_byte(lab, link):
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")
    first, second = capture.wait_for(sniffer.is_echo_request, count=2)[:2]

    packet = first.decode()["IP"]
    assert (packet.src, packet.dst, packet.proto) == (link.address, link.gateway, 1)
    identifier = lb.pid & 0xFFFF
    assert lb.pid > 0xFFFF, "the upper half of the process id is to be lost, so it must not be zero"
    total = 0x0800 + identifier + 0x0001 + 0x0000 + 0x0001
    checksum = ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF
    assert icmp_bytes(first) == (b"\x08\x00" + checksum.to_bytes(2, "big")    # type, code, checksum
                                 + identifier.to_bytes(2, "big") + b"\x00\x01"  # identifier, sequence
                                 + b"\x00\x00\x00\x01" + bytes(12))             # key, padding
    again = packet.copy()
    again["ICMP"].chksum = None
    assert bytes(type(packet)(bytes(again)))[20:] == icmp_bytes(first), "scapy computes another checksum"

    assert icmp_bytes(second)[6:12] == b"\x00\x01\x00\x00\x00\x02", "sequence stays 1, the key counts"
    assert not link.responder.arp_requests


def test_target_behind_the_gateway(lab, link):
    lb = lab.start_lb(configtext.single(link, [ping("198.51.100.7")]))
    lb.wait_status("wan1", "active")
    assert {request.target for request in link.responder.requests} == {"198.51.100.7"}


def test_keys_are_shared_by_all_tests_of_a_family(lab, link):
    other = lab.uplink(2, arp=False)
    config = configtext.build(
        [configtext.interface("wan1", [ping("198.51.100.1"), ping("198.51.100.2")], success_ct=1,
                              nexthop=link.gateway),
         configtext.interface("wan2", [ping("198.51.100.3")], success_ct=1, nexthop=other.gateway)],
        [configtext.rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None})])
    link.responder.echo = other.responder.echo = None
    lab.start_lb(config)
    keys = [request.key for request in link.responder.wait_requests(2) + other.responder.wait_requests(1)]
    assert sorted(keys) == [1, 2, 3]


def test_host_name_is_resolved_and_then_refused(lab, link):
    lab.replace_etc("nsswitch.conf", "hosts: files\n")
    lab.replace_etc("hosts", "10.1.0.1 gateway.example\n")
    lb = lab.start_lb(configtext.single(link, [ping("gateway.example", resp_time=900)]))
    lab.log.wait_for(r"inet_aton\(\) failed: ", count=2)
    lb.wait_report("  -Test:  ping\tTarget: gateway.example\n")
    assert not link.responder.requests and lb.statuses() == {"wan1": "failed"}


def test_unknown_host_name(lab, link):
    lab.replace_etc("nsswitch.conf", "hosts: files\n")
    lb = lab.start_lb(configtext.single(link, [ping("no.such.name", resp_time=900)]))
    record = lab.log.wait_for(
        r"^%WAN-W-ERR: wan_lb: error in resolving configured hostname: no\.such\.name$", count=2)
    assert record.level == 4
    assert lb.alive and not link.responder.requests


@pytest.mark.parametrize("kind,message", [
    (ping, r"^%WAN-W-ERR: wan_lb: failure to bind to interface: wan1$"),
    (ping_ext, r"^%WAN-W-ERR: Failure to bind to interface: wan1$"),
])
def test_interface_goes_away(lab, link, kind, message):
    """The no-ARP flag is remembered, so the raw path goes on and cannot bind."""
    settings = {"period": 1, "rtt": 5000, "jitter": 5000} if kind is ping_ext else {}
    lb = lab.start_lb(configtext.single(link, [kind(link.gateway, **settings)]))
    lb.wait_status("wan1", "active")
    lab.ip("link del wan1")
    lab.log.wait_for(message)
    lb.wait_status("wan1", "failed")


def test_no_network_is_no_error(lab, link):
    """A link that is down gives "network unreachable", which is left out of the log."""
    lab.ip("link set wan1 down")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_report("  -Test:")
    waiting.never(lambda: lab.log.matching("error on sending"), 1.5)
    lab.ip("link set wan1 up")
    lb.wait_status("wan1", "active")
