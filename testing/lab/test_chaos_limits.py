"""The machine's own limits: descriptors run out, and the clock jumps.

    router wan1 10.1.0.2 / fd00:1::2 -------- 10.1.0.1 / fd00:1::1 far1
    ...
    router wan12 10.12.0.2 / fd00:c::2 ------ 10.12.0.1 / fd00:c::1 far12
"""

import itertools
import re
import time

import pytest

from lab import configtext, daemon, waiting
from lab.configtext import interface, ping, ping_ext, route_file, route_line, rule
from lab.growth import Growth
from lab.route_watch import RouteWatch
from lab.wall_clock import WallClock
from lab.weighted_pair import STATE, WeightedPair

DOZEN = range(1, 13)


def limit_descriptors(lab, lb, soft):
    """Of the running daemon; gives the limit that was in force."""
    before = lab.run(["prlimit", f"--pid={lb.pid}", "--nofile", "--output=SOFT", "--noheadings"]).stdout.strip()
    lab.run(["prlimit", f"--pid={lb.pid}", f"--nofile={soft}:"])
    return int(before)


def limit_that_spares(lab, lb, count):
    """The limit with which so many descriptors are left beside those that the daemon never closes."""
    looks = [set(map(int, lab.run(["ls", f"/proc/{lb.pid}/fd"]).stdout.split())) for _ in range(20)]
    free = (number for number in itertools.count() if number not in set.intersection(*looks))
    return next(itertools.islice(free, count, None))


def test_descriptors_run_out_and_come_back(lab):
    """None at all, then one: what probes need is open, and links stay active; files are not written; nothing ends."""
    if daemon.is_undefined_behaviour_sanitizer(daemon.program()):
        pytest.skip("UndefinedBehaviorSanitizer needs a pipe to check a virtual call and reports a bad object without")
    links = [lab.uplink(number, far_end="kernel", ipv6=True) for number in DOZEN]
    gateways = [(link, ipv6, link.gateway6 if ipv6 else link.gateway) for link in links for ipv6 in (False, True)]
    sections = [interface(link.name, [ping(gateway, resp_time=waiting.milliseconds(900))], ipv6=ipv6, success_ct=1,
                          nexthop=gateway) for link, ipv6, gateway in gateways]
    weights = {link.name: 1 for link in links}
    route_files = {4: "usr_etc/routing-wlb.conf", 6: "usr_etc/routing-wlb6.conf"}
    lb = lab.start_lb(configtext.build(sections, [rule("1_ipv4", weights, {"0.0.0.0/0": None}),
                                                  rule("1_ipv6", weights, {"::/0": None})]))

    def text(family, active):
        vias = [(link.gateway6 if family == 6 else link.gateway, 1)
                for link in sorted(links, key=lambda link: link.name) if link.name in active]
        return route_file(route_line("::/0" if family == 6 else "0.0.0.0/0", vias), ipv6=family == 6)

    def wait_states():
        for family in route_files:
            waiting.wait_until(lambda f=family: lb.statuses(f) == dict.fromkeys(weights, "active"),
                               lambda f=family: f"every link active, not {lb.statuses(f)}")

    def wait_routes(active):
        for family, name in route_files.items():
            lab.wait_text(name, text(family, active))

    wait_states()
    wait_routes(weights)
    growth = Growth(lab, lb)
    for spare in (None, 1):
        mark = lab.log.mark()
        before = limit_descriptors(lab, lb, 3 if spare is None else limit_that_spares(lab, lb, spare))
        if spare is None:
            lab.log.wait_for("error open file for writing", since=mark)
            lab.log.wait_for("error ordering output file", since=mark)
        else:
            # The dump of the rules takes the only one, so there is never one for the routes.
            lab.log.wait_for("rror open file for writing .*wlb_routes.bin", since=mark, count=2)
        waiting.never(lambda: not lb.alive or lab.log.matching(f"{STATE} inactive", since=mark),
                      waiting.scaled(4), "the end of the daemon or of a link")
        limit_descriptors(lab, lb, before)
        # Until then the reports may be those from before.
        for family in route_files:
            lb.wait_cycles(1, family)
        wait_states()
        # A route file that could not be opened is not tried again until its text changes; from then on it is right.
        links[0].cut()
        wait_routes([link.name for link in links[1:]])
        watches = [RouteWatch(lab, name, lambda active, f=family: text(f, active), family)
                   for family, name in route_files.items()]
        links[0].restore()
        wait_routes(weights)
        wait_states()
        for watch in watches:
            watch.verify()
            lab.discard(watch)
    growth.check()


YEAR = 365 * 24 * 3600
STAMP = re.compile(r"Last Status Change:  (.*)")


def changed(report):
    """The date of the last change, in seconds since the epoch."""
    text = STAMP.findall(report)[1]
    return time.mktime(time.strptime(text + " UTC", "%a %b %d %H:%M:%S %Y %Z")) - time.timezone


JUMPS = {"a year ahead": lambda: time.time() + YEAR, "a year back": lambda: time.time() - YEAR,
         "1970": lambda: 100, "behind 2038": lambda: (1 << 31) + 1000,
         "over 2038": lambda: (1 << 31) - 3, "behind 2100": lambda: 4102444800 + 5}


@pytest.mark.parametrize("jumps", [list(JUMPS)[:3], list(JUMPS)[3:]], ids=lambda names: names[0].replace(" ", "-"))
def test_wall_clock_jumps(lab, jumps):
    """Only dates and ages are of the wall clock: no link changes its state, and the cycle keeps its pace."""
    clock = WallClock(lab)
    third, slow = lab.uplink(3), lab.uplink(4)
    # Nearly always with a probe under way, which must not look too old or too young.
    slow.responder.delay(2.5)
    pair = WeightedPair(lab, env=clock.environment, sections=[
        interface("wan3", [ping_ext(third.gateway, period=2, count=3, rtt=5000, jitter=5000)],
                  success_ct=1, nexthop=third.gateway),
        interface("wan4", [ping(slow.gateway, resp_time=20000)], success_ct=1, nexthop=slow.gateway)])
    pair.lb.wait_status("wan3", "active")
    pair.lb.wait_status("wan4", "active")
    pair.wait_settled()
    for jump in jumps:
        mark, bursts = lab.log.mark(), len(third.responder.requests)
        if jump == jumps[0]:
            slow.responder.wait_requests(1, since=len(slow.responder.requests))
        clock.set_to(JUMPS[jump]())
        begun = time.monotonic()
        pair.lb.wait_cycles(2)
        assert time.monotonic() - begun > 0.9, "the sleep between two cycles is of the monotonic clock"
        assert not lab.log.matching(STATE, mark), jump
        # A change is dated by the clock of the moment.
        pair.change()
        report = pair.lb.wait_report(lambda text: abs(changed(text) - clock.now()) < 60)
        assert report.count("n/a") <= 4 and re.search(r"Last Interface Success:  \ds\t", report), report
        record = next(entry for entry in pair.lb.outbounds() if entry["name"] == "wan1")
        assert 0 <= record["success_age"] <= 9
        third.responder.wait_requests(bursts + 3)
        # Back to the right time: the next change and the next success are dated right.
        clock.shift_to(0)
        pair.change()
        report = pair.lb.wait_report(lambda text: abs(changed(text) - time.time()) < 60)
        assert re.findall(r"Last Interface Success:  ([0-9]s)\t", report), report
        assert len(lab.log.matching(STATE, mark)) == 2, jump
    pair.check()


def test_failure_age_when_the_clock_is_set_back(lab):
    """A failure that lies in the future has an age that wrapped around, and a success one of nothing; both pass."""
    clock = WallClock(lab)
    pair = WeightedPair(lab, env=clock.environment)
    pair.wait_settled()
    clock.shift_to(YEAR)
    pair.change()
    pair.lb.wait_cycles(2)
    pair.change()
    clock.shift_to(0)
    report = pair.lb.wait_report(lambda text: re.search(r"Failure:  4\d{4}d", text))
    days = int(re.search(r"Failure:  (\d+)d", report)[1])
    assert abs(days - ((1 << 32) - YEAR) // 86400) <= 1
    clock.shift_to(YEAR)
    pair.lb.wait_report(lambda text: re.search(r"Failure:  \d+s", text))
    pair.check()
