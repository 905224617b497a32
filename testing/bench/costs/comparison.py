"""The costs that the repository has, and what differs from them."""

import json
import os
import platform
import subprocess

BASELINE = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "baseline")
INSTRUCTIONS = os.path.join(BASELINE, "instructions.json")
SYSTEM_CALLS = os.path.join(BASELINE, "system_calls.json")

# Of every cost, and so many calls per probe: what a cycle does once is a fraction of one.
SHARE = 0.05
CALLS = 0.1
INSTRUCTIONS_LEAST = 20  # whether the compiler inlines a call is not worth a word

# Threads wait for each other's locks when the scheduler has it so, and the allocator gives memory back when its
# arenas happen to end where it may: these come and go with the run.
UNSTEADY = {"futex": 2.0, "sched_yield": 2.0, "brk": 0.5, "madvise": 0.5, "mmap": 0.5, "mprotect": 0.5, "munmap": 0.5}


def toolchain():
    """What instructions depend on beside the sources."""
    compiler = subprocess.run(["g++", "-dumpfullversion"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return {"compiler": f"g++ {compiler.strip()}", "C library": os.confstr("CS_GNU_LIBC_VERSION"),
            "machine": platform.machine()}


def _read(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def toolchain_differences():
    """Texts; none when the instructions that are written down are of this toolchain."""
    here, theirs = toolchain(), _read(INSTRUCTIONS)["toolchain"]
    return [f"{name} {theirs[name]} there and {here[name]} here" for name in here if here[name] != theirs[name]]


def _dump(path, content):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(content, file, indent=2, sort_keys=True)
        file.write("\n")
    print(f"costs: wrote {os.path.relpath(path)}")


def write(instructions, system_calls):
    _dump(INSTRUCTIONS, {"toolchain": toolchain(), "instructions": instructions})
    _dump(SYSTEM_CALLS, system_calls)


def _allowed_calls(name, before):
    return max(UNSTEADY.get(name, CALLS), SHARE * before)


def _changes(costs, baseline, allowed):
    """(share of growth, line) of every cost that is not what it was."""
    for name in sorted(costs.keys() | baseline.keys()):
        now, before = costs.get(name, 0), baseline.get(name, 0)
        if round(abs(now - before), 6) <= allowed(name, before):
            continue
        share = (now - before) / before if before else float("inf")
        change = f"{share:+.1%}" if before else "new"
        yield share, f"{'dearer' if now > before else 'cheaper'}  {change:>8}  {before:>12,} -> {now:>12,}  {name}"


def changes(instructions, system_calls, baseline_instructions, baseline_system_calls):
    """Lines, what has become dearest first."""
    found = list(_changes(instructions, baseline_instructions,
                          lambda name, before: max(INSTRUCTIONS_LEAST, SHARE * before)))
    for path in sorted(system_calls.keys() | baseline_system_calls.keys()):
        found += [(share, f"{line} per probe, {path}") for share, line in
                  _changes(system_calls.get(path, {}), baseline_system_calls.get(path, {}), _allowed_calls)]
    return [line for _, line in sorted(found, key=lambda change: (-change[0], change[1]))]


def _nearest(baseline, counts):
    """Of each cost the count that is nearest to what it was."""
    names = {name for costs in counts for name in costs}
    return {name: min((costs.get(name, 0) for costs in counts), key=lambda now: abs(now - baseline.get(name, 0)))
            for name in names}


def confirmed(count, baseline_instructions, baseline_system_calls):
    """What `count` gives; where something differs it counts once more, since what a busy machine does to a count it
    does not do twice: a cost differs that did so both times."""
    instructions, system_calls = count()
    if not changes(instructions, system_calls, baseline_instructions, baseline_system_calls):
        return instructions, system_calls
    again = count()
    paths = system_calls.keys() | again[1].keys()
    return (_nearest(baseline_instructions, (instructions, again[0])),
            {path: _nearest(baseline_system_calls.get(path, {}), (system_calls.get(path, {}), again[1].get(path, {})))
             for path in paths})


def compare(count):
    """Prints what differs, or that nothing does; returns the exit status. `count` gives instructions and calls."""
    baselines = _read(INSTRUCTIONS)["instructions"], _read(SYSTEM_CALLS)
    differences = toolchain_differences()
    if differences:
        print("costs: instructions not compared, those written down are of another toolchain: "
              f"{', '.join(differences)}")
        baselines = {}, baselines[1]
    instructions, system_calls = confirmed(count, *baselines)
    lines = changes(instructions, system_calls, *baselines)
    for line in lines:
        print(line)
    counted = f"{len(instructions)} subjects in instructions, {len(system_calls)} paths in system calls"
    if not lines:
        print(f"costs: {counted}: all as they were")
        return 0
    dearer = sum(line.startswith("dearer") for line in lines)
    print(f"costs: {counted}: {dearer} dearer, {len(lines) - dearer} cheaper; if that is meant, commit what "
          "scripts/costs --update writes along with the change")
    return 1
