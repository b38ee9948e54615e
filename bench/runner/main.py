"""The benchmark: see docs/performance.md. Started by bench/run, which builds first."""

import argparse
import json
import os
import sys

import catalogue
import measure
import tables
from server import Server


def arguments():
    parser = argparse.ArgumentParser(prog="bench/run", description="Measures the library beside others.")
    parser.add_argument("--quick", action="store_true", help="less of everything: ten minutes at most")
    parser.add_argument("--load", nargs="+", metavar="NAME", help="only these loads, or all that begin like that")
    parser.add_argument("--rounds", type=int, metavar="N", help="how often each contestant runs each load")
    parser.add_argument("--pinned", action="store_true", help="server and client have a core each, in every load")
    parser.add_argument("--list", action="store_true", help="the names of the loads")
    parser.add_argument("--folder", default="build/bench", help=argparse.SUPPRESS)
    return parser.parse_args()


def chosen(loads, names):
    for name in names or []:
        if not any(load.name.startswith(name) for load in loads):
            sys.exit("bench/run: no load begins with \"%s\"; --list names them" % name)
    return [load for load in loads if not names or any(load.name.startswith(name) for name in names)]


def said(text):
    if sys.stderr.isatty():
        sys.stderr.write("\r\x1b[K" + text)


def run_loads(loads, options, field, failures):
    """Series by load and whether it was pinned."""
    outcome = {}
    rounds = options.rounds or (3 if options.quick else 7)
    for load in loads:
        for pinned in (True,) if options.pinned else (True, False) if load.both_ways else (False,):
            series = field.measure(load, pinned, rounds, failures, said)
            outcome[load.name, pinned] = series
            said("")
            print("== %s (%s)\n%s\n" % (tables.title_of(load, pinned), load.name,
                                        tables.aligned(*tables.rows_of(load, series))), flush=True)
    return outcome


def as_json(outcome):
    return [{"load": name, "pinned": pinned, "entrants": {entrant: runs.samples for entrant, runs in series.items()}}
            for (name, pinned), series in outcome.items()]


def main():
    options = arguments()
    loads = catalogue.all_loads(options.quick)
    if options.list:
        for load in loads:
            print("%-12s %s" % (load.name, load.title))
        return 0
    failures = []
    results = os.path.join(options.folder, "results")
    os.makedirs(results, exist_ok=True)
    with Server(catalogue.sizes(options.quick)) as server:
        outcome = run_loads(chosen(loads, options.load), options,
                            measure.Field(os.path.join(options.folder, "bench"), server), failures)
    headings, rows = tables.target_rows(outcome)
    if rows:
        print("== Targets\n" + tables.aligned(headings, rows))
    with open(os.path.join(results, "results.json"), "w") as file:
        json.dump(as_json(outcome), file, indent=1)
    for failure in failures:
        print("FAILED: " + failure, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
