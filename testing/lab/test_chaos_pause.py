"""The whole daemon stops for a while, as on a suspended guest or a starved router.

    router wanN 10.N.0.2 / fd00:N::2 ---- farN 10.N.0.1 / fd00:N::1: responder, slow
"""

import signal
import time

from lab import configtext, stalls, waiting
from lab.configtext import interface, ping, rule
from lab.growth import Growth

STATE = "changed state to"


def test_replies_that_come_meanwhile(lab):
    """Their time is over when the threads go on, in any order, but they are there: no link is blamed.

    The daemon waits a fifth of a second for its receivers. Where the machine lets threads wait for half of that, what
    comes out is not judged.
    """
    links = [lab.uplink(number, ipv6=True) for number in range(1, 9)]
    family = {link: 4 if link.number % 2 else 6 for link in links}
    gateway = {link: link.gateway if family[link] == 4 else link.gateway6 for link in links}
    lb = lab.start_lb(configtext.build(
        [interface(link.name, [ping(gateway[link], resp_time=900)], ipv6=family[link] == 6, success_ct=1,
                   nexthop=gateway[link]) for link in links],
        [rule(f"1_ipv{version}", {link.name: 1 for link in links if family[link] == version}, {prefix: None})
         for version, prefix in ((4, "0.0.0.0/0"), (6, "::/0"))]))
    for link in links:
        lb.wait_status(link.name, "active", family=family[link])
    growth = Growth(lab, lb)
    for link in links:
        link.responder.delay(0.3)
    for _ in range(5):
        mark = lab.log.mark()
        with stalls.Watcher(stall=0.1) as late:
            seen = [len(link.responder.requests) for link in links]
            for link, since in zip(links, seen):
                link.responder.wait_requests(1, since=since)
            lb.process.signal(signal.SIGSTOP)
            # Long enough for every reply to come and for every time to be over.
            time.sleep(waiting.scaled(1.3))
            lb.process.signal(signal.SIGCONT)
            for version in (4, 6):
                lb.wait_cycles(2, family=version)
        assert late.noted or not lab.log.matching(STATE, mark)
    for link in links:
        lb.wait_status(link.name, "active", family=family[link])
    mark = lab.log.mark()
    # A link that is really down is noticed all the same.
    links[0].cut()
    lab.log.wait_for(f"interface {links[0].name} {STATE} inactive", since=mark)
    assert len(lab.log.matching(STATE, mark)) == 1
    growth.check()
