"""What the rounds of one case say together."""

from dataclasses import dataclass
from statistics import median

from .case import Case


# A window begins and ends anywhere between two probes: so many of them, or such a share, may differ.
_FEW, _SHARE = 8, 0.05


def unequal(rounds):
    """Why no ratio is told of these rounds: a text; empty when all sent the same, but for what a window cuts off."""
    for number, one in enumerate(rounds, 1):
        sent = (one.lb.probes, one.even.probes, one.burst.probes)
        told = f"round {number}: {sent[0]} probes by lb, {sent[1]} and {sent[2]} by fping"
        if min(sent) <= 0:
            return told
        if max(abs(sent[0] - other) for other in sent[1:]) > max(_FEW, _SHARE * sent[0]):
            return f"{told}: not the same number"
    return ""


@dataclass
class Row:
    """Medians over the rounds; costs in microseconds per probe, times in seconds.

    fping sends evenly ("even") or all targets in a row, as the daemon does ("burst"), which costs it less. The ratios
    are None where `refusal` tells why.
    """

    case: Case
    refusal: str
    lb_us: float
    even_us: float
    burst_us: float
    ratio_even: float
    ratio_burst: float
    switches: float
    fping_switches: float
    cycle: float
    cycle_max: float
    probe_every: float
    resident_kib: int
    threads: int
    descriptors: int
    ended_threads: int
    probes: int
    rounds: list
    kib_per_interface: float = None


def row(case, rounds):
    refusal = unequal(rounds)
    lbs = [one.lb for one in rounds]
    cycles = [cycle for lb in lbs for cycle in lb.cycles]

    def ratio(side):
        # Rounds are compared with themselves: what disturbs one disturbs all of its windows.
        if refusal:
            return None
        return median(one.lb.cpu_per_probe / getattr(one, side).cpu_per_probe for one in rounds)

    return Row(
        case, refusal,
        *[median(getattr(one, side).cpu_per_probe for one in rounds) for side in ("lb", "even", "burst")],
        ratio("even"), ratio("burst"),
        median(lb.switches_per_probe for lb in lbs), median(one.even.switches_per_probe for one in rounds),
        median(cycles) if cycles else None, max(cycles, default=None),
        median(lb.period(case.interfaces) for lb in lbs),
        *[max(getattr(lb.holdings, name) for lb in lbs) for name in ("resident_kib", "threads", "descriptors")],
        sum(lb.ended_threads for lb in lbs), sum(lb.probes for lb in lbs),
        [{side: {"probes": getattr(one, side).probes, "us_per_probe": getattr(one, side).cpu_per_probe,
                 "seconds": getattr(one, side).seconds} for side in ("lb", "even", "burst")} for one in rounds])


def tell_memory_per_interface(rows):
    """Fills in how much each further interface takes, against one interface of the same family and path."""
    alone = {(one.case.family, one.case.path): one.resident_kib for one in rows
             if one.case.interfaces == 1 and one.case.vrfs == 1}
    for one in rows:
        least = alone.get((one.case.family, one.case.path))
        if least is not None and one.case.interfaces > 1 and one.case.vrfs == 1:
            one.kib_per_interface = (one.resident_kib - least) / (one.case.interfaces - 1)
