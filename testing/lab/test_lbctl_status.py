"""lbctl status: what it tells of a running daemon, held against the daemon's own report and the kernel.

    198.51.100.1 far1 10.1.0.1 / fd00:1::1 ---- wan1 \\
                                                       router: bird, lb, lbctl, kernel
    198.51.100.2 far2 10.2.0.1 / fd00:2::1 ---- wan2 /
"""

import os
import re
import time

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule
from lab.tool import ctl, document, program
from lab.two_uplinks import TwoUplinks


def states(found):
    return {(one["name"], one["family"]): one["state"] for one in found["interfaces"]}


def in_force(found):
    return {(one["number"], one["family"], one["vrf"]): [route["in_force"] for route in one["routes"]]
            for one in found["rules"]}


def wait_document(lab, condition, *arguments):
    last = [None]

    def check():
        last[0] = document(lab, "status", "status", "--json", *arguments)
        return condition(last[0])

    waiting.wait_until(check, lambda: f"the document is {last[0]}", interval=0.2)
    return last[0]


def test_follows_a_cut(lab):
    """State, next hop and routes in force, before a cut and after it; the exit status for scripts."""
    network = TwoUplinks(lab)
    network.start()
    network.wait_both()
    out = ("-o", network.lb.out)
    both = {(name, family): "active" for name in ("wan1", "wan2") for family in (4, 6)}
    found = wait_document(lab, lambda seen: states(seen) == both and not seen["stale"], *out)
    assert in_force(found) == {(1, 4, "default"): [True], (1, 6, "default"): [True]}
    assert ctl(lab, "status", *out).status == 0
    wan1 = found["interfaces"][0]
    assert (wan1["nexthop"], wan1["nexthop_source"], wan1["vrf"]) == ("10.1.0.1", "static", "default")
    assert [(test["target"], test["result"]) for test in wan1["tests"]] == [("198.51.100.1", "success")]
    assert found["rules"][0]["members"] == [{"device": "wan1", "weight": 1, "family": 4},
                                            {"device": "wan2", "weight": 2, "family": 4}]

    network.cut(1)
    network.wait_only(2)
    found = wait_document(lab, lambda seen: states(seen)[("wan1", 4)] == states(seen)[("wan1", 6)] == "failed", *out)
    assert in_force(found) == {(1, 4, "default"): [True], (1, 6, "default"): [True]}
    shown = ctl(lab, "status", *out)
    assert shown.status == 1
    assert re.search(r"^wan1 +default +failed +\d+ s +10\.1\.0\.1$", shown.stdout, re.M), shown.stdout
    assert re.search(r"^  - ping +198\.51\.100\.1 +failure ", shown.stdout, re.M), shown.stdout
    assert max(map(len, shown.stdout.splitlines())) <= 80
    assert "\033" not in shown.stdout

    # The routing daemon has gone: the routes in the kernel are what others make of them.
    network.bird.kill()
    lab.ip("route del default")
    found = document(lab, "status", "status", "--json", "-4", *out)
    assert in_force(found) == {(1, 4, "default"): [False]}
    lab.ip("route add default via 10.2.0.1 dev wan2 proto dhcp")
    assert in_force(document(lab, "status", "status", "--json", "-4", *out)) == {(1, 4, "default"): [False]}
    shown = ctl(lab, "status", "-4", *out).stdout
    assert "\n  0.0.0.0/0  not in force: another route is used (from a DHCP client)\n" in shown, shown
    lab.ip("route replace default via 10.2.0.1 dev wan2 proto bird")
    assert in_force(document(lab, "status", "status", "--json", "-4", *out)) == {(1, 4, "default"): [True]}
    lab.ip("route replace default via 10.1.0.1 dev wan1 proto bird")
    assert in_force(document(lab, "status", "status", "--json", "-4", *out)) == {(1, 4, "default"): [False]}


def test_stale_after_the_daemon_has_gone(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build([interface(link.name, [ping()], success_ct=1, nexthop=link.gateway)],
                                       [rule("1_ipv4", {link.name: 1}, {"0.0.0.0/0": None})]))
    lb.wait_status(link.name, "active")
    wait_document(lab, lambda seen: states(seen) == {("wan1", 4): "active"} and not seen["stale"], "-o", lb.out)
    lb.stop()
    found = wait_document(lab, lambda seen: seen["stale"], "-o", lb.out)
    assert states(found) == {("wan1", 4): "active"}
    shown = ctl(lab, "status", "-o", lb.out)
    assert shown.status == 3 and "\nSTALE: Written " in shown.stdout and shown.stderr == ""
    assert re.search(r"^wan1 +default +active ", shown.stdout, re.M), shown.stdout


def test_vrfs_have_tables_of_their_own(lab):
    """Names apart from devices, a failover rule, and the table of another namespace, which lbctl enters and leaves."""
    lab.add_netns("red")
    os.makedirs(lab.path("var_vrfs/red/usr/etc/"))
    links = {1: lab.uplink(1), 2: lab.uplink(2, vrf="red"), 3: lab.uplink(3, vrf="red")}
    sections = [interface(f"line{number}", [ping(resp_time=900)], success_ct=1, nexthop=link.gateway,
                          origin=link.name, **({"namespace": "red"} if number > 1 else {}))
                for number, link in links.items()]
    rules = [rule("2_ipv4", {"line1": 1}, {"0.0.0.0/0": None}),
             rule("1_ipv4", {"line2": 10, "line3": 1}, {"0.0.0.0/0": None, "10.77.0.0/16": 5}, namespace="red",
                  failover=True)]
    lb = lab.start_lb(configtext.build(sections, rules))
    for number in links:
        lb.wait_status(f"line{number}", "active")
    out = ("-o", lb.out)
    found = wait_document(lab, lambda seen: all(route["nexthop"] for route in seen["rules"][0]["routes"]), *out)
    red = found["rules"][0]
    assert red["failover"] and {route["nexthop"] for route in red["routes"]} == {links[2].gateway}
    assert [route["metric"] for route in red["routes"]] == [None, 5]
    assert in_force(found) == {(1, 4, "red"): [False, False], (2, 4, "default"): [False]}

    lab.ip(f"route add default via {links[2].gateway} proto bird", netns="red")
    lab.ip(f"route add default via {links[1].gateway} proto bird")
    found = document(lab, "status", "status", "--json", *out)
    assert in_force(found) == {(1, 4, "red"): [True, False], (2, 4, "default"): [True]}
    lab.ip(f"route replace default via {links[3].gateway} proto bird", netns="red")
    assert in_force(document(lab, "status", "status", "--json", *out))[(1, 4, "red")] == [False, False]

    # Who may not enter the namespace is told so, and the rest all the same.
    shown = lab.run(["setpriv", "--bounding-set=-all", "--inh-caps=-all", program(), "status", *out], check=False)
    assert re.search(r"^  0\.0\.0\.0/0  in force$", shown.stdout, re.M), shown.stdout
    assert f"  0.0.0.0/0  via {links[2].gateway}  kernel's table not readable\n" in shown.stdout


def test_bursts_against_their_limits(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping_ext(link.gateway, period=2, count=2, timeout=1000, loss=20, rtt=200, jitter=50)],
                   success_ct=1, nexthop=link.gateway)], [rule("1_ipv4", {link.name: 1}, {"0.0.0.0/0": None})]))
    lb.wait_status(link.name, "active")
    found = wait_document(lab, lambda seen: seen["interfaces"] and seen["interfaces"][0]["tests"][0]["measurement"],
                          "-o", lb.out)
    measurement = found["interfaces"][0]["tests"][0]["measurement"]
    assert {name: figure["limit"] for name, figure in measurement.items()} == {"loss": 20, "rtt": 0.2, "jitter": 0.05}
    assert measurement["loss"]["value"] == 0 and 0 <= measurement["rtt"]["value"] < 0.2
    shown = ctl(lab, "status", "-o", lb.out).stdout
    assert re.search(r"^  \+ ping_ext +10\.1\.0\.1 .*\n      loss 0 of 20 %   rtt \d+ of 200 ms   jitter \d+ of 50 ms$",
                     shown, re.M), shown


def test_never_a_complaint_while_files_are_written(lab):
    """Hundreds of looks at a daemon at work: a file that is half written is read again."""
    link = lab.uplink(1, ipv6=True)
    text = configtext.build(
        [interface(link.name, [ping()], success_ct=1, nexthop=link.gateway),
         interface(link.name, [ping(link.gateway6)], ipv6=True, success_ct=1, nexthop=link.gateway6)],
        [rule("1_ipv4", {link.name: 1}, {"0.0.0.0/0": None}), rule("1_ipv6", {link.name: 1}, {"::/0": None})])
    lb = lab.start_lb(text)
    lb.wait_status(link.name, "active")
    end = time.monotonic() + 8
    looks = 0
    while time.monotonic() < end or looks <= 20:
        shown = ctl(lab, "status", "-4", "-o", lb.out)
        assert shown.status == 0 and shown.stderr == "", shown.stderr
        looks += 1
