"""The daemon under test: starting it, looking at what it leaves behind, ending it."""

import functools
import mmap
import os
import signal
import threading

from . import dumps, waiting

_REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))


def program():
    return os.environ.get("LB_PROGRAM") or os.path.join(_REPOSITORY, "build", "lb")


@functools.lru_cache(maxsize=None)  # to search a program takes longer than to start it
def _holds(path, *words):
    with open(path, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as content:
        return any(content.find(word) >= 0 for word in words)


def is_thread_sanitizer(path):
    return _holds(path, b"__tsan_init")


def is_undefined_behaviour_sanitizer(path):
    return _holds(path, b"__ubsan_handle")


def has_sanitizer(path):
    return _holds(path, b"__tsan_init", b"__asan_init", b"__ubsan_handle")


def ends_by_itself_on_sigterm(path):
    """A build that writes coverage data, or looks for leaks, when it is told to end."""
    return _holds(path, b"end_instrumented_daemon")


def sanitizer_environment(directory):
    """Options for every sanitizer: reports go to files in `directory`, nothing is suppressed."""
    common = f"log_path={directory}/report:"
    return {
        "ASAN_OPTIONS": common + "detect_leaks=1:detect_stack_use_after_return=1:abort_on_error=0",
        "LSAN_OPTIONS": "report_objects=1",
        "TSAN_OPTIONS": common + "halt_on_error=0:second_deadlock_stack=1:history_size=4",
        "UBSAN_OPTIONS": common + "print_stacktrace=1",
    }


class CycleWatch:
    """Notes when a daemon's cycles write their report, from its construction to `close`."""

    def __init__(self, lb, family=4):
        self.stamps = []  # seconds of the wall clock, by the file's own stamp
        self._count = lb.cycles(family, self.stamps)
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop.wait(0.05):
            self._count()

    def close(self):
        self._stop.set()
        self._thread.join()


class Daemon:
    """One running daemon. `pid` is its number inside the lab; `out` its output directory."""

    def __init__(self, process, out, pid_file=None):
        self.process, self.out, self.pid_file = process, out, pid_file
        self.end_expected = False

    @property
    def pid(self):
        return self.process.pid

    @property
    def alive(self):
        return self.process.status is None

    def expect_end(self, timeout=waiting.PATIENCE):
        """The daemon is to end by itself; returns its exit status."""
        self.end_expected = True
        return self.process.wait(timeout)

    def report_path(self, family=4):
        return os.path.join(self.out, f"wlb_ipv{family}.out")

    def report(self, family=4):
        """The text of the status report; waits for one that is whole (it is written in place)."""

        def whole():
            try:
                with open(self.report_path(family), encoding="utf-8") as file:
                    text = file.read()
            except FileNotFoundError:
                return None
            return text if text.endswith("\n\n") else None

        return waiting.wait_until(whole, f"a whole {self.report_path(family)}")

    def wait_report(self, pattern_or_condition, timeout=waiting.PATIENCE, family=4):
        """Waits until the report contains a text, or a function of it is true; returns the report."""
        condition = (pattern_or_condition if callable(pattern_or_condition)
                     else lambda text: pattern_or_condition in text)
        last = [""]

        def check():
            last[0] = self.report(family)
            return condition(last[0])

        waiting.wait_until(check, lambda: f"{pattern_or_condition!r} in the report:\n{last[0]}", timeout=timeout)
        return last[0]

    def cycles(self, family=4, stamps=None):
        """A function that, called all the time, tells how many cycles have come since the first call.

        stamps: a list that gets the times of the reports, of the wall clock.
        """
        stamps = [] if stamps is None else stamps

        def count():
            if os.path.exists(self.report_path(family)):
                stamp = os.stat(self.report_path(family)).st_mtime
                # The report is emptied, then written: two stamps of one cycle. Between cycles there is a second.
                if not stamps or abs(stamp - stamps[-1]) > 0.5:
                    stamps.append(stamp)
            return len(stamps) - 1

        return count

    def wait_cycles(self, count=1, family=4, timeout=waiting.PATIENCE):
        """Waits until the report has been written `count` times from now on: so many cycles have come that far."""
        seen = self.cycles(family)
        waiting.wait_until(lambda: seen() >= count, f"{count} more cycles of IPv{family}", timeout=timeout)

    def processor_seconds(self):
        """What it has used so far: unlike time, other programs' work adds nothing to it."""
        text = self.process.enclosure.run(["cat", f"/proc/{self.pid}/stat"]).stdout
        user, system = text.rsplit(")", 1)[1].split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    def statuses(self, family=4):
        """{interface: "active" or "failed"} of the current report."""
        result, name = {}, None
        for line in self.report(family).splitlines():
            if line.startswith("Interface:  "):
                name = line.removeprefix("Interface:  ")
            elif line.startswith("  Status:  "):
                result[name] = line.removeprefix("  Status:  ")
        return result

    def wait_status(self, name, status, timeout=waiting.PATIENCE, family=4):
        waiting.wait_until(lambda: self.statuses(family).get(name) == status,
                           lambda: f"{name} {status}; now {self.statuses(family)}", timeout=timeout)

    def dump(self, name):
        """Bytes of a file in the dump directory."""
        with open(os.path.join(self.out, "wlb_dump", name), "rb") as file:
            return file.read()

    def _records(self, name, size, decode):
        last = [b""]

        def whole():
            """A write may be looked at half way: the file is whole when it stays as it is for some looks."""
            try:
                data = self.dump(name)
            except FileNotFoundError:
                return None
            before, last[0] = last[0], data
            return data if data and len(data) % size == 0 and data == before else None

        data = waiting.wait_until(whole, f"whole records in {name}", interval=0.03)
        return [decode(data[at:at + size]) for at in range(0, len(data), size)]

    def outbounds(self, family=4):
        return self._records(f"wlb_ipv{family}_outbounds.bin", dumps.OUTBOUND_SIZE, dumps.outbound)

    def rules(self):
        return self._records("wlb_rules.bin", dumps.RULE_SIZE, dumps.rule)

    def routes(self):
        return self._records("wlb_routes.bin", dumps.ROUTE_SIZE, dumps.route)

    def stop(self):
        """Ends the daemon as an administrator would; returns its exit status."""
        self.end_expected = True
        if self.process.status is None:
            self.process.signal(signal.SIGTERM)
        return self.process.wait()
