"""What is printed."""

from targets import TARGETS, number

# Heading and figure of each column that every load has.
COLUMNS = [("CPU s", "cpu"), ("client", "client"), ("server", "server"), ("MB/s", "throughput"),
           ("switches/GiB", "switches_per_gib"), ("preempted", "preempted"), ("peak MiB", "peak_mib")]

# What ratios are of, with its heading.
RATIOS = [("CPU", "cpu"), ("MB/s", "throughput"), ("switches", "switches_per_gib"), ("peak", "peak_mib")]

HEADINGS = {
    "seek_median_us": "seek µs", "seek_most_us": "most", "open_median_us": "open µs", "connections": "connections",
    "threads": "threads", "kb_per_stream": "KB/stream", "us_per_packet": "µs/packet", "drop_share": "dropped",
    "pause_median_us": "pause µs", "pause_most_us": "most", "resume_median_us": "resume µs", "resume_most_us": "most",
}


def cell(value):
    if value is None:
        return "-"
    return ("%.4f" if 0 < abs(value) < 0.01 else "%.3f" if abs(value) < 10 else "%.1f" if abs(value) < 1000
            else "%.0f") % value


def figure_rows(load, series):
    """Headings and rows of text: the medians."""
    columns = COLUMNS + [(HEADINGS[figure], figure) for figure in load.columns]
    return ([""] + [heading for heading, _ in columns],
            [[name] + [cell(runs.median(figure)) for _, figure in columns] for name, runs in series.items()])


def ratio_rows(load, series):
    """Headings and rows of text: the ratios to each baseline. No rows where there is nobody to compare with."""
    baselines = [name for name in load.baselines if name in series]
    headings = [""] + ["%s/%s" % (heading, name) for name in baselines for heading, _ in RATIOS]
    return headings, [[name] + [number(runs.ratio(figure, series[baseline])) for baseline in baselines
                                for _, figure in RATIOS]
                      for name, runs in series.items()] if baselines else []


def tables_of(load, series):
    return [(headings, rows) for headings, rows in (figure_rows(load, series), ratio_rows(load, series)) if rows]


def aligned(headings, rows):
    widths = [max(len(row[i]) for row in [headings] + rows) for i in range(len(headings))]
    lines = []
    for row in [headings] + rows:
        lines.append("  ".join([row[0].ljust(widths[0])]
                               + [text.rjust(width) for text, width in zip(row[1:], widths[1:])]).rstrip())
    return "\n".join(lines)


def markdown(headings, rows, numbers=True):
    """numbers: every column but the first."""
    lines = ["| " + " | ".join(headings) + " |", "|---" + ("|--:" if numbers else "|---") * (len(headings) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def title_of(load, pinned):
    return load.title + (", a core each" if pinned else "")


def target_rows(outcome):
    """Of the targets that were measured."""
    rows = []
    for target in TARGETS:
        value = target.value(outcome)
        if value is not None:
            rows.append([target.text, target.bound, number(value), "met" if target.met(value) else "missed"])
    return ["target", "bound", "measured", ""], rows


def instruction_rows(rows):
    return [[row["what"], cell(row["instructions"])] for row in rows]


def small_part_rows(rows):
    return [[row["what"], cell(row["nanoseconds"])] for row in rows]
