"""Waiting for events with deadlines. Nothing in the lab sleeps for a fixed time and hopes.

A deadline ends a scenario in which something never happens; it is no bound on how fast things happen, and a scenario
that passes does not pay for it. So it is generous. LB_LAB_SLOW stretches every deadline, for builds with sanitizers.
"""

import os
import time

SLOW = float(os.environ.get("LB_LAB_SLOW", "1"))

# Seconds until an event is given up, where nothing else is said.
PATIENCE = 30.0


class TimedOut(AssertionError):
    """An event did not come before its deadline."""


def scaled(seconds):
    return seconds * SLOW


def milliseconds(number):
    """A reply time for a configuration: as long as it says, and longer where deadlines are."""
    return int(scaled(number))


# Who has waited long asks less often, up to this: the scenarios beside it need the processor too.
LONGEST_INTERVAL = 0.05


def wait_until(condition, what="", timeout=PATIENCE, interval=0.01):
    """Calls `condition` until it returns something true, and returns that; raises TimedOut.

    `what` says what was waited for: a text, or a function that is called when time is up.
    """
    begin = time.monotonic()
    while True:
        result = condition()
        if result:
            return result
        waited = time.monotonic() - begin
        if waited >= scaled(timeout):
            text = what() if callable(what) else what
            raise TimedOut(f"not within {scaled(timeout):g} s: {text or condition}")
        time.sleep(max(interval, min(waited / 20, LONGEST_INTERVAL)))


def never(condition, seconds, what="", interval=0.02):
    """Fails as soon as `condition` becomes true within `seconds` (which are not stretched)."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        result = condition()
        assert not result, f"happened although it must not: {what or condition} ({result!r})"
        time.sleep(interval)
