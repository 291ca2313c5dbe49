#!/usr/bin/env python3
"""A memory dump that a failed assertion wrote is readable: with a stock debugger and the PDB files, and with the
operator's tool from the file alone. Arguments: the emulator, the folder of the programs, and the header that tells
their build."""

import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

emulator, programs, header = sys.argv[1:4]
programs_folder = pathlib.Path(programs)
packaging = pathlib.Path(__file__).resolve().parents[2] / "tools" / "packaging"
sources = packaging.parents[1]
sys.path[:0] = [str(packaging), str(sources / "scripts"), str(sources / "tests" / "support")]

import archive
import symbol_store
from json_forms import check


def run(program, *arguments):
    done = subprocess.run([emulator, os.path.join(programs, program), *arguments], capture_output=True, text=True,
                          errors="replace", timeout=120)
    return done.returncode, (done.stdout + done.stderr).replace("\r", "")


def told_in_header(name):
    with open(header, encoding="utf-8") as file:
        return re.search(rf'{name} "(.*?)"', file.read()).group(1)


def host_path(path):
    """C:\\folder\\file as the debugger on this side sees it."""
    return os.path.join(os.environ["WINEPREFIX"], "drive_c", *path.split("\\")[1:])


def head_of(path, length):
    with open(path, "rb") as file:
        return file.read(length)


class Dump(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        code, output = run("asserts_and_dumps.exe")
        assert code == 0, output
        cls.path = output.splitlines()[0]
        cls.file = host_path(cls.path)

    @classmethod
    def tearDownClass(cls):
        os.remove(cls.file)

    @classmethod
    def debugger(cls, *commands, folder=programs):
        options = [word for command in commands for word in ("-o", command)]
        return subprocess.run(["lldb-19", "--batch", "--core", cls.file, *options], cwd=folder,
                              capture_output=True, text=True, timeout=60).stdout

    def test_debugger_shows_exception_threads_functions_and_lines(self):
        output = self.debugger("thread list", "bt all")
        self.assertIn("Exception 0xc0000005", output)
        self.assertIn("thread #2", output)
        self.assertRegex(output, r"MemoryDump::Create.* at memory_dump\.cpp:\d+")
        self.assertRegex(output, r"ErrorHandler::FatalError.* at error_handler\.cpp:\d+")
        self.assertRegex(output, r"FunctionThatAsserts.* at asserts_and_dumps\.cpp:\d+")

    def test_symbols_of_a_release_are_looked_out_for_the_debugger(self):
        with tempfile.TemporaryDirectory() as folder:
            binaries = [programs_folder / "asserts_and_dumps.exe", programs_folder / "tessaplug.dll"]
            symbols = pathlib.Path(folder, "symbols.zip")
            archive.write(symbols, 0, symbol_store.entries(binaries), level=1)
            found = pathlib.Path(folder, "found")
            subprocess.run([sys.executable, packaging / "dump_symbols.py", self.file, found, symbols], check=True,
                           capture_output=True)
            self.assertEqual(sorted(path.name for path in found.iterdir()),
                             ["asserts_and_dumps.exe", "asserts_and_dumps.pdb"])
            output = self.debugger("bt all", folder=found)
        self.assertRegex(output, r"FunctionThatAsserts.* at asserts_and_dumps\.cpp:\d+")

    def test_history_is_printed_oldest_first(self):
        code, output = run("tessactl.exe", "dump", "history", self.path)
        self.assertEqual(code, 0, output)
        self.assertEqual(re.findall(r"exception number (\d)$", output, re.M), ["3", "4", "5", "6", "7"])
        code, output = run("tessactl.exe", "dump", "history", self.path, "--json")
        records = check("exceptions", output)
        self.assertEqual([record["what"] for record in records], [f"exception number {i}" for i in range(3, 8)])
        self.assertEqual(records[0]["file"], "asserts_and_dumps")
        self.assertEqual(records[0]["module"], "asserts_and_dumps.exe")
        self.assertIn("ThrowNumber", records[0]["function"])

    def test_info_tells_of_the_exception(self):
        code, output = run("tessactl.exe", "dump", "info", self.path)
        self.assertEqual(code, 0, output)
        self.assertRegex(output, r"exception  0xC0000005 access violation at asserts_and_dumps\.exe\+0x")
        code, output = run("tessactl.exe", "dump", "info", self.path, "--json")
        info = check("dump_info", output)
        threads = re.findall(r"thread #\d+", self.debugger("thread list"))
        self.assertGreaterEqual(len(threads), 2)
        self.assertEqual(info["threads"], len(threads))
        self.assertEqual(info["bytes"], os.path.getsize(self.file))

    def test_info_tells_the_build_from_the_dump_alone(self):
        version, commit, date = (told_in_header(f"TESSA_{name}") for name in ("VERSION_TEXT", "COMMIT", "BUILD_DATE"))
        code, output = run("tessactl.exe", "dump", "info", self.path)
        self.assertIn(f"build      asserts_and_dumps.exe: {version}, commit {commit} of {date}\n", output)
        self.assertEqual(output.count("build  "), 1, output)
        code, output = run("tessactl.exe", "dump", "info", self.path, "--json")
        self.assertEqual(check("dump_info", output)["builds"], [{"module": "asserts_and_dumps.exe", "version": version,
                                                         "commit": commit, "date": date, "error": ""}])

    def test_info_warns_of_what_a_dump_holds(self):
        code, output = run("tessactl.exe", "dump", "info", self.path)
        self.assertRegex(output, r"\nnote       a dump holds the process' memory, .*: give it only to people you trust\n$")

    def test_version_of_a_module_whose_resource_is_damaged_is_that_of_the_module_list(self):
        # All modules' versions without the number that begins each.
        name = "VS_VERSION_INFO".encode("utf-16-le") + bytes(4) + struct.pack("<I", 0xFEEF04BD)
        with open(self.file, "rb") as file:
            content = file.read()
        self.assertIn(name, content)
        content = content.replace(name, name[:-4] + bytes(4))
        with open(self.file + ".bad", "wb") as file:
            file.write(content)
        code, output = run("tessactl.exe", "dump", "info", self.path + ".bad")
        os.remove(self.file + ".bad")
        self.assertEqual(code, 0, output)
        number = told_in_header("TESSA_VERSION") + ".0"
        self.assertIn(f"build      asserts_and_dumps.exe: {number}, commit not known: its version resource is damaged\n",
                      output)

    def test_files_that_are_no_whole_dumps_are_refused(self):
        whole = head_of(self.file, 200000)
        with tempfile.TemporaryDirectory(dir=os.path.dirname(self.file)) as folder:
            for name, content, told in [("empty", b"", "is no memory dump"),
                                        ("foreign", b"MZ" + bytes(5000), "is no memory dump"),
                                        ("head", whole[:100], "is cut off"),
                                        ("half", whole, "is cut off")]:
                path = os.path.join(folder, name)
                with open(path, "wb") as file:
                    file.write(content)
                windows = self.path[:self.path.rindex("\\")] + "\\" + os.path.basename(folder) + "\\" + name
                for what in "info", "history":
                    code, output = run("tessactl.exe", "dump", what, windows)
                    self.assertEqual(code, 1, output)
                    self.assertIn(told, output)

    def test_damaged_numbers_are_refused(self):
        head = bytearray(head_of(self.file, 200000))
        directory = struct.unpack_from("<I", head, 12)[0]
        streams = [struct.unpack_from("<III", head, directory + 12 * i)
                   for i in range(struct.unpack_from("<I", head, 8)[0])]
        modules = next(at for kind, _, at in streams if kind == 4)
        name = struct.unpack_from("<I", head, modules + 4 + 20)[0]
        path = self.file + ".bad"
        for place, told in (modules, "modules"), (name, "characters"):
            damaged = head[:]
            struct.pack_into("<I", damaged, place, 0x7FFFFFFF)
            with open(path, "wb") as file:
                file.write(damaged)
            code, output = run("tessactl.exe", "dump", "info", self.path + ".bad")
            self.assertEqual(code, 1, output)
            self.assertIn("is damaged", output)
            self.assertIn(told, output)
        os.remove(path)

    def test_every_cut_of_the_head_is_refused_or_read(self):
        whole = head_of(self.file, 8192)
        path = self.file + ".cut"
        for length in range(0, len(whole), 509):
            with open(path, "wb") as file:
                file.write(whole[:length])
            code, output = run("tessactl.exe", "dump", "history", self.path + ".cut")
            self.assertEqual(code, 1, f"{length}: {output}")
        os.remove(path)

    def test_missing_file_is_named(self):
        code, output = run("tessactl.exe", "dump", "info", "C:\\no such.dmp")
        self.assertEqual(code, 1)
        self.assertRegex(output, r"C:\\no such.dmp cannot be opened: \S.* \(error 2\)\n")

    def folder_with_dumps(self, *ages_in_days):
        """A folder with the heads of real dumps, and how the tool names it."""
        folder = tempfile.mkdtemp(dir=os.path.dirname(self.file))
        self.addCleanup(shutil.rmtree, folder)
        for age in ages_in_days:
            path = os.path.join(folder, f"tessaplug.dll_20260101-0000{age:02}.dmp")
            with open(path, "wb") as file:
                file.write(head_of(self.file, 8192))
            written = time.time() - age * 24 * 3600 - 60
            os.utime(path, (written, written))
        return folder, self.path.rpartition("\\")[0] + "\\" + os.path.basename(folder)

    def test_dumps_are_listed_newest_first(self):
        path, folder = self.folder_with_dumps(1, 30, 7)
        code, output = run("tessactl.exe", "dump", "list", "--folder", folder)
        self.assertEqual(code, 0)
        self.assertEqual(re.findall(r"dll_20260101-0000(\d\d)\.dmp      0\.0 MB  (\d+ days?) old", output),
                         [("01", "1 day"), ("07", "7 days"), ("30", "30 days")], output)
        code, output = run("tessactl.exe", "dump", "list", "--json", "--folder", folder)
        told = check("dump_list", output)
        first = told[0]
        for dump in told:
            written = os.path.getmtime(os.path.join(path, dump["file"].rpartition("\\")[2]))
            self.assertEqual(dump["written"], time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(written)))
        os.truncate(os.path.join(path, "tessaplug.dll_20260101-000001.dmp"), 7 << 19)
        code, output = run("tessactl.exe", "dump", "list", "--folder", folder)
        self.assertIn("000001.dmp      3.5 MB  ", output)
        self.assertEqual(first["file"], folder + "\\tessaplug.dll_20260101-000001.dmp")
        self.assertEqual(first["bytes"], 8192)
        self.assertAlmostEqual(first["ageSeconds"], 24 * 3600, delta=600)

    def test_folder_without_dumps_is_said_to_be_one(self):
        _, folder = self.folder_with_dumps()
        self.assertEqual(run("tessactl.exe", "dump", "list", "--folder", folder),
                         (0, f"There are no dumps of the plug-in in {folder}\n"))
        self.assertEqual(run("tessactl.exe", "dump", "list", "--json", "--folder", folder), (0, "[]\n"))
        self.assertEqual(run("tessactl.exe", "dump", "list")[0], 0)
        code, output = run("tessactl.exe", "dump", "list", "--folder", folder + "\\missing")
        self.assertEqual(code, 1)
        self.assertIn("missing cannot be read: ", output)

    def test_old_dumps_are_removed_and_a_dry_run_says_so(self):
        path, folder = self.folder_with_dumps(1, 30, 7)
        arguments = ("dump", "prune", "--keep", "1", "--older", "5", "--folder", folder)
        code, output = run("tessactl.exe", *arguments, "--dry-run")
        self.assertEqual(code, 0)
        self.assertRegex(output, r"would remove  tessaplug\.dll_20260101-000007\.dmp .* 7 days old\n")
        self.assertTrue(output.endswith(f"2 would be removed, 1 left in {folder}\n"), output)
        self.assertEqual(len(os.listdir(path)), 3)
        code, output = run("tessactl.exe", *arguments)
        self.assertEqual(code, 0)
        self.assertTrue(output.endswith(f"2 removed, 1 left in {folder}\n"), output)
        self.assertEqual(os.listdir(path), ["tessaplug.dll_20260101-000001.dmp"])
        self.assertEqual(run("tessactl.exe", *arguments), (0, f"0 removed, 1 left in {folder}\n"))

    def test_file_that_cannot_be_removed_is_told_and_the_others_go(self):
        path, folder = self.folder_with_dumps(1, 2, 3)
        with open(os.path.join(path, "tessaplug.dll_20260101-000002.dmp"), "wb") as file:
            file.write(b"somebody's own")
        code, output = run("tessactl.exe", "dump", "prune", "--keep", "0", "--folder", folder)
        self.assertEqual(code, 1)
        self.assertIn("tessactl: " + folder + "\\tessaplug.dll_20260101-000002.dmp is no memory dump\n", output)
        self.assertIn(f"2 removed, 1 left in {folder}\n", output)
        self.assertEqual(os.listdir(path), ["tessaplug.dll_20260101-000002.dmp"])

    def test_wrong_arguments_are_told(self):
        for arguments in ([], ["info"], ["print", "x"], ["info", "a", "b"], ["list", "x"], ["prune"],
                          ["prune", "--keep", "x"], ["prune", "--keep", "-1"], ["prune", "--older", "1.5"],
                          ["prune", "--keep", "1", "x"], ["list", "--folder"]):
            self.assertEqual(run("tessactl.exe", "dump", *arguments)[0], 2)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
