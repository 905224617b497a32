"""A machine with the DHCP clients and network managers of Debian, and providers that serve them.

    machine eth0 ------- isp1: dnsmasq, 192.0.2.1,    fe80::1, prefix 2001:db8:1::/64; 203.0.113.1, 2001:db8:ff::1
    machine eth1 ------- isp2: dnsmasq, 198.51.100.1, fe80::1, prefix 2001:db8:2::/64; 203.0.113.2, 2001:db8:ff::2
"""

import os
import shutil
import signal
import subprocess
import tempfile

from . import guide
from .machine import wait_until

_PACKAGES = ["network-manager", "ifupdown", "isc-dhcp-client"]  # beside those that a guide installs
_OFF = ["NetworkManager", "NetworkManager-wait-online", "NetworkManager-dispatcher", "dhcpcd", "networking",
        "dnsmasq"]
# The machine has no devices for udev to tend, and is not to tend those of the host.
_MASKED = ["systemd-udevd.service", "systemd-udevd-control.socket", "systemd-udevd-kernel.socket",
           "systemd-udev-trigger.service", "systemd-udev-settle.service"]

_INSTALL = f"""
export DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin
for unit in {' '.join(_MASKED)}; do ln -s /dev/null "/etc/systemd/system/$unit"; done
echo force-unsafe-io >/etc/dpkg/dpkg.cfg.d/unsafe
apt-get update
cd /root
{guide.installation("ipv6-dynamic.md")}
apt-get install {' '.join(_PACKAGES)}
systemctl disable {' '.join(_OFF)}
"""


def install(root, deb):
    """All clients into the tree at `root`, the first of them by the guide's command with the package `deb`. None runs
    when it boots."""
    shutil.copy(deb, f"{root}/root")
    done = subprocess.run(["chroot", root, "/bin/sh", "-ec", _INSTALL], capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout[-2000:] + done.stderr[-2000:]


def prepare(machine):
    """Before any of them is started: there is no udev, which would tell them that the devices are ready."""
    # A read-only /sys is how they know.
    machine.run("mount", "-o", "remount,bind,ro", "/sys")
    machine.write("/etc/systemd/system/dhcpcd.service.d/no-udev.conf",
                  "[Service]\nExecStart=\nExecStart=/usr/sbin/dhcpcd -q -b --nodev\n")
    machine.run("systemctl", "daemon-reload")
    # No duplicate address detection, which takes seconds.
    machine.run("sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.default.accept_dad=0")


class Provider:
    """One of the two far ends, with a DHCP server that also advertises its router."""

    def __init__(self, machine, device, number):
        self._machine, self._device, self._number = machine, device, number
        self._network = {1: "192.0.2", 2: "198.51.100"}[number]
        self._directory = tempfile.TemporaryDirectory(prefix="wan-lb-provider-")
        self._isp = machine.isp(device, f"203.0.113.{number}/32", f"2001:db8:ff::{number}/128")
        # It is a router: hosts forget the default routes by one whose neighbour advertisements say otherwise (RFC 4861,
        # 7.2.5).
        self._isp.run("sysctl", "-qw", "net.ipv6.conf.all.forwarding=1")
        # Its link-local address is fe80::1 and no other.
        self._isp.run("ip", "link", "set", "customer", "addrgenmode", "none")
        self._isp.run("ip", "-6", "address", "flush", "dev", "customer")
        self._isp.run("ip", "address", "add", "fe80::1/64", "dev", "customer", "nodad")
        self.answers = self._isp.answers
        self.run = self._isp.run
        self._gateway = None
        self.serve()

    def serve(self, gateway=1, prefix=None, *more):
        """(Re)starts the server: the gateway's last number, the prefix that is advertised, further lines."""
        self._stop()
        address = f"{self._network}.{gateway}"
        prefix = prefix or f"2001:db8:{self._number}::"
        if self._gateway not in (None, address):
            self.run("ip", "address", "del", f"{self._gateway}/24", "dev", "customer")
        self._gateway = address
        self.run("ip", "address", "replace", f"{address}/24", "dev", "customer")
        self.run("ip", "address", "replace", f"{prefix}1/64", "dev", "customer", "nodad")
        lines = ["port=0", "interface=customer", "no-ping", "dhcp-authoritative", "user=root",
                 f"log-facility={self._directory.name}/log", f"dhcp-leasefile={self._directory.name}/leases",
                 f"dhcp-range={self._network}.50,{self._network}.99,2m", f"dhcp-option=option:router,{address}",
                 # Clients renew after seconds.
                 "dhcp-option=option:T1,3", "dhcp-option=option:T2,5",
                 "enable-ra", "ra-param=customer,4,60", f"dhcp-range={prefix},ra-only,64,2m", *more]
        conf = os.path.join(self._directory.name, "conf")
        with open(conf, "w", encoding="utf-8") as file:
            file.write("\n".join([*lines, ""]))
        self.run("dnsmasq", "-C", conf, f"--pid-file={self._pid_file()}")

    def log(self):
        with open(os.path.join(self._directory.name, "log"), encoding="utf-8") as file:
            return file.read()[-2000:]

    def _pid_file(self):
        return os.path.join(self._directory.name, "pid")

    def _stop(self):
        if not os.path.exists(self._pid_file()):
            return
        with open(self._pid_file(), encoding="ascii") as file:
            pid = int(file.read())
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not os.path.exists(self._pid_file()), "the DHCP server to end")

    def close(self):
        self._stop()
        self._directory.cleanup()


class PrefixServer:
    """A provider's DHCPv6 server, which delegates prefixes."""

    def __init__(self, provider, router):
        """router: the machine's link-local address there, by which the prefixes are routed."""
        self._provider, self._router = provider, router
        self._directory = tempfile.TemporaryDirectory(prefix="wan-lb-prefix-")

    def delegate(self, prefix):
        """(Re)starts the server, which knows nothing of its leases: the only prefix, a /56, that it gives."""
        self._stop()
        with open(self._path("leases"), "w", encoding="ascii"):
            pass
        with open(self._path("conf"), "w", encoding="ascii") as file:
            file.write("authoritative; default-lease-time 30; preferred-lifetime 15;\n"
                       "option dhcp-renewal-time 3; option dhcp-rebinding-time 5;\n"
                       f"subnet6 2001:db8:1::/64 {{ prefix6 {prefix} {prefix} /56; }}\n")
        self._provider.run("ip", "-6", "route", "replace", f"{prefix}/56", "via", self._router, "dev", "customer")
        self._provider.run("dhcpd", "-6", "-q", "-cf", self._path("conf"), "-lf", self._path("leases"), "-pf",
                           self._path("pid"), "customer")

    def _path(self, name):
        return os.path.join(self._directory.name, name)

    def _stop(self):
        if not os.path.exists(self._path("pid")):
            return
        with open(self._path("pid"), encoding="ascii") as file:
            pid = int(file.read())
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not os.path.exists(f"/proc/{pid}"), "the DHCPv6 server to end")
        os.unlink(self._path("pid"))

    def close(self):
        self._stop()
        self._directory.cleanup()
