"""The service among others that come late, go and come back: links, the routing daemon, an administrator in a hurry.

    machine eth0 192.0.2.10   ------- isp1: 203.0.113.1
    machine eth1 198.51.100.10 ------ isp2: 203.0.113.2
"""

import os
import shutil

import pytest

from package_lab.machine import wait_until

_ROUTE = ["ip", "route", "show", "203.0.113.128/25"]
_UPLINK = """    interface isp{number} {{
        origin eth{device}
        nexthop {gateway}
        source_address auto
        failure-ct 2
        test 1 {{
            type ping
            target 203.0.113.{number}
            resp-time 1500
        }}
    }}
"""
_CONFIGURATION = """options {
    routing-daemon bird2
    discovery linux
    replies wire
    keep-last-routes
}
health {
""" + _UPLINK.format(number=1, device=0, gateway="192.0.2.1") + _UPLINK.format(
    number=2, device=1, gateway="198.51.100.1") + """}
rule 1_ipv4 {
    interface isp1 {
        weight 1
    }
    interface isp2 {
        weight 2
    }
    target {
        address 203.0.113.128/25
        metric 77
    }
}
"""


def _links(machine):
    made = [machine.isp("eth0", "192.0.2.1/24", "203.0.113.1/32"),
            machine.isp("eth1", "198.51.100.1/24", "203.0.113.2/32")]
    machine.run("ip", "address", "add", "192.0.2.10/24", "dev", "eth0")
    machine.run("ip", "address", "add", "198.51.100.10/24", "dev", "eth1")
    return made


def _write_configurations(machine):
    """The samples: BIRD's, with its kernel protocols replaced by those for route metrics."""
    machine.write("/etc/wan_lb/lb.conf", _CONFIGURATION)
    machine.run("sh", "-ec", "cd /usr/share/doc/wan-lb/examples\n"
                "sed '/^protocol kernel/,/^}/d' bird.conf | cat - bird-metrics.conf >/etc/bird/bird.conf\n"
                "systemctl daemon-reload")


def _pid(machine, unit="wan-lb"):
    return machine.run("systemctl", "show", "-P", "MainPID", unit).stdout.strip()


def _state(machine, unit="wan-lb"):
    return machine.run("systemctl", "is-active", unit, check=False).stdout.strip()


def _devices(machine):
    words = machine.run(*_ROUTE).stdout.split()
    return sorted(word for at, word in enumerate(words) if at and words[at - 1] == "dev")


def _wait_devices(machine, *devices):
    wait_until(lambda: _devices(machine) == list(devices),
               lambda: f"{devices} in {machine.run(*_ROUTE).stdout}\n{machine.journal()}\n{machine.journal('bird')}")


@pytest.fixture
def router(machine):
    _write_configurations(machine)
    links = _links(machine)
    machine.run("systemctl", "restart", "bird")
    machine.run("systemctl", "start", "wan-lb")
    _wait_devices(machine, "eth0", "eth1")
    del links
    return machine


def test_what_comes_late_and_comes_back(machine):
    """The service starts before its links exist and while BIRD cannot run; then BIRD goes in every way and is back."""
    _write_configurations(machine)
    machine.run("systemctl", "stop", "bird")
    machine.run("systemctl", "mask", "--runtime", "bird")
    machine.run("systemctl", "start", "wan-lb")
    started = _pid(machine)
    links = _links(machine)
    wait_until(lambda: "active" in machine.run("lbctl", "status", check=False).stdout
               and "failed" not in machine.run("lbctl", "status", check=False).stdout, "both links to be active")
    assert _devices(machine) == []
    machine.run("systemctl", "unmask", "--runtime", "bird")
    machine.run("systemctl", "start", "bird")
    _wait_devices(machine, "eth0", "eth1")
    assert "metric 77" in machine.run(*_ROUTE).stdout  # by the sample's kernel protocol
    machine.run("systemctl", "restart", "bird")
    _wait_devices(machine, "eth0", "eth1")
    # A BIRD that crashed is another process: it gets the signals from then on.
    machine.run("systemctl", "kill", "-s", "KILL", "bird")
    wait_until(lambda: _state(machine, "bird") == "active" and _pid(machine, "bird") != "0", "BIRD to be back")
    links[0].answers(False)
    _wait_devices(machine, "eth1")
    machine.run("systemctl", "stop", "bird")
    links[0].answers(True)
    wait_until(lambda: "failed" not in machine.run("lbctl", "status", check=False).stdout, "both links to be active")
    machine.run("systemctl", "start", "bird")
    _wait_devices(machine, "eth0", "eth1")
    assert _pid(machine) == started, machine.journal()


def test_many_reloads_and_few_crashes(router):
    """Reloads do not use up the starts that a failing service has; crashes without an end do."""
    for _ in range(11):
        before = _pid(router)
        router.run("systemctl", "reload", "wan-lb")
        wait_until(lambda old=before: _pid(router) not in (old, "0") and _state(router) == "active", router.journal)
    for _ in range(3):
        before = _pid(router)
        router.run("kill", "-SEGV", before)
        wait_until(lambda old=before: _pid(router) not in (old, "0") and _state(router) == "active", router.journal)
    assert _devices(router) == ["eth0", "eth1"]

    def gives_up():
        router.run("systemctl", "kill", "-s", "SEGV", "wan-lb", check=False)
        return _state(router) == "failed"

    wait_until(gives_up, lambda: f"the limit of starts\n{router.journal()}", timeout=150)
    assert _devices(router) == ["eth0", "eth1"]  # the last routes stay where they are


def test_metrics_for_the_node_exporter(router):
    router.run("mkdir", "-p", "/var/lib/prometheus/node-exporter")
    router.run("systemctl", "start", "wan-lb-metrics.timer")
    path = "/var/lib/prometheus/node-exporter/wan_lb.prom"
    wait_until(lambda: router.run("test", "-e", path, check=False).returncode == 0,
               lambda: f"the timer's file\n{router.journal('wan-lb-metrics')}")
    text = router.read(path)
    assert 'wan_lb_interface_active{interface="isp1"' in text, text
    assert router.run("stat", "-c", "%a", path).stdout == "644\n"
    assert _state(router, "wan-lb-metrics.timer") == "active"


def test_service_has_three_capabilities(router):
    """Those that its comments justify: CAP_KILL (5), CAP_NET_ADMIN (12) and CAP_NET_RAW (13)."""
    status = router.run("grep", "^Cap", f"/proc/{_pid(router)}/status").stdout
    sets = dict(line.split(":\t") for line in status.splitlines())
    wanted = f"{1 << 5 | 1 << 12 | 1 << 13:016x}"
    assert sets["CapBnd"] == wanted and sets["CapEff"] == wanted, status


def test_upgrade_and_removal(router, tree, packages):
    """Of a service that runs, with its timer: an upgrade starts them anew, a removal stops them."""
    deb = shutil.copy(packages["wan-lb"], f"{tree}/root")
    router.run("mkdir", "-p", "/var/lib/prometheus/node-exporter")
    router.run("systemctl", "start", "wan-lb-metrics.timer")
    before = _pid(router)
    router.run("dpkg", "-i", f"/root/{os.path.basename(deb)}")
    assert _pid(router) not in (before, "0")
    assert (_state(router), _state(router, "wan-lb-metrics.timer")) == ("active", "active")
    assert _devices(router) == ["eth0", "eth1"]
    router.run("dpkg", "--remove", "wan-lb")
    assert router.run("pidof", "lb", check=False).stdout == ""
    assert (_state(router), _state(router, "wan-lb-metrics.timer")) == ("inactive", "inactive")
    assert _devices(router) == ["eth0", "eth1"]  # they are BIRD's


def test_installation_starts_nothing(machine, tree, packages):
    """With a service manager that runs; what belongs to BIRD is known to it at once."""
    machine.run("dpkg", "--purge", "wan-lb")
    deb = shutil.copy(packages["wan-lb"], f"{tree}/root")
    machine.run("dpkg", "-i", f"/root/{os.path.basename(deb)}")
    for unit in ("wan-lb.service", "wan-lb-metrics.timer"):
        assert (_state(machine, unit), machine.run("systemctl", "is-enabled", unit, check=False).stdout) == (
            "inactive", "disabled\n")
    assert "-P /run/bird/routing.pid" in machine.run("systemctl", "show", "-P", "ExecStart", "bird").stdout
    machine.run("test", "-e", "/usr/etc/routing-wlb.conf", "-a", "-h", "/run/routing.pid")
