"""A client of the LAN opens connections all the time, while one provider falls silent and comes back.

    203.0.113.80 at far1, gateway 10.1.0.1 ---- 10.1.0.2 wan1 \\
                                                               router: masquerading, bird + lb ---- LAN client
    203.0.113.80 at far2, gateway 10.2.0.1 ---- 10.2.0.2 wan2 /
"""

import pytest

from lab.home_router import ON_AND_OFF, HomeRouter
from lab.lan import Lan


@pytest.mark.parametrize(**ON_AND_OFF)
def test_connections_through_a_switch(lab, stock):
    """Only until the switch some are lost. With such addresses it was so before the options, too.

    Netfilter ends a masqueraded connection whose way out changes, so each switch may cost the call that is under way.
    """
    router = HomeRouter(lab)
    router.give_addresses()
    lan = Lan(lab, router.links)
    router.start(router.config(lambda link: {"nexthop": link.gateway}, stock))
    router.wait_hops("10.1.0.1", "10.2.0.1")
    lan.start_calling()
    served = lan.wait_calls(200)
    assert set(served) == {"far1", "far2"} and min(served.values()) > 40, served

    router.links[0].cut()
    router.wait_hops(None, "10.2.0.1")
    after = len(lan.calls()) + 1
    served = lan.wait_calls(200, since=after)
    assert set(served) == {"far2"}, served

    router.links[0].restore()
    before = len(lan.calls())
    router.wait_hops("10.1.0.1", "10.2.0.1")
    served = lan.wait_calls(200, since=len(lan.calls()) + 1)
    assert set(served) == {"far1", "far2"}, served
    assert lan.calls()[before:].count("lost") <= 1
