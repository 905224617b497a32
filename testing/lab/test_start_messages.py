"""What is said of a configuration: every message reaches the log, however alike they are and however many.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder (where a running daemon is needed)
"""

import os

import pytest

from lab import configtext
from lab.configtext import ping

ILLEGAL = "rule x_ipv4 {\n}\n"
MESSAGE = "^%WAN-W-WARN: Illegal rule number: x_ipv4$"


@pytest.fixture
def plain_flags(lab):
    """As on a machine where nobody has asked for more: repeats are held back."""
    os.unlink(lab.path("etc/wan_lb/log-flags"))


def test_equal_messages_of_a_check(lab, plain_flags):
    assert lab.run_lb(3 * ILLEGAL, "-t").status == 0
    assert len(lab.log.matching(MESSAGE)) == 3


def test_equal_messages_of_a_start(lab, plain_flags):
    link = lab.uplink(1)
    lb = lab.start_lb(3 * ILLEGAL + configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active")
    assert len(lab.log.matching(MESSAGE)) == 3


def test_very_many_messages_of_a_start(lab):
    """More than the daemon keeps of messages that wait for the log. A check would wait a second at its end for the
    last of them, in which a busy machine may not read so many."""
    count, link = 5000, lab.uplink(1)
    lb = lab.start_lb("".join(f"rule x{number}_ipv4 {{\n}}\n" for number in range(count))
                      + configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active", timeout=90)
    said = "^%WAN-W-WARN: Illegal rule number: "
    lab.log.wait_for(said, count=count, timeout=90)
    assert len(lab.log.matching(said)) == count
