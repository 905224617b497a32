"""Many uplinks to one far namespace whose kernel answers, and what can be done to them in one stroke.

    router wanNN 10.N.0.2 / fd00:N::2 ---- fNN 10.N.0.1 / fd00:N::1   far

From number 256 on the high byte of N stands where the 0 is. A link's near side may be in a VRF.
"""

from .configtext import route_file


class Strand:
    """One link. `arp` False: neither side resolves, and both have the same hardware address."""

    def __init__(self, number, ipv6=False, arp=True, vrf=None):
        self.number, self.ipv6, self.arp, self.vrf = number, ipv6, arp, vrf
        high, low = number >> 8, number & 255
        self.name, self.far_name = f"wan{number:02}", f"f{number:02}"
        self.address, self.gateway4 = f"10.{low}.{high}.2", f"10.{low}.{high}.1"
        self.address6, self.gateway6 = f"fd00:{number:x}::2", f"fd00:{number:x}::1"
        self.gateway = self.gateway6 if ipv6 else self.gateway4
        self.far_mac = f"02:00:00:{high:02x}:{low:02x}:01"
        self.mac = f"02:00:00:{high:02x}:{low:02x}:02" if arp else self.far_mac
        self.family = 6 if ipv6 else 4


class ManyLinks:
    """Operations take strands, any number of them, and touch all at once.

    cuts: with False nothing can be silenced, and the far end's packets pass no rules.
    """

    _AT_ONCE = 200  # links per command, which has to end in time

    def __init__(self, lab, strands, far="far", cuts=True):
        self.lab, self.far, self.strands = lab, far, list(strands)
        lab.add_netns(far)
        for netns in (None, far):
            # A link that goes down and up again keeps what an administrator gave it.
            lab.sysctl(*[f"net.ipv6.conf.{scope}.keep_addr_on_down=1" for scope in ("all", "default")], netns=netns)
        if cuts:
            self._make_cuts()
        for start in range(0, len(self.strands), self._AT_ONCE):
            self.create(*self.strands[start:start + self._AT_ONCE])

    def _make_cuts(self):
        self.lab.nft("table inet cut {\nset quiet {\ntype ifname\n}\nchain receive {\n"
                     "type filter hook prerouting priority -300;\niifname @quiet drop\n}\nset deaf {\ntype ifname\n}\n"
                     "chain echo {\ntype filter hook prerouting priority -300;\n"
                     "iifname @deaf icmp type echo-request drop\niifname @deaf icmpv6 type echo-request drop\n}\n}",
                     netns=self.far)

    def create(self, *strands):
        near, far = {}, []
        for strand in strands:
            lines = near.setdefault(strand.vrf, ["link set lo up"])
            lines.append(f"link add {strand.name} address {strand.mac} type veth peer name {strand.far_name} "
                         f"address {strand.far_mac} netns {self.far}")
            self._prepare(lines, strand.name, strand, strand.address, strand.address6)
            self._prepare(far, strand.far_name, strand, strand.gateway4, strand.gateway6)
        for vrf, lines in near.items():
            self.lab.ip(*lines, netns=vrf)
        self.lab.ip(*far, "link set lo up", netns=self.far)

    @staticmethod
    def _prepare(lines, name, strand, address, address6):
        lines.append(f"addr add {address}/24 dev {name}")
        if strand.ipv6:
            lines.append(f"addr add {address6}/64 dev {name} nodad")
        lines.append(f"link set {name} {'' if strand.arp else 'arp off '}up")

    def remove(self, *strands):
        self.lab.ip(*[f"link del {strand.name}" for strand in strands], "link set lo up")

    def near(self, state, *strands):
        """state: "up" or "down"."""
        self.lab.ip(*[f"link set {strand.name} {state}" for strand in strands], "link set lo up")

    def far_side(self, state, *strands):
        self.lab.ip(*[f"link set {strand.far_name} {state}" for strand in strands], "link set lo up", netns=self.far)

    def silence(self, *strands):
        """The far end hears nothing more; the links stay up."""
        self._change("add", "quiet", strands)

    def restore(self, *strands):
        self._change("delete", "quiet", strands)

    def deafen(self, *strands):
        """The far end answers no more probes, but is there for everything else."""
        self._change("add", "deaf", strands)

    def undeafen(self, *strands):
        self._change("delete", "deaf", strands)

    def _change(self, verb, links, strands):
        names = ", ".join(f'"{strand.far_name}"' for strand in strands)
        self.lab.nft(f"{verb} element inet cut {links} {{ {names} }}", netns=self.far)

    def sniffer(self, strand):
        return self.lab.sniffer(strand.far_name, self.far)


def over(gateways, family):
    """For RouteWatch: the file of one rule over {interface: gateway}, each with weight 1, by what is active of it."""
    prefix = "::/0" if family == 6 else "0.0.0.0/0"

    def explain(active):
        via = "".join(f" via {gateway} weight 1" for name, gateway in sorted(gateways.items()) if name in active)
        return route_file(f"route {prefix}{via};", ipv6=family == 6) if via else ""

    return explain


def explained_by(strands, family):
    return over({strand.name: strand.gateway6 if family == 6 else strand.gateway4 for strand in strands}, family)


def state_changes(lab, name, ipv6=False, since=0):
    """["inactive", "active", ...]: what the daemon logged of one interface."""
    prefix = f"IP{'v6' if ipv6 else ''} interface {name} changed state to "
    return [record.text.split(prefix)[1] for record in lab.log.matching(f"{prefix}(active|inactive)$", since)]


def flapped(times):
    """state_changes of a link that has started, and was lost and found again that many times."""
    return ["inactive", "active"] * (1 + times)
