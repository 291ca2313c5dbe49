#!/usr/bin/env python3
"""Versions and options that are none are refused before anything is made, and what is there is replaced as a whole or
not at all. Argument: the folder of the programs."""

import contextlib
import io
import os
import re
import shutil
import struct
import unittest
import unittest.mock

from under_test import PROGRAMS, ROOT, InFolder, main

import package
import sources


class Version(InFolder):
    def test_three_numbers_up_to_99_are_a_version(self):
        for text in ("0.0.0", "21.0.1", "99.99.99", "1.10.2"):
            self.assertEqual(sources.version(text), text)

    def test_anything_else_is_none(self):
        for text in ("", "21", "21.0", "21.0.0.0", "100.0.0", "1.0.100", "01.0.0", "1.00.0", "1.2.3 ", "1.2.3\n",
                     "v1.2.3", "1.2.-3", "1.2.x", "../1.2.3", "١.2.3"):
            self.refused(f"\"{text}\" is no version", sources.version, text)

    def test_version_of_the_sources_is_built_where_it_is_built_day_by_day(self):
        own = sources.version()
        self.assertEqual(own, (ROOT / "VERSION").read_text().strip())
        self.assertEqual(sources.build_folder(own), ROOT / "build" / "release")
        self.assertEqual(sources.build_folder("99.98.97"), ROOT / "build" / "package-release")

    def test_date_is_that_of_the_environment_or_of_the_commit(self):
        with unittest.mock.patch.dict(os.environ, {"SOURCE_DATE_EPOCH": "1700000000"}):
            self.assertEqual(sources.date(), 1700000000)
        with unittest.mock.patch.dict(os.environ, {"SOURCE_DATE_EPOCH": "yesterday"}):
            self.refused("SOURCE_DATE_EPOCH is \"yesterday\"", sources.date)
        with unittest.mock.patch.dict(os.environ):
            os.environ.pop("SOURCE_DATE_EPOCH", None)
            with unittest.mock.patch.object(sources, "_git", return_value="1600000000"):
                self.assertEqual(sources.date(), 1600000000)

    def test_version_of_a_build_is_read_from_its_binaries(self):
        # What is tested here may be a build of another version than that of the sources.
        cache = (PROGRAMS.parent / "CMakeCache.txt").read_text(encoding="utf-8")
        version = re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.*)$", cache, re.MULTILINE)[1]
        self.assertEqual(package.version_of_build(PROGRAMS), version)
        with unittest.mock.patch.object(package.check_binaries, "version_of",
                                        return_value=struct.pack("<8H", 2, 1, 9, 3, 7, 7, 7, 7)):
            self.assertEqual(package.version_of_build(PROGRAMS), "1.2.3")
        package.check_build(PROGRAMS, version)
        self.refused(f"holds version {version}, not 99.98.97", package.check_build, PROGRAMS, "99.98.97")

    def test_build_that_is_not_whole_is_refused(self):
        shutil.copytree(PROGRAMS, self.folder / "bin", ignore=shutil.ignore_patterns("*_tests.*", "tessactl.*"))
        self.refused("tessactl.exe cannot be read", package.check_build, self.folder / "bin", "21.0.0")


class ManyStations(unittest.TestCase):
    def test_what_the_document_names_is_beside_it(self):
        entries = dict(package.many_stations_entries())
        document = entries["docs/many_stations.md"].read_text(encoding="utf-8")
        self.assertIn("](../deploy/fleet)", document)
        named = {f"deploy/fleet/{name}" for name in re.findall(r"^\| `(\w+\.\w+)` \|", document, re.MULTILINE)}
        self.assertGreater(len(named), 3)
        self.assertLessEqual(named, set(entries))
        for name, path in entries.items():
            self.assertEqual(path, ROOT / name)


class Options(InFolder):
    def setUp(self):
        super().setUp()
        for name in ("run", "replace_whole"):
            patch = unittest.mock.patch.object(package, name, side_effect=AssertionError(f"{name} was called"))
            patch.start()
            self.addCleanup(patch.stop)
        # Whether the installer is there is a test of its own.
        patch = unittest.mock.patch.object(package, "MAKE_MSI", ROOT / "VERSION")
        patch.start()
        self.addCleanup(patch.stop)

    def told(self, *arguments):
        """Exit status and what is told."""
        with contextlib.redirect_stderr(io.StringIO()) as errors:
            try:
                status = package.main(list(arguments))
            except SystemExit as ended:
                status = ended.code
        return status, errors.getvalue()

    def test_unknown_options_are_told(self):
        for arguments in (["--fast"], ["1.2.3", "1.2.4"], ["--sig", "a.pfx"], ["--sign"]):
            status, text = self.told(*arguments)
            self.assertEqual(status, 2, arguments)
            self.assertIn("usage: scripts/package.sh", text)

    def test_options_of_signing_need_a_certificate(self):
        for option in ("--password-file", "--timestamp"):
            status, text = self.told(option, "x")
            self.assertEqual(status, 2)
            self.assertIn("of use with --sign only", text)

    def test_wrong_version_is_refused_before_anything_is_built(self):
        self.assertEqual(self.told("1.2"), (1, "package: \"1.2\" is no version: three numbers up to 99 are "
                                               "needed, such as 21.0.1\n"))

    def test_missing_certificate_is_refused_before_anything_is_built(self):
        path = self.folder / "nobody.pfx"
        self.assertEqual(self.told("--sign", str(path)), (1, f"package: the certificate {path} does not exist\n"))

    def test_missing_installer_is_refused_before_anything_is_built(self):
        with unittest.mock.patch.object(package, "MAKE_MSI", ROOT / "installer" / "missing.py"):
            self.assertEqual(self.told(), (1, "package: installer/missing.py is missing: it makes the installer "
                                              "package\n"))

    def test_changed_working_tree_is_told(self):
        for changed in (True, False):
            with unittest.mock.patch.object(sources, "is_changed", return_value=changed), \
                    unittest.mock.patch.object(package, "run", side_effect=sources.Refused("stopped here")):
                status, text = self.told()
            self.assertEqual(status, 1)
            self.assertEqual("the working tree was changed" in text, changed, text)
            self.assertIn("package: stopped here\n", text)


class Whole(InFolder):
    def setUp(self):
        super().setUp()
        self.output = self.folder / "package"

    def left(self):
        return sorted(path.relative_to(self.folder).as_posix() for path in self.folder.rglob("*"))

    def test_earlier_output_is_replaced_whole(self):
        for name in ("first", "second"):
            package.replace_whole(self.output, lambda folder, name=name: (folder / name).write_text(""))
            self.assertEqual(self.left(), ["package", f"package/{name}"])
        self.assertEqual(self.output.stat().st_mode & 0o777, 0o755)

    def test_failure_leaves_the_earlier_output_and_nothing_else(self):
        self.output.mkdir()
        (self.output / "first").write_text("")

        def fail(folder):
            (folder / "half").write_text("")
            raise sources.Refused("it failed")
        self.refused("it failed", package.replace_whole, self.output, fail)
        self.assertEqual(self.left(), ["package", "package/first"])


os.umask(0o022)
main()
