"""Hand-built echo requests get a connection-tracking record, so that a firewall lets their replies in.

    router wan1 10.1.0.2, nft: drop "ct state invalid" on the way in -------- f1 far1: responder
"""

import time

import pytest

from lab import configtext, waiting
from lab.configtext import ping, ping_ext

FAMILIES = pytest.mark.parametrize("ipv6", [False, True], ids=["ipv4", "ipv6"])


def config(link, ipv6, kind=ping, source=True, **settings):
    target = "2001:db8:7::7" if ipv6 else "198.51.100.7"
    extra = {"source_address": link.address6} if ipv6 and source else {}
    return configtext.single(link, [kind(target, **settings)], ipv6=ipv6, **extra), target


@FAMILIES
def test_record(lab, ipv6):
    """The record is exactly the exchange on the wire, for at most 32 seconds, and waits for its reply."""
    link = lab.uplink(1, ipv6=ipv6)
    link.responder.echo = None
    text, target = config(link, ipv6)
    lb = lab.start_lb(text)
    request = link.responder.wait_requests(1)[0]
    line, = [line for line in lab.conntrack(ipv6=ipv6) if target in line]
    words = line.split()
    kinds = (128, 129) if ipv6 else (8, 0)
    near = link.address6 if ipv6 else link.address
    assert request.identifier == lb.pid & 0xFFFF
    assert 30 - (time.monotonic() - request.when) <= int(words[2]) <= 32
    assert words[3:] == [
        f"src={near}", f"dst={target}", f"type={kinds[0]}", "code=0", f"id={request.identifier}", "[UNREPLIED]",
        f"src={target}", f"dst={near}", f"type={kinds[1]}", "code=0", f"id={request.identifier}"] + words[14:]
    assert words[14:] in (["mark=0", "use=1"], ["use=1"])


@pytest.mark.parametrize("ipv6,kind,settings", [
    (False, ping, {}), (False, ping_ext, {"count": 3, "rtt": 5000, "jitter": 5000}), (True, ping, {})])
def test_reply_passes_the_firewall_because_of_the_record(lab, ipv6, kind, settings):
    link = lab.uplink(1, ipv6=ipv6)
    lab.drop_invalid()
    text, _ = config(link, ipv6, kind, **settings)
    lb = lab.start_lb(text)
    lb.wait_status("wan1", "active", family=6 if ipv6 else 4)
    assert lab.dropped() == 0


@FAMILIES
def test_without_the_record_the_reply_is_dropped(lab, ipv6):
    """The same set-up with the record taken away before each reply: the firewall drops it, the probe fails."""
    link = lab.uplink(1, ipv6=ipv6)
    lab.drop_invalid()
    removed = []
    link.responder.echo = None
    text, target = config(link, ipv6, resp_time=waiting.milliseconds(3000))
    lb = lab.start_lb(text)
    family = "ipv6" if ipv6 else "ipv4"
    for number in range(1, 3):
        request = link.responder.wait_requests(number)[number - 1]
        removed.append(lab.run(["conntrack", "-D", "-f", family, "-d", target]).stderr)
        link.responder.send_packet(bytes.fromhex(link.mac.replace(":", "")), request.reply())
        waiting.wait_until(lambda count=number: lab.dropped() == count, lambda: f"dropped {lab.dropped()}")
    assert all("1 flow entries have been deleted" in text for text in removed)
    lb.wait_report("  -Test:", family=6 if ipv6 else 4)
    assert not lab.log.matching("changed state to active")


@FAMILIES
def test_existing_record_is_refused_and_logged(lab, ipv6):
    link = lab.uplink(1, ipv6=ipv6)
    text, _ = config(link, ipv6)
    lb = lab.start_lb(text)
    link.responder.wait_requests(3)
    version = 6 if ipv6 else 4
    record = lab.log.wait_for(
        rf"^%WAN-W-ERR: <create_conntrack_record> mnl_socket_recvfrom for ip version {version}: File exists$")
    assert record.level == 4
    lb.wait_status("wan1", "active", family=version)


def test_record_that_is_about_to_expire_lives_on_for_the_reply(lab):
    """The record of a burst's request is refused, since that of the burst before has some seconds left; the reply
    comes when these are over."""
    link = lab.uplink(1)
    lab.drop_invalid()
    # What a record has left when its reply has been seen, in seconds: longer than from one burst to the next.
    left = 6
    lab.sysctl(f"net.netfilter.nf_conntrack_icmp_timeout={left}")
    requests = link.responder.requests

    def every_other_late(request):
        if request.number % 2 == 0:
            return request.reply()
        late = requests[request.number - 1].when + left + 2
        return [(max(0, late - time.monotonic()), request.reply())]

    link.responder.echo = every_other_late
    text, _ = config(link, False, ping_ext, count=1, period=1, timeout=waiting.milliseconds(10000) // 1000 * 1000,
                     rtt=60000, jitter=60000)
    lb = lab.start_lb(text)
    link.responder.wait_requests(6, timeout=90)
    assert lab.log.matching("<create_conntrack_record> mnl_socket_recvfrom for ip version 4: File exists$")
    assert lab.dropped() == 0
    assert "  +Test" in lb.report() and not lab.log.matching("changed state to inactive$")[1:]


def test_unparsable_ipv6_target(lab):
    link = lab.uplink(1, ipv6=True)
    lab.replace_etc("nsswitch.conf", "hosts: files\n")
    lb = lab.start_lb(configtext.single(link, [ping("gateway.example", resp_time=200)], ipv6=True))
    lab.log.wait_for(r"^%WAN-W-ERR: inet_pton\(\) failed\.\s*Error message: ")
    lb.wait_report("  -Test:", family=6)
    assert not lab.conntrack(ipv6=True)
