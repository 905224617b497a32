"""A large router: 32 uplinks with both families in three VRFs, all threads at work at once.

    default: wan1 ... wan12      red: wan13 ... wan22      blue: wan23 ... wan32

Every fourth link has no ARP and is probed by the raw path, IPv4 only; every fifth has an extended ping over IPv4.
The far ends are kernels, but on the links without ARP, where a kernel could not find its way back.
"""

import os

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, route_file, route_line, rule
from lab.growth import Growth
from lab.route_watch import RouteWatch

VRFS = {"default": range(1, 13), "red": range(13, 23), "blue": range(23, 33)}
CUT = [number for number in range(1, 33) if number % 3 == 0]
FAMILIES = (4, 6)


def directory(vrf):
    return "usr_etc/" if vrf == "default" else f"var_vrfs/{vrf}/usr/etc/"


def is_raw(number):
    return number % 4 == 0


def has(number, family):
    return family == 4 or not is_raw(number)


def gateway(number, family):
    return f"fd00:{number:x}::1" if family == 6 else f"10.{number}.0.1"


def default_route(family):
    return "::/0" if family == 6 else "0.0.0.0/0"


def members(vrf, family):
    return [number for number in VRFS[vrf] if has(number, family)]


def routes(vrf, family, active):
    """The route file with these interfaces active; members stand in the order of their names."""
    vias = [(gateway(number, family), number) for number in sorted(members(vrf, family), key=str)
            if f"wan{number}" in active]
    return route_file(route_line(default_route(family), vias), ipv6=family == 6)


def health(vrf, number, family):
    test = (ping_ext(gateway(number, 4), period=1, count=2, loss=100, rtt=900, jitter=900)
            if number % 5 == 0 and family == 4 else ping(gateway(number, family), resp_time=900))
    return interface(f"wan{number}", [test], ipv6=family == 6, success_ct=1, failure_ct=2, namespace=vrf,
                     nexthop=gateway(number, family))


def make_links(lab):
    links = {}
    for vrf, numbers in VRFS.items():
        if vrf != "default":
            lab.add_netns(vrf)
            os.makedirs(lab.path(directory(vrf)))
        for number in numbers:
            raw = is_raw(number)
            links[number] = lab.uplink(number, vrf=None if vrf == "default" else vrf, ipv6=not raw, arp=not raw,
                                       far_end="responder" if raw else "kernel")
    return links


def wait_states(lb, failed):
    for family in FAMILIES:
        wanted = {f"wan{number}": "failed" if number in failed else "active"
                  for numbers in VRFS.values() for number in numbers if has(number, family)}
        waiting.wait_until(lambda w=wanted, f=family: lb.statuses(f) == w,
                           lambda w=wanted, f=family: f"IPv{f}, not as wanted: {w.items() ^ lb.statuses(f).items()}",
                           timeout=90)


def test_32_interfaces_in_three_vrfs(lab):
    links = make_links(lab)
    interfaces, rules, watches = [], [], []
    for vrf in VRFS:
        for family in FAMILIES:
            numbers = members(vrf, family)
            interfaces += [health(vrf, number, family) for number in numbers]
            rules.append(rule(f"{len(rules) + 1}_ipv{family}", {f"wan{number}": number for number in numbers},
                              {default_route(family): None}, namespace=vrf))
            watches.append(RouteWatch(lab, f"{directory(vrf)}routing-wlb{6 if family == 6 else ''}.conf",
                                      lambda active, v=vrf, f=family: routes(v, f, active), family))
    lb = lab.start_lb(configtext.build(interfaces, rules))

    wait_states(lb, failed=())
    growth = Growth(lab, lb)
    for number in CUT:
        links[number].cut()
    wait_states(lb, failed=CUT)
    for number in CUT:
        links[number].restore()
    wait_states(lb, failed=())

    growth.check()
    for watch in watches:
        watch.verify()
    changes = [record.text for record in lab.log.matching("changed state to inactive")]
    for number in links:
        # Each family's worker announces it once at the start.
        wanted = sum(has(number, family) for family in FAMILIES) * (2 if number in CUT else 1)
        assert sum(f" wan{number} " in text for text in changes) == wanted, f"wan{number}: {changes}"
