"""A window of the daemon and two of fping, one after the other on the same links.

They never run at the same time: each one's raw sockets would get the other's replies.
"""

import math
import os
import signal
import time
from dataclasses import dataclass

from lab import waiting

from .usage import Holdings, holdings, look, outer_pid, used


@dataclass
class Window:
    """`probes` were counted at the far end; `cpu` is in seconds; `cycles` are seconds from one to the next."""

    seconds: float
    probes: int
    cpu: float
    voluntary: int
    involuntary: int
    ended_threads: int
    cycles: list
    holdings: Holdings

    @property
    def cpu_per_probe(self):
        """Microseconds; not a number without probes."""
        return 1e6 * self.cpu / self.probes if self.probes else math.nan

    def period(self, targets):
        """Mean seconds between two probes of one target. At times a cycle skips one that it has not judged yet."""
        return self.seconds * targets / max(self.probes, 1)

    @property
    def switches_per_probe(self):
        return (self.voluntary + self.involuntary) / self.probes if self.probes else math.nan


def _measure(bed, processes, until):
    """What happens while `until` waits; it returns how long cycles took."""
    holder = bed.lab.enclosure.holder_pid()
    pids = [outer_pid(holder, process.pid) for process in processes]
    started, probes, before = time.monotonic(), bed.far.probes(), [look(pid) for pid in pids]
    cycles = until()
    probes, seconds = bed.far.probes() - probes, time.monotonic() - started
    sums = [used(*looks) for looks in zip(before, [look(pid) for pid in pids])]
    held = [holdings(pid) for pid in pids]
    return Window(seconds, probes, *[sum(getattr(one, name) for one in sums)
                                     for name in ("cpu", "voluntary", "involuntary", "ended")], cycles,
                  Holdings(*[sum(getattr(one, name) for one in held)
                             for name in ("resident_kib", "threads", "descriptors")]))


def next_report(lb, family):
    """Waits for the end of the moment at which a cycle's report is written. Then there is a second's rest.

    Returns the time of the file, in seconds of the wall clock.
    """
    path = lb.report_path(family)
    seen = os.stat(path).st_mtime_ns
    waiting.wait_until(lambda: os.stat(path).st_mtime_ns != seen, "a report", timeout=120, interval=0.005)
    time.sleep(0.03)  # emptied, then written: two stamps
    return os.stat(path).st_mtime


def lb_window(bed, seconds):
    """The daemon's window: whole cycles, an even number of them, for `seconds` at least."""
    lb, case = bed.start_lb(), bed.case

    def whole_cycles():
        # The VRFs' workers write one report at moments of their own: there, one link's probes tell the cycle.
        watch = bed.far.watch(bed.probed[-1]) if case.vrfs > 1 else None
        end, stamps = time.monotonic() + (max(seconds, 4) if watch else seconds), [first]
        # By twos: while a probe is out, a cycle sends none; with one interface, or without answers, each second one.
        while time.monotonic() < end or len(stamps) % 2 == 0:
            stamps.append(next_report(lb, case.family))
        stamps = watch.close() if watch else stamps
        return [later - earlier for earlier, later in zip(stamps, stamps[1:])]

    try:
        first = next_report(lb, case.family)
        return _measure(bed, [lb.process], whole_cycles)
    finally:
        lb.stop()


def fping_window(bed, period, seconds, burst):
    """fping's window with that period, when every target has had its first probe."""
    before, processes = bed.far.probes(), bed.start_fping(period, burst)
    try:
        waiting.wait_until(lambda: bed.far.probes() - before > len(bed.probed) / (2 if burst else 1),
                           "fping's first probes", timeout=30 + 3 * period, interval=0.05)
        if burst:
            time.sleep(min(period / 2, 0.5))  # the window begins and ends between two bursts
        return _measure(bed, processes, lambda: time.sleep(seconds) or [])
    finally:
        for process in processes:
            process.signal(signal.SIGKILL)
            process.wait()


@dataclass
class Round:
    """The daemon's window, and two of fping with the cycle and the length that the daemon's had."""

    lb: Window
    even: Window
    burst: Window


def rounds(bed, count, seconds, tell=lambda text: None):
    done = []
    for number in range(1, count + 1):
        lb = lb_window(bed, seconds)
        period = lb.period(len(bed.probed))
        even, burst = [fping_window(bed, period, lb.seconds, burst) for burst in (False, True)]
        tell(f"{bed.case}: round {number} of {count}: us per probe: lb {lb.cpu_per_probe:.0f}, fping evenly "
             f"{even.cpu_per_probe:.0f}, in bursts {burst.cpu_per_probe:.0f}")
        done.append(Round(lb, even, burst))
    return done
