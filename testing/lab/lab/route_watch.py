"""Watches a route file all the time and holds it against the interface states that the daemon logged.

The file is written once per check cycle, after the states of the cycle are settled, and in place: for an instant
it is empty, and a long one holds the beginning of its text. Everything else that is ever in it must be what some
state of the moment asks for.
"""

import difflib
import re
import threading
import time

from . import waiting

STATE_CHANGE = re.compile(r"IP(v6)? interface (\S+) changed state to (active|inactive)")

# From the log of a state change to the file: the rest of the cycle's results come first.
_LAG = 3.0
# From the truncation to the whole text; a loaded machine may stop the writer in between.
_INSTANT = 1.0


def _shortly(text, wanted):
    """What differs, in a few lines."""
    lines = list(difflib.unified_diff(wanted.splitlines()[:2000], text.splitlines()[:2000], "wanted", "found",
                                      n=1, lineterm=""))
    return "\n".join(lines[:20] + (["..."] if len(lines) > 20 else []))


class RouteWatch:
    """explain: a function of the set of active interfaces (Linux names) that gives the file's text.

    The file may lie anywhere a test can read it. `verify` may be called again and again.
    """

    def __init__(self, lab, name, explain, family=4, interval=0.002):
        self._path, self._explain, self._family, self._interval = lab.path(name), explain, family, interval
        self._log = lab.log
        self.contents = []  # (since when, text), each different from the one before
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        lab.closing(self)

    def _read(self):
        try:
            with open(self._path, encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def _run(self):
        while not self._stop.wait(self._interval):
            text = self._read()
            if not self.contents or self.contents[-1][1] != text:
                self.contents.append((time.monotonic(), text))

    def _wanted(self):
        """[(since when, text)]: what the states that the daemon logged ask for, one after the other."""
        self._log.settle()
        active, wanted = frozenset(), [(0.0, self._explain(frozenset()))]
        for record in list(self._log.records):
            found = STATE_CHANGE.search(record.text)
            if not found or bool(found[1]) != (self._family == 6):
                continue
            active = active | {found[2]} if found[3] == "active" else active - {found[2]}
            text = self._explain(active)
            if text != wanted[-1][1]:
                wanted.append((record.when, text))
        return wanted

    def verify(self):
        """Every text so far was asked for by a state of its time, and none stayed when the states had moved on.

        Returns how many texts the file has had.
        """
        assert self._thread.is_alive() and self.contents, "nothing was watched"
        now, lag = time.monotonic(), waiting.scaled(_LAG)
        contents, wanted = list(self.contents), self._wanted()
        ends = [since for since, _ in wanted[1:]] + [now]
        for (since, text), until in zip(contents, [when for when, _ in contents[1:]] + [now]):
            near = [asked for (when, asked), end in zip(wanted, ends) if when <= until and end >= since - lag]
            if until - since < waiting.scaled(_INSTANT) and any(asked.startswith(text) for asked in near):
                continue
            assert text in near, (f"for {until - since:.3f} s the route file was none of {len(near)} texts that were "
                                  f"asked for; held against the last of them:\n{_shortly(text, near[-1])}")
            for (when, asked), end in zip(wanted, ends):
                overlap = min(until, end) - max(when, since)
                assert overlap <= lag or text == asked, (f"for {overlap:.1f} s the route file did not follow:\n"
                                                         f"{_shortly(text, asked)}")
        return len(contents)

    def close(self):
        self._stop.set()
        self._thread.join()
