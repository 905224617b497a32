"""Watches a route file all the time and holds it against the interface states that the daemon logged.

The file is written once per check cycle, after the states of the cycle are settled, and in place: for an instant
it is empty. Everything else that is ever in it must be what some state of the moment asks for.
"""

import re
import threading
import time

from . import waiting

_CHANGE = re.compile(r"IP(v6)? interface (\S+) changed state to (active|inactive)")

# From the log of a state change to the file: the rest of the cycle's results come first.
_LAG = 3.0
# From the truncation to the text; a loaded machine may stop the writer in between.
_INSTANT = 0.2


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

    def states(self):
        """[(since when, frozenset of the active interfaces)], from what the daemon logged."""
        self._log.settle()
        active, history = frozenset(), [(0.0, frozenset())]
        for record in list(self._log.records):
            found = _CHANGE.search(record.text)
            if not found or bool(found[1]) != (self._family == 6):
                continue
            active = active | {found[2]} if found[3] == "active" else active - {found[2]}
            history.append((record.when, active))
        return history

    def verify(self):
        """Every text so far was asked for by a state of its time, and none stayed when the states had moved on."""
        now, lag = time.monotonic(), waiting.scaled(_LAG)
        contents, states = list(self.contents), self.states()
        for index, (since, text) in enumerate(contents):
            until = contents[index + 1][0] if index + 1 < len(contents) else now
            if text == "" and until - since < waiting.scaled(_INSTANT):
                continue
            near = [active for place, (when, active) in enumerate(states)
                    if when <= until and (place + 1 == len(states) or states[place + 1][0] >= since - lag)]
            assert text in map(self._explain, near), (
                f"for {until - since:.3f} s the route file was\n{text}\nwhich none of these states asks for: "
                f"{list(map(sorted, near))}")
            for place, (when, active) in enumerate(states):
                end = min(until, states[place + 1][0] if place + 1 < len(states) else now)
                if end - max(when, since) > lag:
                    assert text == self._explain(active), (
                        f"with {sorted(active)} active for {end - when:.1f} s the route file was still\n{text}")
        return len(contents)

    def close(self):
        self._stop.set()
        self._thread.join()
