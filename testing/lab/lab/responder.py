"""A far end with a will of its own: answers ARP, neighbour solicitations and echo requests as told.

It sits on a raw packet socket of an interface without addresses, so that no kernel answers in its place,
and runs as a thread of the test: what it does is changed by assigning to its attributes at any time, and
`echo` may be any function. Plain byte work only, so that an answer leaves well below a millisecond.
"""

import fcntl
import heapq
import select
import socket
import struct
import threading
import time

from . import stamps, waiting

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4
SIOCGIFHWADDR = 0x8927


def inet_checksum(data):
    """RFC 1071, as a number to be stored in network byte order."""
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def icmp6_checksum(source, target, message):
    return inet_checksum(source + target + struct.pack("!II", len(message), 58) + message)


class Echo:
    """One echo request on its way to a decision. Reply with `reply(...)`, any number of times.

    `when` it came in, on the monotonic clock.
    """

    def __init__(self, ipv6, source, target, identifier, sequence, payload, number, when):
        self.ipv6, self.source, self.target = ipv6, source, target
        self.identifier, self.sequence, self.payload = identifier, sequence, payload
        self.number = number  # 0 for the first request that the responder saw
        self.key = int.from_bytes(payload[:4], "big")
        self.when = when

    def message(self, **changes):
        """The ICMP message of the reply. Changes: type, code, identifier, sequence, payload, source, checksum."""
        fields = {"type": 129 if self.ipv6 else 0, "code": 0, "identifier": self.identifier,
                  "sequence": self.sequence, "payload": self.payload, "source": self.target,
                  "checksum": None, **changes}
        head = struct.pack("!BBHHH", fields["type"], fields["code"], 0, fields["identifier"],
                           fields["sequence"])
        body = head + fields["payload"]
        checksum = fields["checksum"]
        if checksum is None:
            checksum = (icmp6_checksum(address_bytes(fields["source"]), address_bytes(self.source), body)
                        if self.ipv6 else inet_checksum(body))
        return body[:2] + struct.pack("!H", checksum) + body[4:]

    def reply(self, **changes):
        """The whole IP packet of the reply. Further changes: truncate (bytes that are left of the message)."""
        truncate = changes.pop("truncate", None)
        message = self.message(**changes)[:truncate]
        source = address_bytes(changes.get("source", self.target))
        return ip_packet(source, address_bytes(self.source), message)


def address_bytes(text):
    return socket.inet_pton(socket.AF_INET6 if ":" in text else socket.AF_INET, text)


def ip_packet(source, target, message):
    """An ICMP or ICMPv6 message in its IP header; the family follows from the length of `source`."""
    if len(source) == 16:
        return struct.pack("!IHBB", 0x60000000, len(message), 58, 255) + source + target + message
    head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(message), 0, 0, 64, 1, 0) + source + target
    return head[:10] + struct.pack("!H", inet_checksum(head)) + head[12:] + message


def parse_echo(packet, number, when):
    """An Echo for the bytes of an IP packet, or None when it is no echo request."""
    if packet[0] >> 4 == 4 and packet[9] == 1 and packet[20] == 8:
        length = int.from_bytes(packet[2:4], "big")
        source, target, message = packet[12:16], packet[16:20], packet[20:length]
        family = socket.AF_INET
    elif packet[0] >> 4 == 6 and packet[6] == 58 and packet[40] == 128:
        length = int.from_bytes(packet[4:6], "big")
        source, target, message = packet[8:24], packet[24:40], packet[40:40 + length]
        family = socket.AF_INET6
    else:
        return None
    identifier, sequence = struct.unpack("!HH", message[4:8])
    return Echo(family == socket.AF_INET6, socket.inet_ntop(family, source), socket.inet_ntop(family, target),
                identifier, sequence, message[8:], number, when)


class EchoPolicy:
    """What is done with echo requests; shared by the responder and the tun peer.

    echo: None never answers; otherwise a function of an Echo that returns None (no answer), bytes (an IP packet
    to send now), or a list of (delay in seconds, bytes).
    """

    def __init__(self):
        self.echo = lambda request: request.reply()
        self.requests = []  # every Echo seen, in order

    def decide(self, packet, when):
        request = parse_echo(packet, len(self.requests), when)
        if request is None:
            return []
        self.requests.append(request)
        policy = self.echo
        answer = policy(request) if policy else None
        if answer is None:
            return []
        return [(0.0, answer)] if isinstance(answer, bytes) else answer

    def delay(self, seconds):
        self.echo = lambda request: [(seconds, request.reply())]

    def drop(self, *numbers, of=None):
        """Leaves requests unanswered: those numbers, counted modulo `of` when given."""
        lost = set(numbers)
        self.echo = lambda request: (None if (request.number % of if of else request.number) in lost
                                     else request.reply())

    def wait_pace(self, at_least, below, since=0):
        """Waits for two requests in a row that are less than `below` apart; none is closer than `at_least`.

        A busy machine puts many of them further apart, but not all.
        """

        def gaps():
            times = [request.when for request in self.requests[since:]]
            return [later - earlier for earlier, later in zip(times, times[1:])]

        waiting.wait_until(lambda: min(gaps(), default=below) < below,
                           lambda: f"two requests less than {below} s apart; seen {gaps()}", timeout=60)
        assert min(gaps()) >= at_least, gaps()

    def wait_requests(self, count, timeout=waiting.PATIENCE, since=0):
        waiting.wait_until(lambda: len(self.requests) - since >= count,
                           lambda: f"{count} echo requests; seen {len(self.requests) - since}", timeout=timeout)
        return self.requests[since:]


class Loop:
    """A thread that reads from one descriptor and writes answers, some of them later."""

    def __init__(self, descriptor, handle, write):
        self._descriptor, self._handle, self._write = descriptor, handle, write
        self._later, self._counter = [], 0
        self._stop_read, self._stop_write = socket.socketpair()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        poller = select.poll()
        poller.register(self._descriptor, select.POLLIN)
        poller.register(self._stop_read, select.POLLIN)
        while True:
            wait = None
            if self._later:
                wait = max(0.0, (self._later[0][0] - time.monotonic()) * 1000)
            ready = dict(poller.poll(wait))
            if self._stop_read.fileno() in ready:
                return
            if ready:
                for delay, data in self._handle():
                    if delay <= 0:
                        self._write(data)
                    else:
                        self._counter += 1
                        heapq.heappush(self._later, (time.monotonic() + delay, self._counter, data))
            while self._later and self._later[0][0] <= time.monotonic():
                self._write(heapq.heappop(self._later)[2])

    def stop(self):
        self._stop_write.close()
        self._thread.join()
        self._stop_read.close()


class Responder(EchoPolicy):
    """Attributes to assign to: silent (answer nothing at all), answer_arp and answer_nd (True, False or a set of
    addresses), arp_mac and nd_mac (bytes, what is claimed), echo (EchoPolicy).
    Records: arp_requests and solicitations (texts of the addresses asked for)."""

    def __init__(self, enclosure, interface, netns):
        super().__init__()
        self.silent = False
        self.answer_arp, self.answer_nd = True, True
        self.arp_requests, self.solicitations = [], []
        self._socket = enclosure.socket(socket.AF_PACKET, socket.SOCK_RAW, ETH_P_ALL, netns, interface)
        stamps.enable(self._socket)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        request = fcntl.ioctl(self._in_netns_socket(enclosure, netns), SIOCGIFHWADDR,
                              struct.pack("16s16x8x", interface.encode()))
        self.mac = request[18:24]
        self.arp_mac = self.nd_mac = self.mac
        self._loop = Loop(self._socket.fileno(), self._handle, self.send_frame)

    @staticmethod
    def _in_netns_socket(enclosure, netns):
        return enclosure.socket(socket.AF_INET, socket.SOCK_DGRAM, 0, netns)

    def become(self, mac):
        """From now on it is another machine, with that hardware address (bytes)."""
        self.mac = self.arp_mac = self.nd_mac = mac

    def send_frame(self, frame):
        try:
            self._socket.send(frame)
        except OSError:  # The link is cut: a far end does not notice either.
            pass

    def send_packet(self, to_mac, packet):
        kind = 0x86DD if packet[0] >> 4 == 6 else 0x0800
        self.send_frame(to_mac + self.mac + struct.pack("!H", kind) + packet)

    def _handle(self):
        try:
            frame, address, when = stamps.receive(self._socket)
        except OSError:
            return []
        if address[2] == PACKET_OUTGOING or self.silent:
            return []
        kind = frame[12:14]
        is_heard = frame[0] & 1 or frame[:6] in (self.mac, self.arp_mac, self.nd_mac)
        if kind == b"\x08\x06":
            return self._arp(frame) if is_heard else []
        if kind == b"\x86\xdd" and frame[20] == 58 and frame[54] == 135:
            return self._neighbour(frame) if is_heard else []
        # A link without ARP carries the sender's own address as the destination.
        if kind in (b"\x08\x00", b"\x86\xdd") and frame[:6] in (self.mac, frame[6:12]):
            head = frame[6:12] + self.mac + kind
            return [(delay, head + packet) for delay, packet in self.decide(frame[14:], stamps.monotonic_of(when))]
        return []

    @staticmethod
    def _wanted(rule, address):
        return rule if isinstance(rule, bool) else address in rule

    def _arp(self, frame):
        if frame[20:22] != b"\0\1":
            return []
        wanted = frame[38:42]
        self.arp_requests.append(socket.inet_ntoa(wanted))
        if not self._wanted(self.answer_arp, socket.inet_ntoa(wanted)):
            return []
        asker = frame[22:28]
        return [(0.0, arp_reply(asker, frame[28:32], self.arp_mac, wanted, self.mac))]

    def _neighbour(self, frame):
        wanted = frame[62:78]
        text = socket.inet_ntop(socket.AF_INET6, wanted)
        self.solicitations.append(text)
        if not self._wanted(self.answer_nd, text) or frame[22:38] == bytes(16):
            return []
        return [(0.0, advertisement(frame[6:12], frame[22:38], self.nd_mac, wanted, self.mac))]

    def close(self):
        self._loop.stop()
        self._socket.close()


def answer(to_mac, to_address, mac, address, from_mac=None):
    """The one or the other of what follows, by the family of the addresses, which are texts."""
    make = advertisement if ":" in address else arp_reply
    return make(to_mac, address_bytes(to_address), mac, address_bytes(address), from_mac)


def arp_reply(to_mac, to_address, mac, address, from_mac=None):
    """An ARP reply frame: `mac` and the packed `address` are what it claims."""
    return (to_mac + (from_mac or mac) + struct.pack("!HHHBBH", 0x0806, 1, 0x0800, 6, 4, 2) + mac + address
            + to_mac + to_address)


def advertisement(to_mac, to_address, mac, address, from_mac=None):
    """A solicited neighbour advertisement for the packed `address`, with the target's link-layer address option."""
    message = struct.pack("!BBHI", 136, 0, 0, 0x60000000) + address + b"\x02\x01" + mac
    message = message[:2] + struct.pack("!H", icmp6_checksum(address, to_address, message)) + message[4:]
    return to_mac + (from_mac or mac) + b"\x86\xdd" + ip_packet(address, to_address, message)
