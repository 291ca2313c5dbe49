"""What of others is inside a binary: the archives that were linked into it and the libraries of headers only, as its
PDB file tells. Another one must be looked up and entered here, and into THIRD_PARTY_NOTICES.md, before anybody gets
it."""

import dataclasses
import functools
import pathlib
import re
import subprocess

from binary_files import PdbFile
from sources import ROOT, Refused


@dataclasses.dataclass(frozen=True)
class Component:
    name: str
    licence: str  # an SPDX expression
    copyright: str
    relationship: str  # of a binary to it
    package: str = ""  # of Debian, that it comes from
    version: str = ""


GCC_LICENCE = "GPL-3.0-or-later WITH GCC-exception-3.1"
FSF = "Copyright (C) Free Software Foundation, Inc."
COMPONENTS = {component.name: component for component in (
    Component("libstdc++", GCC_LICENCE, FSF, "STATIC_LINK"),
    Component("libgcc", GCC_LICENCE, FSF, "STATIC_LINK"),
    Component("mingw-w64-crt", "ZPL-2.1 AND LicenseRef-Lucent AND LicenseRef-David-Gay AND "
              "LicenseRef-Keith-Marshall AND LicenseRef-public-domain", "Copyright (c) the mingw-w64 project",
              "STATIC_LINK"),
    Component("winpthreads", "MIT AND BSD-3-Clause AND LicenseRef-public-domain",
              "Copyright (c) the mingw-w64 project; (c) Lockless Inc.", "STATIC_LINK"),
    Component("CLI11", "BSD-3-Clause", "Copyright (c) University of Cincinnati, developed by Henry Schreiner",
              "CONTAINS", "libcli11-dev"),
    Component("nlohmann-json", "MIT", "Copyright (c) Niels Lohmann", "CONTAINS", "nlohmann-json3-dev"),
)}
# Where the texts of licences stand that have no name in the SPDX list, each below a heading that is its name.
NOTICES = ROOT / "THIRD_PARTY_NOTICES.md"
# Archives and single objects of the tool chain by their path; the first that matches.
LINKED = (
    (r"/usr/lib/gcc/x86_64-w64-mingw32/[^/]+/libstdc\+\+\.a", "libstdc++"),
    (r"/usr/lib/gcc/x86_64-w64-mingw32/[^/]+/(libgcc(_eh)?\.a|crt(begin|end)\.o)", "libgcc"),
    (r"/usr/x86_64-w64-mingw32/lib/lib(win)?pthread\.a", "winpthreads"),
    (r"/usr/x86_64-w64-mingw32/lib/[^/]+\.[ao]", "mingw-w64-crt"),
)
# Names of source files in the PDB file.
HEADERS = ((rb"[/\\]CLI[/\\]\w+\.hpp", "CLI11"), (rb"[/\\]nlohmann[/\\]\w+\.hpp", "nlohmann-json"))


@functools.cache
def package_of(path):
    done = subprocess.run(["dpkg-query", "--search", path], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Refused(f"{path} is linked in, and of no package of this Debian")
    return done.stdout.partition(":")[0]


@functools.cache
def version_of(package):
    done = subprocess.run(["dpkg-query", "--show", "--showformat=${Version}", package], capture_output=True, text=True,
                          check=False)
    if done.returncode != 0 or not done.stdout:
        raise Refused(f"{package} is not installed, yet something of it is in the binaries")
    return done.stdout


def component_of(archive):
    for pattern, name in LINKED:
        if re.fullmatch(pattern, archive):
            return name
    raise Refused(f"{archive} is linked in: look up its licence and enter it into {pathlib.Path(__file__).name} and "
                  "THIRD_PARTY_NOTICES.md")


def of_pdb(path):
    """The components in the binary that this PDB file belongs to, in the order of their names."""
    pdb = PdbFile(path.read_bytes())
    found = {}
    for _, archive in pdb.modules():
        # What is built here is named from the build folder.
        if archive.startswith("/"):
            found.setdefault(component_of(archive), package_of(archive))
    for pattern, name in HEADERS:
        if any(re.search(pattern, stream) for stream in pdb.streams):
            found[name] = COMPONENTS[name].package
    return [dataclasses.replace(COMPONENTS[name], package=package, version=version_of(package))
            for name, package in sorted(found.items())]


def licence_texts(components):
    """The texts of the licences without a name in the SPDX list, by the names that they have here."""
    notices = NOTICES.read_text(encoding="utf-8")
    names = sorted({name for component in components for name in re.findall(r"LicenseRef-[\w-]+", component.licence)})
    texts = {}
    for name in names:
        found = re.search(rf"^### {name}\n.*?^```\n(.*?)^```$", notices, re.MULTILINE | re.DOTALL)
        if found is None:
            raise Refused(f"{NOTICES.name} lacks the text of {name}")
        texts[name] = found[1]
    return texts
