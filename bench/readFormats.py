#!/usr/bin/env python3
"""How long the reading of each format takes beside the bare decoding by the format's own library.

usage: bench/readFormats.py BUILD [--write docs/PERFORMANCE.md] [--runs 5] [--only WORD]

Draws a frame of 16 million pixels, writes it in each format, and runs `vestrel-solve --info` and
`vestrel-plain-decoder` on it in turn: processor time of whole processes and what they start, the least
of the runs. Needs python3-astropy, python3-pil and python3-tifffile.
"""
import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

import numpy as np

sys.path.insert(0, str(pathlib.Path(__file__).parent))
import judging  # pylint: disable=wrong-import-position
from pictureFormats import forms  # pylint: disable=wrong-import-position

MARKS = "<!-- measured formats -->", "<!-- end of measured formats -->"
SKIPPED = ("FITS 16",)  # by the program's own reader, which other tables time
MOST, MOST_OF_JPEG = 1.5, 1.3


def frame(width, height):
    """Noise and stars, as photographs have them."""
    random = np.random.default_rng(1)
    counts = random.normal(1500, 40, (height, width))
    for _ in range(2000):
        x, y = random.integers(6, width - 6), random.integers(6, height - 6)
        rows, columns = np.mgrid[-5:6, -5:6]
        counts[y - 5:y + 6, x - 5:x + 6] += random.pareto(1.2) * 300 * np.exp(-(rows**2 + columns**2) / 4)
    return counts.clip(0, 65535)


def seconds(command):
    with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as process:
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"{command} ended with {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--only", default="")
    arguments = parser.parse_args()
    programs = arguments.build / "bin"
    lines = ["| format | library, ms | Vestrel, ms | ratio |", "|---|---|---|---|"]
    slow = []
    with tempfile.TemporaryDirectory(dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None) as folder:
        for name, ending, _, write in forms(frame(4928, 3264), {"RA": 1.0}):
            # A mosaic is four times as large as the picture that it shows.
            if name in SKIPPED or arguments.only not in name or "orientation" in name:
                continue
            path = pathlib.Path(folder) / f"frame.{ending.replace('jpeg', 'jpg').replace('tiff', 'tif')}"
            write(path)
            runs = [(seconds([programs / "vestrel-plain-decoder", path]),
                     seconds([programs / "vestrel-solve", "--info", path]))
                    for _ in range(arguments.runs)]
            path.unlink()
            floor, own = (min(run[i] for run in runs) for i in (0, 1))
            lines.append(f"| {name} | {1000 * floor:.0f} | {1000 * own:.0f} | {own / floor:.2f} |")
            print(lines[-1], flush=True)
            if own / floor > (MOST_OF_JPEG if name.startswith("JPEG") else MOST):
                slow.append(name)
    if arguments.write:
        judging.write_between(MARKS, "\n".join(lines), arguments.write)
    if slow:
        print("Above the bound:", ", ".join(slow))
    return 1 if slow else 0


if __name__ == "__main__":
    sys.exit(main())
