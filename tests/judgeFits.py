#!/usr/bin/env python3
"""What other programs make of the FITS files in a folder. Prints complaints only.

judgeFits.py saved FOLDER      out.fit, Vestrel's own form, against in.fit
judgeFits.py standard FOLDER   *.fits keep to the standard; 0.fits says what original.fit says
judgeFits.py exported FOLDER   NAME.wcs and NAME.export.fits against points.txt: name, FITS pixel,
                               count, right ascension and declination in degrees
"""
import collections
import pathlib
import shutil
import subprocess
import sys
import warnings

try:
    import numpy
    from astropy.io import fits
    from astropy.wcs import WCS
except ImportError as error:
    sys.exit(f"no judge: {error}")
if not shutil.which("fitsverify"):
    sys.exit("no judge: fitsverify is not installed")


def separation_arcsec(ra1, dec1, ra2, dec2):
    ra1, dec1, ra2, dec2 = (numpy.radians(numpy.asarray(v, dtype=float))
                            for v in (ra1, dec1, ra2, dec2))
    haversine = (numpy.sin((dec2 - dec1) / 2) ** 2 +
                 numpy.cos(dec1) * numpy.cos(dec2) * numpy.sin((ra2 - ra1) / 2) ** 2)
    return numpy.degrees(2 * numpy.arcsin(numpy.sqrt(haversine))) * 3600


def judge_standard(paths):
    for path in paths:
        run = subprocess.run(["fitsverify", path], capture_output=True, text=True)
        if "Verification found 0 warning(s) and 0 error(s)" not in run.stdout:
            print(path.name, run.stdout, run.stderr)
        try:
            dict(fits.getheader(path))
        except Exception as error:  # whatever a header does to it
            print(path.name, repr(error))


def judge_exported(folder):
    rows = collections.defaultdict(list)
    for line in (folder / "points.txt").read_text().splitlines():
        name, *numbers = line.split()
        rows[name].append([float(n) for n in numbers])
    assert rows
    for name, numbers in rows.items():
        x, y, count, ra, dec = numpy.array(numbers).T
        for ending in (".wcs", ".export.fits"):
            path = folder / (name + ending)
            judge_standard([path])
            with fits.open(path) as file:
                header = file[0].header
                for keyword in ("PC1_1", "CROTA2", "LATPOLE"):
                    if keyword in header:
                        print(name, ending, "has", keyword)
                world = WCS(header)
                centre = [(header.get("IMAGEW", header.get("NAXIS1")) + 1) / 2,
                          (header.get("IMAGEH", header.get("NAXIS2")) + 1) / 2]
                if "TAN" not in header["CTYPE1"] or list(world.wcs.crpix) != centre:
                    print(name, ending, "is not gnomonic about its centre")
                if ("SIP" in header["CTYPE1"]) != (world.sip is not None):
                    print(name, ending, "has SIP terms or not")
                if world.sip is not None:
                    corrected = world.sip_pix2foc(x, y, 1)
                    # About CRPIX, as the polynomials are.
                    back = world.sip_foc2pix(*corrected, 1)
                    error = numpy.hypot(back[0] - x, back[1] - y).max()
                    if not error < 0.02:
                        print(name, ending, "the inverse distortion is off by", error, "pixels")
                scale = numpy.sqrt(abs(numpy.linalg.det(world.wcs.cd))) * 3600
                sky = world.all_pix2world(x, y, 1)
                worst = separation_arcsec(sky[0], sky[1], ra, dec).max()
                if not worst < 0.05 * scale:
                    print(name, ending, "is off by", worst, "arcsec")
                if ending == ".export.fits":
                    shown = file[0].data[(y - 1).astype(int), (x - 1).astype(int)]
                    if not (shown == count).all():
                        print(name, "has other counts")


def judge_kept(folder):
    judge_standard(sorted(folder.glob("*.fits")))
    before, after = (fits.getheader(folder / name) for name in ("original.fit", "0.fits"))
    for keyword in ("OBJECT", "DATE-OBS", "EXPTIME", "REMARK", "SITE", "HISTORY", "TELESCOP", "BLANK",
                    "EXPOSURE", "HIERARCH ESO TEL ID"):
        if str(before[keyword]) != str(after[keyword]):
            print(keyword, "was", before[keyword], "and is", after[keyword])
    if "second" not in str(after["COMMENT"]):
        print("the second SITE is lost")
    WCS(after).all_pix2world([[1, 1]], 1)


def judge_saved(folder):
    with fits.open(folder / "in.fit") as before, fits.open(folder / "out.fit") as after:
        if not (before[0].data == after[0].data).all():
            print("other counts")
        header = after[0].header
        if header["NH_PM"] is not True or header["NH_RAREF"] != 5.1 or header["BZERO"] != 32768:
            print("other cards")
        if header["OBJECT"] != "M 31" or header["EXPTIME"] != 30.5 or header["FILTER"] != 0:
            print("other values")
    # What is known to be against the standard, and nothing else.
    known = ("mandatory keyword is not in", 'is not a string', "has illegal format", "null(\\0)",
             "has a null value", "fill area is not totally filled with blanks", "CFITSIO error stack")
    run = subprocess.run(["fitsverify", folder / "out.fit"], capture_output=True, text=True)
    for line in (run.stdout + run.stderr).splitlines():
        if line.startswith("*** ") and not any(words in line for words in known):
            print(line)


warnings.simplefilter("ignore")
{"exported": judge_exported, "saved": judge_saved,
 "standard": judge_kept}[sys.argv[1]](pathlib.Path(sys.argv[2]))
