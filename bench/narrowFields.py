#!/usr/bin/env python3
"""Narrow fields from a deep catalog that is made here: rendered, solved with and without a centre.

  bench/narrowFields.py --programs build/release/bin [--frames 80] [--widths 0.1 0.2] [--ways blind]

The catalog has 3,000 stars per square degree (mean of the sky) to magnitude 18 in a part of the sky
around the galactic latitude 15 degrees. Blind solves need a diagonal of 0.2 degrees at least, where the quad
tables begin. Exit code: 0 when at least 98 % are solved and none wrongly; else 1.
"""
import argparse
import math
import pathlib
import random
import subprocess
import sys
import tempfile

import judging

CENTRE = (100.0, 20.0)  # degrees
WIDTHS = (0.1, 0.2, 0.35, 0.5, 0.75)  # degrees
WAYS = ("hinted", "blind")
ASPECT = 4 / 3
SMALLEST_DIAGONAL = 0.2  # of the quad tables


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--programs", type=pathlib.Path, required=True)
    parser.add_argument("--frames", type=int, default=80, help="of each width")
    parser.add_argument("--widths", type=float, nargs="+", choices=WIDTHS, default=WIDTHS,
                        help="only these; their frames are the same as in a run of all")
    parser.add_argument("--ways", nargs="+", choices=WAYS, default=WAYS)
    options = parser.parse_args()
    tool = options.programs / "vestrel-catalog"
    rng = random.Random(3)
    good = True
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        catalog = f"--catalog={folder / 'KEL'}"
        run = lambda *arguments: subprocess.run([tool, *arguments], check=True,
                                                stdout=subprocess.DEVNULL,
                                                stderr=subprocess.DEVNULL)
        run("synthesize", catalog, "--density=3000", f"--ra={CENTRE[0]}", f"--dec={CENTRE[1]}",
            "--radius=3")
        run("quads", catalog, "--from=0.2", "--to=1.25")
        print("width   hinted: solved wrong   blind: solved wrong   of")
        for width in WIDTHS:
            blind = math.hypot(width, width / ASPECT) >= SMALLEST_DIAGONAL
            ways = [way for way, name in enumerate(WAYS)
                    if name in options.ways and (name != "blind" or blind)]
            counts = [0, 0, 0, 0]
            for number in range(options.frames):
                ra = CENTRE[0] + rng.uniform(-1.5, 1.5)
                dec = CENTRE[1] + rng.uniform(-1.5, 1.5)
                rotation = rng.uniform(0, 360)
                hint = (ra + rng.uniform(-0.25, 0.25) * width,
                        dec + rng.uniform(-0.25, 0.25) * width)
                if width not in options.widths:
                    continue
                frame = folder / "frame.fit"
                run("render", catalog, f"--ra={ra:.7f}", f"--dec={dec:.7f}",
                    f"--size={width}x{width / ASPECT}d", "--width-px=1200",
                    f"--rotation={rotation:.3f}", "--seeing=3", f"--seed={number}",
                    f"--out={frame}")
                for way in ways:
                    arguments = ["--blind"] if way else [f"--ra={hint[0]:.6f}",
                                                         f"--dec={hint[1]:.6f}", "--regions=25"]
                    found = judging.solved(options.programs / "vestrel-solve", frame, catalog,
                                           f"--size={width}x{width / ASPECT}d", *arguments)
                    if not found["solved"]:
                        continue
                    off = judging.separation(found["ra_deg"], found["dec_deg"], ra, dec)
                    counts[2 * way + (0 if off < 0.005 * width else 1)] += 1
            if width not in options.widths:
                continue
            print(f"{width:5}   {counts[0]:14} {counts[1]:5}   {counts[2]:13} {counts[3]:5}   "
                  f"{options.frames}{'' if blind else ' (blind: below the tables)'}", flush=True)
            for way in ways:
                good &= counts[2 * way] >= 0.98 * options.frames and counts[2 * way + 1] == 0
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
