"""The sample hook of lbctl watch: mails what has changed, and flushes the connections of a dead uplink.

    203.0.113.1, 203.0.113.80 isp1 192.0.2.1    ---- eth0 \\
                                                           router: samples, bird, lb, lbctl watch ---- eth2 lan
    203.0.113.2, 203.0.113.80 isp2 198.51.100.1 ---- eth1 /
"""

import os
import shutil

import pytest

from lab import tool, waiting
from lab.two_isps import STOCK, Flow, TwoIsps, carry_out, guide, own_directories

# Takes a mail.
_SENDMAIL = """#!/bin/sh
{ echo "$*"; cat; echo; } >>/run/mail
"""

# In the place of the service manager: starts what the unit says.
_SYSTEMCTL = """#!/bin/sh
case "$*" in
daemon-reload) ;;
"enable --now "*)
  command=$(sed -n 's|^ExecStart=/usr/bin/lbctl |@LBCTL@ |p' "/etc/systemd/system/$3.service")
  [ -n "$command" ] || exit 5
  $command >/run/watch.out 2>/run/watch.err &
  ;;
*) exit 2 ;;
esac
"""

HOOK = "etc/wan_lb/state-change"


def blocks():
    """How the guide has the hook installed."""
    return [block for block in guide("beside-the-kernel.md") if "hooks/state-change" in block[2]]


@pytest.fixture
def network(lab):
    made = TwoIsps(lab)
    made.settings()
    made.rules()
    made.firewall()
    lab.write("bin/sendmail", _SENDMAIL)
    lab.write("bin/systemctl", _SYSTEMCTL.replace("@LBCTL@", tool.program()))
    for name in ("sendmail", "systemctl"):
        os.chmod(lab.path(f"bin/{name}"), 0o755)
    own_directories(lab, "systemd")
    os.mkdir(lab.path("etc/systemd/system"))
    return made


def install(lab, *lines):
    """The guide's commands; or only some lines of them."""
    (title, kind, text), = blocks()
    chosen = [line for line in text.splitlines() if not lines or any(part in line for part in lines)]
    assert len(chosen) == (len(lines) or 5)
    return carry_out(lab, [(title, kind, "\n".join([f"PATH={lab.path('bin')}:$PATH", *chosen]))])


def mails(lab):
    return lab.read("run/mail") if lab.exists("run/mail") else ""


def wait_mail(lab, text):
    waiting.wait_until(lambda: text in mails(lab), lambda: f"a mail with {text!r}:\n{mails(lab)}")


def run_hook(lab, path=None, **change):
    """Starts the hook as lbctl watch does."""
    change = {"interface": "isp1", "family": "4", "vrf": "default", "state": "failed", "nexthop": "192.0.2.1",
              "time": "2026-01-31T23:59:59Z", **change}
    variables = [f"WAN_LB_{name.upper()}={value}" for name, value in change.items()]
    return lab.enclosure.spawn(["env", *variables, f"PATH={path or lab.path('bin') + ':/usr/sbin:/usr/bin:/sbin:/bin'}",
                                "/" + HOOK])


class Steps:
    """In the place of sleep: each one lasts until the test lets it end, and the hook's patience with it."""

    def __init__(self, lab):
        self.path = lab.path("run/step")
        self.end = None
        os.mkfifo(self.path)
        lab.write("bin/sleep", "#!/bin/sh\nread -r _ </run/step\n")
        os.chmod(lab.path("bin/sleep"), 0o755)

    def wait(self):
        """Until the hook sleeps."""
        def opened():
            try:
                self.end = os.open(self.path, os.O_WRONLY | os.O_NONBLOCK)
            except OSError:  # nobody reads
                return False
            return True

        if self.end is None:
            waiting.wait_until(opened, "the hook to sleep")

    def take(self):
        self.wait()
        os.write(self.end, b"\n")
        os.close(self.end)
        self.end = None


def test_flow_goes_by_the_other_uplink_after_a_failure(lab, network):
    network.start((*STOCK, "replies wire"), out=lab.path("run/load-balance"), failover=True)
    first, second = network.isps
    network.wait_route(first)
    install(lab)
    flow = Flow(network)
    flow.wait(("isp1", first.address))
    assert flow.answered()
    network.lb.wait_cycles(2)  # those who watch have seen the links active
    first.cut()
    network.wait_route(second)
    wait_mail(lab, "Subject: isp1 (IPv4, VRF default) is failed\n")
    # It was flushed before the mail went out.
    assert flow.send() == ("isp2", second.address) and flow.answered(), lab.read("run/watch.err")
    assert mails(lab).startswith("-t\nTo: root\n") and "next hop 192.0.2.1.\n" in mails(lab)
    first.restore()
    wait_mail(lab, "isp1 (IPv4, VRF default) is active\n")
    # The flow stays where it is.
    network.wait_route(first)
    assert flow.send() == ("isp2", second.address) and flow.answered()
    assert lab.read("run/watch.err") == ""


def test_flushes_after_the_routes_have_switched(lab, network):
    """A flow that goes on sending would come back the old way before."""
    install(lab, "cp /usr/share/doc/wan-lb/examples/hooks/state-change", "chmod")
    first, second = network.isps
    lab.ip(f"route add default via {first.gateway} dev eth0 proto bird")
    flow = Flow(network)
    flow.wait(("isp1", first.address))
    steps = Steps(lab)
    hook = run_hook(lab)
    steps.take()
    asked = "-4 route show default proto bird"
    waiting.wait_until(lambda: lab.ip_calls().count(asked) == 2, "a second look at the routes")
    steps.wait()
    assert hook.status is None and flow.send() == ("isp1", first.address)
    lab.ip(f"route replace default via {second.gateway} dev eth1 proto bird")
    steps.take()
    assert hook.wait() == 0
    assert flow.send() == ("isp2", second.address)


def test_does_nothing_while_the_routes_stay(lab, network):
    """No other uplink is left."""
    lab.write("bin/sleep", "#!/bin/sh\n")
    os.chmod(lab.path("bin/sleep"), 0o755)
    install(lab, "cp /usr/share/doc/wan-lb/examples/hooks/state-change", "chmod")
    first, _ = network.isps
    lab.ip(f"route add default via {first.gateway} dev eth0 proto bird",
           "route add ::/0 via fe80::1 dev eth0 proto bird")
    flow = Flow(network)
    flow.wait(("isp1", first.address))
    hooks = [run_hook(lab), run_hook(lab, family="6", nexthop="fe80::1")]
    assert [hook.wait() for hook in hooks] == [0, 0]
    assert " mark=1 " in lab.run(["conntrack", "-L", "-p", "udp"]).stdout
    assert "unreachable" not in lab.ip_text("-6 route show table 101")
    assert mails(lab).count("Subject: ") == 2


def test_connections_of_the_other_uplink_stay(lab, network):
    install(lab, "cp /usr/share/doc/wan-lb/examples/hooks/state-change", "chmod")
    network.route(network.isps[1])
    flow = Flow(network)
    flow.wait(("isp2", "198.51.100.10"))
    assert flow.answered()
    before = [line.split("sport")[1] for line in lab.run(["conntrack", "-L", "-p", "udp"]).stdout.splitlines()]
    for change in ({}, {"interface": "isp2", "state": "active"}, {"interface": "isp2", "vrf": "blue"},
                   {"interface": "another"}):
        assert run_hook(lab, **change).wait() == 0
    after = [line.split("sport")[1] for line in lab.run(["conntrack", "-L", "-p", "udp"]).stdout.splitlines()]
    assert before == after and len(before) == 1
    assert run_hook(lab, interface="isp2").wait() == 0
    assert not lab.run(["conntrack", "-L", "-p", "udp"]).stdout
    assert mails(lab).count("Subject: ") == 5


def test_ipv6_prefix_of_a_dead_uplink(lab, network):
    install(lab, "cp /usr/share/doc/wan-lb/examples/hooks/state-change", "chmod")
    network.route(network.isps[1], family=6)
    dead = "unreachable default dev lo metric 1 "
    for _ in range(2):
        assert run_hook(lab, family="6", nexthop="fe80::1").wait() == 0
        assert dead in lab.ip_text("-6 route show table 101") and dead not in lab.ip_text("-6 route show table 102")
    for _ in range(2):
        assert run_hook(lab, family="6", state="active").wait() == 0
        assert dead not in lab.ip_text("-6 route show table 101")
    # IPv4 has nothing to do with it.
    assert run_hook(lab).wait() == 0
    assert "unreachable" not in lab.ip_text("-6 route show table 101") + lab.ip_text("route show table 101")


def test_without_a_mail_program(lab, network):
    """The log has it."""
    del network
    install(lab, "cp /usr/share/doc/wan-lb/examples/hooks/state-change", "chmod")
    os.mkdir(lab.path("tools"))
    for name in ("ip", "conntrack", "grep", "sleep", "logger"):
        os.symlink(shutil.which(name), lab.path(f"tools/{name}"))
    hook = run_hook(lab, lab.path("tools"))
    assert hook.wait() == 0 and hook.stderr == ""
    lab.log.wait_for(r"isp1 \(IPv4, VRF default\) is failed since 2026-01-31T23:59:59Z")
    assert not mails(lab)
