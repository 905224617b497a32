"""A capture of what crosses one interface of the lab, with time stamps of the kernel.

Frames are recorded raw; `decode` hands them to scapy, which knows nothing of the daemon's code.
"""

import select
import socket
import threading

from . import stamps, waiting

ETH_P_ALL = 0x0003
PACKET_OUTGOING = 4


class Frame:
    """`when`: seconds of the wall clock; `outgoing`: sent by the machine that the interface belongs to."""

    def __init__(self, when, outgoing, data, ethernet):
        self.when, self.outgoing, self.data, self._ethernet = when, outgoing, data, ethernet

    def decode(self):
        # Slow to import, and only tests that look into packets need it.
        # pylint: disable=import-outside-toplevel
        from scapy.layers.inet import IP
        from scapy.layers.inet6 import IPv6
        from scapy.layers.l2 import Ether
        if self._ethernet:
            return Ether(self.data)
        return IPv6(self.data) if self.data[0] >> 4 == 6 else IP(self.data)

    def __repr__(self):
        return f"<{self.when:.6f} {'out' if self.outgoing else 'in'} {self.data.hex()}>"


class Sniffer:
    def __init__(self, enclosure, interface, netns=None, ethernet=True):
        self.frames = []
        self._ethernet = ethernet
        self._socket = enclosure.socket(socket.AF_PACKET, socket.SOCK_RAW, ETH_P_ALL, netns, interface)
        stamps.enable(self._socket)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self._busy = threading.Lock()
        self._stop_read, self._stop_write = socket.socketpair()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        poller = select.poll()
        poller.register(self._socket, select.POLLIN)
        poller.register(self._stop_read, select.POLLIN)
        while True:
            ready = dict(poller.poll())
            if self._stop_read.fileno() in ready:
                return
            with self._busy:
                self._read_one()

    def _read_one(self):
        try:
            data, address, when = stamps.receive(self._socket)
        except OSError:  # The interface went down or away; there may be more later.
            return
        self.frames.append(Frame(when, address[2] == PACKET_OUTGOING, data, self._ethernet))

    def settle(self):
        """Waits until every frame that has crossed the interface is recorded."""
        poller = select.poll()
        poller.register(self._socket, select.POLLIN)
        waiting.wait_until(lambda: not poller.poll(0), "the capture", interval=0.002)
        with self._busy:
            pass

    def select(self, condition, since=0):
        """The frames so far that `condition` accepts."""
        self.settle()
        return self._select(condition, since)

    def _select(self, condition, since):
        return [frame for frame in self.frames[since:] if condition(frame)]

    def wait_for(self, condition, timeout=waiting.PATIENCE, count=1, since=0, what="frame"):
        """Waits for `count` frames that `condition` accepts and returns all that came."""
        waiting.wait_until(lambda: len(self._select(condition, since)) >= count,
                           lambda: f"{count} x {what}; seen: {self.frames[-20:]}", timeout=timeout)
        return self._select(condition, since)

    def close(self):
        self._stop_write.close()
        self._thread.join()
        self._socket.close()
        self._stop_read.close()


def ether_type(frame):
    return int.from_bytes(frame.data[12:14], "big")


def is_arp_request(frame):
    return ether_type(frame) == 0x0806 and frame.data[20:22] == b"\0\1"


def is_arp_reply(frame):
    return ether_type(frame) == 0x0806 and frame.data[20:22] == b"\0\2"


def is_echo_request(frame):
    """An ICMP echo request in an Ethernet frame, to whomever."""
    return ether_type(frame) == 0x0800 and frame.data[23] == 1 and frame.data[34] == 8


def is_echo_reply(frame):
    return ether_type(frame) == 0x0800 and frame.data[23] == 1 and frame.data[34] == 0


def is_echo6_request(frame):
    return ether_type(frame) == 0x86DD and frame.data[20] == 58 and frame.data[54] == 128


def is_echo6_reply(frame):
    return ether_type(frame) == 0x86DD and frame.data[20] == 58 and frame.data[54] == 129


def is_solicitation(frame):
    return ether_type(frame) == 0x86DD and frame.data[20] == 58 and frame.data[54] == 135


def is_advertisement(frame):
    return ether_type(frame) == 0x86DD and frame.data[20] == 58 and frame.data[54] == 136


def asked_for(frame):
    """The packed address whose hardware address a question is for; None if the frame is no question."""
    if is_arp_request(frame):
        return frame.data[38:42]
    return frame.data[62:78] if is_solicitation(frame) else None


def echo_key(frame):
    """The number by which the daemon knows an echo request of either family again."""
    start = 62 if ether_type(frame) == 0x86DD else 42
    return int.from_bytes(frame.data[start:start + 4], "big")


def answered_resolutions(frames, ipv6=False):
    """Questions for a hardware address that came in and were then answered from this side."""
    is_question, is_answer = (is_solicitation, is_advertisement) if ipv6 else (is_arp_request, is_arp_reply)
    told = slice(62, 78) if ipv6 else slice(28, 32)
    return [question for number, question in enumerate(frames) if is_question(question) and not question.outgoing
            and any(is_answer(frame) and frame.outgoing and frame.data[told] == asked_for(question)
                    for frame in frames[number + 1:])]


def destination(frame):
    """Text of the IP destination of an Ethernet frame."""
    if ether_type(frame) == 0x86DD:
        return socket.inet_ntop(socket.AF_INET6, frame.data[38:54])
    return socket.inet_ntop(socket.AF_INET, frame.data[30:34])
