"""The lab proves itself against the kernel and small programs, so that a scenario's result can be believed.

    router wan1 10.1.0.2 -------- 10.1.0.1 f1 far1 (kernel or responder)
    router tun0 10.9.0.2 -------- 10.9.0.1 (program behind the device)
"""

import os
import socket
import sys
import time

import pytest

from lab import configtext, responder, sniffer, waiting
from lab.bird import Bird
from lab.lab import Lab
from lab.two_uplinks import TwoUplinks


def ping(lab, target, *options, check=True):
    """Status of the system's own socket-level echo: 0 when a reply came."""
    script = (
        "import socket, struct, sys\n"
        "s = socket.socket(socket.AF_INET, socket.SOCK_RAW, 1)\n"
        "s.settimeout(float(sys.argv[2]))\n"
        "s.sendto(bytes.fromhex('0800f7fe0001000000000000'), (sys.argv[1], 0))\n"
        "while s.recv(2000)[20] != 0: pass\n")
    return lab.run([sys.executable, "-c", script, target, *(options or [str(waiting.PATIENCE)])], check=check).status


def test_fixed_paths_are_private(lab):
    lab.run(["sh", "-c", "echo inside > /usr/etc/a; mkdir /var/vrfs/red; echo 1 > /run/b; echo 2 > /var/db/c"])
    assert lab.read("usr_etc/a") == "inside\n"
    assert lab.read("run/b") == "1\n" and lab.read("var_db/c") == "2\n" and lab.exists("var_vrfs/red")
    for path in ("/usr/etc/a", "/var/vrfs/red", "/run/b", "/var/db/c"):
        assert not os.path.exists(path)


def test_log_records_level_and_text(lab):
    lab.run([sys.executable, "-c", "import syslog; syslog.openlog('wan_lb', syslog.LOG_PID, syslog.LOG_DAEMON);"
             "syslog.syslog(4, 'second')"])
    record = lab.log.wait_for("second")
    assert (record.level, record.facility, record.tag) == (4, 3, "wan_lb") and record.pid > 65535


def test_kernel_far_end_answers(lab):
    link = lab.uplink(1, far_end="kernel")
    capture = link.sniff()
    assert ping(lab, link.gateway) == 0
    request, = capture.wait_for(sniffer.is_echo_request)
    reply, = capture.wait_for(sniffer.is_echo_reply)
    assert reply.outgoing and not request.outgoing and reply.when >= request.when
    assert request.decode().src == link.mac and request.decode()["IP"].dst == link.gateway


def test_responder_answers_fast_and_as_told(lab):
    link = lab.uplink(1)
    capture = link.sniff()
    assert ping(lab, link.gateway) == 0
    assert link.responder.arp_requests == [link.gateway]
    reply, = capture.wait_for(sniffer.is_echo_reply)
    packet = reply.decode()
    packet["IP"].chksum = packet["ICMP"].chksum = None
    assert type(packet)(bytes(packet)).build() == reply.data, "a checksum of the responder is wrong"

    def last_took():
        return capture.select(sniffer.is_echo_reply)[-1].when - capture.select(sniffer.is_echo_request)[-1].when

    # On a busy machine not each time.
    waiting.wait_until(lambda: ping(lab, link.gateway) == 0 and last_took() < 0.05, "an answer that comes at once")
    link.responder.delay(0.3)
    assert ping(lab, link.gateway) == 0
    assert last_took() >= 0.3
    link.responder.drop(0, of=1)
    assert ping(lab, link.gateway, "0.2", check=False) != 0
    link.responder.echo = lambda echo: echo.reply(source="10.1.0.77")
    assert ping(lab, link.gateway) == 0
    assert capture.select(sniffer.is_echo_reply)[-1].decode()["IP"].src == "10.1.0.77"
    link.responder.echo = lambda echo: echo.reply(truncate=6)
    assert ping(lab, link.gateway, "0.2", check=False) != 0
    link.cut()
    assert ping(lab, link.gateway, "0.2", check=False) != 0


def test_responder_can_refuse_arp_and_lie(lab):
    link = lab.uplink(1)
    link.responder.answer_arp = False
    assert ping(lab, link.gateway, "0.2", check=False) != 0
    assert link.responder.arp_requests and not link.responder.requests
    link.responder.answer_arp, link.responder.arp_mac = True, bytes.fromhex("02000000ee01")
    lab.ip("neigh flush all")
    ping(lab, link.gateway, "0.2", check=False)
    waiting.wait_until(lambda: "02:00:00:00:ee:01" in lab.neighbours(link.name).get(link.gateway, ""))


def test_ipv6_responder_answers_solicitations(lab):
    link = lab.uplink(1, ipv6=True)
    script = ("import socket\n"
              "s = socket.socket(socket.AF_INET6, socket.SOCK_RAW, 58); s.settimeout(30)\n"
              "s.sendto(bytes.fromhex('8000000000010000' + '00000005'), ('fd00:1::1', 0))\n"
              "while s.recv(2000)[0] != 129: pass\n")
    lab.run([sys.executable, "-c", script])
    assert link.gateway6 in link.responder.solicitations
    assert link.far_mac in lab.neighbours(link.name, ipv6=True)[link.gateway6]


@pytest.mark.parametrize("far_end", ["kernel", "responder"])
def test_a_cut_link_is_silent_but_up(lab, far_end):
    link = lab.uplink(1, far_end=far_end)
    link.cut()
    assert ping(lab, link.gateway, "0.2", check=False) != 0
    assert "LOWER_UP" in lab.ip_text(f"link show {link.name}")
    link.restore()
    assert ping(lab, link.gateway) == 0


def test_no_arp_link(lab):
    link = lab.uplink(1, arp=False)
    assert "NOARP" in lab.ip_text("link show wan1")
    assert ping(lab, link.gateway) == 0
    assert not link.responder.arp_requests


def test_tun_peer(lab, tun_devices):
    peer = lab.tun_peer("tun0", "10.9.0.2", "10.9.0.1")
    assert ping(lab, "10.9.0.1") == 0
    assert peer.requests[0].target == "10.9.0.1"
    peer.close()
    waiting.wait_until(lambda: "tun0" not in lab.ip_text("-br link"))


def test_firewall_drops_invalid(lab):
    """An echo reply without a record of its request is invalid to the tracker."""
    link = lab.uplink(1)
    lab.drop_invalid()
    assert ping(lab, link.gateway) == 0
    raw = lab.enclosure.socket(socket.AF_INET, socket.SOCK_RAW, 1)
    raw.settimeout(0.3)
    message = bytes.fromhex("0000fff600090000")  # an identifier that nobody asked with
    link.responder.send_packet(bytes.fromhex(link.mac.replace(":", "")), responder.ip_packet(
        socket.inet_aton(link.gateway), socket.inet_aton(link.address), message))
    with pytest.raises(TimeoutError):
        raw.recv(2000)
    waiting.wait_until(lambda: lab.dropped() == 1, lambda: f"dropped {lab.dropped()}")


def test_vrf_is_a_named_namespace(lab):
    lab.add_netns("red")
    lab.uplink(3, vrf="red", far_end="kernel")
    assert "wan3" in lab.ip_text("-br link", "red") and "wan3" not in lab.ip_text("-br link")
    assert os.path.exists(lab.path("run/netns/red"))


def test_fake_routing_daemon_counts(lab):
    fake = lab.routing_daemon()
    assert int(lab.read("run/routing.pid")) == fake.pid
    lab.write("usr_etc/routing-wlb.conf", "text\n")
    lab.run(["kill", "-HUP", str(fake.pid)])
    assert fake.wait_hups(1)[0][1]["routing-wlb.conf"] == "text\n"
    lab.run(["kill", "-HUP", str(fake.pid)])
    assert len(fake.wait_hups(2)) == 2


FAKE_LB = """#!/bin/sh
case " $* " in
  *" -t "*) exit 0;;
esac
ip route flush cache
echo hello > "$4/wlb_ipv4.out"; echo >> "$4/wlb_ipv4.out"
{action}
exec sleep 1000
"""


@pytest.fixture
def fake_lb(lab, monkeypatch):
    def make(action=":"):
        path = lab.write("fake_lb", FAKE_LB.format(action=action))
        os.chmod(path, 0o755)
        monkeypatch.setenv("LB_PROGRAM", path)
    return make


def test_launcher(lab, fake_lb):
    fake_lb()
    started = lab.start_lb(configtext.build([], []))
    started.wait_report("hello")
    waiting.wait_until(lambda: lab.ip_calls(lab.netns_inode()) == ["route flush cache"])
    assert lab.run_lb("", "-t").status == 0
    assert started.alive and lab.finish() == [] and not started.alive


@pytest.mark.parametrize("action,expected", [
    ("exit 3", "ended by itself with status 3"),
    ("kill -SEGV $$", "ended by itself with status -11"),
    ('echo "WARNING: data race" > $(echo "$TSAN_OPTIONS" | sed "s/log_path=//;s/:.*//").1', "data race"),
    ("trap 'exit 5' TERM; echo > $4/trapped; while :; do read x < /dev/null; done", "status 5 after SIGTERM"),
], ids=["exit", "crash", "report", "status"])
def test_a_bad_end_is_noticed(lab, fake_lb, action, expected):
    fake_lb(action)
    started = lab.start_lb("")
    started.wait_report("hello")
    if "exit 3" in action or "SEGV" in action:
        started.process.wait()
    waiting.wait_until(lambda: "trap" not in action or os.path.exists(started.out + "/trapped"))
    waiting.wait_until(lambda: "TSAN" not in action or "data race" in "".join(lab.sanitizer_reports()))
    problems = lab.finish()
    assert len(problems) == 1 and expected in problems[0]
    started.end_expected = True
    for name in os.listdir(lab.path("san")):
        os.unlink(lab.path(f"san/{name}"))


def test_nothing_is_left_over():
    with Lab() as made:
        pid = made.enclosure.holder_pid()
        child = made.enclosure.spawn(["sleep", "1000"])
        inside = int(made.run(["sh", "-c", f"kill -0 {child.pid} && echo {child.pid}"]).stdout)
        assert inside == child.pid
        top = made.enclosure.top
    assert not os.path.exists(f"/proc/{pid}") and not os.path.exists(top)


def test_deadlines():
    started = time.monotonic()
    with pytest.raises(waiting.TimedOut, match="the moon"):
        waiting.wait_until(lambda: False, "the moon", timeout=0.05)
    assert 0.05 <= time.monotonic() - started < waiting.PATIENCE
    with pytest.raises(AssertionError):
        waiting.never(lambda: True, 0.1)


def test_routing_daemon_takes_our_files(lab):
    """Files as our daemon writes them, by hand: the routing daemon puts them into the kernel's tables."""
    network = TwoUplinks(lab)
    network.bird = Bird(network.lab)
    assert network.kernel_weights() == {}
    bird_pid = network.lab.read("run/routing.pid").strip()

    def routes(*numbers):
        for family, prefix, name in ((4, "0.0.0.0/0", "routing-wlb.conf"), (6, "::/0", "routing-wlb6.conf")):
            vias = "".join(
                f" via {network.links[number].gateway6 if family == 6 else network.links[number].gateway}"
                f" weight {network.WEIGHTS[number]}" for number in numbers)
            network.lab.write("usr_etc/" + name, f"protocol static {{\nipv{family} {{table master{family};}};\n"
                              f"check link 1;\nroute {prefix}{vias};\n}};\n")
        network.lab.run(["kill", "-HUP", bird_pid])

    routes(1, 2)
    network.wait_both()
    routes(2)
    network.wait_only(2)
    assert network.bird.reconfigured() == 2
