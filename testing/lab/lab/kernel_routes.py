"""The kernel's routes, as `ip route` tells them."""

import json
from collections import namedtuple

# One way of a route. `gateway` is None where there is none, `weight` 1 where nothing is said.
Hop = namedtuple("Hop", "gateway device weight")


def routes(lab, family=4, netns=None):
    """All default routes: dictionaries with "protocol", "metric" and so on, and "hops", a list of Hop."""
    text = lab.run(["ip", "-json", f"-{family}", "route", "show", "default"], netns).stdout
    found = []
    for route in json.loads(text or "[]"):
        if route.get("type", "unicast") == "unicast" and "dst" in route:
            ways = route.get("nexthops") or [route]
            found.append({**route, "hops": [Hop(way.get("gateway"), way["dev"], way.get("weight", 1))
                                            for way in ways]})
    return found


def hops_of(lab, protocol, family=4):
    """The ways of all default routes that this program has made ("bird", "dhcp", "ra"): {(gateway, device)}."""
    return {(hop.gateway, hop.device) for route in routes(lab, family) for hop in route["hops"]
            if route.get("protocol", "boot") == protocol}
