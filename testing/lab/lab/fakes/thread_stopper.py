"""A debugger that stops threads of a process until it is told to end.

Arguments: the process, and "worker" for one between two cycles or "receivers" for all that wait for packets. Prints the
threads' numbers once they stand still.
"""

import ctypes
import os
import re
import signal
import sys
import time

PTRACE_ATTACH, PTRACE_DETACH, WAIT_FOR_ANY_THREAD = 16, 17, 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def ptrace(request, thread):
    if _libc.ptrace(request, thread, None, None) != 0:
        number = ctypes.get_errno()
        sys.exit(f"ptrace: {os.strerror(number)}")


def waiting_in(process, function):
    """{thread: how often it has waited} of those that are in a function of the kernel with that in its name."""
    found = {}
    for thread in os.listdir(f"/proc/{process}/task"):
        base = f"/proc/{process}/task/{thread}"
        with open(f"{base}/wchan", encoding="ascii") as where, open(f"{base}/status", encoding="ascii") as status:
            if function in where.read():
                found[int(thread)] = re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", status.read())[1]
    return found


def sleeping_worker(process):
    """A thread in a long sleep, as workers have between two cycles; a sanitizer's own thread has short ones."""
    while True:
        before = waiting_in(process, "nanosleep")
        time.sleep(0.3)
        for thread, count in waiting_in(process, "nanosleep").items():
            if before.get(thread) == count:
                return [thread]


def waiting_receivers(process):
    """All that wait for packets. One that is just reading is missed by a look, and seen by the next."""
    found, before = sorted(waiting_in(process, "poll")), []
    while not found or found != before:
        time.sleep(0.1)
        found, before = sorted(waiting_in(process, "poll")), found
    return found


def main():
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    process = int(sys.argv[1])
    threads = sleeping_worker(process) if sys.argv[2] == "worker" else waiting_receivers(process)
    for thread in threads:
        ptrace(PTRACE_ATTACH, thread)
        os.waitpid(thread, WAIT_FOR_ANY_THREAD)
    print(*threads, flush=True)
    signal.sigwait({signal.SIGTERM})
    for thread in threads:
        ptrace(PTRACE_DETACH, thread)


if __name__ == "__main__":
    main()
