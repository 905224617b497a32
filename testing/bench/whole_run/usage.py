"""What a process has used and holds, as the kernel tells without asking the process."""

import os
import re
import time
from dataclasses import dataclass

_SCHEDULED = 2  # clock_getcpuclockid(3): the time that all threads have run, ended ones too


def cpu_nanoseconds(pid):
    """User and system time of all threads; unlike the ticks of /proc/PID/stat it is exact."""
    return time.clock_gettime_ns((~pid << 3) | _SCHEDULED)


def children_ticks(stat):
    """Of the text of /proc/PID/stat: user and system time of children that have ended, in clock ticks."""
    fields = stat.rsplit(")", 1)[1].split()
    return int(fields[13]) + int(fields[14])


def switches(status):
    """Of the text of a thread's status: (voluntary, involuntary) context switches."""
    return tuple(int(re.search(rf"^{kind}_ctxt_switches:\s+(\d+)", status, re.M)[1])
                 for kind in ("voluntary", "nonvoluntary"))


def memory_kib(status, name="VmRSS"):
    return int(re.search(rf"^{name}:\s+(\d+) kB", status, re.M)[1])


def _read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


@dataclass
class Look:
    """At one moment. `threads`: {thread: (voluntary, involuntary) switches so far}."""

    cpu: int
    children: float
    threads: dict


def look(pid):
    threads = {}
    for thread in os.listdir(f"/proc/{pid}/task"):
        try:
            threads[int(thread)] = switches(_read(f"/proc/{pid}/task/{thread}/status"))
        except (FileNotFoundError, ProcessLookupError):
            pass  # ended since it was listed
    children = children_ticks(_read(f"/proc/{pid}/stat")) / os.sysconf("SC_CLK_TCK")
    return Look(cpu_nanoseconds(pid), children, threads)


@dataclass
class Used:
    """Between two looks. `ended`: threads that were there at the first and not at the last; what they did is lost."""

    cpu: float
    voluntary: int
    involuntary: int
    ended: int


def used(before, after):
    voluntary = involuntary = 0
    for thread, (mine, forced) in after.threads.items():
        earlier = before.threads.get(thread, (0, 0))
        voluntary += mine - earlier[0]
        involuntary += forced - earlier[1]
    cpu = (after.cpu - before.cpu) / 1e9 + after.children - before.children
    return Used(cpu, voluntary, involuntary, len(before.threads.keys() - after.threads.keys()))


@dataclass
class Holdings:
    resident_kib: int
    threads: int
    descriptors: int


def holdings(pid):
    return Holdings(memory_kib(_read(f"/proc/{pid}/status")), len(os.listdir(f"/proc/{pid}/task")),
                    len(os.listdir(f"/proc/{pid}/fd")))


def outer_pid(holder, inner):
    """The number outside of a lab's process, a child of its holder, that is `inner` inside."""
    for child in _read(f"/proc/{holder}/task/{holder}/children").split():
        if re.search(rf"^NSpid:.*\t{inner}$", _read(f"/proc/{child}/status"), re.M):
            return int(child)
    raise ProcessLookupError(f"no process {inner} in the lab")
