"""From interface states to the routing daemon's file, its signal and the flush of the route cache.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder        /usr/etc/routing-wlb.conf
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder        a stand-in that counts SIGHUP
    router wan3 10.3.0.2 -------- 10.3.0.1 far3: responder
"""

import os
import re

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, route_file, rule

FILE = "usr_etc/routing-wlb.conf"


def health(links, **settings):
    return [interface(link.name, [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway, **settings)
            for link in links]


@pytest.fixture
def links(lab):
    return [lab.uplink(number) for number in (1, 2, 3)]


def test_weighted_rule_through_all_changes(lab, links):
    fake = lab.routing_daemon()
    lab.write(FILE, "left from an earlier run\n")
    for link in links:
        link.cut()
    lb = lab.start_lb(configtext.build(health(links), [
        rule("1_ipv4", {"wan1": 1, "wan2": 2}, {"0.0.0.0/0": 10, "192.0.2.0/24": None}),
        rule("2_ipv4", {"wan2": 5}, {"203.0.113.0/24": 0})]))
    lb.wait_report(lambda text: text.count("-Test:") == 3)
    assert lab.read(FILE) == "left from an earlier run\n" and fake.hups == [], "there is no route yet"

    both = route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1 metric 10 via 10.2.0.1 weight 2;",
                      "route 192.0.2.0/24 via 10.1.0.1 weight 1 via 10.2.0.1 weight 2;",
                      "route 203.0.113.0/24 via 10.2.0.1 weight 5 metric 0;")
    second = route_file("route 0.0.0.0/0 via 10.2.0.1 weight 2 metric 10;",
                        "route 192.0.2.0/24 via 10.2.0.1 weight 2;",
                        "route 203.0.113.0/24 via 10.2.0.1 weight 5 metric 0;")
    links[1].restore()
    lab.wait_text(FILE, second)
    links[0].restore()
    lab.wait_text(FILE, both)
    links[0].cut()
    lab.wait_text(FILE, second)
    links[1].cut()
    lab.wait_text(FILE, "")

    # One signal for each change, each after the file was whole, and one flush after each.
    hups = fake.wait_hups(4)
    assert [files["routing-wlb.conf"] for _, files in hups] == [second, both, second, ""]
    waiting.wait_until(lambda: len(lab.ip_calls()) == 4)
    assert lab.ip_calls() == ["route flush cache"] * 4


def test_nothing_is_written_twice(lab, links):
    fake = lab.routing_daemon()
    lb = lab.start_lb(configtext.build(health(links[:1]), [rule("1_ipv4", {"wan1": 3}, {"0.0.0.0/0": None})]))
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.1.0.1 weight 3;"))
    fake.wait_hups(1)
    written = os.stat(lab.path(FILE)).st_mtime_ns
    lb.wait_cycles(3)
    assert os.stat(lab.path(FILE)).st_mtime_ns == written
    assert len(fake.hups) == 1 and lab.ip_calls() == ["route flush cache"]


def test_failover_takes_the_heaviest_then_the_first_name(lab, links):
    lb = lab.start_lb(configtext.build(health(links), [
        rule("1_ipv4", {"wan1": 1, "wan2": 7, "wan3": 7}, {"0.0.0.0/0": 10}, failover=True)]))
    lb.wait_report(lambda text: text.count("Status:  active") == 3)
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.2.0.1 weight 7 metric 10;"))
    waiting.wait_until(lambda: lb.routes()[0]["nexthop"] == "10.2.0.1")
    assert lb.rules()[0]["failover"] == 1
    links[1].cut()
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.3.0.1 weight 7 metric 10;"))
    links[2].cut()
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1 metric 10;"))
    waiting.wait_until(lambda: lb.routes()[0]["nexthop"] == "10.1.0.1")
    links[1].restore()
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.2.0.1 weight 7 metric 10;"))


def test_rules_come_in_the_order_of_their_text(lab, links):
    """Rule 10 before rule 2; a rule of another VRF and one without a usable member leave no trace."""
    lab.start_lb(configtext.build(health(links[:1]), [
        rule("2_ipv4", {"wan1": 2}, {"192.0.2.0/24": None}),
        rule("10_ipv4", {"wan1": 10}, {"198.51.100.0/24": None, "10.99.0.0/16": None}),
        rule("3_ipv4", {"wan1": 3}, {"203.0.113.0/24": None}, namespace="elsewhere"),
        rule("4_ipv4", {"wan9": 3}, {"203.0.113.0/24": None})]))
    lab.wait_text(FILE, route_file("route 10.99.0.0/16 via 10.1.0.1 weight 10;",
                                   "route 198.51.100.0/24 via 10.1.0.1 weight 10;",
                                   "route 192.0.2.0/24 via 10.1.0.1 weight 2;"))


def test_routing_daemon_absent_then_present(lab, links):
    lb = lab.start_lb(configtext.build(health(links[:1]), [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))
    record = lab.log.wait_for(
        r"^%WAN-D-DBG: LBDecision::run\(\) can't execute 'cat /var/run/routing\.pid.*'$")
    assert record.level == 7 and re.search(r"'cat /var/run/routing\.pid( 2>/dev/null)?'$", record.text)
    assert lab.ip_calls() == [], "without a routing daemon there is no flush"
    fake = lab.routing_daemon()
    waiting.never(lambda: fake.hups, 1.2, "a signal without a change")
    links[0].cut()
    lb.wait_status("wan1", "failed")
    fake.wait_hups(1)
    waiting.wait_until(lambda: lab.ip_calls() == ["route flush cache"])


@pytest.mark.parametrize("content", ["bird\n", "0\n", "-1\n", "-{pid}\n", "x{pid}\n", "\n"])
def test_pid_file_without_a_process_number(lab, links, content):
    """0 and below would reach a process group or everything: nothing may get the signal, the daemon least."""
    canary = lab.routing_daemon(pid_file="")
    lab.write("run/routing.pid", content.format(pid=canary.pid))
    lb = lab.start_lb(configtext.build(health(links[:1]), [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lab.wait_text(FILE, route_file("route 0.0.0.0/0 via 10.1.0.1 weight 1;"))
    waiting.wait_until(lambda: lab.ip_calls() == ["route flush cache"])
    assert lab.log.wait_for("^%WAN-W-ERR: wan_lb: 'cat /var/run/routing.pid' gives no process id").level == 4
    lb.wait_cycles(2)
    assert canary.hups == [] and canary.alive and lb.alive


def test_first_line_of_the_pid_file_counts(lab, links):
    first, second = lab.routing_daemon(pid_file=""), lab.routing_daemon(pid_file="run/other.pid")
    lab.write("run/routing.pid", f"  {first.pid}\n{second.pid}\n")
    lab.start_lb(configtext.build(health(links[:1]), [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    first.wait_hups(1)
    assert second.hups == []


def test_route_file_cannot_be_written(lab, links):
    """The signal is sent all the same, and the text counts as written until it changes."""
    fake = lab.routing_daemon()
    os.mkdir(lab.path(FILE))
    lb = lab.start_lb(configtext.build(health(links[:1]), [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")
    fake.wait_hups(1)
    os.rmdir(lab.path(FILE))
    waiting.never(lambda: lab.exists(FILE), 1.5)
    links[0].cut()
    lab.wait_text(FILE, "")
    fake.wait_hups(2)


def test_directory_of_a_vrf_is_missing(lab):
    lab.add_netns("red")
    link = lab.uplink(1, vrf="red")
    fake = lab.routing_daemon("var_vrfs/red/usr/var/run/routing.pid", ())
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]))
    lb.wait_status("wan1", "active")
    fake.wait_hups(1)
    assert not lab.exists("var_vrfs/red/usr/etc")
    os.mkdir(lab.path("var_vrfs/red/usr/etc"))
    link.cut()
    lab.wait_text("var_vrfs/red/usr/etc/routing-wlb.conf", "")
    fake.wait_hups(2)
    waiting.wait_until(lambda: len(lab.ip_calls(lab.netns_inode("red"))) == 2)


def test_rule_of_another_family_is_not_served(lab, links):
    """Interfaces without a rule of their family, and the reverse, start nothing."""
    lb = lab.start_lb(configtext.build(health(links[:1]), [rule("1", {"wan1": 1}, {"::/0": None})]))
    waiting.never(lambda: links[0].responder.requests or os.path.exists(lb.report_path()), 1.5)
    assert lb.alive
