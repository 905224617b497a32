"""How soon a silent link is FAILED and a mended one ACTIVE: the formula of the guide, and its table.

    router wan1 10.1.0.2 -------- f1 far1: kernel
           wan2 10.2.0.2 -------- f2 far2: kernel     ... one link for each row of the table

Kernels answer, at once however busy the machine is: an answer that was late before a cut would make FAILED come sooner
after it.

With -s the rows are printed as they stand in the guide. LB_DETECTION_CUTS says how many cuts they are of.
"""

import math
import os
import re
import time

import pytest

from lab import configtext, pages, waiting
from lab.configtext import interface, ping, ping_ext, rule

GUIDE = "docs/guides/thresholds.md"
CUTS = int(os.environ.get("LB_DETECTION_CUTS", "2"))


class Row:
    """A row of the table: settings, what the formula makes of them, and what was measured."""

    def __init__(self, cells):
        self.kind = cells[0]
        self.failure_ct, self.success_ct = int(cells[1]), int(cells[2])
        self.resp_time, self.hold_down = int(cells[3] or 0), int(cells[4] or 0)
        self.period, self.timeout = (int(part) for part in (cells[5] or "0, 0").split(", "))
        self.written = cells

    def test(self, target):
        if self.kind == "ping":
            return ping(target, resp_time=self.resp_time)
        # Not the limits of delay: a burst that a busy machine delays is none that failed.
        return ping_ext(target, period=self.period, timeout=self.timeout, count=3, loss=50, rtt=10000, jitter=10000)

    def down(self, cycle=1.0):
        """Least and most seconds from the cut to FAILED."""
        if self.kind == "ping":
            judged = math.ceil(self.resp_time / 1000 / cycle)
            return ((self.failure_ct * (judged + 1) - 1) * cycle, (self.failure_ct * (judged + 1) + 1) * cycle)
        wait = self.timeout / 1000
        return ((self.failure_ct - 1) * self.period + wait,
                self.failure_ct * (max(self.period, wait) + cycle) + wait)

    def back(self, cycle=1.0):
        """Least and most seconds from the end of the cut to ACTIVE."""
        if self.kind == "ping":
            judged = math.ceil(self.resp_time / 1000 / cycle)
            least = (self.success_ct - 1) * cycle
            if self.hold_down:
                least = max(least, self.hold_down - cycle)
            return least, (judged + 2 * self.success_ct) * cycle + self.hold_down
        return (self.success_ct - 1) * self.period, self.success_ct * (max(self.period, self.timeout / 1000) + cycle)

    def line(self, down, back):
        """The row of the guide for those measured times."""
        def span(times):
            return f"{min(times):.1f} to {max(times):.1f}"

        return "| " + " | ".join([*self.written[:6], "{:g} to {:g}".format(*self.down()), span(down),
                                  "{:g} to {:g}".format(*self.back()), span(back)]) + " |"


def rows():
    table = [line.strip("| ").replace("|  |", "| |") for line in pages.text_of(GUIDE).splitlines()
             if line.startswith(("| ping |", "| ping_ext |"))]
    return [Row([cell.strip() for cell in line.split("|")]) for line in table]


def of_kind(kind):
    return [row for row in rows() if row.kind == kind]


def test_table_is_what_the_formula_says():
    """Its bounds are computed, and what it says was measured lies within them, but for what a cycle is longer."""
    assert len(of_kind("ping")) >= 5 and len(of_kind("ping_ext")) >= 2
    for row in rows():
        for bounds, written, measured in ((row.down(), row.written[6], row.written[7]),
                                          (row.back(), row.written[8], row.written[9])):
            assert written == "{:g} to {:g}".format(*bounds)
            least, most = map(float, re.fullmatch(r"([\d.]+) to ([\d.]+)", measured).groups())
            assert bounds[0] - 0.1 <= least <= most <= 1.05 * bounds[1] + 0.1, row.written


def measure(lab, measured_rows, cuts):
    """Cuts all links at once and restores them; prints the rows, and holds them against the formula."""
    links = [lab.uplink(number, far_end="kernel") for number in range(1, len(measured_rows) + 1)]
    sections = [interface(link.name, [row.test(link.gateway)], failure_ct=row.failure_ct, success_ct=row.success_ct,
                          nexthop=link.gateway, **({"hold_down": row.hold_down} if row.hold_down else {}))
                for link, row in zip(links, measured_rows)]
    lb = lab.start_lb(configtext.build(sections, [rule("1_ipv4", {link.name: 1 for link in links},
                                                       {"0.0.0.0/0": None})]))
    times = {(link.name, state): [] for link in links for state in ("inactive", "active")}
    for link in links:
        lb.wait_status(link.name, "active")
    for cut in range(cuts):
        for state in ("inactive", "active"):
            lb.wait_cycles(1)
            time.sleep((cut + (state == "active") / 2) / cuts)  # at another place of the cycle each time
            mark = lab.log.mark()
            start = time.monotonic()
            for link in links:
                if state == "inactive":
                    link.cut()
                else:
                    link.restore()
            for link in links:
                record = lab.log.wait_for(f"{link.name} changed state to {state}$", since=mark, timeout=60)
                times[link.name, state].append(record.when - start)
    print()
    for link, row in zip(links, measured_rows):
        print(row.line(times[link.name, "inactive"], times[link.name, "active"]))
    for link, row in zip(links, measured_rows):
        for state, (least, most) in (("inactive", row.down()), ("active", row.back())):
            measured = times[link.name, state]
            # A busy machine makes it later, never sooner: one probe too few is found out.
            assert min(measured) > least - 0.1, (row.written, state, measured)
            assert max(measured) < waiting.scaled(2 * most), (row.written, state, measured)


def test_pings(lab):
    measure(lab, of_kind("ping"), CUTS)


@pytest.mark.parametrize("number", range(len(of_kind("ping_ext"))))
def test_bursts(lab, number):
    """Each alone: a burst that waits holds up the others."""
    measure(lab, of_kind("ping_ext")[number:number + 1], CUTS)
