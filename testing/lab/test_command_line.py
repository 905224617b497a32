"""Options, exits, the pid file and the detached daemon.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder (where a running daemon is needed)
"""

import os
import stat

import pytest

from lab import configtext, daemon, waiting
from lab.configtext import ping

USAGE = """lb -ftviodh
  -f [file] configuration file
  -t load configuration file only and exit
  -i specify location of pid directory
  -o specify location of output directory
  -d run as daemon
  -h help
"""


@pytest.mark.parametrize("arguments", [["-h"], ["-x"], ["-t", "-h"], ["--help"], ["-f"], ["-vZ"]])
def test_usage(lab, arguments):
    process = lab.run_lb("", argv=arguments)
    assert (process.status, process.stdout) == (0, USAGE)


@pytest.mark.parametrize("arguments", [[], ["-t"], ["-f", ""], ["-v", "-o", "/tmp"], ["-f", "/x", "-f", ""],
                                       ["stray"]])
def test_no_configuration_path(lab, arguments):
    pid_file = lab.path("run/lb.pid")
    process = lab.run_lb("", argv=[*arguments, "-i", pid_file])
    assert (process.status, process.stdout) == (0, "Configuration file is empty\n")
    assert not os.path.exists(pid_file)


def test_load_only(lab):
    link = lab.uplink(1)
    process = lab.run_lb(configtext.single(link), "-t", "-i", lab.path("run/lb.pid"))
    assert (process.status, process.stdout) == (0, "")
    assert lab.read("run/lb.pid") == f"{process.pid}\n", "the pid file is written before the file is read"
    assert not os.listdir(lab.daemons[0].out) and not link.responder.arp_requests


def test_load_only_of_a_missing_file(lab):
    process = lab.run_lb(None, argv=["-t", "-f", "/no/such/file"])
    assert process.status == 0
    record = lab.log.wait_for("^%WAN-W-ERR: wan_lb: configuration file not found: /no/such/file$")
    assert record.level == 4 and record.tag == "wan_lb" and record.pid == process.pid and record.facility == 3


def test_the_last_option_wins(lab):
    lab.write("bad.conf", "rule x_ipv4 {\n}\n")
    process = lab.run_lb("rule y_ipv4 {\n}\n", argv=["-f", lab.path("bad.conf"), "-t", "-f", lab.path("lb.conf")])
    assert process.status == 0
    lab.log.wait_for("Illegal rule number: y_ipv4")
    assert not lab.log.matching("x_ipv4")


@pytest.mark.parametrize("mask", ["0", "077"])
def test_pid_file_mode(lab, mask):
    """The file's mode does not depend on the caller's mask, which is back in force afterwards."""
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link), "-v", "-i", lab.path("run/lb.pid"),
                      prefix=["sh", "-c", f'umask {mask}; exec "$@"', "sh"])
    lb.report()
    assert lab.read("run/lb.pid") == f"{lb.pid}\n"
    assert stat.S_IMODE(os.stat(lab.path("run/lb.pid")).st_mode) == 0o644
    assert stat.S_IMODE(os.stat(os.path.join(lb.out, "wlb_dump")).st_mode) == 0o777 & ~int(mask, 8)


def test_pid_file_cannot_be_written(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link), "-i", "/no/such/dir/lb.pid")
    lab.log.wait_for("^%WAN-W-ERR: Can't fopen pid lock file /no/such/dir/lb.pid, continuing$")
    lb.wait_status("wan1", "active")


def test_detached(lab):
    link = lab.uplink(1)
    started = lab.start_lb(configtext.single(link, [ping(link.gateway)]), "-d", "-i", lab.path("run/lb.pid"))
    assert started.expect_end() == 0
    waiting.wait_until(lambda: lab.exists("run/lb.pid") and lab.read("run/lb.pid"))
    child = lab.adopt_daemon(int(lab.read("run/lb.pid")), started.out)
    assert child.pid != started.pid
    child.wait_status("wan1", "active")
    # Its descriptors lead to the null device, so that nothing else gets their numbers.
    for number in range(3):
        target = lab.run(["readlink", f"/proc/{child.pid}/fd/{number}"]).stdout.strip()
        assert target.endswith("/dev/null"), target
    # Nothing else is detached: process group, session, directory.
    group, session = lab.run(["ps", "-o", "pgid=,sid=", "-p", str(child.pid)]).stdout.split()
    assert int(group) == started.pid
    assert session == lab.run(["ps", "-o", "sid=", "-p", "1"]).stdout.strip()  # the one that it was started in
    assert lab.run(["readlink", f"/proc/{child.pid}/cwd"]).stdout == "/\n"
    assert {request.identifier for request in link.responder.requests} == {child.pid & 0xFFFF}
    assert child.alive


def test_default_output_directory(lab):
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link), argv=["-f", lab.path("lb.conf")], out=lab.path("run/load-balance"))
    lb.wait_status("wan1", "active")
    assert os.path.isdir(lab.path("run/load-balance/wlb_dump"))


@pytest.mark.parametrize("text", ["", "# nothing\n\n", "health {\n}\n"])
def test_nothing_to_do(lab, text):
    """Without interfaces and rules no thread is started; the process stays."""
    lb = lab.start_lb(text)
    waiting.never(lambda: not lb.alive or os.listdir(lb.out), 1)


def test_termination_needs_no_cleanup(lab):
    """There is no orderly stop: the default action of SIGTERM ends it in the middle of a cycle."""
    link = lab.uplink(1)
    lb = lab.start_lb(configtext.single(link))
    lb.report()
    orderly = daemon.ends_by_itself_on_sigterm(daemon.program())
    assert lb.stop() == (0 if orderly else -15)
