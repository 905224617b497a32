"""The README's and the reference's examples as they stand.

    198.51.100.7 2001:db8::7 far1 192.0.2.1   fe80::1 ---- eth0 (wan1) \\
                                                                         router: bird, lb
    198.51.100.8 2001:db8::8 far2 203.0.113.1 fe80::1 ---- eth1 (wan2) /
"""

import os
import re

import pytest

from lab import pages
from lab.bird import README_CONFIG
from lab.documented_router import far_end, start_bird, wait_routes

README, CONFIGURATION, RUNNING = "README.md", "docs/configuration.md", "docs/running.md"
# These need nothing but the repository's own pages, which are all there in a copy for another user, too.
GUIDES = sorted(f"docs/guides/{name}" for name in os.listdir(os.path.join(pages.REPOSITORY, "docs/guides")))
LINKING = [README, "docs/README.md", CONFIGURATION, RUNNING, "docs/build.md", "docs/probing.md", *GUIDES]


def test_two_providers_as_the_reference_has_them(lab):
    far1 = far_end(lab, 1, "eth0", "192.0.2.10", "192.0.2.1", "2001:db8:1::10", ["198.51.100.7", "2001:db8::7"])
    far_end(lab, 2, "eth1", "203.0.113.10", "203.0.113.1", "2001:db8:2::10", ["198.51.100.8", "2001:db8::8"])
    # What the client and the router advertisements leave.
    lab.ip("route add default via 203.0.113.1 dev eth1 proto dhcp metric 1024")
    lab.ip("-6 route add default via fe80::1 dev eth1 proto ra metric 1024")
    assert "    bird -c /etc/bird/bird.conf -P /var/run/routing.pid\n" in pages.text_of(RUNNING)
    start_bird(lab)
    lab.start_lb(pages.block(CONFIGURATION, "routing-daemon bird2", "conf"))

    both = {("192.0.2.1", "eth0"), ("203.0.113.1", "eth1")}
    wait_routes(lab, 4, both)
    wait_routes(lab, 6, {("fe80::1", "eth0")})

    lab.cut(far1)
    wait_routes(lab, 4, {("203.0.113.1", "eth1")})
    wait_routes(lab, 6, {("fe80::1", "eth1")})

    lab.restore(far1)
    wait_routes(lab, 4, both)
    wait_routes(lab, 6, {("fe80::1", "eth0")})


def test_readme_is_short_and_installs_what_the_guide_does():
    assert len(pages.text_of(README).splitlines()) < 120
    install = pages.block(README, "apt install", "sh")
    assert install in [text for _, text in pages.blocks("docs/guides/two-isps.md", "sh")]
    alone = re.search(r"the daemon alone, with `([^`]*)`", pages.text_of(README))[1].split()
    reference = re.search(r"the daemon alone [^`]*`[^`]*` \| `([^`]*)`", pages.text_of("docs/build.md"))[1].split()
    assert alone == reference
    bootstrap = pages.text_of("scripts/bootstrap").split()
    assert set(alone) <= set(bootstrap)


@pytest.mark.parametrize("page", LINKING)
def test_links_lead_somewhere(page):
    in_copies = ("README.md", "docs/", "scripts/", "testing/lab", "tools/completion")
    targets = {target for target in pages.links(page) if target.startswith(in_copies)}
    assert targets
    assert not [target for target in targets if not pages.exists(target)]


def test_every_guide_is_in_the_index():
    assert set(GUIDES) <= pages.links("docs/README.md")


def statements(text):
    """Lines without comments, and without what differs from one router to the next."""
    lines = [line.split("#")[0].strip() for line in text.splitlines()]
    return [line for line in lines if line and not line.startswith(("log ", "router id "))]


def test_home_routers_of_the_lab_have_the_references_lines():
    assert statements(README_CONFIG.replace("{{", "{").replace("}}", "}")) == \
        statements(pages.block(RUNNING, "protocol kernel", "conf"))


# Started on it the daemon says nothing but what it lacks: the examples' names are no devices here.
@pytest.mark.parametrize("word", ["routing-daemon bird2", "type ping_ext"])
def test_every_line_of_the_examples_is_understood(lab, word):
    text = pages.block(CONFIGURATION, word, "conf")
    lb = lab.start_lb(None, argv=["-t", "-f", lab.write("lb.conf", text)])
    assert lb.expect_end() == 0
    assert not lab.log.matching(".")
