"""What a real machine does to a daemon: things missing, slow, late, odd or too many.

    router wan1 10.1.0.2 -------- f1 far1: responder
    router wan2 10.2.0.2 -------- f2 far2: responder
"""

import socket

import pytest

from lab import configtext, daemon, waiting
from lab.configtext import interface, ping, ping_ext, rule


def two(first, second, ipv6=False):
    return configtext.build([first, second], [rule("1_ipv6" if ipv6 else "1_ipv4", {"wan1": 1, "wan2": 1},
                                                   {"::/0" if ipv6 else "0.0.0.0/0": None})])


def good(link, **settings):
    return interface(link.name, [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway, **settings)


def test_interface_appears_after_the_start(lab):
    other = lab.uplink(2)
    lb = lab.start_lb(two(interface("wan1", [ping("10.1.0.1", resp_time=900)], success_ct=1, nexthop="10.1.0.1"),
                          good(other)))
    lb.wait_status("wan2", "active")
    lb.wait_report("  -Test:  ping\tTarget: 10.1.0.1")
    assert lb.statuses()["wan1"] == "failed"
    link = lab.uplink(1)
    lb.wait_status("wan1", "active")
    assert link.responder.requests


@pytest.mark.parametrize("arp", [True, False])
def test_interface_is_made_anew(lab, arp):
    """Deleted and created again: another index, the same name."""
    link = lab.uplink(1, arp=arp)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active")
    lab.discard(link.responder)
    lab.ip("link del wan1")
    lb.wait_status("wan1", "failed")
    lab.ip("netns del far1")
    lab.uplink(1, arp=arp)
    lb.wait_status("wan1", "active")


def test_link_down_and_up(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active")
    lab.ip("link set wan1 down")
    lb.wait_status("wan1", "failed")
    lab.ip("link set wan1 up")
    lb.wait_status("wan1", "active")


def test_device_without_hardware_address(lab, tun_devices):
    """A tun device that claims to use ARP: its probes cannot work, everything else does."""
    other = lab.uplink(2)
    peer = lab.tun_peer("wan1", "10.1.0.2", "10.1.0.1")
    lab.ip("link set wan1 arp on")
    assert "NOARP" not in lab.ip_text("link show wan1")
    lb = lab.start_lb(two(interface("wan1", [ping("10.1.0.1", resp_time=900), ping_ext("10.1.0.1", period=1)],
                                    success_ct=1, nexthop="10.1.0.1"), good(other)))
    lb.wait_status("wan2", "active")
    lb.wait_report(lambda text: text.count("  -Test:") == 2)
    assert lb.statuses()["wan1"] == "failed" and not peer.requests


def test_name_service_that_never_answers(lab):
    """Each look-up takes two seconds: the worker is slow, but it works, and the other family is not slowed."""
    slow, other = lab.uplink(1, arp=False), lab.uplink(2, ipv6=True)
    lab.name_server(silent=True, timeout=2)
    config = configtext.build(
        [interface("wan1", [ping("no.such.name", resp_time=100)], success_ct=1, nexthop=slow.gateway), good(other),
         interface("wan2", [ping(resp_time=900)], ipv6=True, success_ct=1, nexthop=other.gateway6)],
        [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None}), rule("1_ipv6", {"wan2": 1}, {"::/0": None})])
    lb = lab.start_lb(config)
    lab.log.wait_for("error in resolving configured hostname: no.such.name", count=2)
    lb.wait_status("wan2", "active")
    lb.wait_status("wan2", "active", family=6)
    first, second = lab.log.matching("error in resolving configured hostname")[:2]
    assert second.when - first.when >= 2
    # In the time of six cycles of a second each the slow family makes two or three, of three seconds each.
    cycles = {family: lb.cycles(family) for family in (4, 6)}
    waiting.wait_until(lambda: (cycles[4](), cycles[6]())[1] >= 6, "six cycles of IPv6")
    assert cycles[4]() <= 4


def test_no_protocols_database(lab):
    """The number of ipv6-icmp is known without it."""
    link = lab.uplink(1, ipv6=True)
    lab.replace_etc("nsswitch.conf", "hosts: files\nprotocols: files\n")
    lab.hide("protocols")
    assert lab.run(["getent", "protocols", "ipv6-icmp"], check=False).status != 0
    lb = lab.start_lb(configtext.single(link, ipv6=True))
    lb.wait_status("wan1", "active", family=6)
    assert not lab.log.matching("failed to acquired socket")


def test_descriptors_above_1023(lab):
    """350 interfaces have 1050 sockets; the real ones come last and are waited for all the same."""
    frame, raw = lab.uplink(1), lab.uplink(2, arp=False)
    absent = [interface(f"absent{number:03}", [ping("198.51.100.1")], nexthop="198.51.100.1")
              for number in range(350)]
    lb = lab.start_lb(configtext.build(
        absent + [interface(name, [ping(link.gateway)], success_ct=1, nexthop=link.gateway, origin=link.name)
                  for name, link in (("frame", frame), ("raw", raw))]
        + [interface("rawext", [ping_ext(raw.gateway, count=2, rtt=5000, jitter=5000)], success_ct=1,
                     nexthop=raw.gateway, origin="wan3")],
        [rule("1_ipv4", {"frame": 1, "raw": 1}, {"0.0.0.0/0": None})]), nofile=8192)
    extended = lab.uplink(3, arp=False)
    lb.wait_status("frame", "active", timeout=120)
    lb.wait_status("raw", "active", timeout=120)
    assert int(lab.run(["sh", "-c", f"ls /proc/{lb.pid}/fd | sort -n | tail -1"]).stdout) > 1023
    assert len(lb.statuses()) == 353 and extended


def test_out_of_descriptors(lab):
    """Sockets that cannot be had are reported, and nothing ends."""
    if daemon.is_undefined_behaviour_sanitizer(daemon.program()):
        pytest.skip("UndefinedBehaviorSanitizer needs a pipe to check a virtual call and reports a bad object without")
    link = lab.uplink(1)
    config = configtext.build(
        [interface("a-first", [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway, origin="wan1")]
        + [interface(f"absent{number:02}", [ping("198.51.100.1")], nexthop="198.51.100.1") for number in range(30)],
        [rule("1_ipv4", {"a-first": 1}, {"0.0.0.0/0": None})])
    lb = lab.start_lb(config, nofile=64)
    record = lab.log.wait_for("^%WAN-W-ERR: wan_lb: failed to acquired socket$")
    assert record.level == 4
    # Every probe needs more sockets: that fails too, again and again.
    lab.log.wait_for(r"^%WAN-W-ERR: (<check_arp_exist> Socket|.*socket\(\) failed)", count=2)
    assert lb.alive


def test_configured_twice_by_origin(lab):
    """Two sections over one Linux interface share its sockets."""
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [interface("one", [ping("198.51.100.1")], success_ct=1, nexthop=link.gateway, origin="wan1"),
         interface("two", [ping("198.51.100.2")], success_ct=1, nexthop=link.gateway, origin="wan1")],
        [rule("1_ipv4", {"one": 1, "two": 2}, {"0.0.0.0/0": None})]))
    lb.wait_status("one", "active")
    lb.wait_status("two", "active")


def test_flood_of_foreign_replies(lab):
    """Replies of other programs' pings reach every raw socket; none of them is ours."""
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=1000)]))
    lb.wait_status("wan1", "active")
    foreign = lab.enclosure.socket(socket.AF_INET, socket.SOCK_RAW, 1)
    for number in range(2000):
        foreign.sendto(bytes.fromhex("0800") + b"\0\0" + b"\x77\x77" + number.to_bytes(2, "big") + b"\x7f" * 8,
                       (link.gateway, 0))

    def own():
        return len([request for request in link.responder.requests if request.identifier == lb.pid & 0xFFFF])

    seen = own()
    waiting.wait_until(lambda: own() >= seen + 2)
    assert lb.statuses() == {"wan1": "active"} and len(lab.log.matching("changed state to inactive")) == 1
