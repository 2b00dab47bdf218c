#!/usr/bin/env python3
"""Calls the commands for hosts as hosts do, and reads the results by the hosts' own rules.

Environment: VESTREL_COMPAT the program; VESTREL_CATALOG_TOOL the one that draws frames;
VESTREL_TEST_CATALOG a real catalog (else the usual folder); VESTREL_STELLARSOLVER a program that calls
solvers through StellarSolver, where it was built.
"""
import ctypes
import gzip
import json
import math
import os
import pathlib
import random
import re
import resource
import shutil
import subprocess
import tempfile
import time
import unittest
import warnings

import numpy
from astropy.io import fits
from astropy.table import Table
from astropy.wcs import WCS, FITSFixedWarning

warnings.simplefilter("ignore", FITSFixedWarning)  # that a header has no image with it
COMPAT = os.environ["VESTREL_COMPAT"]
CATALOG = pathlib.Path(os.environ.get("VESTREL_TEST_CATALOG") or os.path.join(
    os.environ.get("XDG_DATA_HOME", os.path.expanduser("~/.local/share")), "Harrowdene/KEL"))
RA, DEC, SCALE, WIDTH, HEIGHT = 56.7, 24.1, 9.0, 600, 400  # of the drawn frame; degrees, arcseconds
FIELD_HEIGHT = HEIGHT * SCALE / 3600
POSITION = ["-ra", f"{RA / 15 + 0.02:.6f}", "-spd", f"{DEC + 90 - 0.2:.6f}"]


def skip_or_fail(test, reason):
    if os.environ.get("CI"):
        test.fail(reason)
    test.skipTest(reason)


def ini_of(path):
    """As N.I.N.A. reads it: every line has a "=", the first one parts it, no key comes twice."""
    text = path.read_bytes().decode("utf-8")
    assert text.startswith("PLTSOLVD="), text  # StellarSolver and CCDciel look at the first line
    pairs = [line.split("=", 1) for line in text.splitlines()]
    result = dict(pairs)
    assert len(result) == len(pairs), text
    return result


def wcs_of(path, text=False):
    if text:  # as CCDciel does: line by line, filled up to 80 characters
        lines = path.read_text().splitlines()
        assert max(map(len, lines)) <= 80 and lines[-1] == "END"
        return WCS(fits.Header.fromstring("".join(line.ljust(80) for line in lines)))
    assert path.stat().st_size % 2880 == 0
    return WCS(fits.getheader(path))


def linear_wcs(ini):
    wcs = WCS(naxis=2)
    wcs.wcs.ctype = ["RA---TAN", "DEC--TAN"]
    wcs.wcs.crpix = [float(ini["CRPIX1"]), float(ini["CRPIX2"])]
    wcs.wcs.crval = [float(ini["CRVAL1"]), float(ini["CRVAL2"])]
    wcs.wcs.cd = [[float(ini[f"CD{i}_{k}"]) for k in (1, 2)] for i in (1, 2)]
    return wcs


class Hosts(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.TemporaryDirectory(prefix="vestrel-hosts-")
        cls.addClassCleanup(cls.home.cleanup)
        cls.links = pathlib.Path(cls.home.name) / "compat"
        cls.links.mkdir()
        for name in ("astap", "astap_cli", "solve-field", "wcsinfo"):
            (cls.links / name).symlink_to(COMPAT)
        cls.environment = dict(os.environ, VESTREL_CATALOG=str(CATALOG),
                               VESTREL_SETTINGS=str(pathlib.Path(cls.home.name) / "Vestrel.ini"))
        cls.frame = pathlib.Path(cls.home.name) / "frame.fit"
        subprocess.run([os.environ["VESTREL_CATALOG_TOOL"], "render", "--catalog", CATALOG, "--ra", str(RA),
                        "--dec", str(DEC), "--size", f"{WIDTH * SCALE / 60}x{HEIGHT * SCALE / 60}",
                        "--width-px", str(WIDTH), "--rotation", "30", "--out", cls.frame],
                       check=True, stdout=subprocess.DEVNULL)
        cls.truth = json.loads(cls.frame.with_suffix(".truth.json").read_text())
        cls.header = fits.getheader(cls.frame)
        cls.pixels = fits.getdata(cls.frame).astype(numpy.float64)

    def setUp(self):
        if not (CATALOG / "quads.tables").exists():
            skip_or_fail(self, f"no quad tables in {CATALOG}; vestrel-catalog quads makes them")
        folder = tempfile.TemporaryDirectory(prefix="vestrel hosts ", dir=self.home.name)
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_as(self, name, *arguments, code=0, **options):
        run = subprocess.run([self.links / name, *map(str, arguments)], capture_output=True, text=True,
                             env=self.environment, cwd=self.folder, timeout=100, **options)
        self.assertEqual(run.returncode, code, run.stdout + run.stderr)
        self.assertLess(len(run.stdout) + len(run.stderr), 1024)
        return run

    def copy(self, name="image.fits"):
        path = self.folder / name
        shutil.copyfile(self.frame, path)
        return path

    def check_wcs(self, wcs, tolerance=0.3):
        """Centre within 1", corners within 1 pixel of the truth, CRVAL at the centre."""
        numpy.testing.assert_allclose(wcs.wcs.crpix, [(WIDTH + 1) / 2, (HEIGHT + 1) / 2], atol=1e-9)
        ra, dec = wcs.wcs.crval
        off = math.hypot((ra - self.truth["ra_deg"]) * math.cos(math.radians(dec)), dec - self.truth["dec_deg"])
        self.assertLess(off * 3600, tolerance * SCALE)
        for corner in self.truth["corners"]:
            x, y = wcs.all_world2pix(corner["ra_deg"], corner["dec_deg"], 0)
            self.assertLess(math.hypot(x - corner["x"], y - corner["y"]), 1)


class Astap(Hosts):
    def solved(self, *arguments, base="image"):
        self.run_as("astap", *arguments)
        ini = ini_of(self.folder / f"{base}.ini")
        self.assertEqual(ini["PLTSOLVD"], "T")
        self.check_wcs(linear_wcs(ini))
        return ini

    def test_lines_of_hosts(self):
        image = self.copy("abcdefgh.xyz.fits")
        ini = self.solved("-f", image, "-fov", FIELD_HEIGHT, "-z", 0, "-s", 500, "-r", 30, *POSITION,
                          base="abcdefgh.xyz")
        self.assertNotIn("WARNING", ini)  # it would open a window
        self.check_wcs(wcs_of(self.folder / "abcdefgh.xyz.wcs", text=True))
        # The older keywords say the same: turned back they give the matrix.
        delta = [float(ini["CDELT1"]), float(ini["CDELT2"])]
        turn = math.radians(float(ini["CROTA2"]))
        for key, value in (("CD1_1", delta[0] * math.cos(turn)), ("CD2_1", delta[0] * math.sin(turn)),
                           ("CD1_2", -delta[1] * math.sin(turn)), ("CD2_2", delta[1] * math.cos(turn))):
            self.assertAlmostEqual(float(ini[key]) * 3600, value * 3600, delta=0.01 * SCALE)
        self.assertLess(delta[0], 0)  # the normal sky
        self.solved("-f", image, "-fov", FIELD_HEIGHT, "-z", 0, "-s", 500, "-r", 180, base="abcdefgh.xyz")
        # KStars: the base is an .ini, the header is in blocks, the scale may be absent.
        for hints in (["-fov", f"{FIELD_HEIGHT * 0.64:g}", *POSITION, "-r", 30], []):
            self.solved("-o", self.folder / "out_1.ini", "-speed", "auto", "-f", image, "-wcs", "-z", 0,
                        *hints, "-log", base="out_1")
            self.check_wcs(wcs_of(self.folder / "out_1.wcs"))
            self.assertTrue((self.folder / "out_1.log").exists())
        # MountWizzard4: a base without extension, a folder with another program's catalog.
        self.solved("-f", image, "-o", self.folder / "temp", "-wcs", "-r", "20.0", "-t", "0.005", "-z", 0,
                    "-d", self.folder, base="temp")

    def test_scale_that_is_off(self):
        image = self.copy()
        for factor in (0.6, 0.8, 1.04, 1.1, 1.3):
            ini = self.solved("-f", image, "-fov", FIELD_HEIGHT * factor, *POSITION, "-r", 10)
            self.assertEqual("WARNING" in ini, abs(factor - 1) > 0.05)
            if "WARNING" in ini:
                self.assertIn(f"Set FOV={FIELD_HEIGHT:.2f}d, scale={SCALE:.1f}", ini["WARNING"])

    def test_hints_of_the_header_alone(self):
        header = fits.Header({"OBJCTRA": "03 47 10", "OBJCTDEC": "+24 00 00", "FOCALLEN": 200.0,
                              "XPIXSZ": SCALE * 200 / 206.265, "XBINNING": 2, "ROWORDER": "TOP-DOWN",
                              "LONG": "x" * 90})  # which goes on in CONTINUE cards
        fits.PrimaryHDU(self.pixels.astype(numpy.uint16), header).writeto(self.folder / "image.fits")
        self.solved("-log", "-z", 0, "-r", 30, "-f", self.folder / "image.fits", "-wcs")
        written = fits.getheader(self.folder / "image.wcs")
        self.assertEqual(written["XBINNING"], 2)
        self.assertNotIn("CONTINUE", written)
        self.assertEqual((written["IMAGEW"], written["IMAGEH"]), (WIDTH, HEIGHT))

    def test_every_sample_type(self):
        low, high = self.pixels.min(), self.pixels.max()
        kinds = {"u8": ((self.pixels - low) / (high - low) * 255).astype(numpy.uint8),
                 "i16": (self.pixels / 2).astype(numpy.int16), "u16": self.pixels.astype(numpy.uint16),
                 "i32": self.pixels.astype(numpy.int32), "u32": self.pixels.astype(numpy.uint32),
                 "unit": (self.pixels / 65535).astype(numpy.float32),
                 "float": self.pixels.astype(numpy.float32), "double": self.pixels}
        for name, pixels in kinds.items():
            with self.subTest(name):
                fits.PrimaryHDU(pixels).writeto(self.folder / f"{name}.fits")
                self.solved("-f", f"{name}.fits", "-fov", FIELD_HEIGHT, *POSITION, base=name)

    def test_words_that_parsers_stumble_over(self):
        image = self.copy()
        ini = self.solved("-f", image, "-fov", str(FIELD_HEIGHT).replace(".", ","), "-t", "1e-05", "-sip",
                          "-check", "-unknown", "-5", "-other", *POSITION, "-r=30", "-z")
        self.assertIn("-unknown -5", ini["CMDLINE"])
        self.assertIn("usage", self.run_as("astap_cli", "-h").stdout)
        self.run_as("astap", code=0)
        self.run_as("astap", "-f", image, "-analyse", code=1)
        self.assertIn("-analyse", ini_of(self.folder / "image.ini")["ERROR"])
        # Neither a long word nor a control character reaches the host's pipe.
        run = self.run_as("astap", "-f", image, "-focus\x1b[2J" + "x" * 5000, code=1)
        self.assertNotIn("\x1b", run.stdout + run.stderr)
        self.assertFalse((self.folder / "image.wcs").exists())

    def test_names(self):
        for name in ("a b", "#1", "ü", "two.dots.x", "n" * 240):
            image = self.copy(name + ".fit")
            self.solved("-f", image.name, "-fov", FIELD_HEIGHT, *POSITION, base=name)

    def test_failures_say_which(self):
        empty = self.folder / "empty.fits"
        fits.PrimaryHDU(numpy.full((300, 300), 100, numpy.int16)).writeto(empty)
        (self.folder / "no.fits").write_text("no picture")
        (self.folder / "folder").mkdir()
        for name, code, error, environment in (
                ("empty", 2, "Not enough stars.", {}), ("no", 16, "Error reading image file.", {}),
                ("frame", 32, "No star database found.", {"VESTREL_CATALOG": str(self.folder / "folder")})):
            self.copy("frame.fits")
            (self.folder / f"{name}.wcs").write_text("of an earlier run")
            run = subprocess.run([self.links / "astap", "-f", f"{name}.fits", "-fov", str(FIELD_HEIGHT)],
                                 cwd=self.folder, env={**self.environment, **environment}, capture_output=True)
            self.assertEqual((name, run.returncode), (name, code))
            ini = ini_of(self.folder / f"{name}.ini")
            self.assertEqual((ini["PLTSOLVD"], ini["ERROR"]), ("F", error))
            self.assertFalse((self.folder / f"{name}.wcs").exists())

    def damaged_catalog(self):
        """The whole catalog by links, without its tables, and the cells of the frame cut in the middle of a star."""
        folder = self.folder / "damaged"
        folder.mkdir()
        for cell in CATALOG.iterdir():
            if cell.name != "quads.tables":
                (folder / cell.name).symlink_to(cell)
        cut = 0
        for zone in range(int((DEC - 2) / 2.5), int((DEC + 2) / 2.5) + 1):
            for cell in folder.glob(f"N{zone:02d}R*"):
                data = cell.read_bytes()
                cell.unlink()
                cell.write_bytes(data[:25])
                cut += 1
        self.assertGreater(cut, 20)
        return folder

    def test_a_damaged_catalog_is_told_from_none(self):
        folder = self.damaged_catalog()
        line = ["-f", self.copy(), "-fov", FIELD_HEIGHT, *POSITION, "-d", folder, "-r", 3]
        self.run_as("astap", *line, code=33)
        ini = ini_of(self.folder / "image.ini")
        self.assertEqual((ini["PLTSOLVD"], ini["ERROR"]), ("F", "Error reading star database."))
        # Whole cells, but tables that somebody has written over.
        for cell in folder.glob("N*"):
            if not cell.is_symlink():
                cell.unlink()
                cell.symlink_to(CATALOG / cell.name)
        with open(CATALOG / "quads.tables", "rb") as tables:
            (folder / "quads.tables").write_bytes(tables.read(16) + bytes(5000))
        bare = self.folder / "bare.fits"
        fits.PrimaryHDU(self.pixels.astype(numpy.uint16)).writeto(bare)
        self.run_as("astap", "-f", bare, "-fov", FIELD_HEIGHT, "-d", folder, code=33)
        # What does not need them is solved nevertheless.
        self.solved(*line)

    def test_update_touches_nothing_but_the_coordinates(self):
        header = fits.Header({"OBJECT": "Maia", "LONG": "x" * 90, "CRVAL1": 1.0, "CTYPE1": "RA---SIN", "CD1_1": 5.0,
                              "A_ORDER": 2, "A_2_0": 1.0})
        table = fits.BinTableHDU(Table({"a": [1, 2, 3]}))
        image = self.folder / "image.fits"
        fits.HDUList([fits.PrimaryHDU(self.pixels.astype(numpy.uint16), header), table]).writeto(image, checksum=True)
        image.chmod(0o640)
        if os.geteuid() == 0:
            os.chown(image, 1234, 1235)
        owner = image.stat().st_uid, image.stat().st_gid
        before = fits.open(image, memmap=False)
        self.addCleanup(before.close)
        line = ["-f", image, "-fov", FIELD_HEIGHT, *POSITION, "-update", "-sip"]
        for _ in range(2):  # the second time over what the first one has written
            self.assertNotIn("WARNING", self.solved(*line))
            after = fits.open(image, memmap=False)
            self.addCleanup(after.close)
            numpy.testing.assert_array_equal(after[0].data, before[0].data)
            self.assertEqual(after[1].data.tolist(), before[1].data.tolist())
            self.assertEqual((after[0].header["OBJECT"], after[0].header["LONG"]), ("Maia", "x" * 90))
            self.check_wcs(WCS(after[0].header))
            for key in ("CRVAL1", "CTYPE1", "CD1_1", "PLTSOLVD", "COMMENT"):
                self.assertEqual(after[0].header.count(key), 1)
            after.verify("exception")
        self.assertEqual(image.stat().st_mode & 0o777, 0o640)
        self.assertEqual((image.stat().st_uid, image.stat().st_gid), owner)
        # Killed at any moment the image is the old one or the new one.
        fits.HDUList(before).writeto(image, overwrite=True)
        whole = image.read_bytes()
        self.solved(*line)
        new = image.read_bytes()
        order = random.Random(5)
        for _ in range(8):
            image.write_bytes(whole)
            run = subprocess.Popen([self.links / "astap", *map(str, line)], env=self.environment, cwd=self.folder,
                                   stdout=subprocess.DEVNULL)
            time.sleep(order.uniform(0, 0.25))
            run.kill()
            run.wait()
            self.assertIn(len(image.read_bytes()), (len(whole), len(new)))
            self.assertEqual(fits.getdata(image).tobytes(), before[0].data.tobytes())

    def test_an_image_that_cannot_be_updated_is_left_and_told(self):
        packed = self.folder / "image.fits.gz"
        packed.write_bytes(gzip.compress(self.frame.read_bytes()))
        before = packed.read_bytes()
        run = self.run_as("astap", "-f", packed, "-fov", FIELD_HEIGHT, *POSITION, "-update", "-log", code=34)
        ini = ini_of(self.folder / "image.fits.ini")
        self.assertEqual((ini["PLTSOLVD"], ini["WARNING"]), ("T", "The image file was not updated."))
        self.assertIn("no FITS file", (self.folder / "image.fits.log").read_text())
        self.check_wcs(linear_wcs(ini))
        self.assertEqual(packed.read_bytes(), before, run.stdout)
        # A disk on which only the small files have room.
        image = self.copy()
        before = image.read_bytes()
        limit = 65536
        run = subprocess.run([self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION, "-update"],
                             env=self.environment, stdout=subprocess.DEVNULL,
                             preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
        self.assertEqual(run.returncode, 34)
        self.assertEqual(image.read_bytes(), before)
        self.assertEqual(ini_of(self.folder / "image.ini")["PLTSOLVD"], "T")

    def update(self, image, wrapper=(), code=34, **options):
        """A run with -update, of which the results lie elsewhere."""
        run = subprocess.run([*wrapper, self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION,
                              "-update", "-o", str(self.folder / "result")], env=self.environment, capture_output=True,
                             text=True, **options)
        self.assertEqual(run.returncode, code, run.stdout + run.stderr)
        return ini_of(self.folder / "result.ini")

    def test_an_image_in_an_extension_or_on_a_read_only_disk_is_left_and_told(self):
        image = self.folder / "extension.fits"
        fits.HDUList([fits.PrimaryHDU(), fits.ImageHDU(self.pixels.astype(numpy.uint16))]).writeto(image)
        before = image.read_bytes()
        ini = self.update(image)
        self.assertEqual((ini["PLTSOLVD"], ini["WARNING"]), ("T", "The image file was not updated."))
        self.check_wcs(linear_wcs(ini))
        self.assertEqual(image.read_bytes(), before)
        # What the warning is told beside: the scale was off, and the .wcs file has both.
        self.run_as("astap", "-f", image, "-fov", FIELD_HEIGHT * 1.2, *POSITION, "-update", code=34)
        warning = ini_of(self.folder / "extension.ini")["WARNING"]
        self.assertRegex(warning, r"^Warning scale was inaccurate! .* The image file was not updated\.$")
        folder = self.folder / "locked"
        folder.mkdir()
        shutil.copyfile(self.frame, folder / "image.fits")
        before = (folder / "image.fits").read_bytes()
        mounted = ["unshare", "-rm", "sh", "-c", f'mount --bind "{folder}" "{folder}" && '
                   f'mount -o remount,ro,bind "{folder}" && exec "$0" "$@"']
        if subprocess.run([*mounted, "true"], stderr=subprocess.DEVNULL).returncode:
            if os.geteuid() == 0:
                return  # nothing can be locked for a superuser who may not mount
            (folder / "image.fits").chmod(0o444)
            mounted = []
        ini = self.update(folder / "image.fits", mounted)
        self.assertEqual((ini["PLTSOLVD"], ini["WARNING"]), ("T", "The image file was not updated."))
        self.assertEqual((folder / "image.fits").read_bytes(), before)
        self.assertEqual([file.name for file in folder.iterdir()], ["image.fits"])

    def test_an_image_that_vanishes_meanwhile_is_not_made_anew_in_part(self):
        image = self.folder / "image.fits"
        order = random.Random(6)
        length = self.frame.stat().st_size
        for _ in range(8):
            self.copy("image.fits")
            run = subprocess.Popen([self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION, "-update"],
                                   env=self.environment, cwd=self.folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(order.uniform(0, 0.25))
            image.unlink()
            code = run.wait(60)
            ini = ini_of(self.folder / "image.ini")
            self.assertIn((code, ini["PLTSOLVD"]), ((0, "T"), (34, "T"), (16, "F")))
            if code == 34:
                self.assertIn("not updated", ini["WARNING"])
            if image.exists():  # it was read, then deleted, then written
                self.assertEqual((code, (image.stat().st_size - length) % 2880), (0, 0))
                self.check_wcs(WCS(fits.getheader(image)))
                image.unlink()
            self.assertEqual([path.name for path in self.folder.glob("*.tmp")], [])

    def test_old_results_in_a_locked_folder_do_not_stand(self):
        image = self.copy()
        old = [self.folder / f"image{extension}" for extension in (".ini", ".wcs", ".new", ".solved")]
        lines = {"astap": ["-f", str(image)], "solve-field": ["-O", str(image)]}
        self.addCleanup(self.folder.chmod, 0o700)

        def no_superuser():  # who may write everywhere
            ctypes.CDLL(None).prctl(24, 1)  # drops CAP_DAC_OVERRIDE

        for mode in (0o644, 0o444):
            for path in old:
                path.write_text("PLTSOLVD=T\n")
                path.chmod(mode)
            self.folder.chmod(0o500)
            for name, line in lines.items():
                run = subprocess.run([self.links / name, *line], env=self.environment, capture_output=True, text=True,
                                     preexec_fn=no_superuser)
                self.assertEqual(run.returncode, 1, run.stdout + run.stderr)
                self.assertRegex(run.stderr, "cannot be (removed|written)")
            # What no longer holds is empty, unless that too is forbidden.
            self.assertEqual([path.read_text() for path in old[:3]], ["" if mode == 0o644 else "PLTSOLVD=T\n"] * 3)
            self.folder.chmod(0o700)
            for path in old:
                path.chmod(0o644)

    def test_update_never_puts_a_solution_into_a_picture_that_came_meanwhile(self):
        image, ini, other = self.folder / "image.fits", self.folder / "image.ini", self.folder / "other.fits"
        fits.PrimaryHDU(self.pixels[::-1].astype(numpy.uint16)).writeto(other)  # its solution is mirrored
        for delay in (0.005, 0.02, 0.04, 0.06, 0.1, 0.15):
            self.copy("image.fits")
            ini.write_text("of an earlier run")
            run = subprocess.Popen([self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION, "-update"],
                                   env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while ini.exists() and run.poll() is None:  # it goes right before the picture is read
                time.sleep(0.001)
            time.sleep(delay)
            shutil.copyfile(other, self.folder / "next")
            (self.folder / "next").replace(image)
            if run.wait(60) == 34:
                self.assertIn("not updated", ini_of(ini)["WARNING"])
                self.assertEqual(image.read_bytes(), other.read_bytes())
            elif "CD1_1" in fits.getheader(image):  # of the picture that the file holds
                mirrored = numpy.linalg.det(WCS(fits.getheader(image)).wcs.cd) > 0
                self.assertEqual(mirrored, numpy.array_equal(fits.getdata(image), self.pixels[::-1]))

    def test_a_full_disk_leaves_nothing_and_is_told(self):
        image = self.copy()
        for name in ("astap", "solve-field"):
            line = ["-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION] if name == "astap" else \
                ["-O", "-N", "none", "--ra", str(RA), "--dec", str(DEC), "-u", "app", "-L", "8", "-H", "10", str(image)]
            run = subprocess.run([self.links / name, *line], env=self.environment, capture_output=True, text=True,
                                 preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100)))
            self.assertNotEqual(run.returncode, 0, run)
            self.assertIn("cannot be written", run.stderr)
            self.assertEqual([file.name for file in self.folder.iterdir()], [image.name])

    def test_no_half_file_remains(self):
        image = self.copy()
        line = [self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION, "-wcs"]
        order = random.Random(7)
        for _ in range(12):
            for name in ("image.ini", "image.wcs"):
                (self.folder / name).unlink(missing_ok=True)
            run = subprocess.Popen(line, env=self.environment, stdout=subprocess.DEVNULL)
            time.sleep(order.uniform(0, 0.2))
            run.kill()
            run.wait()
            if (self.folder / "image.ini").exists():
                self.check_wcs(linear_wcs(ini_of(self.folder / "image.ini")))
                self.check_wcs(wcs_of(self.folder / "image.wcs"))

    def test_outputs_that_nobody_takes(self):
        image = self.copy()
        line = [self.links / "astap", "-f", str(image), "-fov", str(FIELD_HEIGHT), *POSITION]
        read, write = os.pipe()
        os.close(read)
        closed = subprocess.run(line, env=self.environment, stdout=write)
        os.close(write)
        self.assertEqual(closed.returncode, 0)
        stuck = subprocess.Popen(line, env=self.environment, stdout=subprocess.PIPE)
        self.assertEqual(stuck.wait(60), 0)
        stuck.stdout.close()
        missing = self.folder / "not there" / "image"
        self.run_as("astap", "-f", image, "-o", missing, "-fov", FIELD_HEIGHT, *POSITION, code=1)
        self.run_as("astap", "-f", image, "-o", self.folder / "image", code=0)
        before = image.read_bytes()
        image.rename(self.folder / "image.wcs")
        self.run_as("astap", "-f", self.folder / "image.wcs", code=1)
        self.assertEqual((self.folder / "image.wcs").read_bytes(), before)


class SolveField(Hosts):
    SIRIL = ["--temp-axy", "-p", "-O", "-N", "none", "-R", "none", "-M", "none", "-B", "none", "-U", "none",
             "-S", "none", "--crpix-center", "-s", "FLUX"]

    def table(self, name, flux, rows=None, x="X", y="Y", column="FLUX"):
        """The stars of the frame's truth as a table, as another program would list them."""
        order = random.Random(3)
        stars = [star for star in self.truth["brightest_stars"]
                 if 0 < star["x"] < WIDTH - 1 and 0 < star["y"] < HEIGHT - 1][:60]
        columns = {x: [star["x"] + 1 for star in stars], y: [star["y"] + 1 for star in stars],
                   column: [flux(i, order) for i in range(len(stars))]}
        extension = fits.BinTableHDU(Table({key: numpy.array(value, numpy.float32)
                                            for key, value in columns.items()}))
        extension.header["IMAGEW"], extension.header["IMAGEH"] = WIDTH, HEIGHT
        path = self.folder / name
        fits.HDUList([fits.PrimaryHDU(), extension]).writeto(path)
        return path

    def test_siril(self):
        self.assertRegex(self.run_as("solve-field", "--version").stdout, r"\A[0-9.]+\n\Z")
        scale = ["-u", "arcsecperpix", "-L", SCALE * 0.9, "-H", SCALE * 1.1]
        self.table("good.xyls", lambda i, order: 1000 - i)
        run = self.run_as("solve-field", "-C", "stop", *self.SIRIL, *scale, "-l", 20, "-t", 3, "--ra", RA, "--dec",
                          DEC, "--radius", 10.0, "good.xyls")
        self.check_wcs(wcs_of(self.folder / "good.wcs"))
        found = re.search(r"Field center: \(RA,Dec\) = \(([-\d.]+), ([-\d.]+)\) deg\.", run.stdout)
        self.assertAlmostEqual(float(found[1]), RA, delta=0.001)
        self.assertFalse((self.folder / "good.solved").exists())
        # Blind, and with a rank that says nothing: the picture beside tells it.
        self.table("lost.xyls", lambda i, order: order.random())
        shutil.copyfile(self.frame, self.folder / "lost.fit")
        self.run_as("solve-field", *self.SIRIL, "-T", "lost.xyls")
        self.check_wcs(wcs_of(self.folder / "lost.wcs"))
        self.assertNotIn("A_ORDER", fits.getheader(self.folder / "lost.wcs"))

    def test_kstars_and_ccdciel(self):
        self.table("b.xyls", lambda i, order: i, x="X_IMAGE", y="Y_IMAGE", column="MAG_AUTO")
        self.run_as("solve-field", "-O", "--no-plots", "--no-verify", "--crpix-center", "--match", "none", "--corr",
                    "none", "--new-fits", "none", "--rdls", "none", "--resort", "--depth", "1-100",
                    "--odds-to-solve", "1e9", "-L", WIDTH * SCALE / 66, "-H", WIDTH * SCALE / 54, "-u", "arcminwidth",
                    "-3", RA, "-4", DEC, "-5", 15, "--width", WIDTH, "--height", HEIGHT, "--x-column", "X_IMAGE",
                    "--y-column", "Y_IMAGE", "--sort-column", "MAG_AUTO", "--sort-ascending", "--no-remove-lines",
                    "--uniformize", 0, "-v", "--backend-config", "x.cfg", "--cancel", "b.cancel", "--solved",
                    "b.solved", "--axy", "b.axy", "-W", "b2.wcs", "--keep-xylist", "b.xy", "b.xyls")
        self.check_wcs(wcs_of(self.folder / "b2.wcs"))
        self.assertEqual((self.folder / "b.solved").read_bytes(), b"\x01")
        image = self.copy("file.fits")
        line = ["--scale-low", 4, "--scale-high", 14, "--scale-units", "arcsecperpix", "--ra", RA, "--dec", DEC,
                "--radius", 30, "--objs", 150, "--no-plots", "file.fits"]
        self.run_as("solve-field", "--overwrite", *line)
        self.check_wcs(wcs_of(self.folder / "file.wcs"))
        self.check_wcs(WCS(fits.getheader(self.folder / "file.new")))
        numpy.testing.assert_array_equal(fits.getdata(self.folder / "file.new"), fits.getdata(image))
        # Without --overwrite nothing is replaced.
        before = (self.folder / "file.wcs").read_bytes()
        run = self.run_as("solve-field", *line)
        self.assertIn("Did not solve", run.stdout)
        self.assertEqual((self.folder / "file.wcs").read_bytes(), before)

    def test_ends(self):
        noise = numpy.random.default_rng(5).normal(1000, 30, (400, 600))
        for x, y in numpy.random.default_rng(6).integers(20, 380, (40, 2)):
            noise[y:y + 3, x:x + 3] += 900
        fits.PrimaryHDU(noise.astype(numpy.uint16)).writeto(self.folder / "stars.fits")
        (self.folder / "stop").touch()
        start = time.monotonic()
        for old in ("stars.wcs", "stars.solved", "stars.new"):
            (self.folder / old).write_text("of an earlier run")
        run = self.run_as("solve-field", "-O", "-C", "stop", "stars.fits")
        self.assertLess(time.monotonic() - start, 8)
        self.assertIn("Did not solve (or no WCS file was written).", run.stdout)
        self.assertEqual([path.name for path in self.folder.glob("stars.*")], ["stars.fits"])
        # The time that the host gives holds whatever is left to search.
        (self.folder / "stop").unlink()
        start = time.monotonic()
        run = self.run_as("solve-field", "-O", "-l", "0.2", "stars.fits")
        self.assertLess(time.monotonic() - start, 8)
        self.assertIn("Total CPU time limit reached\nDid not solve (or no WCS file was written).", run.stdout)
        self.run_as("solve-field", "-O", "not-there.fits", code=1)
        self.assertIn("unrecognized option '--bogus'", self.run_as("solve-field", "--bogus", "x", code=1).stderr)
        self.assertIn("ambiguous", self.run_as("solve-field", "--scale", "1", "x", code=1).stderr)

    def test_damaged_tables_are_refused(self):
        whole = self.table("whole.xyls", lambda i, order: 1000 - i).read_bytes()
        order = random.Random(11)
        for _ in range(25):
            damaged = bytearray(whole)
            for _ in range(order.randint(1, 6)):
                damaged[order.randrange(2880, 5760)] = order.choice(b"0123456789 -'EDX\xff")
            if order.random() < 0.3:
                del damaged[order.randrange(len(damaged)):]
            (self.folder / "x.xyls").write_bytes(damaged)
            run = subprocess.run([self.links / "solve-field", "-O", "-l", "1", "x.xyls"], cwd=self.folder,
                                 env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                 timeout=60)
            self.assertIn(run.returncode, (0, 1))


class Bash(Hosts):
    """The shell that hosts on Windows run solve-field by."""

    def setUp(self):
        super().setUp()
        self.root = self.folder / "asnet"
        (self.root / "bin").mkdir(parents=True)
        (self.root / "tmp").mkdir()
        (self.root / "bin/bash").symlink_to(COMPAT)

    def run_bash(self, *arguments, program=None):
        return subprocess.run([program or self.root / "bin/bash", *map(str, arguments)], capture_output=True, text=True,
                              env=dict(self.environment, PATH=f"{self.links}:{os.environ['PATH']}"), cwd=self.folder,
                              timeout=100)

    def test_siril_and_nina_on_windows(self):
        self.assertEqual(self.run_bash("-l", "-c", "solve-field --version").stdout, "0.93\n")
        picture = self.copy("of a night.fits")
        self.folder.joinpath("stop").unlink(missing_ok=True)
        (self.root / "tmp/asnet.sh").write_text(
            f'p="{picture}"\nc="stop"\nsolve-field -C "$c" -p -O -N none -R none -M none -B none -U none -S none '
            f'--crpix-center -u arcsecperpix -L {SCALE * 0.9} -H {SCALE * 1.1} -T --ra {RA} --dec {DEC} '
            '--radius 10.0 "$p"\n')
        run = self.run_bash("-l", "-c", "/tmp/asnet.sh")
        self.assertIn("Field center: (RA,Dec)", run.stdout, run.stderr)
        self.check_wcs(wcs_of(self.folder / "of a night.wcs"))
        (self.folder / "of a night.wcs").unlink()
        # A command line of Windows comes with its single quotes, and without the double ones.
        run = self.run_bash("--login", "-c", "'/usr/bin/solve-field", "--overwrite", "--index-xyls", "none", "--corr",
                            "none", "--rdls", "none", "--match", "none", "--new-fits", "none", "-center", "--objs", "100",
                            "--no-plots", "--resort", "--downsample", "2", "--scale-units", "arcsecperpix", "-L",
                            SCALE * .93, "-H", SCALE * 1.08, "--ra", RA, "--dec", DEC, "--radius", "30.00",
                            f"{picture}'")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.check_wcs(wcs_of(self.folder / "of a night.wcs"), 0.5)
        self.assertEqual(self.run_bash("-l", "-c", "rm -rf /").returncode, 127)
        self.assertEqual(self.run_bash("-l", "-c", "/tmp/gone.sh").returncode, 127)
        self.assertEqual(self.run_bash().returncode, 127)

    def test_words_are_those_of_the_real_shell(self):
        order = random.Random(12)
        pieces = ["word", "'single q'", '"double q"', '"it\'s"', "'say \"x\"'", "\\ ", "\\'", '"a\\"b"', '"C:\\dir\\f"',
                  "$p", '"$p"', "'$p'", "${p}x", '"${p}"', "$none", "x=1", "=", "a#b", "''", '"\\$p"', "\\\n", "ü", "-5"]
        for _ in range(40):
            words = " ".join("".join(order.choices(pieces, k=order.randint(1, 3))) for _ in range(order.randint(1, 5)))
            script = f"p='path_w'  # a comment\n{order.choice(['', 'q=2;', 'q=2 ; '])}astap -f none.fits {words}\n#end"
            answers = []
            for program in ("/bin/bash", None):
                (self.folder / "none.ini").unlink(missing_ok=True)
                run = self.run_bash("-c", script, program=program)
                self.assertEqual(run.returncode, 16, script + run.stderr)
                answers.append((self.folder / "none.ini").read_text())
            self.assertEqual(answers[0], answers[1], script)


class WcsInfo(Hosts):
    def test_the_same_as_astrometry_net_tells(self):
        judge = shutil.which("wcsinfo", path="/usr/bin")
        if judge is None:
            skip_or_fail(self, "no wcsinfo of astrometry.net to compare with")
        order = random.Random(21)
        path = self.folder / "x.wcs"
        for number in range(60):
            scale, turn = 10 ** order.uniform(-5, -1.2), order.uniform(0, 360)
            flip = order.choice((-1, 1))
            sip = "-SIP" if number % 2 else ""
            header = fits.Header({"CTYPE1": "RA---TAN" + sip, "CTYPE2": "DEC--TAN" + sip,
                                  "CRVAL1": order.choice((0.01, 359.99, order.uniform(0, 360))),
                                  "CRVAL2": order.choice((89.9, -89.99, 0.0, order.uniform(-90, 90))),
                                  "CRPIX1": order.uniform(-200, 1500), "CRPIX2": order.uniform(-200, 1500),
                                  "CD1_1": scale * math.cos(turn) * flip, "CD1_2": -scale * math.sin(turn),
                                  "CD2_1": scale * math.sin(turn) * flip, "CD2_2": scale * math.cos(turn),
                                  "IMAGEW": order.randint(10, 2000), "IMAGEH": order.randint(10, 2000)})
            if sip:
                header.update({f"{name}_ORDER": 3 for name in "AB"})
                header.update({f"{name}_{p}_{q}": order.uniform(-1, 1) * 1000 ** (1 - p - q) * 5
                               for name in "AB" for p in range(4) for q in range(4) if 2 <= p + q <= 3})
            fits.PrimaryHDU(header=header).writeto(path, overwrite=True)
            ours = self.run_as("wcsinfo", path).stdout.split("\n")
            theirs = subprocess.run([judge, path], capture_output=True, text=True).stdout.split("\n")
            self.assertEqual([line.split(" ")[0] for line in ours], [line.split(" ")[0] for line in theirs])
            for one, other in zip(ours, theirs):
                if one == other:
                    continue
                # The last digits of what follows from angles may differ.
                key, value, wanted = one.split(" ")[0], one.split(" ")[1], other.split(" ")[1]
                size = 1e-5 if "merc" in key or key in ("ramin", "ramax", "decmin", "decmax") else 1e-7
                self.assertAlmostEqual(float(value), float(wanted), delta=size * max(abs(float(wanted)), 1),
                                       msg=f"{key} of {header!r}")
        (self.folder / "no.wcs").write_text("nothing")
        header.update({"A_ORDER": 2, "A_2_0": 1e308, "B_ORDER": 2, "B_2_0": 1e308, "CRPIX1": 5000.0, "CD1_1": 1.0,
                       "CD1_2": -1.0, "CD2_1": 1.0, "CD2_2": 1.0})
        fits.PrimaryHDU(header=header).writeto(path, overwrite=True)
        self.run_as("wcsinfo", path, code=255)  # it leads nowhere on the sky
        self.assertNotEqual(subprocess.run([self.links / "wcsinfo", self.folder / "no.wcs"],
                                           stderr=subprocess.DEVNULL).returncode, 0)


class RealHost(Hosts):
    def test_stellarsolver_takes_vestrel_for_both(self):
        host = os.environ.get("VESTREL_STELLARSOLVER")
        if not host or not pathlib.Path(host).exists():
            skip_or_fail(self, "built without StellarSolver")
        image = self.copy()
        for kind, program in (("astap", "astap"), ("local", "solve-field")):
            run = subprocess.run([host, kind, image, self.links / program, self.links / "wcsinfo", str(RA), str(DEC),
                                  str(WIDTH * SCALE / 60)], capture_output=True, text=True, timeout=120,
                                 env=dict(self.environment, QT_QPA_PLATFORM="offscreen"), cwd=self.folder)
            self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
            solution = json.loads(run.stdout.strip().splitlines()[-1])
            self.assertAlmostEqual(solution["ra"], RA, delta=0.3 * SCALE / 3600)
            self.assertAlmostEqual(solution["dec"], DEC, delta=0.3 * SCALE / 3600)
            self.assertAlmostEqual(abs(solution["scale"]), SCALE, delta=0.01)


if __name__ == "__main__":
    unittest.main()
