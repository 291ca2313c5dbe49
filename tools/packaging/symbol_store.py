"""Symbols in the form of a debugger's symbol store: NAME/KEY/NAME, where the key tells builds of a file apart.

The case of the letters in a key is that of Windows' own symbol server, which stores on file systems that mind it need:
a PDB file's identifier and age in upper case, of a binary the time stamp in upper and the size in lower case."""

import struct

from binary_files import PdbFile, PeFile
from sources import Refused


def pdb_key(identifier, age):
    first, second, third = struct.unpack_from("<IHH", identifier)
    return f"{first:08X}{second:04X}{third:04X}{identifier[8:16].hex().upper()}{age:X}"


def binary_key(time_stamp, image_size):
    return f"{time_stamp:08X}{image_size:x}"


def entries(binaries):
    """What belongs into the store for these binaries: names in it, with the files. A driver may be without PDB file."""
    for binary in binaries:
        pe = PeFile(binary.read_bytes())
        yield f"{binary.name}/{binary_key(pe.time_stamp, pe.image_size)}/{binary.name}", binary
        reference = pe.pdb_reference()
        if reference is None:
            if binary.suffix != ".sys":
                raise Refused(f"{binary.name} names no PDB file: nobody could debug it")
            continue
        pdb = binary.with_suffix(".pdb")
        if not pdb.is_file() or PdbFile(pdb.read_bytes()).identifier() != reference[:2]:
            raise Refused(f"{pdb} is missing or another build's")
        yield f"{pdb.name}/{pdb_key(*reference[:2])}/{pdb.name}", pdb
