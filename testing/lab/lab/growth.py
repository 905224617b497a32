"""What a daemon holds: threads, descriptors, children and memory; faults must not make it hold more for good."""

import os
import time

from . import daemon, waiting

# What the allocator may keep for itself: a new arena's first pages, fragments.
ALLOWED_KIB = 1024


class Holdings:
    def __init__(self, threads, descriptors, children, memory_kib):
        self.threads, self.descriptors, self.children, self.memory_kib = threads, descriptors, children, memory_kib

    def __repr__(self):
        return (f"{self.threads} threads, {self.descriptors} descriptors, {self.children} children, "
                f"{self.memory_kib} KiB of its own")


def holdings(lab, lb):
    """Now, as the kernel sees it."""
    return Holdings(*lab.enclosure.holdings(lb.pid))


class Growth:
    """Made when the daemon has settled; `check` when it has settled again.

    Sockets, shell commands and reports come and go within a cycle, so both take the least of several looks.
    """

    LOOKS, BETWEEN_LOOKS = 20, 0.02

    def __init__(self, lab, lb, closed_sockets=0):
        """`closed_sockets`: so many descriptors may be closed just now, for the daemon to open when it needs them."""
        self.lab, self.lb, self.closed_sockets = lab, lb, closed_sockets
        # A sanitizer keeps freed memory to itself and grows with what it has seen.
        self.measures_memory = not daemon.has_sanitizer(daemon.program())
        self.before = self._calm()
        waiting.wait_until(self._has_settled, "all threads and sockets that the daemon starts with")

    def _has_settled(self):
        """A whole cycle of each family has brought no thread and no descriptor."""
        earlier = self.before
        for family in (4, 6):
            if os.path.exists(self.lb.report_path(family)):
                self.lb.wait_cycles(2, family)
        self.before = self._calm()
        return (self.before.threads, self.before.descriptors) == (earlier.threads, earlier.descriptors)

    def _calm(self):
        looks = []
        for _ in range(self.LOOKS):
            looks.append(holdings(self.lab, self.lb))
            time.sleep(self.BETWEEN_LOOKS)
        return Holdings(*(min(getattr(look, name) for look in looks)
                          for name in ("threads", "descriptors", "children", "memory_kib")))

    def check(self, allowed_kib=ALLOWED_KIB, timeout=waiting.PATIENCE):
        """Waits until the daemon holds no more than before; returns what it then holds."""
        last = [None]

        def small_enough():
            now = last[0] = self._calm()
            return (now.threads <= self.before.threads
                    and now.descriptors <= self.before.descriptors + self.closed_sockets
                    and now.children <= self.before.children
                    and (not self.measures_memory or now.memory_kib <= self.before.memory_kib + allowed_kib))

        waiting.wait_until(small_enough,
                           lambda: f"no growth (memory: {allowed_kib} KiB); before: {self.before}; now: {last[0]}",
                           timeout=timeout, interval=0.2)
        return last[0]
