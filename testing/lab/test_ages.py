"""Ages in reports and dumps: a worker writes those of all VRFs while the others go on.

    default: near1 (not there)      red: far01 ... far10 (not there)

A clock that runs fast makes a second of each millisecond, and every look at it takes long: what happens between the
look and the use of it shows.
"""

import re

from lab import configtext, waiting
from lab.configtext import interface, ping, rule
from lab.wall_clock import WallClock

CYCLES = 12
AGES = ("success_age", "failure_age", "change_age")


def test_no_age_is_negative(lab):
    lab.add_netns("red")
    names = {"default": ["near1"], "red": [f"far{number:02}" for number in range(1, 11)]}
    lb = lab.start_lb(configtext.build(
        [interface(name, [ping("198.51.100.1", resp_time=100)], nexthop="198.51.100.1", namespace=vrf)
         for vrf, members in names.items() for name in members],
        [rule(f"{number}_ipv4", {members[0]: 1}, {"0.0.0.0/0": None}, namespace=vrf)
         for number, (vrf, members) in enumerate(names.items(), start=1)]),
        env=WallClock(lab, speed=1000, pause=20).environment)
    seen, ages = lb.cycles(), set()

    def enough():
        for record in lb.outbounds():
            ages.update(record[age] for age in AGES)
        # Those of the report have no sign: one below zero is more than a century.
        days = [int(found) for found in re.findall(r"(\d+)d", lb.report())]
        assert min(ages) >= 0 and max(days, default=0) < 36500, (sorted(ages), lb.report())
        return seen() >= CYCLES

    waiting.wait_until(enough, f"{CYCLES} cycles", timeout=60)
    assert max(ages) > 0
