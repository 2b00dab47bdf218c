#!/usr/bin/env python3
"""vestrel-batch as a night uses it.

Environment: VESTREL_PROGRAMS the folder of the programs.
"""
import json
import os
import pathlib
import random
import re
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
            deadline = time.monotonic() + 20
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
        self.assertEqual(process.wait(5), 4)
        self.assertLess(time.monotonic() - start, 2.5)


if __name__ == "__main__":
    unittest.main()
