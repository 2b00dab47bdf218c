#!/usr/bin/env python3
"""Writes to file systems that are too small, and under limits of the size of a file.

  bench/fullDisk.py --programs build/release/bin [--short]

File systems need the right to mount, as root has it, and btrfs-progs for the quota; what cannot be
mounted is named and left out.
What was there must be there, or what was to be written whole, and the exit code must tell which.
Exit code 1 when anything was lost or said wrongly.
"""
import argparse
import contextlib
import itertools
import os
import pathlib
import resource
import subprocess
import sys
import tempfile

from reliability import OLD, Sky, write_table

SOLVED, NOT_WRITTEN, CANNOT_WRITE = 0, 8, 4
BTRFS_OWN = 400 << 10


@contextlib.contextmanager
def mounted(folder, *arguments):
    folder.mkdir(exist_ok=True)
    subprocess.run(["mount", *map(str, arguments), folder], check=True, capture_output=True)
    try:
        yield folder
    finally:
        subprocess.run(["umount", folder], check=True)


def small_disk(folder, size):
    # The old file occupies one page.
    return mounted(folder, "-t", "tmpfs", "-o", f"size={(size // 4096 + 1) * 4096}", "tmpfs")


def disk_without_names(folder, _):
    return mounted(folder, "-t", "tmpfs", "-o", "size=9m,nr_inodes=2", "tmpfs")


def new_image(folder, size, make):
    image = folder.with_suffix(".disk")
    image.unlink(missing_ok=True)
    with open(image, "wb") as file:
        file.truncate(size)
    subprocess.run([*make, image], check=True, capture_output=True)
    return image


@contextlib.contextmanager
def nearly_full_disk(folder, size):
    """An ext4 file system on a loop device, where another file leaves room for `size` bytes."""
    image = new_image(folder, 16 << 20, ["mkfs.ext4", "-q", "-m", "0"])
    with mounted(folder, "-o", "loop", image) as disk:
        with open(disk / "filler", "wb", buffering=0) as filler:
            with contextlib.suppress(OSError):
                while filler.write(bytes(4096)):
                    pass
            os.fsync(filler)
            # The old file occupies one block.
            filler.truncate(filler.tell() - (size // 4096 + 1) * 4096)
            os.fsync(filler)
        yield disk


@contextlib.contextmanager
def disk_with_quota(folder, size):
    """A subvolume of a btrfs file system on a loop device, limited to `size` bytes and to what the
    file system sets aside for itself while a file is made."""
    image = new_image(folder, 120 << 20, ["mkfs.btrfs", "-q"])
    with mounted(folder, "-o", "loop", image) as disk:
        part = disk / "limited"
        for command in (["quota", "enable", disk], ["subvolume", "create", part],
                        ["qgroup", "limit", str(size + BTRFS_OWN), part]):
            subprocess.run(["btrfs", *command], check=True, capture_output=True)
        yield part


def usable(disk, folder):
    try:
        with disk(folder, 1 << 19):
            return True
    except (OSError, subprocess.CalledProcessError):
        return False


def limit_files(size):
    def limit():
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))
    return limit


DISKS = {"room on a small file system (tmpfs)": small_disk,
         "room for names (tmpfs)": disk_without_names,
         "room on a nearly full disk (ext4)": nearly_full_disk,
         "quota (btrfs)": disk_with_quota}


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
        asked = dict(itertools.islice(DISKS.items(), 2 if options.short else None))
        disks = {name: disk for name, disk in asked.items() if usable(disk, folder / "small")}
        for name in asked.keys() - disks.keys():
            print(f"Not tried, as it cannot be mounted here: {name}")
        for name, (program, arguments, refused) in operations.items():
            target = folder / "whole.fit"
            assert sky.run(program, *arguments(target)).returncode == SOLVED
            whole = target.read_bytes()
            sizes = [len(whole) * i // 40 for i in range(1, 44)]
            if options.short:
                sizes = sizes[20::22]

            def row(short, outcomes):
                rows.append([name, short, len(outcomes), sum(written for _, written in outcomes),
                             sum(wrong for wrong, _ in outcomes)])

            row("limit of a file's size",
                [attempt(sky, target, program, arguments(target), refused, whole,
                         preexec_fn=limit_files(size)) for size in sizes])
            for short, disk in disks.items():
                outcomes = []
                for size in sizes[:1] if disk is disk_without_names else sizes:
                    with disk(folder / "small", size) as place:
                        outcomes.append(attempt(sky, place / "t.fit", program,
                                                arguments(place / "t.fit"), refused, whole))
                row(short, outcomes)
    for row in rows:
        print(*row)
    if not options.short:
        write_table("full disk", ["operation", "what is short", "runs", "written whole",
                                  "lost or said wrongly"], rows,
                    f"{len(disks)} kinds of file systems, from nothing to enough.")
    return any(row[4] for row in rows)


if __name__ == "__main__":
    sys.exit(main())
