"""The README's configuration, and the reference's ones by lbctl.

    203.0.113.1 far1 192.0.2.1    ---- eth0 \\
                                             router: bird, lb
    203.0.113.2 far2 198.51.100.1 ---- eth1 /
"""

import os
import re

import pytest

from lab import pages, waiting
from lab.documented_router import far_end, start_bird, wait_routes
from lab.tool import ctl
from lab.two_isps import carry_out

README, CONFIGURATION = "README.md", "docs/configuration.md"
SAMPLE = "packaging/examples/two-uplinks.conf"


def without_times(text):
    """What differs from one look to the next is put in one form, and with it the width of its column."""
    text = re.sub(r"(\d+ (?:s|min|h|d) ?)+(?=  )", "TIME", text)
    text = re.sub(r"Written \S+, \d+ s ago", "Written", text)
    return re.sub(r" +", " ", text)


def without_comments(text):
    return [line.split("#")[0].strip() for line in text.splitlines()]


def test_lines_of_the_readme_are_those_of_the_sample():
    """Each of its pieces stands there as it is, for eth0, and the other uplink has the same lines."""
    text, others = pages.text_of(SAMPLE), {"eth0": "eth1", "192.0.2.1": "198.51.100.1", "203.0.113.1": "203.0.113.2",
                                           "weight 1": "weight 2"}
    pieces = [piece for _, piece in pages.blocks(README, "conf")]
    assert SAMPLE in pages.links(README)
    assert len(pieces) == 2 and sum(len(piece.splitlines()) for piece in pieces) <= 12
    # Beside the uplinks there are the options, and what the rule routes.
    rest = "\n".join(without_comments(text)) + "\n"
    for piece in pieces:
        assert text.count(piece) == 1, piece
        other = "\n".join(without_comments(piece)) + "\n"
        rest = rest.replace(other, "")
        for word, its in others.items():
            other = other.replace(word, its)
        assert rest.count(other) == 1, other
        rest = rest.replace(other, "")
    assert [line for line in rest.splitlines() if line] == [
        "options {", "routing-daemon bird2", "discovery linux", "replies wire", "keep-last-routes", "}",
        "health {", "}", "rule 1_ipv4 {", "target {", "address 0.0.0.0/0", "}", "}"]


def test_picture_of_the_readme(lab):
    """Its configuration is sound, and with the first uplink dead the status looks as it is shown."""
    far1 = far_end(lab, 1, "eth0", "192.0.2.10", "192.0.2.1", "2001:db8:1::10", ["203.0.113.1"])
    far_end(lab, 2, "eth1", "198.51.100.10", "198.51.100.1", "2001:db8:2::10", ["203.0.113.2"])
    start_bird(lab)
    # The package brings the directory.
    os.makedirs(lab.path("etc/wan_lb"), exist_ok=True)
    carry_out(lab, [("Configure", "sh", pages.block(README, "/etc/wan_lb/lb.conf", "sh"))])
    text = lab.read("etc/wan_lb/lb.conf")
    assert text == pages.text_of(SAMPLE)
    command = "lbctl check /etc/wan_lb/lb.conf"
    assert f"`{command}`" in pages.text_of(README)
    checked = ctl(lab, *command.split()[1:])
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
