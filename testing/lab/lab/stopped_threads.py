"""Threads of the daemon held by a debugger, while its other threads run on."""

import os
import signal
import sys

from . import waiting

_STOPPER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes", "thread_stopper.py")


class StoppedThreads:
    """which: "worker" for one of them, or "receivers" for all; `count` is how many were stopped."""

    def __init__(self, lab, lb, which):
        self._debugger = lab.enclosure.spawn([sys.executable, _STOPPER, str(lb.pid), which])
        waiting.wait_until(lambda: self._debugger.stdout or self._debugger.status is not None, "a stopped thread")
        assert self._debugger.status is None, self._debugger.stderr
        self.count = len(self._debugger.stdout.split())

    def release(self):
        self._debugger.signal(signal.SIGTERM)
        assert self._debugger.wait() == 0, self._debugger.stderr
