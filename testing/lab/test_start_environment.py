"""What the daemon takes from the host and leaves as it was: the time zone, the limits of its commands, numbers.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
"""

import os
import re
import struct
import time

import pytest

from lab import configtext, waiting
from lab.configtext import interface, ping, rule


def zone(seconds_east, name):
    """A time zone file (RFC 8536) with one offset for all times: version 1, then the same as version 2."""
    text = name.encode() + b"\0"
    block = struct.pack("!15x6I", 0, 0, 0, 0, 1, len(text)) + struct.pack("!iBB", seconds_east, 0, 0) + text
    hours = seconds_east // 3600
    return b"TZif2" + block + b"TZif2" + block + f"\n<{name}>{-hours}\n".encode()


def test_report_follows_the_time_zone(lab):
    link = lab.uplink(1)

    def change(hours):
        with open(lab.path("etc/localtime.new"), "wb") as file:
            file.write(zone(hours * 3600, f"+{hours:02}"))
        os.rename(lab.path("etc/localtime.new"), lab.path("etc/localtime"))

    def hours_east(text):
        stamp = re.search("Last Status Change:  (.*)\n", text)[1]
        local = time.strptime(stamp + " UTC", "%a %b %d %H:%M:%S %Y %Z")
        return round((time.mktime(local) - time.timezone - time.time()) / 3600)

    change(3)
    lb = lab.start_lb(configtext.single(link, [ping(link.gateway, resp_time=900)]), prefix=["env", "-u", "TZ"])
    lb.wait_status("wan1", "active")
    assert hours_east(lb.report()) == 3
    change(9)
    lb.wait_report(lambda text: hours_east(text) == 9)


@pytest.mark.skipif(struct.calcsize("l") < 8, reason="a long of this host has 32 bits: strtoul gives the largest")
def test_numbers_are_cut_to_32_bits(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.build(
        [interface("wan1", [ping(link.gateway, resp_time=900)], success_ct=2 ** 32 + 1, nexthop=link.gateway)],
        [rule("4294967297_ipv4", {"wan1": 2 ** 32 + 7}, {"0.0.0.0/0": None})]))
    lb.wait_status("wan1", "active")
    lab.wait_text("usr_etc/routing-wlb.conf", configtext.route_file("route 0.0.0.0/0 via 10.1.0.1 weight 7;"))
    record, = lb.rules()
    assert (record["number"], record["members"][0]["weight"]) == (1, 7)
    assert lb.outbounds()[0]["success_ct"] == 1


@pytest.mark.parametrize("soft", [300, 4096], ids=lambda soft: f"soft limit {soft}")
def test_commands_get_the_limits_of_the_start(lab, soft):
    """The daemon raises its own limit of descriptors; its shell commands know nothing of that."""
    link = lab.uplink(1)
    lab.routing_daemon()
    for name in ("ip", "cat"):
        lab.write(f"bin/{name}", f'#!/bin/sh\necho "$(ulimit -Sn) $(ulimit -Hn)" >> {lab.path(name)}.limits\n'
                                 f'PATH=/usr/sbin:/usr/bin:/sbin:/bin exec {name} "$@"\n')
        os.chmod(lab.path(f"bin/{name}"), 0o755)
    lb = lab.start_lb(configtext.single(link), nofile=4096, prefix=["sh", "-c", f'ulimit -Sn {soft}; exec "$@"', "sh"])
    for name in ("ip", "cat"):
        # It is there before its first line is.
        waiting.wait_until(lambda n=name: lab.exists(f"{n}.limits") and lab.read(f"{n}.limits").endswith("\n"),
                           f"the command {name}")
        assert set(lab.read(f"{name}.limits").splitlines()) == {f"{soft} 4096"}, name
    own = lab.run(["prlimit", f"--pid={lb.pid}", "--nofile", "--output=SOFT", "--noheadings"]).stdout
    assert int(own) == 4096
