"""The guide to thresholds: its configuration and its commands. Its table is in test_detection_time.py.

    router wan1 10.1.0.2 -------- f1 far1: responder
"""

from lab import pages
from lab.tool import carry_out, ctl

GUIDE = "docs/guides/thresholds.md"


def test_configuration_and_commands_of_the_guide(lab):
    """The file is sound, and a trace of the running daemon goes through it."""
    text = pages.block(GUIDE, "hold-down", "conf")
    path = lab.write("etc/wan_lb/lb.conf", text)
    checked = ctl(lab, "check", "--strict", "--offline", path)
    assert (checked.status, checked.stdout) == (0, ""), checked.stdout
    link = lab.uplink(1)
    running = text.replace("192.0.2.1", link.gateway).replace("198.51.100.7", link.gateway)
    lb = lab.start_lb(running.replace("hold-down 60", "hold-down 0"), out=lab.path("run/load-balance"))
    lb.wait_status("wan1", "active")
    lab.write("etc/wan_lb/lb.conf", running)
    commands = pages.block(GUIDE, "lbctl record", "sh")
    assert " 86400 " in commands
    made = carry_out(lab, commands.replace(" 86400 ", " 3 "))
    assert made.status == 0, made.stdout + made.stderr
    assert "wan1" in made.stdout and "wan1" in lab.read("run/trace.txt"), made.stdout
