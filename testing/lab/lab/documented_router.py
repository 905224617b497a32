"""A router as the project's pages have it: providers behind veth links, and bird with the reference's lines."""

import re

from . import pages, waiting
from .bird import Bird

RUNNING = "docs/running.md"


def far_end(lab, number, device, near, gateway, near6, targets):
    """A provider: a gateway with fe80::1, and targets behind it."""
    far = lab.add_netns(f"far{number}")
    lab.ip(f"link add {device} type veth peer name f{number} netns {far}")
    lab.ip(f"link set {device} up", f"addr add {near}/24 dev {device}", f"addr add {near6}/64 dev {device} nodad")
    lab.ip(f"link set f{number} up", f"addr add {gateway}/24 dev f{number}", f"addr add fe80::1/64 dev f{number} nodad",
           f"addr add {near6.replace('::10', '::1')}/64 dev f{number} nodad",
           *[f"addr add {target} dev lo" for target in targets], netns=far)
    return far


def start_bird(lab):
    for name in ("routing-wlb.conf", "routing-wlb6.conf"):
        lab.write(f"usr_etc/{name}", "")
    Bird(lab, pages.block(RUNNING, "protocol kernel", "conf"))


def default_routes(lab, family):
    """{(next hop, device)} of the kernel's default route that the routing daemon has put there."""
    text = lab.ip_text(f"-{family} route show default proto bird")
    return set(re.findall(r"via (\S+)\s+dev (\S+)", text))


def wait_routes(lab, family, expected):
    waiting.wait_until(lambda: default_routes(lab, family) == expected,
                       lambda: f"{expected}, but it is {lab.ip_text(f'-{family} route')}\nlog:\n{lab.log.text()}")
