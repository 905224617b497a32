"""What the kernel does with replies before a program sees them: reverse-path filter and firewall.

    198.51.100.1 far1, gateway 10.1.0.1 ---- 10.1.0.2 wan1 \\
                                                             router: bird + lb
    198.51.100.2 far2, gateway 10.2.0.1 ---- 10.2.0.2 wan2 /

The router has no default route until bird makes one.
"""

import pytest

from lab.home_router import ON_AND_OFF, HomeRouter
from lab.reach import reached

STRICT = """table inet filter {
chain input {
type filter hook input priority filter; policy drop;
iifname lo accept
ct state invalid drop
ct state established,related accept
icmpv6 type { nd-neighbor-solicit, nd-neighbor-advert, nd-router-advert } accept
}
}"""

# Those who want none of it: no echo reply comes in, whoever asked for it.
NO_PINGS = "table inet no_pings {\nchain input {\ntype filter hook input priority filter;\n" \
           "icmp type echo-reply drop\n}\n}"


def ready(lab):
    router = HomeRouter(lab)
    router.give_addresses()
    return router


def own_gateways(link):
    return {"nexthop": link.gateway}


def check_silence_and_return(router):
    """Both uplinks are silent until both have failed, and come back."""
    for link in router.links:
        link.cut()
    router.wait_statuses("failed", "failed")
    router.lb.wait_cycles(3)
    # What was last in force is kept: both ways, or that of the link which failed a cycle later.
    assert router.hops() and router.hops() <= {("10.1.0.1", "wan1"), ("10.2.0.1", "wan2")}
    for link in router.links:
        link.restore()
    router.wait_statuses("active", "active")
    router.wait_hops("10.1.0.1", "10.2.0.1")


def check_all_fail(router):
    router.lb.wait_report(lambda text: text.count("  -Test:") == 2)
    router.lb.wait_cycles(4)
    assert set(router.lb.statuses().values()) == {"failed"} and router.hops() == set()


@pytest.mark.parametrize("rp_filter", [0, 1, 2])
@pytest.mark.parametrize(**ON_AND_OFF)
def test_reverse_path_filter(lab, rp_filter, stock):
    """Without a route to the target the kernel drops its replies; without the options, that is for ever."""
    router = ready(lab)
    lab.sysctl(*[f"net.ipv4.conf.{link.name}.rp_filter={rp_filter}" for link in router.links])
    router.start(router.config(own_gateways, stock))
    if rp_filter and not stock:
        check_all_fail(router)
        return
    router.wait_statuses("active", "active")
    router.wait_hops("10.1.0.1", "10.2.0.1")
    if stock:
        check_silence_and_return(router)


@pytest.mark.parametrize(**ON_AND_OFF)
def test_strict_firewall(lab, stock):
    """It lets in what the connection tracker knows: our records see to that with the options and without."""
    router = ready(lab)
    assert reached(lab, router.links[0].address, netns="far1")
    lab.nft(STRICT)
    assert not reached(lab, router.links[0].address, netns="far1")
    router.start(router.config(own_gateways, stock))
    router.wait_statuses("active", "active")
    router.wait_hops("10.1.0.1", "10.2.0.1")
    router.links[0].cut()
    router.wait_hops(None, "10.2.0.1")
    router.links[0].restore()
    router.wait_hops("10.1.0.1", "10.2.0.1")


@pytest.mark.parametrize(**ON_AND_OFF)
def test_firewall_without_exceptions(lab, stock):
    router = ready(lab)
    lab.nft(NO_PINGS)
    router.start(router.config(own_gateways, stock))
    if not stock:
        check_all_fail(router)
        return
    router.wait_statuses("active", "active")
    check_silence_and_return(router)
    assert not reached(lab, router.links[0].gateway)
