"""How many system calls the daemon makes per probe.

strace is attached between two cycles and let go between two others, so that it sees whole cycles. What the far end got
tells how many probes there were.
"""

import re
import signal

from lab import waiting

from .healthy_links import LINKS

CYCLES = 3
ATTEMPTS = 12

# Made by being traced: every wait that strace interrupts goes on with one.
TRACERS = {"restart_syscall"}


def _wait_for_rest(links, lb):
    """Until every thread waits for something: strace has receivers read the last replies late."""
    states = f"cat /proc/{lb.pid}/task/*/stat"
    looks = [0]

    def rests():
        text = links.lab.run(["sh", "-c", states]).stdout
        is_resting = all(line.rsplit(")", 1)[1].split()[0] == "S" for line in text.splitlines())
        looks[0] = looks[0] + 1 if is_resting else 0
        return looks[0] == 3

    waiting.wait_until(rests, "all of the daemon's threads to wait")


def _trace(links, lb):
    """{call: number} of whole cycles, and how many probes were in them."""
    lab, summary = links.lab, links.lab.path("strace")
    lb.wait_cycles(1, links.family)
    before = links.probes()
    tracer = lab.enclosure.spawn(["strace", "-f", "-c", "-U", "calls,name", "-o", summary, "-p", str(lb.pid)])
    waiting.wait_until(lambda: "attached" in tracer.stderr, lambda: f"strace: {tracer.stderr}")
    came_late = links.probes() != before
    lb.wait_cycles(CYCLES, links.family)
    after = links.probes()
    _wait_for_rest(links, lb)
    tracer.signal(signal.SIGINT)
    tracer.wait()
    went_late = links.probes() != after
    with open(summary, encoding="ascii") as file:
        found = re.findall(r"^\s*(\d+) (\w+)$", file.read(), re.MULTILINE)
    calls = {name: int(number) for number, name in found if name not in TRACERS | {"total"}}
    assert calls, tracer.stderr
    return calls, 0 if came_late or went_late else after - before


def count(links):
    """{call: number per probe}"""
    lb = links.start_lb()
    calls, probes = {}, 0
    # strace slows the daemon: a reply that comes after its cycle has judged leaves out the link's next probe, the more
    # the busier the machine is. What is per cycle is right when none is left out.
    for _ in range(ATTEMPTS):
        calls, probes = max((calls, probes), _trace(links, lb), key=lambda traced: traced[1])
        if probes == CYCLES * LINKS:
            break
    lb.stop()
    assert probes >= CYCLES * LINKS / 2, f"the machine is too busy: {probes} probes in {CYCLES} cycles of {LINKS} links"
    return {name: round(number / probes, 2) for name, number in calls.items()}
