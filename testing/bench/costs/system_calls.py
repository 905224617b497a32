"""How many system calls the daemon makes per probe.

strace is attached between two cycles and let go between two others, so that it sees whole cycles. What the far end got
tells how many probes there were.
"""

import collections
import re
import signal

from lab import waiting

from .healthy_links import LINKS

CYCLES = 3

# Made by being traced: every wait that strace interrupts goes on with one.
TRACERS = {"restart_syscall"}


def count(links):
    """{call: number per probe}"""
    lab, summary = links.lab, links.lab.path("strace")
    lb = links.start_lb()
    lb.wait_cycles(1, links.family)
    before = links.probes()
    tracer = lab.enclosure.spawn(["strace", "-f", "-c", "-U", "calls,name", "-o", summary, "-p", str(lb.pid)])
    waiting.wait_until(lambda: "attached" in tracer.stderr, lambda: f"strace: {tracer.stderr}")
    assert links.probes() == before, "strace came too late for the cycle's start"
    lb.wait_cycles(CYCLES, links.family)
    after = links.probes()
    tracer.signal(signal.SIGINT)
    tracer.wait()
    assert links.probes() == after, "strace was let go too late for the cycle's end"
    lb.stop()
    probes = after - before
    # A reply that is read late, since strace slows its receiver, leaves out the link's next probe.
    assert 0.95 <= probes / (CYCLES * LINKS) <= 1, f"{probes} probes in {CYCLES} cycles of {LINKS} links"
    with open(summary, encoding="ascii") as file:
        found = re.findall(r"^\s*(\d+) (\w+)$", file.read(), re.MULTILINE)
    calls = collections.Counter({name: int(number) for number, name in found if name != "total"})
    assert calls, tracer.stderr
    return {name: round(number / probes, 2) for name, number in calls.items() if name not in TRACERS}
