#!/usr/bin/env python3
"""Kills vestrel-batch at random moments and looks whether its journal is exact.

usage: killBatch.py PROGRAMS [--frames 2000] [--kills 50] [--folder DIR] [--catalog DIR] [--workers N]

Makes a catalog of random stars (unless one is given), frames of it with known truth and some broken
files, starts vestrel-batch over and over and kills it (SIGKILL) each time, lets the last run end,
and checks: every picture has one line, every line is whole, every solved one is right, every one
that can be read is solved, and its .wcs file is there and whole. Then one run without kills, of
which the memory and the time beside reading, solving and writing are measured.
"""
import argparse
import json
import math
import os
import pathlib
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

RA, DEC = 100.0, 30.0
WIDTH_PX, WIDTH, HEIGHT = 400, 40, 30  # pixels, arcminutes
MOST_DRAWN = 500


def run(*command):
    end = subprocess.run([os.fsencode(str(word)) for word in command], capture_output=True)
    if end.returncode != 0:
        raise SystemExit(f"{command}: {end.stderr.decode(errors='replace')}")


def make_catalog(programs, folder):
    if not (folder / "catalog.json").exists():
        run(programs / "vestrel-catalog", "synthesize", "--catalog", folder, "--ra", RA, "--dec", DEC,
            "--radius", 4, "--density", 300, "--mag-max", 13)


def make_frames(programs, catalog, folder, count):
    """The truth by picture: (ra, dec) in degrees, None for what is broken."""
    rng = random.Random(5)
    folder.mkdir(parents=True, exist_ok=True)
    truth = {}
    target = (RA, DEC)
    drawn = []
    for number in range(count):
        if number >= MOST_DRAWN:  # drawing takes longer than solving: the rest are the same again
            before, place = drawn[number % MOST_DRAWN]
            path = folder / f"again_{number:04d}.fit"
            if not path.exists():
                os.link(before, path)
            truth[os.fsencode(path.resolve())] = place
            continue
        if number % 25 == 0:
            target = (RA + rng.uniform(-2, 2), DEC + rng.uniform(-2, 2))
        place = target[0] + rng.uniform(-.02, .02), target[1] + rng.uniform(-.02, .02)
        path = folder / f"light_{number:04d}.fit"
        if not path.exists():
            run(programs / "vestrel-catalog", "render", "--catalog", catalog, "--ra", place[0],
                "--dec", place[1], "--size", f"{WIDTH}x{HEIGHT}", "--width-px", WIDTH_PX,
                "--seed", number, "--out", path)
            header_hint(path, place, random.Random(number))
            path.with_suffix(".truth.json").unlink()
        drawn.append((path, place))
        truth[os.fsencode(path.resolve())] = place
    for name, content in ((b"empty.fit", b""), (b"half.fit", b"SIMPLE  =                    T"),
                          (b"text<b>&'\".fit", b"no picture at all\n" * 300),
                          (b"no\xffutf8.fits", b"SIMPLE  =" + bytes(3000))):
        path = os.path.join(os.fsencode(folder.resolve()), name)
        with open(path, "wb") as file:
            file.write(content)
        truth[path] = None
    return truth


def header_hint(path, place, rng):
    """What a mount would write into the header: near the truth, and the scale."""
    data = path.read_bytes()
    end = re.search(rb"END {77}", data).start()
    cards = [f"RA      = {place[0] + rng.uniform(-.1, .1):20.6f}",
             f"DEC     = {place[1] + rng.uniform(-.1, .1):20.6f}",
             f"SCALE   = {WIDTH * 60 / WIDTH_PX * rng.uniform(.97, 1.03):20.6f}"]
    text = "".join(card.ljust(80) for card in cards).encode()
    header = data[:end] + text + b"END".ljust(80)
    length = -(-(end + 80) // 2880) * 2880
    path.write_bytes(header.ljust(-(-len(header) // 2880) * 2880) + data[length:])


def command(programs, catalog, frames, journal, workers, *more):
    return [programs / "vestrel-batch", frames, "--catalog", catalog, "--out", journal, "--workers",
            str(workers), "--quiet", *more]


def path_of(line):
    return bytes.fromhex(line["picture_hex"]) if "picture_hex" in line else \
        os.fsencode(line["picture"])


def check(journal, truth, with_files=True):
    """The faults of a journal, in words."""
    faults = []
    lines = []
    for text in journal.read_bytes().split(b"\n")[:-1]:
        try:
            lines.append(json.loads(text))
        except ValueError:
            faults.append(f"no JSON: {text[:60]}")
    paths = [path_of(line) for line in lines]
    if not journal.read_bytes().endswith(b"\n"):
        faults.append("the last line is cut off")
    if len(set(paths)) != len(paths):
        faults.append(f"{len(paths) - len(set(paths))} pictures stand there twice")
    if set(paths) != set(truth):
        faults.append(f"{len(set(truth) - set(paths))} pictures are missing, "
                      f"{len(set(paths) - set(truth))} are none")
    for path, line in zip(paths, lines):
        place = truth.get(path)
        if (line["end"] == "solved") != (place is not None):
            faults.append(f"{path}: {line['end']}, {line.get('reason')}")
        elif place is not None:
            east = (line["ra_deg"] - place[0]) * math.cos(math.radians(place[1]))
            off = math.hypot(east, line["dec_deg"] - place[1]) * 60 / WIDTH * WIDTH_PX
            if off > 1:
                faults.append(f"{path}: {off:.1f} pixels off")
            wcs = pathlib.Path(line["files"]["wcs"]) if "files" in line else None
            if with_files and not (wcs and wcs.exists() and wcs.stat().st_size % 2880 == 0 and
                                   b"CRVAL1" in wcs.read_bytes()):
                faults.append(f"{wcs} is not whole")
    return faults


def kill_runs(programs, catalog, frames, work, truth, kills, workers, rng):
    """Runs that are killed, and the last one that is not. @return kills that met a running one"""
    journal = work / "killed.jsonl"
    journal.unlink(missing_ok=True)
    words = command(programs, catalog, frames, journal, workers, "--wcs", "--to", work / "killed")
    started = time.monotonic()
    met = 0
    longest = max(0.05, min(2.0, 0.01 * len(truth) / max(kills, 1) * 2))
    for _ in range(kills):
        process = subprocess.Popen(words, stderr=subprocess.DEVNULL)
        time.sleep(rng.uniform(0, longest))
        met += process.poll() is None
        process.kill()
        process.wait()
        if rng.random() < 0.3:  # as a file system may leave it
            with open(journal, "ab") as file:
                file.write(b'{"picture":"/half')
    subprocess.run(words, timeout=3600, check=True)
    faults = check(journal, truth)
    left = [file for file in (work / "killed").iterdir() if file.suffix != ".wcs"]
    print(f"{met} of {kills} kills met a running batch, {time.monotonic() - started:.0f} s; "
          f"{len(left)} temporary files were left behind")
    return faults, met


def resident(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS"):
            return int(line.split()[1]) / 1024
    return 0


def measure(programs, catalog, frames, work, truth, workers):
    """One run without kills: its faults, and figures of memory and time."""
    journal = work / "measured.jsonl"
    journal.unlink(missing_ok=True)
    memory = []
    started = time.monotonic()
    process = subprocess.Popen(command(programs, catalog, frames, journal, workers, "--report",
                                       work / "night.html"))
    while process.poll() is None:
        time.sleep(0.1)
        try:
            done = journal.read_bytes().count(b"\n")
            memory.append((done, resident(process.pid)))
        except (FileNotFoundError, ProcessLookupError):
            pass
    wall = time.monotonic() - started
    lines = [json.loads(text) for text in journal.read_text(errors="replace").splitlines()]
    parts = [line["seconds"] for line in lines]
    inside = sum(part["opening"] + part["solving"] + part.get("writing", 0) for part in parts)
    early = [mib for done, mib in memory if 100 <= done < 200]
    late = [mib for done, mib in memory[:-1] if done > 0.9 * len(truth)]
    print(f"{len(lines)} pictures in {wall:.1f} s with {workers} workers; beside opening, solving "
          f"and writing {1000 * (wall * workers - inside) / len(lines):.2f} ms a picture")
    print("opening, solving, writing (medians, ms): " + ", ".join(
        f"{1000 * statistics.median(part.get(key, 0) for part in parts):.1f}"
        for key in ("opening", "solving", "writing")))
    by = {}
    for line in lines:
        by[line.get("solved_by", line["end"])] = by.get(line.get("solved_by", line["end"]), 0) + 1
    print("by:", by)
    if early and late:
        print(f"resident memory after 100 pictures {max(early):.1f} MiB, of the last tenth "
              f"{max(late):.1f} MiB")
    return check(journal, truth, False), (max(late) - max(early) if early and late else 0)


def main():
    options = argparse.ArgumentParser()
    options.add_argument("programs", type=pathlib.Path)
    options.add_argument("--frames", type=int, default=2000)
    options.add_argument("--kills", type=int, default=50)
    options.add_argument("--workers", type=int, default=2)
    options.add_argument("--folder", type=pathlib.Path)
    options.add_argument("--catalog", type=pathlib.Path)
    chosen = options.parse_args()
    with tempfile.TemporaryDirectory(prefix="vestrel-batch-") as temporary:
        work = chosen.folder or pathlib.Path(temporary)
        work.mkdir(parents=True, exist_ok=True)
        catalog = chosen.catalog or work / "catalog"
        make_catalog(chosen.programs, catalog)
        truth = make_frames(chosen.programs, catalog, work / "frames", chosen.frames)
        faults, _ = kill_runs(chosen.programs, catalog, work / "frames", work, truth, chosen.kills,
                              chosen.workers, random.Random())
        more, growth = measure(chosen.programs, catalog, work / "frames", work, truth, chosen.workers)
        faults += more
        if growth > 16:
            faults.append(f"the memory grew by {growth:.0f} MiB")
        print("\n".join(faults[:20]) or "no faults")
        return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
