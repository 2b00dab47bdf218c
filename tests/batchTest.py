#!/usr/bin/env python3
"""vestrel-batch as a night uses it.

Environment: VESTREL_PROGRAMS the folder of the programs; VESTREL_HOSTILE_DECODER a module that does to its
process what a picture says.
"""
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

    def test_a_picture_that_kills_its_decoder_ends_nothing(self):
        # The program with a decoder of PNG that does to its process what a picture says.
        place = self.work / "hostile"
        (place / "bin").mkdir(parents=True)
        (place / "lib/vestrel").mkdir(parents=True)
        shutil.copy(PROGRAMS / "vestrel-batch", place / "bin")
        shutil.copy(os.environ["VESTREL_HOSTILE_DECODER"], place / "lib/vestrel/decode-png.so")
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
            return {"preexec_fn": lambda: (signal.signal(signal.SIGXFSZ, signal.SIG_IGN),
                                           resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))}
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


if __name__ == "__main__":
    unittest.main()
