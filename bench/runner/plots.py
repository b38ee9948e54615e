"""Draws what was measured, with gnuplot, as SVG."""

import os
import subprocess

PREAMBLE = """
set terminal svg size 860,420 dynamic font "sans-serif,13" background "white"
set output "%(file)s"
set title "%(title)s"
set ylabel "%(unit)s"
set yrange [0:*]
set grid ytics lc rgb "#dddddd"
set key outside right top
set style fill solid 0.85 noborder
set linetype 1 lc rgb "#c0392b"
set linetype 2 lc rgb "#7f8c8d"
set linetype 3 lc rgb "#2980b9"
set linetype 4 lc rgb "#27ae60"
set linetype 5 lc rgb "#8e44ad"
"""

BARS = """
set style data histograms
set style histogram clustered gap 1
set boxwidth 0.9
set xtics nomirror
plot for [i=2:%(columns)d] "-" using i:xtic(1) title columnheader(i)
"""

LINES = """
set xlabel "%(across)s"
set xrange [0:*]
plot for [i=2:%(columns)d] "-" using 1:i with linespoints lw 2 pt 7 title columnheader(i)
"""

# Name, title, unit, figure, and the loads that stand beside each other, with their label.
BODIES = ["4k", "32k", "256k"]
ALL_BODIES = [(scheme + "-" + size, "%s %s" % (scheme, size)) for scheme in ("http", "https") for size in BODIES]
CHARTS = [
    ("cpu", "CPU of client and server, a core each", "seconds per GiB", "cpu_per_gib", ALL_BODIES, True),
    ("throughput", "Throughput, a core each", "MB/s", "throughput", ALL_BODIES, True),
    ("switches", "Voluntary context switches of the client, not pinned", "per GiB", "switches_per_gib",
     ALL_BODIES, False),
]
CURVES = [
    ("streams", "Streams at 1 MiB/s each: CPU of client and server", "seconds per GiB", "cpu_per_gib", "paced"),
    ("memory", "Streams at full speed: memory of the client", "KB per stream", "kb_per_stream", "streams"),
]


def quoted(text):
    return '"%s"' % text


def table(first, names, rows):
    """Data as gnuplot reads it from its input, once for each column that is plotted."""
    lines = [" ".join([quoted(first)] + [quoted(name) for name in names])]
    for label, values in rows:
        lines.append(" ".join([quoted(label) if isinstance(label, str) else str(label)]
                              + ["NaN" if value is None else "%g" % value for value in values]))
    return ("\n".join(lines) + "\ne\n") * len(names)


def draw(folder, name, settings, plot, first, names, rows):
    file = os.path.join(folder, name + ".svg")
    settings = dict(settings, file=file, columns=len(names) + 1)
    subprocess.run(["gnuplot"], input=(PREAMBLE + plot) % settings + table(first, names, rows), text=True, check=True,
                   capture_output=True)
    return file


def names_in(groups):
    """The entrants of several loads, in the order of their first appearance."""
    return list(dict.fromkeys(name for series in groups for name in series))


def values_of(series, names, figure):
    return [series[name].median(figure) if name in series else None for name in names]


def rows_of_bars(outcome, loads, figure, pinned):
    found = [(label, outcome[name, pinned]) for name, label in loads if outcome.get((name, pinned))]
    names = names_in(series for _, series in found)
    return names, [(label, values_of(series, names, figure)) for label, series in found]


def rows_of_curve(outcome, prefix, figure):
    found = sorted((int(name.split("-")[1]), series) for (name, _), series in outcome.items()
                   if name.startswith(prefix + "-") and series)
    names = names_in(series for _, series in found)
    return names, [(count, values_of(series, names, figure)) for count, series in found]


def draw_all(outcome, folder):
    """The files that were written: a chart whose loads were not measured is left out."""
    files = []
    for name, title, unit, figure, loads, pinned in CHARTS:
        names, rows = rows_of_bars(outcome, loads, figure, pinned)
        if rows:
            files.append(draw(folder, name, {"title": title, "unit": unit}, BARS, "load", names, rows))
    for name, title, unit, figure, prefix in CURVES:
        names, rows = rows_of_curve(outcome, prefix, figure)
        if len(rows) > 1:
            files.append(draw(folder, name, {"title": title, "unit": unit, "across": "streams"}, LINES, "streams",
                              names, rows))
    names, rows = rows_of_bars(outcome, [("seek", "seek and 64 KiB")], "seek_median_us", False)
    if rows:
        files.append(draw(folder, "seek", {"title": "A random seek and 64 KiB: median", "unit": "µs"}, BARS, "load",
                          names, rows))
    return files
