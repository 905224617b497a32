"""What counts as the answer to a probe, and how long it is waited for.

    router wan1 10.1.0.2 -------- f1 far1: responder that answers wrongly, late or not at all
"""

import pytest

from lab import configtext, responder, waiting
from lab.configtext import ping

KEY_ONLY = {
    "another source": lambda request: request.reply(source="10.1.0.77"),
    "another identifier": lambda request: request.reply(identifier=1),
    "another sequence": lambda request: request.reply(sequence=77),
    "another code": lambda request: request.reply(code=3),
    "a wrong checksum": lambda request: request.reply(checksum=0x1234),
    "no padding": lambda request: request.reply(payload=request.payload[:4]),
    "twice": lambda request: [(0, request.reply()), (0, request.reply()), (0.1, request.reply())],
}

NOT_ANSWERS = {
    "another key": lambda request: request.reply(payload=b"\0\0\x7f\xfe" + request.payload[4:]),
    "a key in the other byte order": lambda request: request.reply(payload=request.payload[3::-1]),
    "destination unreachable": lambda request: request.reply(type=3, code=1),
    "an echo request": lambda request: request.reply(type=8),
    "key cut off": lambda request: request.reply(truncate=11),
    "header cut off": lambda request: request.reply(truncate=3),
    "no message": lambda request: request.reply(truncate=0),
    "no answer": lambda request: None,
}


@pytest.fixture(params=[True, False], ids=["frame", "raw"])
def link(request, lab):
    return lab.uplink(1, arp=request.param)


@pytest.mark.parametrize("answer", KEY_ONLY.values(), ids=KEY_ONLY)
def test_only_the_key_counts(lab, link, answer):
    link.responder.echo = answer
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    lb.wait_status("wan1", "active")


def test_other_packets_change_nothing(lab, link):
    """Every kind of wrong answer in turn: the interface never gets active, and right answers still work."""
    answers = list(NOT_ANSWERS.values())
    link.responder.echo = lambda request: answers[request.number % len(answers)](request)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=50)]))
    link.responder.wait_requests(len(answers) + 1, timeout=90)
    assert lb.statuses() == {"wan1": "failed"} and not lab.log.matching("changed state to active")
    link.responder.echo = lambda request: request.reply()
    lb.wait_status("wan1", "active")


def test_header_with_options_hides_the_key(lab, link):
    """The IP header is taken as 20 bytes long."""

    def with_options(request):
        packet = request.reply()
        head = b"\x46" + packet[1:2] + (len(packet) + 4).to_bytes(2, "big") + packet[4:10] + b"\0\0" + packet[12:20]
        head += b"\x01\x01\x01\x00"
        return head[:10] + responder.inet_checksum(head).to_bytes(2, "big") + head[12:] + packet[20:]

    link.responder.echo = with_options
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=50)]))
    link.responder.wait_requests(3)
    assert lb.statuses() == {"wan1": "failed"} and not lab.log.matching("changed state to active")


def test_late_replies_change_nothing(lab, link):
    """Each reply comes when its probe has been given up and the next one waits."""
    link.responder.echo = lambda request: [(2.5, request.reply())]
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=300)]))
    link.responder.wait_requests(4)
    assert lb.statuses() == {"wan1": "failed"} and not lab.log.matching("changed state to active")
    assert lb.outbounds()[0]["tests"][0]["successes"] == 0


def test_resp_time_is_the_longest_wait(lab, link):
    """A reply after 1.2 s is in time for 2500 ms; without a reply nothing is sent again until then."""
    link.responder.delay(1.2)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=2500)]))
    lb.wait_status("wan1", "active")
    link.responder.echo = None
    seen = len(link.responder.requests)
    link.responder.wait_pace(2.5, 5, since=seen)
    lb.wait_status("wan1", "failed")


def test_default_wait_is_five_seconds(lab, link):
    link.responder.echo = None
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway)]))
    link.responder.wait_pace(5, 7.5)
    assert lb.outbounds()[0]["tests"][0]["resp_time"] == 5000 & 0xFF
