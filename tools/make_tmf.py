#!/usr/bin/env python3
"""Collects the trace texts that stand beside the trace points into trace message format files.

usage: make_tmf.py OUTPUT_FOLDER BUILD_INFO_HEADER SOURCE...

A source file that traces states its path, message GUID and channel in TRACE_SOURCE; its trace points are
TRACE_ERROR, TRACE_WARNING, TRACE_INFO and TRACE_VERBOSE with a number and a text. One file GUID.tmf is written
for each message GUID; files of GUIDs that no source has any more are removed. What is wrong with a source ends
the program with a message that names file and line. What build the files are of stands beside them in build.txt, not in
them: who decodes knows them as they are, and a new commit leaves alone those whose texts it did not change.
"""

import pathlib
import re
import sys

LEVELS = {"ERROR": 2, "WARNING": 3, "INFO": 4, "VERBOSE": 5}
FLAGS = {
    "trace::kSharedTools": 0x1,
    "trace::kModule": 0x1,
    "trace::kFunctionEntryAndExit": 0x4,
    "trace::kLogDeviceConfiguration": 0x8,
}
# Conversion of a trace text: item type and conversion of the format file.
ITEMS = {
    "d": ("ItemLong", "d"),
    "u": ("ItemLong", "u"),
    "x": ("ItemLong", "x"),
    "lld": ("ItemLongLong", "I64d"),
    "llu": ("ItemULongLong", "I64u"),
    "llx": ("ItemULongLong", "I64x"),
    "p": ("ItemPtr", "p"),
    "s": ("ItemString", "s"),
    "S": ("ItemWString", "s"),
}
FIRST_NUMBER = 10

STRING = r'"(?:[^"\\]|\\.)*"'
SOURCE = re.compile(rf'\bTRACE_SOURCE\(\s*({STRING})\s*,\s*({STRING})\s*,\s*([\w:]+)\s*\)')
POINT = re.compile(r"\bTRACE_(ERROR|WARNING|INFO|VERBOSE)\(\s*")
NUMBER_AND_TEXT = re.compile(rf"(\d+)\s*,\s*((?:{STRING}\s*)+)(?=[,)])")
CONVERSION = re.compile(r"%(%|(?:ll)?[a-zA-Z])")


class SourceError(Exception):
    """A source that cannot be understood."""


def without_comments(text):
    """The same text with comments blanked, lines kept."""
    pattern = re.compile(rf"{STRING}|//[^\n]*|/\*.*?\*/", re.S)

    def blank(match):
        found = match.group(0)
        return found if found.startswith('"') else re.sub(r"[^\n]", " ", found)

    return pattern.sub(blank, text)


def literal(text):
    """The characters of one or more adjoining string literals."""
    return "".join(part[1:-1] for part in re.findall(STRING, text)).replace('\\"', '"').replace("\\\\", "\\")


def format_text(text):
    """A trace text with numbered conversions, and its items."""
    items = []

    def numbered(match):
        conversion = match.group(1)
        if conversion == "%":
            return "%%"
        if conversion not in ITEMS:
            raise SourceError(f"unknown conversion %{conversion}")
        item, spelled = ITEMS[conversion]
        items.append(item)
        return f"%{FIRST_NUMBER + len(items) - 1}!{spelled}!"

    return CONVERSION.sub(numbered, text), items


def skip_back(text, at, opening, closing):
    """Where the bracket opens that closes at a position."""
    depth = 0
    while at >= 0:
        depth += (text[at] == closing) - (text[at] == opening)
        if depth == 0:
            return at
        at -= 1
    return 0


def head_before(text, brace):
    """What stands before an opening brace, back to the end of the statement, block or label before it."""
    at = brace - 1
    while at >= 0 and text[at] not in ";{":
        if text[at] == ")":
            at = skip_back(text, at, "(", ")")
        elif text[at] == "}":
            # One that is followed by nothing or a comma initializes a member.
            if text[at + 1:brace].strip()[:1] not in ("", ","):
                break
            at = skip_back(text, at, "{", "}")
        at -= 1
    return text[at + 1:brace]


NAME = r"(?:[\w<>]+::)*(?:~\w+|operator\s*(?:\(\)|[^\s\w(]+)|\w+)"
NOT_FUNCTIONS = {"if", "for", "while", "switch", "catch", "return"}


def named_block(head):
    """What a block is of by its head: ("scope", name) of a namespace or class, ("function", name), or nothing."""
    head = re.sub(r"#[^\n]*", " ", head)
    scope = re.match(r"\s*(?:inline\s+)?(?:namespace|class|struct)\b\s*([\w:]*)[^()]*$", head)
    if scope:
        return "scope", scope.group(1)
    function = re.search(rf"(?<![\w:~])({NAME})\s*\(", head)
    if function and function.group(1) not in NOT_FUNCTIONS:
        return "function", function.group(1).replace(" ", "")
    return None


def function_at(text, position):
    """The full name of the function in which a position of a source lies; nothing outside of any."""
    names = []
    at = position
    while at > 0:
        at -= 1
        if text[at] == "}":
            at = skip_back(text, at, "{", "}")
        elif text[at] == "{":
            found = named_block(head_before(text, at))
            if found and found[0] == "function":
                names = [found[1]]  # what is inside it, is a part of it
            elif found:
                names.insert(0, found[1])
    return "::".join(name for name in names if name)


class TracedSource:
    """What one source file says about its messages."""

    def __init__(self, path):
        self.path = path
        self.text = without_comments(pathlib.Path(path).read_text(encoding="utf-8"))
        self.code = re.sub(STRING, lambda found: '"' + " " * (len(found.group(0)) - 2) + '"', self.text)
        self.code = re.sub(r"'[{}();]'", "' '", self.code)
        self.guid = None
        self.points = []
        source = SOURCE.search(self.text)
        if source:
            self.guid = literal(source.group(2)).lower()
            self.name = literal(source.group(1)).rsplit("\\", 1)[-1]
            if source.group(3) not in FLAGS:
                self.fail(source.start(), f"unknown channel {source.group(3)}")
            self.flags = FLAGS[source.group(3)]
        self.collect_points(source)

    def fail(self, position, message):
        line = self.text.count("\n", 0, position) + 1
        raise SourceError(f"{self.path}:{line}: {message}")

    def collect_points(self, source):
        numbers = set()
        for point in POINT.finditer(self.text):
            at = point.start()
            if not source or at < source.start():
                self.fail(at, "a trace point needs TRACE_SOURCE above it")
            found = NUMBER_AND_TEXT.match(self.text, point.end())
            if not found:
                self.fail(at, "a trace point needs a number and a string literal")
            number = int(found.group(1))
            if number < FIRST_NUMBER:
                self.fail(at, f"trace point {number}: numbers begin at {FIRST_NUMBER}")
            if number in numbers:
                self.fail(at, f"trace point {number} stands twice in this file")
            numbers.add(number)
            try:
                text, items = format_text(literal(found.group(2)))
            except SourceError as error:
                self.fail(at, f"trace point {number}: {error}")
            line = self.text.count("\n", 0, at) + 1
            function = function_at(self.code, at)
            self.points.append((number, line, LEVELS[point.group(1)], function, text, items))

    def tmf(self):
        """The text of the format file."""
        lines = [f"{self.guid} {self.name} // SRC={self.name}.cpp MJ= MN="]
        for number, line, level, function, text, items in sorted(self.points):
            lines.append(f'#typev {self.name}_cpp{line} {number} "%0{text}" //   LEVEL={level} FLAGS=0x{self.flags:x}'
                         + (f" FUNC={function}" if function else ""))
            lines.append("{")
            lines += [f"Arg, {item} -- {FIRST_NUMBER + i}" for i, item in enumerate(items)]
            lines.append("}")
        return "\n".join(lines) + "\n"


def write_if_changed(path, text):
    if not path.exists() or path.read_text(encoding="utf-8") != text:
        path.write_text(text, encoding="utf-8")


def make(folder, sources):
    folder = pathlib.Path(folder)
    traced = [source for source in map(TracedSource, sources) if source.guid]
    by_guid = {}
    for source in traced:
        if source.guid in by_guid:
            raise SourceError(f"{source.path}: its message GUID is that of {by_guid[source.guid].path}")
        by_guid[source.guid] = source
    folder.mkdir(parents=True, exist_ok=True)
    for source in traced:
        write_if_changed(folder / f"{source.guid}.tmf", source.tmf())
    for old in folder.glob("*.tmf"):
        if old.stem not in by_guid:
            old.unlink()


def write_build(folder, header):
    """What the build's header tells, in lines of a name and a value."""
    text = pathlib.Path(header).read_text(encoding="utf-8")
    lines = []
    for name, macro in (("version", "VERSION_TEXT"), ("commit", "COMMIT"), ("date", "BUILD_DATE")):
        value = re.search(rf'^#define TESSA_{macro} "(.+?)"', text, re.M)
        if not value:
            raise SourceError(f"{header}: there is no TESSA_{macro}")
        lines.append(f"{name} {value.group(1)}\n")
    write_if_changed(pathlib.Path(folder) / "build.txt", "".join(lines))


def main(arguments):
    if len(arguments) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        make(arguments[0], arguments[2:])
        write_build(arguments[0], arguments[1])
    except (SourceError, OSError) as error:
        print(f"make_tmf: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
