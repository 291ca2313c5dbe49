#!/usr/bin/env python3
"""What is built is told by version, commit and the date of the sources. Arguments: the script that looks them up, the
header that the build has made of it, and the plug-in."""

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


def told_in(file, name):
    return re.search(rf'{name} "(.*?)"', pathlib.Path(file).read_text()).group(1)


class BuildInfo(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.sources = pathlib.Path(folder.name)
        self.header = self.sources / "build_info.h"

    def look_up(self, epoch=None):
        environment = {name: value for name, value in os.environ.items() if name != "SOURCE_DATE_EPOCH"}
        environment["GIT_CEILING_DIRECTORIES"] = str(self.sources.parent)
        environment["TZ"] = "IST-5:30"
        if epoch is not None:
            environment["SOURCE_DATE_EPOCH"] = str(epoch)
        subprocess.run(["cmake", "-D", f"SOURCE_FOLDER={self.sources}", "-D", f"HEADER={self.header}", "-P", script],
                       env=environment, check=True)
        return told_in(self.header, "TESSA_BUILD_DATE")

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

    def test_commit_is_told_and_whether_it_was_changed_since(self):
        self.look_up(EPOCH)
        self.assertEqual(told_in(self.header, "TESSA_COMMIT"), "unknown")
        self.git("init", "-q")
        (self.sources / "file").write_text("one")
        self.git("add", "file")
        self.git("commit", "-q", "-m", "x")
        self.look_up(EPOCH)
        commit = told_in(self.header, "TESSA_COMMIT")
        self.assertRegex(commit, "^[0-9a-f]{12}$")
        (self.sources / "file").write_text("two")
        self.look_up(EPOCH)
        self.assertEqual(told_in(self.header, "TESSA_COMMIT"), commit + "+")

    def test_plug_in_has_what_its_build_tells(self):
        bytes_of_it = pathlib.Path(plug_in).read_bytes()
        for name in ("TESSA_BUILD_DATE", "TESSA_COMMIT", "TESSA_VERSION_TEXT"):
            self.assertTrue(told_in(header, name).encode("utf-16-le") in bytes_of_it, name)


class Version(unittest.TestCase):
    def version(self, value):
        """The text of a version, or None if it is refused."""
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "print.cmake"
            file.write_text(f'include("{pathlib.Path(script).with_name("version.cmake")}")\nmessage(${{TESSA_VERSION_TEXT}})')
            done = subprocess.run(["cmake", "-D", f"TESSA_VERSION={value}", "-P", str(file)], capture_output=True,
                                  text=True)
            self.assertEqual(done.returncode == 0, "is no version" not in done.stderr)
            return done.stderr.strip() if done.returncode == 0 else None

    def test_text_has_two_digits_for_each_number(self):
        self.assertEqual(self.version("21.0.0"), "V21.00.00.00_52.50.00.04")
        self.assertEqual(self.version("1.10.99"), "V01.10.99.00_52.50.00.04")

    def test_what_is_no_version_is_refused(self):
        for value in ("", "21", "21.0", "21.0.0.0", "21.0.x", "21.0.-1", "021.0.0", "21.0.100", "100.0.0", "21.0.0-1"):
            self.assertIsNone(self.version(value), value)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
