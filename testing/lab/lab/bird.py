"""The real routing daemon, BIRD 2, in the lab's network namespace, including the files that our daemon writes."""

import os
import signal

from . import waiting

# The files are named with a pattern, since a missing file would be an error and none exist at first.
CONFIG = """log "{log}" all;
router id 10.0.0.1;
ipv4 table master4;
ipv6 table master6;
protocol device {{ scan time 1; }}
protocol direct {{ ipv4; ipv6; }}
protocol kernel kernel4 {{
  scan time 1;
  merge paths on;
  ipv4 {{ table master4; import none; export where source = RTS_STATIC; }};
}}
protocol kernel kernel6 {{
  scan time 1;
  merge paths on;
  ipv6 {{ table master6; import none; export where source = RTS_STATIC; }};
}}
include "/usr/etc/routing-wlb.con[f]";
include "/usr/etc/routing-wlb6.con[f]";
"""

# What an administrator takes from docs/running.md, with {log} for the place of a log. Both files must exist. The kernel
# drops routes in silence when an interface loses its last address: only a look at them tells bird, which by itself
# looks once a minute.
README_CONFIG = """log "{log}" all;
router id 10.0.0.1;
ipv4 table master4;
ipv6 table master6;
protocol device {{ }}
protocol kernel {{ ipv4 {{ export all; }}; merge paths on; scan time 5; }}
protocol kernel {{ ipv6 {{ export all; }}; merge paths on; scan time 5; }}
include "/usr/etc/routing-wlb.conf";
include "/usr/etc/routing-wlb6.conf";
"""


class Bird:
    """A running bird; its pid stands in /var/run/routing.pid, where our daemon looks for it."""

    def __init__(self, lab, config=None):
        """`config`: the whole configuration, in place of one that also writes bird.log."""
        self.lab = lab
        lab.write("etc/bird.conf", config or CONFIG.format(log=lab.path("bird.log")))
        self.process = lab.enclosure.spawn(
            ["bird", "-f", "-c", "/etc/bird.conf", "-P", "/var/run/routing.pid", "-s", "/run/bird.ctl"])
        waiting.wait_until(lambda: lab.exists("run/routing.pid") or self.process.status is not None,
                           "the routing daemon's pid file")
        assert self.process.status is None, self.process.stderr

    def kill(self):
        """Ends it as a crash does: its routes stay in the kernel; the pid file goes, as a supervisor sees to."""
        self.process.signal(signal.SIGKILL)
        self.process.wait()
        os.unlink(self.lab.path("run/routing.pid"))

    def log(self):
        return self.lab.read("bird.log")

    def reconfigured(self):
        """How often it took a new configuration; a refused one raises."""
        # What it says of other programs' routes is of no concern.
        text = "\n".join(line for line in self.log().splitlines() if "<ERR> KRT: Received route" not in line)
        assert "syntax error" not in text and "<ERR>" not in text, text
        return text.count("Reconfigured")
