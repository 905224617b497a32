"""Instructions, as callgrind counts them: of lb_benchmarks' subjects, and of the daemon's cycles."""

import os
import re
import statistics
import subprocess
import tempfile

from lab import waiting

from .healthy_links import LINKS

_CALLGRIND = ["valgrind", "--quiet", "--tool=callgrind"]

# The C library has a copy routine for every kind of processor: the one that all have is counted everywhere.
_FEATURES = ("AVX512F", "AVX512VL", "AVX512BW", "AVX2", "AVX", "AVX_Fast_Unaligned_Load", "ERMS", "FSRM", "BMI2",
             "SSSE3", "SSE4_1", "SSE4_2")
_PLAIN_PROCESSOR = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=" + ",".join("-" + feature for feature in _FEATURES)}

# Once in every cycle of a worker.
_CYCLE = "LBDecision::run(LBConfig&, LBWorkerContext const&)"

# The first cycles find next hops and start threads.
_SETTLING, _CYCLES, _CYCLES_AT_MOST = 2, 9, 30


def _read(path):
    """What the dump is of, and its sum."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    trigger = re.search(r"^desc: Trigger: (?:Client Request: )?(.+)$", text, re.MULTILINE)
    total = re.search(r"^totals: (\d+)$", text, re.MULTILINE)
    return trigger and trigger[1], int(total[1]) if total else 0


def of_subjects(program):
    """{subject: instructions of a unit}"""
    with tempfile.TemporaryDirectory() as directory:
        argv = [*_CALLGRIND, "--instr-atstart=no", f"--callgrind-out-file={directory}/dump", program, "--count"]
        subprocess.run(argv, env={"PATH": os.environ["PATH"], "LC_ALL": "C", **_PLAIN_PROCESSOR}, check=True)
        dumps = dict(_read(os.path.join(directory, name)) for name in os.listdir(directory))
    costs = {subject: total for subject, total in dumps.items() if total}
    assert costs, f"{program} counts nothing"
    return costs


def of_cycle(links):
    """Of a cycle, from one decision to the next, with all threads of the daemon: the median.

    A cycle counts when it has a probe of every link: on a busy machine a reply that comes late leaves out the next.
    """
    stem = links.lab.path("cycle")
    lb = links.start_lb(["env", *(f"{name}={value}" for name, value in _PLAIN_PROCESSOR.items()), *_CALLGRIND,
                         f"--dump-before={_CYCLE}", f"--callgrind-out-file={stem}"])
    totals, before = [], None
    for number in range(_SETTLING, _CYCLES_AT_MOST):
        # A dump is whole when the next one is there; its last probe came to the far end before it was begun.
        waiting.wait_until(lambda n=number: os.path.exists(f"{stem}.{n}"), f"{number} cycles of {LINKS} links")
        probes = links.probes()
        waiting.wait_until(lambda n=number: os.path.exists(f"{stem}.{n + 1}"), f"{number + 1} cycles of {LINKS} links")
        if before is not None and probes - before == LINKS:
            totals.append(_read(f"{stem}.{number}")[1])
        before = probes
        if len(totals) == _CYCLES:
            break
    lb.stop()
    assert totals, f"the machine is too busy: no cycle with {LINKS} probes"
    return round(statistics.median(totals))
