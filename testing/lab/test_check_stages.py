"""The steps of the check (scripts/stages.sh): what is shown of each, and that none outlives an interrupted check."""

import os
import signal
import subprocess

import pytest

from lab import waiting

_STAGES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "scripts", "stages.sh")


def _start(directory, script):
    return subprocess.Popen(["bash", "-c", f"reports={directory}; source {_STAGES}\n{script}"],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, start_new_session=True)


def _shown(directory, script):
    process = _start(directory, script)
    text, _ = process.communicate(timeout=waiting.scaled(waiting.PATIENCE))
    return text.splitlines(), process.returncode


def test_passed_and_failed(tmp_path):
    lines, status = _shown(tmp_path, "figures() { echo figures of $1; }\n"
                                     "bad() { echo one; echo 'x: error: two'; echo 'PROBLEM  3'; return 3; }\n"
                                     "stage good true && ! stage bad bad && stage last true")
    assert status == 0
    assert lines[0].startswith("ok      good (") and lines[0].endswith(" s)")
    assert lines[1:3] == ["figures of good", lines[2]] and lines[2].startswith("FAILED  bad (")
    assert lines[3:11] == ["    PROBLEM  3", "    x: error: two", "    --- the end of bad.log:", "    one",
                           "    x: error: two", "    PROBLEM  3", "figures of bad", lines[10]]
    assert lines[10].startswith("ok      last (")
    assert [(tmp_path / f"{name}.stage").read_text().strip() for name in ("good", "bad")] == ["pass", "fail"]


def test_stages_at_once_are_not_mixed(tmp_path):
    lines, _ = _shown(tmp_path, "bad() { for ((i = 0; i < 60; i++)); do printf '%s%0390d\\n' $1 0; done; return 1; }\n"
                                "for name in a b c d e f; do stage $name bad $name & done; wait")
    assert len(lines) == 6 * 62  # the stage, where the log's end begins, the log
    for at in range(0, len(lines), 62):
        name = lines[at].split()[1]
        assert lines[at].startswith("FAILED ")
        assert {line.strip()[0] for line in lines[at + 2:at + 62]} == {name}


def test_lane_waits_for_stages_of_the_first(tmp_path):
    lines, status = _shown(tmp_path, "one() { stage good sleep 1; stage bad false; sleep 0.2; }\n"
                                     "other() { for name in good bad never; do await $name; echo $name $?; done; }\n"
                                     "what_failed() { :; }\nlanes one other")
    assert (lines[0].split()[:2], status) == (["ok", "good"], 0)
    assert [line for line in lines if line[-1] in "01"] == ["good 0", "bad 1", "never 1"]


@pytest.mark.parametrize("ending", ["true", "exit 3", "kill -INT $$; sleep 9", "kill -TERM $$; sleep 9"])
def test_shares_of_sessions_are_off_until_the_end(tmp_path, ending):
    switch = tmp_path / "switch"
    switch.write_text("1\n")
    lines, _ = _shown(tmp_path, f"one_share {switch}; (cat {switch}); cat {switch}; {ending}")
    assert lines == [f"{switch} is 0 until the end", "0", "0"]
    assert switch.read_text() == "1\n"


def test_shares_of_sessions_that_are_off_stay_so(tmp_path):
    switch = tmp_path / "switch"
    switch.write_text("0\n")
    assert _shown(tmp_path, f"one_share {switch}; one_share {tmp_path}/none; echo went on")[0] == ["went on"]
    assert switch.read_text() == "0\n"


def test_shares_of_sessions_that_cannot_be_changed(tmp_path):
    """As an ordinary user sees the switch: he may read it."""
    lines, status = _shown(tmp_path, "cat() { echo 1; }; one_share /proc/self/nothing; exit 4")
    assert "only root may change it" in lines[0] and len(lines) == 1
    assert status == 4


@pytest.mark.parametrize("may_mount", [True, False])
def test_temporary_files_in_memory(tmp_path, may_mount):
    """Who may mount something leaves none on the disk; who may not goes on there."""
    not_permitted = "" if may_mount else "unshare() { return 1; }\n"
    script = tmp_path / "script"
    script.write_text(f"source {_STAGES}\n{not_permitted}"
                      "in_memory $1 sh -c 'touch $TMPDIR/one && ls $TMPDIR && exit 3'; echo $?; ls $1\n")
    files = tmp_path / "files"
    files.mkdir()
    lines, _ = _shown(tmp_path, f"unshare -Urm bash {script} {files}")
    assert lines == ["one", "3"] + (["one"] if not may_mount else [])


def test_interrupted_lanes_end_what_they_started(tmp_path):
    process = _start(tmp_path, f"deep() {{ (echo $BASHPID >{tmp_path}/$1; sleep 1000); }}\n"
                               "one() { stage one deep first; }\nother() { stage other deep second; }\nlanes one other")
    started = [tmp_path / "first", tmp_path / "second"]
    waiting.wait_until(lambda: all(path.exists() and path.read_text() for path in started), "both lanes' programs")
    process.send_signal(signal.SIGTERM)
    assert process.wait(timeout=waiting.scaled(waiting.PATIENCE)) == 130
    waiting.wait_until(lambda: not any(os.path.exists(f"/proc/{path.read_text().strip()}") for path in started),
                       "the end of what the lanes started")


def test_stage_that_a_signal_has_ended(tmp_path):
    """What the shell says of it is not what the stage had of the processor."""
    lines, status = _shown(tmp_path, "set -u\nstage bad bash -c 'kill -ABRT $$'; stage good true")
    assert status == 0
    assert lines[0].startswith("FAILED  bad (") and lines[-1].startswith("ok      good (")
