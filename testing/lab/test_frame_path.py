"""IPv4 probes on an interface with ARP are whole Ethernet frames to the next hop, which the daemon resolves.

    router wan1 10.1.0.2 -------- f1 far1: responder for 10.1.0.1 and everything behind it
"""

import socket

import pytest

from lab import configtext, responder, sniffer, waiting
from lab.configtext import ping, ping_ext


@pytest.fixture
def link(lab):
    return lab.uplink(1)


def test_arp_request_byte_for_byte(lab, link):
    from scapy.layers.l2 import ARP, Ether  # pylint: disable=import-outside-toplevel
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping("198.51.100.7")]))
    lb.wait_status("wan1", "active")
    request = capture.wait_for(sniffer.is_arp_request)[0]
    assert len(request.data) == 42
    assert request.data == bytes(
        Ether(dst="ff:ff:ff:ff:ff:ff", src=link.mac, type=0x0806)
        / ARP(hwtype=1, ptype=0x0800, hwlen=6, plen=4, op=1, hwsrc=link.mac, psrc=link.address,
              hwdst="00:00:00:00:00:00", pdst=link.gateway))
    decoded = request.decode()["ARP"]
    assert (decoded.op, decoded.psrc, decoded.pdst) == (1, link.address, link.gateway)


def test_echo_frame_field_by_field(lab, link):
    lab.ip(f"neigh add {link.gateway} lladdr {link.far_mac} dev wan1 nud permanent")  # no answer comes too late
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping("198.51.100.7")]))
    lb.wait_status("wan1", "active")
    first, second = capture.wait_for(sniffer.is_echo_request, count=2)[:2]
    assert len(first.data) == 14 + 32

    frame = first.decode()
    assert (frame.dst, frame.src, frame.type) == (link.far_mac, link.mac, 0x0800)
    header = frame["IP"]
    assert (header.version, header.ihl, header.tos, header.len, header.id, int(header.flags), header.frag,
            header.ttl, header.proto) == (4, 5, 0, 32, 0, 0, 0, 255, 1)
    assert (header.src, header.dst) == (link.address, "198.51.100.7")
    message = frame["ICMP"]
    assert (message.type, message.code, message.id, message.seq) == (8, 0, lb.pid & 0xFFFF, 0)
    assert bytes(message.payload) == b"\0\0\0\1"
    computed = frame.copy()
    computed["IP"].chksum = computed["ICMP"].chksum = None
    assert bytes(computed) == first.data, "scapy computes other checksums"

    assert second.data[34 + 8:] == b"\0\0\0\2"


def test_reply_enters_the_kernel_table_through_the_daemon(lab, link):
    """The kernel takes no unsolicited reply (arp_accept is 0), so an entry can only come from the daemon."""
    assert lab.neighbours("wan1") == {}
    mac = bytes.fromhex(link.mac.replace(":", ""))
    link.responder.send_frame(responder.arp_reply(mac, socket.inet_aton(link.address), link.responder.mac,
                                                  socket.inet_aton(link.gateway)))
    waiting.never(lambda: lab.neighbours("wan1"), 0.2)
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")
    assert f"lladdr {link.far_mac}" in lab.neighbours("wan1")[link.gateway]
    requests = capture.select(sniffer.is_arp_request)
    assert len(requests) == 1, "one answered request is enough; the table is the cache"


def test_unwatched_replies_and_requests_change_nothing(lab, link):
    """The kernel adds nothing of this by itself, and the daemon, which waits for the gateway, neither."""
    link.responder.answer_arp = False
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    waiting.wait_until(lambda: link.responder.arp_requests)
    mac, far = bytes.fromhex(link.mac.replace(":", "")), link.responder.mac
    near = socket.inet_aton(link.address)
    link.responder.send_frame(responder.arp_reply(mac, near, far, socket.inet_aton("10.1.0.99")))
    # A request that the gateway sends, for a third machine: not a reply.
    forged = responder.arp_reply(mac, socket.inet_aton("10.1.0.50"), far, socket.inet_aton(link.gateway))
    link.responder.send_frame(forged[:20] + b"\0\1" + forged[22:])
    # Another protocol with the bytes of a reply, and replies that are cut short.
    link.responder.send_frame(forged[:12] + b"\x08\x07" + forged[14:])
    for length in (14, 21, 24, 31):
        link.responder.send_frame(forged[:length])
    waiting.never(lambda: any("lladdr" in line for line in lab.neighbours("wan1").values()), 1)
    assert lb.alive and not link.responder.requests


def test_new_hardware_address_is_taken_over(lab, link):
    """A reply for a watched address is written whenever it comes; the kernel itself is told to keep what it has."""
    lab.sysctl("net.ipv4.neigh.wan1.locktime=100000000")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")
    link.responder.send_frame(responder.arp_reply(
        bytes.fromhex(link.mac.replace(":", "")), socket.inet_aton(link.address), bytes.fromhex("02000000ee01"),
        socket.inet_aton(link.gateway), link.responder.mac))
    waiting.wait_until(lambda: "02:00:00:00:ee:01" in lab.neighbours("wan1")[link.gateway],
                       lambda: lab.neighbours("wan1"))


def test_known_entry_means_no_request(lab, link):
    lab.ip(f"neigh add {link.gateway} lladdr {link.far_mac} dev wan1 nud permanent")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")
    assert not link.responder.arp_requests


@pytest.mark.parametrize("kind", [ping, ping_ext])
def test_arp_unanswered_then_answered(lab, link, kind):
    link.responder.answer_arp = False
    settings = {"period": 1, "rtt": 5000, "jitter": 5000} if kind is ping_ext else {"resp_time": 200}
    lb = lab.start_lb(configtext.single(link, [kind(link.gateway, **settings)]))
    lb.wait_report("  -Test:")
    assert link.responder.arp_requests and not link.responder.requests
    assert lb.statuses() == {"wan1": "failed"}
    link.responder.answer_arp = True
    lb.wait_status("wan1", "active")


def test_incomplete_entry_of_the_kernel_is_asked_for_again(lab, link):
    link.responder.answer_arp = False
    lab.sysctl("net.ipv4.neigh.wan1.retrans_time_ms=60000")  # the first request is the kernel's, the next one is not
    probe = lab.enclosure.socket(socket.AF_INET, socket.SOCK_DGRAM)
    probe.sendto(b"x", (link.gateway, 9))
    waiting.wait_until(lambda: link.gateway in lab.neighbours("wan1"))
    asked = len(link.responder.arp_requests)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    waiting.wait_until(lambda: len(link.responder.arp_requests) > asked)
    link.responder.answer_arp = True
    lb.wait_status("wan1", "active")


def test_source_address(lab, link):
    lab.ip("addr add 10.1.0.33/32 dev wan1")
    capture = link.sniff()
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)], source_address="10.1.0.33"))
    lb.wait_status("wan1", "active")
    assert capture.select(sniffer.is_arp_request)[0].decode()["ARP"].psrc == "10.1.0.33"
    assert {request.source for request in link.responder.requests} == {"10.1.0.33"}
    assert lb.outbounds()[0]["source_address"] == "10.1.0.33"


@pytest.mark.parametrize("kind,word", [(ping, "address"), (ping_ext, "Address")])
def test_source_address_of_no_interface(lab, link, kind, word):
    lb = lab.start_lb(configtext.single(link, [kind(link.gateway)], source_address="10.1.0.99"))
    record = lab.log.wait_for(f"^%WAN-W-ERR: {word} '10.1.0.99' not present on any interface$")
    assert record.level == 4
    lb.report()
    assert not link.responder.arp_requests and not link.responder.requests


@pytest.mark.parametrize("name", ["wan10", "vrrp7"])
def test_source_address_may_lie_on_a_namesake(lab, link, name):
    """Names are compared over the tested interface's length, and virtual-router interfaces always count."""
    lab.ip(f"link add {name} type veth peer name other", f"addr add 10.1.0.50/32 dev {name}")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)], source_address="10.1.0.50"))
    lb.wait_status("wan1", "active")
    assert {request.source for request in link.responder.requests} == {"10.1.0.50"}


def test_interface_without_address(lab, link):
    lab.ip("addr flush dev wan1")
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_report("  -Test:")
    assert not link.responder.arp_requests
    lab.ip(f"addr add {link.address}/24 dev wan1")
    lb.wait_status("wan1", "active")


@pytest.mark.parametrize("kind", [ping, ping_ext])
def test_host_name_is_no_address(lab, link, kind):
    lab.replace_etc("nsswitch.conf", "hosts: files\n")
    lab.replace_etc("hosts", "10.1.0.1 gateway.example\n")
    settings = {"period": 1} if kind is ping_ext else {"resp_time": 200}
    lb = lab.start_lb(configtext.single(link, [kind("gateway.example", **settings)]))
    lab.log.wait_for(r"inet_pton\(\) failed\.\s*Error message: ")
    lb.wait_report("  -Test:")
    assert not link.responder.requests


def test_origin_and_alias_name_the_interface(lab, link):
    """The section's name is the daemon's own; `origin` is the Linux name; the log shows the alias."""
    lab.run(["ip", "link", "set", "wan1", "alias", "WAN one"])
    config = configtext.single(link, [ping(link.gateway)]).replace("interface wan1 {", "interface uplink-a {")
    config = config.replace("success-ct 1", "success-ct 1\n        origin wan1")
    lb = lab.start_lb(config)
    lb.wait_status("uplink-a", "active")
    lab.log.wait_for("changed state to active$")
    texts = [record.text for record in lab.log.matching("IP interface")]
    assert texts == [
        "%WAN-I-INSTANCE: IP interface WAN one changed state to inactive",
        "%WAN-I-INSTANCE: IP interface WAN one last check target 10.1.0.1 success",
        "%WAN-I-INSTANCE: IP interface WAN one changed state to active",
    ]
    assert {record.level for record in lab.log.matching("IP interface")} == {6}
    lab.wait_text("usr_etc/routing-wlb.conf", configtext.route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))


def test_target_without_configuration_is_the_gateway(lab, link):
    lb = lab.start_lb(configtext.single(link))
    lb.wait_status("wan1", "active")
    assert {request.target for request in link.responder.requests} == {link.gateway}
    assert "ping\tTarget: 10.1.0.1\n" in lb.report()
