"""Zip archives that are the same to the bit when what goes into them is the same."""

import pathlib
import time
import zipfile

EARLIEST = 315532800  # 1980, where the time of zip archives begins
MS_DOS, FILE = 0, 0x20  # the system that wrote an entry, and its attribute there


def write(path, date, entries, level=9):
    """Writes an archive of entries, each a name and its content or a file, all of one date in seconds since 1970. By
    another name until it is whole."""
    moment = time.gmtime(max(date, EARLIEST))[:6]
    unfinished = path.with_name(path.name + ".part")
    try:
        with zipfile.ZipFile(unfinished, "w", zipfile.ZIP_DEFLATED, compresslevel=level) as archive:
            for name, content in sorted(entries, key=lambda entry: entry[0]):
                if name in archive.NameToInfo:
                    raise ValueError(f"{path.name} would have {name} twice")
                information = zipfile.ZipInfo(name, moment)
                information.create_system, information.external_attr = MS_DOS, FILE
                information.compress_type = zipfile.ZIP_DEFLATED
                if isinstance(content, pathlib.Path):
                    content = content.read_bytes()
                archive.writestr(information, content, compresslevel=level)
        unfinished.replace(path)
    finally:
        unfinished.unlink(missing_ok=True)
