"""Hostile frames, and a process that sends them fast.

The makers give lists of frames for a flood of one kind; `Target` says whom they are for, and `other` is an uplink by
which they do not come. None of them forges what a probe relies on by design: an answer that is well formed, and comes
by the interface of a watched neighbour, has the right hardware address.
"""

import itertools
import json
import os
import random
import signal
import socket
import struct
import sys

from .responder import address_bytes, icmp6_checksum, inet_checksum, ip_packet

_SENDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes", "flood.py")
WRONG_MAC = bytes.fromhex("0200000bad01")
ETH_ARP, ETH_IPV4, ETH_IPV6 = 0x0806, 0x0800, 0x86DD


class Target:
    """The near end of a link as its neighbour sees it. Hardware addresses are texts, the others too."""

    def __init__(self, mac, far_mac, address, gateway, address6, gateway6):
        self.mac, self.far_mac = (bytes.fromhex(text.replace(":", "")) for text in (mac, far_mac))
        self.address, self.gateway = socket.inet_aton(address), socket.inet_aton(gateway)
        self.address6, self.gateway6 = address_bytes(address6), address_bytes(gateway6)

    def frame(self, kind, data):
        return self.mac + self.far_mac + struct.pack("!H", kind) + data


class Flood:
    """Runs from its construction until `finish`, so many seconds at least, or until `most` frames are sent."""

    def __init__(self, lab, netns, interface, frames, rate, seconds, most=0):
        self._most = most
        path = lab.path(f"flood.{interface}.{id(self)}")
        with open(path, "wb") as file:
            file.write(b"".join(struct.pack("!H", len(frame)) + frame for frame in frames))
        self._process = lab.enclosure.spawn([sys.executable, _SENDER, interface, path, str(rate), str(seconds),
                                            str(most)], netns)
        self.sent = 0

    @property
    def running(self):
        return self._process.status is None

    def finish(self):
        """Returns frames a second."""
        if not self._most:
            self._process.signal(signal.SIGTERM)
        assert self._process.wait(120) == 0, self._process.stderr
        self.sent, refused, seconds = json.loads(self._process.stdout)
        assert refused == 0, f"{refused} of {self.sent} frames could not be sent"
        return self.sent / seconds


def addresses(count, ipv6=False):
    """Packed addresses that nobody has, all different."""
    if ipv6:
        return [address_bytes("2001:db8:bad::")[:12] + struct.pack("!I", number) for number in range(count)]
    return [struct.pack("!I", 0xAC100000 + number) for number in range(1, count + 1)]


# ARP (RFC 826)

def arp(target, sender, mac, lengths=(6, 4), operation=2):
    return target.frame(ETH_ARP, struct.pack("!HHBBH", 1, 0x0800, *lengths, operation) + mac + sender
                        + target.mac + target.address)


def arp_flood(target, other):
    """Too short, too long, with wrong lengths; of strangers, of the gateway itself, and of the other's gateway."""
    strangers = addresses(40) + [other.gateway] * 10
    claims = [(sender, WRONG_MAC) for sender in strangers] + [(target.gateway, target.far_mac)] * 20
    frames = []
    for sender, mac in claims:
        whole = arp(target, sender, mac)
        frames += [whole, whole + b"\xee" * 1000, whole[:41], whole[:30], whole[:21], whole[:14],
                   arp(target, sender, mac, lengths=(255, 255)), arp(target, sender, mac, lengths=(0, 16)),
                   arp(target, sender, mac, operation=1 if sender != target.gateway else 2),
                   arp(target, sender, mac, operation=0xFFFF), b"\xff" * 6 + whole[6:]]
    return _mixed(frames)


def distinct_arp(target, count):
    return [arp(target, sender, WRONG_MAC) for sender in addresses(count)]


# Neighbour advertisements (RFC 4861)

def advertisement(target, address, option, length=None):
    """length: what the IPv6 header says of the payload."""
    message = struct.pack("!BBHI", 136, 0, 0, 0x60000000) + address + option
    message = message[:2] + struct.pack("!H", icmp6_checksum(address, target.address6, message)) + message[4:]
    packet = ip_packet(address, target.address6, message)
    if length is not None:
        packet = packet[:4] + struct.pack("!H", length) + packet[6:]
    return target.frame(ETH_IPV6, packet)


def advertisement_flood(target, other):
    """Too short, too long, with wrong lengths, without the option, from afar, of another protocol; of strangers, of
    the gateway itself, and of the other's gateway."""
    wrong, right = (b"\x02\x01" + mac for mac in (WRONG_MAC, target.far_mac))
    strangers = addresses(40, ipv6=True) + [other.gateway6] * 10
    claims = [(address, wrong) for address in strangers] + [(target.gateway6, right)] * 20
    forged = advertisement(target, target.gateway6, wrong)
    # The hop limit of one that a router has passed on, and UDP by a port that looks like an advertisement.
    frames = [forged[:21] + b"\xfe" + forged[22:], forged[:20] + b"\x11" + forged[21:]] * 10
    for address, option in claims:
        whole = advertisement(target, address, option)
        frames += [whole, whole + b"\xee" * 1000, whole[:85], whole[:78], whole[:60], whole[:55], whole[:54],
                   advertisement(target, address, b""), advertisement(target, address, option, length=0),
                   advertisement(target, address, option, length=0xFFFF),
                   advertisement(target, address, option[:1] + b"\0" + option[2:]),
                   advertisement(target, address, option + b"\x01\xff")]
    return _mixed(frames)


def distinct_advertisements(target, count):
    option = b"\x02\x01" + WRONG_MAC
    return [advertisement(target, address, option) for address in addresses(count, ipv6=True)]


# Echo replies (RFC 792, RFC 4443)

def echo_reply(target, ipv6, key, identifier=0x7777, sequence=0, size=12, good_sum=True, source=None, kind=None):
    """size: bytes behind the ICMP header; key None: there are none."""
    near, far = (target.address6, target.gateway6) if ipv6 else (target.address, target.gateway)
    far = source or far
    kind = (129 if ipv6 else 0) if kind is None else kind
    payload = b"" if key is None else struct.pack("!I", key) + b"\xee" * (size - 4)
    message = struct.pack("!BBHHH", kind, 0, 0, identifier, sequence) + payload
    checksum = icmp6_checksum(far, near, message) if ipv6 else inet_checksum(message)
    message = message[:2] + struct.pack("!H", checksum if good_sum else checksum ^ 0x5555) + message[4:]
    return target.frame(ETH_IPV6 if ipv6 else ETH_IPV4, ip_packet(far, near, message))


# Keys that a probe might have, so that the daemon has to look them up; a test's probes do not come that far.
UNUSED_KEYS = (0x4000, 0x5A5A, 0x7FFD, 0x7FFE)
# Those that no probe ever has.
IMPOSSIBLE_KEYS = (0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x7FFFFFFF, 0xFFFFFFFF, 0xDEAD0001, 0x01000000)


def foreign_echo_flood(target, ipv6):
    """Too short, up to the MTU, with wrong sums and types, of strangers and of the target: keys that no probe has."""
    head = 54 if ipv6 else 34
    largest = 1500 - (40 if ipv6 else 20) - 8
    frames = []
    for key, stranger in zip(UNUSED_KEYS + IMPOSSIBLE_KEYS, addresses(12, ipv6)):
        for source in (None, stranger):
            whole = echo_reply(target, ipv6, key, source=source)
            frames += [whole, whole[:head], whole[:head + 3], whole[:head + 8], whole[:head + 11],
                       echo_reply(target, ipv6, None, source=source),
                       echo_reply(target, ipv6, key, source=source, size=largest),
                       echo_reply(target, ipv6, key, source=source, size=500),
                       echo_reply(target, ipv6, key, source=source, good_sum=False),
                       echo_reply(target, ipv6, key, source=source, identifier=0),
                       echo_reply(target, ipv6, key, source=source, sequence=0xFFFF),
                       echo_reply(target, ipv6, key, source=source, kind=200)]
    return _mixed(frames)


def matching_echo_flood(target, ipv6, keys):
    """Replies with the keys of `keys`, from strangers and from the target, with wrong identifiers and sequences."""
    frames = []
    for key, stranger in zip(keys, itertools.cycle(addresses(8, ipv6))):
        frames += [echo_reply(target, ipv6, key), echo_reply(target, ipv6, key, source=stranger, sequence=77),
                   echo_reply(target, ipv6, key, source=stranger, size=1000)]
    return frames


# Anything else

def garbage_flood(target):
    """Fragments that never become whole, headers that lie, and protocols that nobody speaks."""
    noise = random.Random(20)
    frames = []
    for number in range(100):
        junk = noise.randbytes(noise.randrange(0, 1400))
        whole = echo_reply(target, False, 0x7FFF)[14:] + b"\xee" * 40
        # IPv4: identification and a fragment of 1480 bytes' distance, more to come.
        head = whole[:4] + struct.pack("!HH", number, 0x2000 | (number * 185 & 0x1FFF)) + whole[8:10] + b"\0\0"
        head += whole[12:20]
        head = head[:10] + struct.pack("!H", inet_checksum(head)) + head[12:]
        frames.append(target.frame(ETH_IPV4, head + whole[20:]))
        # IPv6: a fragment header (RFC 8200) before the message.
        body = echo_reply(target, True, 0x7FFF)[54:]
        piece = struct.pack("!BBHI", 58, 0, number * 8 | 1, number) + body
        packet = ip_packet(target.gateway6, target.address6, piece)
        frames.append(target.frame(ETH_IPV6, packet[:6] + b"\x2c" + packet[7:]))
        frames.append(target.frame(ETH_IPV4, b"\x4f" + whole[1:]))
        frames.append(target.frame(ETH_IPV4, b"\x41" + whole[1:]))
        frames += [target.frame(kind, junk) for kind in (ETH_IPV4, ETH_IPV6, ETH_ARP, 0x88B5, 0x8100, 0x0000)]
    return _mixed(frames)


def _mixed(frames):
    """The same frames in an order without a pattern, the same every time."""
    mixed = list(frames)
    random.Random(20).shuffle(mixed)
    return mixed
