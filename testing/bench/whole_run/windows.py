"""A window of the daemon and one of fping, one after the other on the same links.

They never run at the same time: each one's raw sockets would get the other's replies.
"""

import os
import signal
import time
from dataclasses import dataclass
from statistics import median

from lab import waiting

from .usage import Holdings, holdings, look, outer_pid, used


@dataclass
class Window:
    """`probes` were counted at the far end; `cpu` is in seconds; `intervals` lie between two probes of one link."""

    seconds: float
    probes: int
    cpu: float
    voluntary: int
    involuntary: int
    ended_threads: int
    intervals: list
    holdings: Holdings

    @property
    def cpu_per_probe(self):
        """Microseconds."""
        return 1e6 * self.cpu / self.probes

    def period(self, targets):
        """Seconds between two probes of one target."""
        return median(self.intervals) if self.intervals else self.seconds * targets / max(self.probes, 1)

    @property
    def switches_per_probe(self):
        return (self.voluntary + self.involuntary) / self.probes


def _measure(bed, processes, until):
    """What happens while `until` waits."""
    holder = bed.lab.enclosure.holder_pid()
    pids = [outer_pid(holder, process.pid) for process in processes]
    # One link of each VRF is watched, the last.
    watches = [bed.far.watch(strand) for strand in {strand.vrf: strand for strand in bed.probed}.values()]
    started, probes, before = time.monotonic(), bed.far.probes(), [look(pid) for pid in pids]
    until()
    probes, seconds = bed.far.probes() - probes, time.monotonic() - started
    sums = [used(*looks) for looks in zip(before, [look(pid) for pid in pids])]
    held = [holdings(pid) for pid in pids]
    moments = [watch.close() for watch in watches]
    return Window(seconds, probes, *[sum(getattr(one, name) for one in sums)
                                     for name in ("cpu", "voluntary", "involuntary", "ended")],
                  [later - earlier for times in moments for earlier, later in zip(times, times[1:])],
                  Holdings(*[sum(getattr(one, name) for one in held)
                             for name in ("resident_kib", "threads", "descriptors")]))


def _after_report(lb, family):
    """Waits for the end of the moment at which a cycle's report is written. Then there is a second's rest."""
    path = lb.report_path(family)
    seen = os.stat(path).st_mtime_ns
    waiting.wait_until(lambda: os.stat(path).st_mtime_ns != seen, "a report", timeout=120, interval=0.005)
    time.sleep(0.03)  # emptied, then written: two stamps


def lb_window(bed, seconds):
    """The daemon's window: whole cycles, for `seconds` at least and two probes."""
    lb, family = bed.start_lb(), bed.case.family
    try:
        def cycles():
            end, count = time.monotonic() + seconds, 0
            while time.monotonic() < end or count < 2 * bed.case.cycles_per_probe or count % bed.case.cycles_per_probe:
                _after_report(lb, family)
                count += 1

        _after_report(lb, family)
        return _measure(bed, [lb.process], cycles)
    finally:
        lb.stop()


def fping_window(bed, period, seconds):
    """fping's window with that period, when every target has had its first probe."""
    before, processes = bed.far.probes(), bed.start_fping(period)
    try:
        waiting.wait_until(lambda: bed.far.probes() - before >= len(bed.probed) + 1, "fping's second round",
                           timeout=30 + 3 * period, interval=0.05)
        return _measure(bed, processes, lambda: time.sleep(seconds))
    finally:
        for process in processes:
            process.signal(signal.SIGKILL)
            process.wait()


def rounds(bed, count, seconds, tell=lambda text: None):
    """[(the daemon's window, fping's)]: fping's has the cycle and the length that the daemon's had."""
    pairs = []
    for number in range(1, count + 1):
        lb = lb_window(bed, seconds)
        fping = fping_window(bed, lb.period(len(bed.probed)), lb.seconds)
        tell(f"{bed.case}: round {number} of {count}: lb {lb.cpu_per_probe:.0f} us, "
             f"fping {fping.cpu_per_probe:.0f} us per probe")
        pairs.append((lb, fping))
    return pairs
