#!/usr/bin/env python3
"""Writes to file systems that are too small, and under limits of the size of a file.

  bench/fullDisk.py --programs build/release/bin [--short]

Small tmpfs file systems need the right to mount, as root has it; without it only the limit is tried.
What was there must be there, or what was to be written whole, and the exit code must tell which.
Exit code 1 when anything was lost or said wrongly.
"""
import argparse
import contextlib
import pathlib
import resource
import signal
import subprocess
import sys
import tempfile

from reliability import OLD, Sky, write_table

SOLVED, NOT_WRITTEN, CANNOT_WRITE = 0, 8, 4


@contextlib.contextmanager
def small_disk(folder, options):
    folder.mkdir(exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", folder], check=True,
                   capture_output=True)
    try:
        yield folder
    finally:
        subprocess.run(["umount", folder], check=True)


def may_mount(folder):
    try:
        with small_disk(folder, "size=16k"):
            return True
    except (OSError, subprocess.CalledProcessError):
        return False


def limit_files(size):
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # an error instead of an end
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))
    return limit


def attempt(sky, target, program, arguments, refused, whole, **more):
    """1 when the file or the exit code is wrong, and whether the file was written."""
    target.write_bytes(OLD)
    end = sky.run(program, *arguments, **more)
    there = target.read_bytes()
    written = there == whole
    wrong = not written and there != OLD
    # A rendered picture has its truth file beside it, which may be the one without room.
    truth = target.with_suffix(".truth.json")
    complete = written and (arguments[0] != "render" or truth.exists())
    wrong |= end.returncode != (0 if complete else refused)
    wrong |= not complete and not end.stderr
    truth.unlink(missing_ok=True)
    wrong |= any(p.name.endswith(".tmp") for p in target.parent.iterdir())
    return int(wrong), written


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--programs", required=True)
    parser.add_argument("--short", action="store_true")
    options = parser.parse_args()
    rows = []
    with tempfile.TemporaryDirectory(prefix="vestrel-disk-") as folder:
        folder = pathlib.Path(folder)
        sky = Sky(options.programs, folder / "sky")
        solve = [sky.image, *sky.search]
        render = ["render", "--ra", 10.5, "--dec", 5.7, "--size", "60x45", "--width-px", 600]
        operations = {
            "--export": ("vestrel-solve", lambda t: [*solve, "--export", t], NOT_WRITTEN),
            "--save": ("vestrel-solve", lambda t: [*solve, "--save", t], NOT_WRITTEN),
            "picture drawn": ("vestrel-catalog", lambda t: [*render, "--out", t], CANNOT_WRITE)}
        mounts = may_mount(folder / "small")
        if not mounts:
            print("No file system can be mounted here: only limits are tried.")
        for name, (program, arguments, refused) in operations.items():
            target = folder / "whole.fit"
            assert sky.run(program, *arguments(target)).returncode == SOLVED
            whole = target.read_bytes()
            sizes = [len(whole) * i // 40 for i in range(1, 44)]
            if options.short:
                sizes = sizes[20::22]
            outcomes = []
            for size in sizes:
                outcomes.append(attempt(sky, target, program, arguments(target), refused, whole,
                                        preexec_fn=limit_files(size)))
            rows.append([name, "limit of a file's size", len(outcomes),
                         sum(written for _, written in outcomes), sum(w for w, _ in outcomes)])
            outcomes = []
            for size in sizes if mounts else []:
                # The old file occupies one page.
                with small_disk(folder / "small", f"size={(size // 4096 + 1) * 4096}") as disk:
                    outcomes.append(attempt(sky, disk / "t.fit", program, arguments(disk / "t.fit"),
                                            refused, whole))
            if mounts:
                with small_disk(folder / "small", "size=9m,nr_inodes=2") as disk:
                    outcomes.append(attempt(sky, disk / "t.fit", program, arguments(disk / "t.fit"),
                                            refused, whole))
                rows.append([name, "small file system, and one without room for names",
                             len(outcomes), sum(written for _, written in outcomes),
                             sum(w for w, _ in outcomes)])
    for row in rows:
        print(*row)
    if not options.short:
        write_table("full disk", ["operation", "what is short", "runs", "written whole",
                                  "lost or said wrongly"], rows,
                    "tmpfs file systems from nothing to enough." if mounts else "limits only.")
    return any(row[4] for row in rows)


if __name__ == "__main__":
    sys.exit(main())
