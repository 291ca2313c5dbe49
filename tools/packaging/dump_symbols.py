#!/usr/bin/env python3
"""Looks out of releases' symbols what belongs to a memory dump, whichever releases its modules are of.

usage: dump_symbols.py DUMP FOLDER ARCHIVE...

Binaries and PDB files are put into the folder, where a debugger finds them. A module is told if an archive holds one of
its name but none of its build. The exit status is 1 if that is so, or if nothing was found."""

import mmap
import pathlib
import struct
import sys
import zipfile

TOOLS = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(TOOLS), str(TOOLS.parents[1] / "scripts")]

from binary_files import FormatError, PeFile
from sources import Refused
from symbol_store import binary_key, pdb_key

MODULES = 4  # the stream of a dump
MODULE_SIZE = 108


def modules(content):
    """File name, time stamp and image size of each module in a dump."""
    if content[:4] != b"MDMP":
        raise Refused("is no memory dump")
    try:
        count, directory = struct.unpack_from("<II", content, 8)
        streams = dict(struct.unpack_from("<I4xI", content, directory + 12 * i) for i in range(count))
        at = streams[MODULES]
        for i in range(struct.unpack_from("<I", content, at)[0]):
            size, _, time_stamp, name = struct.unpack_from("<4I", content, at + 4 + MODULE_SIZE * i + 8)
            length = struct.unpack_from("<I", content, name)[0]
            path = struct.unpack_from(f"{length}s", content, name + 4)[0].decode("utf-16-le")
            yield path.rpartition("\\")[2], time_stamp, size
    except (struct.error, KeyError, UnicodeDecodeError) as error:
        raise Refused("is damaged") from error


class Symbols:
    """What several archives hold. Windows' file names do not mind the case."""

    def __init__(self, archives):
        self._places = {}
        for path in archives:
            archive = zipfile.ZipFile(path)
            for entry in archive.infolist():
                self._places.setdefault(entry.filename.lower(), (archive, entry))
        self._names = {place.partition("/")[0] for place in self._places}

    def has_some(self, name):
        return name.lower() in self._names

    def content(self, name, key):
        place = self._places.get(f"{name}/{key}/{name}".lower())
        return place and place[0].read(place[1])


def look_out(dump, folder, symbols):
    """Puts what is found into the folder. Yields a line for each module of ours, and whether it was found."""
    with open(dump, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as content:
        found = list(modules(content))
    for name, time_stamp, size in found:
        if not symbols.has_some(name):
            continue
        key = binary_key(time_stamp, size)
        binary = symbols.content(name, key)
        if binary is None:
            yield f"{name} {key} is of no release given here", False
            continue
        (folder / name).write_bytes(binary)
        reference = PeFile(binary).pdb_reference()
        pdb = reference and symbols.content(reference[2], pdb_key(*reference[:2]))
        if pdb:
            (folder / reference[2]).write_bytes(pdb)
        yield f"{name} {key}" + ("" if pdb else ", without a PDB file"), True


def main(arguments):
    if len(arguments) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    dump, folder, *archives = map(pathlib.Path, arguments)
    try:
        symbols = Symbols(archives)
        folder.mkdir(parents=True, exist_ok=True)
        lines = list(look_out(dump, folder, symbols))
    except (Refused, FormatError, ValueError) as error:
        print(f"dump_symbols: {dump} {error}", file=sys.stderr)
        return 1
    except (OSError, zipfile.BadZipFile) as error:
        print(f"dump_symbols: {error}", file=sys.stderr)
        return 1
    for line, _ in lines:
        print(line)
    if not lines:
        print(f"dump_symbols: {dump} has no module that is in these archives", file=sys.stderr)
    return 0 if lines and all(found for _, found in lines) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
