#!/usr/bin/env python3
"""Files that cameras, stackers and strangers hand over: what is refused says why and costs nothing.

VESTREL_SOLVE names the program, VESTREL_DECODERS the formats that were built in.
"""
import gzip
import io
import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import unittest
import zlib

import numpy as np
from astropy.io import fits
from PIL import Image

SOLVER = pathlib.Path(os.environ["VESTREL_SOLVE"]).resolve()
DECODERS = os.environ["VESTREL_DECODERS"].split()
NO_IMAGE = 5
HUGE = 30000  # pixels each way, of which not one is there


def fits_header(bitpix, width, height):
    cards = ["SIMPLE  =                    T", f"BITPIX  = {bitpix:>20}", "NAXIS   =                    2",
             f"NAXIS1  = {width:>20}", f"NAXIS2  = {height:>20}", "END"]
    return "".join(card.ljust(80) for card in cards).ljust(2880).encode()


def big_fits():
    return fits_header(64, HUGE, HUGE)


def gzip_bomb(start, mebibytes):
    """`start` and then zeros, a thousandth of whose length is in the file."""
    def packed(data):
        deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
        return deflate.compress(data) + deflate.flush(zlib.Z_FULL_FLUSH)
    return (b"\x1f\x8b\x08" + bytes(6) + b"\xff" + packed(start) +
            packed(bytes(1 << 20)) * mebibytes)


def forged_png():
    def chunk(name, data):
        return struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))
    head = struct.pack(">IIBBBBB", HUGE, HUGE, 16, 0, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", zlib.compress(bytes(5000))) +
            chunk(b"IEND", b""))


def forged_tiff(rows_per_strip=HUGE, width=HUGE, height=HUGE):
    packed = zlib.compress(bytes(5000))
    tags = [(256, width), (257, height), (258, 16), (259, 8), (262, 1), (273, 8 + 2 + 9 * 12 + 4),
            (277, 1), (278, rows_per_strip), (279, len(packed))]
    entries = b"".join(struct.pack("<HHII", tag, 4, 1, value) for tag, value in tags)
    return b"II*\0\x08\0\0\0" + struct.pack("<H", len(tags)) + entries + bytes(4) + packed


def forged_xisf():
    packed = zlib.compress(bytes(5000))
    size = HUGE * HUGE * 2
    xml = (f'<xisf version="1.0"><Image geometry="{HUGE}:{HUGE}:1" sampleFormat="UInt16" '
           f'location="attachment:1024:{len(packed)}" compression="zlib:{size}"/></xisf>').encode()
    return (b"XISF0100" + struct.pack("<II", len(xml), 0) + xml).ljust(1024, b"\0") + packed


def forged_fz():
    file = io.BytesIO()
    fits.HDUList([fits.PrimaryHDU(), fits.CompImageHDU(np.zeros((64, 64), np.int16))]).writeto(file)
    data = file.getvalue()
    for axis in (b"ZNAXIS1 =", b"ZNAXIS2 ="):
        at = data.index(axis) + 10
        data = data[:at] + str(HUGE).rjust(20).encode() + data[at + 20:]
    return data


def forged_jpeg():
    file = io.BytesIO()
    Image.new("L", (64, 64)).save(file, "JPEG")
    data = file.getvalue()
    at = data.index(b"\xff\xc0") + 5
    return data[:at] + struct.pack(">HH", HUGE, HUGE) + data[at + 4:]


class Formats(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="vestrel-formats-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def info(self, name, data=None, solver=SOLVER):
        """(exit code, stdout, stderr, peak memory in MiB) of reading a file."""
        path = self.folder / name
        if data is not None:
            path.write_bytes(data)
        environment = dict(os.environ, VESTREL_SETTINGS=str(self.folder / "Vestrel.ini"))
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            with subprocess.Popen([solver, "--info", path], stdout=out, stderr=err,
                                  env=environment) as process:
                _, status, usage = os.wait4(process.pid, 0)
                process.returncode = os.waitstatus_to_exitcode(status)
            texts = []
            for file in (out, err):
                file.seek(0)
                texts.append(file.read().decode("latin-1"))
        return process.returncode, *texts, usage.ru_maxrss / 1024

    def test_a_size_that_no_file_of_this_length_has_is_refused_and_takes_no_memory(self):
        forged = {"a.fits.gz": gzip.compress(big_fits()), "a.jpg": forged_jpeg(),
                  "short.fits": fits_header(16, HUGE, HUGE) + bytes(100)}
        if "fits" in DECODERS:
            forged |= {"a.fits": big_fits(), "a.fits.fz": forged_fz()}
        if "png" in DECODERS:
            forged["a.png"] = forged_png()
        if "tiff" in DECODERS:
            # One with a size that might be, in a strip that never was.
            forged |= {"a.tif": forged_tiff(), "strip.tif": forged_tiff(0x7FFFFFFF, 1000, 0x7FFF)}
        if "xisf" in DECODERS:
            forged["a.xisf"] = forged_xisf()
        usual = self.info("small.jpg", self.small_jpeg())[3]
        for name, data in forged.items():
            with self.subTest(name):
                code, out, err, memory = self.info(name, data)
                self.assertEqual((code, out), (NO_IMAGE, ""), err)
                self.assertNotIn("not enough memory", err)
                if name != "a.jpg":
                    self.assertIn("Cause", err)
                self.assertLess(memory, usual + 150)

    @unittest.skipUnless("fits" in DECODERS, "a build without this decoder")
    def test_of_a_packed_file_only_the_picture_is_unpacked_and_only_when_its_size_is_within_the_limit(self):
        usual = self.info("small.jpg", self.small_jpeg())[3]
        zeros = 3000  # MiB, more than the limit
        for name, start, said in [
                ("nothing behind its header", fits_header(16, 100, 100), ""),
                ("too many bytes", fits_header(-64, 16380, 16388), "more than 2 GiB, which is the limit"),
                ("too many pixels", fits_header(8, 32000, 32000), "the limit is 268 million"),
                ("too long a side", fits_header(8, 40000, 10), "a side may have 32767"),
                ("no FITS", b"", "cannot be decoded"),
                ("a header without an end", fits_header(8, 9, 9).replace(b"END", b"ENDE"), "cannot be decoded")]:
            with self.subTest(name):
                code, out, err, memory = self.info("bomb.fits.gz", gzip_bomb(start, zeros))
                self.assertIn(said, err)
                self.assertEqual(code, NO_IMAGE if said else 0, err)
                self.assertEqual("Image Size = 100 X 100" in out, not said)
                self.assertLess(memory, usual + 60)

    @staticmethod
    def small_jpeg():
        file = io.BytesIO()
        Image.new("L", (64, 64)).save(file, "JPEG")
        return file.getvalue()

    def test_a_card_of_no_use_costs_the_card_and_not_the_picture(self):
        counts = np.arange(10000, dtype=np.int16).reshape(100, 100)
        if "fits" not in DECODERS:
            return  # only the decoder passes such cards over
        for card, said in [("CCD-TEMP=", "CCD-TEMP"), ("XBINNING= '1x1'", "XBINNING"),
                           ("EXPTIME = '30.0'", ""), ("FOCALLEN= 'unknown'", "FOCALLEN"),
                           ("PEDESTAL= 1E99", "PEDESTAL"), ("BSCALE  = NaN", "BSCALE")]:
            with self.subTest(card):
                file = io.BytesIO()
                fits.PrimaryHDU(counts, fits.Header({"RA": 10.0})).writeto(file)
                data = file.getvalue().replace(b"RA      =                 10.0".ljust(80),
                                               card.ljust(80).encode())
                code, out, err, _ = self.info("a.fits", data)
                self.assertEqual(code, 0, err)
                self.assertIn("Image Size = 100 X 100", out)
                self.assertIn(card, out)
                remarks = [line for line in out.splitlines() if "was left out" in line]
                self.assertEqual(len(remarks), 1 if said else 0, out)
                self.assertTrue(all(said in line for line in remarks))
                if not said:
                    self.assertIn("Exposure Time = 30 sec", out)

    def test_what_is_not_read_is_told_with_what_to_do(self):
        heic = b"\0\0\0\x20ftypheic\0\0\0\0mif1"
        for name, data, words in [
                ("a.heic", heic, "HEIC picture, which is not read here: let the phone save JPEG"),
                ("phone.jpg", heic, "HEIC picture"), ("a.avif", b"\0\0\0\x20ftypavif", "AVIF"),
                ("a.webp", b"RIFF\1\0\0\0WEBPVP8 ", "WebP"), ("a.bmp", b"BM123456", "BMP"),
                ("a.gif", b"GIF89a", "GIF"), ("a.ppm", b"P6\n1 1\n255\nabc", "PPM"),
                ("a.ser", b"LUCAM-RECORDER", "save one frame"), ("a.zip", b"PK\3\4", "unpack"),
                ("a.mov", b"\0\0\0\x14ftypqt  ", "video"), ("a.fits", b"BZh91AY", "bzip2")]:
            with self.subTest(name):
                code, out, err, _ = self.info(name, data)
                self.assertEqual((code, out), (NO_IMAGE, ""))
                self.assertIn(words, err)
                part = "File type is not supported" if name not in ("phone.jpg", "a.fits") else \
                    "Unable to read the image file."
                self.assertIn(part, err)

    def installed_with(self, modules):
        """The program in a folder of its own, with these modules: name to the module's bytes."""
        place = self.folder / "-".join(["installed", *modules])
        (place / "bin").mkdir(parents=True)
        (place / "lib/vestrel").mkdir(parents=True)
        shutil.copy(SOLVER, place / "bin")
        for name, data in modules.items():
            (place / f"lib/vestrel/decode-{name}.so").write_bytes(data)
        return place / "bin" / SOLVER.name

    @staticmethod
    def module(name):
        return next((SOLVER.parent.parent / "lib/vestrel").glob(f"decode-{name}.*")).read_bytes()

    @staticmethod
    def readable(solver):
        return subprocess.run([solver, "--version"], capture_output=True, check=True, text=True).stdout

    NAMES = {"fits": "FITS", "png": "PNG", "tiff": "TIFF", "xisf": "XISF", "raw": "camera RAW"}
    # Files of which only a decoder knows that they are damaged.
    SAMPLES = {"fits": ("a.fits", big_fits()), "raw": ("a.cr3", b"\0\0\0\x18ftypcrx "),
               "png": ("a.png", forged_png()), "tiff": ("a.tif", forged_tiff()),
               "xisf": ("a.xisf", forged_xisf())}

    def test_a_build_without_a_decoder_says_so(self):
        for name in self.SAMPLES:
            code, out, err, _ = self.info(*self.SAMPLES[name])
            self.assertEqual((code, out), (NO_IMAGE, ""), name)
            self.assertEqual("built without a decoder" in err, name not in DECODERS, err)

    def test_without_a_decoder_the_others_are_read_and_the_version_says_which(self):
        for left_out in DECODERS:
            with self.subTest(left_out):
                solver = self.installed_with(
                    {name: self.module(name) for name in DECODERS if name != left_out})
                version = self.readable(solver)
                for name in DECODERS:
                    there = name != left_out or name == "fits"  # which has a reader of its own too
                    self.assertEqual(self.NAMES[name] in version, there, version)
                if left_out in self.SAMPLES:
                    code, _, err, _ = self.info(*self.SAMPLES[left_out], solver=solver)
                    self.assertEqual(code, NO_IMAGE)
                    self.assertIn("without a decoder for it: save it as", err)
                code, _, err, _ = self.info("small.jpg", self.small_jpeg(), solver)
                self.assertEqual(code, 0, err)

    def test_a_decoder_of_another_version_or_a_damaged_one_is_not_used(self):
        for name in (name for name in DECODERS if name in self.SAMPLES):
            good = self.module(name)
            stamp = good.index(b"vestrel-decoder ")
            end = good.index(b"\0", stamp)
            self.assertGreater(end - stamp, 20)
            for change, module, words in [
                    ("version", good[:end - 1] + b"~" + good[end:], "another version of Vestrel"),
                    ("name", good.replace(b"VestrelDecoderVersion", b"VestrelDecoderVersioX"),
                     "cannot be loaded"),
                    ("content", b"no module", "cannot be loaded")]:
                with self.subTest(decoder=name, change=change):
                    shutil.rmtree(self.folder / f"installed-{name}", ignore_errors=True)
                    solver = self.installed_with({name: module})
                    if name != "fits":  # which has a reader of its own too
                        self.assertNotIn(self.NAMES[name], self.readable(solver))
                    code, _, err, _ = self.info(*self.SAMPLES[name], solver=solver)
                    self.assertEqual(code, NO_IMAGE)
                    self.assertIn(words, err)


if __name__ == "__main__":
    unittest.main()
