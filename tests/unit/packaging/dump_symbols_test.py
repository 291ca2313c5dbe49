#!/usr/bin/env python3
"""What belongs to a memory dump is found among the symbols of several releases, and what does not is told. That a
debugger can use it is tested with a real dump. Argument: the folder of the programs."""

import contextlib
import io
import pathlib
import struct
import tempfile

from under_test import PROGRAMS, InFolder, main

import archive
import dump_symbols
import symbol_store
from binary_files import PeFile


def dump_of(*modules):
    """A memory dump with nothing but these modules: path, time stamp, image size."""
    head = struct.pack("<4sIIIIIQ", b"MDMP", 0xA793, 2, 32, 0, 0, 0)
    at = 32 + 2 * 12
    names, records = b"", b""
    for path, time_stamp, size in modules:
        place = at + 4 + dump_symbols.MODULE_SIZE * len(modules) + len(names)
        records += struct.pack("<Q4I", 0x140000000, size, 0, time_stamp, place).ljust(dump_symbols.MODULE_SIZE, b"\0")
        text = path.encode("utf-16-le")
        names += struct.pack("<I", len(text)) + text + b"\0\0"
    streams = struct.pack("<6I", 3, 0, 0, dump_symbols.MODULES, 4 + len(records), at)
    return head + streams + struct.pack("<I", len(modules)) + records + names


class DumpSymbols(InFolder):
    @classmethod
    def setUpClass(cls):
        temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(temporary.cleanup)
        # Two releases; the programs are those of the second.
        cls.old, cls.new = (pathlib.Path(temporary.name) / name for name in ("old.zip", "new.zip"))
        archive.write(cls.old, 0, [("tessahost.exe/0000000111000/tessahost.exe", b"old")])
        binaries = [PROGRAMS / "tessahost.exe", PROGRAMS / "fenlu3.sys"]
        archive.write(cls.new, 0, symbol_store.entries(binaries), level=1)
        cls.pe = {path.name: PeFile(path.read_bytes()) for path in binaries}

    def setUp(self):
        super().setUp()
        self.out = self.folder / "out"

    def module(self, name, path=None):
        return path or f"C:\\Program Files\\{name}", self.pe[name].time_stamp, self.pe[name].image_size

    def look_out(self, content, *archives):
        """Exit status, what was printed, and what was put into the folder."""
        dump = self.folder / "test.dmp"
        dump.write_bytes(content)
        with contextlib.redirect_stdout(io.StringIO()) as output, contextlib.redirect_stderr(output):
            status = dump_symbols.main([str(path) for path in (dump, self.out, *(archives or (self.old, self.new)))])
        left = sorted(path.name for path in self.out.iterdir()) if self.out.exists() else []
        return status, output.getvalue(), left

    def test_module_is_found_with_its_pdb_file_in_the_release_that_it_is_of(self):
        status, text, left = self.look_out(dump_of(("C:\\windows\\ntdll.dll", 1, 2), self.module("tessahost.exe")))
        self.assertEqual((status, left), (0, ["tessahost.exe", "tessahost.pdb"]), text)
        for name in left:
            self.assertEqual((self.out / name).read_bytes(), (PROGRAMS / name).read_bytes())
        self.assertRegex(text, r"^tessahost\.exe [0-9A-F]{8}[0-9a-f]+\n$")

    def test_name_is_found_whatever_its_case(self):
        self.assertEqual(self.look_out(dump_of(self.module("tessahost.exe", "C:\\TESSAHOST.EXE")))[::2],
                         (0, ["TESSAHOST.EXE", "tessahost.pdb"]))

    def test_driver_is_found_without_a_pdb_file(self):
        self.assertEqual(self.look_out(dump_of(self.module("fenlu3.sys"))),
                         (0, f"fenlu3.sys {self.pe['fenlu3.sys'].time_stamp:08X}8000, without a PDB file\n",
                          ["fenlu3.sys"]))

    def test_module_of_an_unknown_release_is_told(self):
        for time_stamp, size in ((0xABCDEF01, 0x61000), (1, 0x12000)):
            status, text, left = self.look_out(dump_of(("C:\\tessahost.exe", time_stamp, size)))
            self.assertEqual((status, left), (1, []))
            self.assertEqual(text, f"tessahost.exe {time_stamp:08X}{size:x} is of no release given here\n")

    def test_dump_of_another_program_is_told(self):
        status, text, _ = self.look_out(dump_of(("C:\\windows\\ntdll.dll", 1, 2)))
        self.assertEqual(status, 1)
        self.assertIn("has no module that is in these archives", text)

    def test_files_that_are_none_are_told(self):
        whole = dump_of(self.module("tessahost.exe"))
        for content, told in ((b"just text", "is no memory dump"), (whole[:-30], "is damaged"),
                              (whole[:20], "is damaged"), (whole[:44] + struct.pack("<I", 99) + whole[48:], "is damaged"), (b"", "empty")):
            status, text, _ = self.look_out(content)
            self.assertEqual(status, 1)
            self.assertIn(told, text)
        self.assertIn("not a zip file", self.look_out(whole, PROGRAMS / "tessahost.exe")[1])
        self.assertIn("No such file", self.look_out(whole, self.folder / "missing.zip")[1])

    def test_missing_arguments_are_told(self):
        with contextlib.redirect_stderr(io.StringIO()) as errors:
            self.assertEqual(dump_symbols.main(["a.dmp", "folder"]), 2)
        self.assertIn("usage: dump_symbols.py", errors.getvalue())


main()
