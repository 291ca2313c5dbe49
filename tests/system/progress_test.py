#!/usr/bin/env python3
"""What tessactl tells of its progress: on a terminal, and nowhere else. Arguments: the emulator and the folder of the
programs."""

import fcntl
import os
import pty
import re
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time
import unittest

import pyte

emulator, programs = sys.argv[1:3]

MESSAGES = 30000  # more text than a pipe takes
QUIET = 1.0  # seconds without progress
BASE_FOLDER_KEY = r"HKLM\SOFTWARE\Valdorn\Shared Tools\QUELM64"


def program(name, *arguments):
    return [emulator, os.path.join(programs, name + ".exe"), *arguments]


class Terminal:
    """A terminal for one program. It is closed by the first look at what was written."""

    LINES, COLUMNS = 50, 200  # no line of a test is longer

    def __init__(self):
        self.master, self.slave = pty.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", self.LINES, self.COLUMNS, 0, 0))
        self.bytes = b""
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        try:
            while part := os.read(self.master, 4096):
                self.bytes += part
        except OSError:  # nobody has it open any more
            pass

    def close(self):
        if self.slave is not None:
            os.close(self.slave)
            self.slave = None
            self.reader.join(timeout=20)
            os.close(self.master)

    def text(self):
        """All that was ever written, without the sequences by which the console draws; blanks are among these."""
        self.close()
        return re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\s", "", self.bytes.decode(errors="replace"))

    def lines(self):
        """What a person sees in the end."""
        self.close()
        screen = pyte.Screen(self.COLUMNS, self.LINES)
        pyte.ByteStream(screen).feed(self.bytes)
        return [line.rstrip() for line in screen.display if line.strip()]


def slowly(pipe):
    """What is in a pipe, read so late that its writer has to wait."""
    time.sleep(2 * QUIET)
    return pipe.read()


class Progress(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.recording = os.path.join(cls.folder.name, "long.etl")
        subprocess.run(program("writes_long_recording", cls.recording, str(MESSAGES)), check=True, timeout=60)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def decode(self, *options, errors, recording=None, code=0):
        """Standard output of a program that takes more than a second, and what it wrote to a pipe as its errors."""
        with subprocess.Popen(program("tessactl", "trace", "decode", recording or self.recording, *options),
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors) as process:
            output = slowly(process.stdout)
            told = process.stderr.read() if process.stderr else b""
        self.assertEqual(process.returncode, code)
        return output, told.decode().replace("\r\n", "\n")

    def test_redirected_decoding_tells_none(self):
        output, told = self.decode(errors=subprocess.PIPE)
        self.assertEqual(output.count(b"\n"), MESSAGES)
        self.assertNotIn("\r", told)
        self.assertRegex(told, r"^tessactl: functions that were left .*\n$")

    def test_decoding_on_a_terminal_tells_it_there_and_prints_the_same(self):
        for options in ((), ("--functions",), ("--format", "chrome")):
            redirected, _ = self.decode(*options, errors=subprocess.PIPE)
            terminal = Terminal()
            output, _ = self.decode(*options, errors=terminal.slave)
            self.assertEqual(output, redirected, options)
            if not options:
                self.assertRegex(terminal.text(), r"tracedecode:\d+%ofthefile")
            else:
                terminal.close()

    def test_what_is_said_at_the_end_stands_alone_on_the_terminal(self):
        terminal = Terminal()
        self.decode(errors=terminal.slave)
        self.assertIn("%ofthefile", terminal.text())
        said = terminal.lines()
        self.assertEqual(len(said), 1, said)
        self.assertRegex(said[0], r"^tessactl: functions that were left .* not left: \d+\.$")

    def test_recording_that_breaks_off_is_told_on_a_line_of_its_own(self):
        broken = self.recording + ".broken"
        with open(self.recording, "rb") as whole, open(broken, "wb") as part:
            part.write(whole.read()[:-100])
        terminal = Terminal()
        self.decode(errors=terminal.slave, recording=broken, code=1)
        self.assertIn("%ofthefile", terminal.text())
        said = terminal.lines()
        self.assertEqual(len(said), 2, said)
        self.assertRegex(said[0], r"^tessactl: .*\.broken")
        self.assertRegex(said[1], r"^tessactl: functions that were left ")

    def test_report_tells_how_many_parts_have_answered_on_a_terminal_and_there_alone(self):
        self.register_library_that_hangs()
        terminal = Terminal()
        reports = [subprocess.Popen(program("tessactl", "report", f"{self.recording}.{i}.html"), stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=errors)
                   for i, errors in enumerate((terminal.slave, subprocess.PIPE))]
        printed = [report.communicate(timeout=60) for report in reports]
        self.assertEqual([report.returncode for report in reports], [0, 0])
        self.assertRegex(terminal.text(), r"report:\d+of12parts")
        self.assertEqual(printed[1][1], b"")
        for output, _ in printed:
            self.assertRegex(output, rb"^[^\r\n]*\.html  \d")
            self.assertNotIn(b"of 12 parts", output)

    def test_report_and_what_it_lacks_stand_alone_on_the_terminal_of_the_progress(self):
        self.register_library_that_hangs()
        terminal = Terminal()
        page = self.recording + ".html"
        subprocess.run(program("tessactl", "report", page), stdin=subprocess.DEVNULL, stdout=terminal.slave,
                       stderr=terminal.slave, check=True, timeout=60)
        self.assertRegex(terminal.text(), r"report:\d+of12parts")
        said = terminal.lines()
        self.assertRegex(said[0], r"^[A-Z]:.*long\.etl\.html  \d+ KB$")
        self.assertTrue(said[1:], "the library's part is missing")
        for line in said[1:]:
            self.assertRegex(line, r"^  without \w+: ")

    def register_library_that_hangs(self):
        """Its part is given up after seconds."""
        self.addCleanup(subprocess.run, [emulator, "reg", "delete", BASE_FOLDER_KEY, "/v", "Korvane_Oam", "/f"],
                        check=True, capture_output=True, timeout=60)
        hanging = "Z:" + os.path.join(os.path.abspath(programs), "faulty", "hangs").replace("/", "\\")
        subprocess.run(program("q5config", "register", hanging), check=True, timeout=60)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
