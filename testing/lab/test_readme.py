"""The README's and the reference's examples as they stand.

    198.51.100.7 2001:db8::7 far1 192.0.2.1   fe80::1 ---- eth0 (wan1) \\
                                                                         router: bird, lb
    198.51.100.8 2001:db8::8 far2 203.0.113.1 fe80::1 ---- eth1 (wan2) /

For the README, whose interfaces have their Linux names:

    203.0.113.1 far1 192.0.2.1    ---- eth0 \\
                                             router: bird, lb
    203.0.113.2 far2 198.51.100.1 ---- eth1 /
"""

import re

import pytest

from lab import pages, waiting
from lab.bird import README_CONFIG, Bird
from lab.tool import ctl

README, CONFIGURATION, RUNNING = "README.md", "docs/configuration.md", "docs/running.md"
# These need nothing but the repository's own pages, which are all there in a copy for another user, too.
LINKING = [README, "docs/README.md", CONFIGURATION, RUNNING, "docs/build.md", "docs/probing.md"]


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


def cut(lab, far):
    lab.nft("table inet cut {\nchain receive {\ntype filter hook prerouting priority -300;\ndrop\n}\n}", netns=far)


def default_routes(lab, family):
    """{(next hop, device)} of the kernel's default route that the routing daemon has put there."""
    text = lab.ip_text(f"-{family} route show default proto bird")
    return set(re.findall(r"via (\S+)\s+dev (\S+)", text))


def wait_routes(lab, family, expected):
    waiting.wait_until(lambda: default_routes(lab, family) == expected,
                       lambda: f"{expected}, but it is {lab.ip_text(f'-{family} route')}\nlog:\n{lab.log.text()}")


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

    cut(lab, far1)
    wait_routes(lab, 4, {("203.0.113.1", "eth1")})
    wait_routes(lab, 6, {("fe80::1", "eth1")})

    lab.run(["nft", "delete", "table", "inet", "cut"], netns=far1)
    wait_routes(lab, 4, both)
    wait_routes(lab, 6, {("fe80::1", "eth0")})


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
    cut(lab, far1)
    wait_routes(lab, 4, {("198.51.100.1", "eth1")})
    picture = pages.block(README, "$ lbctl status").replace("$ lbctl status -4\n", "")
    last = [""]

    def as_shown():
        last[0] = ctl(lab, "status", "-4", "-o", lb.out).stdout
        return without_times(last[0]) == without_times(picture)

    waiting.wait_until(as_shown, lambda: f"{picture}\nis shown, but it is\n{last[0]}", interval=0.2)


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
    path = lab.write("lb.conf", text)
    lb = lab.start_lb(None, argv=["-t", "-f", path])
    assert lb.expect_end() == 0
    assert not lab.log.matching(".")
    found = ctl(lab, "check", "--offline", path).stdout
    # Without the option BIRD refuses a metric, which the page says.
    assert [line.rsplit("[")[-1] for line in found.splitlines() if not line.startswith(" ")] == \
        (["metric]"] if word == "type ping_ext" else []), found
