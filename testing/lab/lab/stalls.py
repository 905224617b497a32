"""A scenario that failed while the machine stood still is run again, and the summary says so.

The lab's programs have to answer each other within a second or so. A machine that gives them no processor for a good
part of it makes a scenario fail that is right: a suspended guest, or far too much other work. Threads beside each
scenario, one on each processor, sleep for moments and note every one that lasted too long. Only a failure with such a
note inside its duration is tried again, in namespaces of its own; whatever the last run says counts. Where the lab of
a failed scenario is to be kept (LB_LAB_KEEP), the first failure is what is looked into, and nothing is run again.
"""

import os
import threading
import time

import pytest
from _pytest.runner import runtestprotocol

MOMENT = 0.05
# Oversleeping that long is a stall. Where the processors are merely busy, one who has slept is let in sooner.
STALL = 0.25
MOST_RUNS = 3
# The property of a report, and of its test case in a JUnit file.
RUN_AGAIN = "run again"


class Watcher:
    """Notes stalls while its context lasts: of each processor, since one may stand still alone."""

    def __init__(self, stall=None):
        self._stall = STALL if stall is None else stall
        self.noted = []  # seconds of each
        self._watches = []

    def __enter__(self):
        for processor in sorted(os.sched_getaffinity(0)):
            running = threading.Lock()  # to wait for it is cheaper than for an Event
            running.acquire()
            thread = threading.Thread(target=self._run, args=(processor, running), name="stalls", daemon=True)
            thread.start()
            self._watches.append((thread, running))
        return self

    def __exit__(self, *_):
        for thread, running in self._watches:
            running.release()
            thread.join()

    def _run(self, processor, running):
        os.sched_setaffinity(0, {processor})  # of this thread
        before = time.monotonic()
        while not running.acquire(timeout=MOMENT):
            before = self._note(before)
        self._note(before)

    def _note(self, before):
        now = time.monotonic()
        if now - before - MOMENT > self._stall:
            self.noted.append(now - before - MOMENT)
        return now


def last_result(run, told):
    """Calls `run` for (result, whether a stall may have spoiled it) until the result counts, and returns that.

    `told` gets the result that does not count and the seconds of the longest stall, before each further run.
    """
    for _ in range(MOST_RUNS - 1):
        with Watcher() as watcher:
            result, may_be_spoiled = run()
        if not may_be_spoiled or not watcher.noted:
            return result
        told(result, max(watcher.noted))
    return run()[0]


class Plugin:
    """Runs the scenarios; in the process that reports, with or without workers, collects what was run again."""

    def __init__(self):
        self._run_again = {}  # test: (what was said of each run that was thrown away, what counts)

    @pytest.hookimpl(tryfirst=True)
    def pytest_runtest_protocol(self, item, nextitem):
        item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
        for report in self._last_run(item, nextitem):
            item.ihook.pytest_runtest_logreport(report=report)
        item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
        return True

    @staticmethod
    def _last_run(item, nextitem):
        properties, earlier = list(item.user_properties), []

        def run():
            # Reports take what is there: of a run that is thrown away only its note stays.
            item.user_properties[:] = properties + earlier
            item._report_sections.clear()
            reports = runtestprotocol(item, nextitem=nextitem, log=False)
            return reports, any(report.failed for report in reports) and not os.environ.get("LB_LAB_KEEP")

        def told(reports, stall):
            failed = next(report for report in reports if report.failed)
            earlier.append((RUN_AGAIN, f"the machine stood still for {stall:.2f} s in run {len(earlier) + 1}, which "
                                       f"failed: {_reason(failed)}"))

        return last_result(run, told)

    def pytest_runtest_logreport(self, report):
        notes = [text for name, text in report.user_properties if name == RUN_AGAIN]
        if notes:
            failed = self._run_again.get(report.nodeid, (None, False))[1] or report.failed
            self._run_again[report.nodeid] = notes, failed

    def pytest_terminal_summary(self, terminalreporter):
        if not self._run_again:
            return
        terminalreporter.section("scenarios that were run again")
        for name, (notes, failed) in self._run_again.items():
            for note in notes:
                terminalreporter.write_line(f"{name}: {note}")
            terminalreporter.write_line(f"{name}: run {len(notes) + 1} {'failed' if failed else 'did not fail'}")
        terminalreporter.write_line(f"run again: {len(self._run_again)}")


def _reason(report):
    """The error in one line."""
    crash = getattr(report.longrepr, "reprcrash", None)
    text = (crash.message if crash else str(report.longrepr)).strip()
    return (text.splitlines() or [""])[0][:200]
