"""What one gateway that answers no ARP or neighbour solicitation adds to the cycle of healthy interfaces."""

import time
from dataclasses import dataclass
from statistics import median

from .bed import Bed
from .case import Case
from .windows import next_report

POLLS = 101  # of the neighbour table, a millisecond apart: what resolving costs when nobody answers


@dataclass
class DeadGateway:
    """Cycles are medians, in seconds."""

    interfaces: int
    family: int
    healthy: float
    dead: float

    @property
    def added(self):
        return self.dead - self.healthy


def _cycles(bed, strands, seconds):
    lb = bed.start_lb(strands)
    try:
        stamps = [next_report(lb, bed.case.family)]
        end = time.monotonic() + seconds
        while time.monotonic() < end or len(stamps) < 4:
            stamps.append(next_report(lb, bed.case.family))
        return [later - earlier for earlier, later in zip(stamps, stamps[1:])]
    finally:
        lb.stop()


def dead_gateway(interfaces, family, rounds, seconds):
    with Bed(Case(interfaces, family), silent=1) as bed:
        healthy, dead = [], []
        for _ in range(rounds):
            healthy += _cycles(bed, bed.probed, seconds)
            dead += _cycles(bed, bed.strands, seconds)
        return DeadGateway(interfaces, family, median(healthy), median(dead))
