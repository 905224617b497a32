"""The README and the reference's configurations by lbctl.

    203.0.113.1 far1 192.0.2.1    ---- eth0 \\
                                             router: bird, lb
    203.0.113.2 far2 198.51.100.1 ---- eth1 /
"""

import re

import pytest

from lab import pages, waiting
from lab.documented_router import far_end, start_bird, wait_routes
from lab.tool import ctl

README, CONFIGURATION = "README.md", "docs/configuration.md"


def without_times(text):
    """What differs from one look to the next is put in one form, and with it the width of its column."""
    text = re.sub(r"(\d+ (?:s|min|h|d) ?)+(?=  )", "TIME", text)
    text = re.sub(r"Written \S+, \d+ s ago", "Written", text)
    return re.sub(r" +", " ", text)


def test_picture_of_the_readme(lab):
    """Its configuration is sound, and with the first uplink dead the status looks as it is shown."""
    far1 = far_end(lab, 1, "eth0", "192.0.2.10", "192.0.2.1", "2001:db8:1::10", ["203.0.113.1"])
    far_end(lab, 2, "eth1", "198.51.100.10", "198.51.100.1", "2001:db8:2::10", ["203.0.113.2"])
    start_bird(lab)
    text = pages.block(README, "options", "conf")
    checked = ctl(lab, "check", lab.write("lb.conf", text))
    assert (checked.status, checked.stdout) == (0, ""), checked.stdout
    # The default time for an answer is long.
    lb = lab.start_lb(text.replace("type ping\n", "type ping\n            resp-time 500\n"))
    wait_routes(lab, 4, {("192.0.2.1", "eth0"), ("198.51.100.1", "eth1")})
    lab.cut(far1)
    wait_routes(lab, 4, {("198.51.100.1", "eth1")})
    picture = pages.block(README, "$ lbctl status").replace("$ lbctl status -4\n", "")
    last = [""]

    def as_shown():
        last[0] = ctl(lab, "status", "-4", "-o", lb.out).stdout
        return without_times(last[0]) == without_times(picture)

    waiting.wait_until(as_shown, lambda: f"{picture}\nis shown, but it is\n{last[0]}", interval=0.2)


# Without bird2 BIRD refuses a metric, which the page says.
@pytest.mark.parametrize("word, codes", [("routing-daemon bird2", []), ("type ping_ext", ["metric"])])
def test_nothing_is_wrong_with_the_examples(lab, word, codes):
    path = lab.write("lb.conf", pages.block(CONFIGURATION, word, "conf"))
    found = ctl(lab, "check", "--offline", path).stdout
    assert re.findall(r"\[([\w-]+)\]$", found, re.MULTILINE) == codes, found


def test_sample_of_the_package_is_the_references_example():
    def statements(text):
        return [line.split("#")[0].split() for line in text.splitlines() if line.split("#")[0].strip()]

    assert statements(pages.text_of("packaging/examples/two-providers.conf")) == \
        statements(pages.block(CONFIGURATION, "routing-daemon bird2", "conf"))
