"""Links that flap, vanish, come back as others, and lose their addresses.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far: the kernel's answers

After every fault the link is back, the others never noticed, and the daemon holds no more than before.
"""

import itertools

from lab import sniffer
from lab.configtext import ping, ping_ext
from lab.many_links import ManyLinks, Strand
from lab.watched_links import Watched


def burst(strand):
    return ping_ext(strand.gateway, count=2, period=1, timeout=1000, rtt=5000, jitter=5000)


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
    """A solicitation that cannot be sent fails like any other probe; the next ones go out."""
    flapping, control = Strand(1, ipv6=True), Strand(2, ipv6=True)
    links = ManyLinks(lab, [flapping, control])
    watched = Watched(lab, links.strands)
    for _ in range(3):
        links.near("down", flapping)
        watched.wait("failed", flapping)
        links.near("up", flapping)
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
            watched.expect_flaps(strand, 0)


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
            capture.wait_for(request, since=len(capture.frames))
        links.remove(*touched)
        for capture in captures.values():
            lab.discard(capture)
        links.restore(*touched)
        links.create(*touched)
        for strand in touched:
            watched.expect_flaps(strand, flaps)
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

    for strand in links.strands:
        watched.expect_flaps(strand, 4 if strand is first else 2 if strand in touched else 0)
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
