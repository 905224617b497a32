"""Neighbours that change their hardware addresses or are forgotten, and a namespace that goes with its neighbours.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel's answers
           wanN  10.N.0.2 / fd00:N::2 ---- farN 10.N.0.1 / fd00:N::1  a responder's, or a kernel of its own

In the end the link is back, the others never noticed, and the daemon holds no more than before.
"""

import itertools
import os
import socket

from lab import configtext, responder, sniffer, waiting
from lab.configtext import interface, ping, route_file, rule
from lab.growth import Growth
from lab.many_links import ManyLinks, Strand, flapped, over, state_changes
from lab.route_watch import RouteWatch
from lab.watched_links import PATIENT, Watched


def test_hardware_address_changes_and_is_announced(lab):
    """By a gratuitous ARP request and an unsolicited advertisement of a kernel: the next probe uses the new one."""
    touched, control = [Strand(1), Strand(2, ipv6=True)], [Strand(3), Strand(4, ipv6=True)]
    links = ManyLinks(lab, touched + control)
    for strand in touched:
        lab.sysctl(f"net.ipv4.conf.{strand.far_name}.arp_notify=1",
                   f"net.ipv6.conf.{strand.far_name}.ndisc_notify=1", netns=links.far)
        # Entries are overwritten at once.
        lab.sysctl(f"net.ipv4.neigh.{strand.name}.locktime=0")
    # A probe that is on its way to the old address is lost.
    watched = Watched(lab, links.strands, failure_ct=2)
    for change in range(1, 6):
        for strand in touched:
            mac = f"02:00:00:{change:02x}:{strand.number:02x}:01"
            lab.ip(f"link set {strand.far_name} address {mac}", netns=links.far)
            waiting.wait_until(lambda s=strand, m=mac: m in lab.neighbours(s.name, ipv6=s.ipv6).get(s.gateway, ""))
        captures = {strand: links.sniffer(strand) for strand in touched}
        for strand, capture in captures.items():
            request = sniffer.is_echo6_request if strand.ipv6 else sniffer.is_echo_request
            frames = capture.wait_for(request, count=2)
            mac = f"02:00:00:{change:02x}:{strand.number:02x}:01"
            assert [frame.data[:6].hex(":") for frame in frames[1:]] == [mac] * len(frames[1:])
            lab.discard(capture)
    watched.finish([], 0)


def test_hardware_address_of_another_machine(lab):
    """A stand-in takes the gateway's place with its own address, hears nothing else, and says so in one frame."""
    links = [lab.uplink(1, ipv6=True), lab.uplink(2, ipv6=True)]
    routes = [RouteWatch(lab, "usr_etc/routing-wlb.conf", over({link.name: link.gateway for link in links}, 4)),
              RouteWatch(lab, "usr_etc/routing-wlb6.conf", over({link.name: link.gateway6 for link in links}, 6), 6)]
    lb = lab.start_lb(configtext.build(
        # A probe that is on its way to the old address may be lost.
        [interface(link.name, [ping(gateway, **PATIENT)], ipv6=":" in gateway, success_ct=1, failure_ct=2,
                   nexthop=gateway) for link in links for gateway in (link.gateway, link.gateway6)],
        [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}),
         rule("1_ipv6", {"wan1": 1, "wan2": 1}, {"::/0": None})]))
    for link, family in itertools.product(links, (4, 6)):
        lb.wait_status(link.name, "active", family=family)
    growth = Growth(lab, lb)
    link = links[0]
    near = bytes.fromhex(link.mac.replace(":", ""))
    for change in range(1, 4):
        mac = bytes.fromhex(f"020000ee{change:02x}01")
        link.responder.become(mac)
        since = len(link.responder.requests)
        for frame in (
                responder.arp_reply(near, socket.inet_aton(link.address), mac, socket.inet_aton(link.gateway)),
                responder.advertisement(near, responder.address_bytes(link.link_local), mac,
                                        responder.address_bytes(link.gateway6))):
            link.responder.send_frame(frame)

        def reached(since=since):
            asked = [request.ipv6 for request in link.responder.requests[since:]]
            return min(asked.count(ipv6) for ipv6 in (False, True))

        # The second one tells that the first has had its result.
        waiting.wait_until(lambda: reached() >= 2, lambda: f"requests to the new address, not {reached()}")
        for family in (4, 6):
            lb.wait_status(link.name, "active", family=family)
            assert state_changes(lab, link.name, family == 6) == flapped(0)
    for family in (4, 6):
        assert state_changes(lab, "wan2", family == 6) == flapped(0)
    growth.check()
    for watch in routes:
        watch.verify()


def test_neighbour_tables_flushed(lab):
    """Between two cycles: the next probe resolves anew, and no link is lost. At any moment: all are back at once."""
    strands = [Strand(1), Strand(2), Strand(3, ipv6=True), Strand(4, ipv6=True)]
    links = ManyLinks(lab, strands)
    # On a busy machine a flush may come late and meet a probe that is on its way: it costs that one, not the next too.
    watched = Watched(lab, strands, failure_ct=2)
    capture = links.sniffer(strands[0])
    for _ in range(5):
        for family in (4, 6):
            # The report ends a cycle's work; what follows is a second of sleep.
            watched.lb.wait_cycles(1, family=family)
            lab.ip(*[f"neigh flush dev {strand.name}" for strand in strands if strand.family == family])
    watched.lb.wait_cycles(2)
    watched.lb.wait_cycles(2, family=6)
    # Not each time: a request of the far end teaches the kernel too.
    assert len(capture.select(sniffer.is_arp_request)) >= 2
    watched.finish([], 0)
    # A flush between an answer and the look at it costs that probe.
    for _ in range(100):
        lab.ip(f"neigh flush dev {strands[0].name}", f"neigh flush dev {strands[2].name}")
    watched.settle()
    for strand in (strands[1], strands[3]):
        watched.expect_flaps(strand, 0)


def test_namespace_deleted_under_its_worker(lab):
    """The name goes; the namespace lives on with the threads in it, so do its links, until their far ends go."""
    for vrf in ("red", "blue"):
        lab.add_netns(vrf)
        os.makedirs(lab.path(f"var_vrfs/{vrf}/usr/etc"))
    vrfs = {"default": 1, "red": 2, "blue": 3}
    links = {vrf: lab.uplink(number, vrf=None if vrf == "default" else vrf, ipv6=True, far_end="kernel")
             for vrf, number in vrfs.items()}

    def file_of(vrf, family=4):
        directory = "usr_etc" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc"
        return f"{directory}/routing-wlb{6 if family == 6 else ''}.conf"

    routes = [RouteWatch(lab, file_of(vrf, family),
                         over({link.name: link.gateway6 if family == 6 else link.gateway}, family), family)
              for vrf, link in links.items() for family in (4, 6)]
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(gateway, **PATIENT)], ipv6=":" in gateway, success_ct=1, nexthop=gateway,
                   namespace=vrf) for vrf, link in links.items() for gateway in (link.gateway, link.gateway6)],
        [rule(f"{number}_ipv{family}", {f"wan{number}": 1}, {"::/0" if family == 6 else "0.0.0.0/0": None},
              namespace=vrf) for vrf, number in vrfs.items() for family in (4, 6)]))

    def expected(vrf):
        return route_file(f"route 0.0.0.0/0 via 10.{vrfs[vrf]}.0.1 weight 1;")

    for vrf, number in vrfs.items():
        for family in (4, 6):
            lb.wait_status(f"wan{number}", "active", family=family)
        lab.wait_text(file_of(vrf), expected(vrf))
    growth = Growth(lab, lb)

    lab.ip("netns del red")
    for family in (4, 6):
        lb.wait_cycles(4, family=family)
        assert set(lb.statuses(family).values()) == {"active"}
        for number in vrfs.values():
            assert state_changes(lab, f"wan{number}", family == 6) == flapped(0)
    # Another namespace under the old name is none that the worker could go to.
    lab.add_netns("red")
    links["red"].cut()
    for family in (4, 6):
        lb.wait_status("wan2", "failed", family=family)
    lab.wait_text(file_of("red"), "")
    links["red"].restore()
    for family in (4, 6):
        lb.wait_status("wan2", "active", family=family)
    lab.wait_text(file_of("red"), expected("red"))
    # With the far end's namespace goes the link itself.
    lab.ip("netns del far2")
    for family in (4, 6):
        lb.wait_status("wan2", "failed", family=family)
        lb.wait_cycles(3, family=family)
        assert lb.statuses(family) == {"wan1": "active", "wan2": "failed", "wan3": "active"}
        assert state_changes(lab, "wan2", family == 6) == flapped(1) + ["inactive"]
        for number in (1, 3):
            assert state_changes(lab, f"wan{number}", family == 6) == flapped(0)
    lab.wait_text(file_of("red"), "")
    for vrf in ("default", "blue"):
        lab.wait_text(file_of(vrf), expected(vrf))
    growth.check()
    for watch in routes:
        watch.verify()
