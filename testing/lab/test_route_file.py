"""Whoever reads the route file finds the old text or the new one, whatever the daemon may do in its directory.

    router wan1 10.1.0.2 -------- 10.1.0.1 far1: responder      /usr/etc/routing-wlb.conf
    router wan2 10.2.0.2 -------- 10.2.0.1 far2: responder
"""

import contextlib
import os
import stat

import pytest

from lab import scenario
from lab.inside import SmallDisk
from lab.tight_reader import TightReader
from lab.weighted_pair import PLAIN_OWNER, WeightedPair

NAME = "usr_etc/routing-wlb.conf"
INSIDE = "/usr/etc/routing-wlb.conf"

# So many that the text does not fit into one page of the disk's, whoever is active.
PREFIXES = [f"10.{number}.0.0/16" for number in range(100, 200)]


def texts(pair):
    """Those of a settled pair: with both links, and with the first alone."""
    return [pair.text({"wan1", "wan2"}), pair.text({"wan1"})]


def switch(lab, pair, times):
    """Changes the routes under a reader; returns what it found."""
    reader = TightReader(lab, INSIDE)
    for _ in range(times):
        pair.change()
        reader.wait_text(pair.current_text())
    return reader.stop()


@contextlib.contextmanager
def another_file(lab):
    """The file is renamed over. While the old one is open no other has its number."""
    with open(lab.path(NAME), encoding="utf-8") as old:
        yield
        assert not os.path.samestat(os.fstat(old.fileno()), os.stat(lab.path(NAME)))


def status(lab):
    found = os.stat(lab.path(NAME))
    return stat.S_IMODE(found.st_mode), found.st_uid, found.st_gid


def test_old_or_new_text(lab):
    pair = WeightedPair(lab, prefixes=PREFIXES)
    pair.wait_settled()
    os.chmod(lab.path(NAME), 0o640)
    before = status(lab)
    with another_file(lab):
        found = switch(lab, pair, 8)
    assert all(text in texts(pair) for text in found), [text and len(text) for text in found]
    assert len(found) >= 9
    assert status(lab) == before
    assert os.listdir(lab.path("usr_etc")) == ["routing-wlb.conf"], "nothing is left beside it"
    pair.check()


def test_symbolic_link_stays(lab):
    """The text goes where the link leads."""
    lab.write("elsewhere/routes", "")
    os.symlink(lab.path("elsewhere/routes"), lab.path(NAME))
    pair = WeightedPair(lab, prefixes=PREFIXES)
    pair.wait_settled()
    with another_file(lab):
        found = switch(lab, pair, 4)
    assert all(text in texts(pair) for text in found), [text and len(text) for text in found]
    assert os.readlink(lab.path(NAME)) == lab.path("elsewhere/routes")
    assert lab.read("elsewhere/routes") == pair.current_text()
    pair.check()


def close_directory(lab):
    os.chmod(lab.path("usr_etc"), 0o555)


def bind_mount(lab):
    lab.run(["mount", "--bind", INSIDE, INSIDE])


@pytest.mark.parametrize("prevent", [close_directory, bind_mount])
def test_written_in_place_where_nothing_can_be_renamed(lab, prevent):
    """The file stays the same one. A reader may find it half changed, but never without a text."""
    pair = WeightedPair(lab, prefixes=PREFIXES, watched=False, prefix=PLAIN_OWNER)
    pair.wait_settled()
    prevent(lab)
    before, inode = status(lab), os.stat(lab.path(NAME)).st_ino
    found = switch(lab, pair, 8)
    assert all(found), [text and len(text) for text in found]
    assert set(texts(pair)) <= set(found)
    assert (status(lab), os.stat(lab.path(NAME)).st_ino) == (before, inode)
    os.chmod(lab.path("usr_etc"), 0o755)
    pair.check()


def test_full_disk(lab):
    """The shorter text has room where the longer one is; a longer one has none, and the shorter one stays whole."""
    disk = SmallDisk(lab, "/usr/etc")
    pair = WeightedPair(lab, prefixes=PREFIXES, watched=False)
    pair.route_file = os.path.join(disk.path, "routing-wlb.conf")
    pair.wait_settled()
    both, first = texts(pair)
    disk.fill(leave_files=True)
    reader = TightReader(lab, INSIDE)
    pair.change()
    reader.wait_text(first)
    disk.fill(leave_files=True)
    mark = lab.log.mark()
    pair.change(wait=False)
    lab.log.wait_for(f"error writing file '{INSIDE}', errno = 28$", since=mark)
    pair.lb.wait_cycles(2)
    assert lab.read(pair.route_file) == first, "whole, and no second try"
    found = reader.stop()
    assert all(found) and found[0] == both and found[-1] == first, [text and len(text) for text in found]
    disk.free()
    pair.change()
    pair.change()
    pair.check()


def needs_root():
    if os.geteuid() != 0:
        pytest.skip("only root can give a file away")


def test_owner_is_kept(request):
    needs_root()
    with scenario.lab_of(request.node, user_namespace=False) as lab:
        pair = WeightedPair(lab, prefixes=PREFIXES)
        pair.wait_settled()
        os.chown(lab.path(NAME), 1234, 5678)
        os.chmod(lab.path(NAME), 0o604)
        with another_file(lab):
            found = switch(lab, pair, 4)
        assert all(text in texts(pair) for text in found), [text and len(text) for text in found]
        assert status(lab) == (0o604, 1234, 5678)
        pair.check()


def test_owner_that_cannot_be_kept_by_another_file(lab):
    """The namespace knows no such user: the file itself is written."""
    needs_root()
    pair = WeightedPair(lab, prefixes=PREFIXES, watched=False)
    pair.wait_settled()
    os.chown(lab.path(NAME), 1234, 5678)
    os.chmod(lab.path(NAME), 0o606)
    found = switch(lab, pair, 4)
    assert all(found), [text and len(text) for text in found]
    assert status(lab) == (0o606, 1234, 5678)
    assert os.listdir(lab.path("usr_etc")) == ["routing-wlb.conf"], "nothing is left beside it"
    pair.check()
