"""Routes that stay: with nothing left to use, and over a restart of ours.

    198.51.100.1 far1 10.1.0.1 ---- wan1 \\
                                           router: bird, lb
    198.51.100.2 far2 10.2.0.1 ---- wan2 /
"""

import os

import pytest

from lab import configtext, waiting
from lab.bird import Bird
from lab.two_uplinks import TwoUplinks

KEEP = configtext.options("keep-last-routes")
KEPT = r"^%WAN-I-INSTANCE: wan_lb: rule 1_ipv{}: no usable interface, last IPv{} routes kept$"
FOLLOWING = r"^%WAN-I-INSTANCE: wan_lb: rule 1_ipv{}: IPv{} routes follow the interfaces again$"


def stamp(lab, family):
    """Tells one written file from the next."""
    status = os.stat(lab.path("usr_etc/routing-wlb6.conf" if family == 6 else "usr_etc/routing-wlb.conf"))
    return status.st_ino, status.st_mtime_ns


def test_last_routes_stay_while_everything_is_down(lab):
    network = TwoUplinks(lab)
    network.config_text = KEEP + network.config_text
    network.start()
    network.wait_both()
    network.cut(2)
    network.wait_only(1)
    network.cut(1)
    for family in (4, 6):
        lab.log.wait_for(KEPT.format(family, family))
        network.lb.wait_status("wan1", "failed", family=family)
        network.lb.wait_cycles(2, family)
        assert network.uses_only(1, family)
        assert len(lab.log.matching(KEPT.format(family, family))) == 1
    network.restore(2)
    network.wait_only(2)
    for family in (4, 6):
        lab.log.wait_for(FOLLOWING.format(family, family))


@pytest.mark.parametrize("keep", [True, False])
def test_restart_with_healthy_links_changes_no_route(lab, keep):
    network = TwoUplinks(lab, success_ct=3)
    # One uplink settles three cycles after the other.
    network.config_text = (KEEP if keep else "") + network.config_text.replace("success-ct 3", "success-ct 6", 2)
    network.start()
    network.wait_both()
    before = {family: stamp(lab, family) for family in (4, 6)}
    network.lb.stop()
    mark = lab.log.mark()
    lb = lab.start_lb(network.config_text)
    for family in (4, 6):
        for name in ("wan1", "wan2"):
            lb.wait_status(name, "active", family=family)
        lb.wait_cycles(2, family)
    assert not lab.log.matching("kept|rule .* follow", mark)
    # Without it a file with one uplink replaced the one with both.
    assert all((stamp(lab, family) == before[family]) == keep for family in (4, 6))
    network.wait_both()


def test_restart_waits_for_a_slow_reply(lab):
    """The second uplink's replies come after the cycle of their request, and its next hop after the first cycle."""
    links = [lab.uplink(number) for number in (1, 2)]
    links[1].responder.delay(0.06)
    # The routes stay for as many probes as settle a target, and one more, of two seconds each; it takes seven cycles.
    # Those of a slow daemon take more than a second, so it gets more time.
    failure_ct = 3 if waiting.SLOW == 1 else 6
    for link in links:
        lab.ip(f"route append default via {link.gateway} dev {link.name} proto dhcp metric 1024")
    text = KEEP + configtext.build(
        [configtext.interface(link.name, [configtext.ping(resp_time=900)], success_ct=3, failure_ct=failure_ct,
                              nexthop="kernel")
         for link in links],
        [configtext.rule("1_ipv4", {link.name: 1 for link in links}, {"0.0.0.0/0": None})])
    files = []
    for _ in range(2):
        lb = lab.start_lb(text)
        for link in links:
            lb.wait_status(link.name, "active")
        lb.wait_cycles(2)
        files.append(stamp(lab, 4))
        lb.stop()
    assert files[0] == files[1]


def test_restart_with_a_dead_link_lets_go_of_it(lab):
    network = TwoUplinks(lab)
    network.config_text = KEEP + network.config_text
    network.start()
    network.wait_both()
    network.lb.stop()
    network.cut(1)
    lab.start_lb(network.config_text)
    network.wait_only(2)


def test_restart_with_all_links_dead_keeps_the_routes(lab):
    network = TwoUplinks(lab)
    network.config_text = KEEP + network.config_text
    network.start()
    network.wait_both()
    before = stamp(lab, 4)
    network.lb.stop()
    for number in (1, 2):
        network.cut(number)
    lb = lab.start_lb(network.config_text)
    lab.log.wait_for(KEPT.format(4, 4))
    lb.wait_cycles(2)
    assert stamp(lab, 4) == before and network.uses_both(4)
    network.restore(2)
    network.wait_only(2, families=(4,))
