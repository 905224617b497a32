"""A debugger that stops one thread, a worker between two cycles, until it is told to end.

Argument: the process. Prints the thread's number once it stands still.
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


def sleeps(process):
    """{thread: how often it has waited} of those that sleep on a clock."""
    found = {}
    for thread in os.listdir(f"/proc/{process}/task"):
        base = f"/proc/{process}/task/{thread}"
        with open(f"{base}/wchan", encoding="ascii") as where, open(f"{base}/status", encoding="ascii") as status:
            if "nanosleep" in where.read():
                found[int(thread)] = re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", status.read())[1]
    return found


def sleeping_worker(process):
    """A thread in a long sleep, as workers have between two cycles; a sanitizer's own thread has short ones."""
    while True:
        before = sleeps(process)
        time.sleep(0.3)
        for thread, count in sleeps(process).items():
            if before.get(thread) == count:
                return thread


def main():
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    thread = sleeping_worker(int(sys.argv[1]))
    ptrace(PTRACE_ATTACH, thread)
    os.waitpid(thread, WAIT_FOR_ANY_THREAD)
    print(thread, flush=True)
    signal.sigwait({signal.SIGTERM})
    ptrace(PTRACE_DETACH, thread)


if __name__ == "__main__":
    main()
