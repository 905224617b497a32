"""A thousand answers to one request: it is answered once.

    router wanN 10.N.0.2 / fd00:N::2 ---- responder 10.N.0.1 / fd00:N::1
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule
from lab.growth import Growth
from lab.many_links import flapped, over, state_changes
from lab.route_watch import RouteWatch

ANSWERS = 1000
# All at once they need longer receive queues. Root may make them; inside a user namespace the system has a say.
with open("/proc/sys/net/core/rmem_max", encoding="ascii") as limit:
    PAUSE = 0 if int(limit.read()) >= 2 << 20 else 0.001


def other_answers(request):
    """Replies of which each differs from the right one in its key, its sequence or both."""
    answers = []
    for number in range(1, ANSWERS):
        key = request.key if number % 3 == 0 else 0x4000 + number
        sequence = request.sequence if number % 3 == 1 else (request.sequence + number) & 0xFFFF
        payload = key.to_bytes(4, "big") + request.payload[4:]
        answers.append((number * PAUSE, request.reply(payload=payload, sequence=sequence)))
    return answers


ANSWERED = 4
POLICIES = {
    "identical": lambda request: [(number * PAUSE, request.reply()) for number in range(ANSWERS)],
    "different": lambda request: other_answers(request) + [(ANSWERS * PAUSE, request.reply())],
}


class Answers:
    """Of a far end: one answer; once `policy` is set as many as it gives, and none from the `last` of these on."""

    def __init__(self, last=None):
        self.policy, self.last = None, last
        self.keys = set()  # of all requests
        self.flooded = set()  # of those that the policy was for

    def __call__(self, request):
        self.keys.add(request.key)
        if not self.policy:
            return request.reply()
        self.flooded.add(request.key)
        return None if self.last and len(self.flooded) >= self.last else self.policy(request)


@pytest.mark.parametrize("policy", POLICIES.values(), ids=POLICIES)
def test_a_thousand_answers_are_one_result(lab, policy):
    """Of each kind four probes are answered, a thousand times each; the next waits, and does not count yet."""
    frame, raw, ipv6 = lab.uplink(1), lab.uplink(2, arp=False), lab.uplink(3, ipv6=True)
    endless = {"resp_time": 60000}
    tests = {frame: ping(frame.gateway, **endless), raw: ping(raw.gateway, **endless),
             ipv6: ping(ipv6.gateway6, **endless)}
    for link in tests:
        link.responder.echo = Answers(ANSWERED + 1)
    lb = start_counting(lab, tests)
    for link in tests:
        waiting.wait_until(lambda one=link: one.responder.echo.keys, f"a probe by {link.name}",
                           timeout=120)  # where the gateway's answer is late, the first one stays here for a minute
    growth = Growth(lab, lb)
    for link in tests:
        link.responder.echo.policy = policy
    for link in tests:
        waiting.wait_until(lambda one=link: len(one.responder.echo.flooded) == ANSWERED + 1,
                           lambda: {one.name: len(one.responder.echo.flooded) for one in tests}, timeout=120)
    for family in (4, 6):
        lb.wait_cycles(2, family=family)
    for link in tests:
        assert successes(lb, link, link is ipv6) == len(link.responder.echo.keys) - 1
        assert len(link.responder.echo.flooded) == ANSWERED + 1
    growth.check()


@pytest.mark.parametrize("policy", POLICIES.values(), ids=POLICIES)
@pytest.mark.parametrize("arp", [True, False], ids=["frame", "raw"])
def test_a_thousand_answers_are_one_burst(lab, policy, arp):
    """Each request of every burst is answered a thousand times; a burst is one success, as fast as its first answer."""
    link = lab.uplink(1, arp=arp)
    echo = link.responder.echo = Answers()
    lb = start_counting(lab, {link: ping_ext(link.gateway, count=2, period=1, timeout=5000, rtt=4000, jitter=4000)})
    waiting.wait_until(lambda: echo.keys, "a burst")
    growth = Growth(lab, lb)
    echo.policy = policy
    waiting.wait_until(lambda: len(echo.flooded) >= ANSWERED, timeout=120)
    before = len(echo.keys)
    counted = successes(lb, link, False)
    assert before - 1 <= counted <= len(echo.keys), (lb.report(), [r.__dict__ for r in link.responder.requests])
    assert len(link.responder.requests) <= 2 * len(echo.keys)
    assert lb.outbounds()[0]["tests"][0]["measurement"][1] == 0, "nothing was lost"
    growth.check()


def test_a_thousand_answers_leave_the_routes_alone(lab):
    """Now identical ones, now different ones, for links that a single lost probe would take out of the routes."""
    frame, raw, ipv6 = lab.uplink(1), lab.uplink(2, arp=False), lab.uplink(3, ipv6=True)
    tests = {frame: ping(frame.gateway, resp_time=15000), raw: ping(raw.gateway, resp_time=15000),
             ipv6: ping(ipv6.gateway6, resp_time=15000)}
    routes = [RouteWatch(lab, "usr_etc/routing-wlb.conf", over({link.name: link.gateway for link in (frame, raw)}, 4)),
              RouteWatch(lab, "usr_etc/routing-wlb6.conf", over({ipv6.name: ipv6.gateway6}, 6), 6)]
    for link in tests:
        link.responder.echo = Answers()
    lb = start_counting(lab, tests, needed=1)
    for link in tests:
        lb.wait_status(link.name, "active", family=6 if link is ipv6 else 4)
    growth = Growth(lab, lb)
    for link in tests:
        link.responder.echo.policy = lambda request: list(POLICIES.values())[request.number % 2](request)
    for link in tests:
        waiting.wait_until(lambda one=link: len(one.responder.echo.flooded) > ANSWERED,
                           lambda: {one.name: one.responder.echo.flooded for one in tests}, timeout=120)
    for link in tests:
        link.responder.echo.policy = None
    for family in (4, 6):
        lb.wait_cycles(2, family=family)
    for link in tests:
        family = 6 if link is ipv6 else 4
        assert lb.statuses(family)[link.name] == "active"
        assert state_changes(lab, link.name, link is ipv6) == flapped(0)
    growth.check()
    for watch in routes:
        watch.verify()


def start_counting(lab, tests, needed=1000):
    """A daemon that counts results until so many have settled a link: as a rule no test comes that far."""
    blocks, members = [], {}
    for link, lines in tests.items():
        ipv6 = link.number == 3
        blocks.append(interface(link.name, [lines], ipv6=ipv6, success_ct=needed, failure_ct=needed,
                                nexthop=link.gateway6 if ipv6 else link.gateway))
        members.setdefault(6 if ipv6 else 4, {})[link.name] = 1
    return lab.start_lb(configtext.build(blocks, [
        rule(f"1_ipv{family}", names, {"::/0" if family == 6 else "0.0.0.0/0": None})
        for family, names in members.items()]))


def successes(lb, link, ipv6):
    return [record["tests"][0]["successes"] for record in lb.outbounds(6 if ipv6 else 4)
            if record["name"] == link.name][0]
