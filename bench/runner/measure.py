"""Runs the contestants of a load, one after the other, round by round."""

import json
import os
import socket
import subprocess

from figures import Series
from server import free_port

# Far above what any load takes, on a machine that does nothing else.
PATIENCE = 600


class ContestantFailed(Exception):
    pass


def cores():
    """One for the server and one for the client."""
    usable = sorted(os.sched_getaffinity(0))
    return {usable[0]}, {usable[-1]}


class Field:
    """The contestants that were built, and the server."""

    def __init__(self, folder, server):
        self._folder = folder
        self._server = server

    def has(self, entrant):
        return os.access(self._program("contestant_" + entrant.program), os.X_OK)

    def run(self, load, entrant, pinned):
        """One run: the contestant's line of JSON, and what only the runner knows."""
        before = self._server.connections()
        done = subprocess.run(self._command(load, entrant), capture_output=True, text=True, timeout=PATIENCE,
                              preexec_fn=(lambda: os.sched_setaffinity(0, cores()[1])) if pinned else None)
        if done.returncode != 0:
            raise ContestantFailed("%s, %s: %s" % (load.name, entrant.name,
                                                   done.stderr.strip() or "status %d" % done.returncode))
        sample = json.loads(done.stdout)
        sample["connections"] = self._server.connections() - before
        sample["streams"] = load.streams
        sample["expected"] = load.expected
        sample["sent"] = load.options.get("packets", 0)
        if load.expected and sample["bytes"] != load.expected:
            raise ContestantFailed("%s, %s: %d bytes instead of %d"
                                   % (load.name, entrant.name, sample["bytes"], load.expected))
        return sample

    def measure(self, load, pinned, rounds, failures, said):
        """The series of each entrant, by name. Neighbours in time stand at the same place of their series."""
        self._server.pin(cores()[0] if pinned else os.sched_getaffinity(0))
        series = {entrant.name: Series() for entrant in load.entrants if self.has(entrant)}
        for number in range(rounds):
            for entrant in load.entrants:
                if entrant.name not in series:
                    continue
                said("%s%s, round %d of %d: %s" % (load.name, " pinned" if pinned else "", number + 1, rounds,
                                                   entrant.name))
                try:
                    series[entrant.name].add(self.run(load, entrant, pinned))
                except (ContestantFailed, subprocess.TimeoutExpired) as failure:
                    failures.append(str(failure))
                    del series[entrant.name]
        return series

    def _program(self, name):
        return os.path.join(self._folder, name)

    def _command(self, load, entrant):
        url = load.url(self._server) if load.url else "udp://127.0.0.1:%d" % free_port(socket.SOCK_DGRAM)
        command = [self._program("contestant_" + entrant.program), "--load", entrant.load, "--url", url,
                   "--servers", str(self._server.pid)]
        if url.startswith("https:"):
            command += ["--trusted", self._server.trusted]
        if not load.url:
            command += ["--sender", self._program("udp_sender")]
        for name, value in {**load.options, **entrant.options}.items():
            command += ["--" + name, str(value)]
        return command
