#!/usr/bin/env python3
"""Fuzzes one reader after the other for hours and keeps count; fuzz/run --hours starts it.

A finding is made small and kept in build/fuzz/findings; the run goes on after it. What the corpus has
grown by is thinned to what reaches new code, and packed into fuzz/kept, where the next run and the tests
begin. The table in docs/RELIABILITY.md is added to: executions and hours are those of all runs together.
"""
import argparse
import datetime
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILT = ROOT / "build/fuzz"
DOCUMENT = ROOT / "docs/RELIABILITY.md"
MARKS = re.compile(r"(<!-- fuzzing -->\n).*?(<!-- end fuzzing -->)", re.DOTALL)
COLUMNS = ["reader", "CPU hours", "executions", "edges reached", "inputs kept", "findings", "last run"]
FEWEST_SECONDS = 5


def read_table():
    block = MARKS.search(DOCUMENT.read_text(encoding="utf-8"))
    rows = {}
    for line in block[0].splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if len(cells) == len(COLUMNS) and cells[0].startswith("`"):
            rows[cells[0].strip("`")] = cells
    return rows


def write_table(rows):
    lines = ["| " + " | ".join(COLUMNS) + " |", "|---|" + "---:|" * 5 + "---|"]
    lines += ["| " + " | ".join(rows[name]) + " |" for name in sorted(rows)]
    text = DOCUMENT.read_text(encoding="utf-8")
    DOCUMENT.write_text(MARKS.sub(lambda m: m[1] + "\n".join(lines) + "\n" + m[2], text),
                        encoding="utf-8")


class Reader:
    def __init__(self, name):
        self.name = name
        self.program = BUILT / "bin" / f"fuzz-{name}"
        self.corpus = BUILT / "corpus" / name
        self.findings = BUILT / "findings"
        self.log = BUILT / "logs" / f"{name}.log"
        for folder in (self.corpus, self.findings, self.log.parent):
            folder.mkdir(parents=True, exist_ok=True)
        self.kept = ROOT / "fuzz/kept" / f"{name}.tar.xz"
        self.given = [folder for folder in (ROOT / "fuzz/corpus" / name, BUILT / "fuzz/kept" / name,
                                            ROOT / "fuzz/regressions" / name) if folder.is_dir()]
        self.executions = self.edges = self.counters = 0
        self.cpu = 0.0
        self.found = set()

    def run(self, *flags):
        """One run of the program. @return its exit code"""
        with open(self.log, "wb") as log:
            process = subprocess.Popen([self.program, *flags], stdout=log, stderr=log)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
        self.cpu += usage.ru_utime + usage.ru_stime
        text = self.log.read_text(errors="replace")
        self.executions += sum(map(int, re.findall(r"number_of_executed_units: (\d+)", text)))
        self.edges = max([self.edges, *map(int, re.findall(r" cov: (\d+)", text))])
        self.counters = max([0, *map(int, re.findall(r"\((\d+) inline 8-bit counters\)", text))])
        return process.returncode

    def fuzz(self, seconds, by_the_clock):
        dictionary = ROOT / "fuzz" / f"{self.name}.dict"
        flags = ["-timeout=10", "-rss_limit_mb=1024", "-max_len=32768", "-print_final_stats=1",
                 f"-artifact_prefix={self.findings}/{self.name}-"]
        if dictionary.exists():
            flags.append(f"-dict={dictionary}")
        begin = time.monotonic()
        left = lambda: seconds - (time.monotonic() - begin if by_the_clock else self.cpu)
        while left() > FEWEST_SECONDS:
            # In the second half, inputs that come nearer to a value compared with are kept too.
            nearing = left() < seconds / 2
            until = left() if nearing else max(left() - seconds / 2, FEWEST_SECONDS)
            before, start = set(self.findings.iterdir()), time.monotonic()
            code = self.run(*flags, f"-use_value_profile={int(nearing)}",
                            f"-max_total_time={int(until)}", self.corpus, *self.given)
            if code == 0 and time.monotonic() - start > FEWEST_SECONDS / 2:
                continue  # a shared machine gave less than was asked for: the rest
            new = [path for path in set(self.findings.iterdir()) - before
                   if path.name.startswith(self.name + "-")]
            if not new:
                print(f"{self.name} ended with {code}: {self.log}", file=sys.stderr)
                break
            for path in new:
                self.minimise(path)
                self.found.add(path.name)
            if len(self.found) >= 20:
                break

    def minimise(self, path):
        small = path.with_suffix(".small")
        self.run("-minimize_crash=1", "-runs=5000", "-max_total_time=60",
                 f"-exact_artifact_path={small}", path)
        if small.exists() and small.stat().st_size < path.stat().st_size:
            small.replace(path)
        print(f"{self.name}: {path}", flush=True)

    def thin(self):
        """Leaves the inputs that reach what no other does."""
        thinned = self.corpus.with_name(self.name + ".thinned")
        shutil.rmtree(thinned, ignore_errors=True)
        thinned.mkdir()
        if self.run("-merge=1", "-timeout=10", "-rss_limit_mb=1024", thinned, *self.given,
                    self.corpus) == 0 and any(thinned.iterdir()):
            shutil.rmtree(self.corpus)
            thinned.rename(self.corpus)
        shutil.rmtree(thinned, ignore_errors=True)

    def keep(self):
        """Packs the corpus, in the same bytes for the same inputs."""
        self.kept.parent.mkdir(exist_ok=True)
        packing = self.kept.with_suffix(".tmp")
        with tarfile.open(packing, "w:xz", preset=9) as archive:
            for path in sorted(self.corpus.iterdir()):
                entry = tarfile.TarInfo(path.name)
                entry.size = path.stat().st_size
                with open(path, "rb") as content:
                    archive.addfile(entry, content)
        packing.replace(self.kept)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--hours", type=float, required=True, help="of processor time for each")
    parser.add_argument("--clock", action="store_true",
                        help="hours of the clock, for machines with other work")
    parser.add_argument("readers", nargs="*", help="all by default")
    options = parser.parse_args()
    names = options.readers or sorted(p.name for p in (ROOT / "fuzz/corpus").iterdir() if p.is_dir())
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    if memory:
        os.environ["TMPDIR"] = memory
    any_found = False
    for name in names:
        reader = Reader(name)
        start = time.monotonic()
        reader.fuzz(options.hours * 3600, options.clock)
        reader.thin()
        reader.keep()
        rows = read_table()
        before = rows.get(name, ["", "0", "0", "", "", "0", ""])
        rows[name] = [
            f"`{name}`", f"{float(before[1]) + reader.cpu / 3600:.3f}",
            f"{int(before[2].replace(',', '')) + reader.executions:,}",
            f"{reader.edges:,} of {reader.counters:,}", str(len(list(reader.corpus.iterdir()))),
            str(int(before[5]) + len(reader.found)), str(datetime.date.today())]
        write_table(rows)
        any_found |= bool(reader.found)
        print(*rows[name], f"in {time.monotonic() - start:.0f} s", flush=True)
    return any_found


if __name__ == "__main__":
    sys.exit(main())
