"""python3 -m costs DIRECTORY [--update]: what the programs cost that were built in DIRECTORY."""

import os
import sys
from concurrent.futures import ThreadPoolExecutor

from lab.lab import Lab

from . import comparison, instructions, system_calls
from .healthy_links import LINKS, PATHS, HealthyLinks

# The far ends are to answer at once whatever else this process does.
sys.setswitchinterval(0.0005)
os.environ["PATH"] += ":/usr/sbin:/sbin"


def cost_of_path(path):
    """Instructions of a cycle, and {call: number per probe}."""
    with Lab() as lab:
        links = HealthyLinks(lab, path)
        found = instructions.of_cycle(links), system_calls.count(links)
        problems = lab.finish()
        assert not problems, "\n".join(problems)
    return found


def count(directory):
    """{subject: instructions}, {path: {call: number per probe}}"""
    with ThreadPoolExecutor(max_workers=1 + len(PATHS)) as pool:  # the daemons mostly wait
        subjects = pool.submit(instructions.of_subjects, os.path.join(directory, "lb_benchmarks"))
        paths = dict(zip(PATHS, pool.map(cost_of_path, PATHS)))
        counted = subjects.result()
    counted |= {f"cycle of {LINKS} links/{path}": cycle for path, (cycle, _) in paths.items()}
    return counted, {path: calls for path, (_, calls) in paths.items()}


def main(directory, update):
    differences = comparison.toolchain_differences()
    if differences and not update:
        print(f"costs: not compared, instructions are those of another toolchain: {', '.join(differences)}; build "
              "with that one, or have scripts/costs --update write yours down")
        return 2
    costs = count(directory)
    if update:
        comparison.write(*costs)
        return 0
    return comparison.compare(*costs)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], "--update" in sys.argv[2:]))
