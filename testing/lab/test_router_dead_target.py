"""What is behind the gateway is dead, the gateway lives: the provider's own line is cut.

    198.51.100.1 -X- far1, gateway 10.1.0.1 ---- 10.1.0.2 wan1 \\
                                                                 router: bird + lb
    198.51.100.2 --- far2, gateway 10.2.0.1 ---- 10.2.0.2 wan2 /
"""

import pytest

from lab.home_router import ON_AND_OFF, HomeRouter


@pytest.mark.parametrize(**ON_AND_OFF)
@pytest.mark.parametrize("unreachable", [True, False], ids=["refused", "silent"])
def test_target_dies_and_comes_back(lab, stock, unreachable):
    """The gateway says that it knows no way, or says nothing."""
    router = HomeRouter(lab)
    router.give_addresses()
    router.start(router.config(lambda link: {"nexthop": link.gateway}, stock))
    router.wait_hops("10.1.0.1", "10.2.0.1")
    link = router.links[0]
    link.ip(f"addr del {link.target}/32 dev lo")
    if not unreachable:
        link.ip(f"route add blackhole {link.target}/32")
    router.wait_hops(None, "10.2.0.1")
    link.ip(f"addr add {link.target}/32 dev lo")
    if not unreachable:
        link.ip(f"route del blackhole {link.target}/32")
    router.wait_hops("10.1.0.1", "10.2.0.1")
