"""The whole benchmark, from the command line to the exit status."""

import os
import shutil
import signal
import sys
from dataclasses import dataclass, field

from lab import daemon

from . import goals, plot, record, table
from .bed import Bed
from .case import Case, cases
from .dead_gateway import dead_gateway
from .options import parse
from .row import row, tell_memory_per_interface
from .switching import switching
from .windows import rounds

_NEEDED = {"costs": ("fping",), "vrfs": ("fping",), "dead-gateway": (), "switching": ("bird", "nft")}
_ALWAYS = {"unshare", "ip", "sysctl"}


@dataclass
class Results:
    rows: list = field(default_factory=list)
    dead_gateways: list = field(default_factory=list)
    switching: list = field(default_factory=list)


def _tell(text):
    print(text, file=sys.stderr, flush=True)


def _end(*_):
    raise KeyboardInterrupt


def _missing(options):
    needed = _ALWAYS.union(*(_NEEDED[part] for part in options.part))
    missing = [name for name in sorted(needed) if not shutil.which(name)]
    if options.svg and not plot.available():
        missing.append(f"{plot.PROGRAM} (scripts/bootstrap bench)")
    return missing + [path for path in [daemon.program()] if not os.path.exists(path)]


def main(arguments):
    """0: measured; 1: something is missing, failed or was refused; 2: bad arguments; 130: ended before its time."""
    options = parse(arguments)
    missing = _missing(options)
    if missing:
        _tell(f"bench: missing: {', '.join(missing)}")
        return 1
    for number in (signal.SIGTERM, signal.SIGHUP):
        if signal.getsignal(number) != signal.SIG_IGN:  # nohup
            signal.signal(number, _end)
    results = Results()
    try:
        measure(options, results)
    except KeyboardInterrupt:
        _tell("bench: ended before its time")
        return 130
    except (AssertionError, OSError, RuntimeError) as problem:
        _tell(f"bench: {problem}")
        return 1
    finally:
        # What was measured until then is worth telling.
        tell(options, results)
    refused = [one for one in results.rows if one.refusal]
    if refused:
        _tell(f"bench: {len(refused)} of {len(results.rows)} rows have no ratio, see the notes below the table")
    return 1 if refused else 0


def measure(options, results):
    parts = options.part
    wanted = cases(options.interfaces, options.family, options.path) if "costs" in parts else []
    if "vrfs" in parts:
        wanted.append(Case(64, options.family[0], options.path[0], vrfs=3))
    for case in wanted:
        with Bed(case) as bed:
            results.rows.append(row(case, rounds(bed, options.rounds, options.seconds, _tell)))
    for family in options.family if "dead-gateway" in parts else ():
        results.dead_gateways.append(dead_gateway(64, family, options.rounds, options.seconds))
        _tell(table.dead_gateway_line(results.dead_gateways[-1]))
    for family in options.family if "switching" in parts else ():
        _tell(f"switch times, IPv{family}: {options.cuts} cuts")
        results.switching.append(switching(family, options.cuts))


def tell(options, results):
    tell_memory_per_interface(results.rows)
    held = [*goals.of_rows(results.rows),
            *[goal for one in results.dead_gateways for goal in goals.of_dead_gateway(one)],
            *[goal for one in results.switching for goal in goals.of_switching(one)]]
    texts = []
    if results.rows:
        texts.append(table.table(results.rows))
    if results.switching:
        texts.append(table.switching_table(results.switching))
    texts += [table.dead_gateway_line(dead) for dead in results.dead_gateways]
    if held:
        texts.append(table.goals_table(held))
    if texts:
        print("\n\n".join(texts), flush=True)
    if options.json:
        record.write(options.json, record.record(results, held))
    if options.svg:
        plot.draw(options.svg, results.rows, results.switching)
