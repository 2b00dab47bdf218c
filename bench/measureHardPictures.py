#!/usr/bin/env python3
"""Solves the pictures of a truth.tsv (bench/hardPictures.py) and counts what came out.

  bench/measureHardPictures.py SOLVER FOLDER [--mode hinted|sized|nothing|away] [--json FILE]
                               [-- SOLVER-OPTION ...]

hinted: the hint's centre and size; sized: its size only; nothing: neither; away: a centre 40
degrees off, where nothing may be solved. A solution is right when its centre lies within 3 pixels
or a hundredth of the picture's width of the truth. --diagonals leaves out what the quad tables do
not cover.
"""
import argparse
import csv
import json
import math
import pathlib
import statistics
import subprocess
import sys
import time
from collections import Counter, defaultdict


def separation(ra1, dec1, ra2, dec2):
    a1, d1, a2, d2 = map(math.radians, (ra1, dec1, ra2, dec2))
    h = (math.sin((d2 - d1) / 2) ** 2
         + math.cos(d1) * math.cos(d2) * math.sin((a2 - a1) / 2) ** 2)
    return math.degrees(2 * math.asin(math.sqrt(min(1, h))))


def inside(row, diagonals):
    pixels = math.hypot(int(row["width_px"]), int(row["height_px"]))
    diagonal = pixels * float(row["scale_arcsec_px"]) / 3600
    return not diagonals or diagonals[0] <= diagonal <= diagonals[1]


def solve(options, row):
    command = [options.solver, str(options.folder / row["file"]), "--json", "--quiet"]
    size = f"{row['hint_width_arcmin']}x{row['hint_height_arcmin']}"
    if options.mode != "nothing":
        command += ["--size", size]
    if options.mode in ("hinted", "away"):
        dec = float(row["hint_dec_deg"])
        if options.mode == "away":
            dec += -40 if dec > 0 else 40
        command += [f"--ra={row['hint_ra_deg']}", f"--dec={dec}", "--regions=9"]
    if options.mode in ("sized", "nothing") and options.blind_flag:
        command.append("--blind")
    start = time.monotonic()
    run = subprocess.run(command + options.more, stdout=subprocess.PIPE, check=False,
                         stderr=subprocess.DEVNULL)
    seconds = time.monotonic() - start
    try:
        result = json.loads(run.stdout)
    except ValueError:
        result = {"solved": False, "crash": run.returncode}
    return result, seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("solver")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--mode", default="hinted",
                        choices=("hinted", "sized", "nothing", "away"))
    parser.add_argument("--blind-flag", action="store_true", help="say --blind as well")
    parser.add_argument("--only", default="", help="part of the file names")
    parser.add_argument("--diagonals", nargs=2, type=float, metavar=("FROM", "TO"), help="degrees")
    parser.add_argument("--json", type=pathlib.Path)
    before = sys.argv.index("--") if "--" in sys.argv else len(sys.argv)
    options = parser.parse_args(sys.argv[1:before])
    options.more = sys.argv[before + 1:]
    with open(options.folder / "truth.tsv", encoding="utf-8") as file:
        rows = [row for row in csv.DictReader(file, delimiter="\t")
                if options.only in row["file"] and inside(row, options.diagonals)]
    kinds, by_attempt = defaultdict(Counter), Counter()
    errors, times, facts = [], [], []
    for row in rows:
        result, seconds = solve(options, row)
        times.append(seconds)
        verdict = "not"
        if "crash" in result:
            verdict = "crash"
        if result["solved"]:
            scale = float(row["scale_arcsec_px"])
            error = 3600 / scale * separation(result["ra_deg"], result["dec_deg"],
                                              float(row["ra_deg"]), float(row["dec_deg"]))
            verdict = "right" if error < max(3, int(row["width_px"]) / 100) else "wrong"
            if verdict == "right":
                errors.append(error)
                by_attempt[result.get("solved_by", "the search")] += 1
        kinds[row["kind"]][verdict] += 1
        facts.append({**row, "verdict": verdict, "seconds": seconds, "result": result})
        if verdict != "right":
            print(f"  {verdict:6} {row['file']:32} {seconds:5.1f} s", flush=True)
    total = sum(kinds.values(), Counter())
    for kind, counts in kinds.items():
        print(f"{kind:16} {counts['right']:3} of {sum(counts.values())}"
              f"{'   WRONG ' + str(counts['wrong']) if counts['wrong'] else ''}")
    print(f"right {total['right']}, wrong {total['wrong']}, not {total['not']}, crash "
          f"{total['crash']} of {len(rows)}; "
          f"seconds median {statistics.median(times):.2f}, most {max(times):.2f}")
    if errors:
        errors.sort()
        print(f"error px: median {statistics.median(errors):.2f}, 95 % "
              f"{errors[int(0.95 * len(errors))]:.2f}")
    for name, count in by_attempt.most_common():
        print(f"  {count:3} by {name}")
    if options.json:
        options.json.write_text(json.dumps(facts, indent=1))


if __name__ == "__main__":
    main()
