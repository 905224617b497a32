"""Dead targets while the receivers have more than they can read: a worker waits for them once in a cycle, not for each.

    router wan01 ... wan16 10.N.0.2 -------- 10.N.0.1 f01 ... f16 far

Receivers that stand still stand for such that a flood keeps busy, which would take all processors of the machine.
"""

import socket

from lab import configtext, daemon, flood, waiting
from lab.configtext import interface, ping, rule
from lab.many_links import ManyLinks, Strand
from lab.stopped_threads import StoppedThreads

INTERFACES, DEAD = 16, 6
# Seconds that a worker waits for its receivers at most: with one such wait for each dead target a cycle took 19 s.
WAIT = 0.2


def test_cycles_stay_short(lab):
    strands = [Strand(number) for number in range(1, INTERFACES + 1)]
    links = ManyLinks(lab, strands)
    lb = lab.start_lb(configtext.build(
        [interface(strand.name, [ping(f"198.51.{strand.number}.{dead}", resp_time=100) for dead in range(1, DEAD + 1)],
                   nexthop=strand.gateway) for strand in strands],
        [rule("1_ipv4", {strand.name: 1 for strand in strands}, {"0.0.0.0/0": None})]))
    lb.wait_report(lambda text: text.count("-Test:") == INTERFACES * DEAD, timeout=60)

    receivers = StoppedThreads(lab, lb, "receivers")
    assert receivers.count >= INTERFACES
    # Its receiver hears it, and now nobody reads it.
    first = strands[0]
    target = flood.Target(first.mac, first.far_mac, first.address, first.gateway4, first.address6, first.gateway6)
    with lab.enclosure.socket(socket.AF_PACKET, socket.SOCK_RAW, 0, links.far, first.far_name) as sender:
        sender.send(flood.echo_reply(target, False, flood.UNUSED_KEYS[0]))
    lb.wait_cycles(1)  # it may have waited in part only
    watch = lab.closing(daemon.CycleWatch(lb))
    waiting.wait_until(lambda: len(watch.stamps) >= 4, "cycles", timeout=90)
    lengths = [after - before for before, after in zip(watch.stamps, watch.stamps[1:])]
    receivers.release()
    # Probes are out in one cycle and given up in the next.
    assert max(lengths) > 1 + WAIT, f"{lengths}: receivers that were waited for"
    assert max(lengths) < INTERFACES * DEAD * WAIT / 2, lengths
    lb.wait_cycles(1)
