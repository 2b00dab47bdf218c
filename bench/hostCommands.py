#!/usr/bin/env python3
"""Every command line that hosts send, on real pictures, against astrometry.net's solve-field.

usage: hostCommands.py COMPAT-PROGRAM PICTURES [--index FILE] [--only FILE...]

PICTURES holds images and a truth.tsv (file, ra_deg, dec_deg, scale_arcsec_px, hint_ra_deg, ...). Prints the
distance of the centre in arcseconds and pixels, and of the farthest corner in pixels.
"""
import argparse
import csv
import math
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import warnings

from astropy.io import fits
from astropy.wcs import WCS, FITSFixedWarning

warnings.simplefilter("ignore", FITSFixedWarning)


def lines_of(row, width, height):
    """Name, program, arguments without the image, and where the coordinates are."""
    scale = float(row["scale_arcsec_px"])
    fov = height * scale / 3600
    ra, dec = float(row["hint_ra_deg"]), float(row["hint_dec_deg"])
    position = ["-ra", f"{ra / 15:.6f}", "-spd", f"{dec + 90:.6f}"]
    return [
        ("N.I.N.A. near", "astap", ["-fov", f"{fov:.6f}", "-z", "0", "-s", "500", "-r", "30", *position]),
        ("N.I.N.A. blind", "astap", ["-fov", f"{fov:.6f}", "-z", "0", "-s", "500", "-r", "180"]),
        ("KStars", "astap", ["-speed", "auto", "-wcs", "-z", "0", "-fov", f"{0.8 * fov:g}", *position, "-r", "30"]),
        ("KStars, nothing known", "astap", ["-speed", "auto", "-wcs", "-z", "0"]),
        ("CCDciel", "astap", ["-log", "-z", "0", "-r", "30"]),
        ("INDIGO", "astap_cli", ["-z", "2", "-r", "30", *position, "-s", "500", "-fov", f"{fov:g}"]),
        ("with SIP", "astap", ["-fov", f"{fov:.6f}", "-r", "30", *position, "-sip"]),
        ("Siril", "solve-field", ["-p", "-O", "-N", "none", "-S", "none", "--crpix-center", "-u", "arcsecperpix", "-L",
                                  f"{scale * 0.9:.3f}", "-H", f"{scale * 1.1:.3f}", "-t", "3", "--ra", str(ra),
                                  "--dec", str(dec), "--radius", "10.0"]),
        ("CCDciel, solve-field", "solve-field", ["--overwrite", "--scale-low", f"{scale / 2:.3f}", "--scale-high",
                                                 f"{scale * 1.5:.3f}", "--scale-units", "arcsecperpix", "--ra", str(ra),
                                                 "--dec", str(dec), "--radius", "30", "--objs", "150", "--no-plots"]),
        ("no hint, solve-field", "solve-field", ["-O", "-p", "-N", "none"]),
    ]


def reference(folder, image, row, index):
    config = folder / "astrometry.cfg"
    config.write_text(f"add_path {index.parent}\nautoindex\ninparallel\ncpulimit 20\n")
    scale = float(row["scale_arcsec_px"])
    base = folder / "reference"
    subprocess.run(["/usr/bin/solve-field", "--config", config, "-O", "-p", "-N", "none", "-R", "none", "-M", "none",
                    "-B", "none", "-U", "none", "--crpix-center", "-u", "app", "-L", str(scale * 0.9), "-H",
                    str(scale * 1.1), "--ra", row["ra_deg"], "--dec", row["dec_deg"], "--radius", "3", "-o",
                    "reference", "-D", folder, image], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    path = base.with_suffix(".wcs")
    return fits.getheader(path) if path.exists() else None


def header_of(path):
    data = path.read_bytes()
    if len(data) % 2880 or b"\n" in data:
        data = "".join(line.ljust(80) for line in data.decode().splitlines()).encode()
    return fits.Header.fromstring(data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("compat", type=pathlib.Path)
    parser.add_argument("pictures", type=pathlib.Path)
    parser.add_argument("--index", type=pathlib.Path, default=pathlib.Path(
        "~/.cache/vestrel/index-tycho2-07.littleendian.fits").expanduser())
    parser.add_argument("--only", nargs="*", default=[])
    options = parser.parse_args()
    rows = [row for row in csv.DictReader(open(options.pictures / "truth.tsv"), delimiter="\t")
            if row["expect"] == "solved" and (not options.only or row["file"] in options.only)]
    worst = {}
    failed = 0
    for row in rows:
        with tempfile.TemporaryDirectory(prefix="vestrel-hosts-") as name:
            folder = pathlib.Path(name)
            image = folder / row["file"]
            shutil.copyfile(options.pictures / row["file"], image)
            judge = reference(folder, image, row, options.index)
            width, height = int(row["width_px"]), int(row["height_px"])
            scale = float(row["scale_arcsec_px"])
            print(f"{row['file']}: {'astrometry.net' if judge else 'truth only, astrometry.net does not solve it'}")
            for title, program, arguments in lines_of(row, width, height):
                link = folder / program
                if not link.exists():
                    link.symlink_to(options.compat.resolve())
                for old in (image.with_suffix(".wcs"), image.with_suffix(".ini")):
                    old.unlink(missing_ok=True)
                start = time.monotonic()
                call = [link, "-f", image, *arguments] if program != "solve-field" else [link, *arguments, image]
                run = subprocess.run(call, capture_output=True, text=True)
                seconds = time.monotonic() - start
                path = image.with_suffix(".wcs")
                if run.returncode or not path.exists():
                    print(f"  {title:24} FAILED {run.returncode} {run.stdout[-80:]!r} {run.stderr[-80:]!r} "
                          f"{seconds:.1f} s")
                    failed += 1
                    continue
                ours = WCS(header_of(path))
                middle = [(width - 1) / 2, (height - 1) / 2]
                ra, dec = ours.all_pix2world(*middle, 0)
                theirs = WCS(judge) if judge else None
                wanted = theirs.all_pix2world(*middle, 0) if judge else (float(row["ra_deg"]), float(row["dec_deg"]))
                off = math.hypot(((ra - wanted[0] + 180) % 360 - 180) * math.cos(math.radians(dec)),
                                 dec - wanted[1]) * 3600
                corner = 0.0
                for x in (0, width - 1):
                    for y in (0, height - 1):
                        if judge:
                            sky = ours.all_pix2world(x, y, 0)
                            there = theirs.all_world2pix(*sky, 0, quiet=True)
                            corner = max(corner, math.hypot(there[0] - x, there[1] - y))
                good = off <= max(1, 0.3 * scale) and corner <= 1
                worst[row["file"]] = max(worst.get(row["file"], 0), corner)
                failed += 0 if good else 1
                print(f"  {title:24} centre {off:7.2f}\" {off / scale:6.3f} px, corner {corner:6.3f} px, {seconds:.2f} s"
                      f"{'' if good else '  BEYOND THE BOUND'}")
    print(f"{failed} of {len(rows) * len(lines_of(rows[0], 1, 1))} beyond the bounds or unsolved")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
