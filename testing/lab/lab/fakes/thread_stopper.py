"""A debugger that stops one thread, a worker between two cycles, until it is told to end.

Argument: the process. Prints the thread's number once it stands still.
"""

import ctypes
import os
import signal
import sys
import time

PTRACE_ATTACH, PTRACE_DETACH, WAIT_FOR_ANY_THREAD = 16, 17, 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def ptrace(request, thread):
    if _libc.ptrace(request, thread, None, None) != 0:
        number = ctypes.get_errno()
        sys.exit(f"ptrace: {os.strerror(number)}")


def sleeping_thread(process):
    """A thread that sleeps on a clock: only workers do."""
    while True:
        for thread in os.listdir(f"/proc/{process}/task"):
            with open(f"/proc/{process}/task/{thread}/wchan", encoding="ascii") as file:
                if "nanosleep" in file.read():
                    return int(thread)
        time.sleep(0.01)


def main():
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    thread = sleeping_thread(int(sys.argv[1]))
    ptrace(PTRACE_ATTACH, thread)
    os.waitpid(thread, WAIT_FOR_ANY_THREAD)
    print(thread, flush=True)
    signal.sigwait({signal.SIGTERM})
    ptrace(PTRACE_DETACH, thread)


if __name__ == "__main__":
    main()
