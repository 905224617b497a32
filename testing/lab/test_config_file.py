"""Configuration files in every shape, as far as it shows in a running daemon.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
"""

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, ping_ext, rule

RULE = rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})


@pytest.mark.parametrize("nested", [False, True], ids=["keywords in the test block", "type as an inner block"])
def test_both_forms_of_test_blocks(lab, nested):
    lb = lab.start_lb(configtext.build([interface(
        "wan1", [ping("198.51.100.1", resp_time=300), ping_ext("198.51.100.2", count=3, loss=7, jitter=8, rtt=9),
                 ping("198.51.100.3")], nested=nested, success_ct=2, failure_ct=4, nexthop="10.1.0.1")], [RULE]))
    report = lb.report()
    assert [line.split("Test:  ")[1] for line in report.splitlines() if "Test:" in line] == [
        "ping\tTarget: 198.51.100.1", "ping extended\tTarget: 198.51.100.2", "ping\tTarget: 198.51.100.3"]
    record = lb.outbounds()[0]
    assert (record["success_ct"], record["failure_ct"], record["nexthop"]) == (2, 4, "10.1.0.1")
    assert [test["resp_time"] for test in record["tests"]] == [300 & 0xFF, 5000 & 0xFF, 5000 & 0xFF]
    waiting.wait_until(lambda: lb.outbounds()[0]["tests"][1]["measured"] == 1)
    assert lb.outbounds()[0]["tests"][1]["measurement"] == (0, 0, 0, 8, 7, 9)


def test_mismatched_brackets_at_the_end(lab):
    """What was read is used, but interfaces without tests get none."""
    link = lab.uplink(1)
    text = configtext.build([interface("wan1", [ping(link.gateway)], success_ct=1, nexthop=link.gateway),
                             interface("wan2", nexthop="10.2.0.1")], [RULE]) + "rule 2_ipv4 {\n"
    lb = lab.start_lb(text)
    record = lab.log.wait_for("^%WAN-W-WARN: Configuration error due to mismatched brackets$")
    assert record.level == 4
    lb.wait_status("wan1", "active")
    assert [len(record["tests"]) for record in lb.outbounds()] == [1, 0]


def test_too_many_closing_brackets(lab):
    """Reading stops there: what stands behind is not seen."""
    link = lab.uplink(1)
    text = configtext.build([interface("wan1", [ping(link.gateway)], success_ct=1, nexthop=link.gateway)], [RULE])
    lb = lab.start_lb(text + "}\nhealth {\n    interface wan7 {\n    }\n}\n")
    record = lab.log.wait_for("^%WAN-W-WARN: Malformed configuration file: brackets$")
    assert record.level == 4
    lb.wait_status("wan1", "active")
    assert list(lb.statuses()) == ["wan1"]


@pytest.mark.parametrize("line", ["}" * 40, "{" * 40, "} " * 31 + "{ " * 31, "{ " * 33 + "} " * 33, "} {"])
def test_brackets_out_of_range_in_one_line(lab, line):
    """Nothing is read or written outside the block stack (a build with AddressSanitizer sees it)."""
    process = lab.run_lb(f"a {line} b\n{line}\n", "-t")
    assert process.status == 0


def test_illegal_numbers_keep_what_was_there(lab):
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping("10.1.0.1")], success_ct=0, failure_ct="-3", nexthop="10.1.0.1"),
         interface("wan2", [ping("10.1.0.1")], success_ct="x", failure_ct="7x")],
        [rule("1_ipv4", {"wan1": 0, "wan2": "4b"}, {"0.0.0.0/0": "abc"}), "rule 0_ipv4 {\n}", "rule -4 {\n}"]))
    for text in ("wan_lb: illegal success-ct specified in configuration file: 0",
                 "wan_lb: illegal failure-ct specified in configuration file: -3",
                 "wan_lb: illegal success-ct specified in configuration file: x",
                 "wan_lb: illegal interface weight specified in configuration file: 0"):
        assert lab.log.wait_for(f"^%WAN-W-ERR: {text}$").level == 4
    assert lab.log.wait_for("^%WAN-W-WARN: Illegal rule number: 0_ipv4$").level == 4
    lab.log.wait_for("^%WAN-W-WARN: Illegal rule number: -4$")
    first, second = lb.outbounds()
    assert (first["success_ct"], first["failure_ct"]) == (3, 1)
    assert (second["success_ct"], second["failure_ct"]) == (3, 7)
    assert [member["weight"] for member in lb.rules()[0]["members"]] == [0, 4]
    assert lb.routes()[0]["metric"] == 0


def test_comments_quotes_and_separators(lab):
    lb = lab.start_lb("""
health {  # a comment with a } bracket
\tinterface~"wan 1"   { # the text between the quotes
        success-ct 7 9 11
        check_all
        test "2" {
            target 10.0.0.9
            type ping
            target 10.0.0.1
        }
    }
    interface wan3
    {
    }
}
unknown { interface wan4 { } }
rule 3_ipv4 {
    interface "wan 1" {
        weight 2
    }
    target { address 10.0.0.0/8
    }
    target {
        address 172.16.0.0/12
        metric 7
    }
}
""")
    record, = lb.outbounds()
    assert record["name"] == "wan 1" and record["success_ct"] == 7
    assert [test["target"] for test in record["tests"]] == ["10.0.0.1"]
    dumped, = lb.rules()
    assert dumped["number"] == 3 and dumped["members"] == [{"name": "wan 1", "weight": 2, "ipv6": 0}]
    assert [(route["destination"], route["metric"], route["index"]) for route in lb.routes()] == [
        ("172.16.0.0/12", 7, 1)], "a block on one line with its opener is not seen"


def test_missing_file_leaves_an_idle_daemon(lab):
    lb = lab.start_lb(None, argv=["-f", "/no/such/file"])
    lab.log.wait_for("configuration file not found: /no/such/file")
    waiting.never(lambda: not lb.alive, 0.5)
