"""Links that flap, vanish, come back as others, lose their addresses and their neighbours.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel's answers

After every fault the link is back, the others never noticed, and the daemon holds no more than before.
"""

import itertools
import os
import socket

from lab import configtext, responder, sniffer, waiting
from lab.configtext import interface, ping, ping_ext, route_file, rule
from lab.growth import Growth
from lab.many_links import ManyLinks, Strand, explained_by, flapped, state_changes
from lab.route_watch import RouteWatch

# Below a second, the time between two looks: a probe has the time that it would have without a limit.
PATIENT = {"resp_time": 900}


def burst(strand):
    return ping_ext(strand.gateway, count=2, period=1, timeout=1000, rtt=5000, jitter=5000)


def config(strands, tests=None):
    """One rule per family over all links. tests: {strand: lines of its test}, else a ping of the gateway."""
    blocks = [interface(strand.name, [(tests or {}).get(strand) or ping(strand.gateway, **PATIENT)],
                        ipv6=strand.ipv6, success_ct=1, nexthop=strand.gateway) for strand in strands]
    rules = []
    for family, prefix in ((4, "0.0.0.0/0"), (6, "::/0")):
        members = {strand.name: 1 for strand in strands if strand.family == family}
        if members:
            rules.append(rule(f"1_ipv{family}", members, {prefix: None}))
    return configtext.build(blocks, rules)


class Watched:
    """A daemon over links, with all that is to hold while they suffer."""

    def __init__(self, lab, strands, tests=None):
        self.lab, self.strands = lab, list(strands)
        families = sorted({strand.family for strand in strands})
        self.routes = [RouteWatch(lab, f"usr_etc/routing-wlb{6 if family == 6 else ''}.conf", explained_by(
            [strand for strand in self.strands if strand.family == family], family), family) for family in families]
        self.lb = lab.start_lb(config(strands, tests))
        self.wait("active", *strands)
        self.growth = Growth(lab, self.lb)

    def wait(self, status, *strands, timeout=30):
        for family in (4, 6):
            names = {strand.name for strand in strands if strand.family == family}
            if names:
                waiting.wait_until(
                    lambda f=family, n=names: {self.lb.statuses(f).get(name) for name in n} == {status}, timeout,
                    lambda f=family, n=names: f"{sorted(n)} {status}; now {self.lb.statuses(f)}", 0.05)

    def changes(self, strand):
        return state_changes(self.lab, strand.name, strand.ipv6)

    def finish(self, touched, flaps):
        """Each of `touched` went and came `flaps` times, the others never; nothing else is left of it all."""
        for strand in self.strands:
            expected = flapped(flaps if strand in touched else 0)
            assert self.changes(strand) == expected, f"{strand.name}: {self.changes(strand)}"
        self.settle()

    def settle(self):
        self.wait("active", *self.strands)
        self.growth.check()
        for watch in self.routes:
            watch.verify()


def test_200_flaps(lab):
    """40 links of both families and paths flap five times each, in every way a link can; four are left alone."""
    numbers = itertools.count(1)

    def strands(count, **options):
        return [Strand(next(numbers), **options) for _ in range(count)]

    silent = strands(8) + strands(4, arp=False) + strands(16, ipv6=True)
    near = strands(3) + strands(2, arp=False)
    far = strands(2) + strands(1, arp=False) + strands(4, ipv6=True)
    control = strands(2) + strands(1, arp=False) + strands(1, ipv6=True)
    links = ManyLinks(lab, silent + near + far + control)
    watched = Watched(lab, links.strands)
    touched, rounds = silent + near + far, 5
    assert len(touched) * rounds == 200
    for _ in range(rounds):
        links.silence(*silent)
        links.near("down", *near)
        links.far_side("down", *far)
        watched.wait("failed", *touched)
        links.restore(*silent)
        links.near("up", *near)
        links.far_side("up", *far)
        watched.wait("active", *touched)
    watched.finish(touched, rounds)


def test_ipv6_link_that_is_switched_off(lab):
    """A solicitation that cannot be sent costs the VRF its socket: from then on the kernel's own traffic resolves."""
    flapping, control = Strand(1, ipv6=True), Strand(2, ipv6=True)
    links = ManyLinks(lab, [flapping, control])
    watched = Watched(lab, links.strands)
    for _ in range(3):
        links.near("down", flapping)
        watched.wait("failed", flapping)
        links.near("up", flapping)
        lab.enclosure.socket(socket.AF_INET6, socket.SOCK_DGRAM).sendto(b"x", (flapping.gateway6, 9))
        watched.wait("active", flapping)
    watched.finish([flapping], 3)


def made_anew(lab):
    """A link of every path and test, and one of each family that nothing happens to."""
    touched = [Strand(1), Strand(2, arp=False), Strand(3), Strand(4, arp=False), Strand(5, ipv6=True)]
    control = [Strand(6), Strand(7, ipv6=True)]
    links = ManyLinks(lab, touched + control)
    return links, touched, {touched[2]: burst(touched[2]), touched[3]: burst(touched[3])}


def index_of(lab, strand):
    return int(lab.ip_text(f"-o link show {strand.name}").split(":")[0])


def test_interfaces_made_anew(lab):
    """Deleted, missed, and created with another index; then many times in a row."""
    links, touched, tests = made_anew(lab)
    watched = Watched(lab, links.strands, tests)
    for _ in range(2):
        before = {strand: index_of(lab, strand) for strand in touched}
        links.remove(*touched)
        watched.wait("failed", *touched)
        links.create(*touched)
        assert all(index_of(lab, strand) != before[strand] for strand in touched)
        watched.wait("active", *touched)
    watched.finish(touched, 2)
    for _ in range(10):
        links.remove(*touched)
        links.create(*touched)
    watched.settle()
    for strand in links.strands:
        if strand not in touched:
            assert watched.changes(strand) == flapped(0)


def test_interfaces_made_anew_under_a_probe(lab):
    """Deleted and created while requests wait for their replies: each costs its probe, once."""
    links, touched, tests = made_anew(lab)
    tests.update({strand: ping(strand.gateway, resp_time=2500) for strand in touched if strand not in tests})
    watched = Watched(lab, links.strands, tests)
    for flaps in (1, 2):
        captures = {strand: links.sniffer(strand) for strand in touched}
        links.silence(*touched)
        for strand, capture in captures.items():
            request = sniffer.is_echo6_request if strand.ipv6 else sniffer.is_echo_request
            capture.wait_for(request, since=len(capture.frames), timeout=15)
        links.remove(*touched)
        for capture in captures.values():
            lab.discard(capture)
        links.restore(*touched)
        links.create(*touched)
        waiting.wait_until(lambda n=flaps: all(watched.changes(strand) == flapped(n) for strand in touched), 30,
                           lambda: {strand.name: watched.changes(strand) for strand in touched}, 0.1)
    watched.finish(touched, 2)


def test_interfaces_renamed(lab):
    """Away and back; away while another takes the name, with the same gateway behind it; and back again."""
    touched = [Strand(1), Strand(2, arp=False), Strand(3, ipv6=True)]
    stranger, control = Strand(4), Strand(5)
    links = ManyLinks(lab, touched + [control])
    ManyLinks(lab, [stranger], far="far2")
    watched = Watched(lab, links.strands)

    def rename(*pairs):
        lab.ip(*[f"link set {old} name {new}" for old, new in pairs], "link set lo up")

    for _ in range(2):
        rename(*[(strand.name, f"away{strand.number}") for strand in touched])
        watched.wait("failed", *touched)
        rename(*[(f"away{strand.number}", strand.name) for strand in touched])
        watched.wait("active", *touched)

    first = touched[0]
    rename((first.name, "away"))
    watched.wait("failed", first)
    # The stranger has no address of this network yet: the name alone is no link.
    rename((stranger.name, first.name))
    lab.ip(f"addr del {first.address}/24 dev away", f"addr add {first.address}/24 dev {first.name}")
    lab.ip(f"addr add {first.gateway}/24 dev {stranger.far_name}", netns="far2")
    watched.wait("active", first)
    rename((first.name, stranger.name))
    watched.wait("failed", first)
    rename(("away", first.name))
    lab.ip(f"addr del {first.address}/24 dev {stranger.name}", f"addr add {first.address}/24 dev {first.name}")
    watched.wait("active", first)

    assert watched.changes(first) == flapped(4)
    for strand in touched[1:]:
        assert watched.changes(strand) == flapped(2)
    assert watched.changes(control) == flapped(0)
    watched.settle()


def test_addresses_removed_and_given_back(lab):
    """IPv4 on both paths: no address, no request. IPv6: the source is the link-local address."""
    touched = [Strand(1), Strand(2, arp=False), Strand(3, ipv6=True)]
    control = [Strand(4), Strand(5, ipv6=True)]
    ManyLinks(lab, touched[::2] + control)
    # The kernel lends a raw request the address of another link; this far end knows no way back to that.
    ManyLinks(lab, [touched[1]], far="far2")
    watched = Watched(lab, touched + control)
    link_local = {strand: f"fe80::ff:fe00:{strand.number:x}02/64" for strand in touched if strand.ipv6}
    for _ in range(3):
        lab.ip(*[f"addr del {link_local.get(strand, strand.address + '/24')} dev {strand.name}" for strand in touched],
               "link set lo up")
        watched.wait("failed", *touched)
        lab.ip(*[f"addr add {link_local.get(strand, strand.address + '/24')} dev {strand.name}"
                 + (" nodad" if strand.ipv6 else "") for strand in touched], "link set lo up")
        watched.wait("active", *touched)
    watched.finish(touched, 3)


def test_hardware_address_changes_and_is_announced(lab):
    """By a gratuitous ARP request and an unsolicited advertisement of a kernel: the next probe uses the new one."""
    touched, control = [Strand(1), Strand(2, ipv6=True)], [Strand(3), Strand(4, ipv6=True)]
    links = ManyLinks(lab, touched + control)
    for strand in touched:
        lab.sysctl(f"net.ipv4.conf.{strand.far_name}.arp_notify=1",
                   f"net.ipv6.conf.{strand.far_name}.ndisc_notify=1", netns=links.far)
        # Entries are overwritten at once.
        lab.sysctl(f"net.ipv4.neigh.{strand.name}.locktime=0")
    watched = Watched(lab, links.strands)
    for change in range(1, 6):
        for strand in touched:
            mac = f"02:00:00:{change:02x}:{strand.number:02x}:01"
            lab.ip(f"link set {strand.far_name} address {mac}", netns=links.far)
            waiting.wait_until(lambda s=strand, m=mac: m in lab.neighbours(s.name, ipv6=s.ipv6).get(s.gateway, ""), 5)
        captures = {strand: links.sniffer(strand) for strand in touched}
        for strand, capture in captures.items():
            request = sniffer.is_echo6_request if strand.ipv6 else sniffer.is_echo_request
            frame = capture.wait_for(request)[0]
            assert frame.data[:6].hex(":") == f"02:00:00:{change:02x}:{strand.number:02x}:01"
            lab.discard(capture)
    # A probe that was on its way to the old address may be lost, and comes back with the next.
    for strand in touched:
        assert watched.changes(strand) in [flapped(times) for times in range(6)]
    assert all(watched.changes(strand) == flapped(0) for strand in control)
    watched.settle()


def test_hardware_address_changes_silently(lab):
    """The kernel's entry is taken as it is: nobody asks again until the kernel's own traffic finds the entry wrong."""
    touched, control = [Strand(1), Strand(2, ipv6=True)], [Strand(3), Strand(4, ipv6=True)]
    links = ManyLinks(lab, touched + control)
    near_addresses = {touched[0]: [touched[0].address], touched[1]: [touched[1].address6, "fe80::ff:fe00:202"]}
    watched = Watched(lab, links.strands)
    for strand in touched:
        # Once the kernel uses an entry, it is to doubt it soon and to find out soon.
        lab.sysctl(*[f"net.ipv{strand.family}.neigh.{strand.name}.{setting}" for setting in
                     ("delay_first_probe_time=1", "ucast_solicit=1", "retrans_time_ms=200")])
        lab.ip(f"link set {strand.far_name} address 02:00:00:77:{strand.number:02x}:01", netns=links.far)
        # The far end's own questions would tell the new address.
        for address in near_addresses[strand]:
            lab.ip(f"neigh replace {address} lladdr {strand.mac} dev {strand.far_name} nud permanent", netns=links.far)
        lab.ip(f"neigh replace {strand.gateway} lladdr {strand.far_mac} dev {strand.name} nud stale")
    watched.wait("failed", *touched)
    captures = [links.sniffer(strand) for strand in touched]
    watched.lb.wait_cycles(3)
    watched.lb.wait_cycles(3, family=6)
    for capture in captures:
        asked = capture.select(lambda frame: sniffer.is_arp_request(frame) or sniffer.is_solicitation(frame))
        assert not asked, capture.frames
    assert set(watched.lb.statuses().values()) == set(watched.lb.statuses(6).values()) == {"active", "failed"}
    for strand in touched:
        family = socket.AF_INET6 if strand.ipv6 else socket.AF_INET
        sender = lab.enclosure.socket(family, socket.SOCK_DGRAM)

        def learnt(strand=strand, sender=sender):
            sender.sendto(b"x", (strand.gateway, 9))
            return watched.lb.statuses(strand.family)[strand.name] == "active"

        waiting.wait_until(learnt, 20, lambda s=strand: lab.neighbours(s.name, ipv6=s.ipv6), 0.2)
        sender.close()
    watched.finish(touched, 1)


def test_hardware_address_of_another_machine(lab):
    """A stand-in takes the gateway's place with its own address, hears nothing else, and says so in one frame."""
    links = [lab.uplink(1, ipv6=True), lab.uplink(2, ipv6=True)]
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(gateway, **PATIENT)], ipv6=":" in gateway, success_ct=1, nexthop=gateway)
         for link in links for gateway in (link.gateway, link.gateway6)],
        [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}),
         rule("1_ipv6", {"wan1": 1, "wan2": 1}, {"::/0": None})]))
    for link, family in itertools.product(links, (4, 6)):
        lb.wait_status(link.name, "active", family=family)
    growth = Growth(lab, lb)
    link = links[0]
    near = bytes.fromhex(link.mac.replace(":", ""))
    for change in range(1, 4):
        mac = bytes.fromhex(f"020000ee{change:02x}01")
        link.responder.mac = link.responder.arp_mac = link.responder.nd_mac = mac
        since = len(link.responder.requests)
        for frame in (
                responder.arp_reply(near, socket.inet_aton(link.address), mac, socket.inet_aton(link.gateway)),
                responder.advertisement(near, responder.address_bytes(link.link_local), mac,
                                        responder.address_bytes(link.gateway6))):
            link.responder.send_frame(frame)
        waiting.wait_until(lambda s=since: {request.ipv6 for request in link.responder.requests[s:]} == {True, False},
                           10, "requests to the new address")
        for family in (4, 6):
            lb.wait_status(link.name, "active", family=family)
    for family in (4, 6):
        assert state_changes(lab, "wan2", family == 6) == flapped(0)
    growth.check()


def test_neighbour_tables_flushed(lab):
    """Between two cycles: the next probe resolves anew, and no link is lost. At any moment: all are back at once."""
    strands = [Strand(1), Strand(2), Strand(3, ipv6=True), Strand(4, ipv6=True)]
    links = ManyLinks(lab, strands)
    watched = Watched(lab, strands)
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
        assert watched.changes(strand) == flapped(0)


def test_namespace_deleted_under_its_worker(lab):
    """The name goes; the namespace lives on with the threads in it, so do its links, until their far ends go."""
    for vrf in ("red", "blue"):
        lab.add_netns(vrf)
        os.makedirs(lab.path(f"var_vrfs/{vrf}/usr/etc"))
    vrfs = {"default": 1, "red": 2, "blue": 3}
    links = {vrf: lab.uplink(number, vrf=None if vrf == "default" else vrf, ipv6=True, far_end="kernel")
             for vrf, number in vrfs.items()}
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(gateway, **PATIENT)], ipv6=":" in gateway, success_ct=1, nexthop=gateway,
                   namespace=vrf) for vrf, link in links.items() for gateway in (link.gateway, link.gateway6)],
        [rule(f"{number}_ipv{family}", {f"wan{number}": 1}, {"::/0" if family == 6 else "0.0.0.0/0": None},
              namespace=vrf) for vrf, number in vrfs.items() for family in (4, 6)]))

    def file_of(vrf):
        return "usr_etc/routing-wlb.conf" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc/routing-wlb.conf"

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
    # Another namespace under the old name is none of the worker's business.
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
