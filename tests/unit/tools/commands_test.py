#!/usr/bin/env python3
"""docs/commands.md says what the programs say, and the programs go on well with whoever reads their output. Arguments:
the emulator, the folder of the programs, the script that prints the document, and the document."""

import os
import pathlib
import re
import subprocess
import sys
import unittest

emulator, programs, script, document = sys.argv[1:5]


def run(output, program, *arguments):
    """Exit code, and what is told on standard error."""
    done = subprocess.run([emulator, os.path.join(programs, program), *arguments], stdin=subprocess.DEVNULL,
                          stdout=output, stderr=subprocess.PIPE, text=True, errors="replace", timeout=60)
    return done.returncode, done.stderr.replace("\r", "")


class Document(unittest.TestCase):
    def test_says_what_the_programs_say(self):
        told = subprocess.run([script, programs], stdout=subprocess.PIPE, text=True, check=True, timeout=60).stdout
        self.maxDiff = None
        self.assertEqual(pathlib.Path(document).read_text(), told,
                         "run scripts/commands.sh >docs/commands.md")


class Completion(unittest.TestCase):
    """The script's structure; there is no PowerShell here that would run it."""

    def tables(self, script):
        """What is offered, by the words behind which it is."""
        self.assertEqual(re.findall(r"[^ -~\n]", script), [], "PowerShell takes other characters in its own code page")
        lines = iter(script.splitlines())
        tables = {}
        literal = "'((?:[^']|'')*)'"
        for line in lines:
            if not (head := re.fullmatch(rf" {{8}}{literal} = \[ordered\]@{{", line)):
                continue
            self.assertNotIn(head.group(1), tables)
            tables[head.group(1)] = offered = {}
            while (line := next(lines)) != " " * 8 + "}":
                text, about = re.fullmatch(rf" {{12}}{literal} = {literal}", line).groups()
                self.assertNotIn(text, offered)
                self.assertTrue(about, "PowerShell refuses an empty one")
                offered[text] = about
        for keys in tables, *tables.values():
            self.assertEqual(len({key.lower() for key in keys}), len(keys), "PowerShell refuses a key in both cases")
        return tables

    def manual(self, text):
        """The same, as the document tells it."""
        tables = {"": {"--help", "--version"}}
        for command, chapter in re.findall(r"^### tessa\w+ (.*?)\n(.*?)(?=^##)", text, re.M | re.S):
            *family, word = command.split(" ")
            for above in family:
                tables[""].add(above)
                tables.setdefault(above, {"--help"}).add(word)
            if not family:
                tables[""].add(word)
            options = re.findall(r"^\| `(--[\w-]+)( \w+)?` \| (.*) \|$", chapter, re.M)
            if command == "help":
                continue
            tables[command] = {"--help"} | {name for name, _, _ in options}
            for name, value, about in options:
                if value:
                    words = re.search(r": ((?:\w+, )*\w+ or \w+), ", about) if value == " WORD" else None
                    tables[f"{command} {name}"] = set(re.split(", | or ", words.group(1))) if words else set()
        return tables

    def test_offers_what_the_document_tells_and_nothing_else(self):
        chapters = re.split(r"^## (tessa\w+)\n", pathlib.Path(document).read_text(), flags=re.M)[1:]
        self.assertEqual(chapters[::2], ["tessahost", "tessactl"])
        for program, text in zip(chapters[::2], chapters[1::2]):
            done = subprocess.run([emulator, os.path.join(programs, program + ".exe"), "completion"],
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True, timeout=60)
            script = done.stdout
            self.assertIn(f"\nRegister-ArgumentCompleter -Native -CommandName '{program}' -ScriptBlock {{\n", script)
            tables = self.tables(script)
            self.assertEqual({behind: set(offered) for behind, offered in tables.items()}, self.manual(text))
            bare = re.sub("'(?:[^']|'')*'", "", re.sub("^#.*", "", script, flags=re.M))
            for opening, closing in "{}", "()", "[]":
                self.assertEqual(bare.count(opening), bare.count(closing), opening)
            self.assertNotIn("'", bare)


class Output(unittest.TestCase):
    def setUp(self):
        read, self.pipe = os.pipe()
        os.close(read)
        self.addCleanup(os.close, self.pipe)

    def test_reader_who_has_gone_is_no_error(self):
        for command in (("tessahost.exe", "help"), ("tessactl.exe", "manual")):
            self.assertEqual(run(self.pipe, *command), (0, ""), command)

    def test_watch_ends_when_its_reader_has_gone(self):
        self.assertEqual(run(self.pipe, "tessactl.exe", "watch"), (0, ""))

    def test_exit_code_of_a_command_stays_although_its_reader_has_gone(self):
        code, _ = run(self.pipe, "tessactl.exe", "doctor", "--service", "no such service", "--timeout", "5")
        self.assertEqual(code, 3)

    def test_full_disk_is_an_error(self):
        with open("/dev/full", "wb") as full:
            for program in ("tessahost", "tessactl"):
                self.assertEqual(run(full, program + ".exe", "help"),
                                 (1, program + ": the output cannot be written whole; is the disk full?\n"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
