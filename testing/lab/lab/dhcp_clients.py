"""Real DHCP clients on the router, as Debian has them, with files of their own in the lab."""

import signal

from . import waiting

# What the stock script asks of a system that has more than a network: the lab's has not.
_ENTER_HOOKS = """make_resolv_conf() { :; }
set_hostname() { :; }
"""

_DHCLIENT_CONF = """request {};
initial-interval 1; backoff-cutoff 2; reboot 1; select-timeout 0; retry 1;
"""
_REQUESTED = {4: "subnet-mask, broadcast-address, routers", 6: "dhcp6.name-servers"}


class DhClient:
    """ISC dhclient with Debian's script, which changes addresses and routes with `ip`.

    Its default route gets `metric`, as ifupdown's keyword "metric" has it.
    """

    def __init__(self, lab, link, metric=None, lease_file=None, conf="", family=4):
        """lease_file: below the lab, for example "var_lib_dhcp/x.leases"; conf: further lines of dhclient.conf."""
        self.lab, self.link, self.family = lab, link, family
        six = "6" if family == 6 else ""
        self.lease_file = lease_file or f"var_lib_dhcp/dhclient{six}.{link.name}.leases"
        self.metric = metric or 1000 + link.number
        if not lab.exists("etc/dhcp/private"):
            # The host's hooks and settings are not the lab's.
            lab.hide("dhcp")
            lab.write("etc/dhcp/private", "")
            lab.write("etc/dhcp/dhclient-enter-hooks", _ENTER_HOOKS)
        self._conf = lab.write(f"etc/dhcp/dhclient{six}.{link.name}.conf",
                               _DHCLIENT_CONF.format(_REQUESTED[family]) + conf)
        self.process = None
        self.start()

    def _arguments(self):
        return [f"-{self.family}", "-cf", self._conf, "-lf", self.lab.path(self.lease_file), "-pf",
                f"/run/dhclient{self.family}.{self.link.name}.pid", "-e", f"IF_METRIC={self.metric}", self.link.name]

    def start(self):
        if self.family == 6:  # it asks from there, and ends where it cannot; ifupdown waits for the address too
            shown = f"-6 addr show dev {self.link.name} scope link -tentative"
            waiting.wait_until(lambda: "inet6 fe80:" in self.lab.ip_text(shown), "a link-local address")
        self.process = self.lab.enclosure.spawn(["dhclient", "-d", *self._arguments()])

    def leases(self):
        """The text of its lease file."""
        return self.lab.read(self.lease_file) if self.lab.exists(self.lease_file) else ""

    def wait_router(self, address, timeout=60):
        """Waits until the last lease names this router."""
        waiting.wait_until(
            lambda: self.leases().rpartition("option routers ")[2].startswith(address + ";"),
            lambda: f"a lease with router {address}:\n{self.leases()}\n{self.log()}", timeout=timeout)

    def log(self):
        return self.process.stderr

    def release(self):
        """Gives the lease back and ends, and the address goes."""
        self.lab.run(["dhclient", "-r", *self._arguments()])
        self.process.wait()

    def kill(self):
        """It is gone; what it has set up stays."""
        self.process.signal(signal.SIGKILL)
        self.process.wait()


class Dhcpcd:
    """dhcpcd for some links, which speaks to the kernel itself."""

    def __init__(self, lab, links, conf=""):
        """conf: further lines of dhcpcd.conf."""
        self.lab = lab
        # It would become another user, whom a user namespace does not have; a user that is missing it does without.
        lab.replace_etc("passwd", "root:x:0:0:root:/root:/bin/sh\n")
        self._names = [link.name for link in links]
        lab.write("etc/dhcpcd.conf.lab", 'nodev\nscript ""\nnoarp\nnoipv4ll\nnoipv6\noption routers\n' + conf)
        self.process = None
        self.start()

    def start(self):
        self.process = self.lab.enclosure.spawn(
            ["dhcpcd", "-B", "-4", "-d", "-f", "/etc/dhcpcd.conf.lab", *self._names])

    def stop(self):
        """Ends as a service does: addresses and routes go."""
        self.process.signal(signal.SIGTERM)
        self.process.wait()

    def log(self):
        return self.process.stdout + self.process.stderr
