#!/usr/bin/env python3
"""Times whole solves as separate processes and writes the tables of docs/PERFORMANCE.md.

    bench/measureSolves.py BUILD_FOLDER CATALOG_FOLDER [--runs N] [--write docs/PERFORMANCE.md]
                           [--indexes FOLDER] [--pictures FOLDER] [--before BUILD_FOLDER]

Draws the frames, then runs for each row the program, the plain reader of the same pixels (the
floor), an older build (--before) and, where they are installed, solve-field (with the index files
of --indexes) and source-extractor, in turn: so all of a row see the machine in the same state.
Takes a few minutes. --pictures: a folder of pictures with a truth.tsv (file, hints, field), which
solve-field tries too. --write puts the tables between the marks in the document.
"""
import argparse
import csv
import json
import math
import os
import pathlib
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numpy

import judging

FIELD = ["--size", "2x1.5d"]
NEAR = ["--ra", "84.4", "--dec=-0.8", *FIELD]
MARKS = ("<!-- measured -->", "<!-- end of measured -->")
DEADLINE = 270  # seconds after which optional runs are left out


class Run:
    """One run of a command: wall and processor seconds, exit code."""

    def __init__(self, command, threads=1, folder=None):
        environment = dict(os.environ, VESTREL_THREADS=str(threads), OMP_NUM_THREADS=str(threads))
        if threads == 1 and shutil.which("taskset"):
            command = ["taskset", "-c", str(min(os.sched_getaffinity(0))), *command]
        start = time.perf_counter()
        child = subprocess.Popen(command, env=environment, cwd=folder, stdin=subprocess.DEVNULL,
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        _, status, usage = os.wait4(child.pid, 0)
        self.wall = time.perf_counter() - start
        self.cpu = usage.ru_utime + usage.ru_stime
        self.code = child.returncode = os.waitstatus_to_exitcode(status)


def interleaved(commands, runs, threads, folder=None):
    """The runs of each command, in turn; the first round is not counted."""
    counted = {name: [] for name in commands}
    for i in range(runs + 1):
        for name, command in commands.items():
            run = Run(command, threads, folder)
            if i > 0:
                counted[name].append(run)
    return counted


def ms(seconds):
    return f"{seconds * 1000:.0f}" if seconds >= 0.0995 else f"{seconds * 1000:.1f}"


def least_and_median(runs, field="wall"):
    values = [getattr(run, field) for run in runs]
    return f"{ms(min(values))} / {ms(statistics.median(values))}"


def peak_bytes(command, threads):
    """What the program says of itself; with a shell between, as the system counts this script's
    own memory into that of its children."""
    environment = dict(os.environ, VESTREL_THREADS=str(threads))
    run = subprocess.run(["sh", "-c", '"$@"; exit $?', "sh", *command, "--json"], env=environment,
                         capture_output=True, text=True, check=False)
    return json.loads(run.stdout)["peak_memory_bytes"]


def ratio(runs, others):
    return statistics.median(a.wall / b.wall for a, b in zip(runs, others))


# ---- frames ------------------------------------------------------------------------------------

def render(programs, catalog, path, width, *more):
    subprocess.run([programs / "vestrel-catalog", "render", "--catalog", catalog, "--ra", "84",
                    "--dec=-1", *FIELD, "--width-px", str(width), "--out", path, *more],
                   check=True, stdout=subprocess.DEVNULL)


def write_fits(path, pixels):
    """16-bit pixels, unsigned; the values are held within their range."""
    height, width = pixels.shape
    cards = ["SIMPLE  =                    T", "BITPIX  =                   16",
             "NAXIS   =                    2", f"NAXIS1  = {width:20}", f"NAXIS2  = {height:20}",
             "BZERO   =                32768", "END"]
    header = "".join(card.ljust(80) for card in cards).ljust(2880).encode()
    data = (numpy.clip(pixels, 0, 65535).astype(numpy.int32) - 32768).astype(">i2").tobytes()
    path.write_bytes(header + data + bytes(-len(data) % 2880))


def write_sbig(path, pixels):
    """A compressed file of the cameras' own format: differences of one byte, or all of a value."""
    height, width = pixels.shape
    lines = ["ST-10 Compressed Image", f"Width = {width}", f"Height = {height}", "End"]
    header = "".join(line + "\n\r" for line in lines).encode().ljust(2048, b"\0")
    rows = []
    for row in pixels.astype(numpy.int32):
        steps = numpy.diff(row)
        far = numpy.abs(steps) > 127
        starts = 2 + numpy.concatenate(([0], numpy.cumsum(numpy.where(far, 3, 1))))
        data = numpy.zeros(starts[-1], numpy.uint8)
        data[0:2] = row[0] & 255, row[0] >> 8
        data[starts[:-1]] = numpy.where(far, 128, steps & 255)
        data[starts[:-1][far] + 1] = row[1:][far] & 255
        data[starts[:-1][far] + 2] = row[1:][far] >> 8
        if len(data) > 65535 or len(data) == 2 * width:
            data = row.astype("<u2").view(numpy.uint8)
        rows.append(len(data).to_bytes(2, "little") + data.tobytes())
    path.write_bytes(header + b"".join(rows))


def read_fits(path):
    data = path.read_bytes()
    end = data.index(b"END" + b" " * 77)
    header = data[:end].decode()
    number = {c[:8].strip(): c[10:30].strip() for c in map("".join, zip(*[iter(header)] * 80))}
    width, height = int(number["NAXIS1"]), int(number["NAXIS2"])
    start = (end // 2880 + 1) * 2880
    pixels = numpy.frombuffer(data, ">i2", width * height, start).reshape(height, width)
    return pixels.astype(numpy.int32) + 32768


def worst_frames(folder, normal):
    """Frames of the normal one's size that are hard on one stage or another: name, pixels."""
    random = numpy.random.default_rng(1)
    height, width = normal.shape
    yield "constant", numpy.full((height, width), 1500)
    yield "noise over the full range", random.integers(0, 65536, (height, width))
    salt = normal.copy()
    places = random.integers(0, salt.size, salt.size // 50)
    salt.reshape(-1)[places] = random.integers(3000, 65536, len(places))
    yield "2 % hot pixels", salt
    y, x = numpy.ogrid[:height, :width]
    far = numpy.hypot((x - width / 2) / (width / 3), (y - height / 2) / (height / 3))
    yield "saturated nebula", normal + (90000 * numpy.exp(-far * far)).astype(numpy.int32)
    stars = 1500 + 60000.0 * (((x % 9) < 3) & ((y % 9) < 3)) + random.normal(0, 20, normal.shape)
    yield "stars everywhere", stars


# ---- tables ------------------------------------------------------------------------------------

class Bench:
    def __init__(self, arguments, folder):
        self.programs = pathlib.Path(arguments.build).resolve() / "bin"
        self.before = (arguments.before and
                       pathlib.Path(arguments.before).resolve() / "bin/vestrel-solve")
        self.catalog = arguments.catalog
        self.runs = arguments.runs
        self.folder = folder
        self.start = time.monotonic()
        self.lines = []
        self.indexes = arguments.indexes
        self.peer = shutil.which("solve-field") if self.indexes else None
        self.extractor = shutil.which("source-extractor")

    def late(self):
        return time.monotonic() - self.start > DEADLINE

    def say(self, line=""):
        print(line, flush=True)
        self.lines.append(line)

    def options(self, frame, arguments=()):
        return [str(frame), "--catalog", self.catalog, *(arguments or NEAR)]

    def solve(self, arguments):
        return [str(self.programs / "vestrel-solve"), *arguments]

    def search(self, frame, right_ascension=84.4, regions=25):
        """The plain search alone, as a parameter string starts it: what fails is not tried
        further. Centre and field in radians."""
        numbers = (math.radians(right_ascension), math.radians(-0.8), math.radians(2),
                   math.radians(1.5), regions)
        return ["--catalog", self.catalog, ",".join(map(repr, numbers)) + f",{frame}"]

    def plain_reader(self, frame, threads):
        return [str(self.programs / "vestrel-plain-reader"), str(frame), str(threads)]

    def peer_command(self, frame, ra, dec, width_degrees):
        configuration = self.folder / "peer.cfg"
        configuration.write_text(f"add_path {self.indexes}\nautoindex\ninparallel\n")
        return [self.peer, "--use-source-extractor", "--no-plots", "--overwrite", "--config",
                str(configuration), "--ra", str(ra), "--dec", str(dec), "--radius",
                str(width_degrees), "--scale-units", "degwidth", "--scale-low",
                str(width_degrees * 0.9), "--scale-high", str(width_degrees * 1.1), "--cpulimit",
                "20", "--dir", str(self.folder / "peer"), "--temp-dir", str(self.folder),
                str(frame)]

    def row(self, name, frame, arguments, threads, pixels, expected=0):
        commands = {}
        if frame.suffix == ".fit":
            commands["floor"] = self.plain_reader(frame, threads)
        commands["solve"] = [str(self.programs / "vestrel-solve"), *arguments]
        if self.before and not self.late():
            commands["before"] = [str(self.before), *arguments]
        counted = interleaved(commands, self.runs, threads)
        solves = counted["solve"]
        if any(run.code != expected for run in solves):
            sys.exit(f"{name}: exit code {solves[0].code}")
        peak = peak_bytes(commands["solve"], threads)
        floor = counted.get("floor")
        before = counted.get("before")
        self.say(f"| {name} | {threads} | {least_and_median(floor) if floor else '–'} "
                 f"| {least_and_median(solves)} "
                 f"| {f'{ratio(solves, floor):.1f}' if floor else '–'} "
                 f"| {ms(min(run.cpu for run in solves))} "
                 f"| {peak / pixels:.2f} "
                 f"| {(peak - 20e6) / pixels:.2f} "
                 f"| {f'{1 / ratio(solves, before):.1f}' if before else '–'} |")
        return statistics.median(run.wall for run in solves)

    HEAD = ("| frame | threads | floor, ms | solve, ms | × floor | processor, ms | bytes a pixel "
            "| without 20 MB | gain |\n|---|---|---|---|---|---|---|---|---|")

    def normal(self, frames):
        self.say("### Whole solves\n")
        self.say(self.HEAD)
        for name, frame, pixels in frames:
            for threads in (1, 2):
                self.row(name, frame, self.options(frame), threads, pixels)
        self.say()

    def worst(self, normal, frame):
        self.say("### Frames that are hard\n\nOf the same size, by the plain search alone; with the "
                 "time as a multiple of the normal frame's.\n")
        self.say(self.HEAD)
        pixels = normal.size
        # Only the exit codes differ, as these frames have nothing to match.
        usual = self.row("normal", frame, self.search(frame), 2, pixels)
        crowded = self.folder / "crowded.fit"
        render(self.programs, self.catalog, crowded, normal.shape[1], "--random-stars", "50000")
        cases = [("50,000 stars", crowded)]
        times = {}
        for name, values in worst_frames(self.folder, normal):
            path = self.folder / (name.split()[0] + ".fit")
            write_fits(path, values)
            cases.append((name, path))
            del values
        for name, path in cases:
            search = self.search(path)
            times[name] = self.row(name, path, search, 2, pixels, Run(self.solve(search)).code)
            path.unlink()
        spiral = "a spiral of 500 regions"
        search = self.search(frame, 264, 500)
        times[spiral] = self.row(spiral, frame, search, 2, pixels, Run(self.solve(search)).code)
        self.say("\n" + ", ".join(f"{name} × {seconds / usual:.1f}"
                                  for name, seconds in times.items()) + "\n")

    def peers(self, frames):
        self.say("### Against other programs\n\n`solve-field --use-source-extractor` with the same "
                 "hints, and the star detection of `source-extractor` alone; pairs in turn.\n")
        self.say("| frame | solve, ms | solve-field, ms | ratio | source-extractor, ms | ratio |\n"
                 "|---|---|---|---|---|---|")
        data = pathlib.Path("/usr/share/source-extractor")
        columns = self.folder / "columns.param"
        columns.write_text("NUMBER\nX_IMAGE\nY_IMAGE\nFLUX_ISO\n")
        for name, frame, ra, dec, width, arguments in frames:
            if self.late():
                self.say(f"| {name} | not run: no time left | | | | |")
                continue
            commands = {"solve": self.solve(self.options(frame, arguments))}
            if self.peer:
                commands["peer"] = self.peer_command(frame, ra, dec, width)
            if self.extractor and frame.suffix in (".fit", ".fits"):
                commands["extractor"] = [
                    self.extractor, str(frame), "-c", str(data / "default.sex"),
                    "-PARAMETERS_NAME", str(columns), "-FILTER_NAME",
                    str(data / "default.conv"), "-STARNNW_NAME", str(data / "default.nnw"),
                    "-CATALOG_NAME", str(self.folder / "extracted.cat"), "-VERBOSE_TYPE", "QUIET"]
            counted = interleaved(commands, 2, 2, self.folder)
            cells = [name, least_and_median(counted["solve"])]
            for other in ("peer", "extractor"):
                runs = counted.get(other)
                good = runs and all(run.code == 0 for run in runs)
                cells += ([least_and_median(runs), f"{1 / ratio(counted['solve'], runs):.0f}"]
                          if good else ["–" if not runs else "failed", "–"])
            self.say("| " + " | ".join(cells) + " |")
        self.say()

    def start_up(self):
        tiny = self.folder / "tiny.fit"
        write_fits(tiny, numpy.full((30, 30), 1500))
        counted = interleaved({"start": self.solve(["--info", str(tiny)]),
                               "empty": ["/bin/true"]}, 30, 1)
        self.say("### Start\n\n"
                 "`vestrel-solve --info` of a picture of 30 × 30 pixels, from the start of the process to its "
                 f"end: {least_and_median(counted['start'])} ms; a program that does nothing: "
                 f"{least_and_median(counted['empty'])} ms.\n")


def picture_rows(folder):
    with open(folder / "truth.tsv", newline="", encoding="utf-8") as file:
        for row in csv.DictReader(file, delimiter="\t"):
            if row["expect"] != "solved":
                continue
            size = f"{row['width_arcmin']}x{row['height_arcmin']}"
            yield (row["file"], folder / row["file"], row["hint_ra_deg"], row["hint_dec_deg"],
                   float(row["width_arcmin"]) / 60,
                   ["--ra", row["hint_ra_deg"], f"--dec={row['hint_dec_deg']}", "--size", size,
                    "--regions", row["regions"]])


def processor():
    try:
        text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
        return next(line.split(":")[1].strip() for line in text.splitlines()
                    if line.startswith("model name"))
    except (OSError, StopIteration):
        return platform.processor()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("catalog")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--scale", type=float, default=1,
                        help="draws smaller frames, to try this script out")
    parser.add_argument("--before")
    parser.add_argument("--indexes")
    parser.add_argument("--pictures", type=pathlib.Path)
    parser.add_argument("--write", type=pathlib.Path)
    arguments = parser.parse_args()
    load = os.getloadavg()[0]
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        (folder / "peer").mkdir()
        bench = Bench(arguments, folder)
        bench.say(f"{processor()}, {len(os.sched_getaffinity(0))} processors, load {load:.1f} at "
                  f"the start. Times are minimum / median of {arguments.runs} runs of whole "
                  "processes, taken in turn with the floor's; ratios are medians of pairs.\n")
        frames = []
        for name, width, more in (("2 Mpx", 1633, ()), ("24 Mpx", 5657, ()), ("60 Mpx", 8944, ()),
                                  ("24 Mpx, 8-bit", 5657, ("--format", "8")),
                                  ("24 Mpx, floating-point", 5657, ("--format", "-32")),
                                  ("2 Mpx, few stars", 1633, ("--random-stars", "5"))):
            path = folder / (name.replace(", ", "-").replace(" ", "-") + ".fit")
            width = round(width * arguments.scale)
            render(bench.programs, arguments.catalog, path, width, *more)
            frames.append((name, path, width * (width * 3 // 4)))
        normal = read_fits(frames[1][1])
        sbig = folder / "24.sbig"
        write_sbig(sbig, normal)
        few = frames.pop()
        frames.append(("24 Mpx, SBIG compressed", sbig, normal.size))
        bench.normal(frames)
        bench.say("### Smoothing and a second extraction\n\n" + bench.HEAD)
        search = bench.search(few[1])
        bench.row(few[0], few[1], search, 2, few[2], Run(bench.solve(search)).code)
        bench.say()
        bench.start_up()
        against = [(n, p, 84.4, -0.8, 2.0, NEAR) for n, p, _ in frames[:2]]
        if arguments.pictures:
            against += picture_rows(arguments.pictures)
        bench.peers(against)
        bench.worst(normal, frames[1][1])
        text = "\n".join(bench.lines)
    if arguments.write:
        judging.write_between(MARKS, text, arguments.write)


if __name__ == "__main__":
    main()
