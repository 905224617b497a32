"""The lab that a scenario gets: private namespaces with everything that belongs to the daemon's world."""

import json
import os
import signal
import sys

from . import daemon, network, responder, waiting
from .enclosure import Enclosure, Process
from .logsink import LogSink, NotifySink
from .nameserver import NameServer
from .sniffer import Sniffer

_FAKES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes")

# Runs before the real command and leaves a line in ip.calls: network namespace, arguments.
_RECORDING_IP = """#!/bin/sh
printf '%s %s\\n' "$(readlink /proc/self/ns/net)" "$*" >> {top}/ip.calls
PATH=/usr/sbin:/usr/bin:/sbin:/bin exec ip "$@"
"""


class Lab:
    """Use as a context manager. Paths: `lab.path("run/...")` is /run/... inside, and so on (rootview.PRIVATE)."""

    def __init__(self, user_namespace=True):
        self.enclosure = Enclosure(user_namespace)
        self.path = self.enclosure.path
        self.daemons = []
        self._closers = []
        self.log = self.closing(LogSink(self.path("dev/log")))
        self.write("etc/wan_lb/log-flags", "34 3\nrepeats all\n")
        self.write("bin/ip", _RECORDING_IP.format(top=self.enclosure.top))
        os.chmod(self.path("bin/ip"), 0o755)
        self.sysctl(*network.quiet_settings())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def closing(self, thing):
        """Has `thing` closed when the lab ends."""
        self._closers.append(thing.close)
        return thing

    def discard(self, thing):
        """Closes `thing` now."""
        self._closers.remove(thing.close)
        thing.close()

    # Files

    def write(self, name, text):
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def read(self, name):
        with open(self.path(name), encoding="utf-8") as file:
            return file.read()

    def replace(self, name, text):
        """Writes a file as a program does that never shows half of it."""
        self.write(name + ".new", text)
        os.rename(self.path(name + ".new"), self.path(name))

    def exists(self, name):
        return os.path.exists(self.path(name))

    def hide(self, name):
        """Takes a host's file out of /etc, for example "protocols"."""
        os.unlink(self.path(f"etc/{name}"))

    def replace_etc(self, name, text):
        """Puts a private file in the place of a host's file in /etc."""
        if os.path.lexists(self.path(f"etc/{name}")):
            self.hide(name)
        self.write(f"etc/{name}", text)

    def wait_text(self, name, text, timeout=waiting.PATIENCE):
        """Waits until a file is exactly `text`."""

        def current():
            return self.read(name) if self.exists(name) else None

        waiting.wait_until(lambda: current() == text,
                           lambda: f"{name} to be:\n{text}\n--- it is:\n{current()}\n--- log:\n{self.log.text()}",
                           timeout=timeout)

    # Commands

    def run(self, argv, netns=None, **options):
        return self.enclosure.run(argv, netns, **options)

    def ip(self, *lines, netns=None):
        """Runs `ip` with each of the lines."""
        if len(lines) == 1:
            return self.run(["ip", *lines[0].split()], netns)
        return self.run(["ip", "-batch", "-"], netns, stdin_text="\n".join(lines) + "\n")

    def ip_text(self, line, netns=None):
        return self.run(["ip", *line.split()], netns).stdout

    def sysctl(self, *settings, netns=None):
        self.enclosure.sysctl(settings, netns)

    def nft(self, text, netns=None):
        """Loads nftables rules."""
        self.run(["nft", "-f", "-"], netns, stdin_text=text + "\n")

    def cut(self, far):
        """That namespace goes silent for all that comes in; its links stay up, so that only probing finds out."""
        self.nft("table inet cut {\nchain receive {\ntype filter hook prerouting priority -300;\ndrop\n}\n}", netns=far)

    def restore(self, far):
        self.run(["nft", "delete", "table", "inet", "cut"], netns=far)

    def drop_invalid(self, netns=None):
        """A firewall on the way in that drops what the connection tracker does not know, and counts it."""
        self.nft("table inet firewall {\nchain input {\ntype filter hook input priority 0;\n"
                 "ct state invalid counter drop\n}\n}", netns)

    def dropped(self, netns=None):
        """Packets that drop_invalid has dropped."""
        text = self.run(["nft", "list", "table", "inet", "firewall"], netns).stdout
        return int(text.split("counter packets ")[1].split()[0])

    def ip_calls(self, netns_inode=None):
        """Argument texts of the `ip` commands that the daemon ran, in order."""
        if not self.exists("ip.calls"):
            return []
        calls = [line.split(" ", 1) for line in self.read("ip.calls").splitlines()]
        return [arguments for inode, arguments in calls if netns_inode in (None, inode)]

    # Network

    def add_netns(self, name):
        """A named network namespace: a far end, or a VRF of the daemon."""
        self.enclosure.add_netns(name)
        self.sysctl(*network.quiet_settings(), netns=name)
        return name

    def netns_inode(self, name=None):
        """What readlink says of the namespace, for ip_calls."""
        return self.run(["readlink", "/proc/self/ns/net"], name).stdout.strip()

    def uplink(self, number, name=None, vrf=None, far_end="responder", arp=True, ipv6=False, target=None,
               target6=None):
        """A link to a new far end.

        far_end: "responder" (Uplink.responder answers as told) or "kernel" (the far namespace has the gateway's
        addresses and, on its loopback, `target` and `target6`). arp=False makes the router's side a no-ARP
        interface. ipv6 adds IPv6 addresses; without it the link carries no IPv6 at all.
        """
        link = network.Uplink(self, number, name or f"wan{number}", vrf)
        self.add_netns(link.far)
        far_ipv6 = ipv6 and far_end == "kernel"
        if not far_ipv6:
            self.sysctl("net.ipv6.conf.default.disable_ipv6=1", netns=link.far)
        self.ip(f"link add {link.name} address {link.mac} type veth peer name {link.far_name}"
                f" address {link.far_mac} netns {link.far}", netns=vrf)
        if not ipv6:
            self.sysctl(f"net.ipv6.conf.{link.name}.disable_ipv6=1", netns=vrf)
        near = [f"link set {link.name} {'' if arp else 'arp off '}up", f"addr add {link.address}/24 dev {link.name}"]
        if ipv6:
            near.append(f"addr add {link.address6}/64 dev {link.name} nodad")
        self.ip(*near, netns=vrf)
        far = [f"link set {link.far_name} up"]
        if far_end == "kernel":
            far.append(f"addr add {link.gateway}/24 dev {link.far_name}")
            if ipv6:
                far.append(f"addr add {link.gateway6}/64 dev {link.far_name} nodad")
            far += [f"addr add {address} dev lo" for address in (target, target6) if address]
        self.ip(*far, netns=link.far)
        if far_end == "responder":
            link.responder = self.closing(responder.Responder(self.enclosure, link.far_name, link.far))
        return link

    def sniffer(self, interface, netns=None, ethernet=True):
        return self.closing(Sniffer(self.enclosure, interface, netns, ethernet))

    def tun_peer(self, name, address, peer, netns=None):
        """A tun device with a point-to-point address (IPv4 or IPv6 text), and the program behind it."""
        made = self.closing(network.TunPeer(self.enclosure, name, netns))
        options = " nodad" if ":" in address else ""
        self.ip(f"link set {name} up", f"addr add {address} peer {peer} dev {name}{options}", netns=netns)
        return made

    def neighbours(self, device, netns=None, ipv6=False):
        """{address: line} of the kernel's neighbour table for one device."""
        text = self.ip_text(f"-{6 if ipv6 else 4} neigh show dev {device}", netns)
        return {line.split()[0]: line for line in text.splitlines()}

    # The daemon and its surroundings

    def start_lb(self, config_text, *args, out=None, argv=None, env=None, netns=None, nofile=0, config="lb.conf",
                 prefix=()):
        """Starts the daemon with "-f CONFIG -o OUT" and further arguments, or with exactly `argv`.

        `prefix` is a command that starts the daemon, for example ["env", "-i"].
        """
        program = daemon.program()
        assert os.path.exists(program), f"{program} is missing: build the daemon, or name it in LB_PROGRAM"
        out = out or self.path(f"out{len(self.daemons) or ''}")
        os.makedirs(os.path.dirname(out), exist_ok=True)
        if not os.path.lexists(out):
            os.mkdir(out)
        if config_text is not None:
            self.write(config, config_text)
        if argv is None:
            argv = ["-f", self.path(config), "-o", out, *args]
        environment = {**daemon.sanitizer_environment(self.path("san")),
                       "PATH": f"{self.path('bin')}:/usr/sbin:/usr/bin:/sbin:/bin", **(env or {})}
        if nofile:
            # As usual the soft limit is lower: a program that needs more raises it.
            prefix = ["prlimit", f"--nofile={min(nofile, 1024)}:{nofile}", *prefix]
        process = self.enclosure.spawn([*prefix, program, *argv], netns=netns, env=environment,
                                       fixed_addresses=daemon.is_thread_sanitizer(program))
        self.daemons.append(daemon.Daemon(process, out))
        return self.daemons[-1]

    def adopt_daemon(self, pid, out):
        """Takes responsibility for a daemon that has detached itself."""
        self.daemons.append(daemon.Daemon(Process(self.enclosure, pid, ["detached"], os.devnull, os.devnull), out))
        return self.daemons[-1]

    def run_lb(self, config_text, *args, **options):
        """Runs the daemon in a mode in which it ends by itself; returns its Process."""
        started = self.start_lb(config_text, *args, **options)
        started.expect_end()
        return started.process

    def routing_daemon(self, pid_file="run/routing.pid", watch=("usr_etc/routing-wlb.conf",
                                                                "usr_etc/routing-wlb6.conf")):
        """A stand-in for the routing daemon that counts SIGHUP."""
        return FakeRoutingDaemon(self, pid_file, watch)

    def name_server(self, silent=False, timeout=2):
        return self.closing(NameServer(self, silent, timeout))

    def notify_socket(self):
        return self.closing(NotifySink(self.path("notify")))

    def conntrack(self, netns=None, ipv6=False):
        """Lines of the connection tracker's table for ICMP."""
        family, protocol = ("ipv6", "icmpv6") if ipv6 else ("ipv4", "icmp")
        return self.run(["conntrack", "-L", "-f", family, "-p", protocol], netns).stdout.splitlines()

    def sanitizer_reports(self):
        reports = []
        for name in sorted(os.listdir(self.path("san"))):
            with open(self.path(f"san/{name}"), encoding="utf-8", errors="replace") as file:
                reports.append(f"{name}:\n{file.read()}")
        return reports

    def finish(self):
        """Ends the daemons and returns what went wrong in them: texts, none when all is well."""
        problems = []
        for started in self.daemons:
            if not started.end_expected:
                if not started.alive:
                    problems.append(f"the daemon ended by itself with status {started.process.status}:\n"
                                    f"{started.process.stderr}")
                else:
                    status = started.stop()
                    orderly = daemon.ends_by_itself_on_sigterm(daemon.program())
                    if status != (0 if orderly else -signal.SIGTERM):
                        problems.append(f"the daemon ended with status {status} after SIGTERM:\n"
                                        f"{started.process.stderr}")
        problems += [f"sanitizer report {text}" for text in self.sanitizer_reports()]
        return problems

    def leave_running(self):
        """The lab goes on after this process, but for its threads; returns the commands that enter and that end it."""
        # The log's reader goes with this process: another one takes its place, inside.
        self.discard(self.log)
        os.unlink(self.path("dev/log"))
        self.enclosure.spawn([sys.executable, os.path.join(_FAKES, "log_to_file.py"), "/dev/log", "/var/log/lb.log"])
        waiting.wait_until(lambda: self.exists("dev/log"), "the log's new reader")
        return self.enclosure.detach()

    def close(self):
        for close in reversed(self._closers):
            close()
        self.enclosure.close()


class FakeRoutingDaemon:
    """Counts the SIGHUPs that it gets and keeps what the watched files held at each."""

    def __init__(self, lab, pid_file, watch):
        self._events = lab.path(f"hups.{pid_file.replace('/', '_')}")
        self._process = lab.enclosure.spawn(
            [sys.executable, os.path.join(_FAKES, "routing_daemon.py"), self._events,
             lab.path(pid_file) if pid_file else "", *map(lab.path, watch)])
        self.pid = self._process.pid
        waiting.wait_until(lambda: os.path.exists(self._events), "the stand-in for the routing daemon")

    @property
    def hups(self):
        """One entry per SIGHUP: (seconds of the wall clock, {file: text})."""
        with open(self._events, encoding="utf-8") as file:
            return [json.loads(line) for line in file if line.endswith("\n")]

    @property
    def alive(self):
        return self._process.status is None

    def wait_hups(self, count, timeout=waiting.PATIENCE):
        waiting.wait_until(lambda: len(self.hups) >= count, lambda: f"{count} SIGHUP, got {self.hups}", timeout=timeout)
        return self.hups

    def stop(self):
        self._process.signal(signal.SIGKILL)
        self._process.wait()
