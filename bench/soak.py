#!/usr/bin/env python3
"""Solves an image thousands of times, in one process and as processes.

  bench/soak.py --programs build/release/bin [--solves 2000] [--short]

Exit code 1 when a solve fails, or memory or open descriptors grow.
"""
import argparse
import json
import pathlib
import statistics
import sys
import tempfile
import time

from reliability import Sky, write_table


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--solves", type=int, default=2000)
    parser.add_argument("--short", action="store_true")
    options = parser.parse_args()
    solves = 40 if options.short else options.solves
    with tempfile.TemporaryDirectory(prefix="vestrel-soak-") as folder:
        sky = Sky(options.programs, pathlib.Path(folder) / "sky")
        start = time.monotonic()
        inside = sky.run("vestrel-probe", "soak", solves, f"{sky.angles},1,{sky.image}")
        seconds = time.monotonic() - start
        inside.check_returncode()
        # resident bytes and descriptors after each twentieth
        points = [tuple(map(int, line.split())) for line in inside.stdout.splitlines()]
        settled = points[len(points) // 5:]
        growth = (settled[-1][0] - settled[0][0]) / 1024
        descriptors = sorted({point[1] for point in points})
        rows = [["one process", solves, f"{seconds:.0f} s",
                 f"{points[0][0] / 1048576:.1f} MB, then {settled[0][0] / 1048576:.1f} to "
                 f"{settled[-1][0] / 1048576:.1f}", " or ".join(map(str, descriptors))]]
        start = time.monotonic()
        peaks = []
        for _ in range(4 if options.short else solves):
            end = sky.run("vestrel-solve", sky.image, *sky.search, "--json")
            end.check_returncode()
            peaks.append(json.loads(end.stdout)["peak_memory_bytes"] / 1048576)
        rows.append(["a process each", len(peaks), f"{time.monotonic() - start:.0f} s",
                     f"peak {min(peaks):.1f} to {max(peaks):.1f} MB, median "
                     f"{statistics.median(peaks):.1f}", "-"])
    for row in rows:
        print(*row)
    if not options.short:
        write_table("soak", ["how", "solves", "time", "memory", "descriptors open"], rows,
                    f"resident memory of the one process changed by {growth:.0f} KB over the last "
                    "four fifths.")
    # The memory that the allocator keeps may differ by some pages between solves.
    return growth > 2048 or len(descriptors) != 1


if __name__ == "__main__":
    sys.exit(main())
