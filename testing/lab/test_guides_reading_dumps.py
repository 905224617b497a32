"""The guide for reading the dumps: its commands, on files that a running daemon writes.

    router wan1 10.1.0.2 / fd00:1::2 -------- far1: 10.1.0.1, fd00:1::1, 198.51.100.1 behind it
"""

import json
import os
import re
import shutil
import subprocess
import sys

import pytest

from lab import dumps, file_events, pages, waiting
from lab.configtext import build, interface, ping, ping_ext, rule
from lab.tool import ctl

GUIDE = "docs/guides/reading-dumps.md"
INSTALLED, SAMPLES = "/usr/share/doc/wan-lb/examples/readers", "packaging/examples/readers"
READERS = {"python": "read_dumps.py", "c++": "read_dumps", "c": "read_states"}


@pytest.fixture(scope="module")
def compiled(tmp_path_factory):
    """A directory with the guide's programs, made by its commands, and with the header where pkg-config says."""
    top = tmp_path_factory.mktemp("readers")
    os.makedirs(top / "include" / "wan-lb")
    shutil.copy(os.path.join(pages.REPOSITORY, "src/output/dump_format.h"), top / "include" / "wan-lb")
    settings = {"@CMAKE_INSTALL_PREFIX@": str(top), "@CMAKE_INSTALL_INCLUDEDIR@": "include", "@PROJECT_VERSION@": "1"}
    (top / "wan-lb.pc").write_text(re.sub("@.*?@", lambda found: settings[found[0]],
                                          pages.text_of("packaging/wan-lb.pc.in")), encoding="utf-8")
    environment = {**os.environ, "PKG_CONFIG_PATH": str(top)}
    for line in commands():
        if not line.startswith(("./", "python3 ")):
            subprocess.run(["sh", "-ec", with_samples(line)], cwd=top, env=environment, check=True)
    return top


def commands():
    return [line for _, text in pages.blocks(GUIDE, "sh") for line in text.splitlines()]


def with_samples(line):
    return line.replace(INSTALLED, os.path.join(pages.REPOSITORY, SAMPLES))


def reader(compiled, kind, out, *arguments):
    """The guide's command for a reader, on the output directory."""
    line = [line for line in commands() if line.split()[-1].endswith(READERS[kind]) and " -o " not in line]
    assert len(line) == 1
    return ["sh", "-c", f"cd {compiled} && exec {with_samples(line[0])} \"$@\"", "sh", *arguments, out]


def read(compiled, kind, out, *arguments):
    done = subprocess.run(reader(compiled, kind, out, *arguments), text=True, capture_output=True, check=False)
    assert (done.returncode, done.stderr) == (0, ""), done.stderr
    return done.stdout


def start(lab):
    link = lab.uplink(1, ipv6=True, far_end="kernel", target="198.51.100.1")
    lb = lab.start_lb(build(
        [interface("wan1", [ping(link.gateway, resp_time=900), ping_ext("198.51.100.1", period=1, count=2, loss=20)],
                   nexthop=link.gateway),
         interface("wan1", [ping(link.gateway6, resp_time=900)], ipv6=True, nexthop=link.gateway6)],
        [rule("1_ipv4", {"wan1": 2}, {"0.0.0.0/0": None}),
         rule("1_ipv6", {"wan1": 1}, {"::/0": 10}, failover=True)]))
    for family in (4, 6):
        lb.wait_status("wan1", "active", family=family)
        lb.wait_cycles(1, family=family)
    return link, lb


def from_json(found):
    """What the readers are to print, from the document of lbctl status."""
    lines = []
    for one in found["interfaces"]:
        lines.append(f"interface {one['name']} ipv{one['family']} vrf {one['vrf']} {one['state']} "
                     f"for {one['state_age']} nexthop {one['nexthop'] or '-'}")
        for test in one["tests"]:
            figures = ""
            if test["measurement"]:
                loss, rtt, jitter = (test["measurement"][name] for name in ("loss", "rtt", "jitter"))
                figures = (f" loss {loss['value']}/{loss['limit']} "
                           f"rtt {round(rtt['value'] * 1000)}/{round(rtt['limit'] * 1000)} "
                           f"jitter {round(jitter['value'] * 1000)}/{round(jitter['limit'] * 1000)}")
            lines.append(f"test {test['target']} {test['result']} good {test['success_count']}/{one['success_ct']} "
                         f"bad {test['failure_count']}/{one['failure_ct']}{figures}")
    routes = []
    for one in found["rules"]:
        members = " ".join(f"{member['device']}:{member['weight']}" for member in one["members"])
        lines.append(f"rule {one['number']} ipv{one['family']} vrf {one['vrf']} "
                     f"{'failover' if one['failover'] else 'weights'} {members}")
        for index, route in enumerate(one["routes"], start=1):
            metric = -1 if route["metric"] is None else route["metric"]
            routes.append(f"route {one['number']}.{index} ipv{one['family']} {route['destination']} metric {metric} "
                          f"via {route['nexthop'] or '-'}")
    return "\n".join(lines + routes) + "\n"


def interfaces_of(text):
    return [line for line in text.splitlines() if line.startswith("interface ")]


def without_times(text):
    return re.sub(r"(for|rtt|jitter) \d+", r"\1 N", text)


def test_readers_against_lbctl(lab, compiled):
    """Up, and failed: all say the same of the same files, as lbctl does, and as the guide shows."""
    link, lb = start(lab)
    shown = pages.block(GUIDE, "interface wan1 ipv4")
    waiting.wait_until(lambda: without_times(read(compiled, "python", lb.out)) == without_times(shown),
                       lambda: f"{shown}\nis shown, but it is\n{read(compiled, 'python', lb.out)}", interval=0.2)
    for state in ("active", "failed"):
        if state == "failed":
            link.cut()
        for family in (4, 6):
            lb.wait_status("wan1", state, family=family)
            lb.wait_cycles(2, family=family)
        copy = os.path.join(lab.path("run"), state)
        waiting.wait_until(lambda: copy_whole(lb.out, copy))
        expected = from_json(json.loads(ctl(lab, "status", "--json", "-o", copy).stdout))
        assert f" {state} " in expected
        assert read(compiled, "python", copy) == expected
        assert read(compiled, "c++", copy) == expected
        assert read(compiled, "c", copy).splitlines() == interfaces_of(expected)
        foreign = os.path.join(lab.path("run"), state + "-foreign")
        swap(copy, foreign)
        other = {"little": "big", "big": "little"}[sys.byteorder]
        assert read(compiled, "python", foreign, "--byte-order", other) == expected
        assert read(compiled, "python", foreign) != expected


FILES = {"wlb_ipv4_outbounds.bin": dumps.OUTBOUND_SIZE, "wlb_ipv6_outbounds.bin": dumps.OUTBOUND_SIZE,
         "wlb_rules.bin": dumps.RULE_SIZE, "wlb_routes.bin": dumps.ROUTE_SIZE}


def copy_whole(out, to):
    """Copies the dump files; False when one of them was caught half written."""
    os.makedirs(os.path.join(to, "wlb_dump"), exist_ok=True)
    for name, size in FILES.items():
        path = os.path.join(to, "wlb_dump", name)
        shutil.copy(os.path.join(out, "wlb_dump", name), path)
        if not os.stat(path).st_size or os.stat(path).st_size % size:
            return False
    return True


def numbers_of(name):
    """Offsets of the 32-bit numbers in a record of the file, from the documented layout."""
    tables = pages.text_of("docs/dump-files.md").split("\n## ")

    def offsets(title):
        text = [table for part in tables for table in part.split("\n### ") if table.startswith(title)][0]
        return [int(at) for at in re.findall(r"^\| (\d+) \| 4 \|", text, re.MULTILINE)]

    if "outbounds" in name:
        return offsets("Interface") + [188 + at * dumps.TEST_SIZE + one for at in range(50) for one in offsets("Test")]
    return offsets("Rule" if "rules" in name else "Route")


def swap(out, to):
    """What a daemon on a host of the other byte order would have written."""
    os.makedirs(os.path.join(to, "wlb_dump"))
    for name, size in FILES.items():
        with open(os.path.join(out, "wlb_dump", name), "rb") as file:
            data = bytearray(file.read())
        for record in range(0, len(data), size):
            for at in numbers_of(name):
                data[record + at:record + at + 4] = data[record + at:record + at + 4][::-1]
        with open(os.path.join(to, "wlb_dump", name), "wb") as file:
            file.write(data)


@pytest.mark.parametrize("kind", READERS)
def test_half_written_file_is_waited_for(tmp_path, compiled, kind):
    """Empty, then a part of a record, then whole; and one that never becomes whole is refused."""
    os.mkdir(tmp_path / "wlb_dump")
    path = tmp_path / "wlb_dump" / "wlb_ipv4_outbounds.bin"
    record = b"wan1".ljust(64, b"\0") + b"default".ljust(dumps.OUTBOUND_SIZE - 64, b"\0")
    path.write_bytes(b"")
    with file_events.FileEvents(path, file_events.READ) as events, \
            subprocess.Popen(reader(compiled, kind, str(tmp_path)), text=True, stdout=subprocess.PIPE) as process:
        for half in (b"", record[:1000]):
            path.write_bytes(half)
            events.wait(0)  # what was read before
            assert events.wait(waiting.scaled(waiting.PATIENCE))
        path.write_bytes(record + record)
        printed = process.communicate()[0]
    assert printed == 2 * "interface wan1 ipv4 vrf default failed for 0 nexthop -\n"
    path.write_bytes(record + record[:1000])
    refused = subprocess.run(reader(compiled, kind, str(tmp_path)), text=True, capture_output=True, check=False)
    assert refused.returncode == 1 and f"not whole records: {len(record) + 1000} bytes" in refused.stderr
    path.write_bytes(b"")
    assert read(compiled, kind, str(tmp_path)) == ""
