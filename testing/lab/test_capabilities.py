"""The capabilities that the daemon needs: with these and no others all of it works, and each is needed.

    router wan1 10.1.0.2 -------- f1 far1: responder, both families (frames, own ARP and neighbour discovery)
    router wan2 10.2.0.2 -------- f2 far2: responder, no ARP (raw path)
    blue   wan3 10.3.0.2 -------- f3 far3: responder

The daemon is root by its user id alone: its bounding set holds what docs/running.md lists.
"""

import os
import shutil
import signal

import pytest

from lab import configtext, daemon, scenario, waiting
from lab.capabilities import NEEDED, NOBODY, as_nobody, only
from lab.configtext import interface, ping, ping_ext, rule


class Scene:
    """The network of this file, with the daemon started under some capabilities."""

    def __init__(self, lab, capabilities, prefix=only):
        self.lab = lab
        lab.add_netns("blue")
        links = [lab.uplink(1, ipv6=True), lab.uplink(2, arp=False), lab.uplink(3, vrf="blue")]
        self.lb = lab.start_lb(configtext.build(
            [interface("wan1", [ping(links[0].gateway, resp_time=900)], success_ct=1, nexthop=links[0].gateway),
             interface("wan1", [ping(links[0].gateway6, resp_time=900)], ipv6=True, success_ct=1,
                       nexthop=links[0].gateway6),
             interface("wan2", [ping_ext(links[1].gateway, period=1, count=2, loss=100, rtt=900, jitter=900)],
                       success_ct=1, nexthop=links[1].gateway),
             interface("wan3", [ping(links[2].gateway, resp_time=900)], success_ct=1, nexthop=links[2].gateway,
                       namespace="blue")],
            [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}),
             rule("1_ipv6", {"wan1": 1}, {"::/0": None}),
             rule("2_ipv4", {"wan3": 1}, {"0.0.0.0/0": None}, namespace="blue")]),
            "-i", lab.path("run/lb.pid"), prefix=prefix(capabilities))

    def wait_all_active(self):
        for name, family in (("wan1", 4), ("wan1", 6), ("wan2", 4), ("wan3", 4)):
            self.lb.wait_status(name, "active", family=family)

    def complaints(self):
        """Errors and warnings, but for the refusal of a second record while the first one lives."""
        return [record for record in self.lab.log.matching("ERR|WARN") if not record.text.endswith(": File exists")]

    def effective(self):
        """The daemon's effective capabilities, as a number."""
        return int(self.lab.run(["grep", "CapEff", f"/proc/{self.lb.pid}/status"]).stdout.split()[1], 16)


def without(name):
    return [other for other in NEEDED if other != name]


def test_these_are_enough(lab):
    fake = lab.routing_daemon()
    scene = Scene(lab, NEEDED)
    scene.wait_all_active()
    assert bin(scene.effective()).count("1") == len(NEEDED)
    # Both address families' routes, the signal, the flush command, the connection-tracking records.
    waiting.wait_until(lambda: "fd00:1::1" in (lab.read("usr_etc/routing-wlb6.conf")
                                               if lab.exists("usr_etc/routing-wlb6.conf") else ""))
    fake.wait_hups(1)
    waiting.wait_until(lambda: {"route flush cache", "-6 route flush cache"} <= set(lab.ip_calls()))
    assert lab.conntrack() and lab.conntrack(ipv6=True) and lab.conntrack("blue")
    assert not scene.complaints()


def test_net_raw_is_needed(lab):
    """Without it there is no socket to probe with."""
    scene = Scene(lab, without("net_raw"))
    lab.log.wait_for("^%WAN-W-ERR: wan_lb: failed to acquired socket$")
    scene.lb.wait_cycles(3)
    assert set(scene.lb.statuses().values()) == {"failed"} and scene.lb.statuses(6) == {"wan1": "failed"}


def test_net_admin_is_needed(lab):
    """Without it no resolved neighbour gets into the kernel's table, and no connection-tracking record is made."""
    scene = Scene(lab, without("net_admin"))
    lab.log.wait_for(r"^%WAN-W-ERR: <add_arp_entry> 10\.1\.0\.1$")
    lab.log.wait_for("^%WAN-W-ERR: RTNETLINK answers: Operation not permitted")
    scene.lb.wait_status("wan2", "active")  # the raw path needs no neighbour
    assert scene.lb.statuses()["wan1"] == "failed" and scene.lb.statuses(6) == {"wan1": "failed"}


def test_net_admin_is_needed_for_records(lab):
    """The kernel knows the neighbour by itself here."""
    scene = Scene(lab, without("net_admin"))
    lab.ip("neigh replace 10.1.0.1 lladdr 02:00:00:00:01:01 dev wan1 nud permanent")
    scene.lb.wait_status("wan1", "active")
    assert lab.log.wait_for("^%WAN-W-ERR: <create_conntrack_record> .*: Operation not permitted$")
    assert not lab.conntrack()


def test_sys_admin_is_needed_for_vrfs_only(lab):
    scene = Scene(lab, without("sys_admin"))
    for name, family in (("wan1", 4), ("wan1", 6), ("wan2", 4)):
        scene.lb.wait_status(name, "active", family=family)
    scene.lb.wait_cycles(3)
    assert scene.lb.statuses()["wan3"] == "failed"
    threads = lab.run(["sh", "-c", f"readlink /proc/{scene.lb.pid}/task/*/ns/net"]).stdout.split()
    assert lab.netns_inode("blue") not in threads and lab.netns_inode() in threads


@pytest.fixture
def root_lab(request):
    """A lab without a user namespace, in which there is more than one user."""
    if os.geteuid() != 0:
        pytest.skip("a second user id needs root: an ordinary user's namespace has but one")
    with scenario.lab_of(request.node, user_namespace=False) as lab:
        os.chmod(lab.enclosure.top, 0o711)
        yield lab


@pytest.mark.parametrize("capabilities", [NEEDED, without("kill")])
def test_kill_is_needed_for_another_users_routing_daemon(root_lab, capabilities):
    """The routing daemon is any program that ends at a SIGHUP."""
    routing_daemon = root_lab.enclosure.spawn([*as_nobody(()), "sleep", "1000"])
    root_lab.write("run/routing.pid", f"{routing_daemon.pid}\n")
    scene = Scene(root_lab, capabilities)
    scene.wait_all_active()
    if "kill" in capabilities:
        assert routing_daemon.wait() == -signal.SIGHUP
    else:
        root_lab.log.wait_for(f"can't send SIGHUP to the routing daemon \\(pid {routing_daemon.pid}\\), errno = 1$")
        assert routing_daemon.status is None


def test_not_root_at_all(root_lab, monkeypatch):
    """Another user with these four, who owns the places that are written to."""
    program = shutil.copy(daemon.program(), root_lab.path("bin/lb"))
    os.chmod(program, 0o755)
    monkeypatch.setenv("LB_PROGRAM", program)
    for name in ("out", "usr_etc", "run", "san"):
        os.makedirs(root_lab.path(name), exist_ok=True)
        os.chown(root_lab.path(name), NOBODY, NOBODY)
    os.chmod(root_lab.write("ip.calls", ""), 0o666)
    scene = Scene(root_lab, NEEDED, as_nobody)
    scene.wait_all_active()
    waiting.wait_until(lambda: root_lab.exists("usr_etc/routing-wlb.conf"))
    assert not scene.complaints()
