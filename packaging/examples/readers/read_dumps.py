#!/usr/bin/env python3
"""Prints the dump files of the WAN load balancer, see wlb_dump(5).

    read_dumps.py [--byte-order big|little] [DIRECTORY]

DIRECTORY is the daemon's output directory, by default /var/run/load-balance. The byte order is that of the host whose
daemon wrote the files, by default this one's.
"""

import argparse
import os
import struct
import sys
import time

# Sizes of the records, and what they consist of without padding: "=" is this host's byte order.
OUTBOUND = "64s32s46s46s4100sB5i3B"
TEST = "46s2i4B6i"
RULE = "3300sB32s2i2B"
MEMBER = "64s2B"
ROUTE = "50s46s3iB"

RESULTS = ("none", "success", "failure")


def text(field):
    """What stands before the NUL byte."""
    return field.split(b"\0", 1)[0].decode("utf-8", "replace")


def records(path, layout):
    """The records of a file as tuples; none when there is no file.

    The daemon empties a file and writes it anew in place, once a second. One that is empty, has a part of a record at
    its end, or was written while it was read, is read again for a while; it may also be empty for good.
    """
    size = struct.calcsize(layout)
    for _ in range(50):
        try:
            with open(path, "rb") as file:
                before = os.fstat(file.fileno())
                data = file.read()
                after = os.fstat(file.fileno())
        except FileNotFoundError:
            return []
        steady = (before.st_mtime_ns, before.st_size) == (after.st_mtime_ns, after.st_size)
        if data and len(data) % size == 0 and steady:
            break
        time.sleep(0.02)
    if len(data) % size:
        sys.exit(f"{path}: not whole records: {len(data)} bytes")
    return list(struct.iter_unpack(layout, data))


def parts(field, layout, count):
    """The first `count` of the records that stand in a field."""
    return list(struct.iter_unpack(layout, field))[:count]


def print_interfaces(path, order, family):
    for name, vrf, nexthop, _, tests, count, *numbers in records(path, order + OUTBOUND):
        _, _, change_age, success_ct, failure_ct, _, _, active = numbers
        print(f"interface {text(name)} ipv{family} vrf {text(vrf)} {'active' if active else 'failed'} "
              f"for {change_age} nexthop {text(nexthop) or '-'}")
        for target, good, bad, result, measured, _, _, jitter, loss, rtt, *limits in parts(tests, order + TEST, count):
            figures = f" loss {loss}/{limits[1]} rtt {rtt}/{limits[2]} jitter {jitter}/{limits[0]}" if measured else ""
            print(f"test {text(target)} {RESULTS[result]} good {good}/{success_ct} bad {bad}/{failure_ct}{figures}")


def print_rules(path, order):
    for members, count, vrf, _, number, failover, ipv6 in records(path, order + RULE):
        carried = " ".join(f"{text(name)}:{weight}" for name, weight, _ in parts(members, order + MEMBER, count))
        print(f"rule {number} ipv{6 if ipv6 else 4} vrf {text(vrf)} {'failover' if failover else 'weights'} {carried}")


def print_routes(path, order):
    for destination, nexthop, metric, index, number, ipv6 in records(path, order + ROUTE):
        print(f"route {number}.{index} ipv{6 if ipv6 else 4} {text(destination)} metric {metric} "
              f"via {text(nexthop) or '-'}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("directory", nargs="?", default="/var/run/load-balance")
    parser.add_argument("--byte-order", choices=("big", "little"), default=sys.byteorder)
    options = parser.parse_args()
    order = {"big": ">", "little": "<"}[options.byte_order]
    folder = os.path.join(options.directory, "wlb_dump")
    for family in (4, 6):
        print_interfaces(os.path.join(folder, f"wlb_ipv{family}_outbounds.bin"), order, family)
    print_rules(os.path.join(folder, "wlb_rules.bin"), order)
    print_routes(os.path.join(folder, "wlb_routes.bin"), order)


if __name__ == "__main__":
    main()
