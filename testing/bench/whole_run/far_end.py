"""What arrives at the far end: counted and stamped by its kernel, by no program that is measured."""

import socket

from lab import stamps

_ETH_P_ALL = 3
_ECHO_REQUEST = {4: 8, 6: 128}


def received_echo_requests(text, family):
    """The count in the text of /proc/net/snmp (IPv4) or /proc/net/snmp6."""
    if family == 6:
        values = dict(line.split() for line in text.splitlines() if line.strip())
        return int(values["Icmp6InEchos"])
    names, values = [line.split()[1:] for line in text.splitlines() if line.startswith("Icmp:")]
    return int(dict(zip(names, values))["InEchos"])


def is_echo_request(frame, family):
    """An Ethernet frame with one, without IPv4 options or extension headers."""
    if family == 6:
        return frame[12:14] == b"\x86\xdd" and frame[20:21] == b"\x3a" and frame[54:55] == bytes([_ECHO_REQUEST[6]])
    return frame[12:14] == b"\x08\x00" and frame[23:24] == b"\x01" and frame[34:35] == bytes([_ECHO_REQUEST[4]])


class FarEnd:
    def __init__(self, lab, netns, family):
        self._lab, self._netns, self._family = lab, netns, family

    def probes(self):
        """Echo requests that have come so far, over all links."""
        name = "/proc/net/snmp6" if self._family == 6 else "/proc/net/snmp"
        return received_echo_requests(self._lab.run(["cat", name], self._netns).stdout, self._family)

    def watch(self, strand):
        return LinkWatch(self._lab, self._netns, strand.far_name, self._family)


class LinkWatch:
    """The moments at which echo requests come by one link. Nobody reads until `close`, so nobody is woken."""

    def __init__(self, lab, netns, interface, family):
        self._family = family
        self._socket = lab.enclosure.socket(socket.AF_PACKET, socket.SOCK_RAW, _ETH_P_ALL, netns, interface)
        stamps.enable(self._socket)
        self._socket.setblocking(False)

    def close(self):
        """Seconds of the wall clock, in order."""
        moments = []
        try:
            while True:
                frame, _, when = stamps.receive(self._socket)
                if is_echo_request(frame, self._family):
                    moments.append(when)
        except BlockingIOError:
            pass
        self._socket.close()
        return moments
