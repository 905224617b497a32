"""A pytest plugin: skips the lab scenarios that user-mode emulation cannot carry, and says why.

Loaded with -p by scripts/big_endian, which runs the daemon in qemu-user.
"""

import re

import pytest

_NETFILTER = "the emulator refuses netfilter netlink: socket() fails with 'Protocol not supported'"
_NEIGHBOURS = ("the emulator does not carry neighbour messages of route netlink: in one buffer sendmsg() fails with "
               "'Operation not supported', in two they reach the kernel in the wrong byte order")

_REFUSED = (
    ("test_output.py::test_reports_of_both_families$", _NEIGHBOURS),
    ("test_vrfs.py::test_all_vrfs_and_families_at_once$", _NEIGHBOURS),
    ("test_vrfs.py::test_firewall_in_every_vrf$", _NETFILTER),
)


def pytest_collection_modifyitems(items):
    for item in items:
        for pattern, reason in _REFUSED:
            if re.search(pattern, item.nodeid):
                item.add_marker(pytest.mark.skip(reason=reason))
