"""Sums of files."""

import hashlib

NAME = "SHA256SUMS"


def digest(content, kind="sha256"):
    return hashlib.new(kind, content).hexdigest()


def write(folder):
    """Writes the sums of everything in a folder into it, for sha256sum -c."""
    files = sorted(path for path in folder.rglob("*") if path.is_file() and path.name != NAME)
    lines = [f"{digest(path.read_bytes())}  {path.relative_to(folder).as_posix()}\n" for path in files]
    (folder / NAME).write_text("".join(lines), encoding="utf-8", newline="\n")
