"""lbctl history on logs: of a running daemon, of other programs beside it, and in the journal's files.

    router wan1 10.1.0.2 -------- f1 far1: responder
"""

import datetime
import os
import re
import subprocess
import time
import xml.etree.ElementTree

import pytest

from lab import configtext, tool
from lab.configtext import ping

JOURNAL_WRITER = "/lib/systemd/systemd-journal-remote"


def as_syslog(lab, rfc3339=False):
    """What the lab's log has got, as a log daemon writes it."""
    lines = []
    for record in lab.log.records:
        when = datetime.datetime.fromtimestamp(time.time() - time.monotonic() + record.when, datetime.timezone.utc)
        stamp = when.isoformat(timespec="microseconds") if rfc3339 else when.strftime("%b %e %H:%M:%S")
        lines.append(f"{stamp} router {record.tag}[{record.pid}]: {record.text}")
    return lines


@pytest.fixture
def outage(lab):
    """A link that was cut once and came back; how long it was FAILED, by the daemon's own log."""
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=300)]))
    lb.wait_status("wan1", "active")
    link.responder.silent = True
    lb.wait_status("wan1", "failed")
    lb.wait_cycles(3)
    link.responder.silent = False
    lb.wait_status("wan1", "active")
    down, up = (lab.log.wait_for("IP interface wan1 changed state to", count=count).when for count in (3, 4))
    return up - down


@pytest.mark.parametrize("rfc3339", [False, True])
def test_the_daemons_own_log(lab, outage, rfc3339):
    quoted = "%WAN-I-INSTANCE: IP interface wan9 changed state to active"
    others = [f"Jan  1 00:00:00 router sudo[1]: root : COMMAND=/bin/grep {quoted}", "-- Reboot --",
              f"er wan_lb[9]: {quoted}"]
    lines = as_syslog(lab, rfc3339)
    log = lab.write("var/log/lb.log", "\n".join(others + lines) + "\n")
    picture = lab.path("history.svg")
    found = tool.document(lab, "history", "history", "--log", log, "--json", "--svg", picture)
    assert [(change["interface"], change["family"], change["state"]) for change in found["changes"]] == \
        [("wan1", 4, state) for state in ("failed", "active", "failed", "active")]
    assert abs(found["changes"][2]["duration"] - outage) <= (0.1 if rfc3339 else 1)
    times = [change["time"] for change in found["changes"]]
    assert times == sorted(times) and all(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", time) for time in times)
    (wan1,) = found["interfaces"]
    assert wan1["changes"] == 4 and 0 < wan1["availability_percent"] < 100 and wan1["flaps_per_day"] > 0
    texts = [text.text for text in xml.etree.ElementTree.parse(picture).getroot().iter()]
    assert "wan1" in texts and any(text and text.startswith("failed, 20") for text in texts)


def test_text_and_rotated_logs(lab):
    start = "2026-01-0{}T00:00:00+00:00 router wan_lb[7]: %WAN-I-INSTANCE: IP{} interface {} changed state to {}\n"
    first = lab.write("lb.log.1", start.format(1, "", "wan1", "inactive") + start.format(2, "", "wan1", "active"))
    second = lab.write("lb.log", start.format(3, "v6", "Provider B", "active")
                       + start.format(4, "", "wan1", "inactive"))
    ended = tool.ctl(lab, "history", "--log", first, "--log", second, "--until", "2026-01-05T00:00:00Z")
    assert (ended.status, ended.stderr) == (0, "")
    assert ended.stdout == """\
from 2026-01-01T00:00:00Z to 2026-01-05T00:00:00Z

INTERFACE     AVAILABILITY  CHANGES   FLAPS/DAY
wan1              50.000 %        3        0.25
Provider B/6     100.000 %        1        0.00

2026-01-01T00:00:00Z  wan1          FAILED  for 1 d
2026-01-02T00:00:00Z  wan1          ACTIVE  for 2 d
2026-01-03T00:00:00Z  Provider B/6  ACTIVE  for 2 d
2026-01-04T00:00:00Z  wan1          FAILED  for 1 d
"""
    ended = tool.ctl(lab, "history", "--log", first, "--log", second, "--since", "2026-01-02T12:00:00Z",
                     "--until", "2026-01-04T12:00:00Z")
    assert "wan1              75.000 %        1        0.50\n" in ended.stdout


def test_what_is_refused(lab):
    log = lab.write("lb.log", "")
    for arguments, status in ((["--log", "/no/log"], 3), (["--log", "/etc"], 3), (["--journal", "/no/journal"], 3),
                              (["--log", log, "--since", "tomorrow"], 2), (["--log", log, "--journal", "/"], 2),
                              (["--log", log, "--since", "1d", "--until", "2d"], 2)):
        ended = tool.ctl(lab, "history", *arguments)
        assert ended.status == status and not ended.stdout and ended.stderr, arguments
    ended = tool.ctl(lab, "history", "--log", log)
    assert (ended.status, ended.stdout) == (0, "no state change of an interface is logged\n")
    assert tool.document(lab, "history", "history", "--log", log, "--json")["interfaces"] == []


def journal_entry(seconds, identifier, message):
    """One entry of the journal's export format."""
    return (f"__REALTIME_TIMESTAMP={seconds}000000\n__MONOTONIC_TIMESTAMP={seconds % 10000}000000\n"
            f"_BOOT_ID={'1' * 32}\n_MACHINE_ID={'2' * 32}\nPRIORITY=6\nSYSLOG_IDENTIFIER={identifier}\n"
            f"MESSAGE={message}\n\n")


def test_journal(lab):
    writer = os.environ.get("LB_JOURNAL_WRITER") or JOURNAL_WRITER
    if not os.path.exists(writer):
        pytest.skip("the package systemd-journal-remote, which writes the journal for this, is not installed")
    start, text = 1_767_225_600, "%WAN-I-INSTANCE: IP interface wan1 changed state to "
    entries = "".join(journal_entry(start + at, identifier, message) for at, identifier, message in (
        (0, "wan_lb", text + "inactive"), (100, "wan_lb", "%WAN-W-WARN: something else"),
        (200, "other", text + "active"), (300, "wan_lb", text + "active"), (900, "wan_lb", text + "inactive")))
    export = lab.write("export.txt", entries)
    directory = lab.path("journal")
    os.mkdir(directory)
    subprocess.run([writer, "-o", os.path.join(directory, "lb.journal"), export], check=True, capture_output=True,
                   timeout=60)
    found = tool.document(lab, "history", "history", "--journal", directory, "--until", "2026-01-01T00:20:00Z",
                          "--json")
    assert [(change["time"], change["state"], change["duration"]) for change in found["changes"]] == [
        ("2026-01-01T00:00:00Z", "failed", 300), ("2026-01-01T00:05:00Z", "active", 600),
        ("2026-01-01T00:15:00Z", "failed", 300)]
    assert found["interfaces"] == [{"name": "wan1", "family": 4, "availability_percent": 50.0, "changes": 3,
                                    "flaps_per_day": 72.0}]
