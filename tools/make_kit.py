#!/usr/bin/env python3
"""Packs what it takes to try everything out on a Windows: programs, tests, trace formats, and the list of the tests.

usage: make_kit.py BUILD_FOLDER VERSION ARCHIVE

The build folder is built completely. The list has a line for each test that is a test program's; those of the build
machine stay out. What is wrong with the build ends the program with a message.
"""

import json
import pathlib
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent / "packaging"))

import archive as archives
import sources

LABELS = ("plain", "service", "session", "driver", "winegap")
SOURCES = pathlib.Path(__file__).parent / "kitrun"
DOCUMENT = pathlib.Path(__file__).parents[1] / "docs" / "first_run_on_windows.md"


def fail(text):
    sys.exit(f"make_kit: {text}")


def properties(test):
    return {entry["name"]: entry["value"] for entry in test.get("properties", [])}


def line_of(test, programs):
    """A test's line of the list; None for one of the build machine."""
    settings = properties(test)
    labels = settings.get("LABELS", [])
    if labels == ["build"]:
        return None
    if len(labels) != 1 or labels[0] not in LABELS:
        fail(f"{test['name']} has the labels {labels}: one of {LABELS}, or build")
    if "command" not in test:
        fail(f"{test['name']} is not built")
    _, program, *arguments = test["command"]
    program = pathlib.Path(program)
    if program.parent != programs:
        fail(f"{program} is not where the other programs are")
    if "TIMEOUT" not in settings:
        fail(f"{test['name']} has no time limit")
    environment = settings.get("ENVIRONMENT", [])
    if len(environment) > 1:
        fail(f"{test['name']} has more than one variable: {environment}")
    parts = [labels[0], test["name"], str(int(settings["TIMEOUT"])), program.name,
             subprocess.list2cmdline(arguments), "".join(environment)]
    if any("\t" in part or "\n" in part for part in parts):
        fail(f"{test['name']} cannot be listed")
    return "\t".join(parts)


def is_packed(file):
    """The benchmark is nobody's test; the symbols of test programs are as large as everything else together."""
    return file.stem not in ("tessabench", "kitrun") and not file.name.endswith("_tests.pdb")


def main():
    build, version, archive = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2], pathlib.Path(sys.argv[3])
    programs = build / "bin"
    shown = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], capture_output=True, text=True)
    if shown.returncode != 0:
        fail(f"the tests cannot be listed: {shown.stderr.strip()}")
    listed = json.loads(shown.stdout)
    lines = [line for line in (line_of(test, programs) for test in listed["tests"]) if line is not None]
    archive.parent.mkdir(parents=True, exist_ok=True)
    entries = [("run.cmd", (SOURCES / "run.cmd").read_text().replace("\n", "\r\n")),
               ("kitrun.exe", programs / "kitrun.exe"), (DOCUMENT.name, DOCUMENT),
               ("tests.txt", "".join(f"{line}\r\n" for line in [version, *lines]))]
    entries += [((pathlib.Path("bin") / file.relative_to(programs)).as_posix(), file)
                for file in programs.rglob("*") if file.is_file() and is_packed(file)]
    try:
        archives.write(archive, sources.date(), entries, level=1)
    except sources.Refused as error:
        fail(error)
    print(f"{archive}: {len(lines)} tests, {archive.stat().st_size // 2**20} MB")


main()
