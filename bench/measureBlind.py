#!/usr/bin/env python3
"""Times searches of the whole sky as separate processes, with nothing given but the picture, and
writes their table into docs/PERFORMANCE.md.

    bench/measureBlind.py SOLVER CATALOG_FOLDER PICTURES.tsv [--failing PICTURES.tsv] [--runs 5]
                          [--write docs/PERFORMANCE.md]

Warm: the tables are in the system's cache; pictures are solved in turn. Cold: the files of the
catalog are dropped from it before each run, the picture and the program are not. "Of the tables"
is what one run reads of them (by strace, when it is installed). --failing: pictures that cannot be solved (of
bench/notSky.py, say); their rows are the median and the most of all.
"""
import argparse
import csv
import os
import pathlib
import shutil
import statistics
import subprocess
import tempfile

import judging

MARKS = ("<!-- measured blind -->", "<!-- end of measured blind -->")


def drop_from_cache(folder):
    for entry in os.scandir(folder):
        if not entry.is_file():
            continue
        file = os.open(entry.path, os.O_RDONLY)
        os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(file)


def megabytes_read(command, path):
    """How much of a file a command reads, as the system's calls tell; none without strace."""
    if not shutil.which("strace"):
        return None
    with tempfile.NamedTemporaryFile("r") as log:
        subprocess.run(["strace", "-f", "-qq", "-P", path, "-e", "trace=pread64", "-o", log.name,
                        *command], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       check=False)
        read = (line.rpartition("= ")[2].split(" ")[0] for line in log if "pread64" in line)
        return sum(int(count) for count in read if count.strip().isdigit()) / 1e6


def ms(values):
    return f"{min(values) * 1000:.0f} / {statistics.median(values) * 1000:.0f}"


class Bench:
    def __init__(self, arguments):
        self.solver, self.catalog = arguments.solver, arguments.catalog
        self.runs = arguments.runs

    def solve(self, picture):
        return judging.solved(self.solver, picture, "--blind", "--catalog", self.catalog)

    def solve_cold(self, picture):
        drop_from_cache(self.catalog)
        return self.solve(picture)

    def read(self, picture):
        return megabytes_read([self.solver, picture, "--json", "--quiet", "--blind", "--catalog",
                               self.catalog], self.catalog / "quads.tables")

    def measure(self, pictures, runs):
        """The warm and the cold runs of each picture."""
        for picture in pictures:
            self.solve(picture)
        warm = {picture: [] for picture in pictures}
        for _ in range(runs):
            for picture in pictures:
                warm[picture].append(self.solve(picture))
        cold = {picture: [self.solve_cold(picture) for _ in range(runs)] for picture in pictures}
        return warm, cold


def times(results, field="elapsed_s"):
    return [result[field] for result in results]


def solved_rows(bench, pictures):
    warm, cold = bench.measure(pictures, bench.runs)
    for picture in pictures:
        first = warm[picture][0]
        touched = bench.read(picture)
        yield (f"| {picture.name} | {first.get('solved_by', '–')} | "
               f"{ms(times(warm[picture], 'processor_s'))} | {ms(times(warm[picture]))} | "
               f"{ms(times(cold[picture]))} | {'–' if touched is None else f'{touched:.1f}'} |")


def failing_row(bench, pictures):
    warm, cold = bench.measure(pictures, 1)
    unsolved = [p for p in pictures if not warm[p][0]["solved"] and not warm[p][0].get("crash")]

    def both(runs, field="elapsed_s"):
        values = [runs[picture][0][field] for picture in unsolved]
        return f"{statistics.median(values) * 1000:.0f}, {max(values) * 1000:.0f}"
    touched = [mb for mb in map(bench.read, unsolved) if mb is not None]
    mb = f"{statistics.median(touched):.0f}, {max(touched):.0f}" if touched else "–"
    return (f"| {len(unsolved)} of {len(pictures)} that show no sky: median, most | – | "
            f"{both(warm, 'processor_s')} | {both(warm)} | {both(cold)} | {mb} |")


def files_of(table):
    with open(table, encoding="utf-8") as file:
        names = [row["file"] for row in csv.DictReader(file, delimiter="\t")]
    return [table.parent / name for name in dict.fromkeys(names)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("solver")
    parser.add_argument("catalog", type=pathlib.Path)
    parser.add_argument("pictures", type=pathlib.Path)
    parser.add_argument("--failing", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--write", type=pathlib.Path)
    arguments = parser.parse_args()
    bench = Bench(arguments)
    load = os.getloadavg()[0]
    lines = [f"{len(os.sched_getaffinity(0))} processors, load {load:.1f} at the start; minimum / "
             f"median of {arguments.runs} runs.\n",
             "| picture | solved by | processor, ms | warm, ms | cold, ms | of the tables, MB |",
             "|---|---|--:|--:|--:|--:|", *solved_rows(bench, files_of(arguments.pictures))]
    if arguments.failing:
        lines.append(failing_row(bench, files_of(arguments.failing)))
    text = "\n".join(lines)
    print(text)
    if arguments.write:
        judging.write_between(MARKS, text, arguments.write)


if __name__ == "__main__":
    main()
