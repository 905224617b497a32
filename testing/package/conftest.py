"""What the packages bring, on root trees and machines. Needs root, and LB_PACKAGE_DIR with the packages."""

import os
import shutil
import sys
import tempfile

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from package_lab import machine as machines, once, tree as trees  # noqa: E402  pylint: disable=wrong-import-position


@pytest.fixture(scope="session")
def packages():
    return trees.packages(os.environ["LB_PACKAGE_DIR"])


@pytest.fixture(scope="session")
def work():
    """A directory of the host's disk: what lies over an overlay cannot carry another one."""
    directory = tempfile.mkdtemp(prefix="wan-lb-package-")
    yield directory
    shutil.rmtree(directory)


@pytest.fixture(scope="session")
def installed_tree(packages, work):
    """A tree with the packages, and BIRD; one for all workers when LB_PACKAGE_TREE says where."""
    debs = [packages["wan-lb"], packages["wan-lb-dev"]]
    return once.made(os.environ.get("LB_PACKAGE_TREE", os.path.join(work, "installed")), lambda directory: trees.make(
        directory, debs, also=["bird2", "iproute2", "procps", "man-db"]))


@pytest.fixture
def tree(installed_tree, work):
    with trees.copy(installed_tree, tempfile.mkdtemp(dir=work)) as root:
        yield root


@pytest.fixture
def machine(tree):
    started = machines.Machine(tree)
    yield started
    started.close()
