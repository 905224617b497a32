"""The labs of failed scenarios go on when they are to be kept, those of the others never."""

import os
import re
import shutil
import signal
import subprocess

import pytest

from lab import waiting
from lab.inner_session import InnerSession

SCENARIOS = """import pytest
def begin(lab):
    with open(lab.path("top"), "w") as file:
        file.write("of this lab")
    with open("tops", "a") as file:
        file.write(lab.enclosure.top + "\\n")
    lab.enclosure.spawn(["sleep", "1000"])

def test_passes(lab):
    begin(lab)

def test_fails(lab):
    begin(lab)
    assert False

@pytest.fixture
def world(lab):
    begin(lab)
    assert False

def test_setup_fails(world):
    pass
"""


@pytest.mark.skipif(not shutil.which("nsenter"), reason="nsenter is not installed")
@pytest.mark.parametrize("options", [(), ("-n", "2")], ids=["alone", "workers"])
def test_failed_ones_are_kept(tmp_path, options):
    session = InnerSession(tmp_path, SCENARIOS, *options, LB_LAB_KEEP="1")
    kept = re.findall(r"^Enter the lab of test_scenarios.py::(\w+) with\n  (nsenter --target (\d+) .*) bash\n"
                      r"End it, .*\n  kill -KILL \3; rm -r (\S+)$", session.text, re.M)
    try:
        assert {name for name, *_ in kept} == {"test_fails", "test_setup_fails"}, session.text
        for _, command, _, top in kept:
            inside = subprocess.run([*command.split(), "sh", "-c", f"cat {top}/top; cat /proc/[0-9]*/comm"],
                                    capture_output=True, text=True, check=True).stdout
            assert inside.startswith("of this lab") and "sleep" in inside
        tops = (tmp_path / "tops").read_text().split()
        assert len(tops) == 3 and {top for top in tops if os.path.exists(top)} == {top for *_, top in kept}
    finally:
        for _, _, pid, top in kept:
            os.kill(int(pid), signal.SIGKILL)
            waiting.wait_until(lambda number=pid: not os.path.exists(f"/proc/{number}"))
            shutil.rmtree(top)


def test_none_is_kept_unasked(tmp_path):
    session = InnerSession(tmp_path, SCENARIOS)
    assert "Enter the lab" not in session.text and session.process.returncode == 1
    tops = (tmp_path / "tops").read_text().split()
    assert len(tops) == 3 and not any(map(os.path.exists, tops))
