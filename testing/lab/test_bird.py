"""The real thing: BIRD 2 includes our files, gets our signal, and the kernel's routes switch.

    198.51.100.1 far1 10.1.0.1 / fd00:1::1 ---- wan1 \\
                                                       router: bird, lb, kernel
    198.51.100.2 far2 10.2.0.1 / fd00:2::1 ---- wan2 /
"""

import os
import re
import shutil
import subprocess

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, rule
from lab.lab import Lab
from lab.two_uplinks import TwoUplinks


def test_kernel_routes_follow_both_families(lab):
    network = TwoUplinks(lab)
    network.start()
    network.wait_both()
    text = network.kernel_routes(4)
    assert re.search(r"nexthop via 10\.1\.0\.1 dev wan1 weight 1", text), text
    assert re.search(r"nexthop via 10\.2\.0\.1 dev wan2 weight 2", text), text
    text = network.kernel_routes(6)
    assert re.search(r"nexthop via fd00:1::1 dev wan1 weight 1", text), text
    assert re.search(r"nexthop via fd00:2::1 dev wan2 weight 2", text), text

    network.cut(1)
    network.wait_only(2)
    assert re.search(r"^default via 10\.2\.0\.1 dev wan2", network.kernel_routes(4))
    assert re.search(r"^default via fd00:2::1 dev wan2", network.kernel_routes(6))
    for family in (4, 6):
        network.lb.wait_status("wan1", "failed", family=family)

    network.restore(1)
    network.wait_both()
    assert network.bird.reconfigured() >= 3

    def flushed():
        calls = lab.ip_calls()
        return min(calls.count(f"{option}route flush cache") for option in ("", "-6 "))

    # The kernel may have the routes before the daemon comes to this.
    waiting.wait_until(lambda: flushed() >= 3, lab.ip_calls)


def test_failover_and_everything_down(lab):
    network = TwoUplinks(lab)
    network.config_text = configtext.build(
        [interface(link.name, [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway)
         for link in network.links.values()],
        [rule("1_ipv4", {"wan1": 9, "wan2": 2}, {"0.0.0.0/0": None}, failover=True)])
    network.start()
    network.wait_only(1, families=(4,))
    network.cut(1)
    network.wait_only(2, families=(4,))
    network.cut(2)
    waiting.wait_until(lambda: network.kernel_weights() == {})
    network.restore(2)
    network.wait_only(2, families=(4,))
    network.restore(1)
    network.wait_only(1, families=(4,))


@pytest.mark.skipif(not shutil.which("nsenter"), reason="nsenter is not installed")
def test_lab_can_be_left_running():
    lab = Lab()
    network = TwoUplinks(lab)
    network.start()
    network.wait_both()
    top = lab.enclosure.top
    command = network.leave_running()
    pid = int(re.search(r"--target (\d+)", command)[1])
    lab.close()
    try:
        entered = command.split(" bash")[0].split()
        routes = subprocess.run([*entered, "ip", "route", "show", "default"], capture_output=True, text=True,
                                check=True).stdout
        assert "nexthop via 10.1.0.1 dev wan1 weight 1" in routes
        network.lb.wait_cycles(2)
    finally:
        os.kill(pid, 9)
        waiting.wait_until(lambda: not os.path.exists(f"/proc/{pid}"))
        shutil.rmtree(top)
