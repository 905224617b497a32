"""What counts as a change of the costs, and in which order changes are told."""

import json

import pytest

from . import comparison

SUBJECTS = {"packets/ARP reply": 100, "configuration/100000 lines": 1_000_000}
CALLS = {"IPv4 raw": {"sendto": 1.0, "futex": 0.5, "recvfrom": 64.0, "write": 0.06}}


def changes(subjects=None, calls=None):
    return comparison.changes({**SUBJECTS, **(subjects or {})}, {"IPv4 raw": {**CALLS["IPv4 raw"], **(calls or {})}},
                              SUBJECTS, CALLS)


@pytest.mark.parametrize("subjects, calls", [
    ({}, {}),
    ({"packets/ARP reply": 105}, {}),
    ({"packets/ARP reply": 95}, {}),
    ({}, {"sendto": 1.1}),
    ({}, {"recvfrom": 66.0}),
    ({}, {"write": 0.16}),
    ({}, {"futex": 4.5}),
    ({}, {"getpid": 0.05}),
])
def test_what_is_no_change(subjects, calls):
    assert not changes(subjects, calls)


@pytest.mark.parametrize("subjects, calls, word, rest", [
    ({"packets/ARP reply": 106}, {}, "dearer", "packets/ARP reply"),
    ({"packets/ARP reply": 94}, {}, "cheaper", "packets/ARP reply"),
    ({"packets/new": 10}, {}, "dearer", "packets/new"),
    ({}, {"sendto": 1.2}, "dearer", "sendto per probe, IPv4 raw"),
    ({}, {"sendto": 0.0}, "cheaper", "sendto per probe, IPv4 raw"),
    ({}, {"recvfrom": 68.0}, "dearer", "recvfrom per probe, IPv4 raw"),
    ({}, {"futex": 4.6}, "dearer", "futex per probe, IPv4 raw"),
    ({}, {"getpid": 1.0}, "dearer", "getpid per probe, IPv4 raw"),
])
def test_what_is_a_change(subjects, calls, word, rest):
    line, = changes(subjects, calls)
    assert line.startswith(word) and line.endswith(rest)


def test_a_subject_or_a_path_that_is_gone():
    lines = comparison.changes({}, {}, {"packets/ARP reply": 100}, {"IPv4 raw": {"sendto": 1.0}})
    assert [line.split()[0:2] for line in lines] == [["cheaper", "-100.0%"]] * 2


def test_the_dearest_comes_first():
    lines = changes({"packets/ARP reply": 50, "configuration/100000 lines": 1_100_000}, {"getpid": 1.0, "sendto": 2.0})
    assert [line.split()[1] for line in lines] == ["new", "+100.0%", "+10.0%", "-50.0%"]


def test_what_is_written_is_compared_with(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(comparison, "INSTRUCTIONS", str(tmp_path / "instructions.json"))
    monkeypatch.setattr(comparison, "SYSTEM_CALLS", str(tmp_path / "system_calls.json"))
    assert comparison.toolchain_differences() == ["there are none yet"]
    comparison.write(SUBJECTS, CALLS)
    assert not comparison.toolchain_differences()
    assert comparison.compare(SUBJECTS, CALLS) == 0
    assert comparison.compare({**SUBJECTS, "packets/ARP reply": 200}, CALLS) == 1
    assert "1 dearer, 0 cheaper" in capsys.readouterr().out


def test_another_compiler(tmp_path, monkeypatch):
    monkeypatch.setattr(comparison, "INSTRUCTIONS", str(tmp_path / "instructions.json"))
    here = comparison.toolchain()
    (tmp_path / "instructions.json").write_text(json.dumps({"toolchain": {**here, "compiler": "g++ 1.0"}}))
    assert comparison.toolchain_differences() == [f"compiler g++ 1.0 there and {here['compiler']} here"]
