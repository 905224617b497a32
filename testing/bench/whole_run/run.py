"""The whole benchmark, from the command line to the exit status."""

import os
import shutil
import signal
import sys

from lab import daemon

from .bed import Bed
from .case import cases
from .options import parse
from .record import record, write
from .row import row, tell_memory_per_interface
from .table import table
from .windows import rounds

_NEEDED = ("unshare", "ip", "sysctl", "fping")


def _tell(text):
    print(text, file=sys.stderr, flush=True)


def _end(*_):
    raise KeyboardInterrupt


def main(arguments):
    """0: measured; 1: something is missing or was refused; 2: bad arguments; 130: ended before its time."""
    options = parse(arguments)
    missing = [name for name in _NEEDED if not shutil.which(name)]
    if missing or not os.path.exists(daemon.program()):
        _tell(f"bench: missing: {', '.join(missing) or daemon.program()}")
        return 1
    signal.signal(signal.SIGTERM, _end)
    try:
        return measure(options)
    except KeyboardInterrupt:
        _tell("bench: ended before its time")
        return 130


def measure(options):
    rows = []
    for case in cases(options.interfaces, options.family, options.path, False):
        with Bed(case) as bed:
            rows.append(row(case, rounds(bed, options.rounds, options.seconds, _tell)))
    tell_memory_per_interface(rows)
    print(table(rows))
    if options.json:
        write(options.json, record(rows))
    return 1 if any(one.refusal for one in rows) else 0
