"""The status report and the dump files of a running daemon, and what happens when they cannot be written.

    router wan1 10.1.0.2 / fd00:1::2 -------- f1 far1: responder
    router wan2 10.2.0.2             -------- f2 far2: responder that is silent
"""

import os
import re
import time

import pytest

from lab import configtext, dumps, waiting
from lab.configtext import interface, ping, ping_ext, rule

AGE = r"(?:\d+m)?\d+s"


@pytest.fixture
def link(lab):
    return lab.uplink(1, ipv6=True)


def test_report_text(lab, link):
    other = lab.uplink(2)
    other.cut()
    lb = lab.start_lb(configtext.build(
        [interface("wan2", [ping(other.gateway, resp_time=900), ping_ext("198.51.100.2", period=600)], success_ct=1,
                   nexthop=other.gateway),
         interface("wan1", [ping(link.gateway), ping()], success_ct=1, nexthop=link.gateway),
         interface("wan3", [ping()], nexthop="dhcp")],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")
    text = lb.wait_report(lambda report: "-Test:  ping\t" in report)
    stamp = r"[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}"
    shared = "Test:  ping\tTarget: 10.1.0.1\n"  # two tests have one probe: who is judged after the answer takes it
    assert re.fullmatch(
        f"Interface:  wan1\n  Status:  active\n  Last Status Change:  {stamp}\n"
        f"  (?:\\+{shared}  [ +]{shared}| {shared}  \\+{shared})"
        f"    Last Interface Success:  {AGE}\t\n    Last Interface Failure:  (?:{AGE}\t|n/a\t\t)\n\n"
        f"Interface:  wan2\n  Status:  failed\n  Last Status Change:  {stamp}\n"
        "  -Test:  ping\tTarget: 10.2.0.1\n  -Test:  ping extended\tTarget: 198.51.100.2\n"
        f"    Last Interface Success:  n/a\t\t\n    Last Interface Failure:  {AGE}\t\n\n"
        f"Interface:  wan3\n  Status:  failed\n  Last Status Change:  {stamp}\n"
        "   Test:  ping\tTarget: \n"
        "    Last Interface Success:  n/a\t\t\n    Last Interface Failure:  n/a\t\t\n\n", text), text
    changed = re.search(f"wan1\n.*\n  Last Status Change:  ({stamp})", text)[1]
    # The daemon's processes run in UTC here.
    then = time.mktime(time.strptime(changed + " UTC", "%a %b %d %H:%M:%S %Y %Z")) - time.timezone
    assert abs(time.time() - then) < 120


def test_reports_of_both_families(lab, link):
    begun = time.monotonic()
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping()], success_ct=1, nexthop=link.gateway),
         interface("wan1", [ping()], ipv6=True, success_ct=1, nexthop=link.gateway6)],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": 5}), rule("2_ipv6", {"wan1": 200}, {"::/0": None}, failover=True)]))
    lb.wait_status("wan1", "active")
    lb.wait_status("wan1", "active", family=6)
    assert "  +Test:  ping\tTarget: fd00:1::1\n" in lb.wait_report("+Test", family=6)
    assert "  +Test:  ping\tTarget: 10.1.0.1\n" in lb.wait_report("+Test", family=4)

    # The age of the last success starts anew in each cycle.
    record = waiting.wait_until(lambda: (found := lb.outbounds(6))[0]["success_age"] <= 3 and found[0])
    assert len(lb.outbounds(6)) == 1 and record == {
        "name": "wan1", "namespace": "default", "nexthop": "fd00:1::1", "source_address": "",
        "tests": [{"target": "fd00:1::1", "successes": 1, "failures": 0, "result": 1, "measured": 0,
                   "resp_time": 5000 & 0xFF, "ipv6": 1, "measurement": (0,) * 6}],
        "success_age": record["success_age"], "failure_age": record["failure_age"],
        "change_age": record["change_age"], "success_ct": 1, "failure_ct": 1, "dhcp": 0, "tunnel": 0, "active": 1}
    assert 0 <= record["success_age"] and 0 <= record["change_age"] <= time.monotonic() - begun + 1
    assert lb.outbounds(4)[0]["tests"][0]["ipv6"] == 0

    def settled():
        found = lb.routes()
        return len(found) == 2 and found[1]["nexthop"] == "fd00:1::1" and found

    routes = waiting.wait_until(settled)
    assert routes == [
        {"destination": "0.0.0.0/0", "nexthop": "", "metric": 5, "index": 1, "number": 1, "ipv6": 0},
        {"destination": "::/0", "nexthop": "fd00:1::1", "metric": -1, "index": 1, "number": 2, "ipv6": 1}]
    assert waiting.wait_until(lambda: len(lb.rules()) == 2 and lb.rules()) == [
        {"members": [{"name": "wan1", "weight": 1, "ipv6": 0}], "namespace": "default", "zero": 0, "number": 1,
         "failover": 0, "ipv6": 0},
        {"members": [{"name": "wan1", "weight": 200, "ipv6": 1}], "namespace": "default", "zero": 0, "number": 2,
         "failover": 1, "ipv6": 1}]


def test_record_of_an_extended_test(lab, link):
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping_ext(count=3, period=1, loss=11, rtt=2222, jitter=3333, resp_time=77)], success_ct=1,
                   nexthop=link.gateway, source_address=link.address)],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")

    def quick():
        """Of one burst; a busy machine may delay the replies of some."""
        record, = lb.outbounds()
        jitter, loss, rtt = record["tests"][0]["measurement"][:3]
        return loss == 0 and 0 <= rtt < waiting.scaled(100) and 0 <= jitter < waiting.scaled(200) and record

    record = waiting.wait_until(quick, lambda: f"figures of replies that come at once, not {lb.outbounds()}")
    test, = record["tests"]
    assert record["source_address"] == link.address
    assert (test["target"], test["result"], test["measured"], test["resp_time"]) == (link.gateway, 1, 1, 77)
    assert test["measurement"][3:] == (3333, 11, 2222)


def test_more_than_fifty_tests(lab):
    lb = lab.start_lb(configtext.build(
        [interface("x1", [ping(f"10.0.0.{number}", resp_time=number) for number in range(1, 54)], nexthop="10.0.0.1")],
        [rule("1_ipv4", {f"x{number:02}": 1 for number in range(60)},
              {f"10.{number}.0.0/16": number for number in range(60)})]))
    record, = lb.outbounds()
    assert [test["target"] for test in record["tests"]] == [f"10.0.0.{number}" for number in range(1, 51)]
    assert lb.report().count("Test:") == 53
    assert len(lb.dump("wlb_ipv4_outbounds.bin")) == dumps.OUTBOUND_SIZE
    dumped, = lb.rules()
    assert [member["name"] for member in dumped["members"]] == [f"x{number:02}" for number in range(50)]
    routes = lb.routes()
    assert [route["index"] for route in routes] == list(range(1, 51))
    assert routes[2]["destination"] == "10.10.0.0/16" and routes[2]["metric"] == 10


def test_long_texts_are_cut(lab):
    name, address = "n" * 80, "1" * 60
    lb = lab.start_lb(configtext.build(
        [interface(name, [ping("2" * 70)], nexthop=address, namespace="default", source_address="3" * 60),
         interface(name, [ping("4" * 70)], ipv6=True, nexthop=address, source_address="5" * 60)],
        [rule("1_ipv4", {name: 1}, {"6" * 60: None}), rule("1_ipv6", {name: 1}, {"7" * 60: None})]))
    record4, = lb.outbounds()
    record6, = waiting.wait_until(lambda: os.path.exists(lb.report_path(6)) and lb.outbounds(6))
    assert record4["name"] == record6["name"] == "n" * 63
    assert (record4["nexthop"], record6["nexthop"]) == ("1" * 15, "1" * 45)
    assert (record4["source_address"], record6["source_address"]) == ("3" * 15, "5" * 45)
    assert record6["tests"][0]["target"] == "4" * 45 and record4["tests"][0]["target"] in ("2" * 45, "2" * 15)
    routes = waiting.wait_until(lambda: len(lb.routes()) == 2 and lb.routes())
    assert (routes[0]["destination"], routes[1]["destination"]) == ("6" * 18, "7" * 49)


def test_rule_without_a_version_stops_the_dump_of_rules(lab, link):
    """Rules are dumped in the order of their names: "1_ipv4" before "2"; the others' files are not touched by that."""
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping()], success_ct=1, nexthop=link.gateway)],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None}), rule("2", {"wan1": 1}, {"::/0": None}),
         rule("3_ipv4", {"wan1": 1}, {"10.0.0.0/8": None})]))
    record = lab.log.wait_for("^%WAN-W-ERR: <dump_rules_and_routes> wan_lb: sscanf failed$")
    assert record.level == 4
    lb.wait_status("wan1", "active")
    assert [found["number"] for found in lb.rules()] == [1]
    assert [found["number"] for found in lb.routes()] == [1]


def wait_cycles_with(lab, link):
    """Routing goes on whatever the output does."""
    lab.wait_text("usr_etc/routing-wlb.conf", configtext.route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))
    assert link.responder.requests


def test_output_directory_is_missing(lab, link):
    missing = lab.path("missing")
    lb = lab.start_lb(configtext.single(link), argv=["-f", lab.path("lb.conf"), "-o", missing])
    record = lab.log.wait_for(f"^%WAN-W-ERR: wan_lb: error create directory: {missing}/wlb_dump, errno = 2$", count=2)
    assert record.level == 4
    wait_cycles_with(lab, link)
    os.mkdir(missing)
    lb.out = missing
    lb.wait_status("wan1", "active")


def test_output_directory_is_read_only(lab, link):
    out = lab.path("readonly")
    os.mkdir(out)
    lab.run(["mount", "-t", "tmpfs", "-o", "ro", "none", out])
    lab.start_lb(configtext.single(link), out=out)
    lab.log.wait_for(f"^%WAN-W-ERR: wan_lb: error create directory: {out}/wlb_dump, errno = 30$", count=2)
    wait_cycles_with(lab, link)


def test_output_directory_is_a_file(lab, link):
    out = lab.write("afile", "")
    lab.start_lb(configtext.single(link), out=out)
    lab.log.wait_for("error create directory: .*/afile/wlb_dump, errno = 20$", count=2)
    wait_cycles_with(lab, link)


def test_dump_directory_is_a_file(lab, link):
    """An existing name is taken for the directory: the dumps fail one by one, the report is written."""
    out = lab.path("out")
    os.mkdir(out)
    lab.write("out/wlb_dump", "in the way")
    lb = lab.start_lb(configtext.single(link), out=out)
    for text in (f"error open file for writing '{out}/wlb_dump/wlb_ipv4_outbounds.bin'",
                 f"Error open file for writing '{out}/wlb_dump/wlb_rules.bin'"):
        assert lab.log.wait_for(f"^%WAN-W-ERR: wan_lb: {text}$").level == 4
    lb.wait_status("wan1", "active")


def test_routes_file_cannot_be_opened(lab, link):
    """Then the rules file is closed and stays empty."""
    out = lab.path("out")
    os.makedirs(out + "/wlb_dump/wlb_routes.bin")
    lb = lab.start_lb(configtext.single(link), out=out)
    lab.log.wait_for(f"^%WAN-W-ERR: wan_lb: Error open file for writing '{out}/wlb_dump/wlb_routes.bin'$")
    lb.wait_status("wan1", "active")
    assert lb.dump("wlb_rules.bin") == b"" and len(lb.outbounds()) == 1


def test_report_cannot_be_opened(lab, link):
    out = lab.path("out")
    os.makedirs(out + "/wlb_ipv4.out")
    lb = lab.start_lb(configtext.single(link), out=out)
    lab.log.wait_for(f"^%WAN-W-ERR: wan_lb: error ordering output file {out}/wlb_ipv4.out$", count=2)
    assert len(lb.outbounds()) == 1
    wait_cycles_with(lab, link)


def test_disk_is_full(lab, link):
    out = lab.path("out")
    os.mkdir(out)
    lab.run(["mount", "-t", "tmpfs", "-o", "size=4096,nr_inodes=20", "none", out])
    lab.run(["mkdir", f"{out}/wlb_dump"])
    lab.run(["sh", "-c", f"head -c 4096 /dev/zero > {out}/filler"])
    lb = lab.start_lb(configtext.single(link), out=out)
    record = lab.log.wait_for(r"^%WAN-W-ERR: wan_lb: <dump_outbounds> error writing data block$")
    assert record.level == 4
    lab.log.wait_for(r"^%WAN-W-ERR: wan_lb: <dump_rules_and_routes> error writing data block$")
    wait_cycles_with(lab, link)
    assert lb.alive
