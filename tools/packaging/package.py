#!/usr/bin/env python3
"""Makes what is given away: the installer package, symbols, stand-ins, the kit for a Windows, list of components."""

import argparse
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile

TOOLS = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(TOOLS), str(TOOLS.parents[1] / "scripts")]

import archive
import check_binaries
import msi_content
import run_times
import sources
import spdx
import sums
import symbol_store
from binary_files import FormatError
from signing import Signer
from sources import ROOT, Refused

MAKE_MSI = ROOT / "installer" / "make_msi.py"


def parse(arguments):
    parser = argparse.ArgumentParser(prog="scripts/package.sh", allow_abbrev=False, description=__doc__)
    parser.add_argument("version", nargs="?", metavar="VERSION", help="three numbers; without it that of the sources")
    parser.add_argument("--sign", metavar="CERTIFICATE.pfx",
                        help="sign the product's binaries and the package; the file holds the chain up to its root")
    parser.add_argument("--password-file", metavar="FILE", help="its first line is the password of the PFX file")
    parser.add_argument("--timestamp", metavar="URL", help="a time-stamp server (RFC 3161), with --sign")
    options = parser.parse_args(arguments)
    if not options.sign and (options.password_file or options.timestamp):
        parser.error("--password-file and --timestamp are of use with --sign only")
    return options


def run(*command):
    if subprocess.run(command, cwd=ROOT, check=False).returncode != 0:
        raise Refused(f"{pathlib.Path(command[0]).name} failed")


def version_of_build(programs):
    """The version that the binaries bear: high and low word of the first three numbers."""
    path = programs / "tessaplug.dll"
    fixed = check_binaries.version_of(check_binaries.PeFile(path.read_bytes()))
    numbers = [int.from_bytes(fixed[at:at + 2], "little") for at in (2, 0, 6)]
    return ".".join(map(str, numbers))


def check_build(programs, version):
    findings, _ = check_binaries.check(programs)
    if findings:
        raise Refused("the binaries are not fit to be given away: " + "; ".join(findings))
    if version_of_build(programs) != version:
        raise Refused(f"{programs} holds version {version_of_build(programs)}, not {version}")


def product_binaries(programs):
    return [programs / name for name in check_binaries.SHIPPED]


def stand_in_entries(programs):
    for name in [*check_binaries.STAND_INS, *check_binaries.DRIVERS, "adapters.inf"]:
        yield f"bin/{name}", programs / name
    yield "include/tessaplug.h", ROOT / "tessaplug_lib" / "inc" / "tessaplug.h"
    yield "lib/libtessaplug.dll.a", programs / "libtessaplug.dll.a"
    yield "README.md", TOOLS / "stand_ins.md"
    for path in (ROOT / "standins").rglob("README.md"):
        yield path.relative_to(ROOT).as_posix(), path


def many_stations_entries():
    for path in [*(ROOT / "deploy" / "fleet").iterdir(), ROOT / "docs" / "many_stations.md"]:
        yield path.relative_to(ROOT).as_posix(), path


def components_of(contents, programs):
    """What of others is in each binary of the package; each is one that was built, and signed, here. In the package a
    library that the installer calls may have any name."""
    here = {path.read_bytes(): path for path in product_binaries(programs)}
    result = {}
    for name, content in contents.items():
        if not content.startswith(b"MZ"):
            continue
        built = here.get(content)
        if built is None:
            raise Refused(f"the installer package holds a {name} that is none of the product's in {programs}")
        if not built.with_suffix(".pdb").is_file():
            raise Refused(f"{name} has no PDB file that tells what was linked into it")
        result[name] = run_times.of_pdb(built.with_suffix(".pdb"))
    return result


def make(output, programs, version, date, signer, kit):
    """Fills an empty folder with what is given away. The programs may be changed: they are signed in place."""
    def named(end):
        return output / f"tessaplug-{version}{end}"

    if signer:
        for binary in product_binaries(programs):
            signer.sign(binary, "tessaplug", date)
    msi = named("-x64.msi")
    run("env", f"SOURCE_DATE_EPOCH={date}", sys.executable, MAKE_MSI, programs, version, msi)
    if signer:
        signer.sign(msi, f"tessaplug {version}", date)

    stand_ins = [programs / name for name in [*check_binaries.STAND_INS, *check_binaries.DRIVERS]]
    archive.write(named("-symbols.zip"), date, symbol_store.entries([*product_binaries(programs), *stand_ins]))
    archive.write(named("-stand-ins.zip"), date, stand_in_entries(programs))
    archive.write(named("-many-stations.zip"), date, many_stations_entries())
    shutil.copyfile(kit, named("-windows-kit.zip"))
    contents = msi_content.files(msi)
    components = components_of(contents, programs)
    named(".spdx.json").write_text(spdx.document(version, date, msi.name, contents, components), encoding="utf-8")
    sums.write(output)


def replace_whole(output, fill):
    """Has a folder filled beside the output, which it then takes the place of; if that fails, the output stays as it is
    and nothing else does."""
    output.parent.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix=f".{output.name}-", dir=output.parent) as folder:
        new, old = pathlib.Path(folder, "new"), pathlib.Path(folder, "old")
        new.mkdir()
        fill(new)
        if output.exists():
            output.rename(old)
        new.rename(output)


def package(options):
    version = sources.version(options.version)
    signer = Signer(options.sign, options.password_file, options.timestamp) if options.sign else None
    if not MAKE_MSI.is_file():
        raise Refused(f"{MAKE_MSI.relative_to(ROOT)} is missing: it makes the installer package")
    date = sources.date()
    if sources.is_changed():
        print("package: the working tree was changed since the last commit; what comes out is not that of a commit",
              file=sys.stderr)
    build = sources.build_folder(version)
    run("scripts/windows_kit.sh", version, build.relative_to(ROOT))
    check_build(build / "bin", version)

    output = ROOT / "build" / "package"

    def fill(folder):
        with tempfile.TemporaryDirectory(dir=folder.parent) as copy:
            programs = pathlib.Path(copy) / "bin"
            # Signed ones do not belong among what is built; test programs are not needed.
            shutil.copytree(build / "bin", programs, ignore=shutil.ignore_patterns("*_tests.*", "faulty"))
            make(folder, programs, version, date, signer, ROOT / "build" / "windows-kit.zip")

    replace_whole(output, fill)
    print(f"{output.relative_to(ROOT)}, {'signed' if signer else 'not signed'}, commit {sources.commit()}:")
    for path in sorted(output.iterdir()):
        print(f"  {path.stat().st_size:>12,}  {path.name}")


def main(arguments):
    options = parse(arguments)
    try:
        package(options)
    except (Refused, FormatError, OSError) as error:
        print(f"package: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    os.umask(0o022)
    # What was begun is removed also when the packing is ended from outside.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(main(sys.argv[1:]))
