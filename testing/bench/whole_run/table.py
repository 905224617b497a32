"""The results as text. Costs and context switches are per probe."""

import math

from .distribution import summary

_HEADS = ("interfaces", "family", "path", "VRFs", "lb us", "fping us", "ratio", "fping burst us", "ratio", "switches",
          "cycle s", "longest s", "probe every s", "RSS kB", "kB/interface", "threads", "descriptors")


def _number(value, digits):
    return "-" if value is None or math.isnan(value) else f"{value:.{digits}f}"


def _ratio(row, value):
    return "refused" if row.refusal else _number(value, 2)


def _cells(row):
    case = row.case
    return (str(case.interfaces), f"IPv{case.family}", case.path, str(case.vrfs), _number(row.lb_us, 1),
            _number(row.even_us, 1), _ratio(row, row.ratio_even), _number(row.burst_us, 1),
            _ratio(row, row.ratio_burst), _number(row.switches, 1), _number(row.cycle, 3),
            _number(row.cycle_max, 3), _number(row.probe_every, 3), str(row.resident_kib),
            _number(row.kib_per_interface, 1), str(row.threads), str(row.descriptors))


def lined_up(heads, lines, left=0):
    """A table as Markdown has it, with its columns in line; the first `left` columns start at the left."""
    widths = [max(len(line[column]) for line in (heads, *lines)) for column in range(len(heads))]

    def written(cells):
        padded = [cell.ljust(width) if column < left else cell.rjust(width)
                  for column, (cell, width) in enumerate(zip(cells, widths))]
        return "| " + " | ".join(padded) + " |"

    rule = "|" + "|".join("-" * (width + 1) + ("-" if column < left else ":")
                          for column, width in enumerate(widths)) + "|"
    return "\n".join([written(heads), rule, *map(written, lines)])


def notes(rows):
    """What a reader must know of these rows."""
    texts = [f"{row.case}: no ratio, {row.refusal}" for row in rows if row.refusal]
    texts += [f"{row.case}: {row.ended_threads} threads ended within a window; what they used of switches is missing"
              for row in rows if row.ended_threads]
    if any(not row.case.answered for row in rows):
        texts.append("IPv6 on the raw path: no probe succeeds there, as documented; every second cycle sends one, "
                     "and fping has that rate too")
    if any(row.case.permanent_neighbours for row in rows):
        texts.append("over 300 interfaces the neighbours are permanent entries: the machine has one table, of 1024")
    return texts


def table(rows):
    text = lined_up(_HEADS, [_cells(row) for row in rows])
    return "\n".join([text, *(f"* {note}" for note in notes(rows))])


def switching_table(results):
    """Milliseconds, of every family that was cut."""
    lines = []
    for times in results:
        for what, values in (("silence to FAILED", times.detection), ("FAILED to the kernel's route", times.switch),
                             ("ACTIVE to the kernel's route", times.back)):
            found = summary(values)
            lines.append((f"IPv{times.family}: {what}", str(found["count"]),
                          *[f"{1000 * found[name]:.1f}" for name in ("p50", "p99", "max")]))
    return lined_up(("", "cuts", "p50 ms", "p99 ms", "max ms"), lines, left=1)


def dead_gateway_line(dead):
    return (f"{dead.interfaces} interfaces, IPv{dead.family}: cycle {dead.healthy:.3f} s, with a dead gateway beside "
            f"them {dead.dead:.3f} s: {1000 * dead.added:.0f} ms more")


def goals_table(goals):
    lines = [(goal.name, goal.bound, goal.measured, "met" if goal.met else "NOT MET") for goal in goals]
    return lined_up(("goal", "bound", "measured", ""), lines, left=1)
