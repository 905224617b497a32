"""How soon a silent link is FAILED: what the README's formula promises. With -s the times are printed.

    router wan1 10.1.0.2 -------- f1 far1: responder
"""

import math
import time

import pytest

from lab import configtext, waiting
from lab.configtext import ping

CUTS = 4


def bounds(failure_ct, resp_time, cycle):
    """Least and most seconds from the cut; resp_time in milliseconds, cycle in seconds."""
    judged = math.ceil(resp_time / 1000 / cycle) * cycle
    # The probe before the cut was answered; the last one is judged at the cycle after its time-out.
    return (failure_ct - 1) * (cycle + judged) + resp_time / 1000, failure_ct * (cycle + judged) + cycle


@pytest.mark.parametrize("failure_ct, resp_time", [(1, 900), (2, 1500), (3, 900)])
def test_formula(lab, failure_ct, resp_time):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=resp_time)], failure_ct=failure_ct))
    took = []
    for cut in range(CUTS):
        lb.wait_status("wan1", "active")
        lb.wait_cycles(1)
        time.sleep(cut / CUTS)  # at another place of the cycle each time
        mark = lab.log.mark()
        start = time.monotonic()
        link.responder.silent = True
        took.append(lab.log.wait_for("wan1 changed state to inactive$", since=mark).when - start)
        lb.wait_status("wan1", "failed")
        link.responder.silent = False
    # A cycle is a second and what its steps take, which is a little here.
    least, most = bounds(failure_ct, resp_time, 1.0)
    print(f"\nfailure-ct {failure_ct} resp-time {resp_time}: {min(took):.1f} to {max(took):.1f} s,"
          f" expected at most {bounds(failure_ct, resp_time, 1.05)[1]:.1f} s")
    # A busy machine makes it later, never sooner: one probe too few is found out.
    assert min(took) > least - 0.1
    assert max(took) < waiting.scaled(2 * most)
