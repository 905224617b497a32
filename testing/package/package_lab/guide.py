"""The commands and files of a guide in docs/guides."""

import os
import re

_GUIDES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "docs", "guides")


def steps(name):
    """(title of the section, "sh" or "conf", text) of each block, in order."""
    with open(os.path.join(_GUIDES, name), encoding="utf-8") as file:
        text = file.read()
    found = []
    title = ""
    for match in re.finditer(r"^## ([^\n]*)$|^```(sh|conf)\n(.*?)^```$", text, re.MULTILINE | re.DOTALL):
        if match[1]:
            title = match[1]
        else:
            found.append((title, match[2], match[3]))
    assert found, f"{name} has no commands"
    return found


def installation(name):
    """The commands of the first section, with which everything begins."""
    (title, kind, text), *_ = steps(name)
    assert (title, kind) == ("1. Install", "sh") and text.startswith("apt install ./wan-lb_"), (title, text)
    return text


def carry_out(machine, some):
    """Does what the steps say, on the machine; a file's path is in its first line. Returns what was printed."""
    printed = ""
    for _, kind, text in some:
        if kind == "conf":
            machine.write(text.split("\n", 1)[0].removeprefix("# "), text)
        else:
            printed += machine.run("sh", "-ec", text).stdout
    return printed
