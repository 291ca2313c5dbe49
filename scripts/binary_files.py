"""Reads programs, libraries and drivers (PE files) and their PDB files, as far as the checks of them need it."""

import struct

IMPORT, RESOURCE, RELOCATION, DEBUG, DELAY_IMPORT, EXPORT = 1, 2, 5, 6, 13, 0  # data directories
CODE_VIEW, REPRODUCIBLE = 2, 16  # kinds of debug entries


class FormatError(Exception):
    """A file that is not what it should be."""


class PeFile:
    """A 64-bit program, library or driver."""

    def __init__(self, content):
        self.content = content
        if content[:2] != b"MZ":
            raise FormatError("is no program or library")
        header = self.number("<I", 0x3C)
        if content[header:header + 4] != b"PE\0\0" or self.number("<H", header + 24) != 0x20B:
            raise FormatError("is no 64-bit program or library")
        section_count, self.time_stamp = struct.unpack_from("<HI", content, header + 6)
        option_size, self.characteristics = struct.unpack_from("<HH", content, header + 20)
        self.options = header + 24
        self.image_base = self.number("<Q", self.options + 24)
        self.os_version = struct.unpack_from("<HH", content, self.options + 40)
        self.subsystem_version = struct.unpack_from("<HH", content, self.options + 48)
        self.image_size = self.number("<I", self.options + 56)
        self.checksum_at = self.options + 64
        self.checksum = self.number("<I", self.checksum_at)
        self.subsystem, self.dll_characteristics = struct.unpack_from("<HH", content, self.options + 68)
        self.directories = [struct.unpack_from("<II", content, self.options + 112 + 8 * i) for i in range(16)]
        self.sections = [struct.unpack_from("<8sIIII12xI", content, self.options + option_size + 40 * i)
                         for i in range(section_count)]

    def number(self, form, at):
        return struct.unpack_from(form, self.content, at)[0]

    def offset(self, address):
        """Where in the file an address of the image is."""
        for _, size, start, raw_size, raw, _ in self.sections:
            if start <= address < start + max(size, raw_size):
                return raw + address - start
        raise FormatError(f"has no section at 0x{address:x}")

    def text(self, address):
        at = self.offset(address)
        return self.content[at:self.content.index(b"\0", at)].decode("ascii")

    def directory(self, which):
        """Offset and size of a data directory; None if there is none."""
        address, size = self.directories[which]
        return (self.offset(address), size) if size else None

    def imports(self):
        """The imported functions by library, the library in lower case, "#5" for an ordinal."""
        result = {}
        place = self.directory(IMPORT)
        if not place:
            return result
        at = place[0]
        while self.number("<I", at + 12):
            names, library = self.number("<I", at), self.text(self.number("<I", at + 12)).lower()
            thunk = self.offset(names or self.number("<I", at + 16))
            functions = result.setdefault(library, [])
            while entry := self.number("<Q", thunk):
                functions.append(f"#{entry & 0xFFFF}" if entry >> 63 else self.text(entry + 2))
                thunk += 8
            at += 20
        return result

    def exports(self):
        place = self.directory(EXPORT)
        if not place:
            return []
        count, _, names = struct.unpack_from("<III", self.content, place[0] + 24)
        at = self.offset(names)
        return [self.text(self.number("<I", at + 4 * i)) for i in range(count)]

    def resources(self):
        """The content of each resource by type and name, both numbers."""
        place = self.directory(RESOURCE)
        result = {}
        if place:
            self._walk_resources(place[0], place[0], (), result)
        return result

    def _walk_resources(self, root, at, path, result):
        if self.number("<I", at + 4):
            raise FormatError("has a time stamp in its resources")
        named, numbered = struct.unpack_from("<HH", self.content, at + 12)
        for i in range(named + numbered):
            name, target = struct.unpack_from("<II", self.content, at + 16 + 8 * i)
            if target >> 31:
                self._walk_resources(root, root + (target & 0x7FFFFFFF), (*path, name), result)
            else:
                address, size = struct.unpack_from("<II", self.content, root + target)
                start = self.offset(address)
                result[path[:2]] = self.content[start:start + size]

    def _debug_entries(self):
        """Kind, size, address and offset of each."""
        place = self.directory(DEBUG)
        for at in range(place[0], place[0] + place[1], 28) if place else ():
            yield struct.unpack_from("<IIII", self.content, at + 12)

    def is_reproducible(self):
        """Whether it says of itself that its time stamps are no times but a hash of its content."""
        return any(kind == REPRODUCIBLE for kind, _, _, _ in self._debug_entries())

    def pdb_reference(self):
        """Identifier, age and file name of the PDB file that belongs to it; None if there is none."""
        for kind, size, _, raw in self._debug_entries():
            if kind == CODE_VIEW and self.content[raw:raw + 4] == b"RSDS":
                name = self.content[raw + 24:raw + size].rstrip(b"\0").decode()
                return self.content[raw + 4:raw + 20], self.number("<I", raw + 20), name
        return None

    def time_stamps(self):
        """All that are in the file; those of resources are looked at where these are read."""
        stamps = [self.time_stamp]
        if place := self.directory(EXPORT):
            stamps.append(self.number("<I", place[0] + 4))
        if place := self.directory(DEBUG):
            stamps += [self.number("<I", at + 4) for at in range(place[0], place[0] + place[1], 28)]
        return stamps

    def expected_checksum(self):
        content = self.content[:self.checksum_at] + bytes(4) + self.content[self.checksum_at + 4:]
        content += bytes(len(content) % 2)
        total = sum(struct.unpack(f"<{len(content) // 2}H", content))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.content)


class PdbFile:
    """A PDB file: numbered streams, in blocks that lie about in the file."""

    MAGIC = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"

    def __init__(self, content):
        if not content.startswith(self.MAGIC):
            raise FormatError("is no PDB file")
        self.content = content
        self.block_size, _, _, directory_size, _, map_block = struct.unpack_from("<6I", content, len(self.MAGIC))
        blocks = self._numbers(content[map_block * self.block_size:], self._block_count(directory_size))
        directory = self._join(blocks, directory_size)
        count = struct.unpack_from("<I", directory)[0]
        sizes = [0 if size == 0xFFFFFFFF else size for size in self._numbers(directory[4:], count)]
        at = 4 + 4 * count
        self.streams = []
        for size in sizes:
            blocks = self._numbers(directory[at:], self._block_count(size))
            at += 4 * len(blocks)
            self.streams.append(self._join(blocks, size))

    def _block_count(self, size):
        return -(-size // self.block_size)

    @staticmethod
    def _numbers(content, count):
        return struct.unpack_from(f"<{count}I", content)

    def _join(self, blocks, size):
        parts = [self.content[block * self.block_size:(block + 1) * self.block_size] for block in blocks]
        return b"".join(parts)[:size]

    def identifier(self):
        """Identifier and age, to be compared with those of the binary."""
        _, _, age = struct.unpack_from("<III", self.streams[1])
        return self.streams[1][12:28], age

    def modules(self):
        """What was linked, each by its name and by the archive that it comes from; without one both are its name."""
        information = self.streams[3]
        at, end = 64, 64 + struct.unpack_from("<I", information, 24)[0]
        while at < end:
            middle = information.index(b"\0", at + 64)
            last = information.index(b"\0", middle + 1)
            yield information[at + 64:middle].decode(), information[middle + 1:last].decode()
            at = last + 1 + -(last + 1) % 4
