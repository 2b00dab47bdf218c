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
import sys
from collections import Counter, defaultdict

import judging


def inside(row, diagonals):
    pixels = math.hypot(int(row["width_px"]), int(row["height_px"]))
    diagonal = pixels * float(row["scale_arcsec_px"]) / 3600
    return not diagonals or diagonals[0] <= diagonal <= diagonals[1]


def solve(options, row):
    arguments = []
    if options.mode != "nothing":
        arguments += ["--size", f"{row['hint_width_arcmin']}x{row['hint_height_arcmin']}"]
    if options.mode in ("hinted", "away"):
        dec = float(row["hint_dec_deg"])
        if options.mode == "away":
            dec += -40 if dec > 0 else 40
        arguments += [f"--ra={row['hint_ra_deg']}", f"--dec={dec}", "--regions=9"]
    if options.mode in ("sized", "nothing") and options.blind_flag:
        arguments.append("--blind")
    return judging.solved(options.solver, options.folder / row["file"], *arguments, *options.more)


def print_times(name, facts):
    """Of the processor, which a busy machine changes less than those of a clock."""
    times = [fact["result"]["processor_s"] for fact in facts]
    if times:
        print(f"{name}: processor seconds median {statistics.median(times):.2f}, most "
              f"{max(times):.2f}; elapsed median "
              f"{statistics.median(fact['result']['elapsed_s'] for fact in facts):.2f}")


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
    errors, facts = [], []
    for row in rows:
        result = solve(options, row)
        verdict = "crash" if "crash" in result else "not"
        if result["solved"]:
            error = judging.pixels_off(result, row)
            verdict = "right" if error < max(3, int(row["width_px"]) / 100) else "wrong"
            if verdict == "right":
                errors.append(error)
                by_attempt[result.get("solved_by", "the search")] += 1
        kinds[row["kind"]][verdict] += 1
        facts.append({**row, "verdict": verdict, "result": result})
        if verdict != "right":
            print(f"  {verdict:6} {row['file']:32} {result['processor_s']:5.1f} s", flush=True)
    total = sum(kinds.values(), Counter())
    for kind, counts in kinds.items():
        print(f"{kind:16} {counts['right']:3} of {sum(counts.values())}"
              f"{'   WRONG ' + str(counts['wrong']) if counts['wrong'] else ''}")
    print(f"right {total['right']}, wrong {total['wrong']}, not {total['not']}, crash "
          f"{total['crash']} of {len(rows)}")
    print_times("solved", [fact for fact in facts if fact["verdict"] == "right"])
    print_times("not solved", [fact for fact in facts if fact["verdict"] != "right"])
    print_times("all", facts)
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
