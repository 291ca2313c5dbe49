#!/usr/bin/env python3
"""What debuggers look for in a symbol store is there by the names that they look for. Argument: the folder of the
programs."""

import shutil
import struct
import uuid

from under_test import PROGRAMS, InFolder, main

import symbol_store
from binary_files import DEBUG, PeFile


class SymbolStore(InFolder):
    def setUp(self):
        super().setUp()
        for name in ("tessahost.exe", "tessahost.pdb", "fenlu3.sys"):
            shutil.copy(PROGRAMS / name, self.folder)
        self.binary, self.pdb = self.folder / "tessahost.exe", self.folder / "tessahost.pdb"

    def names(self, *binaries):
        return [name for name, _ in symbol_store.entries(binaries)]

    def put(self, at, form, value):
        content = bytearray(self.binary.read_bytes())
        struct.pack_into(form, content, at(PeFile(bytes(content))), value)
        self.binary.write_bytes(content)

    def test_key_of_a_pdb_file_is_its_identifier_and_age_in_upper_case(self):
        identifier = uuid.UUID("{00ab12cd-0e0f-a0b1-0c2d-3e4f50617283}").bytes_le
        self.assertEqual(symbol_store.pdb_key(identifier, 1), "00AB12CD0E0FA0B10C2D3E4F506172831")
        self.assertEqual(symbol_store.pdb_key(identifier, 0x1F), "00AB12CD0E0FA0B10C2D3E4F506172831F")

    def test_key_of_a_binary_is_its_time_stamp_in_upper_case_and_its_size_in_lower(self):
        self.assertEqual(symbol_store.binary_key(0x000ABCDE, 0xAF000), "000ABCDEaf000")
        self.assertEqual(symbol_store.binary_key(0xFEDCBA98, 0x1000), "FEDCBA981000")

    def test_binary_and_pdb_file_are_stored_by_what_is_in_them(self):
        self.put(lambda pe: pe.options - 16, "<I", 0x5A0B0C0D)
        self.put(lambda pe: pe.options + 56, "<I", 0xABC000)
        identifier = uuid.UUID(bytes_le=PeFile(self.binary.read_bytes()).pdb_reference()[0])
        self.assertEqual(list(symbol_store.entries([self.binary])), [
            ("tessahost.exe/5A0B0C0Dabc000/tessahost.exe", self.binary),
            (f"tessahost.pdb/{identifier.hex.upper()}1/tessahost.pdb", self.pdb)])

    def test_builds_of_one_size_have_different_keys(self):
        stamps = {PeFile((PROGRAMS / name).read_bytes()).time_stamp for name in
                  ("tessaplug.dll", "tessahost.exe", "tessactl.exe", "fenlu3.sys", "nx4120.sys")}
        self.assertEqual(len(stamps - {0}), 5)

    def test_driver_is_stored_without_a_pdb_file(self):
        self.assertRegex(" ".join(self.names(self.folder / "fenlu3.sys")), r"^fenlu3\.sys/[0-9A-F]{8}8000/fenlu3\.sys$")

    def test_binary_that_could_not_be_debugged_is_refused(self):
        shutil.copy(PROGRAMS / "tessaplug.pdb", self.pdb)
        self.refused("tessahost.pdb is missing or another build's", self.names, self.binary)
        self.pdb.unlink()
        self.refused("tessahost.pdb is missing or another build's", self.names, self.binary)
        self.put(lambda pe: pe.options + 112 + 8 * DEBUG + 4, "<I", 0)
        self.refused("tessahost.exe names no PDB file", self.names, self.binary)


main()
