"""What is in an installer package, read from the package itself: what gets to a machine, not what was meant to."""

import pathlib
import subprocess
import tempfile

from sources import Refused


def _name(command):
    return next(argument.name for argument in command if isinstance(argument, pathlib.Path))


def _run(*command):
    try:
        done = subprocess.run(command, capture_output=True, check=False)
    except FileNotFoundError as error:
        raise Refused(f"{command[0]} is not installed: run scripts/setup.sh") from error
    if done.returncode != 0:
        raise Refused(f"{command[0]} cannot read {_name(command)}: {done.stderr.decode().strip()}")
    return done.stdout


def _streams(msi):
    """Libraries that the installer itself calls; they are in the package and never on the machine."""
    for line in _run("msiinfo", "streams", msi).decode().splitlines():
        kind, _, name = line.partition(".")
        if kind == "Binary":
            yield name, line


def files(msi):
    """The content of each file by its name: of those that are installed the path below the installer's root, of those
    that the installer calls "installer/NAME"."""
    msi = pathlib.Path(msi).resolve()
    # Two lines of names and types, and one of the table itself. The extractor passes over what it cannot read.
    expected = len(_run("msiinfo", "export", msi, "File").splitlines()) - 3
    result = {}
    with tempfile.TemporaryDirectory() as folder:
        _run("msiextract", "-C", folder, msi)
        for path in sorted(pathlib.Path(folder).rglob("*")):
            if path.is_file():
                result[path.relative_to(folder).as_posix()] = path.read_bytes()
    if len(result) != expected:
        raise Refused(f"{msi.name} names {expected} files and gives {len(result)}")
    for name, stream in _streams(msi):
        result[f"installer/{name}"] = _run("msiinfo", "extract", msi, stream)
    return result
