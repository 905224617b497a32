"""lbctl simulate as a user runs it: on files alone, without a daemon.

What follows from which events is tested in testing/tools/lbctl/simulation_test.cpp; here are the files, the
statuses, the documents, and how fast it is.
"""

import importlib.machinery
import importlib.util
import os
import resource
import xml.etree.ElementTree

import pytest

from lab import daemon, tool
from lab.configtext import build, interface, ping, ping_ext, rule

_BENCH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "bench", "simulate_speed")

CONFIGURATION = build(
    [interface("wan1", [ping("198.51.100.7")], nexthop="192.0.2.1", failure_ct=2, success_ct=1),
     interface("wan2", [ping_ext("198.51.100.8", loss=20, rtt=100, jitter=30)], nexthop="dhcp", success_ct=1),
     interface('"my uplink"', [ping("2001:db8::7")], ipv6=True, nexthop="fe80::1", success_ct=1)],
    [rule("1_ipv4", {"wan1": 2, "wan2": 1}, {"0.0.0.0/0": None, "203.0.113.0/24": 10}, failover=True),
     rule("1_ipv6", {'"my uplink"': 1}, {"::/0": None})])

TRACE = """# two uplinks, then one
0 probe wan1 198.51.100.7 ok
0.5 nexthop wan2 192.0.2.129
1.0 burst wan2 198.51.100.8 0 20 5
2 probe "my uplink/6" 2001:db8::7 ok
10.1 probe wan1 198.51.100.7 fail   # the first of two
11.1 probe wan1 198.51.100.7 fail
20 burst wan2 198.51.100.8 20 20 5
"""

GOLDEN = """\
0.000 interface wan1 ACTIVE
0.000 routes ipv4 default
    route 0.0.0.0/0 via 192.0.2.1 weight 2;
    route 203.0.113.0/24 via 192.0.2.1 weight 2 metric 10;
1.000 interface wan2 ACTIVE
2.000 interface my uplink/6 ACTIVE
2.000 routes ipv6 default
    route ::/0 via fe80::1 weight 1;
12.000 interface wan1 FAILED
12.000 routes ipv4 default
    route 0.0.0.0/0 via 192.0.2.129 weight 1;
    route 203.0.113.0/24 via 192.0.2.129 weight 1 metric 10;
20.000 interface wan2 FAILED
20.000 routes ipv4 default
"""


@pytest.fixture
def files(lab):
    return [lab.write("lb.conf", CONFIGURATION), lab.write("trace.txt", TRACE)]


def test_output(lab, files):
    ended = tool.ctl(lab, "simulate", *files)
    assert (ended.status, ended.stdout, ended.stderr) == (0, GOLDEN, "")


def test_document(lab, files):
    found = tool.document(lab, "simulate", "simulate", *files, "--json")
    assert list(found) == ["schema", "events"]
    assert found["events"][0] == {"time": 0, "kind": "interface", "interface": "wan1", "family": 4, "state": "active"}
    assert found["events"][-1] == {"time": 20, "kind": "routes", "vrf": "default", "family": 4, "routes": []}
    assert {"time": 2, "kind": "interface", "interface": "my uplink", "family": 6, "state": "active"} in found["events"]
    assert len(found["events"]) == GOLDEN.count(".000 ")


def test_until(lab, files):
    assert tool.ctl(lab, "simulate", *files, "--until", "11.5").stdout == GOLDEN.split("12.000")[0]
    assert tool.ctl(lab, "simulate", *files, "--until", "100").stdout == GOLDEN


def test_picture(lab, files):
    ended = tool.ctl(lab, "simulate", *files, "--svg", lab.path("out.svg"), "--until", "24")
    assert ended.status == 0 and ended.stdout == GOLDEN
    picture = xml.etree.ElementTree.parse(lab.path("out.svg")).getroot()
    space = "{http://www.w3.org/2000/svg}"
    texts = [text.text for text in picture.iter(f"{space}text")]
    assert {"wan1", "wan2", "my uplink/6", "routes ipv4 default", "routes ipv6 default"} <= set(texts)
    assert {"50.000 %", "79.167 %", "91.667 %"} <= set(texts), "active for 12, 19 and 22 of 24 seconds"
    titles = [title.text for title in picture.iter(f"{space}title")]
    assert "failed, 12.000 s to 24.000 s" in titles
    assert any(title.startswith("1 of 1 outcomes failed, 10.000 s") for title in titles)
    assert any(title.startswith("route ::/0 via fe80::1 weight 1;, 2.000 s to") for title in titles)
    assert "http" not in lab.read("out.svg").replace("http://www.w3.org/2000/svg", ""), "nothing to be fetched"
    ended = tool.ctl(lab, "simulate", *files, "--svg", lab.path("no/such/out.svg"))
    assert ended.status == 3 and lab.path("no/such/out.svg") in ended.stderr


@pytest.mark.parametrize("line,status,words", [
    ("30 probe wan1 198.51.100.7", 3, "the outcome is missing"),
    ("19 probe wan1 198.51.100.7 ok", 3, "before that of an earlier line"),
    ("30 probe wan3 198.51.100.7 ok", 2, "no IPv4 interface 'wan3'"),
    ("30 probe wan1 198.51.100.8 ok", 2, "no test of the target '198.51.100.8'"),
])
def test_bad_line(lab, files, line, status, words):
    path = lab.write("trace.txt", TRACE + line + "\n")
    ended = tool.ctl(lab, "simulate", *files)
    assert ended.status == status
    assert GOLDEN.startswith(ended.stdout) and "12.000" in ended.stdout, "what was before it is told"
    assert ended.stderr.startswith(f"lbctl: {path}:9: ") and words in ended.stderr and ended.stderr.count("\n") == 1


def test_files_that_cannot_be_read(lab, files):
    for arguments in ([files[0], "/no/trace"], ["/no/conf", files[1]], [files[0], "/etc"], ["/etc", files[1]]):
        ended = tool.ctl(lab, "simulate", *arguments)
        assert ended.status == 3 and ended.stderr.count("\n") == 1
        assert any(argument in ended.stderr for argument in ("/no/trace", "/no/conf", "/etc"))
    assert tool.ctl(lab, "simulate", *files, "--until", "soon").status == 2


def test_standard_input_and_brackets(lab, files):
    lab.write("lb.conf", CONFIGURATION + "}\n")
    ended = lab.run([tool.program(), "simulate", files[0], "-"], stdin_text=TRACE, check=False)
    assert ended.status == 0 and ended.stdout == GOLDEN
    assert "brackets" in ended.stderr and files[0] in ended.stderr


def test_speed(lab):
    """Two million lines in a second, by processor time: other programs' work adds nothing to that."""
    if daemon.has_sanitizer(tool.program()) or daemon.ends_by_itself_on_sigterm(daemon.program()):
        pytest.skip("an instrumented build is slower")
    loader = importlib.machinery.SourceFileLoader("simulate_speed", _BENCH)
    bench = importlib.util.module_from_spec(importlib.util.spec_from_loader("simulate_speed", loader))
    loader.exec_module(bench)
    lines = bench.write_files(lab.path("lb.conf"), lab.path("trace.txt"), 250_000)
    assert lines == 2_000_000
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    changes = bench.simulate(tool.program(), lab.path("lb.conf"), lab.path("trace.txt"))
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    assert changes >= 8, "all uplinks came up"
    assert after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime < 1.0
