#!/usr/bin/env python3
"""Every test has exactly one label, and every pattern by which a program labels some of its tests is that of a test: one
whose test was renamed would let it run where it cannot. Arguments: the build folder and the file of the patterns."""

import fnmatch
import json
import pathlib
import re
import subprocess
import sys
import unittest

build, patterns = sys.argv[1:3]
LABELS = {"plain", "service", "session", "driver", "winegap", "build"}


def labelled_tests():
    listed = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], check=True, capture_output=True,
                            text=True).stdout
    return [(test["name"], tuple(label for entry in test.get("properties", []) if entry["name"] == "LABELS"
                                 for label in entry["value"])) for test in json.loads(listed)["tests"]]


class Labels(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tests = labelled_tests()

    def test_every_test_has_exactly_one(self):
        self.assertGreater(len(self.tests), 500)
        for name, labels in self.tests:
            self.assertEqual(len(labels), 1, name)
            self.assertIn(labels[0], LABELS, name)

    def test_no_test_is_listed_twice(self):
        names = [name for name, _ in self.tests]
        self.assertEqual(sorted(set(names)), sorted(names))

    def test_every_pattern_is_that_of_a_test(self):
        with open(patterns, encoding="ascii") as file:
            lines = file.read().splitlines()
        self.assertGreater(len(lines), 5)
        for line in lines:
            program, label, filters = line.split()
            for pattern in filters.split(":"):
                found = [name for name, labels in self.tests
                         if labels == (label,) and fnmatch.fnmatchcase(name.partition("  #")[0], pattern)]
                self.assertTrue(found, f"{program}: no test of {label} is named {pattern}")


    def test_every_command_of_the_document_finds_tests(self):
        document = (pathlib.Path(__file__).parents[2] / "docs" / "first_run_on_windows.md").read_text(encoding="utf-8")
        commands = re.findall(r"kit: `([^`]+)`", document)
        self.assertGreater(len(commands), 20)
        names = [name.partition("  #")[0] for name, _ in self.tests]
        for pattern in {word for command in commands for word in command.split()} - LABELS - {"life"}:
            self.assertTrue(fnmatch.filter(names, pattern), f"no test is named {pattern}")


unittest.main(argv=sys.argv[:1])
