"""The benchmark: see docs/performance.md. Started by bench/run, which builds first and has the help text."""

import argparse
import json
import os
import platform
import signal
import subprocess
import sys
import time
from dataclasses import dataclass, field
from typing import Dict, List, Tuple

import catalogue
import extras
import measure
import page
import plots
import tables
from server import Server

PAGE = "docs/performance.md"
EXTRAS = {"instructions": "Instructions of the client per KiB, and of a trace line that does not pass",
          "parts": "The small parts: ring buffer, header lines, URLs, playlist"}


def load_as_json(load, pinned, series):
    """Of each entrant the medians, the ratios to each baseline, and every run."""
    return {"load": load.name, "pinned": pinned, "entrants": {
        name: {"medians": {figure: runs.median(figure) for figure in runs.figures()},
               "ratios": {baseline: {figure: runs.ratio(figure, series[baseline]) for figure in runs.figures()}
                          for baseline in load.baselines if baseline in series},
               "runs": runs.samples}
        for name, runs in series.items()}}


@dataclass
class Run:
    """All that was measured."""

    rounds: int
    date: str
    machine: str
    versions: List[str]
    short: bool = False  # --quick
    loads: List[Tuple[catalogue.Load, bool]] = field(default_factory=list)  # and whether pinned
    outcome: Dict = field(default_factory=dict)  # series by entrant, by load and whether pinned
    instructions: List[dict] = field(default_factory=list)
    small_parts: List[dict] = field(default_factory=list)
    failures: List[str] = field(default_factory=list)

    def as_json(self):
        targets = tables.target_rows(self.outcome)[1]
        return {"date": self.date, "machine": self.machine, "versions": self.versions, "rounds": self.rounds,
                "short": self.short,
                "loads": [load_as_json(load, pinned, self.outcome[load.name, pinned]) for load, pinned in self.loads],
                "instructions": self.instructions, "parts": self.small_parts,
                "targets": [dict(zip(("target", "bound", "measured", "verdict"), row)) for row in targets],
                "failures": self.failures}


def parser():
    made = argparse.ArgumentParser(prog="bench/run", add_help=False)
    made.add_argument("--quick", action="store_true")
    made.add_argument("--load", nargs="+", metavar="NAME", default=[])
    made.add_argument("--rounds", type=int)
    made.add_argument("--pinned", action="store_true")
    made.add_argument("--page", action="store_true")
    made.add_argument("--list", action="store_true")
    return made


def arguments(words):
    made = parser()
    options = made.parse_args(words)
    if options.rounds is not None and options.rounds < 1:
        made.error("--rounds needs 1 or more")
    if options.page and (options.load or options.pinned):
        made.error("--page needs all loads, each as it is meant")
    return options


def is_chosen(name, beginnings):
    return not beginnings or any(name.startswith(beginning) for beginning in beginnings)


def check_names(beginnings, names):
    for beginning in beginnings:
        if not any(name.startswith(beginning) for name in names):
            sys.exit("bench/run: no load begins with \"%s\"; --list names them" % beginning)


def said(text):
    """What is going on, on a terminal."""
    if sys.stderr.isatty():
        sys.stderr.write("\r\x1b[K" + text)
        sys.stderr.flush()


def show(title, *shown):
    """Tables, each of headings and rows."""
    said("")
    print("== %s\n%s\n" % (title, "\n\n".join(tables.aligned(*table) for table in shown)), flush=True)


def machine():
    models = set()
    with open("/proc/cpuinfo") as file:
        for line in file:
            if line.startswith(("model name", "Hardware")):
                models.add(line.split(":", 1)[1].strip())
    cores = len(os.sched_getaffinity(0))
    return "%s, %d core%s, Linux %s" % (" and ".join(sorted(models)) or platform.machine(), cores,
                                        "" if cores == 1 else "s", platform.release())


def versions():
    found = []
    for package in ("libcurl", "openssl", "libavformat", "gstreamer-1.0"):
        done = subprocess.run(["pkg-config", "--modversion", package], capture_output=True, text=True)
        if done.returncode == 0:
            found.append("%s %s" % (package, done.stdout.strip()))
    return found


def run_loads(run, loads, options, tried):
    for load in loads:
        for pinned in (True,) if options.pinned else (True, False) if load.both_ways else (False,):
            series = tried.measure(load, pinned, run.rounds, run.failures, said)
            run.loads.append((load, pinned))
            run.outcome[load.name, pinned] = series
            show("%s (%s)" % (tables.title_of(load, pinned), load.name), *tables.tables_of(load, series))


def run_extras(run, folder, server, options):
    try:
        if is_chosen("instructions", options.load):
            run.instructions = extras.count_instructions(folder, server, (32,) if options.quick else (4, 32, 256), said)
            show("Instructions of the client (instructions)",
                 (["", "instructions"], tables.instruction_rows(run.instructions)))
        if is_chosen("parts", options.load):
            run.small_parts = extras.small_parts(folder, run.rounds, said)
            show("Small parts (parts)", (["", "ns"], tables.small_part_rows(run.small_parts)))
    except (extras.ExtraFailed, OSError) as failure:
        run.failures.append(str(failure))


def finish(run, folder, options):
    results = os.path.join(folder, "results")
    os.makedirs(results, exist_ok=True)
    rows = tables.target_rows(run.outcome)
    if rows[1]:
        show("Targets", rows)
    with open(os.path.join(results, "results.json"), "w") as file:
        json.dump(run.as_json(), file, indent=1)
    drawn = plots.draw_all(run.outcome, results)
    print("%s: results.json%s" % (results, "".join(", " + os.path.basename(file) for file in drawn)))
    for failure in run.failures:
        print("FAILED: " + failure, file=sys.stderr)
    if options.page and not run.failures:
        page.rewrite(PAGE, run, drawn)


def main():
    # As Ctrl-C: the server goes, too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    options = arguments(sys.argv[1:])
    scale = catalogue.QUICK if options.quick else catalogue.FULL
    loads = catalogue.all_loads(scale)
    if options.list:
        for name, title in [(load.name, load.title) for load in loads] + list(EXTRAS.items()):
            print("%-12s %s" % (name, title))
        return 0
    check_names(options.load, [load.name for load in loads] + list(EXTRAS))
    folder = "build/bench"
    run = Run(rounds=options.rounds or scale.rounds, date=time.strftime("%Y-%m-%d"), machine=machine(),
              versions=versions(), short=options.quick)
    busy = os.getloadavg()[0]
    if busy > 0.5:
        print("The machine is busy (load %.1f): trust the ratios at most.\n" % busy)
    with Server({**scale.files(), **extras.FILES}) as server:
        programs = os.path.join(folder, "bench")
        run_loads(run, [load for load in loads if is_chosen(load.name, options.load)], options,
                  measure.Field(programs, server))
        run_extras(run, programs, server, options)
    finish(run, folder, options)
    return 1 if run.failures else 0


if __name__ == "__main__":
    sys.exit(main())
