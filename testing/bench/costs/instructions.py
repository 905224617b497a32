"""How many instructions a unit of every subject of lb_benchmarks takes, as callgrind counts them."""

import os
import re
import subprocess
import tempfile

# The C library has a copy routine for every kind of processor: the one that all have is counted everywhere.
PLAIN_PROCESSOR = "glibc.cpu.hwcaps=-AVX2,-AVX,-AVX512F,-AVX512VL,-AVX512BW,-ERMS,-FSRM,-SSSE3,-SSE4_1,-SSE4_2,-BMI2"


def count(program):
    """{subject: instructions}. What a dump is of stands in its trigger."""
    costs = {}
    with tempfile.TemporaryDirectory() as directory:
        subprocess.run(
            ["valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no",
             f"--callgrind-out-file={directory}/dump", program, "--count"],
            env={"PATH": os.environ["PATH"], "LC_ALL": "C", "GLIBC_TUNABLES": PLAIN_PROCESSOR}, check=True)
        for name in os.listdir(directory):
            with open(os.path.join(directory, name), encoding="utf-8") as file:
                text = file.read()
            subject = re.search(r"^desc: Trigger: Client Request: (.+)$", text, re.MULTILINE)
            if subject:
                costs[subject[1]] = int(re.search(r"^totals: (\d+)$", text, re.MULTILINE)[1])
    assert costs, f"{program} counts nothing"
    return costs
