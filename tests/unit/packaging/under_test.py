"""What the tests of the packaging have in common: its modules, and the folder of the programs, their argument."""

import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[3]
PROGRAMS = pathlib.Path(sys.argv[1]).resolve()
sys.path[:0] = [str(ROOT / "tools" / "packaging"), str(ROOT / "scripts")]


class InFolder(unittest.TestCase):
    """A test with a folder of its own, for a moment."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def refused(self, text, function, *arguments):
        from sources import Refused
        with self.assertRaises(Refused) as caught:
            function(*arguments)
        self.assertIn(text, str(caught.exception))


def main():
    unittest.main(argv=sys.argv[:1])
