#!/usr/bin/env python3
"""The Python module, with astropy as the judge.

Environment: VESTREL_PROGRAMS the folder of the programs; PYTHONPATH leads to the module.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import numpy as np
from astropy.io import fits
from astropy.wcs import WCS

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "bench"))
import killBatch  # noqa: E402
import vestrel  # noqa: E402

PROGRAMS = pathlib.Path(os.environ["VESTREL_PROGRAMS"])
DOCUMENT = pathlib.Path(__file__).parents[1] / "docs/LIBRARY.md"


class Module(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="vestrel-python-")
        cls.addClassCleanup(folder.cleanup)
        cls.work = pathlib.Path(folder.name)
        cls.catalog = cls.work / "catalog"
        killBatch.make_catalog(PROGRAMS, cls.catalog)
        os.environ["VESTREL_CATALOG"] = str(cls.catalog)
        cls.frame = cls.work / "frame.fit"
        # A lens that bends: five pixels at the corners.
        subprocess.run([PROGRAMS / "vestrel-catalog", "render", "--ra", "100.2", "--dec", "30.1", "--size",
                        "40x30", "--width-px", "400", "--rotation", "25", "--distortion", "2", "--out",
                        cls.frame], check=True, capture_output=True)
        cls.pixels = fits.getdata(cls.frame)
        cls.hints = {"ra": 100.3, "dec": 30.0, "radius": 1, "scale": 6.1}

    def assertSameSky(self, one, other, pixels):
        """At the corners, in pixels."""
        height, width = self.pixels.shape
        corners = np.array([(0, 0), (width - 1, 0), (0, height - 1), (width - 1, height - 1)])
        there = other.all_world2pix(one.all_pix2world(corners, 0), 0)
        self.assertLess(np.abs(there - corners).max(), pixels)

    def test_pixels_of_every_type_give_the_sky_of_the_file(self):
        solver = vestrel.Solver()
        file = solver.solve(str(self.frame), **self.hints)
        self.assertTrue(file, file.reason)
        self.assertAlmostEqual(file.ra, 100.2, delta=6 / 3600)
        self.assertAlmostEqual(file.dec, 30.1, delta=6 / 3600)
        self.assertEqual(file.wcs.wcs.ctype[0], "RA---TAN-SIP")
        # astropy puts every matched star where it was measured.
        places = file.wcs.all_world2pix(file.matches["ra"], file.matches["dec"], 0)
        off = np.hypot(places[0] - file.matches["x"], places[1] - file.matches["y"])
        self.assertGreater(len(off), 30)
        self.assertLess(np.abs(off - file.matches["residual"]).max(), 0.03)
        for kind in ("u2", "i4", ">u4", "f4", ">f8"):
            with self.subTest(kind):
                solution = solver.solve(self.pixels.astype(kind), **self.hints)
                self.assertSameSky(solution.wcs, file.wcs, 1e-6)
        upside = solver.solve(self.pixels[::-1], **self.hints)
        self.assertEqual(upside.mirrored, not file.mirrored)
        self.assertAlmostEqual(upside.ra, file.ra, delta=0.2 * 6 / 3600)
        colours = np.repeat(self.pixels[:, :, None], 3, axis=2)
        self.assertSameSky(solver.solve(colours, **self.hints).wcs, file.wcs, 0.1)

    def test_fewer_terms_are_the_best_of_their_order(self):
        solver = vestrel.Solver()
        solution = solver.solve(self.frame, **self.hints)
        header = fits.Header.fromstring("".join(solver._native.cards(0)))
        self.assertEqual(header["CTYPE1"], "RA---TAN")
        # A lens of two pixels at the corners cannot be straight, but the best line is within one.
        self.assertSameSky(solution.wcs, WCS(header), 1.5)
        with self.assertRaises(AssertionError):
            self.assertSameSky(solution.wcs, WCS(header), 0.1)

    def test_wrong_arguments_are_told_and_pictures_never_throw(self):
        for wrong in ({"ra": 1}, {"ra": 1, "dec": 91}, {"scale": (3, 1)}, {"stars": [(1, 2, 3)]},
                      {"radius": float("nan"), "ra": 1, "dec": 1}):
            with self.subTest(wrong), self.assertRaises(ValueError):
                vestrel.solve(None if "stars" in wrong else self.frame, **wrong)
        for wrong in (np.zeros(5, "u2"), np.zeros((0, 9), "u2"), np.zeros((1, 40000), "u1")):
            with self.subTest(wrong.shape), self.assertRaises(ValueError):
                vestrel.solve(wrong)
        with self.assertRaises(TypeError):
            vestrel.solve(np.zeros((9, 9), complex))
        for name in ("missing.fit", os.fsdecode(b"missing\xff.fit")):
            missing = vestrel.solve(self.work / name)
            self.assertFalse(missing)
            self.assertEqual(missing.end, "no picture")
        for cut in ({"picture": f"{self.frame}\0x"}, {"picture": self.frame, "catalog": "catalog\0x"}):
            with self.assertRaisesRegex(ValueError, "null character"):
                vestrel.solve(**cut)
        # A name that is no text.
        shutil.copyfile(self.frame, self.work / os.fsdecode(b"\xff.fit"))
        self.assertTrue(vestrel.solve(self.work / os.fsdecode(b"\xff.fit"), **self.hints))
        with self.assertRaisesRegex(ValueError, "There is no solution"):
            missing.wcs
        nothing = vestrel.solve(np.full((200, 300), np.nan))
        self.assertEqual(nothing.end, "no picture")
        self.assertEqual(vestrel.solve(np.zeros((200, 300), "u2")).end, "too few stars")

    def test_other_threads_run_and_an_interrupt_ends_it(self):
        noise = np.random.default_rng(1).normal(1000, 9, (1500, 2000)).astype("f4")
        noise[::40, ::40] += 4000
        noise[1::40, ::40] += 3000
        noise[::40, 1::40] += 3500
        turns = 0
        done = threading.Event()

        def count():
            nonlocal turns
            while not done.wait(0.005):
                turns += 1

        counter = threading.Thread(target=count)
        counter.start()
        threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
        start = time.monotonic()
        with self.assertRaises(KeyboardInterrupt):
            for _ in range(100):
                vestrel.solve(noise, ra=100, dec=30, scale=(1, 9), time_limit=60)
        done.set()
        counter.join()
        self.assertLess(time.monotonic() - start, 60)  # a hundred solves take longer
        self.assertGreater(turns, 5)

    def test_the_example_of_the_document_runs(self):
        example = re.search(r"runs in the tests -->\n```python\n(.*?)```", DOCUMENT.read_text(), re.DOTALL)
        end = subprocess.run([sys.executable, "-c", example[1]], cwd=self.work, capture_output=True, text=True)
        self.assertEqual((end.returncode, end.stderr), (0, ""))
        self.assertRegex(end.stdout, r"\A100\.2000 \+30\.1000, [56]\.\d+ arcseconds per pixel\n06h40m48")
        self.assertIn("RA---TAN", fits.getheader(self.work / "solved.fits")["CTYPE1"])


if __name__ == "__main__":
    unittest.main()
