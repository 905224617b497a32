"""A pytest of its own, with the lab's fixtures and hooks, for what the lab does with scenarios that fail."""

import os
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

_LAB = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_COUNT = os.path.join(_LAB, "..", "..", "scripts", "count_tests")

# As if the lab's own file lay there.
_CONFTEST = f"""import sys
sys.path.insert(0, {_LAB!r})
with open({_LAB + "/conftest.py"!r}, encoding="utf-8") as file:
    exec(compile(file.read(), file.name, "exec"))
"""


class InnerSession:
    """Has run when it is made. Scenarios may leave files in `directory`."""

    def __init__(self, directory, scenarios, *options, **environment):
        (directory / "conftest.py").write_text(_CONFTEST)
        (directory / "pytest.ini").write_text("[pytest]\n")
        (directory / "test_scenarios.py").write_text(scenarios)
        (directory / "reports").mkdir()
        clean = {name: value for name, value in os.environ.items() if not name.startswith(("PYTEST_", "LB_LAB_KEEP"))}
        self.process = subprocess.run(
            [sys.executable, "-m", "pytest", "-ra", "-p", "no:cacheprovider", "--junitxml=reports/lab.xml", *options],
            cwd=directory, env={**clean, "PYTHONDONTWRITEBYTECODE": "1", **environment}, stdout=subprocess.PIPE,
            text=True, check=False)
        self.text = self.process.stdout
        self.directory = directory

    def runs(self, name="it"):
        return len((self.directory / name).read_text())

    def properties(self):
        tree = ElementTree.parse(self.directory / "reports" / "lab.xml")
        return [(found.get("name"), found.get("value")) for found in tree.iter("property")]

    def counted(self):
        return subprocess.run([sys.executable, _COUNT, self.directory / "reports"], stdout=subprocess.PIPE, text=True,
                              check=False).stdout
