"""lbctl watch beside a running daemon: a command for each change.

    router wan1 10.1.0.2 -------- f1 far1
"""

import signal

from lab import configtext, tool, waiting
from lab.configtext import interface, ping, rule


def test_command_for_each_change(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping(link.gateway, resp_time=900)], success_ct=1, nexthop=link.gateway)],
        [rule("1_ipv4", {"wan1": 1}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")
    seen = lab.path("run/seen")
    watch = lab.enclosure.spawn([tool.program(), "watch", "-o", lb.out, "--exec",
                                 f"echo $WAN_LB_INTERFACE $WAN_LB_FAMILY $WAN_LB_STATE $WAN_LB_NEXTHOP >>{seen}"])
    lb.wait_cycles(2)
    link.cut()
    lab.wait_text("run/seen", "wan1 4 failed 10.1.0.1\n")
    link.restore()
    lab.wait_text("run/seen", "wan1 4 failed 10.1.0.1\nwan1 4 active 10.1.0.1\n")
    watch.signal(signal.SIGTERM)
    waiting.wait_until(lambda: watch.status is not None, "lbctl watch to end")
    assert watch.status == 0
    assert [line.split()[1:] for line in watch.stdout.splitlines()] == [["wan1", "FAILED"], ["wan1", "ACTIVE"]]


def test_without_a_daemon(lab):
    done = tool.ctl(lab, "watch", "-o", "/nowhere")
    assert done.status == 3 and "/nowhere/wlb_dump" in done.stderr


def test_restart_is_no_change(lab):
    """A daemon that was started anew has its links failed at first: nobody is told of that, but of what it finds."""
    links = {name: lab.uplink(number) for number, name in ((1, "wan1"), (2, "wan2"))}
    text = configtext.build(
        [interface(name, [ping(link.gateway, resp_time=900)], failure_ct=2, success_ct=2, nexthop=link.gateway)
         for name, link in links.items()],
        [rule("1_ipv4", {"wan1": 1, "wan2": 1}, {"0.0.0.0/0": None})])
    lb = lab.start_lb(text)
    for name in links:
        lb.wait_status(name, "active")
    watch = lab.enclosure.spawn([tool.program(), "watch", "-o", lb.out, "--exec",
                                 f"echo $WAN_LB_INTERFACE $WAN_LB_STATE >>{lab.path('run/seen')}"])
    lb.wait_cycles(2)
    lb.stop()
    links["wan2"].cut()
    lb = lab.start_lb(text, out=lb.out)
    lb.wait_status("wan1", "active")
    lab.wait_text("run/seen", "wan2 failed\n")
    links["wan2"].restore()
    lab.wait_text("run/seen", "wan2 failed\nwan2 active\n")
    watch.signal(signal.SIGTERM)
    waiting.wait_until(lambda: watch.status is not None, "lbctl watch to end")
    assert [line.split()[1:] for line in watch.stdout.splitlines()] == [["wan2", "FAILED"], ["wan2", "ACTIVE"]]
