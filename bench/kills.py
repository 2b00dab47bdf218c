#!/usr/bin/env python3
"""Kills every operation that writes at random moments and looks at what is left.

  bench/kills.py --programs build/release/bin [--kills 250] [--short]

A file must be as it was or as it is to be, a catalog must verify, and the next whole run must leave
nothing behind. --short does a few and writes no table. --wine names what starts programs for Windows; their numbers have
a table of their own. Exit code 1 when anything was lost.
"""
import argparse
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time

from reliability import OLD, Sky, write_table


def writing(sky, out):
    """Each operation: its command, and the files that it writes."""
    image = out / "a.fit"
    image.write_bytes(sky.image.read_bytes())
    files = {"export": [out / "x.fits"], "save": [out / "s.fit"], "wcs": [out / "a.wcs"],
             "result": [out / "a.kel"]}
    solve = ["vestrel-solve", image, *sky.search]
    return {
        "--export": (sky.command(*solve, "--export", files["export"][0]), files["export"]),
        "--save": (sky.command(*solve, "--save", files["save"][0]), files["save"]),
        "--wcs": (sky.command(*solve, "--wcs"), files["wcs"]),
        "result file": (sky.command("vestrel-solve", f"{sky.angles},1,{image}"), files["result"]),
        "picture drawn": (sky.command("vestrel-catalog", "render", "--ra", 10.5, "--dec", 5.7,
                                      "--size", "60x45", "--width-px", 600, "--out",
                                      out / "d.fit"), [out / "d.fit"]),
        "catalog built": (sky.command("vestrel-catalog", "build", "--csv", sky.table, "--catalog",
                                      out / "KEL"), out / "KEL"),
    }


def run(command, sky, seconds=None):
    process = subprocess.Popen(command, env=sky.environment, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    if seconds is not None:
        time.sleep(seconds)
        process.send_signal(signal.SIGKILL)
    return process.wait(timeout=300)


def leftovers(out):
    return [p for p in out.iterdir() if p.name.endswith(".tmp") or ".building-" in p.name or
            ".replaced-" in p.name]


def bench(name, command, files, sky, out, kills, numbers):
    catalog = isinstance(files, pathlib.Path)
    start = time.monotonic()
    assert run(command, sky) == 0, name
    whole = time.monotonic() - start
    new = {} if catalog else {path: path.read_bytes() for path in files}
    hit = lost = left = 0
    for _ in range(kills):
        for path in new:
            path.write_bytes(OLD)
        hit += run(command, sky, numbers.uniform(0, 1.1 * whole)) == -signal.SIGKILL
        left += len(leftovers(out))
        for path, bytes_ in new.items():
            there = path.read_bytes() if path.exists() else None
            # An old result file is removed first, so that it is not taken for that of the run.
            lost += there not in (OLD, bytes_, *([None] if path.suffix == ".kel" else []))
        if catalog:
            lost += sky.run("vestrel-catalog", "verify", "--catalog", files).returncode != 0
    assert run(command, sky) == 0, name
    kept = len(leftovers(out))
    return [name, f"{whole * 1000:.0f} ms", kills, hit, left, lost, kept]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--kills", type=int, default=250, help="of each operation")
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--wine")
    options = parser.parse_args()
    seed = random.randrange(1 << 32)
    print("seed", seed)
    numbers = random.Random(seed)
    rows = []
    with tempfile.TemporaryDirectory(prefix="vestrel-kills-") as folder:
        sky = Sky(options.programs, pathlib.Path(folder) / "sky", options.wine)
        out = pathlib.Path(folder) / "out"
        out.mkdir()
        for name, (command, files) in writing(sky, out).items():
            rows.append(bench(name, command, files, sky, out, 4 if options.short else options.kills,
                              numbers))
            print(*rows[-1], flush=True)
    if not options.short:
        write_table("kills under Wine" if options.wine else "kills", ["operation", "whole run", "runs", "killed", "temporaries left",
                              "files or catalogs lost", "temporaries after the next run"], rows,
                    f"{sum(row[3] for row in rows)} kills, seed {seed}.")
    return any(row[5] or row[6] for row in rows)


if __name__ == "__main__":
    sys.exit(main())
