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


def record(rows, goals=(), dead_gateway=None, switching=None):
    return _plain({
        "format": FORMAT,
        "when": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
        "kernel": platform.release(),
        "processors": os.cpu_count(),
        "rows": [asdict(row) for row in rows],
        "goals": [asdict(goal) for goal in goals],
        "dead_gateway": dead_gateway and asdict(dead_gateway),
        "switching": switching and asdict(switching),
    })


def write(path, recorded):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(recorded, file, indent=1)
        file.write("\n")
