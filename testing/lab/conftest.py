"""Fixtures of the lab: every test gets namespaces of its own, and answers for what the daemon did in them."""

import hashlib
import os
import shutil
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from lab import daemon, scenario, stalls  # noqa: E402  pylint: disable=wrong-import-position

# The far ends are threads of the test; they are to answer at once even while it decodes packets.
sys.setswitchinterval(0.0005)

_NEEDED = ("unshare", "ip", "nft", "conntrack", "sysctl", "bird", "dnsmasq", "dhclient", "dhcpcd", "fping", "tmux",
           "promtool")
_LONG = ("test_chaos_", "test_many_", "test_router_")


def pytest_configure(config):
    config.pluginmanager.register(stalls.Plugin())
    config.pluginmanager.register(scenario.Plugin())


def pytest_sessionstart(session):
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    missing = [name for name in _NEEDED if not shutil.which(name)]
    if missing:
        pytest.exit(f"the lab needs these programs: {', '.join(missing)}", 3)


def pytest_collection_modifyitems(items):
    """The long scenarios first, so that none of them is left over at the end, and the longest before them; neighbours
    in a file apart, since they wait for the same things at the same time. The order is the same in every run."""
    items.sort(key=lambda item: ("test_router_loss" not in item.nodeid,
                                 not any(word in item.nodeid for word in _LONG),
                                 hashlib.md5(item.nodeid.encode()).digest()))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    if call.when == "setup":
        item.has_failed = False
    item.has_failed |= outcome.get_result().failed


@pytest.fixture
def lab(request):
    with scenario.lab_of(request.node) as made:
        yield made


@pytest.fixture
def tun_devices():
    """For scenarios with a tun device, which an ordinary user may be denied."""
    if not os.access("/dev/net/tun", os.R_OK | os.W_OK):
        pytest.skip("/dev/net/tun may not be opened by this user")


def pytest_report_header(config):
    return f"daemon under test: {daemon.program()}"
