"""A VRF whose network namespace is deleted and made anew under its name, which no running worker can follow.

    default: wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
    red:     wan2 10.2.0.2 -------- 10.2.0.1 far2: responder
"""

import os

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, rule

# Longer than a cycle, and shorter than the patience of the test.
TIMEOUT = waiting.scaled(3)

SAID = r"^%WAN-W-ERR: wan_lb: network namespace of VRF red was replaced, daemon must be restarted$"


@pytest.fixture
def manager(lab):
    return lab.notify_socket()


def test_namespace_replaced_under_its_name(lab, manager):
    """Deletion alone is nobody's fault; a new one under the name is said, and the watchdog left unfed."""
    lab.write("etc/wan_lb/log-flags", "34 3\n")  # repeats are held back
    lab.add_netns("red")
    os.makedirs(lab.path("var_vrfs/red/usr/etc"))
    links = [lab.uplink(1), lab.uplink(2, vrf="red")]
    config = configtext.build(
        [interface(link.name, [ping(resp_time=waiting.milliseconds(900))], success_ct=1, nexthop=link.gateway,
                   namespace=link.vrf or "default") for link in links],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}),
         rule("2_ipv4", {"wan2": 1}, {"0.0.0.0/0": None}, namespace="red")])
    environment = {"NOTIFY_SOCKET": lab.path("notify"), "WATCHDOG_USEC": str(int(TIMEOUT * 1e6))}
    lb = lab.start_lb(config, env=environment)
    for link in links:
        lb.wait_status(link.name, "active")
    manager.wait_for("WATCHDOG=1", count=3)

    lab.ip("netns del red")
    manager.wait_for("WATCHDOG=1", count=4, since=manager.mark())
    assert not lab.log.matching(SAID)

    lab.add_netns("red")
    assert lab.log.wait_for(SAID).level == 4
    seen = [0]

    def silent():
        before, seen[0] = seen[0], len(manager.matching("WATCHDOG=1"))
        lb.wait_cycles(4)
        return before == seen[0]

    waiting.wait_until(silent, "the watchdog's silence")
    assert len(lab.log.matching(SAID)) == 1, "once a minute"
    for link in links:  # probing goes on where it began
        lb.wait_status(link.name, "active")

    # What the service manager then does.
    lb.stop()
    mark = manager.mark()
    said = len(lab.log.matching(SAID))
    lab.start_lb(config, env=environment)
    manager.wait_for("WATCHDOG=1", count=4, since=mark)
    assert len(lab.log.matching(SAID)) == said
