"""The root directory of a lab, as it is made."""

import os
import subprocess
import sys

_MAKE = """
import concurrent.futures, os, sys
sys.path.insert(0, sys.argv[1])
from lab import rootview
def names_below(top):
    os.mkdir(top)
    rootview.make_directories(top)
    return frozenset(os.listdir(os.path.join(top, "etc")))
with concurrent.futures.ThreadPoolExecutor(8) as pool:
    found = set(pool.map(names_below, [os.path.join(sys.argv[2], str(number)) for number in range(16)]))
assert found == {frozenset(os.listdir("/etc")) | {"wan_lb"}}, [len(names) for names in found]
"""


def test_several_are_made_at_once(tmp_path):
    """By threads of one process, in which nothing was made before."""
    done = subprocess.run([sys.executable, "-c", _MAKE, os.path.dirname(os.path.abspath(__file__)), tmp_path],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stderr
