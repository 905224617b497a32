"""The guide for troubleshooting: each symptom is made, and what the guide shows of it is what is really said.

    router wan1 10.1.0.2 ---- 10.1.0.1 far1 198.51.100.1
    router wan2 10.2.0.2 ---- 10.2.0.1 far2 198.51.100.2       bird takes the routes
"""

import datetime
import os
import re
import time

import pytest

from lab import configtext, pages, waiting
from lab.bird import Bird
from lab.configtext import interface, ping, rule
from lab.tool import carry_out

GUIDE = "docs/guides/troubleshooting.md"
RUNNING = "docs/running.md"
ROUTE = [rule("1_ipv4", {"wan1": 1, "wan2": 2}, {"0.0.0.0/0": None})]


class Router:
    """Two uplinks, and the files of the daemon where a router has them."""

    def __init__(self, lab):
        self.lab = lab
        self.links = {number: lab.uplink(number, far_end="kernel", target=f"198.51.100.{number}") for number in (1, 2)}
        for name in ("usr_etc/routing-wlb.conf", "usr_etc/routing-wlb6.conf"):
            lab.write(name, "")
        self.lb = None

    def config(self, rules=None, more=(), tests=None, **of_wan1):
        first = {"success_ct": 1, "failure_ct": 2, "nexthop": "10.1.0.1", **of_wan1}
        sections = [interface("wan1", [ping("198.51.100.1", resp_time=900)] if tests is None else tests, **first),
                    interface("wan2", [ping("198.51.100.2", resp_time=900)], success_ct=1, failure_ct=2,
                              nexthop="10.2.0.1")]
        return configtext.build([*sections, *more], rules or ROUTE)

    def start(self, text, bird=True):
        """bird: the routing daemon with the lines of the reference, or other lines; None for none."""
        if bird:
            Bird(self.lab, pages.block(RUNNING, "protocol kernel", "conf") if bird is True else bird)
        self.lab.write("etc/wan_lb/lb.conf", text)
        self.lb = self.lab.start_lb(None, argv=["-f", "/etc/wan_lb/lb.conf", "-o", "/run/load-balance"],
                                    out=self.lab.path("run/load-balance"))
        return self.lb

    def both(self, **options):
        lb = self.start(self.config(**options.pop("config", {})), **options)
        for name in ("wan1", "wan2"):
            lb.wait_status(name, "active")
        return lb


@pytest.fixture
def router(lab):
    return Router(lab)


def consoles(title):
    """The commands of a section, and what the guide shows of each."""
    found = [text for of, text in pages.blocks(GUIDE, "console") if of == title]
    assert found, f"the guide has no console in {title!r}"
    return [tuple(part.split("\n", 1)) for text in found for part in re.split(r"^\$ ", text, flags=re.MULTILINE)[1:]]


def usual(text):
    """What differs from one look to the next is put in one form."""
    text = re.sub(r"(\d+ (?:s|min|h|d)\b ?)+", "TIME ", text)
    text = re.sub(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", "WHEN", text)
    text = re.sub(r"\d+\.\d{3} %", "PERCENT", text)
    text = re.sub(r"(\d+) {2,}(\d+\.\d\d)$", "COUNT", text, flags=re.MULTILINE)
    # What the kernel thinks of the gateway changes all the time.
    text = re.sub(r"  - The next hop \S+ .*\n", "", text)
    text = re.sub(r"  - (Nobody on \S+ answers ARP|The kernel has no neighbour entry).*", "  - NO ANSWER", text)
    # Which of the links was up first.
    text = re.sub(r"  - The kernel's route to it goes by .*\n", "", text)
    # The guide breaks long lines.
    return " ".join(re.sub(r"-{2,}", "-", text).split())


def hold(lab, title, instead=lambda command: command):
    """Waits until each command of the section prints what the guide shows; `instead` makes it fit for the lab."""
    shown = consoles(title)
    for command, text in shown:
        last = [""]

        def as_shown(command=command, text=text, last=last):
            made = carry_out(lab, instead(command))
            last[0] = made.stdout + made.stderr
            return usual(last[0]) == usual(text)

        waiting.wait_until(as_shown, lambda command=command, text=text, last=last:
                           f"{command}\nto print\n{text}but it prints\n{last[0]}\nlog:\n{lab.log.text()}", interval=0.2)

def test_other_way_by_hand(lab, router):
    router.start(router.config(tests=[ping("198.51.100.2", resp_time=900)])).wait_status("wan2", "active")
    hold(lab, "Ping works by hand, and the link is FAILED")


def test_rp_filter(lab, router):
    lab.sysctl("net.ipv4.conf.wan1.rp_filter=1")
    lab.ip("route add default via 10.2.0.1 dev wan2")
    router.start(router.config()).wait_status("wan2", "active")
    hold(lab, "Replies are dropped on the way in")


def test_gateway_that_answers_nobody(lab, router):
    router.both()
    lab.ip("addr del 10.1.0.1/24 dev f1", "addr add 10.1.0.9/24 dev f1", netns="far1")
    lab.ip("neigh flush dev wan1")
    hold(lab, "Nobody answers for the gateway")


def test_no_such_device(lab, router):
    router.start(router.config(origin="eth7")).wait_status("wan2", "active")
    hold(lab, "The device is not there")


def test_ipv6_without_link_layer_addresses(lab, router):
    link = lab.uplink(3, arp=False, ipv6=True, far_end="kernel")
    more = [interface("wan3", [ping(link.gateway6, resp_time=900)], ipv6=True, nexthop=link.gateway6)]
    router.start(router.config(more=more, rules=[*ROUTE, rule("1_ipv6", {"wan3": 1}, {"::/0": None})]))
    router.lb.wait_status("wan2", "active")
    hold(lab, "IPv6 on a tunnel")


def test_gateway_answers_and_the_line_is_dead(lab, router):
    router.both(config={"tests": []})
    lab.ip("addr del 198.51.100.1/32 dev lo", netns="far1")
    hold(lab, "A link is ACTIVE, and nothing goes through")


def test_held_down(lab, router):
    router.both(config={"hold_down": 600})
    router.links[1].cut()
    router.lb.wait_status("wan1", "failed")
    router.links[1].restore()
    lab.log.settle()
    hold(lab, "A link comes and goes", lambda command: command.replace("--since 24h", f"--log {log_of(lab)}"))


def log_of(lab):
    """What the log has of wan1, as a log daemon writes it; the lab has no journal."""
    lines = []
    for record in lab.log.matching("interface wan1 changed state"):
        when = datetime.datetime.fromtimestamp(time.time() - time.monotonic() + record.when, datetime.timezone.utc)
        lines.append(f"{when.isoformat()} router {record.tag}[{record.pid}]: {record.text}")
    return lab.write("var_log/lb.log", "\n".join(lines) + "\n")


def test_no_routing_daemon(lab, router):
    router.both(bird=None)
    hold(lab, "The routing daemon gets no signal")


def test_file_is_not_included(lab, router):
    lines = pages.block(RUNNING, "protocol kernel", "conf")
    router.both(bird="\n".join(line for line in lines.splitlines() if not line.startswith("include")) + "\n")
    hold(lab, "The routing daemon does not read the file")


def test_kernel_protocol_is_missing(lab, router):
    lines = pages.block(RUNNING, "protocol kernel", "conf")
    router.both(bird="\n".join(line for line in lines.splitlines() if not line.startswith("protocol kernel")) + "\n")
    hold(lab, "The routing daemon reads the file, and the kernel has no route")


def test_file_is_refused(lab, router):
    router.both(config={"rules": [rule("1_ipv4", {"wan1": 1000, "wan2": 2}, {"0.0.0.0/0": None})]})
    hold(lab, "The routing daemon refuses the file")


def test_another_route_is_preferred(lab, router):
    router.both()
    lab.ip("route add default via 10.1.0.77 dev wan1 proto dhcp metric 1")
    hold(lab, "Another program's default route is used")


def test_no_next_hop(lab, router):
    router.start(router.config(nexthop="dhcp")).wait_status("wan2", "active")
    hold(lab, "No next hop is found")


def test_member_of_another_vrf(lab, router):
    lab.add_netns("red")
    os.makedirs(lab.path("var_vrfs/red/usr/etc"))
    router.both(config={"rules": [*ROUTE, rule("2_ipv4", {"wan1": 1}, {"10.77.0.0/16": None}, namespace="red")]})
    hold(lab, "A rule is not used")


def test_brackets(lab, router):
    text = router.config().replace("rule 1_ipv4 {", "rule 1_ipv4\n{")
    router.start(text.rstrip().removesuffix("}"))
    hold(lab, "The daemon runs, and interfaces or routes are not there")
    assert lab.log.wait_for("Configuration error due to mismatched brackets")


def test_no_configuration(lab, router):
    lab.start_lb(None, argv=["-f", "/etc/wan_lb/lb.conf", "-o", "/run/load-balance"],
                      out=lab.path("run/load-balance"))
    hold(lab, "The daemon has no configuration")
    assert lab.log.wait_for("wan_lb: configuration file not found: /etc/wan_lb/lb.conf")


def test_daemon_does_not_run(lab, router):
    router.both().stop()
    for name in os.listdir(lab.path("run/load-balance/wlb_dump")):
        os.utime(lab.path(f"run/load-balance/wlb_dump/{name}"), (1, 1))
    hold(lab, "The state is old")


def test_repeats(lab, router):
    """A warning of every cycle is in the log once."""
    lab.write("etc/wan_lb/log-flags", "34 3\n")
    lb = router.start(router.config(nexthop="dhcp"))
    lb.wait_cycles(4)
    lab.log.settle()
    lab.write("var_log/lb.log", lab.log.text() + "\n")
    hold(lab, "The log is full of one message, or lacks some")


def test_every_symptom_is_made():
    """No section with output is left out."""
    titles = {title for title, _ in pages.blocks(GUIDE, "console")}
    with open(__file__, encoding="utf-8") as file:
        made = set(re.findall(r'hold\(lab, "([^"]+)"', file.read()))
    assert made == titles
