#!/usr/bin/env python3
"""The kit for a Windows, under Wine: it is packed and unpacked, run.cmd runs some tests of each label and the life of the
service, and result.txt tells what came of them, of a test that fails and of one that hangs as well. Arguments: the
emulator, the build folder, a folder of the test's own."""

import os
import pathlib
import shutil
import subprocess
import sys
import unittest
import zipfile

emulator, build, folder = sys.argv[1], *map(pathlib.Path, sys.argv[2:4])
TOOLS = pathlib.Path(__file__).parents[2] / "tools"
REGISTRY = r"HKLM\SOFTWARE\Valdorn\Shared Tools\QUELM64"
DATA = pathlib.Path(os.environ["WINEPREFIX"], "drive_c", "ProgramData", "Tessaplug")
# Of each label something that is quick.
SOME = {"plain": "StopLimit.StopThatEndsInTime*", "service": "HostService.RunByHandSaysSo",
        "session": "FatalError.DuringLibraryUnloadIsToldToo", "driver": "RealDeviceInterfaces.RegistryKey*",
        "winegap": "OwnMemory.GuardPageStaysOne"}
BAD = ("plain\tBad.Fails\t20\tacts_as_a_test.exe\tfails\t\r\n"
       "plain\tBad.Hangs\t2\tacts_as_a_test.exe\thangs\t\r\n"
       "plain\tBad.Vanishes\t20\tacts_as_a_test.exe\tvanishes\t\r\n"
       "plain\tBad.IsMissing\t20\tno_such_program.exe\t\t\r\n")


def wine(*arguments):
    done = subprocess.run([emulator, *arguments], capture_output=True, text=True, errors="replace", timeout=120)
    return done.returncode, (done.stdout + done.stderr).replace("\r", "")


def run_cmd(*arguments):
    return wine("cmd", "/c", "Z:" + str(folder / "run.cmd").replace("/", "\\"), *arguments)


def result():
    content = (folder / "result.txt").read_bytes()
    assert b"\r\n" in content
    return content.decode().replace("\r\n", "\n")


class WindowsKit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        shutil.rmtree(folder, ignore_errors=True)
        archive = folder.with_suffix(".zip")
        subprocess.run([sys.executable, TOOLS / "make_kit.py", build, "tessaplug 0.0, commit of a test", archive],
                       check=True)
        with zipfile.ZipFile(archive) as kit:
            kit.extractall(folder)
        archive.unlink()

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(folder)

    def setUp(self):
        wine("reg", "delete", r"HKLM\SOFTWARE\Valdorn", "/f")

    def test_some_of_everything_runs_is_told_and_leaves_nothing(self):
        before = DATA.exists()
        code, output = run_cmd("/force", "life", *SOME, *SOME.values())
        text = result()
        self.assertEqual(code, 0, output + text)
        self.assertTrue(text.startswith("tessaplug 0.0, commit of a test\n"), text)
        self.assertRegex(text, r"version \d+\.\d+, build \d+\.\d+; this is Wine")
        self.assertRegex(text, r"\nresult: passed, \d+ s\n")
        for label, pattern in SOME.items():
            self.assertRegex(text, rf"\n{label} +1 +1 +0 +0 +0 +\d+\.\d\n")
            self.assertRegex(text, rf"\npassed +\d+\.\d\d s  {label} +{pattern.replace('*', '.*')}")
        self.assertRegex(text, r"\nlife +15 +15  of")
        self.assertIn("    ok       plug-in running ", text)
        self.assertNotIn("could not be removed", text)
        self.assertEqual(DATA.exists(), before)
        self.assertNotEqual(wine("reg", "query", r"HKLM\SOFTWARE\Valdorn")[0], 0)
        for key in (r"HKLM\SYSTEM\CurrentControlSet\Services\tessahost", r"HKLM\SOFTWARE\Valdorn"):
            self.assertNotEqual(wine("reg", "query", key)[0], 0, key)

    def test_what_is_wrong_is_told_with_its_output_and_the_next_run_begins_afresh(self):
        listed = folder / "tests.txt"
        good = listed.read_bytes()
        listed.write_bytes(good + BAD.encode())
        code, output = run_cmd("/force", "Bad.*")
        text = result()
        listed.write_bytes(good)
        self.assertEqual(code, 1, output + text)
        self.assertRegex(text, r"\nresult: FAILED, \d+ s\n")
        self.assertRegex(text, r"\nplain +4 +0 +0 +3 +1 ")
        self.assertRegex(text, r"==== FAILED Bad\.Fails \(plain, acts_as_a_test\.exe\) ended with 0x00000001 after \d"
                               r"+\.\d s\n    it is wrong on purpose\n")
        self.assertIn("==== TIMED OUT Bad.Hangs (plain, acts_as_a_test.exe) had not ended after 2 s and was ended\n"
                      "    it hangs on purpose\n", text)
        self.assertIn("==== FAILED Bad.Vanishes (plain, acts_as_a_test.exe) ended with 0x00000000", text)
        self.assertIn("==== FAILED Bad.IsMissing (plain, no_such_program.exe) could not be started, error 2\n", text)
        self.assertEqual(run_cmd("/force", SOME["plain"])[0], 0)
        self.assertNotIn("Bad.", result())

    def test_real_station_is_left_alone(self):
        wine("reg", "add", REGISTRY, "/v", "Korvane_Oam", "/d", "C:\\a real station", "/f")
        code, output = run_cmd("service")
        self.assertEqual(code, 3, output)
        self.assertIn("  configuration library: C:\\a real station\n", output)
        self.assertIn("result: NOTHING WAS RUN\n", result())
        code, output = run_cmd("/force", SOME["plain"])
        self.assertEqual(code, 0, output)
        self.assertIn("note: run in spite of parts of a station:\n  configuration library: C:\\a real station\n", result())
        self.assertIn("a real station", wine("reg", "query", REGISTRY)[1], "it is not the kit's to remove")

    def test_arguments_are_explained_and_wrong_ones_refused(self):
        code, output = run_cmd("/?")
        self.assertEqual(code, 0)
        self.assertRegex(output, r"usage: run\.cmd \[/force\] \[LABEL\.\.\.\] \[NAME\.\.\.\]")
        for wrong, told in (("/fast", "/fast is no option"), ("No.SuchTest", "no test has such a name")):
            code, output = run_cmd("/force", wrong)
            self.assertEqual(code, 2, output)
            self.assertIn(told, output)

    def test_every_program_of_the_list_is_in_the_kit(self):
        lines = (folder / "tests.txt").read_text().splitlines()[1:]
        self.assertGreater(len(lines), 500)
        for line in lines:
            self.assertTrue((folder / "bin" / line.split("\t")[3]).exists(), line)
            self.assertNotIn("/build/", line)
        for file in ("tessaplug.dll", "tessaplug.pdb", "tessahost.pdb", "tessactl.exe", "adapters.inf", "fenlu3.sys",
                     "station/bin/q5orvix64x.dll", "faulty/hangs/bin/q5orvix64x.dll"):
            self.assertTrue((folder / "bin" / file).exists(), file)
        self.assertTrue(list((folder / "bin" / "tmf").glob("*.tmf")))


unittest.main(argv=sys.argv[:1])
