"""Which scenarios are run again, and what is said of it: small ones under a pytest of their own."""

import ctypes
import os
import re
import threading

import pytest

from lab import stalls, waiting
from lab.inner_session import InnerSession

# Longer than the one that counts here: what an inner run takes for a stall of the machine, the outer one does too.
INNER_STALL = 0.4

# Without leaving Python's lock it stops every thread of the process for a while, as the machine may do.
PRELUDE = f"""import ctypes, os, threading, pytest
from lab import stalls
stalls.STALL = {INNER_STALL}
def stand_still():
    ctypes.PyDLL(None).usleep(500000)
def runs(name):
    with open(name, "a+") as file:
        file.write("x")
        return file.tell()
"""

FAILS_ONCE_IN_A_STALL = """
def test_it():
    if runs("it") == 1:
        print("words of the first run")
        stand_still()
        assert False, "too late"
    print("words of the second run")
"""


@pytest.mark.parametrize("options", [(), ("-n", "2")], ids=["alone", "workers"])
def test_failure_in_a_stall_is_run_again(tmp_path, options):
    session = InnerSession(tmp_path, PRELUDE + FAILS_ONCE_IN_A_STALL, *options)
    assert session.process.returncode == 0 and session.runs() == 2, session.text
    assert "1 passed" in session.text and "failed in" not in session.text
    assert re.search(r"^run again: 1$", session.text, re.M), session.text
    note = re.search(r"^test_scenarios.py::test_it: the machine stood still for (\S+) s in run 1, which failed: "
                     r"AssertionError: too late$", session.text, re.M)
    assert note and float(note[1]) > 0.3, session.text
    (name, value), = session.properties()
    assert name == stalls.RUN_AGAIN and note[1] in value
    assert "run again lab: test_scenarios.test_it: the machine stood still" in session.counted()
    assert session.counted().splitlines()[-1] == "1 passed, 0 failed"


def test_each_processor_is_watched():
    """One may stand still while the others go on."""
    def watched():
        return sorted(tuple(os.sched_getaffinity(thread.native_id)) for thread in threading.enumerate()
                      if thread.name == "stalls" and thread not in others)

    others = threading.enumerate()
    with stalls.Watcher():
        waiting.wait_until(lambda: watched() == [(processor,) for processor in sorted(os.sched_getaffinity(0))],
                           lambda: f"watches of {watched()}")
    assert not watched()


def _last_result(*runs):
    """What is returned when the runs are (problems, whether a stall may have made them, whether there is one), and how
    many runs and words there were."""
    left, told = list(runs), []

    def run():
        problems, by_stall, stands_still = left.pop(0)
        if stands_still:
            ctypes.PyDLL(None).usleep(500000)
        return problems, bool(problems) and by_stall

    problems = stalls.last_result(run, lambda _, stall: told.append(stall))
    assert all(stall > stalls.STALL for stall in told)
    return problems, len(runs) - len(left), len(told)


def test_runs_that_count(monkeypatch):
    """The soak's, which is no scenario of pytest."""
    monkeypatch.setattr(stalls, "STALL", INNER_STALL)
    good = ([], True, False)
    assert _last_result((["late"], True, True), good) == ([], 2, 1)
    assert _last_result((["late"], True, False), good) == (["late"], 1, 0)  # nothing stood still
    assert _last_result((["crash"], False, True), good) == (["crash"], 1, 0)  # no matter of time
    assert _last_result(([], True, True), good) == ([], 1, 0)
    assert _last_result(*[(["late"], True, True)] * stalls.MOST_RUNS, good) == (["late"], stalls.MOST_RUNS, 2)


def test_failure_without_a_stall_is_not_run_again(tmp_path):
    session = InnerSession(tmp_path, PRELUDE + """
def test_it():
    runs("it")
    assert False, "wrong"
""")
    assert session.process.returncode == 1 and session.runs() == 1
    assert "1 failed" in session.text and "run again" not in session.text and not session.properties()
    assert session.counted().splitlines()[-1] == "0 passed, 1 failed"


def test_stall_without_a_failure_is_not_run_again(tmp_path):
    session = InnerSession(tmp_path, PRELUDE + """
def test_it():
    runs("it")
    stand_still()
def test_skipped():
    stand_still()
    pytest.skip("not here")
""")
    assert session.process.returncode == 0 and session.runs() == 1 and "run again" not in session.text


def test_failure_each_time_counts(tmp_path):
    """Two more tries, and no fourth."""
    session = InnerSession(tmp_path, PRELUDE + """
def test_it():
    runs("it")
    stand_still()
    assert False, "wrong"
def test_other():
    runs("other")
""")
    assert session.process.returncode == 1 and session.runs() == 3 and session.runs("other") == 1
    assert "1 failed, 1 passed" in session.text and re.search(r"^run again: 1$", session.text, re.M), session.text
    assert session.text.count("the machine stood still") == 2 and "test_it: run 3 failed" in session.text
    assert session.counted().splitlines()[-1] == "1 passed, 1 failed"


def test_last_failure_counts_without_a_stall(tmp_path):
    session = InnerSession(tmp_path, PRELUDE + """
def test_it():
    if runs("it") == 1:
        stand_still()
    assert False, "wrong"
""")
    assert session.process.returncode == 1 and session.runs() == 2 and "1 failed" in session.text


@pytest.mark.parametrize("place", ["before", "behind"])
def test_fixtures_are_made_anew(tmp_path, place):
    """A failure of the setup or the teardown is one of the scenario, and each run has its own world."""
    session = InnerSession(tmp_path, PRELUDE + f"""
@pytest.fixture
def world():
    number = runs("it")
    if number == 1 and {place == "before"}:
        stand_still()
        assert False, "no world"
    yield number
    if number == 1:
        stand_still()
        assert False, "no end"
def test_it(world):
    assert world == runs("called") + {place == "before"}
""")
    assert session.process.returncode == 0 and session.runs() == 2, session.text
    assert "1 passed" in session.text and re.search(r"^run again: 1$", session.text, re.M), session.text


def test_kept_failure_is_not_run_again(tmp_path):
    session = InnerSession(tmp_path, PRELUDE + FAILS_ONCE_IN_A_STALL, LB_LAB_KEEP="1")
    assert session.process.returncode == 1 and session.runs() == 1


def test_no_thread_is_left_over(tmp_path):
    session = InnerSession(tmp_path, PRELUDE + """
seen = []
def watches():
    return [thread for thread in threading.enumerate() if thread.name == "stalls"]
def test_one():
    seen.extend(watches())
    assert len(seen) == len(os.sched_getaffinity(0))
def test_two():
    assert not any(thread.is_alive() for thread in seen)
    assert len(watches()) == len(seen)
""")
    assert session.process.returncode == 0, session.text
