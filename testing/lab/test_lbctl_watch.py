"""lbctl status --watch in a terminal (tmux): keys, resizing, a link cut while it runs, and how it leaves the terminal.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder
"""

import os
import re
import signal

import pytest

from lab import waiting
from lab.configtext import build, interface, ping, rule
from lab.terminal import terminal
from lab.tool import ctl, program


class Watched:
    def __init__(self, lab, targets=1):
        self.links = [lab.uplink(1), lab.uplink(2)]
        sections = [interface(link.name, [ping(resp_time=900)], success_ct=1, nexthop=link.gateway)
                    for link in self.links]
        destinations = {f"10.{100 + at}.0.0/16": None for at in range(targets)}
        self.lb = lab.start_lb(build(sections, [rule("1_ipv4", {link.name: 1 for link in self.links}, destinations)]))
        for link in self.links:
            self.lb.wait_status(link.name, "active")
        self.argv = [program(), "status", "--watch", "-o", self.lb.out]


def row(text, name):
    """The line of an interface."""
    return next((line for line in text.splitlines() if line.startswith(name + " ")), "")


def timeline(text, name):
    lines = text.splitlines()
    at = next(at for at, line in enumerate(lines) if line.startswith(name + " "))
    return lines[at + 1].removeprefix("  last 5 min ")


def is_reverse(styled, name):
    """Whether the interface's line is marked."""
    line = next(line for line in styled.splitlines() if re.sub(r"\x1b\[[0-9;]*m", "", line).startswith(name + " "))
    return re.search(r"\x1b\[(?:\d+;)*7(?:;\d+)*m", line) is not None


def test_a_link_is_cut_while_it_runs(lab):
    watched = Watched(lab)
    view = terminal(lab, watched.argv)
    text = view.wait(lambda seen: all(" active " in row(seen, name) for name in ("wan1", "wan2")))
    assert "=" in timeline(text, "wan1") and "x" not in timeline(text, "wan2")
    # What was there from the start is not marked.
    waiting.wait_until(lambda: not is_reverse(view.styled_text(), "wan1"), "no mark")

    watched.links[0].cut()
    view.wait(lambda seen: " failed " in row(seen, "wan1"))
    styled = view.styled_text()
    assert is_reverse(styled, "wan1") and not is_reverse(styled, "wan2")
    assert "\x1b[31m" in styled and "\x1b[32m" in styled, "colours"
    text = view.wait(lambda seen: timeline(seen, "wan1").endswith("x"))
    assert timeline(text, "wan2").endswith("=")

    watched.links[0].restore()
    view.wait(lambda seen: " active " in row(seen, "wan1"))
    # The mark goes after a while.
    waiting.wait_until(lambda: not is_reverse(view.styled_text(), "wan1"), view.text)
    assert re.search(r"\.[=x]*x+=*$", timeline(view.text(), "wan1")), view.text()
    view.keys("q")
    assert view.wait_end() == 0 and view.complaint() == ""


def test_keys_and_sizes(lab):
    """More lines than the terminal has; every size down to a single line."""
    watched = Watched(lab, targets=40)
    view = terminal(lab, watched.argv, columns=80, lines=20)
    first = view.wait("10.100.0.0/16")
    assert "10.139.0.0/16" not in first
    view.keys("End")
    text = view.wait("10.139.0.0/16")
    assert text.splitlines()[0].startswith("lbctl status"), "the head stays"
    assert "IPv4" not in text
    view.keys("Up")
    view.wait(lambda seen: "10.139.0.0/16" not in seen and "10.138.0.0/16" in seen)
    view.keys("Down")
    view.wait("10.139.0.0/16")
    view.keys("Home")
    view.wait("IPv4")
    view.keys("NPage")
    view.wait(lambda seen: "IPv4" not in seen)
    view.keys("PPage", "x", "F5")
    view.wait("IPv4")

    view.resize(100, 60)
    text = view.wait(lambda seen: "10.139.0.0/16" in seen and "IPv4" in seen)
    view.resize(30, 10)
    text = view.wait(lambda seen: row(seen, "wan1") and "10.139.0.0/16" not in seen)
    assert len(text.splitlines()) <= 10 and max(map(len, text.splitlines())) <= 30
    for columns, lines in ((1, 1), (2, 3), (200, 2)):
        view.resize(columns, lines)
    view.resize(80, 20)
    view.wait(lambda seen: " active " in row(seen, "wan1"))
    view.keys("q")
    assert view.wait_end() == 0


@pytest.mark.parametrize("way", ["C-c", "TERM", "HUP"])
def test_gives_the_terminal_back(lab, way):
    watched = Watched(lab)
    view = terminal(lab, watched.argv)
    view.wait(lambda seen: row(seen, "wan1"))
    if way == "C-c":
        view.keys("C-c")
    else:
        lab.run(["kill", f"-{way}", str(view.program_pid())])
    expected = {"C-c": 0, "TERM": 128 + signal.SIGTERM, "HUP": 128 + signal.SIGHUP}
    assert view.wait_end() == expected[way]


def test_goes_on_while_nothing_can_be_read(lab):
    watched = Watched(lab)
    view = terminal(lab, watched.argv)
    view.wait(lambda seen: " active " in row(seen, "wan1"))
    watched.lb.stop()
    dumps = os.path.join(watched.lb.out, "wlb_dump")
    os.rename(dumps, dumps + ".away")
    text = view.wait("no dump files there")
    assert " active " in row(text, "wan1"), "what was shown stays"
    os.rename(dumps + ".away", dumps)
    view.wait(lambda seen: "no dump files" not in seen)
    with open(os.path.join(dumps, "wlb_rules.bin"), "ab") as file:
        file.write(b"x")
    view.wait("wlb_rules.bin: truncated or foreign")
    os.unlink(os.path.join(dumps, "wlb_rules.bin"))
    # Nobody writes any longer.
    text = view.wait("STALE: ")
    assert " active " in row(text, "wan1")
    view.wait(lambda seen: timeline(seen, "wan1").endswith("."))
    view.keys("q")
    assert view.wait_end() == 0


def test_begins_before_the_daemon(lab):
    """A directory that is not there yet is no reason to end."""
    out = lab.path("out")
    view = terminal(lab, [program(), "status", "--watch", "-o", out])
    view.wait("no dump files there")
    watched = Watched(lab)
    assert watched.lb.out == out
    view.wait(lambda seen: " active " in row(seen, "wan1"))
    view.keys("q")
    assert view.wait_end() == 0


def test_no_colour(lab):
    watched = Watched(lab)
    view = terminal(lab, ["NO_COLOR=1", *watched.argv])
    view.wait(lambda seen: " active " in row(seen, "wan1"))
    assert not re.search(r"\x1b\[(?:\d+;)*3[0-7](?:;\d+)*m", view.styled_text())
    view.keys("q")
    assert view.wait_end() == 0


def test_no_terminal(lab):
    """Neither without one, nor on one that nobody knows."""
    refused = ctl(lab, "status", "--watch", "-o", lab.path("out"))
    assert refused.status == 2 and "--watch needs a terminal" in refused.stderr and refused.stdout == ""
    view = terminal(lab, ["TERM=no-such-terminal", program(), "status", "--watch", "-o", lab.path("out")])
    assert view.wait_end() == 2
    assert "TERM=no-such-terminal" in view.complaint()
