"""What the packages bring, on root trees and machines. Needs root, and LB_PACKAGE_DIR with the packages."""

import os
import shutil
import sys
import tempfile

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

# pylint: disable-next=wrong-import-position
from package_lab import clients, guide, machine as machines, once, tree as trees  # noqa: E402


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
    """A tree with the packages, and BIRD, by the command of the guide for two ISPs; one for all workers when
    LB_PACKAGE_TREE says where."""
    debs = [packages["wan-lb"], packages["wan-lb-dev"]]
    commands = guide.installation("two-isps.md") + f"apt install ./{os.path.basename(debs[1])}\n"
    return once.made(_tree_path(work), lambda directory: trees.make(
        directory, debs, commands, also=["procps", "man-db"]))


def _tree_path(work):
    return os.environ.get("LB_PACKAGE_TREE", os.path.join(work, "installed"))


@pytest.fixture(scope="session")
def clients_tree(installed_tree, packages, work):
    """What lies over what, as an overlay has it: the tree with the packages, and what the clients' bring. One for all
    workers, too."""
    def make(directory):
        with trees.copy(installed_tree, directory) as root:
            clients.install(root, packages["wan-lb"])

    return f"{once.made(_tree_path(work) + '-clients', make)}/changed:{installed_tree}"


@pytest.fixture
def tree(installed_tree, work):
    with trees.copy(installed_tree, tempfile.mkdtemp(dir=work)) as root:
        yield root


@pytest.fixture
def machine(tree):
    started = machines.Machine(tree)
    yield started
    started.close()


@pytest.fixture
def clients_machine(clients_tree, work):
    """With DHCP clients and network managers, none of which runs."""
    with trees.copy(clients_tree, tempfile.mkdtemp(dir=work)) as root:
        started = machines.Machine(root)
        clients.prepare(started)
        yield started
        started.close()


@pytest.fixture
def providers(clients_machine):
    made = [clients.Provider(clients_machine, "eth0", 1), clients.Provider(clients_machine, "eth1", 2)]
    yield made
    for provider in made:
        provider.close()
