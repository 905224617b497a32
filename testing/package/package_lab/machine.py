"""A machine of its own: systemd as process 1 of namespaces, with a copy of a tree as its root.

    machine eth0 ------- isp1: answers ARP, neighbour discovery and echo requests as any kernel does
    machine eth1 ------- isp2
"""

import json
import os
import signal
import subprocess
import time

_START = r"""
set -e
root=$1
mount --make-rprivate /
mount -t proc proc "$root/proc"
mount -t sysfs sysfs "$root/sys"
mount -t tmpfs tmpfs "$root/run"
mount -t tmpfs tmpfs "$root/tmp"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs tmpfs "$root/dev"
mkdir "$root/dev/pts" "$root/dev/shm" "$root/dev/mqueue" "$root/dev/hugepages"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
for device in null zero full random urandom tty; do
  touch "$root/dev/$device"
  mount --bind "/dev/$device" "$root/dev/$device"
done
mount -t devpts devpts "$root/dev/pts" -o newinstance,ptmxmode=0666
cd "$root"
mkdir -p mnt/host
pivot_root . mnt/host
# From the new root on: what the host has is out of reach.
exec env -i container=lab PATH=/usr/sbin:/usr/bin:/sbin:/bin sh -c \
  'umount -l /mnt/host && rmdir /mnt/host && exec /lib/systemd/systemd --system --show-status=no'
"""

_PATIENCE = 60
_OF_THE_MONITOR = "240.0.0.1"  # a change that is made until it is seen


def wait_until(condition, what, timeout=_PATIENCE):
    deadline = time.monotonic() + timeout
    while True:
        found = condition()
        if found:
            return found
        assert time.monotonic() < deadline, f"waited in vain for {what() if callable(what) else what}"
        time.sleep(0.1)


def _control_group():
    """A new control group of the second version, for systemd to have its own below."""
    with open("/proc/mounts", encoding="ascii") as mounts:
        places = [line.split()[1] for line in mounts if line.split()[2] == "cgroup2"]
    assert places, "no cgroup2 file system is mounted"
    path = os.path.join(places[0], f"wan-lb-test-{os.getpid()}-{time.monotonic_ns()}")
    os.mkdir(path)
    return path


def _remove_groups(path):
    for top, names, _ in os.walk(path, topdown=False):
        for name in names:
            os.rmdir(os.path.join(top, name))
    os.rmdir(path)


class Isp:
    """A far end: a network namespace with a link to the machine."""

    def __init__(self, machine, device, addresses):
        self._holder = subprocess.Popen(["unshare", "-n", "sleep", "infinity"])
        wait_until(lambda: os.readlink(f"/proc/{self._holder.pid}/ns/net") != os.readlink("/proc/self/ns/net"),
                   "the namespace of an ISP")
        machine.in_network("ip", "link", "add", device, "type", "veth", "peer", "name", "customer", "netns",
                           str(self._holder.pid))
        machine.in_network("ip", "link", "set", device, "up")
        self.run("sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0",
                 "net.ipv6.conf.customer.accept_dad=0")
        self.run("ip", "link", "set", "lo", "up")
        for address in addresses:
            device_here = "lo" if address.endswith(("/32", "/128")) else "customer"
            self.run("ip", "address", "add", address, "dev", device_here)
        self.run("ip", "link", "set", "customer", "up")

    def run(self, *argv):
        subprocess.run(["nsenter", "-t", str(self._holder.pid), "-n", "--", *argv], check=True, timeout=_PATIENCE)

    def answers(self, yes):
        """Whether it answers echo requests; the link stays up either way."""
        ignore = 0 if yes else 1
        self.run("sysctl", "-qw", f"net.ipv4.icmp_echo_ignore_all={ignore}", f"net.ipv6.icmp.echo_ignore_all={ignore}")

    def close(self):
        self._holder.kill()
        self._holder.wait()


class Machine:
    def __init__(self, root):
        self._group = _control_group()
        self._isps = []
        join = f"echo $$ >{self._group}/cgroup.procs && exec unshare -m -p -n -u -i -C --fork --kill-child " \
               "bash -c \"$0\" bash \"$1\""
        self._process = subprocess.Popen(["bash", "-c", join, _START, root], stdin=subprocess.DEVNULL,
                                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        try:
            self._init = wait_until(self._find_init, "process 1 of the machine")
            wait_until(self._has_booted, "the machine to boot")
        except BaseException:
            self.close()
            raise

    def _find_init(self):
        assert self._process.poll() is None, self._process.stdout.read()
        with open(f"/proc/{self._process.pid}/task/{self._process.pid}/children", encoding="ascii") as children:
            for child in children.read().split():
                with open(f"/proc/{child}/cmdline", encoding="utf-8") as command:
                    if command.read().startswith("/lib/systemd/systemd"):
                        return int(child)
        return None

    def _has_booted(self):
        return self.run("systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded")

    def _enter(self, argv):
        return ["nsenter", "-t", str(self._init), "-m", "-p", "-n", "-u", "-i", "-C", "--", "/usr/bin/env", "-i",
                "PATH=/usr/sbin:/usr/bin:/sbin:/bin", *argv]

    def run(self, *argv, check=True, stdin=None):
        done = subprocess.run(self._enter(argv), input=stdin, capture_output=True, text=True, check=False,
                              timeout=_PATIENCE * 2)
        assert not check or done.returncode == 0, \
            f"{argv}: {done.returncode}\n{done.stdout}{done.stderr}\n{self.journal()}"
        return done

    def in_network(self, *argv):
        """A program of this host, in the machine's network."""
        subprocess.run(["nsenter", "-t", str(self._init), "-n", "--", *argv], check=True, timeout=_PATIENCE)

    def ip_json(self, *what):
        """What ip shows; of a table that has never had a route nothing."""
        told = self.run("ip", "-j", *what, check=False)
        return [entry for entry in json.loads((told.stdout if told.returncode == 0 else "") or "[]") if entry]

    def journal(self, unit="wan-lb"):
        return subprocess.run(self._enter(["journalctl", "--no-pager", "-o", "cat", "-u", unit, "-n", "60"]),
                              capture_output=True, text=True, check=False).stdout

    def write(self, path, text):
        self.run("sh", "-c", 'mkdir -p "$(dirname "$1")" && cat >"$1"', "sh", path, stdin=text)

    def read(self, path):
        return self.run("cat", path).stdout

    def wait_found_active(self, links):
        """The daemon that runs now has found so many links active. Its files do not say that: until it has written them
        they are those of the one before."""
        def found():
            pid = self.run("systemctl", "show", "-P", "MainPID", "wan-lb").stdout.strip()
            told = self.run("journalctl", "-q", "--no-pager", "-o", "cat", f"_PID={pid}", check=False).stdout
            return told.count("changed state to active") == links

        wait_until(found, self.journal)

    def watch_routes(self, vrf=None):
        """From now on changed_routes tells every change of a route, in the VRF if one is named."""
        ip = ["ip", *(["-n", vrf] if vrf else [])]
        self.run("sh", "-c", f"exec {' '.join(ip)} -o monitor route >{self._changes(vrf)} 2>&1 &")

        def sees():
            # The kernel says nothing of a route that is replaced by itself.
            self.run(*ip, "route", "add", "blackhole", _OF_THE_MONITOR)
            self.run(*ip, "route", "del", "blackhole", _OF_THE_MONITOR)
            return _OF_THE_MONITOR in self.read(self._changes(vrf))

        wait_until(sees, "the monitor to see a change")

    def changed_routes(self, vrf=None):
        """A line each."""
        return [line for line in self.read(self._changes(vrf)).splitlines() if _OF_THE_MONITOR not in line]

    @staticmethod
    def _changes(vrf):
        return f"/run/routes.{vrf or 'default'}"

    def isp(self, device, *addresses):
        isp = Isp(self, device, addresses)
        self._isps.append(isp)
        return isp

    def close(self):
        for isp in self._isps:
            isp.close()
        os.kill(self._process.pid, signal.SIGKILL)  # its child goes with it, and so all of the machine
        self._process.wait()
        self._process.stdout.close()
        wait_until(lambda: not open(f"{self._group}/cgroup.procs", encoding="ascii").read(),  # pylint: disable=consider-using-with
                   "the machine's processes to end")
        wait_until(self._groups_are_gone, "the machine's control groups to be empty")

    def _groups_are_gone(self):
        try:
            _remove_groups(self._group)
        except OSError:
            return False
        return True
