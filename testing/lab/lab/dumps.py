"""Decodes the binary dump files, from the documented offsets and nothing else.

Their numbers are in the byte order of the host that the daemon was built for. That is this one, unless
LB_LAB_BYTE_ORDER ("big" or "little") says that the daemon runs in an emulator of another.
"""

import os
import struct
import sys

OUTBOUND_SIZE, RULE_SIZE, ROUTE_SIZE, TEST_SIZE, MEMBER_SIZE = 4312, 3343, 109, 82, 66
_ORDER = {"big": ">", "little": "<"}[os.environ.get("LB_LAB_BYTE_ORDER") or sys.byteorder]


def _text(data):
    """A NUL-terminated text in a zero-filled field; anything behind the NUL is an error."""
    text, _, rest = data.partition(b"\0")
    assert not rest.strip(b"\0"), f"bytes behind the end of a text: {data!r}"
    return text.decode()


def _int(data, at, kind="i"):
    return struct.unpack_from(_ORDER + kind, data, at)[0]


def test_entry(data):
    assert len(data) == TEST_SIZE
    return {"target": _text(data[0:46]), "successes": _int(data, 46), "failures": _int(data, 50),
            "result": data[54], "measured": data[55], "resp_time": data[56], "ipv6": data[57],
            "measurement": struct.unpack_from(_ORDER + "6i", data, 58)}


def outbound(data):
    assert len(data) == OUTBOUND_SIZE
    count = data[4288]
    tests = [data[188 + at * TEST_SIZE:188 + (at + 1) * TEST_SIZE] for at in range(50)]
    assert not any(b"".join(tests[count:])), "entries behind the last test are not zero"
    return {"name": _text(data[0:64]), "namespace": _text(data[64:96]), "nexthop": _text(data[96:142]),
            "source_address": _text(data[142:188]), "tests": [test_entry(entry) for entry in tests[:count]],
            "success_age": _int(data, 4289), "failure_age": _int(data, 4293), "change_age": _int(data, 4297),
            "success_ct": _int(data, 4301), "failure_ct": _int(data, 4305), "dhcp": data[4309],
            "tunnel": data[4310], "active": data[4311]}


def rule(data):
    assert len(data) == RULE_SIZE
    count = data[3300]
    entries = [data[at * MEMBER_SIZE:(at + 1) * MEMBER_SIZE] for at in range(50)]
    assert not any(b"".join(entries[count:])), "entries behind the last member are not zero"
    members = [{"name": _text(entry[:64]), "weight": entry[64], "ipv6": entry[65]} for entry in entries[:count]]
    return {"members": members, "namespace": _text(data[3301:3333]), "zero": _int(data, 3333),
            "number": _int(data, 3337), "failover": data[3341], "ipv6": data[3342]}


def route(data):
    assert len(data) == ROUTE_SIZE
    return {"destination": _text(data[0:50]), "nexthop": _text(data[50:96]), "metric": _int(data, 96),
            "index": _int(data, 100), "number": _int(data, 104), "ipv6": data[108]}
