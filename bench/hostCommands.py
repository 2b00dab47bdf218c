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
    """Name, program, and arguments without the input; what measures the stars itself is named so."""
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
        ("MountWizzard4", "astap", ["-o", "temp", "-wcs", "-r", "20.0", "-t", "0.005", "-z", "0", "-d", "."]),
        ("with SIP", "astap", ["-fov", f"{fov:.6f}", "-r", "30", *position, "-sip"]),
        ("Siril", "solve-field", ["-p", "-O", "-N", "none", "-S", "none", "--crpix-center", "-u", "arcsecperpix", "-L",
                                  f"{scale * 0.9:.3f}", "-H", f"{scale * 1.1:.3f}", "-t", "3", "--ra", str(ra),
                                  "--dec", str(dec), "--radius", "10.0"]),
        ("CCDciel, solve-field", "solve-field", ["--overwrite", "--scale-low", f"{scale / 2:.3f}", "--scale-high",
                                                 f"{scale * 1.5:.3f}", "--scale-units", "arcsecperpix", "--ra", str(ra),
                                                 "--dec", str(dec), "--radius", "30", "--objs", "150", "--no-plots"]),
        ("no hint, solve-field", "solve-field", ["-O", "-p", "-N", "none"]),
        ("KStars, solve-field", "solve-field", [
            "-O", "--no-plots", "--no-verify", "--crpix-center", "--match", "none", "--corr", "none", "--new-fits", "none",
            "--rdls", "none", "--resort", "--depth", "1-100", "--objs", "50", "--downsample", "2", "--odds-to-solve", "1e9",
            "--odds-to-tune-up", "1e6", "-L", f"{width * scale / 66:g}", "-H", f"{width * scale / 54:g}", "-u",
            "arcminwidth", "-3", f"{ra:g}", "-4", f"{dec:g}", "-5", "15", "--no-remove-lines", "--uniformize", "0", "-v",
            "--backend-config", "x.cfg", "--cancel", "b.cancel", "--solved", "b.solved", "--axy", "b.axy", "-W",
            "temp.wcs"]),
        ("N.I.N.A., solve-field", "solve-field", [
            "--overwrite", "--index-xyls", "none", "--corr", "none", "--rdls", "none", "--match", "none", "--new-fits",
            "none", "-center", "--objs", "100", "--no-plots", "--resort", "--downsample", "2", "--scale-units",
            "arcsecperpix", "-L", f"{scale * 0.93:.2f}", "-H", f"{scale * 1.08:.2f}", "--ra", f"{ra:.2f}", "--dec",
            f"{dec:.2f}", "--radius", "30.00"]),
        ("Siril, stars", "solve-field", ["-C", "stop", "--temp-axy", "-p", "-O", "-N", "none", "-R", "none", "-M", "none",
                                         "-B", "none", "-U", "none", "-S", "none", "--crpix-center", "-s", "FLUX", "-u",
                                         "arcsecperpix", "-L", f"{scale * 0.9:.3f}", "-H", f"{scale * 1.1:.3f}", "-l",
                                         "20", "-t", "3", "--ra", f"{ra:.6f}", "--dec", f"{dec:.6f}", "--radius", "10.0"]),
        ("INDIGO, stars", "solve-field", ["--overwrite", "--no-plots", "--no-remove-lines", "--no-verify-uniformize",
                                          "--sort-column", "FLUX", "--uniformize", "0", "--ra", str(ra), "--dec", str(dec),
                                          "--radius", "10", "--depth", "100", "--scale-units", "arcsecperpix",
                                          "--scale-low", f"{scale * 0.8:.3f}", "--scale-high", f"{scale * 1.2:.3f}",
                                          "--cpulimit", "30", "--config", "astrometry.cfg", "--axy", "b.axy"]),
    ]


def reference(folder, image, row, index, order):
    config = folder / "astrometry.cfg"
    config.write_text(f"add_path {index.parent}\nautoindex\ninparallel\ncpulimit 20\n")
    scale = float(row["scale_arcsec_px"])
    base = folder / f"reference{order}"
    subprocess.run(["/usr/bin/solve-field", "--config", config, "-O", "-p", "-N", "none", "-R", "none", "-M", "none",
                    "-B", "none", "-U", "none", "--crpix-center", "-u", "app", "-L", str(scale * 0.9), "-H",
                    str(scale * 1.1), "--ra", row["ra_deg"], "--dec", row["dec_deg"], "--radius", "3", "-t",
                    str(order), "-o", base.name, "-D", folder, image], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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
    runs = 0
    for row in rows:
        with tempfile.TemporaryDirectory(prefix="vestrel-hosts-") as name:
            folder = pathlib.Path(name)
            image = folder / row["file"]
            shutil.copyfile(options.pictures / row["file"], image)
            # Distortion of the third order, which every lens has, is none that the second order can show:
            # who asks for it is compared with an answer of that order.
            judges = {order: reference(folder, image, row, options.index, order) for order in (2, 3)}
            judge = judges[2]
            width, height = int(row["width_px"]), int(row["height_px"])
            scale = float(row["scale_arcsec_px"])
            print(f"{row['file']}: {'astrometry.net' if judge else 'truth only, astrometry.net does not solve it'}")
            for title, program, arguments in lines_of(row, width, height):
                link = folder / program
                if not link.exists():
                    link.symlink_to(options.compat.resolve())
                path = folder / "temp.wcs" if "temp" in arguments or "temp.wcs" in arguments else image.with_suffix(".wcs")
                for old in (path, path.with_suffix(".ini")):
                    old.unlink(missing_ok=True)
                given = image
                if title.endswith("stars"):  # as the host would list them; with the picture beside, or without
                    if image.suffix not in (".fit", ".fits"):
                        continue
                    given = image.with_suffix(".xyls")
                    if title.startswith("INDIGO"):
                        given, path = folder / "b.xy", folder / "b.wcs"
                    subprocess.run(["/usr/bin/image2xy", "-O", "-o", given, image], check=True, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
                start = time.monotonic()
                call = [link, "-f", given, *arguments] if program != "solve-field" else [link, *arguments, given]
                run = subprocess.run(call, capture_output=True, text=True, cwd=folder)
                runs += 1
                seconds = time.monotonic() - start
                if run.returncode or not path.exists():
                    print(f"  {title:24} FAILED {run.returncode} {run.stdout[-80:]!r} {run.stderr[-80:]!r} "
                          f"{seconds:.1f} s")
                    failed += 1
                    continue
                ours = WCS(header_of(path))
                middle = [(width - 1) / 2, (height - 1) / 2]
                ra, dec = ours.all_pix2world(*middle, 0)
                third = "-sip" in arguments or ("-t", "3") in zip(arguments, arguments[1:])
                theirs = WCS(judges[3 if third else 2] or judge) if judge else None
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
    for name, pixels in worst.items():
        print(f"| {name} | {pixels:.2f} |")
    print(f"{failed} of {runs} beyond the bounds or unsolved")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
