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
_SETTLING, _CYCLES = 2, 5


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
        subprocess.run([*_CALLGRIND, "--instr-atstart=no", f"--callgrind-out-file={directory}/dump", program, "--count"],
                       env={"PATH": os.environ["PATH"], "LC_ALL": "C", **_PLAIN_PROCESSOR}, check=True)
        dumps = dict(_read(os.path.join(directory, name)) for name in os.listdir(directory))
    costs = {subject: total for subject, total in dumps.items() if total}
    assert costs, f"{program} counts nothing"
    return costs


def of_cycle(links):
    """Of a cycle, from one decision to the next, with all threads of the daemon."""
    stem = links.lab.path("cycle")
    last = _SETTLING + _CYCLES
    lb = links.start_lb(["env", *(f"{name}={value}" for name, value in _PLAIN_PROCESSOR.items()), *_CALLGRIND,
                         f"--dump-before={_CYCLE}", f"--callgrind-out-file={stem}"])
    # The one after it is begun when it is whole.
    waiting.wait_until(lambda: os.path.exists(f"{stem}.{last + 1}"), f"{last + 1} cycles of {LINKS} links", timeout=90)
    lb.stop()
    return round(statistics.median(_read(f"{stem}.{number}")[1] for number in range(_SETTLING + 1, last + 1)))
