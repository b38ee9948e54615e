"""What is counted rather than timed: instructions. And the small parts, timed by Google Benchmark."""

import json
import os
import re
import subprocess

from server import MIB

# Two lengths, whose difference has no start and no end in it.
SHORT, LONG = 4 * MIB, 20 * MIB
FILES = {"short.bin": SHORT, "long.bin": LONG}
TRACE_LINES = 100000

# Otherwise the C library copies with an instruction that valgrind counts once per byte, and that other processors do
# not have.
ENVIRONMENT = dict(os.environ, GLIBC_TUNABLES="glibc.cpu.x86_rep_movsb_threshold=4294967295")


class ExtraFailed(Exception):
    pass


def run(command, environment=None):
    done = subprocess.run(command, capture_output=True, text=True, env=environment)
    if done.returncode != 0:
        raise ExtraFailed("%s: %s" % (os.path.basename(command[0]), done.stderr.strip()[-500:]))
    return done


def instructions(command):
    """Executed by the program, in all its threads."""
    done = run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"] + command, ENVIRONMENT)
    return int(re.search(r"Collected : (\d+)", done.stderr)[1])


def count_instructions(folder, server, blocks, said):
    """Rows: what, and instructions of the client per KiB of body over http; and of one trace line."""
    rows = []
    for block in blocks:
        for name in ("mdch", "curl", "socket"):
            said("instructions: %s, %d KiB" % (name, block))
            counts = [instructions([os.path.join(folder, "contestant_" + name), "--load", "body", "--url",
                                    server.url(file), "--block", str(block * 1024)]) for file in FILES]
            rows.append({"what": "%s, reads of %d KiB, per KiB" % (name, block),
                         "instructions": (counts[1] - counts[0]) * 1024.0 / (LONG - SHORT)})
    said("instructions: trace lines")
    counts = [instructions([os.path.join(folder, "trace_lines"), str(count)]) for count in (0, TRACE_LINES)]
    rows.append({"what": "mdch, a trace line that does not pass (with the loop around it)",
                 "instructions": (counts[1] - counts[0]) / float(TRACE_LINES)})
    return rows


def small_parts(folder, rounds, said):
    """Rows: what, and CPU nanoseconds of one go, the median of the rounds."""
    said("small parts")
    done = run([os.path.join(folder, "micro"), "--benchmark_format=json", "--benchmark_min_time=0.05",
                "--benchmark_repetitions=%d" % max(rounds, 2), "--benchmark_report_aggregates_only=true"])
    return [{"what": row["run_name"], "nanoseconds": row["cpu_time"]}
            for row in json.loads(done.stdout)["benchmarks"] if row["aggregate_name"] == "median"]
