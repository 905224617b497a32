"""Whether an address answers an echo request of the system's own, from wherever in the lab."""

import sys

# Arguments: target, source or "", device or "". It goes on asking for a second and a half.
_ASK = """import socket, sys
target, source, device = sys.argv[1:]
six = ":" in target
asking = socket.socket(socket.AF_INET6 if six else socket.AF_INET, socket.SOCK_RAW, 58 if six else 1)
if device:
    asking.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, device.encode())
if source:
    asking.bind((source, 0, 0, socket.if_nametoindex(device) if device else 0) if six else (source, 0))
asking.settimeout(0.5)
request, reply, at = ("8000000000010001", 129, 0) if six else ("0800f7fd00010001", 0, 20)
for _ in range(3):
    try:
        asking.sendto(bytes.fromhex(request), (target, 0))
        while asking.recv(2000)[at] != reply:
            pass
        sys.exit(0)
    except TimeoutError:
        pass
sys.exit(7)
"""


def reached(lab, target, netns=None, source="", device=""):
    process = lab.run([sys.executable, "-c", _ASK, target, source, device], netns, check=False)
    assert process.status in (0, 7), process.stderr
    return process.status == 0
