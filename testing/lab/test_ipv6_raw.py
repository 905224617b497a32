"""IPv6 probes on an interface without ARP leave through raw sockets, and their replies are not recognised.

The request carries the time where a reply's key is looked for, so such an interface fails by time-out.

    router wan1 fd00:1::2 (arp off) -------- f1 far1: responder
"""

import pytest

from lab import configtext, sniffer, waiting
from lab.configtext import ping


@pytest.fixture
def link(lab):
    made = lab.uplink(1, arp=False, ipv6=True)
    made.wait_sending()
    return made


def test_request_byte_for_byte_and_time_out(lab, link):
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway6, resp_time=900)], ipv6=True))
    frames = capture.wait_for(sniffer.is_echo6_request, count=3)
    for number, frame in enumerate(frames[:3], start=1):
        packet = frame.decode()["IPv6"]
        assert (packet.src, packet.dst, packet.plen) == (link.address6, link.gateway6, 40)
        message = frame.data[54:94]
        assert len(frame.data) == 94
        assert message[0:2] == b"\x80\0" and message[4:8] == (lb.pid & 0xFFFF).to_bytes(2, "big") + b"\0\1"
        seconds, microseconds = int.from_bytes(message[8:12], "big"), int.from_bytes(message[12:16], "big")
        assert abs(seconds + microseconds / 1e6 - frame.when) < 10 and microseconds < 1000000
        assert message[16:20] == number.to_bytes(4, "big") and message[20:] == bytes(20)
        again = frame.decode()
        again["ICMPv6EchoRequest"].cksum = None
        assert bytes(again) == frame.data, "the kernel puts the right checksum in"
    capture.wait_for(sniffer.is_echo6_reply, count=3)
    lb.wait_report("  -Test:", family=6)
    assert lb.statuses(6) == {"wan1": "failed"} and not lab.log.matching("changed state to active")


def test_a_key_in_the_place_of_the_time_is_recognised(lab, link):
    """The reply that the receiver looks for: the key in the first payload word."""
    link.responder.echo = lambda request: request.reply(payload=request.payload[8:12] + bytes(28))
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway6, resp_time=900)], ipv6=True))
    lb.wait_status("wan1", "active", family=6)


def test_host_names_are_probed(lab, link):
    lab.replace_etc("nsswitch.conf", "hosts: files\n")
    lab.replace_etc("hosts", "fd00:1::1 gateway.example\n")
    lb = lab.start_lb(configtext.single(link, [ping("gateway.example", resp_time=900),
                                               ping("no.such.name", resp_time=900)], ipv6=True))
    link.responder.wait_requests(2)
    assert {request.target for request in link.responder.requests} == {"fd00:1::1"}
    record = lab.log.wait_for(r"^%WAN-W-WARN: Error in resolving configured hostname: no\.such\.name$")
    assert record.level == 4
    lb.wait_report("  -Test:  ping\tTarget: gateway.example\n", family=6)


def test_no_route_is_no_error(lab, link):
    lb = lab.start_lb(configtext.single(link, [ping("2001:db8::7", resp_time=900)], ipv6=True))
    lb.wait_report("  -Test:", family=6)
    waiting.never(lambda: lab.log.matching("error on sending"), 1)


def test_interface_goes_away(lab, link):
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway6, resp_time=900)], ipv6=True))
    link.responder.wait_requests(1)
    lab.ip("link del wan1")
    record = lab.log.wait_for(r"^%WAN-W-ERR: wan_lb: failure to bind to interface \(ipv6\): wan1$")
    assert record.level == 4
    debug = lab.log.wait_for(r"^%WAN-D-DBG: wan_lb: error on sending icmp6 packet: 19$")
    assert debug.level == 7 and lb.alive


def test_probes_of_both_families_have_their_own_keys(lab, link):
    link.responder.echo = None
    config = configtext.build(
        [configtext.interface("wan1", [ping(link.gateway)], nexthop=link.gateway),
         configtext.interface("wan1", [ping(link.gateway6)], ipv6=True, nexthop=link.gateway6)],
        [configtext.rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}),
         configtext.rule("1_ipv6", {"wan1": 1}, {"::/0": None})])
    lab.start_lb(config)
    waiting.wait_until(lambda: {request.ipv6 for request in link.responder.requests} == {True, False})
    assert {request.ipv6: int.from_bytes(request.payload[8:12] if request.ipv6 else request.payload[:4], "big")
            for request in link.responder.requests[:2]} == {False: 1, True: 1}
