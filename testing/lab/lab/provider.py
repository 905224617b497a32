"""An Internet provider: a far end with a real DHCP and router advertisement server, and targets behind its gateway.

    router wanN -------- fN farN: the gateway's addresses, dnsmasq; on its loopback 198.51.100.N and
                                  2001:db8:ff::N (this provider's) and 203.0.113.80 (everybody's)

The router's side has no address: a client gets one, or the scenario gives it. What is behind the gateway answers no
link-local address, since no router forwards that (RFC 4291, 2.5.6).
"""

from . import network, waiting

COMMON_TARGET = "203.0.113.80"

_FORWARDS_NO_LINK_LOCAL = """table ip6 provider {
chain receive {
type filter hook input priority 0;
ip6 saddr fe80::/10 ip6 daddr 2001:db8:ff::/48 drop
}
}"""


class Provider(network.Uplink):
    """`address` and `gateway` are those of network.Uplink unless told otherwise; cut() and restore() are its."""

    def __init__(self, lab, number, gateway=None, ipv6=False):
        """gateway: ADDRESS/LENGTH of IPv4. ipv6: the router's side may have IPv6; its gateway is fe80::1."""
        super().__init__(lab, number, f"wan{number}", None)
        self.target, self.target6 = f"198.51.100.{number}", f"2001:db8:ff::{number}"
        self.server = None
        lab.add_netns(self.far)
        self.ip(f"link add {self.far_name} address {self.far_mac} type veth peer name {self.name} address {self.mac}"
                " netns 1")
        self.ip(f"link set {self.far_name} addrgenmode none", f"link set {self.far_name} up",
                *[f"addr add {address} dev lo" for address in (self.target, self.target6, COMMON_TARGET)])
        self._machines = 0
        self.change_gateway(gateway or f"{self.gateway}/24")
        if ipv6:
            self.ip(f"addr add fe80::1/64 dev {self.far_name} nodad")
            lab.nft(_FORWARDS_NO_LINK_LOCAL, netns=self.far)
        else:
            lab.sysctl(f"net.ipv6.conf.{self.name}.disable_ipv6=1")
        lab.ip(f"link set {self.name} up")

    def ip(self, *lines):
        return self.lab.ip(*lines, netns=self.far)

    def change_gateway(self, *addresses):
        """The gateway is another machine, with these addresses (ADDRESS/LENGTH) of IPv4 and no others."""
        if self._machines:
            self.far_mac = f"02:00:00:00:{self.number:02x}:{0x10 + self._machines:02x}"
        self._machines += 1
        self.ip(f"-4 addr flush dev {self.far_name}")
        self.ip(f"link set {self.far_name} address {self.far_mac}",
                *[f"addr add {address} dev {self.far_name}" for address in addresses])

    def serve(self, first, last, router, *more):
        """(Re)starts the DHCP server: the addresses it gives, the router it names, further lines for dnsmasq.

        Clients renew after seconds, unlike their lease, which is 2 minutes: dnsmasq knows none shorter.
        """
        self._start([f"dhcp-range={first},{last},2m", f"dhcp-option=option:router,{router}",
                     "dhcp-option=option:T1,3", "dhcp-option=option:T2,5", *more])

    def advertise(self, prefix, *more):
        """(Re)starts the server as one that sends router advertisements for a /64; `prefix` is like 2001:db8:1::"""
        self.ip(f"addr replace {prefix}1/64 dev {self.far_name} nodad")
        self._start(["enable-ra", f"ra-param={self.far_name},4,60", f"dhcp-range={prefix},ra-only,64,2m", *more])

    def disown(self, prefix):
        """What is behind the gateway answers this IPv6 prefix no longer."""
        self.lab.nft("table ip6 provider {\nchain receive {\n"
                     f"ip6 saddr {prefix} ip6 daddr 2001:db8:ff::/48 drop\n}}\n}}", netns=self.far)

    def _start(self, lines):
        self.stop_server()
        self.lab.write(f"dnsmasq{self.number}.conf", "\n".join([
            "port=0", f"interface={self.far_name}", "no-ping", "dhcp-authoritative", "log-dhcp", "log-facility=-",
            f"dhcp-leasefile={self.lab.path(f'dnsmasq{self.number}.leases')}", *lines, ""]))
        # In the foreground it keeps the user, too, whom a user namespace could not change.
        self.server = self.lab.enclosure.spawn(
            ["dnsmasq", "--no-daemon", "-C", self.lab.path(f"dnsmasq{self.number}.conf")], netns=self.far)
        waiting.wait_until(lambda: "started" in self.server.stderr or self.server.status is not None,
                           lambda: f"the DHCP server: {self.server.stderr}")
        assert self.server.status is None, self.server.stderr

    def stop_server(self, forget=False):
        """The server ends; with `forget` so does what it knew of its clients."""
        if self.server:
            self.server.signal(15)
            self.server.wait()
            self.server = None
        if forget:
            self.lab.run(["rm", "-f", self.lab.path(f"dnsmasq{self.number}.leases")])

    def server_log(self):
        return self.server.stderr if self.server else ""

    def lose(self, percent):
        """So many of the packets that come in are lost, each by chance."""
        self.lab.nft("table inet loss {\nchain receive {\ntype filter hook prerouting priority -300;\n"
                     f"numgen random mod 100 < {percent} drop\n}}\n}}", netns=self.far)

    def lose_nothing(self):
        self.lab.run(["nft", "delete", "table", "inet", "loss"], netns=self.far)
