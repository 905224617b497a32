"""The results as a plot, by gnuplot: costs against the number of interfaces, and switch times as cumulative curves."""

import shutil
import subprocess

from .distribution import cumulative

PROGRAM = "gnuplot"
_COLOURS = {("frame", 4): "#1b6ca8", ("frame", 6): "#0b3c5d", ("raw", 4): "#c8553d", ("raw", 6): "#7f2a1d"}


def available():
    return shutil.which(PROGRAM) is not None


def _block(name, points):
    return f"${name} << EOD\n" + "".join(f"{x:g} {y:g}\n" for x, y in points) + "EOD\n"


def _cost_curves(rows):
    """[(points, title, style)] of lb's cost for each family and path, and of fping's over all of them."""
    curves = []
    for path, family in _COLOURS:
        own = [row for row in rows if (row.case.path, row.case.family, row.case.vrfs) == (path, family, 1)]
        colour = _COLOURS[path, family]
        for attribute, name, style in (("lb_us", "lb", "lw 2 pt 7 ps 0.6"), ("burst_us", "fping", "dt 2 pt 6 ps 0.6")):
            points = sorted((row.case.interfaces, getattr(row, attribute)) for row in own
                            if getattr(row, attribute) == getattr(row, attribute))
            if points:
                curves.append((points, f"{name} IPv{family} {path}", f"linespoints lc rgb '{colour}' {style}"))
    return curves


def _time_curves(switching):
    colours = {4: "#1b6ca8", 6: "#c8553d"}
    curves = []
    for times in switching:
        for attribute, name, style in (("detection", "silence to FAILED", "lw 2"),
                                       ("switch", "FAILED to route", "lw 2 dt 2"),
                                       ("back", "ACTIVE to route", "lw 2 dt 3")):
            points = [(max(1000 * value, 0.1), share) for value, share in cumulative(getattr(times, attribute))]
            curves.append((points, f"IPv{times.family} {name}", f"steps lc rgb '{colours[times.family]}' {style}"))
    return curves


def _panel(prefix, settings, curves):
    blocks = "".join(_block(f"{prefix}{number}", points) for number, (points, _, _) in enumerate(curves))
    drawn = ", ".join(f"${prefix}{number} using 1:2 with {style} title '{title}'"
                      for number, (_, title, style) in enumerate(curves))
    return f"{settings}\n{blocks}plot {drawn}\n"


def script(rows, switching):
    """What gnuplot is to draw; nothing where there is nothing."""
    panels = []
    costs, times = _cost_curves(rows), _time_curves(switching)
    if costs:
        panels.append(_panel("cost", "set title 'CPU per probe (fping in bursts)'\nset xlabel 'interfaces'\n"
                             "set ylabel 'microseconds'\nset logscale xy\nset key below", costs))
    if times:
        panels.append(_panel("time", "unset logscale\nset logscale x\nset title 'Switch times'\n"
                             "set xlabel 'milliseconds'\nset ylabel 'share of cuts'\nset yrange [0:1.05]\n"
                             "set key below", times))
    if not panels:
        return ""
    return (f"set terminal svg size {650 * len(panels)},480 font 'sans,12' background rgb 'white'\n"
            f"set grid\nset multiplot layout 1,{len(panels)}\n" + "".join(panels) + "unset multiplot\n")


def draw(path, rows, switching):
    """Writes an SVG file; raises OSError when gnuplot refuses."""
    text = script(rows, switching)
    if not text:
        return
    done = subprocess.run([PROGRAM], input=text, text=True, capture_output=True, check=False)
    if done.returncode != 0 or not done.stdout:
        raise OSError(f"{PROGRAM}: {done.stderr.strip()}")
    with open(path, "w", encoding="utf-8") as file:
        file.write(done.stdout)
