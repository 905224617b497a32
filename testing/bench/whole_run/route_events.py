"""When the kernel changes routes, from its own notifications."""

import socket
import struct
import threading
import time

_RTM_NEWROUTE = 24
_RTA_DST, _RTA_GATEWAY = 1, 5
_GROUPS = {4: 0x40, 6: 0x400}  # RTMGRP_IPV4_ROUTE, RTMGRP_IPV6_ROUTE


def new_routes(data):
    """[(destination, gateway)] of the RTM_NEWROUTE messages in what a netlink socket got; texts, without a mask.

    A route with several ways is passed over.
    """
    found = []
    while len(data) >= 28:
        length, kind = struct.unpack_from("=IH", data)
        if length < 16 or length > len(data):
            break
        message, data = data[:length], data[(length + 3) & ~3:]
        attributes, at = {}, 28
        while kind == _RTM_NEWROUTE and at + 4 <= len(message):
            size, name = struct.unpack_from("=HH", message, at)
            if size < 4:
                break
            attributes[name] = message[at + 4:at + size]
            at += (size + 3) & ~3
        if {_RTA_DST, _RTA_GATEWAY} <= attributes.keys():
            found.append(tuple(socket.inet_ntop(message[16], attributes[name]) for name in (_RTA_DST, _RTA_GATEWAY)))
    return found


class RouteEvents:
    """`seen`: [(monotonic seconds, destination, gateway)], from the construction to `close`."""

    def __init__(self, lab, family):
        self.seen = []
        self._socket = lab.enclosure.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self._socket.bind((0, _GROUPS[family]))
        self._socket.settimeout(0.2)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        lab.closing(self)

    def _run(self):
        while not self._stop.is_set():
            try:
                data = self._socket.recv(1 << 16)
            except TimeoutError:
                continue
            now = time.monotonic()
            self.seen += [(now, *route) for route in new_routes(data)]

    def close(self):
        self._stop.set()
        self._thread.join()
        self._socket.close()
