#!/usr/bin/env python3
"""Runs the real vestrel-solve: what scripts rely on, and real pictures with known truth.

Environment: VESTREL_SOLVE the program; VESTREL_CATALOG_TOOL the one that draws frames; VESTREL_TEST_CATALOG a real catalog (else the usual folder);
VESTREL_SHARED_IMAGES a folder with real pictures and their truth.tsv. For programs for Windows VESTREL_WINE is
what starts them, and VESTREL_NATIVE the folder of the same programs for this system.
"""
import csv
import json
import math
import os
import pathlib
import pty
import random
import re
import shutil
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import zipfile

WINDOWS = os.environ["VESTREL_SOLVE"].endswith(".exe")
WINE = [os.environ["VESTREL_WINE"]] if WINDOWS else []
SOLVER = [*WINE, os.environ["VESTREL_SOLVE"]]
RENDERER = [*WINE, os.environ["VESTREL_CATALOG_TOOL"]]
not_on_windows = unittest.skipIf(WINDOWS, "Wine cannot be sent signals, nor shown a terminal, from here")
ROOT = pathlib.Path(__file__).resolve().parent.parent
CATALOG = pathlib.Path(os.environ.get("VESTREL_TEST_CATALOG") or os.path.join(
    os.environ.get("XDG_DATA_HOME", os.path.expanduser("~/.local/share")), "Harrowdene/KEL"))
PICTURES = pathlib.Path(os.environ.get("VESTREL_SHARED_IMAGES", ROOT.parent / "shared/images"))


def skip_or_fail(test, reason):
    """Where everything was to be set up nothing may be lacking."""
    if os.environ.get("CI"):
        test.fail(reason)
    test.skipTest(reason)


SOLVED, TOO_FEW_STARS, USAGE, NO_MATCH, STOPPED, NO_IMAGE, BAD_NAME, NO_CATALOG, NOT_WRITTEN, \
    NOT_SURE = range(10)


def setUpModule():
    if WINDOWS:
        # The services of Wine hold the output of whichever program started them until the last one
        # has ended: this one outlives all others.
        keeper = subprocess.Popen([*WINE, "cmd"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL)
        unittest.addModuleCleanup(keeper.communicate)
        keeper.stdout.read(1)  # its prompt: the services are there


def fits_bytes(pixels, width, height):
    """A 16-bit FITS file from stored values, row by row."""
    cards = ["SIMPLE  = T", "BITPIX  = 16", "NAXIS   = 2", f"NAXIS1  = {width}",
             f"NAXIS2  = {height}", "END"]
    header = "".join(card.ljust(80) for card in cards).ljust(2880).encode()
    return header + struct.pack(f">{len(pixels)}h", *pixels)


def spots(width=200, height=200, count=30):
    """Stars on a jittered sky, in places that follow from their number alone."""
    pixels = [100 + (x * 7919 + y * 104729) % 11 for y in range(height) for x in range(width)]
    for k in range(count):
        cx, cy = 15 + (k * 61) % (width - 30), 15 + (k * 97 + k * k * 13) % (height - 30)
        for dy in range(-3, 4):
            for dx in range(-3, 4):
                pixels[(cy + dy) * width + cx + dx] += int((9000 - 150 * k) *
                                                           math.exp(-(dx * dx + dy * dy) / 3))
    return fits_bytes([min(p, 32767) for p in pixels], width, height)


def wait_until_caught(process, number):
    """Waits until the program handles a signal, for good: while it reads its settings it does so too, for a moment."""
    status = pathlib.Path(f"/proc/{process.pid}/status")
    seen = 0
    for _ in range(1200):
        caught = int(re.search(r"SigCgt:\s*([0-9a-f]+)", status.read_text())[1], 16)
        seen = seen + 1 if caught >> (number - 1) & 1 else 0
        if seen == 6:
            return
        time.sleep(0.05)


class Solver(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vestrel-console-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.environment = dict(os.environ, VESTREL_SETTINGS=str(self.folder / "Vestrel.ini"))

    def run_solver(self, *arguments, **options):
        run = subprocess.run([*SOLVER, *map(str, arguments)], env=self.environment, timeout=300,
                             capture_output=True, check=False, **options)
        if WINDOWS:
            run.stdout, run.stderr = (text.replace(b"\r\n", b"\n") for text in (run.stdout, run.stderr))
        return run

    def frame(self, name="frame.fit", data=None):
        path = self.folder / name
        path.write_bytes(spots() if data is None else data)
        return path


class Contract(Solver):
    """Exit codes, streams and files."""

    def test_each_outcome_has_its_exit_code_and_leaves_stdout_to_results(self):
        frame = self.frame()
        dark = self.frame("dark.fit", fits_bytes([100] * 10000, 100, 100))
        broken = self.frame("broken.fit", b"SIMPLE  = T".ljust(80))
        empty = self.folder / "KEL"
        empty.mkdir()
        search = ["--ra", "10:00:00", "--dec=-5", "--size", "60x60", "--regions", "2"]
        cases = [
            (TOO_FEW_STARS, [dark, *search, "--catalog", empty], "Insufficient Plate Stars"),
            (USAGE, ["--size"], "--size"),
            (USAGE, [frame, "--wcs=x.wcs"], "--wcs takes no name"),
            (USAGE, [frame, "--wcs", "x.wcs"], "--wcs takes no name"),
            (NO_CATALOG, [frame, "--catalog", empty], "vestrel-catalog quads"),
            (USAGE, [frame, "--ra", "25:00:00", "--dec", "0"], "Please enter a valid RA value"),
            (USAGE, [frame, "--ra", "1", "--dec", "91"], "Please enter a valid Declination value"),
            (USAGE, [frame, *search[:3], "--size", "10"], "Please enter a valid Image Size"),
            (USAGE, ["1,2,3"], "Vestrel 1.13 Error: Invalid parameter string"),
            (BAD_NAME, ["1,0,.1,.1,1,nodot"], "Vestrel 1.13 Error: Invalid file name"),
            (NO_IMAGE, ["1,0,.1,.1,1," + str(broken)], "Can't open input file"),
            (NO_IMAGE, [broken, *search], "Vestrel: Unable to read the image file."),
            (NO_IMAGE, [self.frame("x.bmp"), *search], "Vestrel: File type is not supported"),
            (NO_IMAGE, [self.folder / "absent.fit", *search], "Unable to read the image file."),
            (NO_CATALOG, [frame, *search, "--catalog", self.folder / "nowhere"], "does not exist"),
            (NO_CATALOG, [frame, *search, "--catalog", empty], "holds no stars"),
            (NO_CATALOG, [frame, "--blind", "--catalog", empty], "vestrel-catalog quads"),
            (NO_CATALOG, [frame, "--blind", *search, "--catalog", empty], "no quad tables"),
        ]
        for code, arguments, words in cases:
            with self.subTest(arguments=[str(a)[-40:] for a in arguments]):
                run = self.run_solver(*arguments)
                self.assertEqual(run.returncode, code, run.stderr)
                self.assertEqual(run.stdout, b"")
                self.assertIn(words, run.stderr.decode())
                self.assertNotIn(b"\x1b", run.stderr)

    def test_help_and_version_go_to_stdout(self):
        run = self.run_solver("--help")
        self.assertEqual((run.returncode, run.stderr), (0, b""))
        help_text = (ROOT / "tests/consoleHelp.txt").read_text(encoding="utf-8")
        if WINDOWS:  # its last paragraph tells of this system's folders
            help_text = help_text.rpartition("\n\n")[0] + r"""

The catalog is the first of --catalog, %VESTREL_CATALOG% and %ProgramData%\Harrowdene\KEL;
vestrel-catalog makes one. %VESTREL_THREADS% limits the threads; %VESTREL_TRY_HARDER%=1 is
--try-harder.
"""
        self.assertEqual(run.stdout.decode(), help_text)
        self.assertRegex(self.run_solver("--version").stdout,
                         rb"^vestrel-solve \d+\.\d+\.\d+\nReads FITS, SBIG, JPEG")

    @unittest.skipIf(WINDOWS, "its loader does not tell what it loads")
    def test_no_decoder_is_loaded_that_a_picture_does_not_need(self):
        run = subprocess.run([*SOLVER, "--info", self.frame()], capture_output=True, check=True,
                             env=dict(self.environment, LD_DEBUG="files"))
        self.assertIn(b"libc.so", run.stderr)  # the loader does tell
        self.assertNotIn(b"decode-", run.stderr)

    def test_negative_angles_are_values_and_no_options(self):
        frame = self.frame()
        for declination in ("-05:23:00", "-5.4", "-.5", "-00:00:30"):
            for spelled in (["--dec", declination], ["--dec=" + declination]):
                run = self.run_solver(frame, "--ra", "83.8", *spelled, "--size", "60x45",
                                      "--regions", "1", "--json", "--catalog", self.folder / "no")
                self.assertEqual(run.returncode, NO_CATALOG)
                self.assertLess(json.loads(run.stdout)["best_attempt"]["dec_deg"], 0)
        absent = self.folder / "a, b.fit"
        for start in ("-0.5", "-.5", "-5E-1", " -1", "+1"):
            for more in ([], ["--quiet"], ["--regions", "3"]):
                run = self.run_solver(f"{start},-.1,0.1,0.1,2,{absent}", *more)
                self.assertEqual((run.returncode, run.stderr.decode()),
                                 (NO_IMAGE, "Vestrel: Unable to read the image file.\n"
                                            "Vestrel 1.13 Error: Can't open input file\n" +
                                  ("" if "--quiet" in more else
                                   "  Cause             It cannot be opened: No such file or directory.\n")))
        for wrong in ("-a,b", "-,,,,,", "-1,2,3,4"):
            run = self.run_solver(wrong)
            self.assertEqual((run.returncode, run.stderr),
                             (USAGE, b"Vestrel 1.13 Error: Invalid parameter string\n"))
        report = json.loads(self.run_solver("1,0,.1,.1,1,nodot", "--json").stdout)
        # Code 0 would mean too few stars.
        self.assertEqual((report["code"], report["message"]), (None, "Invalid file name"))

    def test_no_exit_lets_control_characters_through(self):
        evil = "\x1b]0;owned\x07\x1b[2J\x7f\u0085\u009b"
        card = f"EXPTIME = {evil}"
        run = self.run_solver(self.frame("x.fit", card.ljust(80).encode()), "--ra", "1", "--dec", "1")
        self.assertIn(b"EXPTIME = ?]0;owned??[2J?", run.stderr)
        if WINDOWS:
            return  # its file names hold none
        header = spots().replace(b"END" + b" " * 77, ("OBJECT  = " + evil).encode()[:80].ljust(80) +
                                 b"END" + b" " * 77, 1)
        solved = self.frame("good.fit", header[:2880] + header[2960:])
        folder = self.folder / ("KEL" + evil)
        folder.mkdir()
        (folder / "catalog.json").write_text(json.dumps({
            "format": "vestrel-catalog", "version": 1, "tool": evil, "created": evil, "sources": [],
            "filters": [evil], "remarks": [evil], "brightGapFilled": False, "duplicates": 3,
            "magnitudes": [], "stars": 0, "cells": {}}))
        (folder / ("stray" + evil)).write_text("")
        frame = self.frame(f"frame{evil}.fit")
        search = ["--ra", "10", "--dec=-5", "--size", "60x60", "--regions", "1"]
        commands = [
            [*SOLVER, solved, "--info", solved], [*SOLVER, frame, *search, "--catalog", folder],
            [*SOLVER, frame, *search, "--catalog", folder, "--json"],
            [*SOLVER, frame, "--blind", "--catalog", folder], [*SOLVER, evil],
            [*SOLVER, f"1,0,.1,.1,1,{frame}"], [*SOLVER, f"1,0,.1,.1,1,{evil}"],
            [*SOLVER, frame, *search, "--export", frame], [*SOLVER, "--" + evil], [*SOLVER, frame, evil],
            [*SOLVER, frame, "--ra", evil, "--dec", "1"], [*SOLVER, frame, *search, "--max-stars", evil],
            *([*RENDERER, command, *rest, "--catalog", folder]
              for command, *rest in (["info"], ["info", "--json"], ["verify"], ["quads"],
                                     ["build", "--csv", evil])),
            [*RENDERER, "info", "--catalog", evil], [*RENDERER, evil], [*RENDERER, "info", "--" + evil],
            [*RENDERER, "render", "--ra", "1", "--dec", "1", "--size", "9x9", "--random-stars", "9",
             "--width-px", "60", "--out", self.folder / f"drawn{evil}.fit"]]
        for command in commands:
            with self.subTest(command=command[1:]):
                run = subprocess.run(list(map(str, command)), env=self.environment, check=False,
                                     capture_output=True, timeout=60)
                said = (run.stdout + run.stderr).decode(errors="replace")
                self.assertNotRegex(said, "[\0-\x09\x0b-\x1f\x7f-\x9f]")
                if "--json" in command and run.returncode != 3:
                    json.loads(run.stdout)

    def test_an_image_that_is_not_read_says_what_is_wrong_with_it(self):
        large = b"BITPIX  = 99999 / \x1b[2J"
        faults = [(self.frame("x.fit", large.ljust(80)), "too large: BITPIX  = 99999 / ?[2J"),
                  (self.frame("x.sbi", bytes(999)), "999 bytes"),
                  (self.frame("y.sbi", b"W\n\rWidth = 1E9\n\r" + bytes(2000)), "Width = 1E9"),
                  (self.frame("n.fit", spots().replace(b"= 200 ", b"= -1  ")), "NAXIS1 = -1")]
        for path, words in faults:
            for arguments in (["--ra", "1", "--dec", "1", path], [f"1,0,.1,.1,1,{path}"],
                              ["--info", path], ["--json", "--ra", "1", "--dec", "1", path]):
                run = self.run_solver(*arguments)
                self.assertEqual(run.returncode, NO_IMAGE)
                self.assertRegex(run.stderr.decode(), r"\n?  Cause +.*" + re.escape(words))

    def test_fractions_are_told_from_darkness(self):
        pixels = fits_bytes([0] * 40000, 200, 200).replace(b"= 16 ", b"= -32")
        run = self.run_solver(self.frame("x.fit", pixels + bytes(80000)), "--ra", "1", "--dec", "1")
        self.assertEqual(run.returncode, TOO_FEW_STARS)
        self.assertIn(b"reach from 0 to 1", run.stderr)

    def test_outdated_settings_are_told_and_survived(self):
        (self.folder / "Vestrel.ini").write_bytes(b"OLD!!" + bytes(700))
        run = self.run_solver(self.folder / "absent.fit", "--ra", "1", "--dec", "1")
        self.assertEqual(run.returncode, NO_IMAGE)
        self.assertTrue(run.stderr.startswith(
            b"Vestrel: The parameter file Vestrel.ini is out of date.  "
            b"The defaults are used.\n"), run.stderr)

    def test_unattended_failure_writes_its_result_whole_and_keeps_other_files(self):
        frame = self.frame("a,b.c.fit")
        other = self.frame("a,b.kel", b"not ours")
        stale = self.frame("a,b.c.kel", b"stale")
        run = self.run_solver(f" -0.5 , -0.1,.02,.02,1.4, {frame}", "--catalog", self.folder / "no")
        self.assertEqual(run.returncode, NO_CATALOG)
        lines = stale.read_bytes().split(b"\r\n")
        self.assertEqual(lines[0], b"1000,1000,-1")
        self.assertRegex(lines[1], rb"^0,0,0,0,\d+$")
        self.assertEqual(lines[2:], [b"Maximum search limit exceeded", b""])
        self.assertIn(b"name its folder (--catalog)", run.stderr)
        run = self.run_solver(f"-0.5,-0.1,.02,.02,1,{frame}", "--catalog", self.folder / "no", "--json")
        self.assertEqual(json.loads(run.stdout)["cause"]["kind"], "no_catalog")
        self.assertEqual(other.read_bytes(), b"not ours")
        self.assertFalse(list(self.folder.glob("*.tmp")))

    def test_a_stale_result_does_not_outlive_an_image_that_cannot_be_read(self):
        broken = self.frame("m.fit", b"nonsense")
        stale = self.frame("m.kel", b"stale")
        self.assertEqual(self.run_solver(f"1,0,.1,.1,1,{broken}").returncode, NO_IMAGE)
        self.assertFalse(stale.exists())

    def test_an_image_named_like_a_result_is_not_removed(self):
        image = self.frame("m.kel")
        self.assertEqual(self.run_solver(f"1,0,.1,.1,1,{image}").returncode, NO_IMAGE)
        self.assertTrue(image.exists())

    def test_json_is_valid_for_every_outcome_and_any_path(self):
        weird = os.fsencode(self.folder) + (b"/" if WINDOWS else b"/\xff\xfe ") + b"\xc3\xa9.fit"
        with open(weird, "wb") as file:
            file.write(spots())
        for image in (weird, os.fsencode(self.folder / "absent.fit")):
            run = subprocess.run([*SOLVER, image, "--ra", "150", "--dec=-0:30", "--size", "1x1d",
                                  "--json", "--catalog", self.folder / "none"],
                                 env=self.environment, capture_output=True, check=False)
            report = json.loads(run.stdout)
            self.assertFalse(report["solved"])
            self.assertEqual(report["exit_code"], run.returncode)
        self.assertGreater(json.loads(self.run_solver(
            self.frame(), "--ra", "1", "--dec", "1", "--size", "1x1d", "--json", "--catalog",
            self.folder).stdout)["stars_extracted"], 20)

    @not_on_windows
    def test_interrupt_stops_a_long_search_and_says_so(self):
        frame = self.frame()
        for stop in (signal.SIGINT, signal.SIGTERM):
            process = subprocess.Popen([*SOLVER, f"1,0.3,.02,.02,2000000000,{frame}", "--catalog",
                                        str(self.folder)], env=self.environment,
                                       stderr=subprocess.DEVNULL)
            wait_until_caught(process, stop)
            process.send_signal(stop)
            self.assertEqual(process.wait(timeout=60), STOPPED)
        result = frame.with_suffix(".kel").read_bytes().split(b"\r\n")
        self.assertEqual((result[0], result[2]),
                         (b"1000,1000,-2", b"Vestrel was terminated by user"))

    @not_on_windows
    def test_a_stop_ends_what_only_waits_and_a_second_one_ends_it_at_once(self):
        pipe = self.folder / "never.fit"
        os.mkfifo(pipe)
        command = [*RENDERER, "build", "--csv", pipe, "--catalog", self.folder / "KEL"]
        for second in (None, signal.SIGINT):
            process = subprocess.Popen(command, env=self.environment, stderr=subprocess.DEVNULL)
            wait_until_caught(process, signal.SIGTERM)
            start = time.monotonic()
            process.send_signal(signal.SIGTERM)
            if second:
                time.sleep(0.1)
                process.send_signal(second)
            # Nobody ever writes into the pipe. The opening fails at the first signal: mostly there is
            # nothing left for the second one to end.
            code = process.wait(timeout=60)
            self.assertLess(time.monotonic() - start, 1 if second else 4)
            self.assertIn(code, (130, -second) if second else (130,))

    @not_on_windows
    def test_a_refused_picture_is_not_waited_for_and_has_its_reason(self):
        pipe = self.folder / "never.fit"
        os.mkfifo(pipe)
        (self.folder / "folder.jpg").mkdir()
        cases = [(pipe, "It is a pipe or a device, and no file."), ("/dev/stdin", "It is a pipe or a device"),
                 (self.frame("empty.jpg", b""), "Empty input file"),
                 (self.frame("text.jpg", b"text"), "Not a JPEG file"),
                 (self.folder / "absent.jpg", "No such file or directory"),
                 (self.folder / "absent.png", "No such file or directory"),
                 (self.folder / "absent.fit", "No such file or directory"),
                 (self.folder / "folder.jpg", "Is a directory")]
        for image, reason in cases:
            with self.subTest(image=str(image)[-20:]):
                run = self.run_solver(image, "--ra", "1", "--dec", "1", "--json", stdin=subprocess.PIPE)
                self.assertEqual(run.returncode, NO_IMAGE, run.stderr)
                self.assertIn(reason, run.stderr.decode())
                self.assertIn(reason, json.loads(run.stdout)["cause"]["text"])

    @not_on_windows
    def test_the_picture_is_never_what_a_run_writes(self):
        folder = self.folder
        search = ["--ra", "1", "--dec", "1", "--catalog", folder]
        header = self.frame("night.wcs")
        linked = self.frame("linked.fit")
        (folder / "linked.wcs").symlink_to("linked.fit")
        (folder / "linked.kel").symlink_to("linked.fit")
        for arguments in ([header, *search, "--wcs"], [linked, *search, "--wcs"], [f"1,0,.1,.1,1,{linked}"],
                          [linked, *search, "--save", folder / "linked.wcs"]):
            run = self.run_solver(*arguments)
            self.assertEqual((run.returncode, run.stdout), (USAGE, b""), run.stderr)
            self.assertIn(b"is the image itself", run.stderr)
            self.assertEqual((header.read_bytes(), linked.read_bytes()), (spots(), spots()))

    def test_options_without_a_usable_value_are_refused_in_a_sentence(self):
        frame = self.frame()
        for option, values in {"--max-stars": ("-1", "5", "1001"), "--edge-exclusion": ("", "nan", "0.5"),
                               "--detection-threshold": ("nan", "inf", "0"), "--max-error": ("1e999", "-2"),
                               "--time-limit": ("nan", "inf", "-1"), "--regions": ("-5", "0")}.items():
            for value in values:
                for given in ([option, value], [f"{option}={value}"]):
                    run = self.run_solver(frame, "--ra", "1", "--dec", "1", *given)
                    self.assertEqual((run.returncode, run.stdout), (USAGE, b""), given)
                    self.assertRegex(run.stderr.decode(), "needs a number|has no value", given)
                    self.assertLess(len(run.stderr), 200)
        for option in ("--bundle=", "--catalog=", "--export=", "--info="):
            run = self.run_solver(frame, option, "--quiet", cwd=self.folder)
            self.assertEqual((run.returncode, run.stderr.splitlines()[0]), (USAGE, f"{option} has no value.".encode()))
        self.assertEqual([path.name for path in self.folder.iterdir() if path.name.startswith("--")], [])
        run = self.run_solver("--info", frame, "--json")
        self.assertEqual((run.returncode, run.stdout), (USAGE, b""))
        if not WINDOWS:
            with open("/dev/full", "wb") as full:
                for option in ("--help", "--version"):
                    run = subprocess.run([*SOLVER, option], stdout=full, check=False)
                    self.assertEqual(run.returncode, NOT_WRITTEN)

    @not_on_windows
    def test_progress_and_colour_only_on_a_terminal_that_wants_them(self):
        search = [str(self.frame()), "--ra", "1", "--dec", "1", "--size", "1x1d", "--regions", "3",
                  "--catalog", str(self.folder)]
        for no_colour, coloured in (("", True), ("1", False)):
            try:
                main, terminal = pty.openpty()
            except OSError as error:
                skip_or_fail(self, f"no terminal to be had: {error}")
            subprocess.run([*SOLVER, *search], env=dict(self.environment, NO_COLOR=no_colour),
                           stderr=terminal, stdout=subprocess.DEVNULL, check=False)
            os.close(terminal)
            output = b""
            try:
                while chunk := os.read(main, 65536):
                    output += chunk
            except OSError:
                pass  # the end of a pseudo-terminal
            os.close(main)
            self.assertIn(b"Spiral search", output)
            self.assertEqual(b"\x1b[31m" in output, coloured)


class DrawnSky(Solver):
    """A sky drawn for the test, and a catalog of it."""

    RA, DEC = 10.5, 5.7  # degrees, in the middle of the cell N02R02

    def setUp(self):
        super().setUp()
        numbers = random.Random(4)
        stars = ((math.radians(self.RA + numbers.uniform(-1.2, 1.2)),
                  math.radians(self.DEC + numbers.uniform(-0.6, 0.6)),
                  int(600 + 800 * numbers.random() ** 0.4)) for _ in range(900))
        catalog = self.folder / "KEL"
        catalog.mkdir()
        (catalog / "N02R02").write_bytes(b"".join(struct.pack("<ffh", *star) for star in stars))
        self.environment["VESTREL_CATALOG"] = str(catalog)
        image = self.folder / "sky.fit"
        subprocess.run([*RENDERER, "render", "--ra", str(self.RA), "--dec", str(self.DEC), "--size",
                        "60x45", "--width-px", "600", "--out", image], env=self.environment,
                       check=True, capture_output=True)
        self.sky = image.read_bytes()
        self.search = [image, "--ra", self.RA, "--dec", self.DEC, "--size", "60x45"]
        self.parameters = ",".join(repr(math.radians(x))
                                   for x in (self.RA, self.DEC, 1, 0.75)) + ",1,"

    def assert_centre(self, ra, dec):
        self.assertAlmostEqual(ra, self.RA, delta=1 / 3600)
        self.assertAlmostEqual(dec, self.DEC, delta=1 / 3600)


class Plan(DrawnSky):
    """The search plan behind the options."""

    def test_trying_harder_goes_on_after_the_one_search_and_leaves_a_sure_result_alone(self):
        image = self.search[0]
        result = image.with_suffix(".kel")
        self.assertEqual(self.run_solver(self.parameters + str(image)).returncode, SOLVED)
        plain = result.read_bytes()
        run = self.run_solver(self.parameters + str(image), "--try-harder")
        self.assertEqual((run.returncode, result.read_bytes()), (SOLVED, plain))
        # Too few stars of each list are the same ones for the plain search.
        off = ",".join(repr(math.radians(x)) for x in (self.RA + 0.2, self.DEC, 1, 0.75))
        off = [f"{off},1,{image}", "--max-stars", 8]
        self.assertEqual(self.run_solver(*off).returncode, NO_MATCH)
        self.assertTrue(result.read_bytes().startswith(b"1000,1000,-1\r\n"))
        for options, environment in ((["--try-harder"], {}), ([], {"VESTREL_TRY_HARDER": "1"})):
            result.unlink()
            self.environment.update(environment)
            self.assertEqual(self.run_solver(*off, *options).returncode, SOLVED)
            ra, dec, code = result.read_bytes().split(b"\r\n")[0].split(b",")
            self.assert_centre(math.degrees(float(ra)), math.degrees(float(dec)))
            self.assertEqual(code, b"1")

    def test_a_match_by_chance_is_a_candidate_but_a_parameter_string_takes_it(self):
        other = self.frame()  # stars that are in no catalog
        careless = ["--match-divisor", 3000, "--match-tolerance", 0.05, "--max-error", 100,
                    "--max-geometric-error", 0.9]
        search = [other, *self.search[1:5], "--size", "60x60", "--regions", 9, *careless]
        run = self.run_solver(*search, "--json", "--wcs")
        report = json.loads(run.stdout)
        self.assertEqual((run.returncode, report["exit_code"], report["code"], report["solved"]),
                         (NOT_SURE, NOT_SURE, -1, False))
        self.assertNotIn("ra_deg", report)
        self.assertGreater(report["candidate"]["confidence"]["log10_false_alarm"], -6)
        self.assertLess(abs(report["candidate"]["dec_deg"] - self.DEC), 2)
        self.assertFalse(other.with_suffix(".wcs").exists())
        self.assertEqual([attempt["sure"] for attempt in report["attempts"]],
                         [False] * len(report["attempts"]))
        run = self.run_solver(*search)
        self.assertEqual((run.returncode, run.stdout), (NOT_SURE, b""))
        numbers = ",".join(repr(math.radians(x)) for x in (self.RA, self.DEC, 1, 1))
        run = self.run_solver(f"{numbers},9,{other}", *careless)
        self.assertEqual(run.returncode, SOLVED)
        self.assertIn(b",1\r\n", other.with_suffix(".kel").read_bytes())

    def test_a_bundle_repeats_a_solve_and_a_failure_without_picture_and_catalog(self):
        elsewhere = [*self.search[:2], self.RA + 0.9, "--dec", self.DEC, "--size", "20x15", "--regions", "1"]
        bundles = []
        for search, code in ((self.search, SOLVED), (elsewhere, NO_MATCH)):
            bundles.append((self.folder / f"{code}.zip", code))
            run = self.run_solver(*search, "--bundle", bundles[-1][0])
            if b"built without libzip" in run.stderr:
                skip_or_fail(self, "a build without libzip has no bundles")
            self.assertEqual(run.returncode, code, run.stderr)
            self.assertLess(bundles[-1][0].stat().st_size, len(self.sky) / 4)
        whole = self.folder / "whole.zip"
        self.run_solver(*self.search, "--bundle", whole, "--bundle-pixels")
        with zipfile.ZipFile(whole) as archive:
            self.assertIn(self.sky, [archive.read(name) for name in archive.namelist()])
        self.search[0].unlink()
        self.environment["VESTREL_CATALOG"] = str(self.folder / "nowhere")
        for bundle, code in bundles:
            run = self.run_solver("--replay", bundle, "--json")
            report = json.loads(run.stdout)
            self.assertEqual((run.returncode, report["same_outcome_as_bundle"]), (code, True))
            if code == SOLVED:
                self.assert_centre(report["ra_deg"], report["dec_deg"])

    def test_a_bundle_that_asks_for_days_ends_when_the_user_says(self):
        short, long = self.folder / "short.zip", self.folder / "long.zip"
        run = self.run_solver(*self.search, "--bundle", short)
        if b"built without libzip" in run.stderr:
            skip_or_fail(self, "a build without libzip has no bundles")
        with zipfile.ZipFile(short) as archive, zipfile.ZipFile(long, "w") as forged:
            for name in archive.namelist():
                data = archive.read(name)
                if name == "bundle.json":
                    plan = json.loads(data)
                    around = plan["request"]["around"][0]
                    plan["request"] |= {"time_limit": 1e6, "everywhere": False, "around": [
                        {**around, "ra": 0.06 * i, "dec": -1, "regions": 10000} for i in range(100)]}
                    data = json.dumps(plan)
                forged.writestr(name, data)
        run = self.run_solver("--replay", long, "--time-limit", "1", "--json")
        self.assertTrue(json.loads(run.stdout)["time_limit_reached"])

    @unittest.skipUnless("fits" in os.environ.get("VESTREL_DECODERS", ""), "a build without this decoder")
    def test_an_export_of_decoded_counts_says_how_they_follow_from_the_file(self):
        start = (self.sky.index(b"END".ljust(80)) // 2880 + 1) * 2880
        size = 600 * 450
        wide = [16 * (value + 32768) for value in struct.unpack(f">{size}h", self.sky[start:start + 2 * size])]
        header = "".join(card.ljust(80) for card in ("SIMPLE  =                    T", "BITPIX  =                   32",
                                                     "NAXIS   =                    2", "NAXIS1  =                  600",
                                                     "NAXIS2  =                  450", "END"))
        image = self.frame("wide.fit", header.ljust(2880).encode() + struct.pack(f">{size}i", *wide))
        export = self.folder / "export.fits"
        run = self.run_solver(image, *self.search[1:], "--export", export, "--json")
        self.assertEqual(run.returncode, SOLVED, run.stderr)
        counts = json.loads(run.stdout)["counts"]
        self.assertNotEqual(counts["factor"], 1)
        said = re.search(rb"COMMENT   Counts are \(value - ([0-9.e+-]+)\) x ([0-9.e+-]+) of the file", export.read_bytes(),
                         re.IGNORECASE)
        self.assertAlmostEqual(float(said[1]), counts["zero"], delta=1e-6 * (1 + abs(counts["zero"])))
        self.assertAlmostEqual(float(said[2]), counts["factor"], delta=1e-6 * counts["factor"])


class Solutions(DrawnSky):
    """What becomes of a solution."""

    def test_it_goes_to_stdout_in_words_or_json(self):
        run = self.run_solver(*self.search)
        self.assertEqual((run.returncode, run.stderr), (SOLVED, b""))
        self.assertTrue(run.stdout.startswith(b"Valid plate solution: "))
        self.assertNotIn(b"\x1b", run.stdout)
        report = json.loads(self.run_solver(*self.search, "--json").stdout)
        self.assert_centre(report["ra_deg"], report["dec_deg"])
        self.assertAlmostEqual(report["scale_arcsec_px"], 6, delta=0.002)
        self.assertIs(report["mirrored"], False)
        elsewhere = ["--ra", self.RA + 0.9, "--dec", self.DEC, "--size", "20x15"]
        run = self.run_solver(self.search[0], *elsewhere, "--regions", "1")
        self.assertEqual((run.returncode, run.stdout), (NO_MATCH, b""))

    def test_results_are_written_beside_images_of_any_name(self):
        names = [b"m\xc3\xbc \xe2\x98\x85", b"-x, y"]
        for name in names if WINDOWS else [*names, b"\xff\xfe", b"n" * 251]:
            image = os.fsencode(self.folder) + b"/" + name
            with open(image + b".fit", "wb") as file:
                file.write(self.sky)
            run = subprocess.run([*SOLVER, self.parameters.encode() + image + b".fit"],
                                 env=self.environment, capture_output=True, check=False)
            self.assertEqual(run.returncode, SOLVED, run.stderr)
            with open(image + b".kel", "rb") as file:
                lines = file.read().split(b"\r\n")
            ra, dec, code = lines[0].split(b",")
            self.assert_centre(math.degrees(float(ra)), math.degrees(float(dec)))
            self.assertEqual([code, *lines[2:]], [b"1", b"Valid plate solution", b""])

    def test_it_goes_into_files_for_this_and_other_programs(self):
        image = self.search[0]
        out = {name: self.folder / name for name in ("e.fits", "s.fit", "sky.wcs")}
        files = ["--wcs", "--export", out["e.fits"], "--save", out["s.fit"]]
        run = self.run_solver(image, "--ra", 99, "--dec", 0, "--size", "60x45", *files)
        self.assertNotEqual(run.returncode, SOLVED)
        self.assertFalse([path for path in out.values() if path.exists()])
        run = self.run_solver(*self.search, *files)
        self.assertEqual((run.returncode, run.stderr), (SOLVED, b""))
        self.assertEqual(image.read_bytes(), self.sky)
        info = self.run_solver("--info", out["s.fit"])
        self.assertEqual(info.returncode, 0)
        self.assertRegex(info.stdout, rb"^  Image Size = 600 X 450\n  Image Size = (60|59\.99\d)'  X")
        self.assertRegex(info.stdout, rb"\n  NH_PM   = T /")
        same = self.folder / "." / "same.fit"
        for files in (["--save", image], ["--export", image], ["--save", same, "--export", same],
                      ["--wcs", "--export", self.folder / "sky.wcs"], ["--save", ""]):
            run = self.run_solver(*self.search, *files)
            self.assertEqual((run.returncode, run.stdout), (USAGE, b""), run.stderr)
            self.assertEqual(image.read_bytes(), self.sky)
            self.assertFalse(same.exists())
        run = self.run_solver(self.parameters + str(image), "--save", self.folder / "sky.kel")
        self.assertEqual(run.returncode, USAGE)
        (self.folder / "sky.wcs").unlink()
        (self.folder / "sky.wcs").mkdir()
        self.assertEqual(self.run_solver(*self.search, "--wcs").returncode, NOT_WRITTEN)
        try:
            from astropy.io import fits
            from astropy.wcs import WCS
            from PIL import Image
        except ImportError as error:
            skip_or_fail(self, f"no judge: {error}")
        # The same sky as a picture: its first row is the top, its file of coordinates counts rows
        # from the bottom as the FITS file does.
        counts = fits.getdata(image).astype(float)
        Image.fromarray((counts.clip(900, 3000) / 12).astype("uint8")[::-1]).save(
            self.folder / "p.jpg", quality=98)
        run = self.run_solver(self.folder / "p.jpg", *self.search[1:], "--wcs", "--export",
                              self.folder / "p.fits")
        self.assertEqual(run.returncode, SOLVED)
        corners = [[1, 1], [600, 1], [1, 450], [600, 450], [300.5, 225.5]]
        skies = [WCS(fits.getheader(self.folder / name)).all_pix2world(corners, 1)
                 for name in ("e.fits", "p.wcs", "p.fits")]
        self.assertLess(abs(skies[0] - skies[1]).max() * 3600, 3)  # half a pixel
        self.assertEqual(abs(skies[1] - skies[2]).max(), 0)
        self.assert_centre(*skies[0][4])
        self.assertEqual(self.run_solver("--info", self.folder / "p.jpg").stdout, b"")
        if not WINDOWS:  # which has no decoders
            self.check_other_formats(counts.clip(0, 65535).astype("uint16"), skies[0], corners)

    @staticmethod
    def write_xisf(path, rows, cards):
        keywords = "".join(f'<FITSKeyword name="{key}" value="{value}" comment=""/>'
                           for key, value in cards.items())
        data = rows.astype("<u2").tobytes()
        text = (f'<xisf version="1.0"><Image geometry="{rows.shape[1]}:{rows.shape[0]}:1" '
                f'sampleFormat="UInt16" colorSpace="Gray" location="attachment:4096:{len(data)}">'
                f'{keywords}</Image></xisf>').encode()
        head = b"XISF0100" + struct.pack("<II", len(text), 0) + text
        path.write_bytes(head.ljust(4096, b"\0") + data)

    @staticmethod
    def write_dng(path, rows):
        """A sensor with four pixels for each one of the picture."""
        from PIL import Image
        from PIL.TiffImagePlugin import ImageFileDirectory_v2
        tags = ImageFileDirectory_v2()
        for tag, form, value in [(33421, 3, (2, 2)), (33422, 1, b"\0\1\1\2"), (50706, 1, b"\1\3\0\0"),
                                 (50708, 2, "Maker Model"), (271, 2, "Maker"), (272, 2, "Model")]:
            tags.tagtype[tag] = form
            tags[tag] = value
        Image.fromarray((rows // 4).repeat(2, 0).repeat(2, 1)).save(path, "TIFF", tiffinfo=tags)
        grey, mosaic = (struct.pack("<HHII", 262, 3, 1, value) for value in (1, 32803))
        path.write_bytes(path.read_bytes().replace(grey, mosaic, 1))

    def check_other_formats(self, counts, skies, corners):
        """The same sky in other programs' files: found by what their headers say, exported as it was."""
        from astropy.io import fits
        from astropy.wcs import WCS
        from PIL import Image
        centre = skies[4]
        scale = math.hypot(*(skies[3] - skies[2]) * [math.cos(math.radians(centre[1])), 1]) / 599
        hints = fits.Header({"RA": centre[0] + 0.1, "DEC": centre[1] - 0.1, "FOCALLEN": 500.0,
                             "XPIXSZ": scale * 3600 * 500 / 206.264806, "EXPTIME": "30.0"})
        one = fits.PrimaryHDU(counts, hints)
        one.writeto(self.folder / "f.fits.gz")
        fits.PrimaryHDU(counts / 65535, hints).writeto(self.folder / "f64.fits")
        fits.PrimaryHDU((counts / 65535).astype("float32"), hints).writeto(self.folder / "f32.fits")
        fits.HDUList([fits.PrimaryHDU(header=hints), fits.ImageHDU(counts)]).writeto(
            self.folder / "extension.fits")
        for kind in ("RICE_1", "HCOMPRESS_1"):
            fits.HDUList([fits.PrimaryHDU(), fits.CompImageHDU(counts, hints, compression_type=kind)]
                         ).writeto(self.folder / f"{kind}.fits.fz")
        picture = Image.fromarray(counts[::-1].copy())
        picture.save(self.folder / "f.png")
        picture.save(self.folder / "f.tif", description=json.dumps(dict(hints)))
        self.write_xisf(self.folder / "f.xisf", counts[::-1], hints)
        self.write_dng(self.folder / "f.dng", counts[::-1])
        for name in ("f.fits.gz", "f64.fits", "f32.fits", "extension.fits", "RICE_1.fits.fz",
                     "HCOMPRESS_1.fits.fz", "f.tif", "f.png", "f.xisf", "f.dng"):
            needed = {"f.tif": "tiff", "f.png": "png", "f.xisf": "xisf", "f.dng": "raw"}.get(name, "fits")
            if needed not in os.environ.get("VESTREL_DECODERS", "fits png tiff").split():
                continue
            with self.subTest(name):
                given = self.search[1:] if needed in ("png", "raw") else []  # which say nothing
                run = self.run_solver(self.folder / name, *given, "--wcs",
                                      "--export", self.folder / "out.fits")
                self.assertEqual(run.returncode, SOLVED, run.stderr)
                beside = fits.getheader((self.folder / name).with_suffix(".wcs"))
                with fits.open(self.folder / "out.fits") as out:
                    for header in (out[0].header, beside):
                        sky = WCS(header).all_pix2world(corners, 1)
                        self.assertLess(abs(sky[4] - centre).max(), 0.05 * scale)
                        self.assertLess(abs(sky - skies).max(), scale)
                    if name != "f32.fits":
                        lost = 3 if needed == "raw" else 1
                        self.assertLessEqual(abs(out[0].data - counts.astype(float)).max(), lost)
        (self.folder / "cut.png").write_bytes((self.folder / "f.png").read_bytes()[:5000])
        run = self.run_solver("--info", self.folder / "cut.png")
        self.assertEqual((run.returncode, run.stdout), (NO_IMAGE, b""))
        self.assertIn(b"File type is not supported", run.stderr)
        self.assertIn(b"This PNG file cannot be read", run.stderr)

    def test_a_lost_one_is_an_error(self):
        (self.folder / "sky.kel").mkdir()
        run = self.run_solver(self.parameters + str(self.search[0]))
        self.assertEqual(run.returncode, NOT_WRITTEN)
        self.assertIn(b"sky.kel cannot be written: Is a directory.", run.stderr)
        for more in [] if WINDOWS else [[], ["--json"]]:
            with open("/dev/full", "wb") as full:
                run = subprocess.run([*SOLVER, *map(str, self.search), *more], stdout=full,
                                     stderr=subprocess.PIPE, env=self.environment, check=False)
            self.assertEqual(run.returncode, NOT_WRITTEN)
            self.assertIn(b"cannot be written", run.stderr)


@unittest.skipUnless(WINDOWS, "only Windows has such places")
class OnWindows(DrawnSky):
    """Files where Windows keeps them, and in them what other systems write."""

    def test_files_lie_where_windows_keeps_them(self):
        drive = pathlib.Path(os.environ["WINEPREFIX"]) / "drive_c"
        data = drive / "ProgramData/Harrowdene"
        data.mkdir()
        self.addCleanup(shutil.rmtree, data)
        (self.folder / "KEL").rename(data / "KEL")
        settings = next(drive.glob("users/*/AppData/Roaming")) / "Vestrel/Vestrel.ini"
        shutil.rmtree(settings.parent, ignore_errors=True)
        del self.environment["VESTREL_CATALOG"], self.environment["VESTREL_SETTINGS"]
        pictures = pathlib.Path(tempfile.mkdtemp(prefix="Aufnahmen m\xfc \u2605 ", dir=drive))
        self.addCleanup(shutil.rmtree, pictures)
        (pictures / "m 51, neu.fit").write_bytes(self.sky)
        image = f"C:\\{pictures.name}\\m 51, neu.fit"
        for path in (image, image.replace("\\", "/"), image.replace("C:", ""), "m 51, neu.fit"):
            run = self.run_solver(self.parameters + path, "--json", cwd=pictures)
            report = json.loads(run.stdout)
            self.assertEqual((run.returncode, report["image"]), (SOLVED, path), run.stderr)
            self.assertEqual(report["catalog_folder"], "C:\\ProgramData\\Harrowdene\\KEL")
            (pictures / "m 51, neu.kel").unlink()
        self.assertTrue(settings.exists())
        # The settings beside the program come first.
        program = pictures / "vestrel-solve.exe"
        shutil.copy(SOLVER[-1], program)
        for outdated in (False, True):
            if outdated:
                (pictures / "Vestrel.ini").write_bytes(b"OLD!!")
            run = subprocess.run([*WINE, program, image, "--ra", "1", "--dec", "1"],
                                 env=self.environment, capture_output=True, check=False)
            self.assertEqual(b"out of date" in run.stderr, outdated)

    def test_results_are_those_of_this_system_byte_for_byte(self):
        native = pathlib.Path(os.environ["VESTREL_NATIVE"])
        if not (native / "vestrel-solve").exists():
            self.skipTest(f"no programs in {native}")
        here = self.folder / "here.fit"
        subprocess.run([native / "vestrel-catalog", "render", "--ra", str(self.RA), "--dec",
                        str(self.DEC), "--size", "60x45", "--width-px", "600", "--out", here],
                       env=self.environment, check=True, capture_output=True)
        self.assertEqual(here.read_bytes(), self.sky)
        images = [here]
        try:
            from astropy.io import fits
            from PIL import Image
            grey = (fits.getdata(here).astype(float).clip(900, 3000) / 12).astype("uint8")[::-1]
            for name, quality in (("high.jpg", 98), ("low.jpg", 60)):
                images.append(self.folder / name)
                Image.merge("RGB", [Image.fromarray(grey // k) for k in (1, 2, 3)]).save(
                    images[-1], quality=quality, progressive=quality < 90)
        except ImportError:
            pass
        for image in images:
            written = []
            for solver in (SOLVER, [native / "vestrel-solve"]):
                saved = self.folder / "saved.fit"
                run = subprocess.run([*solver, self.parameters + str(image), "--save", saved],
                                     env=self.environment, capture_output=True, check=False)
                self.assertEqual(run.returncode, SOLVED, run.stderr)
                written.append((image.with_suffix(".kel").read_bytes(),
                                saved.read_bytes()))
            self.assertEqual(written[0][0], written[1][0])
            self.assertTrue(written[0][1] == written[1][1], image)


class CatalogTool(Solver):
    @not_on_windows
    def test_an_interrupt_while_it_waits_for_input_leaves_the_old_catalog(self):
        catalog = self.folder / "KEL"
        catalog.mkdir()
        cell = self.frame("KEL/N00R00", b"old")
        process = subprocess.Popen([*RENDERER, "build", "--csv", "-", "--catalog", catalog],
                                   stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        self.addCleanup(process.stdin.close)
        process.stdin.write(b"ra,dec,mag\n")
        process.stdin.flush()
        building = self.folder / f"KEL.building-{process.pid}"
        for _ in range(500):
            if building.exists():
                break
            time.sleep(0.01)
        self.assertTrue(building.exists())
        time.sleep(0.1)  # until it waits in the read
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(timeout=60), 130)
        self.assertEqual(cell.read_bytes(), b"old")
        self.assertEqual(list(self.folder.iterdir()), [catalog])


class RealPictures(Solver):
    """The sky as it was photographed, from hints up to a quarter of the field off."""

    @classmethod
    def setUpClass(cls):
        if not any(cell.stat().st_size for cell in CATALOG.glob("[NS]??R??")):
            raise (AssertionError if os.environ.get("CI") else unittest.SkipTest)(f"no catalog in {CATALOG}")
        if not (PICTURES / "truth.tsv").exists():
            raise unittest.SkipTest(f"no pictures in {PICTURES}")
        with open(PICTURES / "truth.tsv", encoding="utf-8") as file:
            cls.rows = list(csv.DictReader(file, delimiter="\t"))

    def solve(self, image, row):
        run = self.run_solver(image, "--ra", row["hint_ra_deg"], "--dec=" + row["hint_dec_deg"],
                              "--size", f"{row['width_arcmin']}x{row['height_arcmin']}",
                              "--regions", row["regions"], "--catalog", CATALOG, "--json")
        return json.loads(run.stdout)

    def test_wide_ones_are_solved_without_a_centre(self):
        if not (CATALOG / "quads.tables").exists():
            skip_or_fail(self, f"no quad tables in {CATALOG}; vestrel-catalog quads makes them")
        solved = 0
        wide = [row for row in self.rows
                if row["expect"] == "solved" and float(row["width_arcmin"]) >= 60]
        for row in wide:
            with self.subTest(row["file"]):
                run = self.run_solver(PICTURES / row["file"], "--blind", "--catalog", CATALOG,
                                      f"--size={row['width_arcmin']}x{row['height_arcmin']}", "--json")
                report = json.loads(run.stdout)
                if not report["solved"]:
                    continue
                solved += 1
                self.judge(report, row)
                self.assertLess(report["quads"]["confidence"]["log10_false_alarm"], -6)
                self.assertLess(report["confidence"]["log10_false_alarm"], -6)
        self.assertGreaterEqual(solved, 0.8 * len(wide))

    def check(self, image, row, mirrored=None):
        report = self.solve(image, row)
        if row["expect"] != "solved":
            self.assertFalse(report["solved"])
            return
        self.assertTrue(report["solved"])
        self.judge(report, row, mirrored)

    def judge(self, report, row, mirrored=None):
        ra, dec, scale = (float(row[k]) for k in ("ra_deg", "dec_deg", "scale_arcsec_px"))
        off = math.hypot((report["ra_deg"] - ra) * math.cos(math.radians(dec)),
                         report["dec_deg"] - dec) * 3600 / scale
        self.assertLessEqual(off, float(row["tolerance_px"]))
        # Wide gnomonic pictures lose a little scale on an orthographic plane.
        half_diagonal = math.radians(math.hypot(float(row["width_arcmin"]),
                                                float(row["height_arcmin"])) / 120)
        self.assertLess(abs(report["scale_arcsec_px"] / scale - 1), 0.002 + half_diagonal ** 2 / 2)
        self.assertEqual(report["mirrored"],
                         row["mirrored_as_displayed"] == "yes" if mirrored is None else mirrored)
        self.assertEqual(report["cautions"], [])

    def test_each_is_solved_within_its_tolerance_and_no_control_is(self):
        self.assertGreater(len(self.rows), 10)
        for row in self.rows:
            with self.subTest(row["file"], expect=row["expect"]):
                self.check(PICTURES / row["file"], row)

    def test_fits_as_jpeg_and_jpeg_as_fits_solve_alike(self):
        try:
            import numpy
            from astropy.io import fits
            from PIL import Image
        except ImportError as error:
            skip_or_fail(self, f"no judge: {error}")
        for row in self.rows:
            if row["expect"] != "solved":
                continue
            source = PICTURES / row["file"]
            with self.subTest(row["file"]):
                if source.suffix == ".jpg":
                    grey = numpy.asarray(Image.open(source).convert("RGB")).astype("int16").sum(2)
                    image = self.folder / (source.stem + ".fits")
                    # FITS rows run upward, pictures downward.
                    fits.writeto(image, grey[::-1].astype("int16"))
                else:
                    counts = fits.getdata(source).astype(float)
                    low, high = numpy.percentile(counts, (1, 99.95))
                    grey = (numpy.clip((counts - low) / (high - low), 0, 1) * 255).astype("uint8")
                    image = self.folder / (source.stem + ".jpg")
                    Image.fromarray(grey[::-1]).save(image, quality=97)
                self.check(image, row)


if __name__ == "__main__":
    unittest.main()
