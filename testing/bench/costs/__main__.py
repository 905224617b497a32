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


def count(directory, with_instructions=True):
    """{subject: instructions}, none unless asked for; {path: {call: number per probe}}"""
    with ThreadPoolExecutor(max_workers=1 + len(PATHS)) as pool:  # the daemons mostly wait
        subjects = pool.submit(instructions.of_subjects if with_instructions else lambda _: {},
                               os.path.join(directory, "lb_benchmarks"))
        paths = dict(zip(PATHS, pool.map(cost_of_path, PATHS)))
        counted = subjects.result()
    if with_instructions:
        counted |= {f"cycle of {LINKS} links/{path}": cycle for path, (cycle, _) in paths.items()}
    return counted, {path: calls for path, (_, calls) in paths.items()}


def main(directory, update):
    if update:
        comparison.write(*count(directory))
        return 0
    with_instructions = not comparison.toolchain_differences()
    return comparison.compare(lambda: count(directory, with_instructions))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], "--update" in sys.argv[2:]))
