"""Two answered uplinks in one rule, the stand-in for the routing daemon and ours, all of it watched.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder      /usr/etc/routing-wlb.conf
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder

`change` makes the routes change: the second link is cut, or comes back.
"""

from . import configtext, waiting
from .growth import Growth
from .route_watch import RouteWatch

# Ahead of the daemon: root without the right to read, write and enter whatever is closed to its owner.
PLAIN_OWNER = ("setpriv", "--bounding-set", "-dac_override,-dac_read_search")

STATE = "changed state to"


class WeightedPair:
    def __init__(self, lab, route_file="usr_etc/routing-wlb.conf", vrf=None, watched=True, nexthop=None, sections=(),
                 rules=(), links=None, prefixes=("0.0.0.0/0",), **options):
        """nexthop: "dhcp" instead of the addresses. sections, rules: more for the configuration. prefixes: the
        rule's targets, in order."""
        self.lab, self.route_file, self.prefixes = lab, route_file, prefixes
        self.links = links or [lab.uplink(number, vrf=vrf) for number in (1, 2)]
        more = {"namespace": vrf} if vrf else {}
        patience = waiting.milliseconds(900)
        health = [configtext.interface(link.name, [configtext.ping(link.gateway, resp_time=patience)], success_ct=1,
                                       nexthop=nexthop or link.gateway, **more) for link in self.links]
        config = configtext.build([*health, *sections], [
            configtext.rule("1_ipv4", {link.name: link.number for link in self.links}, dict.fromkeys(prefixes),
                            namespace=vrf), *rules])
        self.watch = None
        if watched:
            self.watch_from_now()
        self.second_is_cut = False
        self.lb = lab.start_lb(config, **options)

    def text(self, active):
        """The route file while those interfaces are active."""
        vias = [(link.gateway, link.number) for link in self.links if link.name in active]
        return configtext.route_file(*[configtext.route_line(prefix, vias) for prefix in self.prefixes])

    def watch_from_now(self):
        """Forgets what the route file was before, for a scenario in which it could not be right."""
        self.watch = RouteWatch(self.lab, self.route_file, self.text)

    def current_text(self):
        return self.text({link.name for link in (self.links[:1] if self.second_is_cut else self.links)})

    def wait_settled(self):
        """Waits until both links are up and the route file says so; from now on nothing may grow."""
        for link in self.links:
            self.lb.wait_status(link.name, "active")
        self.wait_routes()
        self.growth = Growth(self.lab, self.lb)

    def wait_routes(self, timeout=waiting.PATIENCE):
        self.lab.wait_text(self.route_file, self.current_text(), timeout)

    def change(self, wait=True):
        """The second link changes its state, and the route file follows unless that is not waited for."""
        mark = self.lab.log.mark()
        self.second_is_cut = not self.second_is_cut
        (self.links[1].cut if self.second_is_cut else self.links[1].restore)()
        state = "inactive" if self.second_is_cut else "active"
        self.lab.log.wait_for(f"interface {self.links[1].name} {STATE} {state}$", since=mark)
        if wait:
            self.wait_routes()

    def requests(self):
        return sum(len(link.responder.requests) for link in self.links)

    def check(self):
        """At the end: nothing has grown, and the route file was right all the time."""
        self.growth.check()
        if self.watch:
            waiting.wait_until(lambda: self.watch.contents)
            self.watch.verify()
