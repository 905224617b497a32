"""Keeps book of the daemon's switches: which were due, which came, and which nobody asked for."""


class Ledger:
    """Keys name what switches, here (family, interface). Times are the monotonic clock's seconds."""

    def __init__(self):
        self.right, self.wrong, self.missed = [], [], []
        self._due = {}  # key: [(state, not before, deadline)], in the order in which they must come

    def expect(self, key, state, since, deadline):
        """A switch of `key` to `state` is due, behind those that are due already."""
        self._due.setdefault(key, []).append((state, since, deadline))

    def saw(self, key, state, when):
        """The daemon has switched."""
        due = self._due.get(key, [])
        if due and due[0][0] == state and when >= due[0][1]:
            _, since, deadline = due.pop(0)
            (self.right if when <= deadline else self.missed).append((key, state, when, when - since))
        else:
            self.wrong.append((key, state, when, None))

    def give_up(self, now):
        """What is overdue at `now` has been missed."""
        for key, due in self._due.items():
            while due and due[0][2] < now:
                state, since, _ = due.pop(0)
                self.missed.append((key, state, None, now - since))

    def is_due(self, *keys):
        """Whether a switch of one of the keys, or without keys of any, is still to come."""
        return any(due for key, due in self._due.items() if not keys or key in keys)

    @property
    def is_clean(self):
        return not self.wrong and not self.missed
