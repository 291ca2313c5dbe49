#!/usr/bin/env python3
"""The build date is that of the sources. Arguments: the script that looks it up, the header that the build has made of
it, and the plug-in."""

import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

script, header, plug_in = sys.argv[1:4]
EPOCH = 1700000000
TEXT = "Nov 14 2023 22:13:20"


def date_in(file):
    return re.search(r'TESSA_BUILD_DATE L"(.*)"', pathlib.Path(file).read_text()).group(1)


class BuildDate(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.sources = pathlib.Path(folder.name)
        self.header = self.sources / "build_date.h"

    def look_up(self, epoch=None):
        environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
        environment["GIT_CEILING_DIRECTORIES"] = str(self.sources.parent)
        environment["TZ"] = "IST-5:30"
        if epoch is not None:
            environment["SOURCE_DATE_EPOCH"] = str(epoch)
        subprocess.run(["cmake", "-D", f"SOURCE_FOLDER={self.sources}", "-D", f"HEADER={self.header}", "-P", script],
                       env=environment, check=True)
        return date_in(self.header)

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=x", "-c", "user.email=x", *arguments], cwd=self.sources, check=True,
                       env={**os.environ, "GIT_COMMITTER_DATE": f"{EPOCH} +0200"}, stdout=subprocess.DEVNULL)

    def test_environment_says_it(self):
        self.assertEqual(self.look_up(EPOCH), TEXT)

    def test_else_the_commit(self):
        self.git("init", "-q")
        self.git("commit", "-q", "--allow-empty", "-m", "x")
        self.assertEqual(self.look_up(), TEXT)

    def test_else_the_project_file(self):
        (self.sources / "CMakeLists.txt").touch()
        os.utime(self.sources / "CMakeLists.txt", (EPOCH, EPOCH))
        self.assertEqual(self.look_up(), TEXT)

    def test_header_is_written_anew_only_if_the_date_is_another(self):
        self.look_up(EPOCH)
        os.utime(self.header, (EPOCH, EPOCH))
        self.look_up(EPOCH)
        self.assertEqual(self.header.stat().st_mtime, EPOCH)
        self.look_up(EPOCH + 1)
        self.assertNotEqual(self.header.stat().st_mtime, EPOCH)

    def test_plug_in_has_the_date_of_its_build(self):
        self.assertTrue(date_in(header).encode("utf-16-le") in pathlib.Path(plug_in).read_bytes())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
