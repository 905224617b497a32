"""A fifth of all probes is lost, each by chance, on both uplinks.

    198.51.100.1, .101 to .103 far1 -- 20 % lost -- 10.1.0.2 wan1 \\
                                                                    router: bird + lb
    198.51.100.2               far2 -- 20 % lost -- 10.2.0.2 wan2 /

Three lost in a row come about by chance, too: of 75 probes to one target, one time out of three. So an uplink with one
target has to be taken down then, and only then. With four targets, of which any is enough, that takes twelve, and does
not happen.
"""

from lab import sniffer, waiting
from lab.home_router import HomeRouter

PROBES = 75
FAILURES = 3


def outcomes(capture):
    """{target: [was answered, ...]} of the requests that the far end got, in order."""
    answered = {sniffer.echo_key(frame) for frame in capture.select(sniffer.is_echo_reply)}
    result = {}
    for request in capture.select(sniffer.is_echo_request):
        result.setdefault(sniffer.destination(request), []).append(sniffer.echo_key(request) in answered)
    return result


def runs(answers):
    """How many times so many in a row were lost that their target counts as not reached."""
    found = in_a_row = 0
    for answered in answers:
        in_a_row = 0 if answered else in_a_row + 1
        found += in_a_row == FAILURES
    return found


def test_fifth_of_the_probes_is_lost(lab):
    """As many probes as fall into 150 seconds when a lost one is waited for a second."""
    router = HomeRouter(lab)
    router.give_addresses()
    first, second = router.links
    others = [f"198.51.100.{number}" for number in (101, 102, 103)]
    targets = {first: [first.target, *others], second: [second.target]}
    first.ip(*[f"addr add {other} dev lo" for other in others])
    patience = waiting.milliseconds(500)
    router.start(router.config(lambda link: {"nexthop": link.gateway, "failure_ct": FAILURES}, targets_of=targets.get,
                               patience=patience))
    router.wait_hops("10.1.0.1", "10.2.0.1")
    captures = {link: link.sniff() for link in router.links}
    mark = lab.log.mark()
    for link in router.links:
        link.lose(20)

    waiting.wait_until(lambda: len(captures[first].select(sniffer.is_echo_request)) >= 4 * PROBES, router.state,
                       timeout=5 * PROBES, interval=0.5)
    for link in router.links:
        link.lose_nothing()
    router.lb.wait_cycles(3)
    router.wait_statuses("active", "active")
    router.wait_hops("10.1.0.1", "10.2.0.1")

    seen = {link.name: outcomes(captures[link]) for link in router.links}
    every = [answered for of_link in seen.values() for answers in of_link.values() for answered in answers]
    print(f"{len(every)} probes, {every.count(False)} lost; "
          f"{[runs(answers) for of_link in seen.values() for answers in of_link.values()]} times three in a row")
    assert 0.1 < every.count(False) / len(every) < 0.3
    assert set(map(len, (seen["wan1"], seen["wan2"]))) == {4, 1}
    downs = {link.name: len(lab.log.matching(f"interface {link.name} changed state to inactive$", mark))
             for link in router.links}
    assert downs == {"wan1": 0, "wan2": runs(seen["wan2"][second.target])}, seen
