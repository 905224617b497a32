"""A system log that does not read: nobody in the daemon waits for it, and in the end it is told what it missed.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder      38 more interfaces that are not there
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder
"""

import re
import signal
import time

import pytest

from lab import configtext, daemon, waiting
from lab.configtext import interface, ping, rule
from lab.many_links import flapped, state_changes

ABSENT = [f"absent{number:02}" for number in range(38)]
# As many messages as the daemon keeps, changes of state aside.
MANY = 1000
DROPPED = r"^%WAN-W-WARN: (\d+) messages dropped, the log did not take them$"


def config(links):
    absent = [interface(name, [ping("198.51.100.1", resp_time=100)], nexthop="198.51.100.1") for name in ABSENT]
    # With 40 interfaces a cycle is long enough for a busy machine to let a reply come too late, but not three in a row.
    real = [interface(link.name, [ping(link.gateway, resp_time=waiting.milliseconds(900))], success_ct=1, failure_ct=3,
                      nexthop=link.gateway) for link in links]
    illegal = [f"rule x{number}_ipv4 {{\n}}" for number in range(MANY + 100)]  # a message of each
    return configtext.build(absent + real, [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}), *illegal])


def test_work_goes_on(lab):
    """40 interfaces, and the queue full already: cycle after cycle is reported, and no change of state is lost."""
    links = [lab.uplink(1), lab.uplink(2)]
    lab.log.stop_reading()
    lb = lab.start_lb(config(links))
    for link in links:
        lb.wait_status(link.name, "active")
    assert set(lb.statuses()) == {*ABSENT, "wan1", "wan2"}
    lb.wait_cycles(2)
    links[1].cut()
    lb.wait_status("wan2", "failed")
    links[1].restore()
    lb.wait_status("wan2", "active")

    lab.log.go_on()
    lab.log.wait_for(DROPPED)
    assert state_changes(lab, "wan1") == flapped(0)
    assert state_changes(lab, "wan2") == flapped(1)
    for name in ABSENT:
        assert state_changes(lab, name) == ["inactive"], name
    found = lab.log.matching("wan2 changed state to inactive")[1]
    assert lab.log.records.index(found) >= MANY, "it found the queue full of other messages"
    assert int(re.search(DROPPED, lab.log.matching(DROPPED)[0].text)[1]) > 0
    # From here on all is as ever.
    links[1].cut()
    lab.log.wait_for("wan2 changed state to inactive", count=3)


@pytest.mark.parametrize("text, path", [("rule x_ipv4 {\n}\n" * 5, "lb.conf"),
                                        ("rule x_ipv4 {\n}\n" * 5 * MANY, "lb.conf"), (None, "no/such/file")],
                         ids=["illegal lines", "more than are kept", "missing file"])
def test_check_of_a_configuration_ends(lab, text, path):
    """What could not be said is waited for, but not for ever."""
    lab.log.stop_reading()
    begun = time.monotonic()
    process = lab.start_lb(text, argv=["-t", "-f", lab.path(path)])
    assert process.expect_end() == 0
    assert time.monotonic() - begun < waiting.scaled(10)


def test_crash_report_comes_all_the_same(lab):
    if daemon.has_sanitizer(daemon.program()):
        pytest.skip("a sanitizer reports crashes in its own way")
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link))
    lb.wait_cycles(1)
    lab.log.stop_reading()
    lb.process.signal(signal.SIGSEGV)
    assert lb.expect_end(60) == -signal.SIGSEGV
    assert "fatal signal 11 (" in lb.process.stderr
    assert "run_daemon" in lb.process.stderr, "the stack follows, up to the last function"
