#!/usr/bin/env python3
"""What the programs print as JSON has the forms that docs/json.md and docs/schemas promise to scripts, on a station and
where there is nothing. Those of real memory dumps are held against them in dump_test.py. Arguments: the emulator and the
folder of the programs."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import unittest

emulator, programs = sys.argv[1:3]
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

import jsonschema

import json_forms
from json_forms import DOCUMENTS, check, check_lines

SERVICE = ("--service", "tessahost_json")
BASE_FOLDER_KEY = r"HKLM\SOFTWARE\Valdorn\Shared Tools\QUELM64"


def run(program, *arguments):
    """Exit code, standard output and standard error."""
    done = subprocess.run([emulator, os.path.join(programs, program + ".exe"), *arguments], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, encoding="utf-8", errors="replace", timeout=60)
    return done.returncode, done.stdout.replace("\r", ""), done.stderr.replace("\r", "")


def must(program, *arguments):
    code, output, error = run(program, *arguments)
    assert code == 0, (program, arguments, code, output, error)
    return output


def host(command, *arguments):
    return run("tessahost", command, "--name", SERVICE[1], *arguments)


def eventually(get, until):
    """What it is when it is as expected, or after ten seconds."""
    end = time.monotonic() + 10
    value = get()
    while not until(value) and time.monotonic() < end:
        time.sleep(0.2)
        value = get()
    return value


def sections():
    """The chapters of the document that tell of a command."""
    chapters = re.split(r"^## (.*)\n", (DOCUMENTS / "json.md").read_text(encoding="utf-8"), flags=re.M)[1:]
    return {name: text for name, text in zip(chapters[::2], chapters[1::2]) if name.startswith("tessa")}


def members(form):
    """Names and forms of all members, with "... " for each object around them, as the document's tables have them."""
    for name, member in form.get("items", form).get("properties", {}).items():
        yield "`" + name + "`", form.get("items", form)
        yield from (("... " + inner, within) for inner, within in members(member))


def objects(form):
    if isinstance(form, dict):
        if form.get("type") == "object":
            yield form
        for part in form.values():
            yield from objects(part)


class Document(unittest.TestCase):
    def test_tells_of_every_command_that_prints_json_and_of_no_other(self):
        commands = re.split(r"^### (.*)\n", (DOCUMENTS / "commands.md").read_text(encoding="utf-8"), flags=re.M)[1:]
        printing = {name for name, text in zip(commands[::2], commands[1::2]) if "\n| `--json` |" in text}
        self.assertGreater(len(printing), 10)
        self.assertEqual(set(sections()), printing)

    def test_names_each_schema(self):
        named = {name for text in sections().values() for name in re.findall(r"\(schemas/(\w+)\.json\)", text)}
        self.assertEqual(named, {file.stem for file in (DOCUMENTS / "schemas").iterdir()})

    def test_tables_have_the_members_of_the_schemas_in_their_order(self):
        tables = 0
        for command, text in sections().items():
            told = re.findall(r"^\| ((?:\.\.\. )*`\w+`) \| (optional)?", text, re.M)
            if not told:
                self.assertIn("The same as of `tessactl ", text, command)
                continue
            tables += 1
            form = json_forms.schema(re.search(r"schemas/(\w+)\.json", text).group(1))
            named = list(members(form))
            self.assertEqual([name for name, _ in told], [name for name, _ in named], command)
            optional = [name for name, within in named if name.split("`")[1] not in within["required"]]
            self.assertEqual([name for name, is_optional in told if is_optional], optional, command)
        self.assertEqual(tables, len(list((DOCUMENTS / "schemas").iterdir())))


class Schemas(unittest.TestCase):
    def test_are_strict_and_numbered(self):
        for file in (DOCUMENTS / "schemas").iterdir():
            form = json_forms.schema(file.stem)
            jsonschema.Draft202012Validator.check_schema(form)
            outermost = form.get("items", form)
            self.assertEqual(next(iter(outermost["properties"])), "schema", file.name)
            self.assertIn("const", outermost["properties"]["schema"], file.name)
            for part in objects(form):
                self.assertIs(part["additionalProperties"], False, file.name)
                self.assertLessEqual(set(part["required"]), set(part["properties"]), file.name)


class Nothing(unittest.TestCase):
    """No service, and nothing that was asked for."""

    def test_empty_arrays(self):
        self.assertEqual(check("log", must("tessactl", "log", "--json", "--source", "nobody")), [])
        folder = pathlib.Path(os.environ["WINEPREFIX"], "drive_c", "json_test_empty")
        folder.mkdir()
        self.addCleanup(folder.rmdir)
        self.assertEqual(check("dump_list", must("tessactl", "dump", "list", "--json", "--folder", rf"C:\{folder.name}")),
                         [])

    def test_report_has_every_part_or_why_not(self):
        told = check("report", must("tessactl", "report", "--json", "--service", "no such"))
        self.assertIn("error", told["parts"]["service"])
        self.assertIn("data", told["parts"]["findings"])

    def test_no_recording(self):
        self.assertEqual(check("trace_status", must("tessactl", "trace", "status", "--json")),
                         {"schema": 1, "running": False})

    def test_doctor_prints_its_findings_although_it_fails(self):
        code, output, _ = run("tessactl", "doctor", "--json", "--timeout", "5", "--service", "no such")
        self.assertEqual(code, 3)
        self.assertIn("problem", [finding["state"] for finding in check("doctor", output)])

    def test_command_that_fails_prints_no_json(self):
        for expected, program, *arguments in ((3, "tessahost", "status", "--name", "no such"),
                                              (1, "tessactl", "exceptions", "--service", "no such"),
                                              (1, "tessactl", "show", "no such"), (1, "tessactl", "hide", "no such"),
                                              (1, "tessactl", "dump", "info", r"C:\no such.dmp"),
                                              (1, "tessactl", "dump", "history", r"C:\no such.dmp"),
                                              (1, "tessactl", "dump", "list", "--folder", r"C:\no such")):
            code, output, error = run(program, *arguments, "--json")
            self.assertEqual((code, output), (expected, ""), arguments)
            self.assertNotEqual(error, "", arguments)


class Station(unittest.TestCase):
    """A service that runs, with an adapter, of whose access points one is missing."""

    @classmethod
    def setUpClass(cls):
        station = pathlib.Path(os.environ["WINEPREFIX"], "drive_c", "json_test")
        cls.addClassCleanup(shutil.rmtree, station, ignore_errors=True)
        (station / "bin").mkdir(parents=True)
        shutil.copy(pathlib.Path(programs, "q5orvix64x.dll"), station / "bin")
        cls.addClassCleanup(subprocess.run, [emulator, "reg", "delete", BASE_FOLDER_KEY, "/v", "Korvane_Oam", "/f"],
                            capture_output=True)
        must("q5config", "register", rf"C:\{station.name}")
        cls.addClassCleanup(run, "q5config", "wipe")
        must("q5config", "init")
        must("q5config", "delete", "NX4120(XLI)")
        must("adapterctl", "install")
        cls.addClassCleanup(run, "adapterctl", "unplug", "NX4120")
        host("uninstall")  # what an aborted test may have left
        cls.addClassCleanup(host, "uninstall")
        code, output, error = host("install", "--log", rf"C:\{station.name}\host.log")
        assert code == 0, output + error
        cls.installed = host("status", "--json")[1]
        code, output, error = host("start")
        assert code == 0, output + error
        cls.watch = subprocess.Popen([emulator, os.path.join(programs, "tessactl.exe"), "watch", "--json", "--seconds",
                                      "8"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, encoding="utf-8")
        cls.addClassCleanup(cls.watch.communicate)
        cls.first_event = cls.watch.stdout.readline()
        must("adapterctl", "plug", "NX4120")

    def test_host_status(self):
        installed = check("host_status", self.installed)
        self.assertEqual((installed["state"], installed["processId"]), ("STOPPED", 0))
        running = check("host_status", host("status", "--json")[1])
        self.assertEqual((running["state"], running["name"]), ("RUNNING", SERVICE[1]))
        self.assertGreater(running["processId"], 0)

    def test_status(self):
        status = check("status", must("tessactl", "status", "--json"))
        self.assertTrue(status["plugInRuns"])
        self.assertEqual([model["model"] for model in status["models"] if model["devices"]], ["NX4120"])
        self.assertIn({"name": "NX4120(XLI)", "installed": True, "exists": False, "hidden": False},
                      [point for model in status["models"] for point in model["accessPoints"]])

    def test_status_without_the_configuration_library(self):
        must("q5config", "register", r"C:\no such folder")
        self.addCleanup(must, "q5config", "register", r"C:\json_test")
        status = check("status", must("tessactl", "status", "--json"))
        self.assertNotEqual(status["libraryError"], "")
        self.assertEqual([model["accessPoints"] for model in status["models"]], [[]] * len(status["models"]))

    def test_doctor(self):
        findings = check("doctor", run("tessactl", "doctor", "--json", *SERVICE)[1])
        self.assertEqual({finding["state"] for finding in findings}, {"ok", "note", "problem"})

    def test_show_and_hide(self):
        for command, hidden in ("hide", True), ("show", False):
            self.assertEqual(check("access_point", must("tessactl", command, "NX4120(FWL)", "--json")),
                             {"schema": 1, "name": "NX4120(FWL)", "hidden": hidden})

    def test_exceptions(self):
        # The panel is missing that would make the access point.
        printed = eventually(lambda: must("tessactl", "exceptions", "--json", *SERVICE), lambda text: "q5panels" in text)
        self.assertEqual({record["module"] for record in check("exceptions", printed)}, {"tessaplug.dll"})

    def test_log(self):
        entries = check("log", must("tessactl", "log", "--json"))
        self.assertGreater(len(entries), 0)
        followed = check_lines("log", must("tessactl", "log", "--json", "--follow", "--seconds", "1"))
        self.assertEqual(followed[:len(entries)], entries)

    def test_watch(self):
        events = check_lines("watch", self.first_event + self.watch.stdout.read())
        self.assertEqual(events[0]["event"], "watching")
        self.assertEqual([event["what"] for event in events if event["event"] == "arrival"], ["NX4120"])
        self.assertIn("access point", [event["event"] for event in events])

    def test_recording(self):
        must("tessactl", "trace", "start", "--file", r"C:\json_test\recording.etl", "--size", "3")
        self.addCleanup(must, "tessactl", "trace", "stop")
        running = check("trace_status", must("tessactl", "trace", "status", "--json"))
        self.assertEqual((running["running"], running["sizeLimitMegabytes"]), (True, 3))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
