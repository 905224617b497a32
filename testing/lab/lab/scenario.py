"""The lab of one scenario: in the end its daemons are answered for, and a failed one may be kept to look into."""

import contextlib
import os

from .lab import Lab

# The property of a report that says how to enter the lab.
KEPT = "kept lab"


class Plugin:
    """Tells of the labs that go on, in the process that reports."""

    def __init__(self):
        self._kept = {}

    def pytest_runtest_logreport(self, report):
        self._kept.update({report.nodeid: text for name, text in report.user_properties if name == KEPT})

    def pytest_terminal_summary(self, terminalreporter):
        if self._kept:
            terminalreporter.section("labs that go on, but for far ends that are threads of the test")
        for name, text in self._kept.items():
            terminalreporter.write_line(f"Enter the lab of {name} with\n  {text}")


@contextlib.contextmanager
def lab_of(item, **options):
    """A lab for the pytest item. With LB_LAB_KEEP set, that of a failed one goes on; the summary says how to enter it.

    The item's attribute `has_failed` tells of its setup and of itself; problems of the daemons are a failure too.
    """
    keep = bool(os.environ.get("LB_LAB_KEEP"))
    with Lab(**options) as made:
        yield made
        # A kept daemon runs on.
        problems = [] if keep and item.has_failed else made.finish()
        if problems or item.has_failed:
            print("--- log\n" + made.log.text())
            for started in made.daemons:
                print(f"--- standard error of {started.process.argv}\n{started.process.stderr}")
            if keep:
                # Of a scenario whose setup failed, nothing that is printed from here on would be shown.
                item.user_properties.append((KEPT, made.leave_running()))
        assert not problems, "\n".join(problems)
