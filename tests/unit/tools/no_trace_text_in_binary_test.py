"""Checks that no trace text is in a binary: arguments are the binary and the folder of its .tmf files."""

import pathlib
import re
import sys

SHORTEST = 16  # characters of a fragment that other texts of the program do not share


def fragments(folder):
    for file in pathlib.Path(folder).glob("*.tmf"):
        for text in re.findall(r'^#typev \S+ \d+ "%0(.*)" //', file.read_text(), re.M):
            for fragment in re.split(r"%%|%\d+!\w+!", text):
                if len(fragment.strip()) >= SHORTEST and " " in fragment.strip():
                    yield fragment.strip(), file.name


def main(binary, folder):
    content = pathlib.Path(binary).read_bytes()
    checked = 0
    found = []
    for fragment, file in fragments(folder):
        checked += 1
        for encoded in (fragment.encode(), fragment.encode("utf-16-le")):
            if encoded in content:
                found.append(f"{file}: {fragment}")
    # A text that is there proves that the search would find one.
    assert b"Wrong Sequence! Missing Initialize." in content, "the binary is not what it should be"
    assert checked > 30, f"only {checked} fragments: are the .tmf files made?"
    print("\n".join(found) if found else f"{checked} fragments, none in the binary")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
