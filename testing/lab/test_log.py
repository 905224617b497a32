"""What reaches the system log, and the crash report.

    router wan1 10.1.0.2 -------- f1 far1: responder
"""

import os
import signal

import pytest

from lab import configtext, daemon, waiting
from lab.configtext import ping

DEBUG = r"^%WAN-D-DBG: LBDecision::run\(\) can't execute"
WARNING = "^%WAN-W-WARN: Failed to get routers option from DHCP on interface wan9"
ERROR = "^%WAN-W-ERR: Can't fopen pid lock file"


def test_levels_without_a_flags_file(lab):
    """Errors and warnings are on, debug is off, and what repeats itself is said once."""
    os.unlink(lab.path("etc/wan_lb/log-flags"))
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [configtext.interface("wan9", [ping(link.gateway, resp_time=900)], success_ct=1, nexthop="dhcp"),
         configtext.interface("wan1", [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway)],
        [configtext.rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]), "-i", "/no/such/dir/pid")
    lb.wait_status("wan1", "active")
    lb.wait_cycles(3)
    assert len(lab.log.matching(WARNING)) == 1, "it happens in every cycle"
    assert lab.log.matching(ERROR)[0].level == 4
    assert not lab.log.matching("%WAN-D-DBG")
    assert [record.level for record in lab.log.matching("changed state to active")] == [6]

    # The flags are read again within a second of a change.
    lab.replace("etc/wan_lb/log-flags", "# everything\n34 3\nrepeats all\n")
    lab.log.wait_for(WARNING, count=4)
    mark = lab.log.mark()
    link.cut()
    lab.log.wait_for(DEBUG, since=mark)
    lab.replace("etc/wan_lb/log-flags", "34 1\n")
    lb.wait_cycles(2)
    mark = lab.log.mark()
    lb.wait_cycles(2)
    assert not lab.log.matching("WAN-W-WARN", mark)


def test_every_message_has_its_form(lab):
    """Priority and prefix belong together, whatever is said."""
    link = lab.uplink(1, ipv6=True)
    lab.uplink(2)
    link.responder.drop(0, of=3)
    lb = lab.start_lb(configtext.build(
        [configtext.interface("wan1", [ping(link.gateway, resp_time=100)], success_ct=1, nexthop=link.gateway),
         configtext.interface("wan1", [ping(resp_time=100)], ipv6=True, success_ct=1, nexthop="dhcp"),
         configtext.interface("wan2", [ping("name.example", resp_time=100)], success_ct=0, nexthop="10.2.0.1")],
        [configtext.rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}),
         configtext.rule("x_ipv6", {"wan1": 1}, {"::/0": None}),
         configtext.rule("1_ipv6", {"wan1": 1}, {"::/0": None})]), "-i", "/no/such/dir/pid")
    lab.log.wait_for("changed state to inactive", count=5)
    levels = {"%WAN-I-INSTANCE: ": 6, "%WAN-W-ERR: ": 4, "%WAN-W-WARN: ": 4, "%WAN-D-DBG: ": 7}
    for record in lab.log.records:
        prefix = record.text[:record.text.index(": ") + 2]
        assert levels[prefix] == record.level, record
        assert (record.tag, record.facility, record.pid) == ("wan_lb", 3, lb.pid), record
    assert {record.text.split(": ")[0] for record in lab.log.records} == {key.rstrip(": ") for key in levels}


def test_log_that_is_not_there(lab):
    """Nobody reads the log: the daemon works all the same."""
    link = lab.uplink(1)
    lab.log.settle()
    os.rename(lab.path("dev/log"), lab.path("dev/log.away"))
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active")
    os.rename(lab.path("dev/log.away"), lab.path("dev/log"))
    link.cut()
    lab.log.wait_for("changed state to inactive")


@pytest.mark.parametrize("number", [signal.SIGSEGV, signal.SIGABRT, signal.SIGFPE])
def test_crash_report(lab, number):
    if daemon.has_sanitizer(daemon.program()):
        pytest.skip("a sanitizer reports crashes in its own way")
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link))
    lb.wait_cycles(1)
    lb.process.signal(number)
    assert lb.expect_end(60) == -number, "the signal's default action is kept"
    assert f"{os.path.basename(daemon.program())}: fatal signal {int(number)} (" in lb.process.stderr
    assert "run_daemon" in lb.process.stderr, "the stack has the functions' names"
    lab.log.wait_for(f"fatal signal {int(number)} ")
    waiting.wait_until(lambda: lab.log.matching("run_daemon"))
