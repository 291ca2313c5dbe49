#!/usr/bin/env python3
"""The check of the binaries finds each kind of damage in a copy of a sound one. Arguments: the folder of the scripts
and that of the programs."""

import contextlib
import copy
import io
import pathlib
import shutil
import struct
import sys
import tempfile
import unittest
import unittest.mock

scripts, programs = map(pathlib.Path, sys.argv[1:3])
sys.path.insert(0, str(scripts))

import check_binaries
from binary_files import DEBUG, DELAY_IMPORT, RELOCATION, REPRODUCIBLE, PdbFile, PeFile

SOUND = "tessaplug.dll", "tessahost.exe", "fenlu3.sys"


def scattered_pdb(streams):
    """A PDB file of these streams whose blocks lie in the file from the last to the first."""
    size = 512
    parts = [[stream[i:i + size].ljust(size, b"\0") for i in range(0, len(stream), size)] for stream in streams]
    count = sum(map(len, parts))
    numbers = iter(range(count + 2, 2, -1))  # behind the head and the two maps of free blocks
    directory = struct.pack(f"<{len(streams) + 1}I", len(streams), *map(len, streams))
    directory += b"".join(struct.pack("<I", next(numbers)) for stream in parts for _ in stream)
    blocks = [block for stream in parts for block in stream][::-1]
    head = PdbFile.MAGIC + struct.pack("<6I", size, 1, count + 5, len(directory), 0, count + 4)
    blocks = [head, b"", b"", *blocks, directory, struct.pack("<I", count + 3)]
    return b"".join(block.ljust(size, b"\0") for block in blocks)


class CheckBinaries(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        for name in SOUND:
            for file in programs / name, (programs / name).with_suffix(".pdb"):
                if file.exists():
                    shutil.copy(file, self.folder)

    def edit(self, name, change):
        """Lets a function change the content, a bytearray, for which it also gets what was read from it."""
        path = self.folder / name
        content = bytearray(path.read_bytes())
        change(content, PeFile(bytes(content)))
        path.write_bytes(content)

    def replace(self, name, old, new):
        self.assertEqual(len(old), len(new))
        content = (self.folder / name).read_bytes()
        self.assertTrue(old in content, f"there is no {old}")
        (self.folder / name).write_bytes(content.replace(old, new))

    def put(self, name, at, form, *values):
        """Writes numbers where at(pe) says."""
        self.edit(name, lambda content, pe: struct.pack_into(form, content, at(pe), *values))

    def plant(self, name, text):
        """Writes a text where nothing is: into the zeros between a file's headers and its first section."""
        def change(content, pe):
            end = min(section[4] for section in pe.sections)
            at = content.index(bytes(len(text) + 2), end - 256, end) + 1
            content[at:at + len(text)] = text
        self.edit(name, change)

    def findings(self, name, **options):
        return check_binaries.findings(self.folder / name, **options)

    def expect(self, name, *findings):
        found = self.findings(name)
        for finding in findings:
            self.assertTrue(any(finding in line for line in found), f"{finding!r} is not in {found}")
        self.assertEqual(len(found), len(findings), found)

    def test_sound_binaries_pass(self):
        for name in SOUND:
            self.expect(name)

    def test_flag_that_was_cleared_is_missed(self):
        for name, flag in check_binaries.DLL_CHARACTERISTICS.items():
            whole = (self.folder / "tessahost.exe").read_bytes()
            flags = PeFile(whole).dll_characteristics
            self.put("tessahost.exe", lambda pe: pe.options + 70, "<H", flags & ~flag)
            self.expect("tessahost.exe", f"lacks {name}")
            (self.folder / "tessahost.exe").write_bytes(whole)

    def test_binary_without_relocations_is_refused(self):
        self.put("tessaplug.dll", lambda pe: pe.options + 112 + 8 * RELOCATION, "<II", 0, 0)
        self.expect("tessaplug.dll", "has no relocations")
        self.put("tessahost.exe", lambda pe: pe.options - 2, "<H", 0x23)
        self.expect("tessahost.exe", "has no relocations")

    def test_section_that_is_writable_and_executable_is_found(self):
        def make_writable(content, pe):
            at = content.index(b".text\0\0\0", pe.options)
            struct.pack_into("<I", content, at + 36, 0xE0000020)
        self.edit("tessahost.exe", make_writable)
        self.expect("tessahost.exe", "writable and executable: .text")

    def test_unknown_function_has_to_be_looked_up(self):
        self.replace("tessahost.exe", b"SetDefaultDllDirectories\0", b"SetDefaultDllDirectoriez\0")
        self.expect("tessahost.exe", "imports SetDefaultDllDirectoriez from kernel32.dll: look up")

    def test_function_of_another_library_is_unknown(self):
        functions = copy.deepcopy(check_binaries.FUNCTIONS)
        functions["ole32.dll"]["GetErrorInfo"] = functions["oleaut32.dll"].pop("GetErrorInfo")
        found = self.findings("tessaplug.dll", functions=functions)
        self.assertEqual(len(found), 1, found)
        self.assertIn("imports GetErrorInfo from oleaut32.dll: look up", found[0])

    def test_function_that_is_too_new_is_refused(self):
        functions = copy.deepcopy(check_binaries.FUNCTIONS)
        functions["kernel32.dll"]["AddDllDirectory"] = check_binaries.version_number("10.0.14394")
        self.assertEqual(self.findings("tessahost.exe", functions=functions),
                         ["imports AddDllDirectory from kernel32.dll, which Windows has since 10.0.14394 only"])
        functions["kernel32.dll"]["AddDllDirectory"] = check_binaries.version_number("10.0.14393")
        self.assertEqual(self.findings("tessahost.exe", functions=functions), [])

    def test_foreign_library_is_refused(self):
        self.replace("fenlu3.sys", b"ntoskrnl.exe\0", b"ntosfrnl.exe\0")
        self.assertIn("imports from ntosfrnl.exe, which it may not", self.findings("fenlu3.sys"))
        self.put("tessahost.exe", lambda pe: pe.options + 112 + 8 * DELAY_IMPORT, "<II", 4096, 64)
        self.expect("tessahost.exe", "loads libraries late")

    def test_exports_are_exactly_the_expected(self):
        self.replace("tessaplug.dll", b"\0tessaplug_cleanup\0", b"\0tessaplug_cleanux\0")
        self.expect("tessaplug.dll", "exports tessaplug_cleanux, tessaplug_init, tessaplug_service_ctrl_handler; "
                                     "expected is tessaplug_cleanup,")

    def test_one_export_too_many_is_refused(self):
        libraries, exports = check_binaries.SHIPPED["tessaplug.dll"]
        fewer = {"tessaplug.dll": (libraries, exports - {"tessaplug_init"})}
        with unittest.mock.patch.dict(check_binaries.SHIPPED, fewer):
            self.expect("tessaplug.dll", "expected is tessaplug_cleanup, tessaplug_service_ctrl_handler")

    def test_older_subsystem_and_system_versions_are_found(self):
        self.put("tessahost.exe", lambda pe: pe.options + 48, "<HH", 6, 0)
        self.expect("tessahost.exe", "has the subsystem version 6.0")
        self.put("tessaplug.dll", lambda pe: pe.options + 40, "<HH", 6, 1)
        self.expect("tessaplug.dll", "has the system version 6.1")

    def test_time_stamps_are_found_wherever_they_are(self):
        self.put("tessahost.exe", lambda pe: pe.options - 16, "<I", 0x69000000)
        self.expect("tessahost.exe", "has a time stamp beside the hash")
        self.put("tessaplug.dll", lambda pe: pe.directory(DEBUG)[0] + 4, "<I", 0x69000000)
        self.expect("tessaplug.dll", "has a time stamp beside the hash")

    def test_time_stamp_is_the_hash_by_which_symbol_stores_tell_versions_apart(self):
        for name in SOUND:
            self.put(name, lambda pe: pe.options - 16, "<I", 0)
            self.assertTrue(any("has no hash of its content" in line for line in self.findings(name)), name)

    def test_time_stamp_that_is_not_said_to_be_a_hash_is_refused(self):
        def forget(content, pe):
            start, size = pe.directory(DEBUG)
            for at in range(start, start + size, 28):
                if struct.unpack_from("<I", content, at + 12)[0] == REPRODUCIBLE:
                    struct.pack_into("<I", content, at + 12, 0)
        self.edit("tessahost.exe", forget)
        self.expect("tessahost.exe", "has no hash of its content")

    def test_manifest_is_there_and_says_what_it_should(self):
        for old, new, finding in ((b"asInvoker", b"asInvokes", "the level of requestedExecutionLevel is not asInvoker"),
                                  (b">UTF-8<", b">UTF-7<", "activeCodePage is not UTF-8"),
                                  (b"SMI/2016/WindowsSettings\">true", b"SMI/2016/WindowsSettings\">tree",
                                   "longPathAware is not true"),
                                  (b"{8e0f7a12-", b"{8e0f7a13-", "the Id of supportedOS is not {8e0f7a12-")):
            whole = (self.folder / "tessahost.exe").read_bytes()
            self.replace("tessahost.exe", old, new)
            self.expect("tessahost.exe", finding)
            (self.folder / "tessahost.exe").write_bytes(whole)

    def test_missing_resources_are_found(self):
        def remove(kind):
            def change(content, pe):
                root = pe.directory(2)[0]
                at = next(at for at in range(root + 16, root + 64, 8)
                          if struct.unpack_from("<I", content, at)[0] == kind)
                struct.pack_into("<I", content, at, 99)
            return change
        self.edit("tessahost.exe", remove(check_binaries.VERSION))
        self.expect("tessahost.exe", "has no version resource")
        self.edit("tessahost.exe", remove(check_binaries.MANIFEST))
        self.expect("tessahost.exe", "has no version resource", "has no manifest")

    def test_pdb_file_of_another_binary_is_refused(self):
        shutil.copy(self.folder / "tessaplug.pdb", self.folder / "tessahost.pdb")
        self.expect("tessahost.exe", "has a tessahost.pdb beside it that is another build's")
        (self.folder / "tessahost.pdb").unlink()
        self.expect("tessahost.exe", "has no tessahost.pdb beside it")

    def test_pdb_file_of_another_age_is_refused(self):
        self.put("tessahost.exe", lambda pe: pe.content.index(b"RSDS") + 20, "<I", 2)
        self.expect("tessahost.exe", "has a tessahost.pdb beside it that is another build's")

    def test_pdb_file_is_named_without_a_folder(self):
        self.replace("tessahost.exe", b"\0tessahost.pdb\0", b"\0bin/shost.pdb\0")
        self.expect("tessahost.exe", "names bin/shost.pdb as its PDB file")

    def test_file_that_is_none_of_its_kind_is_told(self):
        (self.folder / "tessahost.pdb").write_bytes(b"just text")
        self.expect("tessahost.exe", "is no PDB file")
        (self.folder / "tessahost.exe").write_bytes(b"just text")
        self.expect("tessahost.exe", "is no program or library")
        (self.folder / "tessahost.exe").unlink()
        self.expect("tessahost.exe", "cannot be read: ")

    def test_path_of_a_machine_is_found_in_a_binary(self):
        for text in (b"/home/somebody/a.cpp", b"\\home\\somebody\\a.cpp", "/mnt/b.cpp".encode("utf-16-le"),
                     str(scripts.resolve().parent).encode() + b"/host/main.cpp"):
            whole = (self.folder / "tessahost.exe").read_bytes()
            self.plant("tessahost.exe", text)
            self.expect("tessahost.exe", "has a path of a machine in itself: ")
            (self.folder / "tessahost.exe").write_bytes(whole)

    def test_path_of_a_machine_is_found_in_a_pdb_file_across_its_blocks(self):
        reference = PeFile((self.folder / "tessahost.exe").read_bytes()).pdb_reference()
        information = struct.pack("<III16s", 20000404, 0, reference[1], reference[0])
        text = b"\0" * 500 + b"/home/somebody/project/a.cpp\0"
        content = scattered_pdb([b"", information, text])
        self.assertFalse(text in content, "it is in one piece")
        (self.folder / "tessahost.pdb").write_bytes(content)
        self.expect("tessahost.exe", "has a path of a machine in tessahost.pdb: /home/somebody/project/a.cpp")

    def test_path_that_only_looks_like_one_of_a_machine_is_none(self):
        for text in b"lib/home/a", b"../tmp/a", b"/homepage/a", b"/root":
            self.plant("tessahost.exe", text)
        self.expect("tessahost.exe")

    def test_driver_has_the_checksum_of_its_content(self):
        self.plant("fenlu3.sys", b"something else")
        self.expect("fenlu3.sys", "has the checksum 0x")
        shutil.copy(programs / "fenlu3.sys", self.folder)
        self.put("fenlu3.sys", lambda pe: pe.checksum_at, "<I", 0)
        self.expect("fenlu3.sys", "has the checksum 0x00000000; its content gives 0x")

    def test_driver_is_a_native_image(self):
        self.put("fenlu3.sys", lambda pe: pe.options + 68, "<H", 3)
        self.put("fenlu3.sys", lambda pe: pe.checksum_at, "<I",
                 PeFile((self.folder / "fenlu3.sys").read_bytes()).expected_checksum())
        self.expect("fenlu3.sys", "is no native image")

    def test_builds_that_differ_in_a_bit_are_told(self):
        with contextlib.redirect_stderr(io.StringIO()) as errors, contextlib.redirect_stdout(io.StringIO()):
            self.assertEqual(check_binaries.main(["--compare", str(programs), str(programs)]), 0)
            self.assertEqual(check_binaries.main(["--compare", str(programs), str(self.folder)]), 1)
            self.put("tessahost.exe", lambda pe: 2, "<B", 0x91)
            self.assertEqual(check_binaries.main(["--compare", str(programs), str(self.folder)]), 1)
        self.assertIn("tessahost.exe differs from offset 0x2 on", errors.getvalue())
        self.assertIn("nx4120.sys cannot be read: ", errors.getvalue())
        self.assertNotIn("tessaplug.dll differs", errors.getvalue())

    def test_versions_are_all_the_same(self):
        for name in {**check_binaries.SHIPPED, **check_binaries.STAND_INS, **check_binaries.DRIVERS}:
            for file in programs / name, (programs / name).with_suffix(".pdb"):
                if file.exists():
                    shutil.copy(file, self.folder)
        # The signature alone stands in the tool's code as well.
        version = "VS_VERSION_INFO".encode("utf-16-le") + bytes(4) + b"\xbd\x04\xef\xfe"
        self.put("tessactl.exe", lambda pe: pe.content.index(version) + len(version) + 4, "<I", 0x160000)
        with contextlib.redirect_stderr(io.StringIO()) as errors:
            self.assertEqual(check_binaries.main([str(self.folder)]), 1)
        self.assertIn("the versions of the shipped binaries differ: ", errors.getvalue())

    def test_whole_folder_passes_and_wrong_arguments_do_not(self):
        with contextlib.redirect_stdout(io.StringIO()) as output, contextlib.redirect_stderr(io.StringIO()):
            self.assertEqual(check_binaries.main([str(programs)]), 0)
            self.assertEqual(check_binaries.main([str(self.folder)]), 1)
            self.assertEqual(check_binaries.main([]), 2)
        self.assertIn("are as they should be", output.getvalue())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
