#!/usr/bin/env python3
"""vestrel-batch as a night uses it.

Environment: VESTREL_PROGRAMS the folder of the programs; VESTREL_HOSTILE_DECODER a module that does to its
process what a picture says.
"""
import array
import ctypes
import html
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as xml

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "bench"))
import killBatch  # noqa: E402

PROGRAMS = pathlib.Path(os.environ["VESTREL_PROGRAMS"])
FORMATS = (pathlib.Path(__file__).parents[1] / "docs/FORMATS.md").read_text()


def children(pid):
    found = []
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            found += (task / "children").read_text().split()
        except FileNotFoundError:  # a thread that has ended meanwhile
            pass
    return found


class Batch(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="vestrel-batch-")
        cls.addClassCleanup(folder.cleanup)
        cls.work = pathlib.Path(folder.name)
        cls.catalog = cls.work / "catalog"
        killBatch.make_catalog(PROGRAMS, cls.catalog)
        cls.frames = cls.work / "frames"
        cls.truth = killBatch.make_frames(PROGRAMS, cls.catalog, cls.frames, 12)

    def batch(self, *words, **options):
        return subprocess.run([PROGRAMS / "vestrel-batch", *words, "--catalog", self.catalog],
                              capture_output=True, text=True, errors="replace", timeout=60, **options)

    def test_killed_at_any_moment_it_goes_on_where_it_was(self):
        faults, met = killBatch.kill_runs(PROGRAMS, self.catalog, self.frames, self.work, self.truth,
                                          8, 2, random.Random(3))
        self.assertEqual(faults, [])
        self.assertGreater(met, 0)

    def test_a_report_is_one_page_in_which_nothing_of_a_file_is_markup(self):
        journal, page = self.work / "report.jsonl", self.work / "night.html"
        end = self.batch(self.frames, "--out", journal, "--report", page)
        self.assertEqual((end.returncode, end.stdout), (0, ""))
        # A camera may call itself anything.
        with open(journal, "a") as file:
            file.write(json.dumps({"picture": "</td><script>alert(1)</script>", "end": "<i>",
                                   "reason": "\"'&\x1b[2J"}) + "\n")
        self.assertEqual(self.batch("--out", journal, "--report", page).returncode, 0)
        text = page.read_text()
        tree = xml.fromstring(re.sub(r"<!DOCTYPE html>|<meta[^>]*>", "", text)
                              .replace("&deg;", "&#176;"))
        self.assertEqual(len(tree.findall(".//table/tr")), len(self.truth) + 2)
        self.assertEqual(len(tree.findall(".//svg")), 4)
        self.assertNotRegex(text, "<script|<i>|http:|https:|\x1b")
        self.assertIn("12 of 17 pictures solved", text)

    def test_a_failure_has_its_likely_cause_in_the_journal_and_on_the_page(self):
        folder = self.work / "causes"
        folder.mkdir()
        place = killBatch.RA + 0.3, killBatch.DEC
        for name, more in (("good", ()), ("trailed", ("--trail", "90", "40")), ("dark", ("--magnitude-limit", "3", "--sky", "200"))):
            picture = folder / f"{name}.fit"
            killBatch.run(PROGRAMS / "vestrel-catalog", "render", "--catalog", self.catalog, "--ra", place[0], "--dec",
                          place[1], "--size", "40x30", "--width-px", "400", "--out", picture, *more)
            killBatch.header_hint(picture, place, random.Random(1))
            picture.with_suffix(".truth.json").unlink()
        (folder / "text.fit").write_text("no picture")
        journal, page = self.work / "causes.jsonl", self.work / "causes.html"
        self.assertEqual(self.batch(folder, "--out", journal, "--report", page, "--time-limit", "4").returncode, 0)
        lines = {pathlib.Path(line["picture"]).stem: line for line in map(json.loads, journal.read_text().splitlines())}
        self.assertEqual({name: line.get("cause", {}).get("kind") for name, line in lines.items()},
                         {"good": None, "trailed": "trailed", "dark": "under_exposed", "text": None})
        self.assertRegex(lines["trailed"]["cause"]["text"], r"\d+.* pixels")  # the evidence
        self.assertTrue(lines["trailed"]["cause"]["try"])
        text = page.read_text()
        self.assertIn("Likely causes: trailed 1, under exposed 1.", text)
        self.assertIn(html.escape(lines["trailed"]["cause"]["text"]), text)

    def hostile(self, name):
        """A folder with the program and a decoder of PNG that does to its process what a picture says."""
        place = self.work / name
        (place / "bin").mkdir(parents=True)
        (place / "lib/vestrel").mkdir(parents=True)
        shutil.copy(PROGRAMS / "vestrel-batch", place / "bin")
        shutil.copy(os.environ["VESTREL_HOSTILE_DECODER"], place / "lib/vestrel/decode-png.so")
        return place

    def test_a_picture_that_kills_its_decoder_ends_nothing(self):
        place = self.hostile("hostile")
        for number, deed in enumerate(("crash", "abort", "exit", "throw", "memory", "nothing")):
            (place / f"{2 * number}.png").write_bytes(b"\x89PNG\r\n\x1a\n" + deed.encode())
            shutil.copy(sorted(self.frames.glob("light_*.fit"))[number], place / f"{2 * number + 1}.fit")
        journal = place / "night.jsonl"
        run = subprocess.run([place / "bin/vestrel-batch", place, "--catalog", self.catalog, "--out", journal],
                             capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, 0, run.stderr)
        ends = {pathlib.Path(line["picture"]).name: line for line in map(json.loads, journal.read_text().splitlines())}
        self.assertEqual({name: line["end"] for name, line in ends.items()},
                         {f"{n}.fit" if n % 2 else f"{n}.png": "solved" if n % 2 else "no picture" for n in range(12)})
        for number in range(5):
            self.assertIn("the decoder broke off", ends[f"{2 * number}.png"]["reason"])
        self.assertIn("It is bad.", ends["10.png"]["reason"])

    def slow_night(self, name):
        """A night that takes 2 s for its first picture. @return its folder of pictures, its journal, and a starter"""
        place = self.hostile(name)
        pictures, journal = place / "night", place / "night.jsonl"
        pictures.mkdir()
        (pictures / "0.png").write_bytes(b"\x89PNG\r\n\x1a\nsleep")
        for number in (1, 2):
            shutil.copy(sorted(self.frames.glob("light_*.fit"))[number], pictures / f"{number}.fit")

        def start():
            process = subprocess.Popen([place / "bin/vestrel-batch", pictures, "--workers", "1", "--catalog",
                                        self.catalog, "--out", journal],
                                       stderr=subprocess.PIPE, text=True, start_new_session=True)
            self.addCleanup(process.stderr.close)
            self.addCleanup(process.wait)
            self.addCleanup(process.kill)
            end = time.monotonic() + 20
            while not children(process.pid):  # until the first picture is being decoded
                self.assertLess(time.monotonic(), end)
                time.sleep(0.02)
            return process
        return pictures, journal, start

    def test_a_picture_whose_decoding_is_stopped_is_not_done(self):
        _, journal, start = self.slow_night("stopped")
        for number in (signal.SIGINT, signal.SIGTERM):
            process = start()
            os.killpg(process.pid, number)  # as a terminal does, which reaches the decoder too
            self.assertEqual(process.wait(20), 4)
            self.assertEqual(journal.read_bytes(), b"")
        process = start()
        process.kill()
        process.wait()
        # The decoder ends too, and with it its hold on the journal.
        again = start()
        self.assertEqual(again.wait(20), 0, again.stderr.read())
        self.assertEqual(self.lines_when(journal, 3), {b"0.png": "no picture", b"1.fit": "solved", b"2.fit": "solved"})

    def test_what_cannot_be_reached_is_not_done_and_tried_again(self):
        pictures, journal, start = self.slow_night("moved")
        process = start()
        pictures.rename(pictures.with_name("away"))
        self.assertEqual(process.wait(20), 6)
        self.assertEqual(process.stderr.read().count("not done"), 3)
        self.assertEqual(journal.read_bytes(), b"")
        pictures.with_name("away").rename(pictures)
        self.assertEqual(start().wait(20), 0)
        self.assertEqual(self.lines_when(journal, 3), {b"0.png": "no picture", b"1.fit": "solved", b"2.fit": "solved"})
        # A file of which not even the first byte can be read, as on a disk with faults.
        fault = self.work / "fault.fit"
        fault.symlink_to("/proc/self/mem")
        end = self.batch(fault, "--out", self.work / "fault.jsonl")
        self.assertEqual((end.returncode, (self.work / "fault.jsonl").read_bytes()), (6, b""), end.stderr)
        # Names that are not there, and folders without permission, below others or above what was named.
        place, good = self.work / "closed", sorted(self.frames.glob("light_*.fit"))[0]
        (place / "closed").mkdir(parents=True)
        (place / "lost+found").mkdir()
        for picture in (place / "one.fit", place / "closed/two.fit"):
            os.link(good, picture)
        for folder in (place / "closed", place / "lost+found"):
            folder.chmod(0)
            self.addCleanup(folder.chmod, 0o700)

        def no_overriding():  # as other users are, whom permissions bind
            for capability in (1, 2):
                ctypes.CDLL(None).prctl(24, capability, 0, 0, 0)
        cases = ((place / "one.fit", self.work / "absent/three.fit", "three.fit  It cannot be read: No such file"),
                 (place / "one.fit", place / "closed/two.fit", "two.fit  It cannot be read: Permission denied"),
                 (place / "one.fit", place / "closed", "closed cannot be read"), (place, place, "closed cannot be read"))
        for number, (*words, message) in enumerate(cases):
            end = self.batch(*words, "--out", self.work / f"closed{number}.jsonl", preexec_fn=no_overriding)
            self.assertEqual(end.returncode, 6, end.stderr)
            self.assertIn(message, end.stderr)
            self.assertNotIn("lost+found", end.stderr)
            self.assertNotIn("no pictures", end.stderr)
            self.assertEqual(self.lines_when(self.work / f"closed{number}.jsonl", 1), {b"one.fit": "solved"})
        # A folder that cannot be opened, because its path is too long, does not hide the others.
        deep = self.work / "deep"
        (deep / "z").mkdir(parents=True)
        os.link(sorted(self.frames.glob("light_*.fit"))[0], deep / "z/one.fit")
        folder = os.open(deep, os.O_RDONLY)
        try:
            for _ in range(17):
                os.mkdir("d" * 250, dir_fd=folder)
                below = os.open("d" * 250, os.O_RDONLY, dir_fd=folder)
                os.close(folder)
                folder = below
        finally:
            os.close(folder)
        end = self.batch(deep, "--out", self.work / "deep.jsonl")
        self.assertEqual(end.returncode, 6, end.stderr)
        self.assertIn("cannot be read", end.stderr)
        self.assertEqual(self.lines_when(self.work / "deep.jsonl", 1), {b"one.fit": "solved"})

    def test_without_a_catalog_nothing_is_done_and_a_watch_waits_for_it(self):
        watched, journal, catalog = self.work / "early", self.work / "early.jsonl", self.work / "late"
        watched.mkdir()
        picture = watched / "one.fit"
        os.link(sorted(self.frames.glob("light_*.fit"))[0], picture)
        process = subprocess.Popen([PROGRAMS / "vestrel-batch", "--watch", watched, "--out", journal, "--catalog",
                                    catalog, "--idle-end", "2"], stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.kill)
        # It also waits for the picture, which rests for longer than --idle-end.
        self.assertIn("There is no catalog", process.stderr.readline())
        self.assertEqual(journal.read_bytes(), b"")
        time.sleep(0.5)  # until the watch has heard of it
        catalog.symlink_to(self.catalog)
        picture.rename(self.work / "one.fit")
        (self.work / "one.fit").rename(picture)
        self.assertEqual(process.wait(20), 0)
        self.assertEqual(self.lines_when(journal, 1), {b"one.fit": "solved"})
        # Nor does one that never comes keep it busy.
        catalog.unlink()
        (watched / "two.fit").write_bytes(b"no picture")
        end = subprocess.run([PROGRAMS / "vestrel-batch", "--watch", watched, "--out", journal, "--catalog", catalog,
                              "--idle-end", "1"], capture_output=True, timeout=20)
        self.assertEqual(end.returncode, 6)
        self.lines_when(journal, 1)

    def test_no_picture_or_journal_is_overwritten(self):
        folder = self.work / "kept"
        folder.mkdir()
        frames = sorted(self.frames.glob("light_*.fit"))
        for name, frame in zip(("q.fit", "q.wcs", "y.fit", "z.fit"), frames):
            shutil.copy(frame, folder / name)
        for link in ("y.wcs", "y.kel", "y.solved.fits"):
            (folder / link).symlink_to(folder / "y.fit")
        (folder / "z.kel").symlink_to(folder / "q.fit")
        before = {path: path.read_bytes() for path in folder.iterdir()}
        journal = self.work / "kept.jsonl"
        words = (*(folder / name for name in ("q.fit", "q.wcs", "y.fit", "z.fit")), "--wcs", "--kel", "--export")
        self.assertEqual(self.batch(*words, "--out", journal).returncode, 0)
        self.assertEqual({path: path.read_bytes() for path in before}, before)
        written = [file for line in map(json.loads, journal.read_text().splitlines())
                   for file in line["files"].values()]
        self.assertEqual(len({os.path.realpath(file) for file in written}), 12)
        lines = journal.read_bytes()
        linked = self.work / "kept.html"
        linked.symlink_to(journal)
        for page in (journal, linked, folder / "q.fit"):
            end = self.batch("--out", journal, "--report", page)
            self.assertEqual(end.returncode, 2)
            self.assertIn("it stays", end.stderr)
        self.assertEqual((journal.read_bytes(), (folder / "q.fit").read_bytes()), (lines, before[folder / "q.fit"]))
        # The folder, too, may be named by a link.
        folder, linked = self.work / "kept too", self.work / "kept by a link"
        folder.mkdir()
        linked.symlink_to(folder)
        for name, frame in zip(("a.fit", "b.fit"), frames):
            shutil.copy(frame, folder / name)
        (folder / "a.solved.fits").symlink_to("b.fit")
        self.assertEqual(self.batch(linked, "--export").returncode, 0)
        for name, frame in zip(("a.fit", "b.fit"), frames):
            self.assertTrue((folder / name).read_bytes() == frame.read_bytes(), name)

    def test_files_of_pictures_whose_names_are_not_utf8_stay_theirs_after_a_restart(self):
        folder, journal = os.path.join(os.fsencode(self.work), b"bytes\xff"), self.work / "bytes.jsonl"
        os.mkdir(folder)
        pictures = [os.path.join(folder, name) for name in (b"m\xfe.fit", b"m\xfe.fits")]
        for picture, frame in zip(pictures, sorted(self.frames.glob("light_*.fit"))):
            shutil.copy(frame, picture)
            self.assertEqual(self.batch(picture, "--wcs", "--out", journal).returncode, 0)
        files = [json.loads(line)["files"]["wcs_hex"] for line in journal.read_bytes().splitlines()]
        self.assertEqual([os.path.basename(bytes.fromhex(file)) for file in files], [b"m\xfe.wcs", b"m\xfe.fits.wcs"])

    def test_a_journal_that_is_deleted_or_no_file_ends_the_night(self):
        pictures, journal, start = self.slow_night("deleted")
        process = start()
        journal.unlink()
        self.assertEqual(process.wait(20), 8)
        self.assertIn("has been deleted", process.stderr.read())
        end = self.batch(pictures, "--out", "/dev/stdout")
        self.assertEqual((end.returncode, end.stdout), (8, ""))
        self.assertIn("is no file", end.stderr)

    def test_a_night_outlives_who_reads_its_messages(self):
        journal = self.work / "pipe.jsonl"
        ends = os.pipe()
        os.close(ends[0])
        end = subprocess.run([PROGRAMS / "vestrel-batch", self.frames, "--out", journal, "--catalog", self.catalog],
                             stderr=ends[1], timeout=60)
        os.close(ends[1])
        self.assertEqual(end.returncode, 0)
        self.assertEqual(killBatch.check(journal, self.truth, False), [])

    def test_a_journal_damaged_in_its_middle_keeps_the_rest_and_what_was_lost_is_done_again(self):
        journal = self.work / "damaged.jsonl"
        self.assertEqual(self.batch(self.frames, "--out", journal).returncode, 0)
        lines = journal.read_bytes().splitlines(keepends=True)
        order = random.Random(4)
        for _ in range(3):
            damaged = list(lines)
            hurt = order.sample(range(1, len(lines)), 4)
            damaged[hurt[0]] = bytes(len(lines[hurt[0]]) - 1) + b"\n"  # as a disk may leave it
            damaged[hurt[1]] = lines[hurt[1]][:order.randrange(20, 60)] + b"\n"
            damaged[hurt[2]] = b"[1, 2]\n"
            damaged[hurt[3]] = lines[hurt[3]].replace(b'"picture":"', b'"picture":["', 1)
            journal.write_bytes(b"".join(damaged) + lines[1][:order.randrange(1, 80)])  # and half a line at the end
            run = self.batch(self.frames, "--out", journal, "--report", self.work / "damaged.html")
            self.assertEqual(run.returncode, 0, run.stderr)
            self.assertIn("4 lines of the journal cannot be read; they stay.", run.stderr)
            now = journal.read_bytes()
            self.assertTrue(now.startswith(b"".join(damaged)))
            self.assertEqual(now.count(b"\n"), len(lines) + 4)
            whole = self.work / "valid.jsonl"
            whole.write_bytes(b"".join(line for number, line in enumerate(now.splitlines(keepends=True))
                                       if number not in hurt))
            self.assertEqual(killBatch.check(whole, self.truth, False), [])
            self.assertIn("12 of 16 pictures solved", (self.work / "damaged.html").read_text())

    def test_two_batches_do_not_share_a_journal_and_pipes_are_no_pictures(self):
        journal, watched = self.work / "shared.jsonl", self.work / "nothing"
        watched.mkdir()
        first = self.watch(watched, journal)
        end = time.monotonic() + 20
        while not journal.exists() and time.monotonic() < end:
            time.sleep(0.02)
        second = self.batch(self.frames, "--out", journal)
        self.assertEqual(second.returncode, 8)
        self.assertIn("in use by another process", second.stderr)
        self.assertEqual(journal.read_bytes(), b"")
        first.kill()
        first.wait()
        # Opening a pipe would wait until somebody writes into it.
        os.mkfifo(watched / "pipe.fit")
        for word in (watched / "pipe.fit", str(watched / "p*.fit"), watched):
            self.assertEqual(self.batch(word, "--out", journal).returncode, 5)

    def test_another_kind_of_file_is_left_alone(self):
        other = self.work / "letter.txt"
        other.write_text("Dear Ann,\nall my pictures")
        end = self.batch(self.frames, "--out", other)
        self.assertEqual(end.returncode, 8)
        self.assertEqual(other.read_text(), "Dear Ann,\nall my pictures")

    def test_two_pictures_of_one_name_keep_a_file_each(self):
        pictures = sorted(self.frames.glob("light_000[01].fit"))
        for name, picture in zip(("one", "two"), pictures):
            (self.work / name).mkdir()
            shutil.copy(picture, self.work / name / "m44.fit")
        journal = self.work / "names.jsonl"
        end = self.batch(self.work / "one/m44.fit", str(self.work / "t?o" / "*.fit"), "--out",
                         journal, "--export", "--kel", "--to", self.work / "names")
        self.assertEqual(end.returncode, 0, end.stderr)
        lines = [json.loads(line) for line in journal.read_text().splitlines()]
        files = [file for line in lines for file in line["files"].values()]
        self.assertEqual(len(set(files)), 4)
        for file in files:
            self.assertTrue(pathlib.Path(file).stat().st_size > 0)
        # An exported copy is no picture of the night.
        self.assertEqual(self.batch(self.work / "names", "--out", journal).returncode, 5)

    def test_an_exported_copy_is_no_picture_however_it_is_named(self):
        folder, journal = self.work / "copies of", self.work / "copies_of.jsonl"
        folder.mkdir()
        shutil.copy(sorted(self.frames.glob("light_*.fit"))[0], folder / "a.fits")
        for _ in range(3):
            for words in ([str(folder / "*")], sorted(folder.glob("*.fits"))):  # the shell expands patterns too
                end = self.batch(*words, "--out", journal, "--export", "--kel")
                self.assertEqual(end.returncode, 0, end.stderr)
        self.assertIn("left out: 1", end.stderr)
        self.assertEqual(sorted(file.name for file in folder.iterdir()), ["a.fits", "a.kel", "a.solved.fits"])
        self.lines_when(journal, 1)
        self.assertEqual(self.batch(folder / "a.solved.fits").returncode, 5)

    def test_journal_and_answer_mean_the_same_turn_and_have_no_field_without_a_description(self):
        folder, journal = self.work / "turned", self.work / "turned.jsonl"
        folder.mkdir()
        place = ("--ra", str(killBatch.RA), "--dec", str(killBatch.DEC))
        killBatch.run(PROGRAMS / "vestrel-catalog", "render", "--catalog", self.catalog, *place, "--size", "40x30",
                      "--width-px", "400", "--rotation", "25", "--out", folder / "first.fit")
        frame = (folder / "first.fit").read_bytes().replace(b"INSTRUME=", b"MADEBY  =")
        (folder / "first.fit").write_bytes(frame)
        counts = array.array("h", frame[re.search(rb"END {77}", frame).start() // 2880 * 2880 + 2880:][:240000])
        counts.byteswap()
        rows = [array.array("H", [count + 32768 for count in counts[at:at + 400]]) for at in range(0, 120000, 400)]
        head = b"ST-8 Compressed Image\n\rHEIGHT = 300\n\rWIDTH = 400\n\rEND\n\r\x1a".ljust(2048, b"\0")
        # The top row comes first: the same picture, and that seen in water. They have no hints, and are
        # found where the same camera, one without a name, pointed before.
        for name, order in (("up.sbig", rows[::-1]), ("mirror.sbig", rows)):
            (folder / name).write_bytes(head + b"".join(b"\x20\x03" + row.tobytes() for row in order))
        end = self.batch(folder, "--scale", "6", "--workers", "1", "--out", journal)
        self.assertEqual(end.returncode, 0, end.stderr)
        lines = {pathlib.Path(line["picture"]).name: line for line in map(json.loads, journal.read_text().splitlines())}
        for name, mirrored, up in (("first.fit", False, 25), ("up.sbig", False, 25), ("mirror.sbig", True, 205)):
            told = json.loads(subprocess.run(
                [PROGRAMS / "vestrel-solve", folder / name, *place, "--size", "40x30", "--catalog", self.catalog, "--json"],
                capture_output=True, timeout=60).stdout)
            self.assertEqual((told["solved"], lines[name]["end"]), (True, "solved"), name)
            for answer in (told, lines[name]):
                self.assertEqual(answer["mirrored"], mirrored, name)
                self.assertAlmostEqual(answer["up_position_angle_deg"], up, delta=0.1, msg=name)
            self.assertAlmostEqual(lines[name]["rotation_deg"], told["rotation_deg"], delta=0.1, msg=name)
            for field in (*told, *lines[name]):
                self.assertIn(f"`{field}`", FORMATS)
        # Lines of older versions have the turn of the file's rows.
        with open(journal, "a") as file:
            for kind, turn in (("FITS", 31.5), ("JPEG", 212.5)):
                file.write(json.dumps({"picture": kind, "end": "solved", "format": kind, "rotation_deg": turn}) + "\n")
        page = self.work / "turned.html"
        self.assertEqual(self.batch("--out", journal, "--report", page).returncode, 0)
        for turn in ("31.50", "32.50"):
            self.assertIn(f">{turn}<", page.read_text())

    def test_watched_pictures_are_solved_when_they_are_complete_and_a_signal_ends_it(self):
        watched, journal = self.work / "watched", self.work / "watched.jsonl"
        (watched / "before").mkdir(parents=True)
        frames = [path.read_bytes() for path in sorted(self.frames.glob("light_*.fit"))[:3]]
        process = subprocess.Popen([PROGRAMS / "vestrel-batch", "--watch", watched, "--out", journal,
                                    "--catalog", self.catalog], stderr=subprocess.DEVNULL)
        self.addCleanup(process.kill)
        time.sleep(0.5)
        with open(watched / "slow.fit", "wb") as slow:
            half = len(frames[0]) // 2
            slow.write(frames[0][:half])
            slow.flush()
            (watched / "whole.part").write_bytes(frames[1])
            (watched / "whole.part").rename(watched / "whole.fit")
            (watched / "new").mkdir()
            (watched / "new/deep.fit").write_bytes(frames[2])
            deadline = time.monotonic() + 90
            while time.monotonic() < deadline and journal.read_bytes().count(b"\n") < 1:
                time.sleep(0.05)
            time.sleep(0.7)
            self.assertNotIn("slow.fit", journal.read_text())
            slow.write(frames[0][half:])
        while time.monotonic() < deadline and journal.read_bytes().count(b"\n") < 3:
            time.sleep(0.05)
        lines = [json.loads(line) for line in journal.read_text().splitlines()]
        self.assertEqual(sorted((pathlib.Path(line["picture"]).name, line["end"]) for line in lines),
                         [(name, "solved") for name in ("deep.fit", "slow.fit", "whole.fit")])
        start = time.monotonic()
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(60), 4)
        self.assertLess(time.monotonic() - start, 4)

    def watch(self, folder, journal, *words):
        process = subprocess.Popen([PROGRAMS / "vestrel-batch", "--watch", folder, "--out", journal, "--catalog",
                                    self.catalog, *words], stderr=subprocess.PIPE)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def lines_when(self, journal, count, seconds=40):
        """The lines of a journal as soon as there are so many, by the last part of their picture's path."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and (not journal.exists() or journal.read_bytes().count(b"\n") < count):
            time.sleep(0.05)
        lines = [json.loads(line) for line in journal.read_bytes().splitlines()]
        self.assertEqual(len(lines), count, lines)
        names = {os.path.basename(killBatch.path_of(line)): line["end"] for line in lines}
        self.assertEqual(len(names), count, "a picture stands there twice")
        return names

    def test_only_files_that_are_whole_and_there_are_taken(self):
        watched, journal = self.work / "whole", self.work / "whole.jsonl"
        watched.mkdir()
        elsewhere = self.work / "elsewhere"
        elsewhere.mkdir()
        frames = [path.read_bytes() for path in sorted(self.frames.glob("light_*.fit"))[:6]]
        # There already when the watch begins, and still being written, with long pauses.
        slow = open(watched / "slow.fit", "wb", buffering=0)
        slow.write(frames[0][:5000])
        self.watch(watched, journal)
        time.sleep(0.4)
        growing = open(watched / "growing.fit", "wb", buffering=0)
        growing.write(frames[1][:-100])
        (watched / "gone.fit").write_bytes(frames[2][:3000])
        (watched / "gone.fit").unlink()
        (watched / "empty.fit").write_bytes(b"")
        (watched / "letter.txt").write_bytes(frames[2])
        (watched / ".hidden.fit").write_bytes(frames[2])
        (elsewhere / "far.fit").write_bytes(frames[2])
        (watched / "far").symlink_to(elsewhere)  # a folder that is not of this one
        (elsewhere / "one.fit").write_bytes(frames[3])
        (watched / "link.fit").symlink_to(elsewhere / "one.fit")
        (watched / "dangling.fit").symlink_to(elsewhere / "none.fit")
        os.link(elsewhere / "one.fit", watched / "in.fit")
        with open(os.path.join(os.fsencode(watched), b"no\xffutf8.fit"), "wb") as file:
            file.write(frames[4])
        part = watched / "renamed.part"
        part.write_bytes(frames[5])
        part.rename(watched / "renamed.fit")
        taken = {b"link.fit": "solved", b"in.fit": "solved", b"no\xffutf8.fit": "solved", b"renamed.fit": "solved"}
        self.assertEqual(self.lines_when(journal, 4), taken)
        time.sleep(3.6)  # longer than a file has to rest
        self.assertEqual(self.lines_when(journal, 4), taken)
        growing.write(frames[1][-100:])
        growing.close()
        slow.write(frames[0][5000:])
        slow.close()
        taken.update({b"growing.fit": "solved", b"slow.fit": "solved"})
        self.assertEqual(self.lines_when(journal, 6), taken)
        # Written anew, moved away and back, named in another way: it is done.
        (watched / "in.fit").unlink()
        (watched / "in.fit").write_bytes(frames[3])
        (watched / "renamed.fit").rename(elsewhere / "renamed.fit")
        (elsewhere / "renamed.fit").rename(watched / "renamed.fit")
        (watched / "last.fit").write_bytes(b"no picture")
        taken[b"last.fit"] = "no picture"
        self.assertEqual(self.lines_when(journal, 7), taken)
        pictures = [watched / "in.fit", watched / "far/../in.fit", str(watched / "i?.fit"), watched / "./last.fit"]
        self.assertEqual(self.batch(*pictures, "--out", journal, cwd=watched).returncode, 8)  # it is in use

    def test_a_watch_that_is_killed_goes_on_with_what_came_meanwhile(self):
        watched, journal = self.work / "again", self.work / "again.jsonl"
        watched.mkdir()
        frames = [path.read_bytes() for path in sorted(self.frames.glob("light_*.fit"))[:5]]
        order = random.Random(8)
        for number, frame in enumerate(frames):
            process = self.watch(watched, journal)
            time.sleep(order.uniform(0, 0.5))
            (watched / f"{number}.fit").write_bytes(frame)
            time.sleep(order.uniform(0, 1.2))
            process.kill()
            process.wait()
        last = self.watch(watched, journal, "--idle-end", "4")
        self.assertEqual(last.wait(60), 0)
        self.assertEqual(self.lines_when(journal, 5), {b"%d.fit" % i: "solved" for i in range(5)})
        self.assertEqual(journal.read_bytes().count(b"\n"), 5)
        # Those that are named in other ways are the same.
        ways = [watched, watched / ".." / watched.name / "1.fit", str(watched / "[12].fit"), os.path.relpath(watched)]
        self.assertEqual(self.batch(*ways, "--out", journal).returncode, 0)
        self.assertEqual(journal.read_bytes().count(b"\n"), 5)

    def test_a_folder_that_goes_away_is_waited_for(self):
        watched, journal = self.work / "card", self.work / "card.jsonl"
        (watched / "deep").mkdir(parents=True)
        frames = [path.read_bytes() for path in sorted(self.frames.glob("light_*.fit"))[:3]]
        process = self.watch(watched, journal)
        time.sleep(0.3)
        (watched / "deep/first.fit").write_bytes(frames[0])
        self.lines_when(journal, 1)
        shutil.rmtree(watched)
        while b"gone" not in (line := process.stderr.readline()):
            self.assertTrue(line)
        # Another one of that name, with a picture in it before it is seen, and one after.
        (watched / "deep").mkdir(parents=True)
        (watched / "deep/second.fit").write_bytes(frames[1])
        while b"there again" not in (line := process.stderr.readline()):
            self.assertTrue(line)
        (watched / "deep/third.fit").write_bytes(frames[2])
        self.assertEqual(self.lines_when(journal, 3),
                         {b"first.fit": "solved", b"second.fit": "solved", b"third.fit": "solved"})
        self.assertIsNone(process.poll())
        missing = self.batch("--watch", self.work / "never", "--out", self.work / "never.jsonl")
        self.assertEqual(missing.returncode, 8)
        self.assertIn("no folder that can be watched", missing.stderr)

    def test_what_cannot_be_written_ends_the_night_with_what_is_done(self):
        def limited(size):
            return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))}
        journal = self.work / "full.jsonl"
        end = self.batch(self.frames, "--out", journal, "--workers", "1", **limited(2000))
        self.assertEqual(end.returncode, 8, end.stderr)
        self.assertIn("cannot be written", end.stderr)
        done = journal.read_bytes()
        self.assertTrue(done.endswith(b"\n") and len(done) <= 2000)
        self.assertTrue(0 < done.count(b"\n") < len(self.truth))
        # With room it goes on, and nothing is done twice.
        self.assertEqual(self.batch(self.frames, "--out", journal).returncode, 0)
        self.assertTrue(journal.read_bytes().startswith(done))
        self.assertEqual(killBatch.check(journal, self.truth, False), [])
        # No room for the files of a picture is told in its line, and ends nothing.
        journal = self.work / "copies.jsonl"
        picture = sorted(self.frames.glob("light_*.fit"))[0]
        end = self.batch(picture, "--out", journal, "--export", "--wcs", "--to", self.work / "copies", **limited(20000))
        self.assertEqual(end.returncode, 0, end.stderr)
        line = json.loads(journal.read_text())
        self.assertEqual((line["end"], list(line["files"])), ("solved", ["wcs"]))
        self.assertIn("cannot be written", line["faults"][0])
        self.assertEqual([file.name for file in (self.work / "copies").iterdir()], [picture.stem + ".wcs"])
        (self.work / "empty").mkdir()
        self.assertEqual(self.batch(self.work / "empty", "--out", journal).returncode, 5)
        for option in ("--time-limit", "--idle-end"):
            for seconds in ("nan", "0", "inf"):
                end = self.batch(picture, "--out", journal, option, seconds)
                self.assertEqual(end.returncode, 2)
                self.assertIn("needs a number above 0 and up to 1000000", end.stderr)


if __name__ == "__main__":
    unittest.main()
