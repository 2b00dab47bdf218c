#!/usr/bin/env python3
"""Index files of one survey in series of different depth: which stars of the deepest one do the others have?

  bench/indexSeries.py --programs build/release/bin FILE...

FILE is the deepest series first, as Debian's index-tycho2-07 to -19. A catalog is built from each alone and from
all together. A star that is as bright as one of the first series and within an arcsecond of it, but not the same bytes,
would be there twice in the catalog from all. Exit code: 0 when there is none, and that from all has every star of the
first; else 1.
"""
import argparse
import collections
import math
import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

REACH = math.radians(1 / 3600)


def build(tool, folder, files):
    """The stars (ra, dec, hundredths of a magnitude) of a catalog."""
    indexes = [f"--index={file}" for file in files]
    subprocess.run([tool, "build", f"--catalog={folder}", "--epoch=2000", *indexes], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return [star for file in folder.iterdir() if re.fullmatch(r"[NS]\d\dR\d\d", file.name)
            for star in struct.iter_unpack("<ffh", file.read_bytes())]


def vector(star):
    ra, dec, _ = star
    return math.cos(dec) * math.cos(ra), math.cos(dec) * math.sin(ra), math.sin(dec)


def boxes(stars):
    found = collections.defaultdict(list)
    for star in stars:
        found[tuple(math.floor(value / REACH) for value in vector(star))].append(star)
    return found


def near(star, grid):
    """The stars of a grid within an arcsecond that are as bright."""
    at = vector(star)
    x, y, z = (math.floor(value / REACH) for value in at)
    return [other for i in (-1, 0, 1) for j in (-1, 0, 1) for k in (-1, 0, 1)
            for other in grid.get((x + i, y + j, z + k), ())
            if other[2] == star[2] and math.dist(at, vector(other)) < REACH]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--programs", type=pathlib.Path, required=True)
    parser.add_argument("files", type=pathlib.Path, nargs="+")
    options = parser.parse_args()
    tool = options.programs / "vestrel-catalog"
    memory = pathlib.Path("/dev/shm")  # each catalog has 4,502 files, which a disk writes slowly
    good = True
    with tempfile.TemporaryDirectory(dir=memory if os.access(memory, os.W_OK) else None) as name:
        deepest = build(tool, pathlib.Path(name) / "KEL", options.files[:1])
        known, grid = set(deepest), boxes(deepest)
        print("   stars   of the first: the same bytes, another place   not in it   faintest")
        for files in [[file] for file in options.files] + [options.files]:
            stars = build(tool, pathlib.Path(name) / "KEL", files)
            same = sum(star in known for star in stars)
            others = [near(star, grid) for star in stars if star not in known]
            print(f"{len(stars):8} {same:8} {sum(map(bool, others)):8} {others.count([]):8} "
                  f"{max(star[2] for star in stars) / 100:8}   {files[0].name if len(files) == 1 else 'all'}", flush=True)
            good = good and not any(others)
        good = good and same == len(deepest)
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
