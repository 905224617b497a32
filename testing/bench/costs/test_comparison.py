"""What counts as a change of the costs, and in which order changes are told."""

import json

import pytest

from . import comparison

SUBJECTS = {"packets/ARP reply": 1000, "configuration/100000 lines": 1_000_000}
CALLS = {"IPv4 raw": {"sendto": 1.0, "futex": 0.5, "recvfrom": 64.0, "write": 0.06}}


def changes(subjects=None, calls=None):
    return comparison.changes({**SUBJECTS, **(subjects or {})}, {"IPv4 raw": {**CALLS["IPv4 raw"], **(calls or {})}},
                              SUBJECTS, CALLS)


@pytest.mark.parametrize("subjects, calls", [
    ({}, {}),
    ({"packets/ARP reply": 1050}, {}),
    ({"packets/ARP reply": 950}, {}),
    ({}, {"sendto": 1.1}),
    ({}, {"recvfrom": 66.0}),
    ({}, {"write": 0.16}),
    ({}, {"futex": 2.5}),
    ({}, {"getpid": 0.05}),
])
def test_what_is_no_change(subjects, calls):
    assert not changes(subjects, calls)


@pytest.mark.parametrize("subjects, calls, word, rest", [
    ({"packets/ARP reply": 1060}, {}, "dearer", "packets/ARP reply"),
    ({"packets/ARP reply": 940}, {}, "cheaper", "packets/ARP reply"),
    ({"packets/new": 21}, {}, "dearer", "packets/new"),
    ({}, {"sendto": 1.2}, "dearer", "sendto per probe, IPv4 raw"),
    ({}, {"sendto": 0.0}, "cheaper", "sendto per probe, IPv4 raw"),
    ({}, {"recvfrom": 68.0}, "dearer", "recvfrom per probe, IPv4 raw"),
    ({}, {"futex": 2.6}, "dearer", "futex per probe, IPv4 raw"),
    ({}, {"mmap": 0.6}, "dearer", "mmap per probe, IPv4 raw"),
    ({}, {"getpid": 1.0}, "dearer", "getpid per probe, IPv4 raw"),
])
def test_what_is_a_change(subjects, calls, word, rest):
    line, = changes(subjects, calls)
    assert line.startswith(word) and line.endswith(rest)


def test_a_subject_or_a_path_that_is_gone():
    lines = comparison.changes({}, {}, {"packets/ARP reply": 100}, {"IPv4 raw": {"sendto": 1.0}})
    assert [line.split()[0:2] for line in lines] == [["cheaper", "-100.0%"]] * 2


def test_the_dearest_comes_first():
    lines = changes({"packets/ARP reply": 500, "configuration/100000 lines": 1_100_000}, {"getpid": 1.0, "sendto": 2.0})
    assert [line.split()[1] for line in lines] == ["new", "+100.0%", "+10.0%", "-50.0%"]


def test_what_is_written_is_compared_with(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(comparison, "INSTRUCTIONS", str(tmp_path / "instructions.json"))
    monkeypatch.setattr(comparison, "SYSTEM_CALLS", str(tmp_path / "system_calls.json"))
    with pytest.raises(FileNotFoundError):
        comparison.compare(lambda: (SUBJECTS, CALLS))
    comparison.write(SUBJECTS, CALLS)
    assert not comparison.toolchain_differences()
    assert comparison.compare(lambda: (SUBJECTS, CALLS)) == 0
    assert comparison.compare(lambda: ({**SUBJECTS, "packets/ARP reply": 2000}, CALLS)) == 1
    assert "1 dearer, 0 cheaper" in capsys.readouterr().out


def test_another_compiler(tmp_path, monkeypatch):
    monkeypatch.setattr(comparison, "INSTRUCTIONS", str(tmp_path / "instructions.json"))
    here = comparison.toolchain()
    (tmp_path / "instructions.json").write_text(json.dumps({"toolchain": {**here, "compiler": "g++ 1.0"}}))
    assert comparison.toolchain_differences() == [f"compiler g++ 1.0 there and {here['compiler']} here"]


def test_with_another_compiler_system_calls_are_compared_all_the_same(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(comparison, "INSTRUCTIONS", str(tmp_path / "instructions.json"))
    monkeypatch.setattr(comparison, "SYSTEM_CALLS", str(tmp_path / "system_calls.json"))
    comparison.write(SUBJECTS, CALLS)
    monkeypatch.setattr(comparison, "toolchain", lambda: {"compiler": "g++ 1.0", "C library": "", "machine": ""})
    assert comparison.compare(lambda: ({}, CALLS)) == 0
    assert "instructions not compared" in capsys.readouterr().out
    assert comparison.compare(lambda: ({}, {"IPv4 raw": {**CALLS["IPv4 raw"], "sendto": 2.0}})) == 1


def counts(*values):
    """Gives one after the other: instructions of a subject, and calls of a path."""
    left = list(values)
    return lambda: (lambda each: ({"a": each[0]}, {"IPv4 raw": {"sendto": each[1]}}))(left.pop(0))


@pytest.mark.parametrize("values, expected", [
    ([(1000, 1.0)], (1000, 1.0)),                   # as it was: once will do
    ([(1200, 1.0), (1010, 1.0)], (1010, 1.0)),      # noise
    ([(1000, 3.0), (1000, 1.0)], (1000, 1.0)),
    ([(1200, 1.0), (1000, 3.0)], (1000, 1.0)),      # noise of two kinds
    ([(1200, 3.0), (1180, 2.0)], (1180, 2.0)),      # both times
    ([(800, 1.0), (700, 1.0)], (800, 1.0)),
])
def test_what_differs_is_counted_again(values, expected):
    instructions, calls = comparison.confirmed(counts(*values), {"a": 1000}, {"IPv4 raw": {"sendto": 1.0}})
    assert (instructions["a"], calls["IPv4 raw"]["sendto"]) == expected
