"""Next hops from the DHCP client's lease files, read again in every cycle.

    router wan1 10.1.0.2 -------- f1 far1: responder, any router address
    /var/db/dhclient_NAME.leases (IPv4), /var/db/dhcp6_clientNAME.leases (IPv6)
"""

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule

LEASE = """lease {{
  interface "wan1";
  fixed-address 10.1.0.2;
  option subnet-mask 255.255.255.0;
  option routers {};
  option domain-name-servers 10.1.0.53;
}}
"""
WARNING = r"^%WAN-W-WARN: Failed to get routers option from DHCP on interface "


def test_lease_comes_late_and_is_renewed(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, nexthop="dhcp"))
    record = lab.log.wait_for(WARNING + "wan1$", count=2)
    assert record.level == 4 and not lab.exists("usr_etc/routing-wlb.conf")
    assert lb.outbounds()[0]["nexthop"] == "" and lb.outbounds()[0]["dhcp"] == 1

    lab.replace("var_db/dhclient_wan1.leases", LEASE.format("10.1.0.1"))
    lb.wait_status("wan1", "active")
    lab.wait_text("usr_etc/routing-wlb.conf", route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))

    # Renewed with another router: the route follows, the target found first stays.
    seen = len(link.responder.requests)
    lab.replace("var_db/dhclient_wan1.leases", LEASE.format("10.1.0.254"))
    lab.wait_text("usr_etc/routing-wlb.conf", route_file("route 0.0.0.0/0 via 10.1.0.254 weight 1;"))
    link.responder.wait_requests(2, since=seen)
    assert {request.target for request in link.responder.requests} == {"10.1.0.1"}
    assert link.responder.arp_requests[-1] == "10.1.0.254"

    # A file without routers, and no file at all, leave what was learnt, silently.
    mark = lab.log.mark()
    lab.replace("var_db/dhclient_wan1.leases", "lease {\n}\n")
    lab.run(["rm", "/var/db/dhclient_wan1.leases"])
    lb.wait_cycles(3)
    assert not lab.log.matching(WARNING, mark) and lb.outbounds()[0]["nexthop"] == "10.1.0.254"


IPV4_LEASES = {
    "first-of-two": LEASE.format("10.0.0.1") + LEASE.format("10.0.0.2"),
    "first-in-list": "  option routers 10.0.0.1,10.0.0.2;\n",
    "list-with-blank": "  option routers 10.0.0.1, 10.0.0.2;\n",
    "no-semicolon": "  option routers 10.0.0.1\n",
    "no-newline": "  option routers 10.0.0.1;",
    "tabs": "\toption\trouters\t10.0.0.1;\n",
    "tildes": "~option~routers~10.0.0.1;\n",
    "one-word-cut": "  option routers 10.0.0.1;;\n",
    "other-first-word": "x routers 10.0.0.1;\n",
    "piece-of-long-line": "x" * 1023 + "  option routers 10.0.0.1;\n",
    "second-word-only": "routers 10.0.0.9;\n  option routers 10.0.0.1;\n",
    "prefix-of-word": "  option routers-x 10.0.0.9;\n",
    "upper-case": "  option ROUTERS 10.0.0.9;\n",
    "empty-file": "",
}
IPV4_ROUTERS = dict.fromkeys(IPV4_LEASES, "10.0.0.1") | {
    "one-word-cut": "10.0.0.1;", "prefix-of-word": "", "upper-case": "", "empty-file": ""}

IPV6_LEASES = {
    "usual": "new_routers='fe80::1'\n",
    "two-values-cut-the-first": "new_routers='fe80::12 fe80::2'\n",
    "first-line": "new_routers='fe80::1'\nnew_routers='fe80::2'\n",
    "after-others": "reason='BOUND6'\nnew_ip6='fd00::1'\nnew_routers='fe80::1'\n",
    "double-quotes": 'new_routers="fe80::1"\n',
    "no-newline": "new_routers='fe80::1'",
    "other-name": "old_routers='fe80::9'\n",
    "indented": " new_routers='fe80::9'\n",
}
IPV6_ROUTERS = dict.fromkeys(IPV6_LEASES, "fe80::1") | {"other-name": "", "indented": ""}


def check_leases(lab, leases, expected, family, name_of):
    """One interface for each lease; they need not exist for their lease to be read."""
    for name, text in leases.items():
        lab.write("var_db/" + name_of(name), text)
    ipv6 = family == 6
    lb = lab.start_lb(configtext.build(
        [interface(name, [ping("10.0.0.9")], ipv6=ipv6, nexthop="dhcp", origin=f"x{number}")
         for number, name in enumerate(leases)],
        [rule(f"1_ipv{family}", {next(iter(leases)): 1}, {"0.0.0.0/0": None})]))

    def found():
        return {record["name"]: record["nexthop"] for record in lb.outbounds(family)}

    waiting.wait_until(lambda: found() == expected, lambda: f"{expected}\nbut it is {found()}")
    mark = lab.log.mark()
    lb.wait_cycles(2, family)
    missing = {f"x{number}" for number, name in enumerate(leases) if not expected[name]}
    assert {record.text.rsplit(" ", 1)[1] for record in lab.log.matching(WARNING, mark)} == missing


def test_ipv4_lease_forms(lab):
    check_leases(lab, IPV4_LEASES, IPV4_ROUTERS, 4, "dhclient_{}.leases".format)


def test_ipv6_lease_forms(lab):
    """The file's name has no separator before the interface, and a list loses the first address's last character."""
    check_leases(lab, IPV6_LEASES, IPV6_ROUTERS, 6, "dhcp6_client{}.leases".format)


def test_ipv6_lease_end_to_end(lab):
    link = lab.uplink(1, ipv6=True)
    lb = lab.start_lb(configtext.single(link, ipv6=True, nexthop="dhcp"))
    lab.log.wait_for(WARNING + "wan1$")
    lab.replace("var_db/dhcp6_clientwan1.leases", "new_routers='fd00:1::1'\n")
    lb.wait_status("wan1", "active", family=6)
    lab.wait_text("usr_etc/routing-wlb6.conf", route_file("route ::/0 via fd00:1::1 weight 1;", ipv6=True))
    lab.replace("var_db/dhcp6_clientwan1.leases", "new_routers='fd00:1::fe'\n")
    lab.wait_text("usr_etc/routing-wlb6.conf", route_file("route ::/0 via fd00:1::fe weight 1;", ipv6=True))
