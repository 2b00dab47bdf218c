#!/usr/bin/env python3
"""Solves narrow crops of real pictures.

  bench/narrowCrops.py --solver build/release/bin/vestrel-solve --pictures FOLDER [--catalog FOLDER]

FOLDER has a truth.tsv (file, expect, ra_deg, dec_deg, scale_arcsec_px). Pictures of at least 0.9 degrees
and at most 12" per pixel are solved whole; from each the middle and the four corners are cut, with sides
4 : 3, and solved from the centre of the whole picture, with 25 regions, and from their own centre. The
sky of the whole picture says where a crop lies. Exit code: 1 when a crop is solved wrongly.
"""
import argparse
import csv
import pathlib
import sys
import tempfile
import warnings

import numpy as np
from astropy.io import fits
from astropy.wcs import WCS, FITSFixedWarning

import judging
from pictureFormats import read_counts

WIDTHS = (0.5, 0.6, 0.7, 0.8, 0.9)  # degrees
PLACES = {"middle": (0.5, 0.5), "bottom left": (0, 0), "bottom right": (1, 0), "top left": (0, 1),
          "top right": (1, 1)}


def crops(counts, width, height):
    """Name, middle (x, y; 0 = middle of the first pixel) and pixels of each crop."""
    for name, (right, up) in PLACES.items():
        x = round(right * (counts.shape[1] - width))
        y = round(up * (counts.shape[0] - height))
        yield name, (x + (width - 1) / 2, y + (height - 1) / 2), counts[y:y + height, x:x + width]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--solver", type=pathlib.Path, required=True)
    parser.add_argument("--pictures", type=pathlib.Path, required=True)
    parser.add_argument("--catalog", type=pathlib.Path)
    options = parser.parse_args()
    always = [f"--catalog={options.catalog}"] if options.catalog else []
    with open(options.pictures / "truth.tsv", encoding="utf-8") as file:
        rows = [row for row in csv.DictReader(file, delimiter="\t") if row["expect"] == "solved"
                and float(row["scale_arcsec_px"]) <= 12 and float(row["width_arcmin"]) >= 54]
    tally = {width: {"crops": 0, "from the whole": 0, "from their own": 0, "wrong": 0, "not": {}}
             for width in WIDTHS}
    warnings.simplefilter("ignore", FITSFixedWarning)
    with tempfile.TemporaryDirectory() as name:
        work = pathlib.Path(name)
        for row in rows:
            picture = options.pictures / row["file"]
            sky = work / "whole.fits"
            whole = judging.solved(options.solver, picture, f"--ra={row['ra_deg']}",
                                   f"--dec={row['dec_deg']}", f"--export={sky}",
                                   f"--size={row['width_arcmin']}x{row['height_arcmin']}", *always)
            if not whole["solved"]:
                sys.exit(f"{picture.name} is not solved")
            world = WCS(fits.getheader(sky))
            counts = read_counts(picture)
            for width, found in tally.items():
                columns = round(width * 3600 / float(row["scale_arcsec_px"]))
                lines = round(columns * 3 / 4)
                if columns > counts.shape[1] or lines > counts.shape[0]:
                    continue
                for place, middle, pixels in crops(counts, columns, lines):
                    file = work / "crop.fits"
                    fits.writeto(file, np.uint16(pixels), overwrite=True)
                    truth = [float(value) for value in world.all_pix2world(*middle, 0)]
                    found["crops"] += 1
                    for start, (ra, dec) in (("from the whole", (whole["ra_deg"], whole["dec_deg"])),
                                             ("from their own", truth)):
                        result = judging.solved(
                            options.solver, file, f"--ra={ra:.6f}", f"--dec={dec:.6f}", "--regions=25",
                            f"--size={width * 60}x{width * 45}", *always)
                        if not result["solved"]:
                            found["not"].setdefault(f"{picture.stem} {start}", []).append(place)
                            continue
                        off = judging.separation(result["ra_deg"], result["dec_deg"], *truth)
                        right = off * 3600 < 3 * float(row["scale_arcsec_px"])
                        found[start if right else "wrong"] += 1
    print("| width | crops | solved from the middle of the whole picture | from their own | wrong |")
    print("|---|--:|--:|--:|--:|")
    for width, found in tally.items():
        print(f"| {width}° | {found['crops']} | {found['from the whole']} | {found['from their own']} "
              f"| {found['wrong']} |")
    for width, found in tally.items():
        for which, places in found["not"].items():
            print(f"{width}°: not solved: {which}: {', '.join(places)}")
    return any(found["wrong"] for found in tally.values())


if __name__ == "__main__":
    sys.exit(main())
