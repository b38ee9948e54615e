"""Every contestant does every load of its own, a little of each, and delivers what it should.

smoke_test.py FOLDER: where the contestants were built. Started by ctest in the bench preset.
"""

import os
import sys
import unittest

import catalogue
import extras
import measure
from figures import figures_of
from server import Server

FOLDER = sys.argv.pop() if len(sys.argv) > 1 else ""


class SmokeTest(unittest.TestCase):
    """Field.run fails where the bytes are not as many as they should be."""

    @classmethod
    def setUpClass(cls):
        cls.server = Server({**catalogue.SMOKE.files(), **extras.FILES})
        cls.server.__enter__()
        cls.addClassCleanup(cls.server.__exit__)
        cls.tried = measure.Field(FOLDER, cls.server)
        cls.loads = {load.name: load for load in catalogue.all_loads(catalogue.SMOKE)}

    def runs_of(self, load):
        for entrant in load.entrants:
            if self.tried.has(entrant):
                yield entrant.name, self.tried.run(load, entrant, pinned=True)

    def test_every_contestant_delivers_what_each_load_asks_for(self):
        for load in self.loads.values():
            for name, sample in self.runs_of(load):
                run = "%s, %s" % (load.name, name)
                self.assertGreater(sample["bytes"], 0, run)
                self.assertGreater(sample["user"] + sample["system"], 0, run)
                for column in load.columns:
                    self.assertIsNotNone(figures_of(sample)[column], run + ": " + column)

    def test_those_that_are_always_built_are_there(self):
        for name in ("mdch", "socket", "curl", "fread"):
            self.assertTrue(os.access(os.path.join(FOLDER, "contestant_" + name), os.X_OK), name)

    def test_datagrams_are_counted_or_missed(self):
        load = self.loads["udp-10k"]
        for _, sample in self.runs_of(load):
            self.assertEqual(sample["packets"] + sample["dropped"], load.options["packets"])

    def test_a_wrong_count_of_bytes_is_a_failure(self):
        load = catalogue.all_loads(catalogue.SMOKE)[0]
        load.expected += 1
        with self.assertRaises(measure.ContestantFailed):
            self.tried.run(load, load.entrants[0], pinned=False)

    def test_the_server_works_for_what_it_sends(self):
        load = self.loads["http-32k"]
        load.options["repeat"] = 20
        load.expected *= 20
        for _, sample in self.runs_of(load):
            self.assertGreater(sample["server"], 0)

    def test_connections_are_counted(self):
        load = self.loads["open"]
        found = {name: sample["connections"] for name, sample in self.runs_of(load)}
        self.assertEqual(found["socket"], 1)
        if "avio" in found:
            self.assertEqual(found["avio"], load.options["count"])


if __name__ == "__main__":
    unittest.main()
