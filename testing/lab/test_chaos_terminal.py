"""Signals, and a standard error that is closed, or that nobody reads.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder
    router wan3 fd00:3::2 ------- far3; its next hop is no address, which the prober says on standard error each time
"""

import os
import signal

from lab import waiting
from lab.configtext import interface, ping, rule
from lab.weighted_pair import STATE, WeightedPair

CHATTER = b"inet_pton() failed.\nError message: "


def chatty_pair(lab, redirection, **options):
    """The pair, and an IPv6 worker that writes to its standard error, which the shell redirects."""
    links, third = [lab.uplink(1), lab.uplink(2)], lab.uplink(3, ipv6=True)
    return WeightedPair(
        lab, links=links, prefix=("sh", "-c", f'exec "$@" {redirection}', "sh"),
        sections=[interface("wan3", [ping(third.gateway6, resp_time=900)], ipv6=True, success_ct=1,
                            nexthop="nonsense")],
        rules=[rule("1_ipv6", {"wan3": 1}, {"::/0": None})], **options)


def settle(pair):
    """What the IPv6 worker starts with its first test is there too before anything is counted."""
    pair.lb.wait_cycles(2, family=6)
    pair.wait_settled()


def test_signals_that_mean_nothing(lab):
    routing = lab.routing_daemon()
    pair = WeightedPair(lab)
    pair.wait_settled()
    mark, hups = lab.log.mark(), len(routing.hups)
    for number in (signal.SIGCHLD, signal.SIGCONT, signal.SIGWINCH, signal.SIGURG):
        for _ in range(100):
            pair.lb.process.signal(number)
        pair.lb.wait_cycles(1)
    assert not lab.log.matching(STATE, mark)
    pair.change()
    routing.wait_hups(hups + 1)
    pair.check()


def test_commands_that_end_early(lab):
    """A flush command that does not read, does not exist or dies of a signal is no broken pipe for the daemon."""
    routing = lab.routing_daemon()
    pair = WeightedPair(lab)
    pair.wait_settled()
    pair.lb.wait_cycles(1)
    for command in ("#!/bin/sh\nexec 0<&-\nexit 1\n", "#!/bin/sh\nkill -PIPE $$\n", "#!/nowhere/at/all\n"):
        hups = len(routing.hups)
        lab.replace("bin/ip", command)
        os.chmod(lab.path("bin/ip"), 0o755)
        pair.change()
        routing.wait_hups(hups + 1)
        pair.lb.wait_cycles(1)
    pair.check()


def test_closed_standard_descriptors(lab):
    """No socket and no file gets their numbers, and no error text goes into one."""
    pair = chatty_pair(lab, "0<&- 1>&- 2>&-")
    settle(pair)
    lab.log.wait_for("error on sending icmp6 packet", count=2)
    assert not lab.log.matching("inet_pton")
    for number in (0, 1, 2):
        assert lab.run(["readlink", f"/proc/{pair.lb.pid}/fd/{number}"]).stdout.strip() == "/dev/null"
    pair.change()
    pair.check()


def test_standard_error_that_nobody_reads(lab):
    """What there is no room for is lost, and nobody waits; once somebody reads there are words again."""
    manager = lab.notify_socket()
    fifo = lab.path("stderr")
    os.mkfifo(fifo)
    reader = os.open(fifo, os.O_RDWR | os.O_NONBLOCK)
    try:
        pair = chatty_pair(lab, f"2>{fifo}", env={"NOTIFY_SOCKET": lab.path("notify"), "WATCHDOG_USEC":
                                                  str(int(waiting.scaled(2.5) * 1e6))})
        settle(pair)
        waiting.wait_until(lambda: CHATTER in read(reader))
        fill(reader)
        fed = len(manager.matching("WATCHDOG=1"))
        for family in (4, 6):
            pair.lb.wait_cycles(4, family=family)
        manager.wait_for("WATCHDOG=1", count=fed + 4)
        pair.change()
        pair.change()
        while read(reader):
            pass
        waiting.wait_until(lambda: CHATTER in read(reader))
        pair.check()
    finally:
        os.close(reader)


def test_standard_error_whose_reader_ends(lab):
    """A broken pipe for whoever writes, and no more."""
    fifo = lab.path("stderr")
    os.mkfifo(fifo)
    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
    pair = chatty_pair(lab, f"2>{fifo}")
    settle(pair)
    waiting.wait_until(lambda: CHATTER in read(reader))
    os.close(reader)
    pair.lb.wait_cycles(3, family=6)
    pair.change()
    pair.check()


def test_commands_get_the_usual_signals(lab):
    """A shell's pipeline relies on it that a broken pipe ends its first command."""
    lab.write("bin/ip", f"#!/bin/sh\ngrep SigIgn /proc/self/status > {lab.path('ignored')}\n")
    lab.routing_daemon()
    pair = WeightedPair(lab)
    pair.wait_settled()
    waiting.wait_until(lambda: lab.exists("ignored") and lab.read("ignored"))
    ignored = int(lab.read("ignored").split()[1], 16)
    assert not ignored & 1 << (signal.SIGPIPE - 1)


def read(descriptor):
    try:
        return os.read(descriptor, 1 << 16)
    except BlockingIOError:
        return b""


def fill(descriptor):
    for size in (4096, 1):
        try:
            while True:
                os.write(descriptor, b"x" * size)
        except BlockingIOError:
            pass
