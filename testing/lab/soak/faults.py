"""The faults that the soak throws at the router.

A fault is a generator: it does its harm, yields for how many seconds, and puts things right when it is resumed.
FAILING ones must switch the link's families `families`; HARMLESS and GLOBAL ones must switch nothing.
"""

import os
import random
import signal
import struct
from dataclasses import dataclass
from typing import Callable

from lab import responder
from lab.hardware import packed

from .router import DHCP, EXTENDED, KERNEL, LEASE, RAW


@dataclass
class Fault:
    name: str
    run: Callable  # (router, link number or None, random generator) -> generator
    families: tuple = ()  # those that must fail; none: nothing may switch
    fits: Callable = lambda number: True
    heals: float = 0.0  # the link must come back by itself, within so many seconds from the beginning


def _long(rng):
    return rng.uniform(16, 30)


def _short(rng):
    return rng.uniform(1, 6)


def _has_responder(number):
    return number not in KERNEL


# Faults that must be noticed

def far_end_silent(router, number, rng):
    router.links[number].cut()
    yield _long(rng)
    router.links[number].restore()


def echo_silent(router, number, rng):
    """ARP and neighbour discovery go on."""
    far = router.links[number].responder
    far.echo = None
    yield _long(rng)
    far.echo = lambda request: request.reply()


def one_family_silent(family):
    def run(router, number, rng):
        far = router.links[number].responder
        far.echo = lambda request: None if request.ipv6 == (family == 6) else request.reply()
        yield _long(rng)
        far.echo = lambda request: request.reply()
    return run


def answers_come_too_late(router, number, rng):
    far = router.links[number].responder
    far.delay(12.0)  # later than any cycle is long: an answer that comes before the judgement counts
    yield _long(rng)
    far.echo = lambda request: request.reply()


def link_down(router, number, rng):
    link = router.links[number]
    router.lab.ip(f"link set {link.name} down", netns=link.vrf)
    yield _long(rng)
    router.lab.ip(f"link set {link.name} up", netns=link.vrf)


def carrier_lost(router, number, rng):
    link = router.links[number]
    router.lab.ip(f"link set {link.far_name} down", netns=link.far)
    yield _long(rng)
    router.lab.ip(f"link set {link.far_name} up", netns=link.far)


def link_replaced(router, number, rng):
    router.remove(number)
    yield _long(rng)
    router.make_again(number)


def _other_address(far, number, rng):
    """Gives a far end another hardware address, which is returned."""
    far.become(bytes([2, 0, 1, number]) + rng.randbytes(2))
    return far.mac


def far_end_replaced_in_silence(router, number, rng):
    """A cold spare that says nothing: the kernel's entry leads nowhere until somebody doubts it.

    The entry is stale, as that of a healthy link is after half a minute: one that the kernel is just verifying would be
    mended before the link fails. One that is marked as learned from outside the kernel does not throw away, as it else
    does with what is old as soon as all namespaces together have 128 entries.
    """
    link = router.links[number]
    old = link.responder.mac.hex(":")
    _other_address(link.responder, number, rng)
    for gateway in (link.gateway, link.gateway6):
        router.lab.ip(f"neigh replace {gateway} lladdr {old} dev {link.name} nud stale extern_learn", netns=link.vrf)
    yield 1.0


FAILING = [
    Fault("far end silent", far_end_silent, (4, 6)),
    Fault("echo silent", echo_silent, (4, 6), _has_responder),
    Fault("IPv4 echo silent", one_family_silent(4), (4,), _has_responder),
    Fault("IPv6 echo silent", one_family_silent(6), (6,), lambda number: _has_responder(number) and number != RAW),
    Fault("answers come too late", answers_come_too_late, (4, 6), _has_responder),
    Fault("link down", link_down, (4, 6)),
    Fault("carrier lost", carrier_lost, (4, 6)),
    Fault("link replaced", link_replaced, (4, 6)),
    # Three probes of a second, eight seconds for the kernel, two probes: a third of this, undisturbed.
    Fault("far end replaced in silence", far_end_replaced_in_silence, (4, 6),
          lambda number: _has_responder(number) and number != RAW, heals=60.0),
]


# Faults of a link that must change nothing

def neighbours_flushed(router, number, rng):
    link = router.links[number]
    for family in router.families(number):
        router.lab.ip(f"-{family} neigh flush dev {link.name}", netns=link.vrf)
    yield 1.0


def far_end_replaced(router, number, rng):
    """A cold spare takes over with another hardware address and says so."""
    link = router.links[number]
    far = link.responder
    mac = _other_address(far, number, rng)
    to_mac = packed(link.mac)
    address, gateway = responder.address_bytes(link.address), responder.address_bytes(link.gateway)
    far.send_frame(responder.arp_reply(to_mac, address, mac, gateway, mac))
    address, gateway = responder.address_bytes(link.address6), responder.address_bytes(link.gateway6)
    far.send_frame(responder.advertisement(to_mac, address, mac, gateway, mac))
    yield 2.0


def some_lost(router, number, rng):
    """Fewer than it takes to fail a target: every third probe of each family is lost."""
    seen = {False: 0, True: 0}

    def echo(request):
        seen[request.ipv6] += 1
        return None if seen[request.ipv6] % 3 == 0 else request.reply()

    far = router.links[number].responder
    far.echo = echo
    yield _short(rng)
    far.echo = lambda request: request.reply()


def slow_answers(router, number, rng):
    far = router.links[number].responder
    far.echo = lambda request: [(rng.uniform(0.0, 0.5), request.reply())]
    yield _short(rng)
    far.echo = lambda request: request.reply()


def wrong_answers(router, number, rng):
    """The right answer comes between answers with other keys, identifiers and types, and copies of itself."""
    def echo(request):
        wrong = [request.reply(payload=struct.pack("!I", (request.key + other) & 0xFFFFFFFF) + request.payload[4:])
                 for other in (1000, 20000, 40000)]
        wrong.append(request.reply(truncate=rng.randrange(0, 8)))
        return [(0.0, packet) for packet in [*wrong, request.reply(), request.reply(), *wrong]]

    far = router.links[number].responder
    far.echo = echo
    yield _short(rng)
    far.echo = lambda request: request.reply()


def hostile_frames(router, number, rng):
    """ARP replies, advertisements and echo replies, cut short, too long, or of random bytes."""
    link = router.links[number]
    far = link.responder
    to_mac = packed(link.mac)
    address6 = responder.address_bytes(link.address6)
    for _ in range(500):
        stranger = bytes([0xFE, 0x80]) + rng.randbytes(14)
        frame = rng.choice([
            responder.arp_reply(to_mac, rng.randbytes(4), rng.randbytes(6), rng.randbytes(4), far.mac),
            responder.advertisement(to_mac, address6, rng.randbytes(6), stranger, far.mac),
            to_mac + far.mac + b"\x08\x00" + responder.ip_packet(
                rng.randbytes(4), responder.address_bytes(link.address), b"\0\0" + rng.randbytes(rng.randrange(100))),
            to_mac + far.mac + rng.choice([b"\x08\x00", b"\x08\x06", b"\x86\xdd"]) + rng.randbytes(rng.randrange(200)),
        ])
        far.send_frame(frame[:rng.randrange(14, len(frame) + 1)] if rng.random() < 0.3 else frame)
    yield 1.0


def addresses_renewed(router, number, rng):
    link = router.links[number]
    router.lab.ip(f"addr del {link.address}/24 dev {link.name}", netns=link.vrf)
    if number != RAW:
        router.lab.ip(f"addr del {link.address6}/64 dev {link.name}", netns=link.vrf)
    yield 0.2
    router.lab.ip(f"addr add {link.address}/24 dev {link.name}", netns=link.vrf)
    if number != RAW:
        router.lab.ip(f"addr add {link.address6}/64 dev {link.name} nodad", netns=link.vrf)


HARMLESS = [
    Fault("neighbours flushed", neighbours_flushed),
    Fault("far end replaced", far_end_replaced, fits=lambda number: _has_responder(number) and number != RAW),
    # One lost answer makes a whole burst fail, and three bursts the link.
    Fault("some lost", some_lost, fits=lambda number: _has_responder(number) and number != EXTENDED),
    Fault("slow answers", slow_answers, fits=_has_responder),
    Fault("wrong answers", wrong_answers, fits=_has_responder),
    Fault("hostile frames", hostile_frames, fits=_has_responder),
    Fault("addresses renewed", addresses_renewed),
]


# Faults of the surroundings that must change nothing

def routing_daemon_restarts(router, _, rng):
    router.restart_bird()
    yield 1.0


def pid_file_is_wrong(router, _, rng):
    right = router.lab.read("run/routing.pid")
    router.lab.replace("run/routing.pid", rng.choice(["", "0\n", "-1\n", "bird\n", "99999999999\n"]))
    yield _short(rng)
    router.lab.replace("run/routing.pid", right)


def output_directory_gone(router, _, rng):
    os.rename(router.lb.out, router.lb.out + ".gone")
    if rng.random() < 0.5:
        router.lab.write(os.path.basename(router.lb.out), "in the way")
    yield _short(rng)
    if os.path.exists(router.lb.out):
        os.unlink(router.lb.out)
    os.rename(router.lb.out + ".gone", router.lb.out)


def lease_is_broken(router, _, rng):
    path = "var_db/dhclient_wan3.leases"
    router.lab.write(path, rng.choice(["", "lease {\n", "option domain-name x;\n" * 50000, "\0" * 3000]))
    yield _short(rng)
    router.lab.replace(path, LEASE.format(router.links[DHCP].gateway))


def forged_answers(router, _, rng):
    """Somebody in the local networks claims to be every uplink's gateway."""
    for number, link in router.links.items():
        lan = router.lans[router.vrf_of(number)]
        far, to_mac = lan.responder, packed(lan.mac)
        frames = [responder.answer(to_mac, address, far.mac, gateway) for address, gateway in (
            (lan.address, link.gateway), (link.address, link.gateway),
            (lan.address6, link.gateway6), (link.address6, link.gateway6))]
        for frame in frames * 50:
            far.send_frame(frame)
    yield 1.0


def routing_daemon_reloads(router, _, rng):
    router.bird.process.signal(signal.SIGHUP)
    yield 0.5


GLOBAL = [
    Fault("routing daemon restarts", routing_daemon_restarts),
    Fault("pid file is wrong", pid_file_is_wrong),
    Fault("output directory gone", output_directory_gone),
    Fault("lease is broken", lease_is_broken),
    Fault("routing daemon reloads", routing_daemon_reloads),
    Fault("forged answers", forged_answers),
]


def choose(rng: random.Random, kind, number=None):
    """A fault of a kind that fits the link."""
    return rng.choice([fault for fault in kind if number is None or fault.fits(number)])
