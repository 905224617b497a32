"""The sample firewall and settings: what each line is for, seen with it and without it. No daemon: routes by hand.

    203.0.113.80 isp1 192.0.2.1    ---- eth0 \\
                                                router: the samples ---- eth2 lan 192.168.50.2
    203.0.113.80 isp2 198.51.100.1 ---- eth1 /
"""

import os
import socket

import pytest

from lab import waiting
from lab.two_isps import SERVER, SERVER6, Flow, TwoIsps, carry_out, guide, own_directories, sample

WITH_AND_WITHOUT = pytest.mark.parametrize("line", [True, False], ids=["with", "without"])
GUIDE = "beside-the-kernel.md"


def blocks(section):
    """Of the guide's section with that number."""
    return [block for block in guide(GUIDE) if block[0].startswith(f"{section}.")]


@pytest.fixture
def network(lab):
    return TwoIsps(lab)


def test_flows_have_ports_of_their_own(network):
    """Else an answer goes to another one's socket now and then."""
    ports = [network.socket(socket.SOCK_DGRAM, "lan").getsockname()[1] for _ in range(500)]
    assert len(set(ports)) == len(ports)


def is_served(network, far, address, port, server, ipv6=False):
    """Whether a caller gets a TCP connection to the address; `server` listens. At an ISP he has an address that both
    have: by the default route his answers would go to the other one."""
    source = "" if far in ("lan", None) else SERVER6 if ipv6 else SERVER
    caller = network.socket(socket.SOCK_STREAM, far, (source, 0), ipv6)
    caller.settimeout(waiting.scaled(0.4))
    try:
        caller.connect((address, port))
    except OSError:
        return False
    server.accept()[0].close()
    return True


def wait_served(network, *call, **keywords):
    waiting.wait_until(lambda: is_served(network, *call, **keywords), f"an answer to {call}")


# The settings


def test_settings_are_those_of_the_sample(lab, network):
    """By the guide's own commands."""
    del network
    own_directories(lab, "sysctl.d")
    carry_out(lab, blocks(1))
    settings = [line.split(" = ") for line in sample("sysctl/60-wan-lb.conf").splitlines() if " = " in line[:60]]
    assert len(settings) == 12
    for name, value in settings:
        assert lab.run(["sysctl", "-n", name]).stdout.strip() == value, name


@pytest.mark.parametrize("line", ["with", "eth1.rp_filter = 2"])
def test_standby_uplink_is_heard(lab, network, line):
    """Strict as a system may have it: the sample's lines change that."""
    lab.sysctl("net.ipv4.conf.all.rp_filter=1", "net.ipv4.conf.eth0.rp_filter=1", "net.ipv4.conf.eth1.rp_filter=1")
    network.settings(*[] if line == "with" else [line])
    network.firewall()
    network.rules()
    network.route(network.isps[0])
    server = network.listen(None, ("", 22))
    wait_served(network, "isp1", "192.0.2.10", 22, server)
    if line == "with":
        wait_served(network, "isp2", "198.51.100.10", 22, server)
    else:
        assert not is_served(network, "isp2", "198.51.100.10", 22, server)


def test_larger_value_of_all_counts(lab, network):
    """Why the sample sets it."""
    network.settings("all.rp_filter")
    lab.sysctl("net.ipv4.conf.all.rp_filter=1", "net.ipv4.conf.eth1.rp_filter=0")
    network.firewall()
    network.rules()
    network.route(network.isps[0])
    server = network.listen(None, ("", 22))
    assert not is_served(network, "isp2", "198.51.100.10", 22, server)
    lab.sysctl("net.ipv4.conf.all.rp_filter=0")
    wait_served(network, "isp2", "198.51.100.10", 22, server)


@WITH_AND_WITHOUT
@pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])
def test_connections_are_spread(lab, network, ipv6, line):
    """Of one client with one server."""
    family = "ipv6" if ipv6 else "ipv4"
    network.settings(*[] if line else [f"net.{family}.fib_multipath_hash_policy"])
    # Hosts that give all their packets one flow label.
    lab.sysctl("net.ipv6.auto_flowlabels=0", netns="lan")
    network.firewall()
    network.route(*network.isps, family=6 if ipv6 else 4)
    source = network.isps[0].prefix + "2" if ipv6 else ""
    seen = set()
    for _ in range(30):
        flow = Flow(network, source, ipv6)
        heard = flow.send()
        seen.add(heard[0])
        for made in (flow.client, *flow.servers.values()):
            made.close()
        if len(seen) == 2:
            break
    assert len(seen) == (2 if line else 1)


def test_ipv6_flow_labels_spread_too(network):
    """As hosts usually give them, one for each connection; without the setting."""
    network.settings("net.ipv6.fib_multipath_hash_policy")
    network.firewall()
    network.route(*network.isps, family=6)
    flow = Flow(network, network.isps[0].prefix + "2", ipv6=True)
    seen = set()

    def both_have_heard():
        flow.client = network.socket(socket.SOCK_DGRAM, "lan", (network.isps[0].prefix + "2", 0), ipv6=True)
        heard = flow.send()
        seen.add(heard and heard[0])
        return seen >= {"isp1", "isp2"}

    waiting.wait_until(both_have_heard, lambda: f"both to hear; {seen} did")


@pytest.mark.parametrize("strict", [True, False], ids=["strict", "sample"])
def test_strict_rule_for_ipv6(lab, network, strict):
    """What rp_filter is for IPv4: callers of the uplink that the routes do not use are not heard."""
    network.settings()
    network.firewall()
    if strict:
        lab.nft("table ip6 strict {\nchain receive {\ntype filter hook prerouting priority mangle + 10;\n"
                "fib saddr . iif oif missing drop\n}\n}")
    network.rules()
    network.route(network.isps[0], family=6)
    server = network.listen(None, ("", 22), ipv6=True)
    wait_served(network, "isp1", "2001:db8:1::10", 22, server, ipv6=True)
    if strict:
        assert not is_served(network, "isp2", "2001:db8:2::10", 22, server, ipv6=True)
    else:
        wait_served(network, "isp2", "2001:db8:2::10", 22, server, ipv6=True)


@WITH_AND_WITHOUT
@pytest.mark.parametrize("family", [4, 6])
def test_pulled_cable(lab, network, family, line):
    """The near end has no carrier; nobody withdraws the routes."""
    network.settings(*[] if line else [f"net.ipv{family}.conf.all.ignore_routes_with_linkdown",
                                       *["ipv6.conf.default.ignore_routes"] * (family == 6)])
    network.rules()
    network.route(*network.isps, family=family)
    lab.ip("link set f1 down", netns="isp1")
    waiting.wait_until(lambda: "NO-CARRIER" in lab.ip_text("link show eth0"), "no carrier")
    ways = {lab.ip_text(f"-{family} route get {prefix}{number}").split(" dev ")[1].split()[0]
            for number in range(1, 33) for prefix in (["2001:db8:99::"] if family == 6 else ["203.0.114."])}
    marked = lab.ip_text(f"-{family} route get {SERVER6 if family == 6 else SERVER} mark 1")
    if line:
        assert ways == {"eth1"} and " dev eth1 " in marked
    else:
        assert "eth0" in ways and " dev eth0 " in marked


# Rules and marks


def test_guides_firewall_may_be_loaded_again(lab, network):
    """By the guide's own commands; another table stays as it is."""
    del network
    if os.path.lexists(lab.path("etc/nftables.conf")):
        lab.hide("nftables.conf")
    lab.nft("table inet another {\n}")
    carry_out(lab, blocks(3))
    once = lab.run(["nft", "list", "ruleset"]).stdout
    carry_out(lab, blocks(3))
    assert lab.run(["nft", "list", "ruleset"]).stdout == once
    assert "table inet another" in once and 'iifname "eth0" ct state new' in once


@pytest.mark.parametrize("missing,served", [
    ([], True), (["ct mark set 2"], False), (["ct mark != 0 meta mark set ct mark"], False)])
@pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])
def test_own_answers_leave_by_the_uplink_that_was_asked(network, ipv6, missing, served):
    """The default route leads by the other one."""
    network.settings()
    network.firewall(*missing)
    network.rules()
    network.route(network.isps[0], family=6 if ipv6 else 4)
    server = network.listen(None, ("", 22), ipv6)
    address = network.isps[1].address6 if ipv6 else "198.51.100.10"
    if served:
        wait_served(network, "isp2", address, 22, server, ipv6=ipv6)
    else:
        assert not is_served(network, "isp2", address, 22, server, ipv6=ipv6)


def test_port_is_closed_for_who_is_not_let_in(network):
    """The firewall is a firewall: the sample's line opens port 22, and no other is."""
    network.settings()
    network.firewall("tcp dport 22 accept")
    network.route(network.isps[0])
    server = network.listen(None, ("", 22))
    assert not is_served(network, "isp1", "192.0.2.10", 22, server)
    wait_served(network, "lan", "192.168.50.1", 22, server)


@pytest.mark.parametrize("missing", [[], ["dnat ip to"], ["ct status dnat accept"],
                                     ["iifname != $uplinks meta mark set ct mark"]], ids=str)
def test_port_forward_by_both_uplinks(network, missing):
    network.settings()
    network.firewall(*missing)
    network.rules()
    network.route(network.isps[0])
    server = network.listen("lan", ("", 8443))
    # By the uplink of the default route it needs no marks.
    if not missing or "mark" in missing[0]:
        wait_served(network, "isp1", "192.0.2.10", 8443, server)
    if not missing:
        wait_served(network, "isp2", "198.51.100.10", 8443, server)
    else:
        assert not is_served(network, "isp2", "198.51.100.10", 8443, server)


@WITH_AND_WITHOUT
def test_rules_by_source_address(lab, network, line):
    """Without marks: enough for the router itself, not for a port forward."""
    network.settings()
    network.firewall("ct mark")
    tables, by_source = blocks(2)
    carry_out(lab, [tables, by_source] if line else [tables])
    network.route(network.isps[0])
    server = network.listen(None, ("", 22))
    if line:
        wait_served(network, "isp2", "198.51.100.10", 22, server)
    else:
        assert not is_served(network, "isp2", "198.51.100.10", 22, server)
    assert not is_served(network, "isp2", "198.51.100.10", 8443, network.listen("lan", ("", 8443)))


@WITH_AND_WITHOUT
def test_connected_networks_come_first(lab, network, line):
    """A client of the LAN asks the router by an uplink's address, and gets its answer."""
    network.settings()
    network.firewall()
    network.rules(*[] if line else ["suppress_prefixlength"])
    carry_out(lab, blocks(2)[1:])
    network.route(network.isps[0])
    server = network.listen(None, ("", 22))
    if line:
        wait_served(network, "lan", "192.0.2.10", 22, server)
    else:
        assert not is_served(network, "lan", "192.0.2.10", 22, server)


def test_table_without_a_usable_route(lab, network):
    """The lookup goes on to the load balancer's routes."""
    network.rules()
    network.route(network.isps[1])
    assert " dev eth0 " in lab.ip_text(f"route get {SERVER} mark 1")
    lab.ip("link set eth0 down")
    assert " dev eth1 " in lab.ip_text(f"route get {SERVER} mark 1")


# Source addresses and existing connections


NO_PINS = ["oifname $wan1 ct state new", "oifname $wan2 ct state new"]
FIRST, SECOND = ("isp1", "192.0.2.10"), ("isp2", "198.51.100.10")


def answered_flow(network, isp, expected, *missing):
    """A flow that the ISP has answered, before the routes switch."""
    network.settings()
    network.firewall(*missing)
    network.rules()
    network.route(isp)
    flow = Flow(network)
    flow.wait(expected)
    assert flow.answered()
    return flow


def flow_by_the_first(network, *missing):
    return answered_flow(network, network.isps[0], FIRST, *missing)


def test_masquerading_at_a_switch(network):
    """The packet that leaves by another device ends the old connection and is lost; the next one is a new one."""
    flow = flow_by_the_first(network, *NO_PINS)
    network.route(network.isps[1])
    assert flow.send(0.4) is None
    assert flow.send() == SECOND and flow.answered()


def test_masquerading_when_the_address_goes(lab, network):
    flow = flow_by_the_first(network, *NO_PINS)
    assert "192.0.2.10" in lab.run(["conntrack", "-L", "-p", "udp"]).stdout
    lab.ip("addr del 192.0.2.10/24 dev eth0")
    waiting.wait_until(lambda: "192.0.2.10" not in lab.run(["conntrack", "-L", "-p", "udp"]).stdout,
                       "the connection to be forgotten")
    del flow


def test_fixed_address_at_a_switch(lab, network):
    """The old address by the new uplink, until it is flushed by the guide's command."""
    flow = flow_by_the_first(network, *NO_PINS)
    carry_out(lab, blocks(4))
    network.route(network.isps[0])
    fixed = Flow(network)
    fixed.wait(FIRST)
    assert fixed.answered()
    network.route(network.isps[1])
    for _ in range(3):
        assert fixed.send() == ("isp2", "192.0.2.10")
        assert not fixed.answered(0.2)
    by_address = [block for block in blocks(5) if "reply-dst" in block[2]]
    carry_out(lab, by_address)
    fixed.wait(SECOND)
    assert fixed.answered()
    del flow


@pytest.mark.parametrize("flush", ["-m 1", "--reply-dst"])
def test_connection_stays_until_it_is_flushed(lab, network, flush):
    """With the marks of goes_out; the guide's commands flush it."""
    flow = flow_by_the_first(network)
    network.route(network.isps[1])
    assert flow.send() == FIRST and flow.answered()
    command, = [block for block in blocks(5) if f"conntrack -D {flush}" in block[2]]
    carry_out(lab, [command])
    assert flow.send() == SECOND and flow.answered()
    # Status 1 says that there was none.
    assert lab.run(["sh", "-c", command[2]], check=False).status == 1


@pytest.mark.parametrize("missing", [[], NO_PINS], ids=["with", "without"])
def test_connections_stay_when_an_uplink_comes_back(network, missing):
    """Of twenty flows by the second uplink, none is moved; without the marks half of them are."""
    flow = answered_flow(network, network.isps[1], SECOND, *missing)
    clients = [flow.client, *[network.socket(socket.SOCK_DGRAM, "lan") for _ in range(19)]]
    heard = []
    for client in clients:
        flow.client = client
        client.setblocking(False)
        heard.append(flow.send())
        assert flow.answered()
    assert heard == [SECOND] * 20
    network.route(*network.isps)
    heard = []
    for client in clients:
        flow.client = client
        heard.append(flow.send(0.2 if missing else waiting.PATIENCE))
        if heard[-1] != SECOND:
            break
    assert (heard == [SECOND] * 20) == (not missing), heard


@pytest.mark.parametrize("line", [True, False], ids=["with", "without"])
def test_tcp_connection_is_ended(lab, network, line):
    """After a flush the client is told with its next packet, also where the server's firewall is silent."""
    network.settings()
    network.firewall(*[] if line else ["reject with tcp reset"])
    network.rules()
    network.route(network.isps[0])
    servers = [network.listen(isp.far, (SERVER, 80)) for isp in network.isps]
    client = network.socket(socket.SOCK_STREAM, "lan")
    client.connect((SERVER, 80))
    with servers[0].accept()[0] as served:
        client.sendall(b"x")
        assert served.recv(1) == b"x"
        network.isps[0].cut()
        network.route(network.isps[1])
        lab.nft("table ip strict {\nchain input {\ntype filter hook input priority 0;\ntcp flags & syn == 0 drop\n}\n}",
                netns="isp2")
        lab.run(["conntrack", "-D", "-m", "1"])
        client.sendall(b"x")
        client.settimeout(waiting.scaled(waiting.PATIENCE if line else 0.7))
        with pytest.raises(ConnectionResetError if line else TimeoutError):
            client.recv(1)


# The rest of the firewall


@WITH_AND_WITHOUT
def test_maximum_segment_size(lab, network, line):
    """An uplink with a smaller MTU than the LAN: both ends send what fits."""
    network.settings()
    network.firewall(*[] if line else ["maxseg"])
    network.route(network.isps[0])
    lab.ip("link set eth0 mtu 1400")
    server = network.listen("isp1", (SERVER, 80))
    client = network.socket(socket.SOCK_STREAM, "lan")
    client.connect((SERVER, 80))
    with server.accept()[0] as served:
        # Without the time stamps' 12 bytes, which are part of each segment.
        sizes = [end.getsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG) for end in (client, served)]
    assert sizes == ([1400 - 40 - 12] * 2 if line else [1500 - 40 - 12] * 2)


@WITH_AND_WITHOUT
def test_answer_to_a_dhcpv6_client(network, line):
    """It asks a multicast address, and is answered from a link-local one."""
    network.settings()
    network.firewall(*[] if line else ["dport 546"])
    client = network.socket(socket.SOCK_DGRAM, None, ("::", 546), ipv6=True)
    server = network.socket(socket.SOCK_DGRAM, "isp1", ("::", 547), ipv6=True)
    client.settimeout(waiting.scaled(waiting.PATIENCE) if line else 0.4)
    scope = int(network.lab.ip_text("-o link show f1", "isp1").split(":")[0])
    server.sendto(b"advertise", (network.isps[0].link_local, 546, 0, scope))
    if line:
        assert client.recv(20) == b"advertise"
    else:
        with pytest.raises(TimeoutError):
            client.recv(20)


@WITH_AND_WITHOUT
def test_the_router_speaks_with_itself(network, line):
    network.settings()
    network.firewall(*[] if line else ['"lo" accept'])
    server = network.listen(None, ("", 80))
    if line:
        wait_served(network, None, "127.0.0.1", 80, server)
    else:
        assert not is_served(network, None, "127.0.0.1", 80, server)


@WITH_AND_WITHOUT
def test_what_belongs_to_no_connection_does_not_leave(lab, network, line):
    """An echo reply that nobody asked for: source NAT passes it over, so it would have the LAN's address."""
    network.settings()
    network.firewall(*[] if line else ["ct state invalid drop"])
    network.route(network.isps[0])
    sender = lab.closing(lab.enclosure.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP, "lan"))
    seen = lab.closing(lab.enclosure.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP, "isp1"))
    seen.setblocking(False)

    def is_seen():
        sender.sendto(bytes.fromhex("0000fffe00010000"), (SERVER, 0))
        try:
            return seen.recvfrom(100)[1][0]
        except BlockingIOError:
            return None

    if line:
        waiting.never(is_seen, 0.4)
    else:
        assert waiting.wait_until(is_seen, "the reply") == "192.168.50.2"


@pytest.mark.parametrize("case", ["with", "firewall", "setting"])
def test_router_advertisement(lab, network, case):
    """The firewall's line, and the setting, without which a router that forwards takes none."""
    lab.sysctl("net.ipv6.conf.eth0.accept_ra=1")
    network.settings(*["eth0.accept_ra"] * (case == "setting"))
    network.firewall()
    if case == "firewall":
        lab.nft(sample("nftables/two-uplinks.nft").replace(", nd-router-advert", ""))
    sender = lab.closing(lab.enclosure.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6, "isp1"))
    scope = int(lab.ip_text("-o link show f1", "isp1").split(":")[0])
    sender.bind(("fe80::1", 0, 0, scope))
    for option in (socket.IPV6_MULTICAST_HOPS, socket.IPV6_UNICAST_HOPS):
        sender.setsockopt(socket.IPPROTO_IPV6, option, 255)

    def has_gateway():
        # Type 134 with a lifetime of 1800 seconds (RFC 4861, 4.2).
        sender.sendto(bytes.fromhex("8600000040000708") + bytes(8), ("ff02::1", 0, 0, scope))
        return "via fe80::1 dev eth0" in lab.ip_text("-6 route show default proto ra")

    if case == "with":
        waiting.wait_until(has_gateway, "a gateway")
    else:
        waiting.never(has_gateway, 0.4)


@WITH_AND_WITHOUT
def test_neighbour_discovery_is_let_in(lab, network, line):
    """Gateways ask for the router's addresses, and it asks for theirs."""
    network.settings()
    network.firewall(*[] if line else ["nd-neighbor-solicit"])
    network.route(network.isps[0], family=6)
    flow = Flow(network, network.isps[0].prefix + "2", ipv6=True)
    if line:
        flow.wait(("isp1", network.isps[0].prefix + "2"))
        assert flow.answered()
    else:
        assert flow.send(0.5) is None
    del lab


# IPv6 without NAT


@WITH_AND_WITHOUT
def test_prefixes_without_nat(lab, network, line):
    """What comes from an ISP's prefix leaves by it, whatever the default route says; the hosts keep their addresses."""
    network.settings()
    # Nor do the marks decide.
    network.firewall("ct mark")
    network.rules()
    if line:
        carry_out(lab, [block for block in blocks(6) if " from " in block[2]])
    network.route(network.isps[0], family=6)
    for isp in network.isps:
        flow = Flow(network, isp.prefix + "2", ipv6=True)
        heard = flow.send()
        assert heard == (isp.far if line else "isp1", isp.prefix + "2")
        if line:
            assert flow.answered()


def test_hosts_are_told_of_a_dead_prefix(lab, network):
    """At once, so that they take the other address; and it goes on as before when the uplink is back."""
    network.settings()
    network.firewall()
    network.rules()
    by_source, dead, back = blocks(6)
    carry_out(lab, [by_source])
    network.route(network.isps[1], family=6)
    network.isps[0].cut()

    def called(source, patience=waiting.scaled(3)):
        client = network.socket(socket.SOCK_STREAM, "lan", (source, 0), ipv6=True)
        client.settimeout(patience)
        client.connect((SERVER6, 80))

    for isp in network.isps:
        network.listen(isp.far, (SERVER6, 80), ipv6=True)
    with pytest.raises(TimeoutError):  # for three seconds the router looks for the gateway
        called(network.isps[0].prefix + "2", patience=1)
    carry_out(lab, [dead])
    with pytest.raises(OSError, match="unreachable|No route"):
        called(network.isps[0].prefix + "2")
    called(network.isps[1].prefix + "2")
    network.isps[0].restore()
    carry_out(lab, [back])

    def is_reached():
        try:
            called(network.isps[0].prefix + "2")
        except OSError:  # the router has not found the gateway again
            return False
        return True
    waiting.wait_until(is_reached, "the server by the uplink that is back")
