#!/usr/bin/env python3
"""Checks what each module includes against two tables: layers and folders.

Layers, by the prefix of a module's name:
lib*   pure libraries: the standard library, other lib* and third-party decoders
m*     the program's logic: lib* and other m*
others consoles and main programs
f*     windows; only they (with libDraggedLayer, libGraphics, libGraph, libWindows, and the programs that show
       windows) may know Qt

Folders: FOLDERS says which other folders each one may include. Their graph must have no cycle.

usage: checkLayers.py ROOT [--draw]     --draw prints the graph for Graphviz
"""
import pathlib
import re
import subprocess
import sys

FOLDERS = {
    "platform": "",
    "astro": "platform",
    "telescope": "platform",
    "image": "platform astro",
    "extraction": "astro image",
    "catalog": "platform astro",
    "matching": "platform astro catalog",
    "settings": "astro",
    "photometry": "astro image",
    "display": "platform astro image photometry",
    "program": "platform astro telescope image extraction catalog matching settings photometry display",
    "solver": "platform astro image program",
    "compat": "platform astro image solver",
    "server": "platform astro image solver compat",
    "console": "platform astro image program",
    "batch": "platform astro image catalog solver",
    "python": "solver",
    "desktop": "platform astro telescope image photometry display program console",
    "tools": "astro image catalog",
    "catalogtool": "platform astro image catalog matching tools",
}
USERS = {"tests", "bench", "fuzz", "docs"}  # may include every folder; none may include them
WINDOW_LIBRARIES = {"libDraggedLayer", "libGraphics", "libGraph", "libWindows"}
WINDOW_PROGRAMS = {"vestrel", "makeScreenshots"}


def layer(stem):
    if stem in WINDOW_LIBRARIES | WINDOW_PROGRAMS or re.match(r"f[A-Z]", stem):
        return 3
    if stem.startswith("lib"):
        return 0
    if re.match(r"m[A-Z]", stem):
        return 1
    return 2


def cycle(edges):
    """The folders of a cycle, in order; nothing when there is none."""
    done = set()

    def visit(folder, path):
        if folder in path:
            return path[path.index(folder):] + [folder]
        if folder in done:
            return []
        for other in sorted(edges.get(folder, ())):
            found = visit(other, path + [folder])
            if found:
                return found
        done.add(folder)
        return []

    for folder in sorted(edges):
        found = visit(folder, [])
        if found:
            return found
    return []


def source_files(root):
    names = subprocess.run(["git", "-C", root, "ls-files", "-co", "--exclude-standard"],
                           capture_output=True, text=True).stdout.split()
    if not names:  # an unpacked archive
        names = [str(path.relative_to(root)) for path in pathlib.Path(root).glob("*/*.[hc]*")]
    return sorted(name for name in names if name.endswith((".h", ".cpp")) and
                  (pathlib.Path(root) / name).is_file() and not name.startswith("build"))


def main(root, draw):
    faults = []
    edges = {folder: set() for folder in FOLDERS}
    files = source_files(root)
    for name in files:
        path = pathlib.PurePath(name)
        folder = path.parts[0]
        if folder in USERS:
            continue
        if folder not in FOLDERS or len(path.parts) != 2:
            faults.append(f"{name}: not in a folder of the table")
            continue
        own = layer(path.stem)
        text = (pathlib.Path(root) / name).read_text(encoding="utf-8")
        for number, line in enumerate(text.splitlines(), 1):
            match = re.match(r'\s*#\s*include\s*([<"])([^>"]+)', line)
            if not match:
                continue
            place = f"{name}:{number}: {match[2]}"
            included = pathlib.PurePath(match[2])
            if match[1] == "<":
                if re.match(r"Q[A-Z]", included.name) and own < 3:
                    faults.append(f"{place} below the windows")
                continue
            if len(included.parts) != 2:
                faults.append(f"{place} lacks its folder")
                continue
            if layer(included.stem) > own:
                faults.append(f"{place} is of a higher layer")
            if included.parts[0] != folder:
                edges[folder].add(included.parts[0])
                if included.parts[0] not in FOLDERS[folder].split():
                    faults.append(f"{place} is not for {folder}/")
    for folder, allowed in FOLDERS.items():
        for other in sorted(set(allowed.split()) - edges[folder]):
            faults.append(f"the table lets {folder}/ use {other}/, which it does not")
    for graph in (edges, {folder: set(allowed.split()) for folder, allowed in FOLDERS.items()}):
        found = cycle(graph)
        if found:
            faults.append("a cycle of folders: " + " -> ".join(found))
    if draw:
        print("digraph folders {")
        for folder in edges:
            print(f"  {folder}")
            for other in sorted(edges[folder]):
                print(f"  {folder} -> {other}")
        print("}")
    else:
        print("\n".join(faults) or f"{len(files)} files keep to their layers and folders")
    return 1 if faults or len(files) < 100 else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], "--draw" in sys.argv))
