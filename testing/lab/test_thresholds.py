"""How many results settle a target, and how many targets settle an interface.

    router wan1 10.1.0.2 -------- f1 far1: responder that answers by a script
    router wan2 10.2.0.2 -------- f2 far2: responder
"""

import pytest

from lab import configtext, waiting
from lab.configtext import ping


@pytest.fixture
def link(lab):
    return lab.uplink(1)


def follow(link, script, then):
    """Answers request n as `script[n]` says ("S" or "F"), and all later ones as `then` says."""
    link.responder.echo = lambda request: request.reply() if (
        script[request.number] if request.number < len(script) else then) == "S" else None


def start(lab, link, **settings):
    return lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)], **settings))


def test_two_successes_are_not_three(lab, link):
    """success-ct 3, failure-ct 1: S S F S S F keeps the interface failed; only the third in a row counts."""
    follow(link, "SSFSSF", then="S")
    start(lab, link, success_ct=3, failure_ct=1)
    record = lab.log.wait_for("changed state to active")
    before = [request for request in link.responder.requests if request.when < record.when]
    assert len(before) == 9
    assert lab.log.matching("changed state to inactive") == lab.log.matching("inactive")[:1]


def test_defaults_are_three_and_one(lab, link):
    follow(link, "SSSF", then="S")
    config = configtext.single(link, [ping(link.gateway, resp_time=900)]).replace("success-ct 1", "")
    assert "success-ct" not in config
    lab.start_lb(config)
    active = lab.log.wait_for("changed state to active")
    assert len([request for request in link.responder.requests if request.when < active.when]) == 3
    inactive = lab.log.wait_for("changed state to inactive", count=2)
    assert len([request for request in link.responder.requests if request.when < inactive.when]) == 4


def test_failures_must_be_consecutive(lab, link):
    """failure-ct 2: S F S F F; the single failures leave the interface active, the pair does not."""
    follow(link, "SFSFF", then="S")
    lb = start(lab, link, success_ct=1, failure_ct=2)
    lb.wait_status("wan1", "active")
    inactive = lab.log.wait_for("changed state to inactive", count=2)
    assert len([request for request in link.responder.requests if request.when < inactive.when]) == 5
    lab.log.wait_for("changed state to active", count=2)


def test_check_all_against_any(lab, link):
    """Both interfaces have a target that answers and one that does not; one of them wants both."""
    other = lab.uplink(2)
    dead = {"198.51.100.2"}
    for responder in (link.responder, other.responder):
        responder.echo = lambda request: None if request.target in dead else request.reply()
    tests = [ping("198.51.100.1", resp_time=900), ping("198.51.100.2", resp_time=900)]
    lb = lab.start_lb(configtext.build(
        [configtext.interface("wan1", tests, success_ct=1, nexthop=link.gateway),
         configtext.interface("wan2", tests, success_ct=1, nexthop=other.gateway, check_all=True)],
        [configtext.rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")
    other.responder.wait_requests(6)
    assert lb.statuses() == {"wan1": "active", "wan2": "failed"}
    report = lb.wait_report(lambda text: text.count("  +Test:") == 2 and text.count("  -Test:") == 2)
    assert report.count("  +Test:  ping\tTarget: 198.51.100.1\n") == 2
    # Targets in ascending order, before the line of the change.
    texts = [record.text for record in lab.log.matching("interface wan1")]
    assert texts[1:] == [
        "%WAN-I-INSTANCE: IP interface wan1 last check target 198.51.100.1 success",
        "%WAN-I-INSTANCE: IP interface wan1 last check target 198.51.100.2 failure",
        "%WAN-I-INSTANCE: IP interface wan1 changed state to active"]
    dead.clear()
    # Also of the last probe that the other interface sent before that.
    lb.wait_report(lambda text: text.count("  +Test:") == 4)
    assert lb.statuses() == {"wan1": "active", "wan2": "active"}
    dead.add("198.51.100.1")
    lb.wait_status("wan2", "failed")
    assert lb.statuses()["wan1"] == "active"


def test_counters_in_the_dump_stop_at_their_thresholds(lab, link):
    lb = start(lab, link, success_ct=2, failure_ct=3)
    lb.wait_status("wan1", "active")
    link.responder.wait_requests(4)
    entry = waiting.wait_until(
        lambda: (found := lb.outbounds()[0])["tests"][0]["successes"] == 2 and found)
    assert (entry["success_ct"], entry["failure_ct"], entry["tests"][0]["failures"]) == (2, 3, 0)
    link.cut()
    lb.wait_status("wan1", "failed")
    test = lb.outbounds()[0]["tests"][0]
    assert (test["successes"], test["failures"], test["result"]) == (0, 3, 2)
