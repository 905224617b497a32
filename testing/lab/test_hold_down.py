"""A link that comes and goes changes the routes once.

    router wan1 10.1.0.2 -------- f1 far1: responder
           wan2 10.2.0.2 -------- f2 far2: responder
"""

import pytest

from lab.configtext import build, interface, ping, rule

CHANGE = r"IP interface wan1 changed state to "


def configuration(links, hold_down):
    held = {"hold_down": hold_down} if hold_down else {}
    return build([interface(link.name, [ping(resp_time=200)], success_ct=1, nexthop=link.gateway,
                            **(held if link.name == "wan1" else {})) for link in links],
                 [rule("1_ipv4", {link.name: 1 for link in links}, {"0.0.0.0/0": None})])


@pytest.mark.parametrize("hold_down", [6, 0])
def test_flapping_link(lab, hold_down):
    links = [lab.uplink(number) for number in (1, 2)]
    lb = lab.start_lb(configuration(links, hold_down))
    for link in links:
        lb.wait_status(link.name, "active")
    lab.log.wait_for(CHANGE + "active$")  # it may come a moment after the report that shows it
    mark = lab.log.mark()
    for _ in range(3):
        for silent in (True, False):
            links[0].responder.silent = silent
            wanted = "  -Test" if silent else "  +Test"
            lb.wait_report(lambda text, wanted=wanted: wanted in text.split("Interface:  wan2")[0])
            lb.wait_cycles(1)
    inactive = len(lab.log.matching(CHANGE + "inactive$", mark))
    if hold_down:
        assert inactive == 1
    else:
        assert inactive == 3
    lb.wait_status("wan1", "active")
    lab.log.wait_for(CHANGE + "active$", since=mark, count=inactive)
    changes = lab.log.matching(CHANGE, mark)
    if hold_down:
        assert len(changes) == 2
        assert changes[-1].when - changes[0].when >= hold_down
