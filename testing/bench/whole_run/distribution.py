"""Order statistics of measured times."""

import math


def percentile(values, percent):
    """The least value that `percent` of all do not exceed (nearest rank)."""
    ordered = sorted(values)
    return ordered[max(math.ceil(percent / 100 * len(ordered)), 1) - 1]


def summary(values):
    """{"count", "p50", "p99", "max"}."""
    return {"count": len(values), "p50": percentile(values, 50), "p99": percentile(values, 99), "max": max(values)}


def cumulative(values):
    """[(value, share of all that do not exceed it)], for a curve."""
    ordered = sorted(values)
    return [(value, rank / len(ordered)) for rank, value in enumerate(ordered, 1)]
