"""python3 -m costs DIRECTORY [--update]: the costs of the programs that were built in DIRECTORY."""

import os
import sys
from concurrent.futures import ThreadPoolExecutor

from . import comparison, instructions, system_calls

# The far ends are to answer at once whatever else this process does.
sys.setswitchinterval(0.0005)
os.environ["PATH"] += ":/usr/sbin:/sbin"


def main(directory, update):
    differences = comparison.toolchain_differences()
    if differences and not update:
        print("costs: instructions are those of another toolchain, so nothing is compared: " + ", ".join(differences)
              + ". Build with that one, or write yours down with --update.")
        return 2
    # One counts, the other mostly waits.
    with ThreadPoolExecutor() as pool:
        counted = pool.submit(instructions.count, os.path.join(directory, "lb_benchmarks"))
        called = pool.submit(system_calls.count)
        costs = counted.result(), called.result()
    if update:
        comparison.write(*costs)
        return 0
    return comparison.compare(*costs)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], "--update" in sys.argv[2:]))
