#!/usr/bin/env python3
"""Times whole solves, from file to result, as separate processes, for docs/PERFORMANCE.md.

    bench/measureSolves.py BUILD_FOLDER CATALOG_FOLDER

Renders frames of 2, 8, 16 and 32 megapixels, solves each several times with one and with two
threads, and prints the best times per stage and the peak memory; then a spiral of 500 regions on a
frame that matches nowhere.
"""
import json
import os
import pathlib
import subprocess
import sys
import tempfile

RUNS = 7
CENTRE = ["--ra", "84.4", "--dec=-0.8"]
STAGES = ["reading", "background", "extraction", "catalog", "matching", "total"]


def solve(program, frame, catalog, threads, extra):
    environment = dict(os.environ, VESTREL_THREADS=str(threads))
    command = [program, frame, "--catalog", catalog, "--json", *extra]
    if threads == 1:
        command = ["taskset", "-c", "0", *command]
    run = subprocess.run(command, env=environment, capture_output=True, check=False)
    return json.loads(run.stdout)


def best(program, frame, catalog, threads, extra):
    reports = [solve(program, frame, catalog, threads, extra) for _ in range(RUNS)]
    times = {stage: min(r["seconds"][stage] for r in reports) for stage in STAGES}
    return times, max(r["peak_memory_bytes"] for r in reports), reports[0]


def main(build, catalog):
    programs = pathlib.Path(build) / "bin"
    solver = str(programs / "vestrel-solve")
    with tempfile.TemporaryDirectory() as folder:
        print("| frame | threads | " + " | ".join(STAGES) + " | bytes a pixel |")
        print("|---|---|" + "---|" * (len(STAGES) + 1))
        for megapixels, width in ((2, 1633), (8, 3266), (16, 4619), (32, 6532)):
            frame = os.path.join(folder, f"{megapixels}.fit")
            subprocess.run([str(programs / "vestrel-catalog"), "render", "--catalog", catalog,
                            "--ra", "84", "--dec=-1", "--size", "2x1.5d", "--width-px", str(width),
                            "--out", frame], check=True, stdout=subprocess.DEVNULL)
            for threads in (1, 2):
                times, memory, report = best(solver, frame, catalog, threads,
                                             [*CENTRE, "--size", "2x1.5d"])
                assert report["solved"], frame
                pixels = report["width_px"] * report["height_px"]
                print(f"| {megapixels} MP | {threads} | " +
                      " | ".join(f"{times[s] * 1000:.0f} ms" for s in STAGES) +
                      f" | {memory / pixels:.1f} |")
        print("\nA spiral of 500 regions, 16 MP, no match:\n")
        frame = os.path.join(folder, "16.fit")
        times, _, report = best(solver, frame, catalog, 1,
                                ["--ra", "264", "--dec", "1", "--size", "2x1.5d",
                                 "--regions", "500"])
        assert not report["solved"] and report["regions_tried"] == 501
        print(", ".join(f"{s} {times[s] * 1000:.0f} ms" for s in STAGES))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
