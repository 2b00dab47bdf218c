#!/usr/bin/env python3
"""A star database in ASTAP's format from a sky that is made here: astap_cli and Vestrel see the same stars.

  bench/astapDatabase.py --programs build/release/bin [--frames 12]

The database is written by this script, not by the code under test. Debian's astap_cli solves rendered frames
with it, and `vestrel-catalog build --astap` must give back every star. Exit code: 0 when all is so; else 1.
"""
import argparse
import collections
import math
import os
import pathlib
import random
import struct
import subprocess
import sys
import tempfile

CENTRE = (100.0, 20.0)  # degrees
HALF = [1, 3, 9, 15, 21, 27, 33, 38, 43, 48, 52, 56, 60, 63, 65, 67, 68, 69]
CELLS = HALF + HALF[::-1]  # in the 36 rings from the south pole on, the polar ones half as high
RING = 36 / 7  # degrees


def stars_of(catalog):
    """Magnitude in hundredths, right ascension and declination in degrees, of every star."""
    for path in sorted(catalog.glob("[NS]*")):
        for ra, dec, mag in struct.iter_unpack("<ffh", path.read_bytes()):
            yield mag, math.degrees(ra), math.degrees(dec)


def write_database(folder, stars):
    cells = collections.defaultdict(list)
    for star in stars:
        ring = 0 if star[2] < RING / 2 - 90 else min(35, 1 + int((star[2] + 90 - RING / 2) / RING))
        cells[ring, int(star[1] / 360 * CELLS[ring])].append(star)
    for ring, count in enumerate(CELLS):
        for cell in range(count):
            data = bytearray(b"made for a test".ljust(109) + bytes([5]))
            last = None
            for mag, ra, dec in sorted(cells[ring, cell]):
                packed = round(dec / 90 * (128 * 256 * 256 - 1))
                head = packed >> 16, round(mag / 10) + 16
                if head != last:
                    data += b"\xff\xff\xff" + bytes([head[0] + 128, head[1]])
                    last = head
                data += struct.pack("<I", round(ra / 360 * (2 ** 24 - 1)))[:3] + struct.pack("<I", packed & 0xFFFF)[:2]
            # The name of the database is one that the program of Debian 12 looks for.
            (folder / f"h18_{ring + 1:02}{cell + 1:02}.1476").write_bytes(data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--programs", type=pathlib.Path, required=True)
    parser.add_argument("--frames", type=int, default=12)
    parser.add_argument("--short", action="store_true", help="a fifth of the stars, one frame")
    options = parser.parse_args()
    if options.short:
        options.frames = 1
    tool = options.programs / "vestrel-catalog"
    rng = random.Random(5)
    quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    # Each catalog has 4,502 files, which a disk writes slowly.
    memory = pathlib.Path("/dev/shm")
    with tempfile.TemporaryDirectory(dir=memory if os.access(memory, os.W_OK) else None) as name:
        folder = pathlib.Path(name)
        subprocess.run([tool, "synthesize", f"--catalog={folder / 'sky'}", f"--density={600 if options.short else 3000}", f"--ra={CENTRE[0]}",
                        f"--dec={CENTRE[1]}", "--radius=3"], check=True, **quiet)
        stars = list(stars_of(folder / "sky"))
        (folder / "astap").mkdir()
        write_database(folder / "astap", stars)

        subprocess.run([tool, "build", f"--catalog={folder / 'back'}", f"--astap={folder / 'astap'}"], check=True,
                       **quiet)
        grid = collections.defaultdict(list)
        for mag, ra, dec in stars_of(folder / "back"):
            grid[round(ra * 1000), round(dec * 1000)].append((mag, ra, dec))
        same = 0
        for mag, ra, dec in stars:
            near = [other for i in (-1, 0, 1) for j in (-1, 0, 1)
                    for other in grid[round(ra * 1000) + i, round(dec * 1000) + j]]
            same += any(abs(m - mag) <= 6 and math.hypot((r - ra) * math.cos(math.radians(dec)), d - dec) < 0.15 / 3600
                        for m, r, d in near)
        print(f"{same} of {len(stars)} stars come back")

        solved = 0
        for number in range(options.frames):
            ra, dec = CENTRE[0] + rng.uniform(-1.5, 1.5), CENTRE[1] + rng.uniform(-1.5, 1.5)
            frame = folder / "frame.fit"
            subprocess.run([tool, "render", f"--catalog={folder / 'sky'}", f"--ra={ra:.7f}", f"--dec={dec:.7f}",
                            "--size=0.5x0.375d", "--width-px=1200", "--seeing=3", f"--seed={number}",
                            f"--out={frame}"], check=True, **quiet)
            subprocess.run(["astap_cli", "-f", frame, "-fov", "0.375", "-ra", f"{ra / 15:.6f}", "-spd",
                            f"{dec + 90:.5f}", "-r", "2", "-d", f"{folder / 'astap'}/", "-o", folder / "result"],
                           check=False, **quiet)
            found = dict(line.strip().split("=", 1) for line in (folder / "result.ini").read_text().splitlines()
                         if "=" in line)
            if found.get("PLTSOLVD") == "T":
                off = math.hypot((float(found["CRVAL1"]) - ra) * math.cos(math.radians(dec)),
                                 float(found["CRVAL2"]) - dec) * 3600
                solved += off < 2
        print(f"{solved} of {options.frames} frames solved by astap_cli with the database")
    return 0 if same == len(stars) and solved == options.frames else 1


if __name__ == "__main__":
    sys.exit(main())
