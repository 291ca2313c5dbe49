"""What is packed: the version that was asked for, and the commit that it is made of."""

import os
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
NUMBER = r"(0|[1-9][0-9]?)"  # as in cmake/version.cmake: the installer compares three numbers up to 99


class Refused(Exception):
    """What was asked for cannot be done; the text says why."""


def version(text=None):
    """The version that is meant by a text, or without one that of the sources."""
    own = (ROOT / "VERSION").read_text(encoding="ascii").strip()
    text = own if text is None else text
    if not re.fullmatch(rf"{NUMBER}\.{NUMBER}\.{NUMBER}", text, re.ASCII):
        raise Refused(f"\"{text}\" is no version: three numbers up to 99 are needed, such as 21.0.1")
    return text


def build_folder(version_text):
    """Where a version is built: what is built day by day has the version of the sources."""
    return ROOT / "build" / ("release" if version_text == version() else "package-release")


def _git(*arguments):
    done = subprocess.run(["git", "-C", ROOT, *arguments], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Refused(f"this needs the git working tree: {done.stderr.strip()}")
    return done.stdout.strip()


def date():
    """The time that everything packed bears, in seconds since 1970: SOURCE_DATE_EPOCH, or else the commit's."""
    text = os.environ.get("SOURCE_DATE_EPOCH") or _git("log", "-1", "--format=%ct")
    if not re.fullmatch(r"[0-9]+", text, re.ASCII):
        raise Refused(f"SOURCE_DATE_EPOCH is \"{text}\", which is no number of seconds since 1970")
    return int(text)


def commit():
    return _git("describe", "--always", "--abbrev=12", "--dirty=+", "--exclude", "*")


def is_changed():
    """Whether the working tree is not what was committed, files that git does not know included."""
    return bool(_git("status", "--porcelain"))
