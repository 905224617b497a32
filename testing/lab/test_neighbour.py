"""IPv6 probes with hand-built frames: the next hop is found by the daemon's own neighbour solicitation.

    router wan1 fd00:1::2, fe80::ff:fe00:102 -------- f1 far1: responder for fd00:1::1 and fe80::ff:fe00:101
"""

import socket

import pytest

from lab import configtext, responder, sniffer, waiting
from lab.configtext import ping
from lab.hardware import packed


@pytest.fixture
def link(lab):
    made = lab.uplink(1, ipv6=True)
    made.wait_sending()
    return made


def start(lab, link, target="2001:db8::7", **settings):
    return lab.start_lb(configtext.single(link, [ping(target, resp_time=settings.pop("resp_time", 900))], ipv6=True,
                                          **settings))


@pytest.mark.parametrize("gateway", ["fd00:1::1", "fd00:1::1:2:3", "fe80::ff:fe00:101", "fd00:1::aabb:ccdd"])
def test_solicitation_byte_for_byte(lab, link, gateway):
    # pylint: disable=import-outside-toplevel
    from scapy.layers.inet6 import ICMPv6ND_NS, ICMPv6NDOptSrcLLAddr, IPv6
    from scapy.layers.l2 import Ether
    capture = link.sniff()
    lb = start(lab, link, nexthop=gateway)
    lb.wait_status("wan1", "active", family=6)
    request = capture.wait_for(sniffer.is_solicitation)[0]
    last = socket.inet_pton(socket.AF_INET6, gateway)[13:]
    solicited = "ff02::1:ff" + f"{last[0]:02x}:{last[1]:02x}{last[2]:02x}"
    expected = (Ether(dst="33:33:ff:" + last.hex(":"), src=link.mac, type=0x86DD)
                / IPv6(tc=0, fl=0, plen=32, nh=58, hlim=255, src=link.link_local, dst=solicited)
                / ICMPv6ND_NS(res=0x03E80000, tgt=gateway) / ICMPv6NDOptSrcLLAddr(lladdr=link.mac))
    assert len(request.data) == 86
    assert request.data == bytes(expected), f"{request.data.hex()}\n{bytes(expected).hex()}"


def test_echo_frame_field_by_field(lab, link):
    capture = link.sniff()
    lb = start(lab, link)
    lb.wait_status("wan1", "active", family=6)
    first, second = capture.wait_for(sniffer.is_echo6_request, count=2)[:2]
    assert len(first.data) == 14 + 40 + 12
    frame = first.decode()
    assert (frame.dst, frame.src, frame.type) == (link.far_mac, link.mac, 0x86DD)
    header = frame["IPv6"]
    assert (header.version, header.tc, header.fl, header.plen, header.nh, header.hlim) == (6, 0, 0, 12, 58, 255)
    assert (header.src, header.dst) == (link.link_local, "2001:db8::7")
    message = frame["ICMPv6EchoRequest"]
    assert (message.type, message.code, message.id, message.seq) == (128, 0, lb.pid & 0xFFFF, 0)
    keys = [int.from_bytes(frame.data[62:], "big") for frame in (first, second)]
    assert keys in ([1, 2], [2, 3]), "where the gateway's answer is late, the first request stays here"
    again = frame.copy()
    again["ICMPv6EchoRequest"].cksum = None
    assert bytes(again) == first.data, "scapy computes another checksum"


def test_kernel_learns_the_neighbour_from_the_daemon(lab, link):
    """The kernel takes no untracked advertisement and never asked, so a reachable entry is the daemon's work."""
    link.responder.send_frame(responder.advertisement(
        packed(link.mac), socket.inet_pton(socket.AF_INET6, link.address6), link.responder.mac,
        socket.inet_pton(socket.AF_INET6, link.gateway6)))
    waiting.never(lambda: lab.neighbours("wan1", ipv6=True), 0.3)
    capture = link.sniff()
    lb = start(lab, link, target=link.gateway6)
    entry = waiting.wait_until(lambda: lab.neighbours("wan1", ipv6=True).get(link.gateway6))
    assert f"lladdr {link.far_mac}" in entry and "REACHABLE" in entry
    lb.wait_status("wan1", "active", family=6)
    solicitations = capture.select(sniffer.is_solicitation)
    assert len(solicitations) == 1, "the table is the cache"
    # The kernel's own solicitations carry zero there.
    assert all(frame.data[58:62] == b"\x03\xe8\0\0" for frame in solicitations)


@pytest.mark.parametrize("source,expected", [(None, "link_local"), ("::", "link_local"), ("fd00:1::2", "address6")])
@pytest.mark.parametrize("gateway", ["gateway6", "far_link_local"])
def test_next_hops_and_sources(lab, link, gateway, source, expected):
    nexthop = getattr(link, gateway)
    settings = {"source_address": source} if source else {}
    lb = start(lab, link, nexthop=nexthop, **settings)
    lb.wait_status("wan1", "active", family=6)
    assert {request.source for request in link.responder.requests} == {getattr(link, expected)}
    assert set(link.responder.solicitations) == {nexthop}
    lab.wait_text("usr_etc/routing-wlb6.conf", configtext.route_file(f"route ::/0 via {nexthop} weight 1;", ipv6=True))
    assert lb.outbounds(6)[0]["source_address"] == (source if source and source != "::" else "")


def test_known_neighbour_is_not_asked_for(lab, link):
    lab.ip(f"-6 neigh add {link.gateway6} lladdr {link.far_mac} dev wan1 nud permanent")
    lb = start(lab, link)
    lb.wait_status("wan1", "active", family=6)
    assert not link.responder.solicitations


def test_unanswered_then_answered(lab, link):
    link.responder.answer_nd = False
    lb = start(lab, link, resp_time=900)
    lb.wait_report("  -Test:", family=6)
    assert link.responder.solicitations and not link.responder.requests
    link.responder.answer_nd = True
    lb.wait_status("wan1", "active", family=6)


def test_unwatched_advertisements_change_nothing(lab, link):
    lb = start(lab, link)
    lb.wait_status("wan1", "active", family=6)
    near = socket.inet_pton(socket.AF_INET6, link.link_local)
    far = link.responder.mac
    link.responder.send_frame(responder.advertisement(
        packed(link.mac), near, far, socket.inet_pton(socket.AF_INET6, "fd00:1::99")))
    whole = responder.advertisement(packed(link.mac), near, packed("02:00:00:00:ee:01"),
                                    socket.inet_pton(socket.AF_INET6, link.gateway6))
    for length in (20, 54, 55, 70, 78, 83):
        link.responder.send_frame(whole[:length])
    waiting.never(lambda: set(lab.neighbours("wan1", ipv6=True)) - {link.gateway6}
                  or link.far_mac not in lab.neighbours("wan1", ipv6=True)[link.gateway6], 1)
    assert lb.alive


def test_other_spelling_of_the_next_hop_never_matches(lab, link):
    """The kernel's text of an address is compared: written otherwise it is asked for again and again."""
    lb = start(lab, link, nexthop="FD00:1::0001", resp_time=900)
    waiting.wait_until(lambda: len(link.responder.solicitations) >= 3)
    assert set(link.responder.solicitations) == {"fd00:1::1"} and not link.responder.requests
    assert lb.statuses(6) == {"wan1": "failed"}


def test_refused_entry_is_logged(lab, link):
    """The kernel refuses an entry for an interface that has no IPv6 any more, and says why."""
    lb = start(lab, link, nexthop="fd00:1::1", resp_time=900)
    lb.wait_status("wan1", "active", family=6)
    lab.sysctl("net.ipv6.conf.wan1.disable_ipv6=1")
    link.responder.send_frame(responder.advertisement(
        packed(link.mac), socket.inet_pton(socket.AF_INET6, link.link_local), link.responder.mac,
        socket.inet_pton(socket.AF_INET6, "fd00:1::1")))
    lab.log.wait_for(r"^%WAN-W-ERR: RTNETLINK answers: ")
    lb.wait_status("wan1", "failed", family=6)


def test_replies_that_count_and_those_that_do_not(lab, link):
    """Only type and key count."""
    wrong = [lambda request: request.reply(payload=b"\0\0\x7f\xfe"), lambda request: request.reply(type=128),
             lambda request: request.reply(truncate=11), lambda request: request.reply(truncate=2),
             lambda request: None]
    link.responder.echo = lambda request: wrong[request.number % len(wrong)](request)
    lb = start(lab, link, resp_time=50)
    link.responder.wait_requests(len(wrong) + 1)
    assert not lab.log.matching("changed state to active")
    link.responder.echo = lambda request: request.reply(source="2001:db8::99", identifier=1, sequence=9)
    lb.wait_status("wan1", "active", family=6)
    lab.log.wait_for("changed state to active$")
    texts = [record.text for record in lab.log.matching("wan1")]
    assert texts[0] == "%WAN-I-INSTANCE: IPv6 interface wan1 changed state to inactive"
    assert texts[-2:] == ["%WAN-I-INSTANCE: IPv6 interface wan1 last check target 2001:db8::7 success",
                          "%WAN-I-INSTANCE: IPv6 interface wan1 changed state to active"]


def test_source_is_taken_from_a_namesake(lab, link):
    """The first interface whose name begins with the tested one's and whose address looks link-local.

    The kernel takes no reply for another interface's link-local address, so only the requests tell.
    """
    lab.ip("addr flush dev wan1", "link add wan1x type veth peer name other")
    lab.ip("link set other up", "link set wan1x address 02:00:00:00:77:77 up")
    waiting.wait_until(lambda: "fe80::ff:fe00:7777" in lab.ip_text("-6 addr show dev wan1x"))
    start(lab, link)
    assert {request.source for request in link.responder.wait_requests(1)} == {"fe80::ff:fe00:7777"}


@pytest.mark.parametrize("address", ["fd80::5", "2080:1::5", "fe12::5"])
def test_loose_test_for_link_local_addresses(lab, link, address):
    """0xFE in the first byte or 0x80 in the second is enough."""
    lab.ip("addr flush dev wan1", f"addr add {address}/64 dev wan1 nodad")
    lb = start(lab, link)
    lb.wait_status("wan1", "active", family=6)
    assert {request.source for request in link.responder.requests} == {address}


def test_no_source_at_all(lab, link):
    lab.ip("addr flush dev wan1", "addr add 2001:db8:1::5/64 dev wan1 nodad")
    capture = link.sniff()
    lb = start(lab, link, resp_time=900)
    lb.wait_report("  -Test:", family=6)
    assert {frame.decode()["IPv6"].src for frame in capture.wait_for(sniffer.is_solicitation)} == {"::"}
    assert lb.alive and not link.responder.requests


# What makes sending fail, what mends it, and what the daemon prints meanwhile.
FAILED_SENDING = {
    "down": (["ip", "link", "set", "wan1", "down"], ["ip", "link", "set", "wan1", "up"], "Network is down"),
    "no room": (["tc", "qdisc", "add", "dev", "wan1", "root", "pfifo", "limit", "0"],
                ["tc", "qdisc", "del", "dev", "wan1", "root"], "No buffer space available"),
}


@pytest.mark.parametrize("begin,end,printed", FAILED_SENDING.values(), ids=FAILED_SENDING)
def test_solicitations_go_on_after_failed_sending(lab, link, begin, end, printed):
    """Of that uplink once it sends again, and of the other one of the VRF, which needs one meanwhile."""
    other = lab.uplink(2, ipv6=True)
    lab.run(begin)
    lb = lab.start_lb(configtext.build(
        [configtext.interface(found.name, [ping(resp_time=900)], ipv6=True, success_ct=1, nexthop=found.gateway6,
                              source_address=found.address6) for found in (link, other)],
        [configtext.rule("1_ipv6", {"wan1": 1, "wan2": 1}, {"::/0": None})]))
    waiting.wait_until(lambda: f"sendto() failed: {printed}\n" in lb.process.stderr, lambda: lb.process.stderr)
    lb.wait_status("wan2", "active", family=6)
    asked = len(other.responder.solicitations)
    lab.ip("neigh flush dev wan2")
    waiting.wait_until(lambda: len(other.responder.solicitations) > asked, "another solicitation by wan2")
    lb.wait_status("wan2", "active", family=6)
    lab.run(end)
    lab.ip(f"addr replace {link.address6}/64 dev wan1 nodad")
    lb.wait_status("wan1", "active", family=6)
    assert "Bad file descriptor" not in lb.process.stderr
