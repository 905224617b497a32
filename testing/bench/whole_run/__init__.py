"""Whole runs of the daemon beside fping: what a probe costs, how long a cycle takes, how soon a route switches.

Everything runs in a network namespace lab; its support is testing/lab/lab. docs/benchmarks.md tells how to read it.
"""
