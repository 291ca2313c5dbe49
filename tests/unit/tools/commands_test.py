#!/usr/bin/env python3
"""docs/commands.md says what the programs say, and the programs go on well with whoever reads their output. Arguments:
the emulator, the folder of the programs, the script that prints the document, and the document."""

import os
import pathlib
import subprocess
import sys
import unittest

emulator, programs, script, document = sys.argv[1:5]


def run(output, program, *arguments):
    """Exit code, and what is told on standard error."""
    done = subprocess.run([emulator, os.path.join(programs, program), *arguments], stdin=subprocess.DEVNULL,
                          stdout=output, stderr=subprocess.PIPE, text=True, errors="replace", timeout=60)
    return done.returncode, done.stderr.replace("\r", "")


class Document(unittest.TestCase):
    def test_says_what_the_programs_say(self):
        told = subprocess.run([script, programs], stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
        self.maxDiff = None
        self.assertEqual(pathlib.Path(document).read_text(), told,
                         "run scripts/commands.sh >docs/commands.md")


class Output(unittest.TestCase):
    def setUp(self):
        read, self.pipe = os.pipe()
        os.close(read)
        self.addCleanup(os.close, self.pipe)

    def test_reader_who_has_gone_is_no_error(self):
        for command in (("tessahost.exe", "help"), ("tessactl.exe", "manual")):
            self.assertEqual(run(self.pipe, *command), (0, ""), command)

    def test_watch_ends_when_its_reader_has_gone(self):
        self.assertEqual(run(self.pipe, "tessactl.exe", "watch"), (0, ""))

    def test_exit_code_of_a_command_stays_although_its_reader_has_gone(self):
        code, _ = run(self.pipe, "tessactl.exe", "doctor", "--service", "no such service", "--timeout", "5")
        self.assertEqual(code, 3)

    def test_full_disk_is_an_error(self):
        with open("/dev/full", "wb") as full:
            for program in ("tessahost", "tessactl"):
                self.assertEqual(run(full, program + ".exe", "help"),
                                 (1, program + ": the output cannot be written whole; is the disk full?\n"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
