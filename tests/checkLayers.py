#!/usr/bin/env python3
"""Checks that no module includes one of a higher layer.

lib*   pure libraries: the standard library, other lib* and third-party decoders
m*     the program's logic: lib* and other m*, no windows
f*     windows: everything; only they (and libGraphics, libGraph, libWindows, and the desktop
       program's main file) may know Qt
"""
import pathlib
import re
import sys

FOLDERS = ["platform", "astro", "image", "extraction", "catalog", "matching", "settings", "app",
           "viewer"]
WINDOW_LIBRARIES = {"libGraphics", "libGraph", "libWindows"}
DESKTOP_PROGRAM = "vestrel"


def layer(stem):
    if stem in WINDOW_LIBRARIES or stem == DESKTOP_PROGRAM or re.match(r"f[A-Z]", stem):
        return 3
    if stem.startswith("lib"):
        return 0
    if re.match(r"m[A-Z]", stem):
        return 1
    return 2  # consoles and main programs


def main(root):
    faults = []
    checked = 0
    for folder in FOLDERS:
        for path in sorted((root / folder).glob("*.[hc]*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            checked += 1
            own = layer(path.stem)
            for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
                match = re.match(r'\s*#\s*include\s*([<"])([^>"]+)', line)
                if not match:
                    continue
                name = pathlib.PurePath(match[2])
                if match[1] == "<":
                    if re.match(r"Q[A-Z]", name.name) and own < 3:
                        faults.append(f"{path}:{number}: {name} below the windows")
                elif layer(name.stem) > own:
                    faults.append(f"{path}:{number}: {name} is of a higher layer")
    print("\n".join(faults) or f"{checked} modules keep to their layers")
    return 1 if faults or checked < 20 else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
