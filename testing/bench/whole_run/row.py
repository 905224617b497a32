"""What the rounds of one case say together."""

from dataclasses import dataclass
from statistics import median

from .case import Case


def unequal(pairs, targets):
    """Why no ratio is told of these windows: a text; None when both sent the same, to a probe per target."""
    for number, (lb, fping) in enumerate(pairs, 1):
        if lb.probes <= 0 or fping.probes <= 0:
            return f"round {number}: {lb.probes} probes by lb, {fping.probes} by fping"
        if abs(lb.probes - fping.probes) > targets:
            return (f"round {number}: lb sent {lb.probes} probes and fping {fping.probes}, more than one per target "
                    f"({targets}) apart")
    return None


@dataclass
class Row:
    """Costs are medians over the rounds, in microseconds; the cycle is in seconds. No ratio where `refusal` says why."""

    case: Case
    lb_us: float
    fping_us: float
    ratio: float
    refusal: str
    switches: float
    fping_switches: float
    cycle: float
    cycle_max: float
    resident_kib: int
    threads: int
    descriptors: int
    ended_threads: int
    probes: int
    fping_probes: int
    kib_per_interface: float = None
    rounds: list = None


def row(case, pairs):
    refusal = unequal(pairs, case.interfaces)
    lbs, fpings = zip(*pairs)
    intervals = [interval for lb in lbs for interval in lb.intervals]
    costs = [[window.cpu_per_probe if window.probes else None for window in windows] for windows in (lbs, fpings)]
    middle = [median(cost for cost in side if cost is not None) if any(side) else None for side in costs]
    # Rounds are compared with themselves: what disturbs one disturbs both of its windows.
    ratio = None if refusal else median(mine / other for mine, other in zip(*costs))
    return Row(
        case, middle[0], middle[1], ratio, refusal,
        median(lb.switches_per_probe for lb in lbs if lb.probes) if middle[0] else None,
        median(fping.switches_per_probe for fping in fpings if fping.probes) if middle[1] else None,
        median(intervals) if intervals else None, max(intervals, default=None),
        max(lb.holdings.resident_kib for lb in lbs), max(lb.holdings.threads for lb in lbs),
        max(lb.holdings.descriptors for lb in lbs), sum(lb.ended_threads for lb in lbs),
        sum(lb.probes for lb in lbs), sum(fping.probes for fping in fpings),
        rounds=[{"lb_us": mine, "fping_us": other} for mine, other in zip(*costs)])


def tell_memory_per_interface(rows):
    """Fills in how much each further interface takes, against one interface of the same family and path."""
    alone = {(one.case.family, one.case.path): one.resident_kib for one in rows
             if one.case.interfaces == 1 and one.case.vrfs == 1}
    for one in rows:
        least = alone.get((one.case.family, one.case.path))
        if least is not None and one.case.interfaces > 1 and one.case.vrfs == 1:
            one.kib_per_interface = (one.resident_kib - least) / (one.case.interfaces - 1)
