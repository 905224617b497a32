"""lbctl, run in a lab as an administrator would run it on the router."""

import json
import os

import jsonschema

from . import daemon

_REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))


def program():
    """LBCTL_PROGRAM, or the one that was built beside the daemon."""
    return os.environ.get("LBCTL_PROGRAM") or os.path.join(os.path.dirname(daemon.program()), "lbctl")


def schema(name):
    with open(os.path.join(_REPOSITORY, "docs", "schema", f"{name}-1.json"), encoding="utf-8") as file:
        return json.load(file)


def ctl(lab, *arguments, netns=None, check=False):
    """Runs `lbctl ARGUMENTS...` in the lab to its end; status, stdout and stderr are in what it returns."""
    return lab.run([program(), *arguments], netns, check=check)


def document(lab, name, *arguments):
    """The JSON that `lbctl ARGUMENTS...` prints, held against the schema `name`."""
    found = json.loads(ctl(lab, *arguments).stdout)
    jsonschema.validate(found, schema(name))
    return found


def carry_out(lab, text):
    """Runs a guide's commands in the lab, in /run, until one fails; status, stdout and stderr are in what it returns.

    `lbctl` is the one under test.
    """
    path = lab.path("bin/lbctl")
    if not os.path.exists(path):
        os.symlink(program(), path)
    return lab.run(["sh", "-ec", f"cd /run\nPATH={lab.path('bin')}:/usr/sbin:/usr/bin:/sbin:/bin\n{text}"], check=False)
