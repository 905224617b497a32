"""Completion of lbctl's command line, by completing: bash-completion and an interactive shell's variables, no network."""

import os
import subprocess

import pytest

from lab import tool

_COMPLETION = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), "tools",
                           "completion", "lbctl")

# What bash does when TAB is pressed at the end of the words.
_COMPLETE = """
source /usr/share/bash-completion/bash_completion
source "$COMPLETION"
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE="$*"
COMP_POINT=${#COMP_LINE}
compopt() { :; }  # only while bash itself completes
_lbctl "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


@pytest.fixture
def complete(tmp_path):
    (tmp_path / "lb.conf").write_text("health {\n  interface wan1 {\n    namespace blue\n  }\n"
                                      "  interface wan2 { # not interface wan9\n  }\n  interface6 wan1 {\n  }\n}\n")

    def run(*words):
        # Without a slash: what follows the last word is what is being completed.
        done = subprocess.run(["bash", "-c", _COMPLETE, "bash", tool.program(), *words], cwd=tmp_path, check=True,
                              env={**os.environ, "COMPLETION": _COMPLETION}, capture_output=True, text=True, timeout=60)
        return {word.strip() for word in done.stdout.splitlines()} - {""}

    return run


def test_subcommands(complete):
    assert complete("") == {"status", "check", "routes", "explain", "simulate", "record", "history", "metrics", "watch"}
    assert complete("s") == {"status", "simulate"}


def test_options_are_those_of_the_help(complete):
    assert {"--json", "--watch", "--help"} <= complete("status", "-")
    assert complete("status", "--js") == {"--json"}
    assert complete("--v") == {"--version"}


def test_files(complete):
    assert "lb.conf" in complete("check", "")
    assert "lb.conf" in complete("routes", "l")


def test_interfaces_of_the_named_file(complete):
    assert complete("routes", "lb.conf", "--down", "") == {"wan1", "wan2", "wan1/6"}
    assert complete("routes", "lb.conf", "--down", "wan2,wan1") == {"wan2,wan1", "wan2,wan1/6"}
    assert complete("explain", "-f", "lb.conf", "wan2") == {"wan2"}


def test_vrfs(complete):
    assert complete("routes", "lb.conf", "--vrf", "") == {"default", "blue"}
