#!/usr/bin/env python3
"""Archives are the same to the bit whenever and in whatever order they are written, and the sums are those that the
system's own tool reckons. Argument: the folder of the programs."""

import os
import subprocess
import zipfile

from under_test import InFolder, main

import archive
import sums

DATE = 1700000001  # 2023-11-14 22:13:21; the time of zip archives is even


class Archive(InFolder):
    def write(self, name, entries, date=DATE):
        path = self.folder / name
        archive.write(path, date, entries)
        return path

    def test_same_entries_give_the_same_bits(self):
        source = self.folder / "source"
        source.write_bytes(b"content" * 1000)
        one = self.write("one.zip", [("b", source), ("a/c", "text")])
        os.utime(source, (1, 1))
        source.chmod(0o600)
        other = self.write("other.zip", [("a/c", b"text"), ("b", source)])
        self.assertEqual(one.read_bytes(), other.read_bytes())
        self.assertNotEqual(one.read_bytes(), self.write("third.zip", [("a/c", "test"), ("b", source)]).read_bytes())

    def test_content_and_time_come_out_again(self):
        with zipfile.ZipFile(self.write("one.zip", [("a/c", "text")])) as content:
            self.assertEqual(content.read("a/c"), b"text")
            self.assertEqual(content.infolist()[0].date_time, (2023, 11, 14, 22, 13, 20))

    def test_time_before_that_of_archives_is_their_first(self):
        with zipfile.ZipFile(self.write("one.zip", [("a", "")], date=0)) as content:
            self.assertEqual(content.infolist()[0].date_time, (1980, 1, 1, 0, 0, 0))

    def test_archive_that_cannot_be_written_leaves_the_old_one_and_nothing_else(self):
        path = self.write("one.zip", [("a", "old")])
        for entries in ([("a", "1"), ("b", self.folder / "missing")], [("a", "1"), ("a", "2")]):
            with self.assertRaises((OSError, ValueError)):
                archive.write(path, DATE, entries)
            self.assertEqual([file.name for file in self.folder.iterdir()], ["one.zip"])
        with zipfile.ZipFile(path) as content:
            self.assertEqual(content.read("a"), b"old")


class Sums(InFolder):
    def check(self):
        return subprocess.run(["sha256sum", "--check", "--strict", "SHA256SUMS"], cwd=self.folder, capture_output=True,
                              text=True, check=False)

    def test_sums_are_checked_by_the_systems_tool(self):
        (self.folder / "below").mkdir()
        (self.folder / "a b.zip").write_bytes(b"first")
        (self.folder / "below" / "c").write_bytes(b"")
        for _ in range(2):  # the sums themselves are not summed
            sums.write(self.folder)
            done = self.check()
            self.assertEqual((done.returncode, done.stdout), (0, "a b.zip: OK\nbelow/c: OK\n"), done.stderr)
        (self.folder / "a b.zip").write_bytes(b"First")
        self.assertIn("a b.zip: FAILED", self.check().stdout)


main()
