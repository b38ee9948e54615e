"""The blocks of docs/performance.md that are made and not written."""

import os
import shutil

import tables
from targets import TARGETS

FIGURES = "figures"
TARGET_LIST = "targets"

def markers(block):
    return "<!-- made: %s -->" % block, "<!-- end: %s -->" % block


def block_of(text, block):
    begin, end = markers(block)
    return text[text.index(begin) + len(begin):text.index(end)].strip("\n")


def with_block(text, block, content):
    begin, end = markers(block)
    return text[:text.index(begin) + len(begin)] + "\n" + content.strip("\n") + "\n" + text[text.index(end):]


def target_list():
    return tables.markdown(["target", "bound"], [[target.text, target.bound] for target in TARGETS], numbers=False)


def figures(run, plots):
    """run: see main.Run. plots: the names of the pictures beside the page."""
    parts = ["Measured on %s: %s; %s. Each figure is a median of %d rounds%s." % (
        run.date, run.machine, ", ".join(run.versions), run.rounds, " of a short run" if run.short else "")]
    parts += ["![%s](%s)" % (os.path.splitext(name)[0], name) for name in plots]
    parts.append("### Targets, measured\n\n" + tables.markdown(*tables.target_rows(run.outcome)))
    for load, pinned in run.loads:
        parts.append("### " + tables.title_of(load, pinned))
        parts += [tables.markdown(*table) for table in tables.tables_of(load, run.outcome[load.name, pinned])]
    if run.instructions:
        parts.append("### Instructions of the client\n\n" + tables.markdown(
            ["", "instructions"], tables.instruction_rows(run.instructions)))
    if run.small_parts:
        parts.append("### Small parts\n\n" + tables.markdown(["", "ns"], tables.small_part_rows(run.small_parts)))
    return "\n\n".join(parts)


def rewrite(page, run, plots):
    folder = os.path.dirname(page)
    names = []
    for plot in plots:
        names.append("performance-" + os.path.basename(plot))
        shutil.copy(plot, os.path.join(folder, names[-1]))
    with open(page) as file:
        text = file.read()
    text = with_block(text, TARGET_LIST, target_list())
    text = with_block(text, FIGURES, figures(run, names))
    with open(page, "w") as file:
        file.write(text)
