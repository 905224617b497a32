"""The goals, each held against what was measured."""

from dataclasses import dataclass

from .dead_gateway import POLLS
from .distribution import percentile

RATIOS = {"frame": 1.5, "raw": 1.0}  # at 64 interfaces, to fping
FLAT = {256: 1.5, 1000: 2.0}  # to 16 interfaces
CYCLES = {64: 1.05, 256: 1.1, 1000: 1.5}  # seconds
SWITCHES = 4.0
SWITCH_SECONDS = 0.150
RESIDENT_KIB, RESIDENT_KIB_EACH = 6 * 1024, 24
# A poll's sleep of a millisecond takes up to 1.2 ms.
DEAD_GATEWAY_SECONDS = POLLS * 0.0012


@dataclass
class Goal:
    name: str
    bound: str
    measured: str
    met: bool


def _at_most(name, limit, value, digits=2, unit=""):
    return Goal(name, f"at most {limit:g}{unit}", f"{value:.{digits}f}{unit}", value <= limit)


def _costs(row):
    if row.case.interfaces == 64 and row.case.vrfs == 1:
        if row.refusal:
            yield Goal(f"{row.case}: cost to fping's", f"at most {RATIOS[row.case.path]:g}", "refused", False)
        else:
            yield _at_most(f"{row.case}: cost to fping's", RATIOS[row.case.path], row.ratio_even)
            yield _at_most(f"{row.case}: cost to fping's in bursts", RATIOS[row.case.path], row.ratio_burst)


def _flat(row, rows):
    for few in rows:
        if row.case.interfaces in FLAT and few.case.interfaces == 16 and row.case.vrfs == few.case.vrfs == 1 and (
                row.case.family, row.case.path) == (few.case.family, few.case.path):
            yield _at_most(f"{row.case}: cost to that of 16", FLAT[row.case.interfaces], row.lb_us / few.lb_us)


def _holdings(row):
    case = row.case
    if case.interfaces == 256:
        yield _at_most(f"{case}: resident", RESIDENT_KIB + RESIDENT_KIB_EACH * case.interfaces, row.resident_kib, 0,
                       " kB")
    # A receiver for each interface, a worker, a link receiver and a VRF's thread for each VRF, main and log.
    yield _at_most(f"{case}: threads", case.interfaces + 3 * case.vrfs + 2, row.threads, 0)
    # Three for each interface; standard ones and the log's; the VRF's for resolving, for questions to the kernel and
    # for connection tracking.
    yield _at_most(f"{case}: descriptors", 3 * case.interfaces + 6 + 9 * case.vrfs, row.descriptors, 0)


def of_rows(rows):
    for row in rows:
        yield from _costs(row)
        yield from _flat(row, rows)
        if row.case.interfaces in CYCLES and row.case.answered and row.cycle is not None:
            yield _at_most(f"{row.case}: cycle", CYCLES[row.case.interfaces], row.cycle, 3, " s")
        yield _at_most(f"{row.case}: context switches", SWITCHES, row.switches)
        yield from _holdings(row)


def of_dead_gateway(dead):
    yield _at_most(f"{dead.interfaces} interfaces, IPv{dead.family}: a dead gateway adds to the cycle",
                   1000 * DEAD_GATEWAY_SECONDS, 1000 * dead.added, 0, " ms")


def of_switching(times):
    family, count = f"IPv{times.family}", len(times.switch)
    yield _at_most(f"{family}, {count} cuts: FAILED to the kernel's route, p99", 1000 * SWITCH_SECONDS,
                   1000 * percentile(times.switch, 99), 0, " ms")
    yield _at_most(f"{family}, {count} cuts: ACTIVE to the kernel's route, p99", 1000 * SWITCH_SECONDS,
                   1000 * percentile(times.back, 99), 0, " ms")
    late = sum(took > limit for took, limit in zip(times.detection, times.bounds))
    yield Goal(f"{family}, {count} cuts: silence to FAILED within resp-time and two cycles", "always",
               f"{late} late", late == 0)
