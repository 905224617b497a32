"""Links of a lab: uplinks to far ends, tunnels, and the settings of its network namespaces."""

import os
import time

from . import responder, waiting


class Uplink:
    """A veth pair between the router (or a VRF) and a far end in a namespace of its own.

        router wanN 10.N.0.2 --------- 10.N.0.1 fN farN      fd00:N::2 ---- fd00:N::1
    """

    def __init__(self, lab, number, name, vrf):
        self.lab, self.number, self.name, self.vrf = lab, number, name, vrf
        self.far, self.far_name = f"far{number}", f"f{number}"
        self.address, self.gateway = f"10.{number}.0.2", f"10.{number}.0.1"
        self.address6, self.gateway6 = f"fd00:{number:x}::2", f"fd00:{number:x}::1"
        self.mac, self.far_mac = f"02:00:00:00:{number:02x}:02", f"02:00:00:00:{number:02x}:01"
        self.link_local = f"fe80::ff:fe00:{number:x}02"
        self.far_link_local = f"fe80::ff:fe00:{number:x}01"
        self.responder = None

    def wait_sending(self):
        """A moment after the link is up a kernel thread lets packets out, and gives it its link-local address."""
        def shown():
            return self.lab.ip_text(f"-br addr show {self.name}", netns=self.vrf)

        waiting.wait_until(lambda: {"UP", f"{self.link_local}/64"} <= set(shown().split()), shown)

    def sniff(self):
        """A capture at the far side."""
        return self.lab.sniffer(self.far_name, self.far)

    def cut(self):
        """The far end goes silent; the link itself stays up, so that only probing finds out."""
        if self.responder:
            self.responder.silent = True
        else:
            self.lab.cut(self.far)

    def restore(self):
        if self.responder:
            self.responder.silent = False
        else:
            self.lab.restore(self.far)


class TunPeer(responder.EchoPolicy):
    """The program behind a tun device: sees raw IP packets and may answer echo requests."""

    def __init__(self, enclosure, name, netns=None):
        super().__init__()
        self.packets = []
        self._descriptor = enclosure.tun(name, "tun", netns)
        os.set_blocking(self._descriptor, False)
        self._loop = responder.Loop(self._descriptor, self._handle, self._send)

    def _handle(self):
        try:
            packet = os.read(self._descriptor, 65536)
        except OSError:
            return []
        self.packets.append(packet)
        return self.decide(packet, time.monotonic())

    def _send(self, packet):
        try:
            os.write(self._descriptor, packet)
        except OSError:  # The device is down.
            pass

    send = _send

    def close(self):
        """Removes the device."""
        if self._descriptor >= 0:
            self._loop.stop()
            os.close(self._descriptor)
            self._descriptor = -1


def quiet_settings():
    """sysctl lines that keep a namespace's own traffic out of captures, and its addresses usable at once."""
    lines = []
    for scope in ("all", "default"):
        lines += [f"net.ipv4.conf.{scope}.rp_filter=0", f"net.ipv6.conf.{scope}.accept_dad=0",
                  f"net.ipv6.conf.{scope}.router_solicitations=0", f"net.ipv6.conf.{scope}.accept_ra=0"]
    return lines
