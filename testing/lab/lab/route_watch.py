"""Watches a route file all the time and holds it against the interface states that the daemon logged.

The file is replaced once per check cycle, after the states of the cycle are settled. Everything that is ever in it
must be what some state of the moment asks for.
"""

import difflib
import os
import re
import threading
import time

from . import stamps, waiting
from .file_events import CHANGED, FileEvents

STATE_CHANGE = re.compile(r"IP(v6)? interface (\S+) changed state to (active|inactive)")

# From the log of a state change to the file: the rest of the cycle's results come first, on a busy machine too.
_LAG = 6.0
# The clock of the files goes by ticks and may be behind the one of the log by as much.
_TICK = 0.02
_NO_FILE = (None, None, 0)
# Seconds; the directory may be another one, of which there are no events, and the watch is to end.
_LONGEST_WAIT = 0.05


def _shortly(text, wanted):
    """What differs, in a few lines."""
    lines = list(difflib.unified_diff(wanted.splitlines()[:2000], text.splitlines()[:2000], "wanted", "found",
                                      n=1, lineterm=""))
    return "\n".join(lines[:20] + (["..."] if len(lines) > 20 else []))


class RouteWatch:
    """explain: a function of the set of active interfaces (Linux names) that gives the file's text.

    The file may lie anywhere a test can read it. `verify` may be called again and again.
    """

    def __init__(self, lab, name, explain, family=4):
        self._path, self._explain, self._family = lab.path(name), explain, family
        self._log = lab.log
        self.contents = []  # (since when, by the file's own stamp, text), each different from the one before
        self._running = True
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        lab.closing(self)

    def _read(self):
        """(text, the file's stamp: when it was written, by the wall clock); no stamp where there is no file."""
        try:
            while True:
                with open(self._path, encoding="utf-8") as file:
                    written = os.fstat(file.fileno()).st_mtime
                    text = file.read()
                    if os.fstat(file.fileno()).st_mtime == written:
                        return text, written
        except FileNotFoundError:
            return "", None

    def _look(self):
        """What another look at the file has in common with this one when nothing has been written between them."""
        try:
            status = os.stat(self._path)
        except FileNotFoundError:
            return _NO_FILE
        return status.st_ino, status.st_size, status.st_mtime

    def _run(self):
        with FileEvents(os.path.dirname(self._path), CHANGED) as events:
            self._watch(events)

    def _watch(self, events):
        last_written, last_look, patience = None, None, 0.0
        while self._running:
            events.wait(patience)
            patience = _LONGEST_WAIT
            look, now = self._look(), time.time()
            if look == last_look:
                continue
            # Within a tick of the clock of files it may be written again and look the same.
            last_look = look if abs(now - look[-1]) > _TICK else None
            text, written = self._read()
            if not self.contents:
                self.contents.append((time.monotonic(), text))
            elif self.contents[-1][1] != text:
                # One that was moved here, or that is gone, says nothing about when.
                known = written is not None and written != last_written
                since = stamps.monotonic_of(written) if known else time.monotonic()
                self.contents.append((max(since, self.contents[-1][0]), text))
            last_written = written

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
        waiting.wait_until(lambda: self.contents[-1][1] == self._wanted()[-1][1], lambda: (
            f"the route file does not follow:\n{_shortly(self.contents[-1][1], self._wanted()[-1][1])}"))
        now, lag = time.monotonic(), waiting.scaled(_LAG)
        contents, wanted = list(self.contents), self._wanted()
        ends = [since for since, _ in wanted[1:]] + [now]
        for (since, text), until in zip(contents, [when for when, _ in contents[1:]] + [now]):
            near = [asked for (when, asked), end in zip(wanted, ends)
                    if when <= until + _TICK and end >= since - lag]
            assert text in near, (f"for {until - since:.3f} s the route file was none of {len(near)} texts that were "
                                  f"asked for; held against the last of them:\n{_shortly(text, near[-1])}")
            for (when, asked), end in zip(wanted, ends):
                overlap = min(until, end) - max(when, since)
                assert overlap <= lag or text == asked, (f"for {overlap:.1f} s the route file did not follow:\n"
                                                         f"{_shortly(text, asked)}")
        return len(contents)

    def close(self):
        self._running = False
        self._thread.join()
