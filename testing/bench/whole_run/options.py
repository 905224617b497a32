"""The command line."""

import argparse
import os
import sys

from .case import FAMILIES, PATHS

PARTS = ("costs", "vrfs", "dead-gateway", "switching")
INTERFACES = (1, 16, 64, 256, 1000)


def _list_of(allowed, kind):
    def parse(text):
        values = [kind(word) for word in text.split(",")]
        if not values or not all(allowed(value) for value in values):
            raise ValueError(text)
        return sorted(set(values))

    parse.__name__ = "list"
    return parse


def _positive(kind):
    def parse(text):
        value = kind(text)
        if not 0 < value < 1e6:
            raise ValueError(text)
        return value

    parse.__name__ = "positive number"
    return parse


def parse(arguments):
    """The options; bad ones end the program with status 2 and a usage."""
    parser = argparse.ArgumentParser(
        prog="scripts/bench", allow_abbrev=False,
        description="Measures lb beside fping, on the same links at the same rate.",
        epilog="LB_PROGRAM names another build's lb. docs/benchmarks.md tells how to read the table.")
    parser.add_argument("--quick", action="store_true",
                        help="64 interfaces, IPv4, both paths, costs only: under a minute")
    parser.add_argument("--interfaces", type=_list_of(lambda n: 1 <= n <= 4000, int), metavar="N,...",
                        help=f"default: {','.join(map(str, INTERFACES))}")
    parser.add_argument("--family", type=_list_of(FAMILIES.__contains__, int), metavar="4,6", help="default: both")
    parser.add_argument("--path", type=_list_of(PATHS.__contains__, str), metavar="frame,raw", help="default: both")
    parser.add_argument("--rounds", type=_positive(int), metavar="N",
                        help="windows of lb and of fping for each row, in turns (default: 3)")
    parser.add_argument("--seconds", type=_positive(float), metavar="S", help="least length of a window (default: 6)")
    parser.add_argument("--cuts", type=_positive(int), metavar="N", default=100,
                        help="for the switch times (default: 100)")
    parser.add_argument("--part", type=_list_of(PARTS.__contains__, str), metavar=f"{PARTS[0]},...",
                        help=f"some of: {', '.join(PARTS)} (default: all; with --quick: costs)")
    parser.add_argument("--json", metavar="FILE", help="everything that was measured")
    parser.add_argument("--svg", metavar="FILE", help="a plot of costs and switch times; needs gnuplot")
    options = parser.parse_args(arguments)
    for path in filter(None, (options.json, options.svg)):
        # Told now rather than after an hour.
        if os.path.isdir(path) or not os.access(os.path.dirname(os.path.abspath(path)), os.W_OK):
            parser.error(f"{path} cannot be written")
    quick = options.quick
    options.interfaces = options.interfaces or ([64] if quick else list(INTERFACES))
    options.family = options.family or ([4] if quick else list(FAMILIES))
    options.path = options.path or list(PATHS)
    options.part = options.part or (["costs"] if quick else list(PARTS))
    options.rounds = options.rounds or (2 if quick else 3)
    options.seconds = options.seconds or (1.5 if quick else 6)
    return options


if __name__ == "__main__":
    parse(sys.argv[1:])
