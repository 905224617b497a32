"""The results as JSON: everything that the table and the plot are made from."""

import json
import math
import os
import platform
import time
from dataclasses import asdict

FORMAT = 1


def _plain(value):
    """What JSON can hold: not a number becomes nothing."""
    if isinstance(value, dict):
        return {name: _plain(inner) for name, inner in value.items()}
    if isinstance(value, (list, tuple)):
        return [_plain(inner) for inner in value]
    return None if isinstance(value, float) and not math.isfinite(value) else value


def record(results, goals):
    return _plain({
        "format": FORMAT,
        "when": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
        "kernel": platform.release(),
        "processors": os.cpu_count(),
        "rows": [asdict(row) for row in results.rows],
        "goals": [asdict(goal) for goal in goals],
        "dead_gateways": [{**asdict(dead), "added": dead.added} for dead in results.dead_gateways],
        "switching": [asdict(times) for times in results.switching],
    })


def write(path, recorded):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(recorded, file, indent=1)
        file.write("\n")
