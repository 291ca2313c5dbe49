#!/usr/bin/env python3
"""Checks the binaries of a build before somebody gets them.

    check_binaries.py FOLDER            what is shipped, and the stand-ins, in the folder of a build's binaries
    check_binaries.py --compare A B     whether those of two builds are the same to the bit

Each finding is a line; the exit status is 1 if there is one."""

import pathlib
import re
import sys
import xml.etree.ElementTree

from binary_files import DELAY_IMPORT, RELOCATION, FormatError, PdbFile, PeFile

# Windows 10 1607 and Windows Server 2016: the oldest Windows that everything here is for.
OLDEST_WINDOWS = (10, 0, 14393)
SUPPORTED_OS = "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"  # Windows 10 and Windows Server 2016, and later
SUBSYSTEM_VERSION = (10, 0)
NATIVE = 1

# What may be imported from and what is exported.
PLUG_IN_LIBRARIES = {"advapi32.dll", "kernel32.dll", "msvcrt.dll", "ole32.dll", "oleaut32.dll", "shell32.dll",
                     "user32.dll"}
SHIPPED = {
    "tessaplug.dll": (PLUG_IN_LIBRARIES,
                      {"tessaplug_init", "tessaplug_cleanup", "tessaplug_service_ctrl_handler"}),
    "tessahost.exe": (PLUG_IN_LIBRARIES - {"oleaut32.dll"}, set()),
    "tessactl.exe": (PLUG_IN_LIBRARIES, set()),
    "tessasetup.dll": (PLUG_IN_LIBRARIES | {"msi.dll"},
                       {"PrepareSetup", "PutProductBack", "ReleaseProductFiles", "RemoveInstalledService",
                        "RemoveWhatIsLeft", "SetUpService", "StartInstalledService", "TakeServiceBack"}),
}
# The rest of a station: of these the functions are not looked at one by one.
STAND_IN_LIBRARIES = PLUG_IN_LIBRARIES | {"newdev.dll", "ntdll.dll", "setupapi.dll", "wtsapi32.dll"}
STAND_INS = {
    "q5orvix64x.dll": (STAND_IN_LIBRARIES,
                       {"LogDeviceExists", "LogDeviceGetValue", "LogDeviceSetNdiValue", "TemplateGetEnum"}),
    "winegap.dll": (STAND_IN_LIBRARIES, {"WineGapStart"}),
    **dict.fromkeys(("adapterctl.exe", "q5config.exe", "q5panels.exe", "stationmgr.exe", "winegapbox.exe"),
                    (STAND_IN_LIBRARIES, set())),
}
DRIVERS = {name: ({"ntoskrnl.exe", "hal.dll"}, set()) for name in ("fenlu3.sys", "nx4120.sys")}

DLL_CHARACTERISTICS = {"HIGH_ENTROPY_VA": 0x20, "DYNAMIC_BASE": 0x40, "NX_COMPAT": 0x100}
RELOCATIONS_STRIPPED = 0x1  # characteristics
EXECUTABLE, WRITABLE = 0x20000000, 0x80000000  # of a section
VERSION, MANIFEST = 16, 24  # resource types

# Folders that are one machine's, wherever it builds; its own source folder comes to them.
MACHINE_FOLDERS = ("/home", "/root", "/tmp", "/usr/local", "/mnt")


def version_number(text):
    return tuple(int(part) for part in text.split("."))


def read_functions(path):
    """The known functions, each with the first Windows that has it, by library."""
    functions = {}
    library = None
    for line in path.read_text().splitlines():
        words = line.split()
        if not words or line.startswith("#"):
            continue
        if line.startswith("["):
            library = functions.setdefault(line.strip("[]"), {})
        else:
            library[words[0]] = version_number(words[1]) if len(words) > 1 else (6, 1)
    return functions


FUNCTIONS = read_functions(pathlib.Path(__file__).with_name("windows_functions.txt"))


def check_libraries(pe, libraries):
    for library in pe.imports().keys() - libraries:
        yield f"imports from {library}, which it may not"
    if pe.directories[DELAY_IMPORT][1]:
        yield "loads libraries late, which is not looked at"


def check_functions(pe, functions):
    for library, names in pe.imports().items():
        known = functions.get(library, {})
        for name in names:
            if name not in known:
                yield (f"imports {name} from {library}: look up whether that library has it and since which Windows, "
                       "and enter it into scripts/windows_functions.txt")
            elif known[name] > OLDEST_WINDOWS:
                yield f"imports {name} from {library}, which Windows has since {'.'.join(map(str, known[name]))} only"


def check_exports(pe, exports):
    found = set(pe.exports())
    if found != exports:
        yield f"exports {', '.join(sorted(found)) or 'nothing'}; expected is {', '.join(sorted(exports)) or 'nothing'}"


def check_headers(pe):
    for name, flag in DLL_CHARACTERISTICS.items():
        if not pe.dll_characteristics & flag:
            yield f"lacks {name}"
    if pe.characteristics & RELOCATIONS_STRIPPED or not pe.directories[RELOCATION][1]:
        yield "has no relocations: it cannot be loaded anywhere but at its own address"
    for section in pe.sections:
        if section[5] & EXECUTABLE and section[5] & WRITABLE:
            yield f"has a section that is writable and executable: {section[0].rstrip(bytes(1)).decode()}"
    for what, version in ("subsystem", pe.subsystem_version), ("system", pe.os_version):
        if version != SUBSYSTEM_VERSION:
            yield f"has the {what} version {version[0]}.{version[1]}"
    if not pe.is_reproducible() or not pe.time_stamp:
        yield "has no hash of its content in place of a time stamp: symbol stores could not tell two versions apart"
    elif set(pe.time_stamps()) - {0, pe.time_stamp}:
        yield "has a time stamp beside the hash of its content: two builds are not the same"


def check_driver(pe):
    if pe.subsystem != NATIVE:
        yield "is no native image"
    if pe.checksum != pe.expected_checksum():
        yield f"has the checksum 0x{pe.checksum:08x}; its content gives 0x{pe.expected_checksum():08x}"


def check_manifest(resources):
    content = resources.get((MANIFEST, 1))
    if content is None:
        yield "has no manifest"
        return
    found = {}
    for element in xml.etree.ElementTree.fromstring(content).iter():
        found.setdefault(element.tag.rpartition("}")[2], []).append(element)
    texts = {"longPathAware": "true", "activeCodePage": "UTF-8"}
    attributes = {"requestedExecutionLevel": ("level", "asInvoker"), "supportedOS": ("Id", SUPPORTED_OS)}
    for name, expected in texts.items():
        if [element.text for element in found.get(name, [])] != [expected]:
            yield f"has a manifest where {name} is not {expected}"
    for name, (attribute, expected) in attributes.items():
        if [element.get(attribute) for element in found.get(name, [])] != [expected]:
            yield f"has a manifest where the {attribute} of {name} is not {expected}"


def version_of(pe):
    """File and product version as the version resource has them; None if it has none."""
    content = pe.resources().get((VERSION, 1), b"")
    at = content.find(b"\xbd\x04\xef\xfe")  # the signature of the fixed part
    return content[at + 8:at + 24] if at >= 0 else None


def check_pdb(path, pe):
    reference = pe.pdb_reference()
    pdb = path.with_suffix(".pdb")
    if reference is None:
        yield "names no PDB file"
        return
    if reference[2] != pdb.name:
        yield f"names {reference[2]} as its PDB file"
    if not pdb.is_file():
        yield f"has no {pdb.name} beside it"
    elif PdbFile(pdb.read_bytes()).identifier() != reference[:2]:
        yield f"has a {pdb.name} beside it that is another build's"


def machine_folders(source_folder):
    """Folders of this machine, and of any other, as they stand in files: in either of the system's encodings."""
    names = {*MACHINE_FOLDERS, str(source_folder), str(pathlib.Path.home())} - {"/"}
    for name in sorted(names):
        for text in name, name.replace("/", "\\"):
            yield text.encode(), 1
            yield text.encode("utf-16-le"), 2


def find_folder(content, folder, width):
    """Where the folder stands in the content with something below it, and is not itself part of a longer path."""
    at = content.find(folder)
    while at >= 0:
        before, after = content[max(at - width, 0):at][:1], content[at + len(folder):at + len(folder) + 1]
        if after in (b"/", b"\\") and not re.fullmatch(rb"[\w./\\-]", before):
            return at
        at = content.find(folder, at + 1)
    return -1


def check_paths(name, contents, folders):
    for content in contents:
        for folder, width in folders:
            at = find_folder(content, folder, width)
            if at >= 0:
                text = content[at:at + 120 * width:width].decode("ascii", "replace")
                yield f"has a path of a machine {name}: {re.split('[^ -~]', text)[0]}"
                return


def check_file(path, libraries, exports, functions, source_folder):
    pe = PeFile(path.read_bytes())
    yield from check_libraries(pe, libraries)
    yield from check_exports(pe, exports)
    yield from check_headers(pe)
    if path.name in SHIPPED:
        yield from check_functions(pe, functions)
        if version_of(pe) is None:
            yield "has no version resource"
        if path.suffix == ".exe":
            yield from check_manifest(pe.resources())
    if path.name in DRIVERS:
        yield from check_driver(pe)
    else:
        yield from check_pdb(path, pe)
    folders = list(machine_folders(source_folder))
    yield from check_paths("in itself", [pe.content], folders)
    pdb = path.with_suffix(".pdb")
    if pdb.is_file():
        yield from check_paths(f"in {pdb.name}", PdbFile(pdb.read_bytes()).streams, folders)


def findings(path, functions=None, source_folder=pathlib.Path(__file__).resolve().parent.parent):
    """What is wrong with a binary, as sentences without their subject."""
    libraries, exports = {**SHIPPED, **STAND_INS, **DRIVERS}[path.name]
    try:
        return list(check_file(path, libraries, exports, FUNCTIONS if functions is None else functions, source_folder))
    except OSError as error:
        return [f"cannot be read: {error.strerror}"]
    except (FormatError, ValueError, xml.etree.ElementTree.ParseError) as error:
        return [str(error)]


def check(folder):
    names = [*SHIPPED, *STAND_INS, *DRIVERS]
    result = [f"{name} {finding}" for name in names for finding in findings(folder / name)]
    if not result:
        versions = {name: version_of(PeFile((folder / name).read_bytes())) for name in SHIPPED}
        if len(set(versions.values())) != 1:
            result.append("the versions of the shipped binaries differ: " + ", ".join(
                f"{name} {version.hex()}" for name, version in versions.items()))
    return result, f"{len(names)} binaries with their PDB files are as they should be"


def compare(first, second):
    names = [*SHIPPED, "libtessaplug.dll.a", *STAND_INS, *DRIVERS]
    names += [pathlib.Path(name).with_suffix(".pdb").name for name in [*SHIPPED, *STAND_INS]]
    result = []
    for name in names:
        contents = []
        for folder in first, second:
            try:
                contents.append((folder / name).read_bytes())
            except OSError as error:
                result.append(f"{folder / name} cannot be read: {error.strerror}")
        if len(contents) == 2 and contents[0] != contents[1]:
            at = next((i for i, (a, b) in enumerate(zip(*contents)) if a != b), min(map(len, contents)))
            result.append(f"{name} differs from offset 0x{at:x} on")
    return result, f"{len(names)} files are the same to the bit"


def main(arguments):
    if len(arguments) == 1:
        result, success = check(pathlib.Path(arguments[0]))
    elif len(arguments) == 3 and arguments[0] == "--compare":
        result, success = compare(pathlib.Path(arguments[1]), pathlib.Path(arguments[2]))
    else:
        print(__doc__, file=sys.stderr)
        return 2
    for line in result:
        print(f"check_binaries: {line}", file=sys.stderr)
    if not result:
        print(f"check_binaries: {success}")
    return 1 if result else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
