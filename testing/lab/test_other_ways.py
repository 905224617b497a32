"""Answers that come by another interface than their probe left by: they count, whoever probes there.

    router wan1 10.1.0.2 -------- f1 far1: responders, of which one may leave its answers to another one
           wan2 10.2.0.2 -------- f2 far2
           wan3 10.3.0.2 -------- f3 far3
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule


@pytest.fixture(params=[4, 6], ids=["ipv4", "ipv6"])
def family(request):
    return request.param


@pytest.fixture
def links(lab):
    links = [lab.uplink(number, ipv6=True) for number in (1, 2, 3)]
    lab.sysctl(*[f"net.ipv4.conf.{name}.rp_filter=0" for name in ("all", *(link.name for link in links))])
    return links


def gateway(link, family):
    return link.gateway if family == 4 else link.gateway6


def start(lab, links, family):
    return lab.start_lb(configtext.build(
        [interface(link.name, [ping(gateway(link, family), resp_time=waiting.milliseconds(900))], ipv6=family == 6,
                   success_ct=1, nexthop=gateway(link, family),
                   **({"source_address": link.address6} if family == 6 else {})) for link in links],
        [rule(f"1_ipv{family}", {link.name: 1 for link in links}, {"::/0" if family == 6 else "0.0.0.0/0": None})]))


def wait_told(lab, link):
    """The message may come a moment after the report that shows the same."""
    lab.log.wait_for(f"interface {link.name} changed state to active$")


def answer_by(link, other):
    """The answers to probes by `link` come from the wire of `other`."""
    def echo(request):
        other.responder.send_packet(bytes.fromhex(other.mac.replace(":", "")), request.reply())
    link.responder.echo = echo


@pytest.mark.parametrize("asking, answering, probed", [
    (0, 1, (0, 1)),  # who takes the rest, of one who is bound
    (1, 0, (0, 1)),
    (1, 2, (0, 1)),  # nobody's interface
    (0, 2, (0,)),
    (2, 1, (0, 1, 2)),
], ids=["first-by-second", "second-by-first", "second-by-unprobed", "only-by-unprobed", "third-by-second"])
def test_answer_by_another_interface(lab, links, family, asking, answering, probed):
    link, other = links[asking], links[answering]
    answer_by(link, other)
    lb = start(lab, [links[number] for number in probed], family)
    for number in probed:
        lb.wait_status(links[number].name, "active", family=family)
        wait_told(lab, links[number])
    mark = lab.log.mark()
    link.responder.wait_requests(4, since=len(link.responder.requests))
    assert not lab.log.matching("changed state", since=mark)
    # And it is this answer that counts.
    link.responder.echo = None
    lb.wait_status(link.name, "failed", family=family)


def test_device_that_comes_later(lab, links, family):
    """Its receiver was started while there was none, and so was the one that takes the rest."""
    first, second, _ = links
    lab.ip(f"link set {second.name} name away2", f"link set {first.name} name away1")
    lb = start(lab, [first, second], family)
    lb.wait_cycles(2, family)
    lab.ip(f"link set away2 name {second.name}", f"link set {second.name} up")
    lb.wait_status(second.name, "active", family=family)
    lab.ip(f"link set away1 name {first.name}", f"link set {first.name} up")
    lb.wait_status(first.name, "active", family=family)
    for link in (first, second):
        wait_told(lab, link)
    answer_by(first, second)
    mark = lab.log.mark()
    first.responder.wait_requests(3, since=len(first.responder.requests))
    assert not lab.log.matching("changed state", since=mark)


@pytest.mark.parametrize("bursts, asking, answering", [
    (0, 1, 2),  # bursts by the first interface, whose socket would take the rest; the answer by nobody's interface
    (1, 0, 1),  # the answer by the interface of the bursts
], ids=["by-unprobed", "by-that-of-bursts"])
def test_interface_of_bursts_alone_keeps_no_answer_from_others(lab, links, bursts, asking, answering):
    answer_by(links[asking], links[answering])
    interfaces = {
        bursts: interface(links[bursts].name, [ping_ext(links[bursts].gateway, period=2, count=2, timeout=300)],
                          success_ct=1, nexthop=links[bursts].gateway),
        asking: interface(links[asking].name, [ping(links[asking].gateway, resp_time=waiting.milliseconds(900))],
                          success_ct=1, nexthop=links[asking].gateway)}
    lb = lab.start_lb(configtext.build([interfaces[number] for number in sorted(interfaces)],
                                       [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status(links[asking].name, "active")
