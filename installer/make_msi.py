#!/usr/bin/env python3
"""Makes the installer.

usage: make_msi.py BIN_FOLDER VERSION OUTPUT.msi

BIN_FOLDER holds the shipped binaries, signed already if they are to be, and the trace formats. The same files make the
same installer to the bit if SOURCE_DATE_EPOCH is set. What is wrong ends the program with a message, and no installer
stays.
"""

import hashlib
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import uuid
import xml.sax.saxutils

HERE = pathlib.Path(__file__).parent
SOURCES = HERE.parent
DOCUMENTS = ("docs/operators.md", "docs/many_stations.md", "docs/host_writers.md", "docs/commands.md", "docs/json.md",
             "CHANGELOG.md", "SECURITY.md", "THIRD_PARTY_NOTICES.md")
PROGRAMS = ("tessaplug.dll", "tessahost.exe", "tessactl.exe")
# Identifiers of the product in every version, and where those of its parts come from.
UPGRADE_CODE = "8A2F6C1E-5D37-4B90-A4C8-0E9B7F13D25A"
NAMESPACE = uuid.UUID("c1d0a7e2-93b4-4f58-8e6d-27b5f0c94a13")

# Actions of tessasetup.dll, by what Windows Installer has to know: when the action runs, and its number in the order of
# everything. One that takes another back comes before it.
IN_SCRIPT, ROLLBACK, COMMIT = 0x400, 0x400 | 0x100, 0x400 | 0x200
NOT_AS_THE_USER, FROM_LIBRARY = 0x800, 1
INSTALLING, REMOVING = 'REMOVE<>"ALL"', 'REMOVE="ALL" AND NOT UPGRADINGPRODUCTCODE'
NOT_REMOVED_BY_AN_UPDATE = "NOT UPGRADINGPRODUCTCODE"
ACTIONS = (
    ("PrepareSetup", 0, 1350, NOT_REMOVED_BY_AN_UPDATE),
    ("PutProductBack", ROLLBACK, 1510, NOT_REMOVED_BY_AN_UPDATE),
    ("ReleaseProductFiles", IN_SCRIPT, 1520, NOT_REMOVED_BY_AN_UPDATE),
    ("RemoveInstalledService", IN_SCRIPT, 1530, REMOVING),
    ("TakeServiceBack", ROLLBACK, 5810, INSTALLING),
    ("SetUpService", IN_SCRIPT, 5820, INSTALLING),
    ("StartInstalledService", COMMIT, 6570, INSTALLING),
    ("RemoveWhatIsLeft", COMMIT, 6580, REMOVING),
)
# The old version goes when the files of the new one are there: what fails before leaves the old one as it was. What both
# have stays, as its component is the same. The new one is registered behind that.
ORDER = {"InstallExecute": 6550, "RemoveExistingProducts": 6560, "RegisterUser": 6561, "RegisterProduct": 6562,
         "PublishFeatures": 6563, "PublishProduct": 6564, "RemoveEnvironmentStrings": 3300,
         "WriteEnvironmentStrings": 5200}
# How a version resource begins; what follows is the structure's version and the two halves of the file's.
VERSION_RESOURCE = "VS_VERSION_INFO".encode("utf-16-le") + bytes(4) + struct.pack("<L", 0xFEEF04BD)
FILETIME_PROPERTY = 64  # type of a summary's property

MIGRATES_FEATURES, UP_TO_THIS_VERSION = 0x1, 0x200  # of a row of the table Upgrade

PROPERTIES = ("SERVICESTART", "LOGFOLDER", "STARTSERVICE")  # that a user may give
CONDITIONS = (
    ("VersionNT64", "Tessaplug needs a 64-bit Windows 10 (1607) or Windows Server 2016, or a later one."),
    ("Privileged", "Tessaplug is installed by an administrator: run the installer as one."),
)


class PackageError(Exception):
    """Told to the user."""


def guid(name):
    return str(uuid.uuid5(NAMESPACE, name)).upper()


def identifier(path):
    """One that an installer's table may have."""
    return "_" + re.sub("[^A-Za-z0-9_.]", "_", path)


def stage(programs, folder):
    """Puts the files where the installer will, below a folder.
    @return their paths in it, sorted"""
    for name in PROGRAMS:
        shutil.copy(programs / name, folder / name)
    (folder / "tmf").mkdir()
    for file in (programs / "tmf").iterdir():
        shutil.copy(file, folder / "tmf" / file.name)
    (folder / "docs").mkdir()
    for name in DOCUMENTS:
        source = SOURCES / name
        if source.exists():
            text = source.read_text(encoding="utf-8")
            (folder / "docs" / (source.stem.lower() + ".txt")).write_text(text, encoding="utf-8", newline="\r\n")
    return sorted(file.relative_to(folder) for file in folder.rglob("*") if file.is_file())


def component(path):
    name = path.as_posix()
    return (f'<Component Id="{identifier(name)}" Guid="{guid(name)}" Win64="yes">'
            f'<File Id="{identifier(name)}" Name="{path.name}" Source={xml.sax.saxutils.quoteattr(name)} KeyPath="yes"/>'
            "</Component>")


def wxs(files, version, identity):
    """The source of wixl."""
    by_folder = {}
    for path in files:
        by_folder.setdefault(path.parent.as_posix(), []).append(component(path))
    references = "".join(f'<ComponentRef Id="{identifier(path.as_posix())}"/>' for path in files)
    template = (HERE / "tessaplug.wxs.in").read_text(encoding="utf-8")
    values = {"VERSION": version, "PRODUCT_CODE": guid(f"product {identity}"), "UPGRADE_CODE": UPGRADE_CODE,
              "SETTINGS_GUID": guid("settings"),
              "PROGRAMS": "".join(by_folder.get(".", [])), "TRACE_FORMATS": "".join(by_folder.get("tmf", [])),
              "DOCUMENTS": "".join(by_folder.get("docs", [])), "REFERENCES": references}
    return re.sub("@([A-Z_]+)@", lambda match: values[match.group(1)], template)


def run(*command, folder):
    done = subprocess.run([str(part) for part in command], cwd=folder, capture_output=True, text=True)
    if done.returncode != 0 or "CRITICAL" in done.stderr:
        raise PackageError(f"{command[0]} failed: {done.stderr.strip() or done.stdout.strip()}")
    return done.stdout


class Table:
    """A table of an installer, read and written whole: the tools that there are change rows in a few cases only."""

    def __init__(self, msi, name, columns=None, types=None, keys=None):
        """@param columns, types, keys of a table that wixl does not make"""
        self.msi, self.name = msi, name
        if columns is None:
            exported = run("msiinfo", "export", msi.name, name, folder=msi.parent)
            columns, types, keys, *rows = [line.split("\t") for line in exported.splitlines()]
            keys = keys[1:]
            self.rows = [dict(zip(columns, row)) for row in rows]
        else:
            self.rows = []
        self.columns, self.types, self.keys = columns, types, keys

    def add(self, **row):
        self.rows.append({name: str(value) for name, value in row.items()})

    def row(self, value):
        """The row with this first column."""
        return next(row for row in self.rows if row[self.columns[0]] == value)

    def write(self):
        lines = [self.columns, self.types, [self.name, *self.keys]]
        lines += [[row.get(name, "") for name in self.columns] for row in self.rows]
        file = self.msi.with_name(f"{self.name}.idt")
        file.write_bytes("".join("\t".join(line) + "\r\n" for line in lines).encode("cp1252"))
        run("msibuild", self.msi.name, "-i", file.name, folder=self.msi.parent)


def file_version(file):
    """The number in a binary's version resource, such as "21.0.0.0"."""
    content = file.read_bytes()
    at = content.find(VERSION_RESOURCE)
    if at < 0:
        raise PackageError(f"{file} has no version resource")
    high, low = struct.unpack_from("<LL", content, at + len(VERSION_RESOURCE) + 4)
    return f"{high >> 16}.{high & 0xffff}.{low >> 16}.{low & 0xffff}"


def add_what_wixl_cannot(msi, programs, version, identity):
    # Windows Installer compares versioned files by these, and others by their hash.
    files, hashes = Table(msi, "File"), Table(msi, "MsiFileHash")
    for name in PROGRAMS:
        files.row(identifier(name)).update(Version=file_version(programs / name), Language="1033")
    hashes.rows = [row for row in hashes.rows if row["File_"] not in map(identifier, PROGRAMS)]
    conditions = Table(msi, "LaunchCondition")
    for condition, description in CONDITIONS:
        conditions.add(Condition=condition, Description=description)
    # Another build of the same version takes the place of this one.
    upgrade = Table(msi, "Upgrade")
    for row in upgrade.rows:
        if row["ActionProperty"] == "WIX_UPGRADE_DETECTED":
            row["Attributes"] = str(MIGRATES_FEATURES | UP_TO_THIS_VERSION)
    properties = Table(msi, "Property")
    properties.row("SecureCustomProperties")["Value"] += "".join(f";{name}" for name in PROPERTIES)
    # The clients of this component are the versions that are there.
    properties.add(Property="SharedComponent", Value="{" + guid("settings") + "}")
    properties.add(Property="SizeOfFiles", Value=sum(int(row["FileSize"]) for row in files.rows))
    # "=" sets it, "-" takes it away again at the removal, "*" is the machine's; "[~];" keeps what is there.
    environment = Table(msi, "Environment", ["Environment", "Name", "Value", "Component_"],
                        ["s72", "l255", "L255", "s72"], ["Environment"])
    environment.add(Environment="Path", Name="=-*PATH", Value="[~];[INSTALLDIR]", Component_="Settings")
    (msi.parent / "Binary").mkdir()
    shutil.copy(programs / "tessasetup.dll", msi.parent / "Binary" / "TessaSetup.ibd")
    binary = Table(msi, "Binary", ["Name", "Data"], ["s72", "v0"], ["Name"])
    binary.add(Name="TessaSetup", Data="TessaSetup.ibd")
    sequence, actions = Table(msi, "InstallExecuteSequence"), Table(msi, "CustomAction")
    sequence.rows = [row for row in sequence.rows if row["Action"] not in ORDER]
    for action, number in ORDER.items():
        sequence.add(Action=action, Sequence=number)
    for name, kind, number, condition in ACTIONS:
        actions.add(Action=name, Type=FROM_LIBRARY + kind + (NOT_AS_THE_USER if kind else 0), Source="TessaSetup",
                    Target=name)
        sequence.add(Action=name, Condition=condition, Sequence=number)
    for table in (files, hashes, conditions, upgrade, properties, environment, binary, actions, sequence):
        table.write()
    run("msibuild", msi.name, "-s", f"Tessaplug {version}", "Tessaplug", "x64;1033",
        "{" + guid(f"package {identity}") + "}", folder=msi.parent)


def set_dates(msi, time):
    """In place of the time at which it was made, which wixl writes into the summary twice as a FILETIME."""
    content = msi.read_bytes()
    dates = re.compile(re.escape(struct.pack("<L", FILETIME_PROPERTY)) + rb"(.{8})", re.S)
    now = filetime(msi.stat().st_mtime)
    written = {match.group(1) for match in dates.finditer(content)
               if abs(struct.unpack("<Q", match.group(1))[0] - now) < filetime(60) - filetime(0)}
    for date in written:
        content = content.replace(date, struct.pack("<Q", filetime(time)))
    msi.write_bytes(content)


def filetime(seconds):
    """100 ns since 1601, of seconds since 1970."""
    return int((seconds + 11644473600) * 10_000_000)


def make(programs, version, output):
    if not re.fullmatch(r"\d{1,2}\.\d{1,2}\.\d{1,2}", version):
        raise PackageError(f'"{version}" is no version: three numbers up to 99 are needed, such as 21.0.1')
    for name in (*PROGRAMS, "tessasetup.dll", "tmf"):
        if not (programs / name).exists():
            raise PackageError(f"{programs / name} is missing: build everything first")
    output.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=output.parent, prefix=".msi") as work:
        work = pathlib.Path(work)
        tree = work / "tree"
        tree.mkdir()
        files = stage(programs, tree)
        digest = hashlib.sha256(version.encode())
        for file in (*(tree / path for path in files), programs / "tessasetup.dll"):
            digest.update(file.name.encode() + file.read_bytes())
        identity = digest.hexdigest()
        (tree / "tessaplug.wxs").write_text(wxs(files, version, identity), encoding="utf-8")
        epoch = os.environ.get("SOURCE_DATE_EPOCH")
        if epoch is not None:
            for path in files:
                os.utime(tree / path, (int(epoch), int(epoch)))
        msi = work / output.name
        run("wixl", "-a", "x64", "-o", msi, "tessaplug.wxs", folder=tree)
        add_what_wixl_cannot(msi, programs, version, identity)
        if epoch is not None:
            set_dates(msi, int(epoch))
        os.replace(msi, output)


def main():
    if len(sys.argv) != 4:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        make(pathlib.Path(sys.argv[1]).resolve(), sys.argv[2], pathlib.Path(sys.argv[3]).resolve())
    except (PackageError, OSError) as error:
        print(f"make_msi: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
