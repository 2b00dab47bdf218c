#!/usr/bin/env python3
"""Writes pictures in every format that is read, solves each file, and has astropy judge the exports.

usage: bench/pictureFormats.py BUILD PICTURE... [--places TABLE] [--write docs/FORMATS.md]
       bench/pictureFormats.py BUILD --folder FOLDER

Each PICTURE (FITS, JPEG) is solved as it is: that is the reference. Then it is written in each form,
with hints in the header where the form has one, and each file has to give the same sky: the same
centre, the same corners in the exported file and in the .wcs file, and exported counts that show what
the picture showed, the same way up. TABLE (tab-separated: file, hint_ra_deg, hint_dec_deg,
width_arcmin, height_arcmin) says where to look for pictures that say nothing. With --folder the files
of a folder are judged instead, against its u16.fits.

Needs Debian's python3-astropy and python3-pil, and python3-tifffile for TIFF and DNG.
"""
import argparse
import csv
import json
import pathlib
import struct
import subprocess
import tempfile
import zlib

import numpy as np
import tifffile
from astropy.io import fits
from astropy.wcs import WCS
from PIL import Image

import judging

MARKS = "<!-- measured -->", "<!-- end of measured -->"


def read_counts(path):
    """The picture as rows from the bottom."""
    if path.suffix in (".fit", ".fits"):
        with fits.open(path) as file:
            data = next(part.data for part in file if part.data is not None).astype(float)
        return data.mean(axis=0) if data.ndim == 3 else data
    data = np.asarray(Image.open(path).convert("RGB"), dtype=float).sum(axis=2)
    return data[::-1]


def hints_of(ra, dec, scale):
    return {"RA": ra, "DEC": dec, "FOCALLEN": 500.0, "XPIXSZ": scale * 500 / 206.264806}


def write_xisf(path, top, sample, cards, packed=False):
    raw, extra = top.tobytes(), ""
    if packed:
        shuffled = np.frombuffer(raw, np.uint8).reshape(-1, top.itemsize).T.tobytes()
        extra = f' compression="zlib+sh:{len(raw)}:{top.itemsize}"'
        raw = zlib.compress(shuffled)
    keywords = "".join(f'<FITSKeyword name="{k}" value="{v}" comment=""/>' for k, v in cards.items())
    start = 4096
    xml = (f'<?xml version="1.0"?><xisf version="1.0"><Image geometry="{top.shape[1]}:{top.shape[0]}:1" '
           f'sampleFormat="{sample}" bounds="0:1" colorSpace="Gray" '
           f'location="attachment:{start}:{len(raw)}"{extra}>{keywords}</Image></xisf>').encode()
    head = b"XISF0100" + struct.pack("<II", len(xml), 0) + xml
    path.write_bytes(head.ljust(start, b"\0") + raw)


def write_dng(path, top):
    """A mosaic with four pixels for each one of the picture."""
    mosaic = np.kron(top // 4, np.ones((2, 2), np.uint16)).astype(np.uint16)
    tags = [(33421, "H", 2, (2, 2), True), (33422, "B", 4, bytes((0, 1, 1, 2)), True),
            (50706, "B", 4, bytes((1, 3, 0, 0)), True), (50708, "s", 0, "Maker Model", True),
            (271, "s", 0, "Maker", True), (272, "s", 0, "Model", True)]
    tifffile.imwrite(path, mosaic, photometric=32803, extratags=tags, metadata=None)


def forms(counts, cards):
    """(name, ending, whether its header has the hints, write(path)) of each form."""
    low, high = np.percentile(counts, [0.1, 99.99])
    counts = np.clip((counts - low) / max(high - low, 1) * 50000 + 1000, 0, 65535)
    u16 = counts.astype(np.uint16)
    top = np.ascontiguousarray(u16[::-1])
    eight = (top / 257).astype(np.uint8)
    header = fits.Header(cards)
    text = json.dumps(cards)
    unit = (counts / 65535).astype(np.float32)

    def hdu(data):
        return lambda path: fits.PrimaryHDU(data, header).writeto(path)

    def packed(kind, data, **more):
        return lambda path: fits.HDUList([fits.PrimaryHDU(), fits.CompImageHDU(
            data, header, compression_type=kind, **more)]).writeto(path)

    def pil(picture, **more):
        return lambda path: picture.save(path, **more)

    def tiff(data, **more):
        return lambda path: tifffile.imwrite(path, data, description=text, **more)

    grey, rgb = Image.fromarray(eight), Image.fromarray(np.dstack([eight] * 3))
    exif = grey.getexif()
    exif[0x0112] = 6
    return [
        ("FITS 16", "fits", True, hdu(u16)),
        ("FITS 32", "fits", True, hdu((counts * 1000).astype(np.int32))),
        ("FITS 64", "fits", True, hdu((counts * 1000).astype(np.int64))),
        ("FITS -32, 0..1", "fits", True, hdu(unit)),
        ("FITS -64, 0..1", "fits", True, hdu(counts / 65535)),
        ("FITS, three planes", "fits", True, hdu(np.stack([unit, unit * 0.8, unit * 0.6]))),
        ("FITS, extension", "fits", True, lambda path: fits.HDUList(
            [fits.PrimaryHDU(), fits.ImageHDU(u16, header)]).writeto(path)),
        ("FITS, gzip", "fits.gz", True, hdu(u16)),
        ("FITS, Rice", "fits.fz", True, packed("RICE_1", u16)),
        ("FITS, Rice of floats", "fits.fz", True, packed("RICE_1", unit, quantize_level=16)),
        ("FITS, GZIP tiles", "fits.fz", True, packed("GZIP_1", u16)),
        ("FITS, HCOMPRESS", "fits.fz", True, packed("HCOMPRESS_1", u16)),
        ("TIFF 16", "tif", True, tiff(top)),
        ("TIFF 16, big-endian", "tif", True, tiff(top.astype(">u2"), byteorder=">")),
        ("TIFF 32", "tif", True, tiff((top.astype(np.uint64) * 60000).astype(np.uint32))),
        ("TIFF, floats", "tiff", True, tiff(np.ascontiguousarray(unit[::-1]))),
        ("TIFF, RGB tiles, Deflate", "tif", True, tiff(
            np.dstack([top] * 3), tile=(256, 256), photometric="rgb", compression="zlib")),
        ("PNG 16", "png", False, pil(Image.fromarray(top))),
        ("PNG 8, RGB", "png", False, pil(rgb)),
        ("JPEG, grey", "jpeg", False, pil(grey, quality=95)),
        ("JPEG, four inks", "jpg", False, pil(rgb.convert("CMYK"), quality=95)),
        ("JPEG, EXIF orientation 6", "jpg", False, pil(grey, quality=95, exif=exif)),
        ("XISF UInt16", "xisf", True, lambda path: write_xisf(path, top, "UInt16", cards)),
        ("XISF Float32", "xisf", True, lambda path: write_xisf(
            path, np.ascontiguousarray(unit[::-1]), "Float32", cards)),
        ("XISF UInt16, zlib+sh", "xisf", True, lambda path: write_xisf(
            path, top, "UInt16", cards, True)),
        ("RAW (DNG of libtiff's kind)", "dng", False, lambda path: write_dng(path, top)),
    ]


class Solver:
    def __init__(self, build, folder):
        self.program, self.folder = pathlib.Path(build) / "bin/vestrel-solve", folder

    def solve(self, path, options=()):
        """None, or the world coordinates of export and .wcs file, the exported counts, the JSON."""
        export, wcs = self.folder / "export.fits", path.with_suffix(".wcs")
        for old in (export, wcs):
            old.unlink(missing_ok=True)
        run = subprocess.run([self.program, path, "--json", "--export", export, "--wcs", *options],
                             capture_output=True, check=False)
        if run.returncode != 0:
            return None
        with fits.open(export) as file:
            data = file[0].data.astype(float)
            sky = WCS(file[0].header)
        return sky, WCS(fits.getheader(wcs)), data, json.loads(run.stdout)


def pixels_apart(one, other, places):
    """The largest distance of two skies in pixels of the first."""
    skies = other.all_pix2world(places, 1)
    return float(np.hypot(*(one.all_world2pix(skies, 1) - places).T).max())


def judge(reference, found):
    """(centre, corners, .wcs corners: pixels apart; correlation of the counts)"""
    sky, _, data, _ = reference
    height, width = data.shape
    centre = [[(width + 1) / 2, (height + 1) / 2]]
    corners = np.array([[1, 1], [width, 1], [1, height], [width, height]], float)
    other = found[2]
    same = np.corrcoef(np.sqrt(np.maximum(data, 0)).ravel(),
                       np.sqrt(np.maximum(other, 0)).ravel())[0, 1] if other.shape == data.shape else 0
    return (pixels_apart(sky, found[0], np.array(centre)), pixels_apart(sky, found[0], corners),
            pixels_apart(sky, found[1], corners), float(same))


def stars_off(found):
    """The median distance of stars in the exported counts from where its coordinates put them."""
    sky, _, data, solution = found
    off = []
    for match in solution["matches"]:
        x, y = sky.all_world2pix([[match["ra_deg"], match["dec_deg"]]], 0)[0]
        i, j = round(x), round(y)
        if min(i, j) < 6 or i > data.shape[1] - 7 or j > data.shape[0] - 7:
            continue
        cut = data[j - 4:j + 5, i - 4:i + 5]
        light = np.maximum(cut - np.median(data[j - 6:j + 7, i - 6:i + 7]), 0)
        if light.sum() > 0:
            rows, columns = np.mgrid[j - 4:j + 5, i - 4:i + 5]
            off.append(((light * columns).sum() / light.sum() - x,
                        (light * rows).sum() / light.sum() - y))
    return np.median(np.array(off), axis=0)


def judge_folder(solver, folder):
    reference = solver.solve(folder / "u16.fits")
    worst = [0.0, 0.0, 0.0]
    failed = 0
    names = sorted(path for path in folder.iterdir() if path.suffix not in (".tsv", ".wcs"))
    for path in names:
        found = solver.solve(path)
        if found is None:
            failed += 1
            print(f"{path.name}: NOT SOLVED")
            continue
        result = judge(reference, found)
        worst = [max(a, b) for a, b in zip(worst, result)]
        print(f"{path.name}: centre {result[0]:.3f}, corners {result[1]:.3f}, .wcs {result[2]:.3f} "
              f"pixels, counts {result[3]:.4f}")
    print(f"{len(names)} files, {failed} not solved; worst: centre {worst[0]:.3f}, corners "
          f"{worst[1]:.3f}, .wcs {worst[2]:.3f} pixels")
    return failed


def judge_pictures(solver, pictures, places, folder):
    rows = {}
    for picture in pictures:
        place = places.get(picture.name)
        options = []
        if place:
            options = ["--ra", place["hint_ra_deg"], f"--dec={place['hint_dec_deg']}",
                       "--size", f"{place['width_arcmin']}x{place['height_arcmin']}"]
        (folder / "reference").mkdir(exist_ok=True)
        original = folder / "reference" / picture.name
        original.write_bytes(picture.read_bytes())
        reference = solver.solve(original, options)
        if reference is None:
            print(f"{picture.name}: the picture itself is not solved")
            continue
        print(f"{picture.name}: stars of the export off by", np.round(stars_off(reference), 3))
        solution = reference[3]
        centre = [f"{solution['ra_deg']}", f"--dec={solution['dec_deg']}"]
        size = f"{solution['width_arcmin']}x{solution['height_arcmin']}"
        cards = hints_of(solution["ra_deg"], solution["dec_deg"], solution["scale_arcsec_px"])
        for name, ending, hinted, write in forms(read_counts(picture), cards):
            path = folder / f"form.{ending}"
            path.unlink(missing_ok=True)
            write(path)
            given = [] if hinted else ["--ra", centre[0], centre[1], "--size", size]
            found = solver.solve(path, given)
            row = rows.setdefault(name, [0, 0, [0.0, 0.0, 0.0], 1.0])
            row[0] += 1
            if found is None:
                print(f"{picture.name} as {name}: NOT SOLVED")
                continue
            row[1] += 1
            result = judge(reference, found)
            row[2] = [max(a, b) for a, b in zip(row[2], result)]
            row[3] = min(row[3], result[3])
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("build")
    parser.add_argument("pictures", nargs="*", type=pathlib.Path)
    parser.add_argument("--places", type=pathlib.Path)
    parser.add_argument("--folder", type=pathlib.Path)
    parser.add_argument("--write", type=pathlib.Path)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        solver = Solver(arguments.build, folder)
        if arguments.folder:
            raise SystemExit(judge_folder(solver, arguments.folder) > 0)
        places = {}
        if arguments.places:
            with open(arguments.places, encoding="utf-8") as table:
                for row in csv.DictReader(table, delimiter="\t"):
                    places.setdefault(row["file"], row)
        rows = judge_pictures(solver, arguments.pictures, places, folder)
    lines = ["| written as | solved | centre, px | corners, px | .wcs corners, px | counts |",
             "|---|---|---|---|---|---|"]
    for name, (count, solved, (centre, corners, wcs), same) in rows.items():
        lines.append(f"| {name} | {solved} of {count} | {centre:.3f} | {corners:.3f} | {wcs:.3f} | {same:.3f} |")
    text = "\n".join(lines)
    print(text)
    if arguments.write:
        judging.write_between(MARKS, text, arguments.write)


if __name__ == "__main__":
    main()
