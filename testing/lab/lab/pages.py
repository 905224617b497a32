"""The project's pages of documentation: what stands in their blocks."""

import os
import re

REPOSITORY = os.path.join(os.path.dirname(os.path.abspath(__file__)), *[os.pardir] * 3)


def text_of(page):
    """`page` is a path from the top of the repository."""
    with open(os.path.join(REPOSITORY, page), encoding="utf-8") as file:
        return file.read()


def all_blocks(page):
    """(title of the section, kind, text) of each block that begins with ``` and its kind, in order."""
    found, title = [], ""
    for match in re.finditer(r"^#+ ([^\n]*)$|^```(\w*)\n(.*?)^```$", text_of(page), re.MULTILINE | re.DOTALL):
        if match[1]:
            title = match[1]
        else:
            found.append((title, match[2], match[3]))
    return found


def blocks(page, kind=""):
    """(title of the section, text) of each block of the kind, in order."""
    return [(title, text) for title, its_kind, text in all_blocks(page) if its_kind == kind]


def block(page, word, kind=""):
    """The only block of the kind that has the word in it."""
    found = [text for _, text in blocks(page, kind) if word in text]
    assert len(found) == 1, f"{len(found)} blocks with {word} in {page}"
    return found[0]


def links(page):
    """What the page's links point to inside the repository, as paths from its top."""
    folder = os.path.dirname(page)
    targets = re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text_of(page))
    return {os.path.normpath(os.path.join(folder, target)) for target in targets}


def exists(path):
    return os.path.exists(os.path.join(REPOSITORY, path))
