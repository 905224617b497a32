"""The demonstration: the two-uplink network, told in plain words as it happens. See scripts/demo."""

import os
import random
import re
import shutil
import signal
import socket
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from lab import tool, waiting  # noqa: E402  pylint: disable=wrong-import-position
from lab.two_uplinks import TwoUplinks  # noqa: E402  pylint: disable=wrong-import-position

SERVERS = {4: "203.0.113.1", 6: "2001:db8:ffff::1"}
STAGE_SECONDS = 20

_COLOURED = sys.stdout.isatty() and "NO_COLOR" not in os.environ
_CODES = {"bold": "1", "green": "32", "red": "31", "yellow": "33", "dim": "2"}


def paint(text, colour):
    return f"\033[{_CODES[colour]}m{text}\033[0m" if _COLOURED else text


class StageFailed(Exception):
    pass


class Traffic:
    """Datagrams from the router to a server that both far ends serve, each a flow of its own."""

    INTERVAL = 0.02

    def __init__(self, network):
        self.received = {(family, number): 0 for family in SERVERS for number in (1, 2)}
        self.sent = {family: 0 for family in SERVERS}
        lab = network.lab
        lab.sysctl("net.ipv4.fib_multipath_hash_policy=1", "net.ipv6.fib_multipath_hash_policy=1")
        self._senders, self._receivers = {}, []
        for family, server in SERVERS.items():
            kind = socket.AF_INET6 if family == 6 else socket.AF_INET
            self._senders[family] = lab.enclosure.socket(kind, socket.SOCK_DGRAM)
            for number in (1, 2):
                far = network.links[number].far
                lab.ip(f"addr add {server}/{128 if family == 6 else 32} dev lo" + (" nodad" if family == 6 else ""),
                       "link set lo up", netns=far)
                receiver = lab.enclosure.socket(kind, socket.SOCK_RAW, socket.IPPROTO_UDP, netns=far)
                receiver.setblocking(False)
                self._receivers.append((family, number, receiver))
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._stop.wait(self.INTERVAL):
            for family, sender in self._senders.items():
                self.sent[family] += 1
                try:
                    sender.sendto(b"demo", (SERVERS[family], random.randrange(10000, 60000)))
                except OSError:
                    pass  # no route yet: sent and lost
            for family, number, receiver in self._receivers:
                try:
                    while receiver.recv(2048):
                        self.received[family, number] += 1
                except BlockingIOError:
                    pass

    def stop(self):
        self._stop.set()
        self._thread.join()

    def measure(self, family, seconds=1.0):
        """(share of link 1, share of link 2, share lost) of what is sent from now on, in percent."""
        sent, before = self.sent[family], dict(self.received)
        time.sleep(seconds)
        count = max(1, self.sent[family] - sent)
        shares = [100 * (self.received[family, number] - before[family, number]) / count for number in (1, 2)]
        return (*shares, max(0.0, 100 - sum(shares)))


class Demonstration:
    def __init__(self, network):
        self.network = network
        self.traffic = None
        self.began = time.monotonic()
        self.times = []
        self._seen_log = 0

    def say(self, text, colour=None):
        stamp = paint(f"{time.monotonic() - self.began:6.1f} s ", "dim")
        print(stamp + (paint(text, colour) if colour else text), flush=True)

    def tell_states(self):
        """Prints the state changes that the daemon has logged since the last call."""
        lines = self.network.lab.log.text().splitlines()
        for line in lines[self._seen_log:]:
            found = re.search(r"(IP(?:v6)?) interface (\S+) changed state to (\w+)", line)
            if found:
                family = "IPv6" if found[1] == "IPv6" else "IPv4"
                active = found[3] == "active"
                self.say(f"  lb: {found[2]} ({family}) is {'ACTIVE' if active else 'FAILED'}",
                         "green" if active else "red")
        self._seen_log = len(lines)

    def wait(self, what, condition):
        """Waits for a stage with a progress line; returns the seconds that it took."""
        start = time.monotonic()
        while not condition():
            waited = time.monotonic() - start
            if waited > STAGE_SECONDS:
                raise StageFailed(f"{what}: not within {STAGE_SECONDS} s")
            if _COLOURED:
                print(f"\r         waiting: {what} ... {waited:4.1f} s", end="\r", flush=True)
            time.sleep(0.02)
            if _COLOURED:
                print("\033[K", end="")
            self.tell_states()
        self.tell_states()
        return time.monotonic() - start

    def wait_each_family(self, what, condition):
        start = time.monotonic()
        for family in (4, 6):
            self.wait(f"{what} (IPv{family})", lambda f=family: condition(f))
            elapsed = time.monotonic() - start
            self.times.append((f"{what}, IPv{family}", elapsed))

    def show_routes(self):
        for family in (4, 6):
            print(paint(f"         route file of IPv{family}:", "bold"))
            for line in self.network.route_file(family).splitlines():
                if line.startswith("route"):
                    print("           " + line)
            print(paint(f"         the kernel's IPv{family} default route:", "bold"))
            for line in self.network.kernel_routes(family).splitlines():
                print("           " + " ".join(line.split()))

    def has_dumps(self):
        return all(os.path.exists(os.path.join(self.network.lb.out, "wlb_dump", f"wlb_ipv{family}_outbounds.bin"))
                   for family in (4, 6))

    def show_status(self):
        """What an administrator sees on the router."""
        print(paint("         $ lbctl status", "bold"))
        for line in tool.ctl(self.network.lab, "status", "-o", self.network.lb.out).stdout.splitlines():
            print("           " + line)

    def begin_timeline(self):
        """Has all that the daemon finds recorded."""
        return self.network.lab.enclosure.spawn([tool.program(), "record", "-o", self.network.lb.out])

    def draw_timeline(self, recorder):
        """Draws what was recorded into DEMO_SVG, if that is set."""
        recorder.signal(signal.SIGTERM)
        recorder.wait()
        picture = os.environ.get("DEMO_SVG")
        if not picture:
            return
        lab = self.network.lab
        drawn = lab.path("run/demo.svg")
        done = tool.ctl(lab, "simulate", lab.write("run/demo.conf", self.network.config_text),
                        lab.write("run/demo.trace", recorder.stdout), "--svg", drawn,
                        # To where the last outcome has shown its effect.
                        "--until", str(int(max(map(float, re.findall(r"^[\d.]+", recorder.stdout, re.M)))) + 3))
        if done.status != 0:
            raise StageFailed(f"the timeline was not drawn: {done.stderr}")
        shutil.copy(drawn, picture)
        self.say(f"The timeline of this run is in {picture}.", "bold")

    def show_traffic(self, expected):
        """expected: the links that must carry traffic now; the others must carry none."""
        for family in (4, 6):
            one, two, lost = self.traffic.measure(family)
            self.say(f"  IPv{family} traffic: link 1 {one:3.0f} %, link 2 {two:3.0f} %, lost {lost:3.0f} %")
            carried = {number for number, share in ((1, one), (2, two)) if share > 0}
            if carried != expected or lost > 20:
                raise StageFailed(f"IPv{family} traffic was to use link "
                                  f"{' and '.join(map(str, sorted(expected)))}")

    def run(self):
        network = self.network
        self.say("Two uplinks, wan1 (weight 1) and wan2 (weight 2); starting bird2 and lb.", "bold")
        network.start()
        self.traffic = Traffic(network)
        self.wait("the daemon's first dumps", self.has_dumps)
        recorder = self.begin_timeline()
        self.wait_each_family("start to routes by both links", network.uses_both)
        self.say("Both links are up.", "bold")
        self.show_status()
        self.show_routes()
        self.show_traffic({1, 2})

        self.say("Cutting link 1: its far end goes silent, the cable stays in.", "bold")
        network.cut(1)
        self.wait_each_family("cut of link 1 to routes by link 2 only", lambda family: network.uses_only(2, family))
        self.say("Traffic has moved to link 2.", "bold")
        self.show_status()
        self.show_routes()
        self.show_traffic({2})

        self.say("Restoring link 1.", "bold")
        network.restore(1)
        self.wait_each_family("return of link 1 to routes by both links", network.uses_both)
        self.say("Traffic is back on both links.", "bold")
        self.show_routes()
        self.show_traffic({1, 2})

        self.draw_timeline(recorder)
        print(paint("\nMeasured switch times", "bold"))
        for what, seconds in self.times:
            print(f"  {what:<50} {seconds:5.2f} s")


def main(arguments):
    keep = arguments == ["--keep"]
    network = TwoUplinks()
    demonstration = Demonstration(network)
    try:
        demonstration.run()
        if keep:
            demonstration.traffic.stop()
            print("\nThe lab goes on; enter it with\n  " + network.leave_running())
        return 0
    except (StageFailed, waiting.TimedOut) as problem:
        print(paint(f"\nThe demonstration failed: {problem}", "red"), file=sys.stderr)
        print("The daemon's log:\n" + network.lab.log.text(), file=sys.stderr)
        return 1
    finally:
        if demonstration.traffic:
            demonstration.traffic.stop()
        network.close()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
