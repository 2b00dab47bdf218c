#!/usr/bin/env python3
"""Every form in which pictures are stored gives the counts that were stored.

Files come from astropy, Pillow and the writers below, which take each liberty that the formats allow;
numpy says what has to be read. SHOW_COUNTS names the program that reads, VESTREL_DECODERS the formats
that were built in.
"""
import ctypes
import ctypes.util
import gzip
import io
import itertools
import json
import os
import pathlib
import struct
import subprocess
import tempfile
import unittest
import zlib

import numpy as np
from astropy.io import fits
from PIL import Image

SHOW = pathlib.Path(os.environ["SHOW_COUNTS"]).resolve()
DECODERS = os.environ["VESTREL_DECODERS"].split()
W, H = 131, 117  # no multiples of anything


def sky(seed=1):
    """A smooth sky with noise and stars, 0 to 40000."""
    random = np.random.default_rng(seed)
    counts = random.normal(1500, 40, (H, W)) + np.arange(W) * 3
    for _ in range(40):
        x, y = random.integers(6, W - 6), random.integers(6, H - 6)
        rows, columns = np.mgrid[-5:6, -5:6]
        counts[y - 5:y + 6, x - 5:x + 6] += random.uniform(2000, 30000) * np.exp(-(rows**2 + columns**2) / 4)
    return counts.clip(0, 40000)


def as_counts(numbers):
    """What README and FORMATS promise of 32- and 64-bit samples (clean pictures, without defects)."""
    numbers = np.asarray(numbers, np.float64)
    finite = numbers[np.isfinite(numbers)]
    low, high = finite.min(), finite.max()
    zero, factor = 0.0, 1.0
    if low >= 0 and high <= 1 and high * 65535 >= 8192 and (finite != np.trunc(finite)).any():
        factor = 65535.0
    elif low < 0 or high > 65535:
        zero, factor = low, 65535 / (high - low)
    values = np.where(np.isfinite(numbers), numbers, np.median(finite))
    return np.rint(((values - zero) * factor).clip(0, 65535)).astype(np.int32)


def mean(planes):
    """Of three 16-bit planes."""
    return (planes.astype(np.int32).sum(axis=0) + 1) // 3


# Writers

def png(rows, bits, colour, palette=None, alpha=None, interlaced=False, text=()):
    """rows: height x width x channels samples of `bits`; colour: the number in the header."""
    height, width, channels = rows.shape

    def chunk(name, data):
        return struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))

    def packed(part):
        lines = []
        for number, line in enumerate(part.reshape(part.shape[0], -1)):
            if bits == 16:
                data = line.astype(">u2").tobytes()
            elif bits == 8:
                data = line.astype(np.uint8).tobytes()
            else:
                ones = (line[:, None] >> np.arange(bits - 1, -1, -1)) & 1
                data = np.packbits(ones.astype(np.uint8).ravel()).tobytes()
            step = max(1, channels * bits // 8)
            line_bytes = np.frombuffer(data, np.uint8).astype(int)
            if number % 2 == 1:  # the filter "sub" on every other line
                shifted = np.concatenate([np.zeros(step, int), line_bytes])[:len(line_bytes)]
                data = b"\x01" + ((line_bytes - shifted) % 256).astype(np.uint8).tobytes()
            else:
                data = b"\x00" + data
            lines.append(data)
        return b"".join(lines)

    passes = [(0, 0, 8, 8), (4, 0, 8, 8), (0, 4, 4, 8), (2, 0, 4, 4), (0, 2, 2, 4), (1, 0, 2, 2), (0, 1, 1, 2)]
    parts = [rows[y::dy, x::dx] for x, y, dx, dy in passes] if interlaced else [rows]
    data = b"".join(packed(part) for part in parts if part.shape[0] and part.shape[1])
    out = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(
        ">IIBBBBB", width, height, bits, colour, 0, 0, int(interlaced)))
    if palette is not None:
        out += chunk(b"PLTE", palette.astype(np.uint8).tobytes())
    if alpha is not None:
        out += chunk(b"tRNS", alpha)
    for key, words in text:
        out += chunk(b"tEXt", key.encode() + b"\0" + words.encode("latin-1"))
    return out + chunk(b"IDAT", zlib.compress(data)) + chunk(b"IEND", b"")


def tiff(samples, big=False, huge=False, planar=False, tile=None, rows_per_strip=None, packed=False,
         predictor=1, photometric=None, order=None, gap=0, tags=()):
    """samples: height x width (x channels) of any type. Pieces lie in `order`, `gap` bytes apart."""
    samples = samples if samples.ndim == 3 else samples[..., None]
    height, width, channels = samples.shape
    mark = ">" if big else "<"
    bits = samples.dtype.itemsize * 8
    kind = {"u": 1, "i": 2, "f": 3}[samples.dtype.kind]
    planes = [samples[..., c:c + 1] for c in range(channels)] if planar else [samples]

    def piece(part):
        if predictor == 2:
            part = part.copy()
            part[:, 1:] -= part[:, :-1].copy()
        data = np.ascontiguousarray(part.astype(part.dtype.newbyteorder(mark)))
        if predictor == 3:
            # Bytes of the same significance lie together, the highest first; then differences of bytes.
            flat = np.ascontiguousarray(part.astype(part.dtype.newbyteorder(">")))
            lines = flat.reshape(part.shape[0], -1).view(np.uint8).reshape(part.shape[0], -1, part.dtype.itemsize)
            lines = lines.transpose(0, 2, 1).reshape(part.shape[0], -1).copy()
            step = part.shape[2]
            lines[:, step:] -= lines[:, :-step].copy()
            data = lines
        return zlib.compress(data.tobytes()) if packed else data.tobytes()

    pieces = []
    if tile:
        for plane in planes:
            for y, x in itertools.product(range(0, height, tile[0]), range(0, width, tile[1])):
                whole = np.zeros((tile[0], tile[1], plane.shape[2]), plane.dtype)
                part = plane[y:y + tile[0], x:x + tile[1]]
                whole[:part.shape[0], :part.shape[1]] = part
                pieces.append(piece(whole))
    else:
        rows_per_strip = rows_per_strip or height
        for plane in planes:
            pieces += [piece(plane[y:y + rows_per_strip]) for y in range(0, height, rows_per_strip)]
    start = 16 if huge else 8
    body, places = b"", [0] * len(pieces)
    for n in (order(len(pieces)) if order else range(len(pieces))):
        places[n] = start + len(body)
        body += pieces[n] + bytes(gap)
    body += bytes(len(body) % 2)
    if photometric is None:
        photometric = 2 if channels == 3 else 1
    entries = [(256, 4, [width]), (257, 4, [height]), (258, 3, [bits] * channels), (259, 3, [8 if packed else 1]),
               (262, 3, [photometric]), (277, 3, [channels]), (284, 3, [2 if planar else 1]),
               (317, 3, [predictor]), (339, 3, [kind] * channels), *tags]
    if tile:
        entries += [(322, 4, [tile[1]]), (323, 4, [tile[0]]), (324, 4, places), (325, 4, [len(p) for p in pieces])]
    else:
        entries += [(273, 4, places), (278, 4, [rows_per_strip]), (279, 4, [len(p) for p in pieces])]
    sizes = {1: ("B", 1), 2: ("s", 1), 3: ("H", 2), 4: ("I", 4), 5: ("I", 4), 7: ("B", 1)}
    room, offset = (8, "Q") if huge else (4, "I")
    directory_length = (8 if huge else 2) + len(entries) * (20 if huge else 12) + room
    directory = struct.pack(mark + ("Q" if huge else "H"), len(entries))
    extra, extra_at = b"", start + len(body) + directory_length
    for tag, form, values in sorted(entries, key=lambda entry: entry[0]):
        letter, _ = sizes[form]
        data = values if isinstance(values, bytes) else struct.pack(f"{mark}{len(values)}{letter}", *values)
        count = len(values) // 2 if form == 5 else len(values)
        directory += struct.pack(mark + "HH" + offset, tag, form, count)
        if len(data) > room:
            directory += struct.pack(mark + offset, extra_at + len(extra))
            extra += data + bytes(len(data) % 2)
        else:
            directory += data.ljust(room, b"\0")
    directory += bytes(room)
    at = struct.pack(mark + offset, start + len(body))
    head = (b"MM" if big else b"II") + struct.pack(mark + "H", 43 if huge else 42)
    head += struct.pack(mark + "HH", 8, 0) + at if huge else at
    return head + body + directory + extra


def exif(main, sub=(), big=False, sub_at=None, link=0x8769):
    """A block of two directories, of (tag, form, values or bytes), as JPEG and PNG hold it."""
    mark, sizes = ">" if big else "<", {1: "B", 2: "s", 3: "H", 4: "I", 5: "I"}

    def directory(entries, at):
        heads, values = struct.pack(mark + "H", len(entries)), b""
        for tag, form, data in entries:
            count = len(data) // 2 if form == 5 else len(data)
            if not isinstance(data, bytes):
                data = struct.pack(f"{mark}{len(data)}{sizes[form]}", *data)
            if len(data) > 4:
                data, values = struct.pack(mark + "I", at + 6 + 12 * len(entries) + len(values)), values + data
            heads += struct.pack(mark + "HHI", tag, form, count) + data.ljust(4, b"\0")
        return heads + bytes(4) + values

    main = [*main, (link, 4, [0])]
    second = 8 + len(directory(main, 8))
    main[-1] = (link, 4, [second if sub_at is None else sub_at])
    head = (b"MM\0*" if big else b"II*\0") + struct.pack(mark + "I", 8)
    return head + directory(main, 8) + directory(list(sub), second)


def raw(camera, mosaic, data=None, bits=16, packing=1, magic=b"II*\0", apart=False, more=()):
    """As cameras write it: the mosaic in the first directory, or apart from it."""
    data = mosaic.astype("<u2").tobytes() if data is None else data
    height, width = mosaic.shape
    maker, model = (text.encode() + b"\0" for text in camera)
    names = [(0x10F, 2, maker), (0x110, 2, model), (0x112, 3, [8])]
    facts = [(0x829A, 5, [5, 2]), (0x8827, 3, [1600]), (0x920A, 5, [135, 1])]

    def directories(at):
        pixels = [(254, 4, [0]), (256, 4, [width]), (257, 4, [height]), (258, 3, [bits]), (259, 3, [packing]),
                  (262, 3, [32803]), (273, 4, [at]), (277, 3, [1]), (278, 4, [height]), (279, 4, [len(data)]),
                  (33421, 3, [2, 2]), (33422, 1, [0, 1, 1, 2]), *more]
        if apart:
            return exif([(254, 4, [1]), *names], pixels, link=0x14A)
        return exif([*pixels, *names], facts)
    return magic + directories(len(directories(0)))[4:] + data


def twelve_bits(mosaic):
    """Two samples in three bytes."""
    first, second = mosaic.reshape(-1, 2).T
    return np.stack([first >> 4, (first & 15) << 4 | second >> 8, second & 255], 1).astype(np.uint8).tobytes()


def lossless_jpeg(mosaic, components, bits=14):
    """Process 14 of the JPEG standard: neighbours in a row are components of a pixel."""
    samples = mosaic.reshape(mosaic.shape[0], -1, components).astype(int)
    predicted = np.empty_like(samples)
    predicted[0, 0] = 1 << (bits - 1)
    predicted[1:, 0] = samples[:-1, 0]
    predicted[:, 1:] = samples[:, :-1]
    off = (samples - predicted).ravel().tolist()
    # Five bits tell how many follow; of negative differences the complement.
    digits = "".join(f"{n:05b}" + (f"{d if d > 0 else d + (1 << n) - 1:0{n}b}" if n else "")
                     for d, n in ((d, abs(d).bit_length()) for d in off))
    digits += "1" * (-len(digits) % 8)
    packed = int(digits, 2).to_bytes(len(digits) // 8, "big").replace(b"\xff", b"\xff\0")

    def segment(mark, body):
        return bytes([0xFF, mark]) + struct.pack(">H", len(body) + 2) + body
    table = segment(0xC4, bytes([0, 0, 0, 0, 0, 16] + [0] * 11) + bytes(range(16)))
    frame = struct.pack(">BHHB", bits, *samples.shape[:2], components)
    frame += b"".join(bytes([n, 0x11, 0]) for n in range(components))
    scan = bytes([components]) + b"".join(bytes([n, 0]) for n in range(components)) + bytes([1, 0, 0])
    return (b"\xff\xd8" + table + segment(0xC3, frame) + segment(0xDA, scan) + packed + b"\xff\xd9")


XTRANS = np.array([list("GBGGRG"), list("RGRBGB"), list("GBGGRG"), list("GRGGBG"), list("BGBRGR"), list("GRGGBG")])


def raf(mosaic, height, width):
    """As Fujifilm's cameras write it, with a sensor of which so many pixels see light."""
    info = exif([(0x10F, 2, b"FUJIFILM\0"), (0x110, 2, b"X-T1\0")], [(0x829A, 5, [5, 2])])
    entries = [(0x100, struct.pack(">HH", *mosaic.shape)), (0x121, struct.pack(">HH", height, width)),
               (0x130, bytes([0, 8])), (0x131, bytes("RGB".index(c) for c in reversed(XTRANS.ravel())))]
    sensor = struct.pack(">I", len(entries))
    sensor += b"".join(struct.pack(">HH", tag, len(data)) + data for tag, data in entries)
    pixels = mosaic.astype("<u2").tobytes()
    head = b"FUJIFILMCCD-RAW 0201FF383501X-T1".ljust(84, b"\0")
    head += struct.pack(">6I", 512, len(info) + 12, 160, len(sensor), 2048, len(pixels))
    preview = b"\xff\xd8\xff\xe1\0\x99Exif\0\0" + info
    return ((head.ljust(160, b"\0") + sensor).ljust(512, b"\0") + preview).ljust(2048, b"\0") + pixels


def library(name):
    found = ctypes.util.find_library(name)
    return ctypes.CDLL(found) if found else None


def lz4(data, high=False):
    lib = library("lz4")
    out = ctypes.create_string_buffer(len(data) * 2 + 100)
    if high:
        length = lib.LZ4_compress_HC(data, out, len(data), len(out), 9)
    else:
        length = lib.LZ4_compress_default(data, out, len(data), len(out))
    return out.raw[:length]


def zstd(data):
    lib = library("zstd")
    lib.ZSTD_compress.restype = ctypes.c_size_t
    out = ctypes.create_string_buffer(len(data) * 2 + 1000)
    length = lib.ZSTD_compress(out, ctypes.c_size_t(len(out)), data, ctypes.c_size_t(len(data)), 3)
    return out.raw[:length]


CODECS = {"zlib": zlib.compress, "lz4": lz4, "lz4hc": lambda data: lz4(data, True), "zstd": zstd}


def xisf(samples, codec=None, shuffled=False, planar=True, big=False, blocks=1, item=None, cards=(), inner=""):
    """samples: height x width x channels."""
    names = {"u1": "UInt8", "u2": "UInt16", "u4": "UInt32", "f4": "Float32", "f8": "Float64"}
    height, width, channels = samples.shape
    stored = samples.transpose(2, 0, 1) if planar else samples
    raw = np.ascontiguousarray(stored.astype(stored.dtype.newbyteorder(">" if big else "<"))).tobytes()
    extra = ' byteOrder="big"' if big else ""
    extra += "" if planar else ' pixelStorage="Normal"'
    data = raw
    if codec:
        item = item or samples.dtype.itemsize
        if shuffled:
            whole = len(raw) // item * item
            data = np.frombuffer(raw[:whole], np.uint8).reshape(-1, item).T.tobytes() + raw[whole:]
        cut = [len(data) * n // blocks for n in range(blocks + 1)]
        parts = [data[a:b] for a, b in zip(cut, cut[1:])]
        packed = [CODECS[codec](part) for part in parts]
        extra += f' compression="{codec}{"+sh" if shuffled else ""}:{len(raw)}{f":{item}" if shuffled else ""}"'
        if blocks > 1:
            extra += ' subblocks="' + ":".join(f"{len(p)},{len(q)}" for p, q in zip(packed, parts)) + '"'
        data = b"".join(packed)
    keywords = "".join(f'<FITSKeyword name="{k}" value="{v}" comment="{c}"/>' for k, v, c in cards)
    at = 4096
    text = (f'<?xml version="1.0" encoding="UTF-8"?><xisf version="1.0"><Image '
            f'geometry="{width}:{height}:{channels}" sampleFormat="{names[samples.dtype.str[1:]]}" '
            f'colorSpace="{"Gray" if channels == 1 else "RGB"}" location="attachment:{at}:{len(data)}"{extra}>'
            f'{keywords}{inner}</Image></xisf>').encode()
    return (b"XISF0100" + struct.pack("<II", len(text), 0) + text).ljust(at, b"\0") + data


class Pictures(unittest.TestCase):
    def read(self, files):
        """name to bytes; gives for each name what was shown, and the counts from the top."""
        with tempfile.TemporaryDirectory(prefix="vestrel-pictures-") as folder:
            paths = []
            for name, data in files.items():
                paths.append(pathlib.Path(folder) / name)
                paths[-1].write_bytes(data)
            run = subprocess.run([SHOW, *paths], capture_output=True, check=False, text=True)
            self.assertEqual(run.returncode, 0, run.stderr)
            shown = {}
            for name, path, line in zip(files, paths, run.stdout.splitlines()):
                shown[name] = json.loads(line)
                counts = path.with_name(name + ".counts")
                if counts.exists():
                    shape = shown[name]["height"], shown[name]["width"]
                    shown[name]["counts"] = np.fromfile(counts, np.int32).reshape(shape)
            self.assertEqual(len(shown), len(files))
            return shown

    def judge(self, table, within=0):
        """(name, bytes, counts from the top) of each picture."""
        shown = self.read({name: data for name, data, _ in table})
        for name, _, expected in table:
            with self.subTest(name):
                self.assertIn("counts", shown[name], shown[name].get("cause"))
                self.assertEqual(shown[name]["counts"].shape, expected.shape)
                off = np.abs(shown[name]["counts"] - expected)
                self.assertLessEqual(off.max(), within, f"{(off > within).sum()} pixels differ")
        return shown

    # FITS

    @staticmethod
    def fits(*units, **more):
        file = io.BytesIO()
        fits.HDUList(list(units)).writeto(file, **more)
        return file.getvalue()

    @unittest.skipUnless("fits" in DECODERS, "a build without this decoder")
    def test_fits_of_every_type_with_every_scale(self):
        counts = sky()
        whole = counts.astype(np.int64)
        unit = counts / 65535
        holed = unit.astype(np.float32)
        holed[5, 7], holed[50, 60], holed[H - 1, W - 1] = np.nan, np.inf, -np.inf
        table = []

        def add(name, data, expected, header=None, scale=None, zero=None):
            unit_ = fits.PrimaryHDU(data, header)
            if scale is not None:
                unit_.scale(data.dtype.name if data.dtype.kind != "f" else "int16", bscale=scale, bzero=zero)
            # FITS rows come from the bottom.
            table.append((name + ".fits", self.fits(unit_), expected[::-1]))

        add("u16", whole.astype(np.uint16), whole)
        add("u32", (whole * 90000).astype(np.uint32), as_counts(whole * 90000))
        add("i32", (whole * 50000 - 7).astype(np.int32), as_counts(whole * 50000 - 7))
        add("i32small", whole.astype(np.int32), whole)
        add("i64", whole << 40, as_counts(whole << 40))
        add("i64negative", -whole, as_counts(-whole))
        add("f64", unit, as_counts(unit))
        add("f64wide", counts * 1e6 - 3e9, as_counts(counts * 1e6 - 3e9))
        add("f32", unit.astype(np.float32), as_counts(unit.astype(np.float32)))
        add("f32holes", holed, as_counts(holed))
        blank = (whole * 50000).astype(np.int32)
        blank[9, 9] = -1
        real = blank.astype(float)
        real[9, 9] = np.nan
        add("blank", blank, as_counts(real), fits.Header({"BLANK": -1}))
        table.append(("extension.fits", self.fits(fits.PrimaryHDU(), fits.ImageHDU(whole.astype(np.uint16))),
                      whole[::-1]))
        table.append(("afterTable.fits", self.fits(
            fits.PrimaryHDU(), fits.BinTableHDU.from_columns([fits.Column("A", "E", array=[1.0])]),
            fits.ImageHDU(whole.astype(np.int32))), whole[::-1]))
        # A scale of its own is applied by the decoder: values in the header's unit.
        scaled = fits.PrimaryHDU((whole // 2).astype(np.int32))
        data = self.fits(scaled).replace(b"BITPIX  =                   32",
                                         b"BITPIX  =                   32")
        at = data.index(b"END     ")
        data = data[:at] + b"BSCALE  =                  2.5".ljust(80) + b"BZERO   =                -11.0".ljust(80) + \
            b"END".ljust(80) + data[at + 240:]
        table.append(("scaled.fits", data, as_counts((whole // 2) * 2.5 - 11)[::-1]))
        shown = self.judge(table)
        self.assertEqual(shown["f64.fits"]["factor"], 65535)
        self.assertNotEqual(shown["f64wide.fits"]["zero"], 0)
        self.assertEqual(shown["i32small.fits"]["factor"], 1)

    @unittest.skipUnless("fits" in DECODERS, "a build without this decoder")
    def test_floats_are_counts_unless_next_to_none_would_be_above_two_wherever_those_lie(self):
        unit = (sky() / 65535).astype(np.float32)
        looked_at = [(2 * n + 1) * H // 16 for n in range(8)]  # of rows that are looked at first
        holed, bright_rows, dark_rows, one, above = (unit.copy() for _ in range(5))
        holed[3, 4] = holed[90, 7] = np.nan
        bright_rows[looked_at] = 300.4
        dark_rows += np.arange(W, dtype=np.float32) + 2.6
        dark_rows[looked_at] = unit[looked_at]
        one[60, 60] = 3.4
        above[60, 60] = 1.7
        counts = [("brightRows", bright_rows, {}), ("darkRows", dark_rows, {}),
                  ("small", unit[:99], {}), ("whole", (unit > 0.1).astype(np.float32), {}),
                  ("offset", unit, {"BSCALE": 1.0, "BZERO": 1000.0})]
        fractions = [("unit", unit, unit, {}), ("plainScale", unit, unit, {"BSCALE": 1.0, "BZERO": 0.0}),
                     ("scaled", unit, unit * np.float32(1.5), {"BSCALE": 1.5}), ("holed", holed, holed, {}),
                     ("negative", unit - 1, unit - 1, {}),
                     ("aBitAbove", above, None, {}), ("oneAboveTwo", one, None, {})]
        table = []
        for name, data, header in counts:
            expected = np.rint(data).astype(np.int32) + int(header.get("BZERO", 0))
            table.append((f"{name}.fits", self.scaled_fits(data, header), expected[::-1]))
        shown = self.judge(table)
        for name, _, header in counts:
            self.assertEqual(shown[f"{name}.fits"]["factor"], 1)
        table = [(f"{name}.fits", self.scaled_fits(data, header), as_counts(seen)[::-1])
                 for name, data, seen, header in fractions if seen is not None]
        shown = self.judge(table)
        # Packed, the program's own reader never sees it.
        files = {f"{name}.fits": self.scaled_fits(data, header) for name, data, _, header in fractions}
        plain = self.read(files)
        packed = self.read({name + ".gz": gzip.compress(data) for name, data in files.items()})
        for name in files:
            one, other = plain[name], packed[name + ".gz"]
            self.assertTrue(np.array_equal(one.pop("counts"), other.pop("counts")), name)
            del one["file"], other["file"]
            self.assertEqual(one, other)
            self.assertGreater(one["factor"], 30000)

    @staticmethod
    def scaled_fits(data, header):
        """Samples as they are, with cards of a scale that says otherwise."""
        file = io.BytesIO()
        fits.PrimaryHDU(data).writeto(file)
        cards = "".join(f"{key:8}= {value:>20}".ljust(80) for key, value in header.items()).encode()
        content = file.getvalue()
        at = content.index(b"END     ")
        return content[:at] + cards + content[at:at + 80] + content[at + 80 + len(cards):]

    @unittest.skipUnless("fits" in DECODERS, "a build without this decoder")
    def test_fits_cubes_are_colours_or_their_first_plane_packed_or_not(self):
        planes = np.stack([sky(n) for n in range(3)]).astype(np.uint16)
        many = np.stack([sky(n) for n in range(5)]).astype(np.uint16)
        real = (planes / np.float32(65535)).astype(np.float32)
        real_mean = (real[0] + real[1] + real[2]) / np.float32(3)
        wide = planes.astype(np.int32) * 50000
        wide_mean = (wide[0].astype(float) + wide[1] + wide[2]) / 3
        one = planes[:1]
        table = []
        for name, data, expected in [("three", planes, mean(planes)), ("five", many, many[0].astype(int)),
                                     ("one", one, one[0].astype(int)), ("threeFloats", real, as_counts(real_mean)),
                                     ("threeWide", wide, as_counts(wide_mean))]:
            expected = expected[::-1]
            plain = self.fits(fits.PrimaryHDU(data))
            table += [(f"{name}.fits", plain, expected), (f"{name}.fits.gz", gzip.compress(plain), expected),
                      (f"{name}Extension.fits", self.fits(fits.PrimaryHDU(), fits.ImageHDU(data)), expected)]
            if data.dtype == np.float32:
                continue  # packed with losses, unless by gzip
            for kind in ("RICE_1", "GZIP_1", "GZIP_2"):
                for tile in (None, (data.shape[0], 16, 16)):
                    unit = fits.CompImageHDU(data, compression_type=kind, **({} if tile is None else
                                                                            {"tile_size": tile[::-1]}))
                    table.append((f"{name}{kind}{'Tiles' if tile else ''}.fits.fz",
                                  self.fits(fits.PrimaryHDU(), unit), expected))
        shown = self.judge(table)
        self.assertIn("first was read", " ".join(shown["five.fits"]["remarks"]))
        self.assertIn("colours", " ".join(shown["threeRICE_1.fits.fz"]["remarks"]))

    @unittest.skipUnless("fits" in DECODERS, "a build without this decoder")
    def test_packed_fits_without_losses_gives_every_count(self):
        counts = sky()
        table = []
        for name, data in [("u16", counts.astype(np.uint16)), ("i16", (counts / 2).astype(np.int16)),
                           ("i32", counts.astype(np.int32)), ("u8", (counts / 160).astype(np.uint8))]:
            for kind in ("RICE_1", "GZIP_1", "GZIP_2", "HCOMPRESS_1", "PLIO_1"):
                if kind == "PLIO_1" and name in ("u16", "i32"):
                    continue  # which holds 24 bits and no sign
                unit = fits.CompImageHDU(data, compression_type=kind)
                table.append((f"{name}{kind}.fits.fz", self.fits(fits.PrimaryHDU(), unit), data.astype(int)[::-1]))
        floats = (counts / 65535).astype(np.float32)
        unit = fits.CompImageHDU(floats, compression_type="GZIP_2", quantize_level=0)
        table.append(("f32.fits.fz", self.fits(fits.PrimaryHDU(), unit), as_counts(floats)[::-1]))
        self.judge(table)

    # PNG

    @unittest.skipUnless("png" in DECODERS, "a build without this decoder")
    def test_png_of_every_depth_colour_and_order_of_lines(self):
        random = np.random.default_rng(3)
        table = []
        for interlaced in (False, True):
            more = "Interlaced" if interlaced else ""
            for bits in (1, 2, 4, 8, 16):
                grey = random.integers(0, 2**bits, (H, W, 1))
                # Fewer bits than a byte are spread over its range.
                spread = grey[..., 0] * (1 if bits > 8 else 255 // (2**bits - 1))
                table.append((f"grey{bits}{more}.png", png(grey, bits, 0, interlaced=interlaced), spread))
                if bits <= 8:
                    palette = random.integers(0, 256, (2**bits, 3))
                    table.append((f"palette{bits}{more}.png", png(
                        grey, bits, 3, palette, interlaced=interlaced), palette[grey[..., 0]].sum(axis=2)))
                    table.append((f"clearPalette{bits}{more}.png", png(
                        grey, bits, 3, palette, alpha=bytes([0, 128]), interlaced=interlaced),
                        palette[grey[..., 0]].sum(axis=2)))
                if bits >= 8:
                    colours = random.integers(0, 2**bits, (H, W, 3))
                    total = colours.sum(axis=2) if bits == 8 else (colours.sum(axis=2) + 1) // 3
                    clear = random.integers(0, 2**bits, (H, W, 1))
                    table += [(f"rgb{bits}{more}.png", png(colours, bits, 2, interlaced=interlaced), total),
                              (f"rgba{bits}{more}.png", png(np.dstack([colours, clear]), bits, 6,
                                                            interlaced=interlaced), total),
                              (f"greyAlpha{bits}{more}.png", png(np.dstack([grey, clear]), bits, 4,
                                                                 interlaced=interlaced), grey[..., 0])]
        for size in ((1, 1), (1, 7), (7, 1), (3, 5)):  # passes that have no pixel
            grey = random.integers(0, 65536, (*size, 1))
            table.append((f"small{size[0]}x{size[1]}.png", png(grey, 16, 0, interlaced=True), grey[..., 0]))
        self.judge(table)
        # Ours are read by others as they are read here.
        for name, data, _ in table:
            Image.open(io.BytesIO(data)).load()

    # JPEG

    def test_jpeg_of_every_kind_as_pillow_shows_it(self):
        grey = Image.fromarray((sky() / 160).astype(np.uint8))
        smooth = np.add.outer(np.arange(H), np.arange(W))
        colours = Image.fromarray(np.dstack([smooth % 250, 250 - smooth % 250, smooth // 2 % 250]).astype(np.uint8))
        table = []
        for name, picture, more in [("grey", grey, {}), ("progressive", grey, {"progressive": True}),
                                    ("rgb", colours, {}), ("rgbFull", colours, {"subsampling": 0}),
                                    ("rgbProgressive", colours, {"progressive": True, "subsampling": 2}),
                                    ("restarts", colours, {"optimize": True})]:
            file = io.BytesIO()
            picture.save(file, "JPEG", quality=92, **more)
            shown = np.asarray(Image.open(file).convert("RGB"), int).sum(axis=2)
            for ending in ("jpg", "jpeg", "jfif") if name == "rgb" else ("jpg",):
                table.append((f"{name}.{ending}", file.getvalue(), shown))
        self.judge(table)
        inks = colours.convert("CMYK")
        file = io.BytesIO()
        inks.save(file, "JPEG", quality=95)
        shown = np.asarray(Image.open(file), float)  # 255: all of an ink
        light = ((255 - shown[..., :3]) * (255 - shown[..., 3:]) / 255).sum(axis=2)
        self.judge([("inks.jpg", file.getvalue(), np.rint(light).astype(int))], within=2)

    # TIFF

    @unittest.skipUnless("tiff" in DECODERS, "a build without this decoder")
    def test_tiff_in_strips_tiles_planes_with_predictors_in_both_orders(self):
        counts = sky()
        kinds = {"u8": (counts / 160).astype(np.uint8), "i8": (counts / 400).astype(np.int8),
                 "u16": counts.astype(np.uint16), "i16": (counts / 2).astype(np.int16),
                 "u32": (counts * 100000).astype(np.uint32), "i32": (counts * 50000 - 9).astype(np.int32),
                 "f32": (counts / 65535).astype(np.float32), "f64": counts * 1e5}
        places = {"oneStrip": {}, "strips": {"rows_per_strip": 10}, "apart": {"rows_per_strip": 7, "gap": 4},
                  "backwards": {"rows_per_strip": 16, "order": lambda n: reversed(range(n))},
                  "tiles": {"tile": (16, 48)}, "packedStrips": {"rows_per_strip": 9, "packed": True},
                  "packedTiles": {"tile": (32, 16), "packed": True},
                  "differences": {"rows_per_strip": 20, "packed": True, "predictor": 2},
                  "tileDifferences": {"tile": (16, 16), "packed": True, "predictor": 2},
                  "floatDifferences": {"rows_per_strip": 20, "packed": True, "predictor": 3}}
        table = []
        for (kind, data), (place, how), (big, huge) in itertools.product(
                kinds.items(), places.items(), ((False, False), (True, False), (False, True))):
            real = kind.startswith("f")
            if how.get("predictor") == (2 if real else 3):
                continue
            expected = data.clip(0).astype(int) if data.dtype.itemsize < 4 else as_counts(data)
            name = f"{kind}-{place}{'-big' if big else ''}{'-huge' if huge else ''}.tif"
            table.append((name, tiff(data, big, huge, **how), expected))
        self.assertGreater(len(table), 180)
        self.judge(table)

    @unittest.skipUnless("tiff" in DECODERS, "a build without this decoder")
    def test_tiff_of_several_channels_side_by_side_or_in_planes(self):
        table = []
        for channels, planar, big, (place, how) in itertools.product(
                (2, 3, 4, 5), (False, True), (False, True),
                {"oneStrip": {}, "strips": {"rows_per_strip": 10}, "tiles": {"tile": (32, 32)},
                 "packed": {"rows_per_strip": 30, "packed": True}}.items()):
            samples = np.dstack([sky(n) for n in range(channels)])
            for kind, data in (("u16", samples.astype(np.uint16)), ("u8", (samples / 160).astype(np.uint8)),
                               ("f32", (samples / 65535).astype(np.float32)),
                               ("u32", (samples * 90000).astype(np.uint32))):
                first = data[..., 0].astype(float if data.dtype.itemsize == 4 else int)
                if kind == "f32" and channels >= 3:
                    first = (data[..., 0] + data[..., 1] + data[..., 2]) / np.float32(3)
                elif channels >= 3:
                    total = data[..., :3].astype(np.int64).sum(axis=2)
                    first = total if kind == "u8" else total / 3 if kind == "u32" else (total + 1) // 3
                expected = as_counts(first) if data.dtype.itemsize == 4 else first
                name = f"{kind}x{channels}{'-planes' if planar else ''}-{place}{'-big' if big else ''}.tif"
                table.append((name, tiff(data, big, planar=planar, **how), expected))
        self.judge(table)

    @unittest.skipUnless("tiff" in DECODERS, "a build without this decoder")
    def test_tiff_with_white_at_zero_and_as_pillow_packs_it(self):
        counts = sky()
        eight, sixteen = (counts / 160).astype(np.uint8), counts.astype(np.uint16)
        table = [("white8.tif", tiff(eight, photometric=0), 255 - eight.astype(int)),
                 ("white16.tif", tiff(sixteen, big=True, photometric=0), 65535 - sixteen.astype(int))]
        for packing in ("tiff_lzw", "packbits", "tiff_adobe_deflate", "tiff_deflate"):
            file = io.BytesIO()
            Image.fromarray(eight).save(file, "TIFF", compression=packing)
            table.append((f"{packing}.tif", file.getvalue(), eight.astype(int)))
            file = io.BytesIO()
            Image.fromarray(np.dstack([eight, eight // 2, eight // 3])).save(file, "TIFF", compression=packing)
            table.append((f"{packing}Rgb.tif", file.getvalue(),
                          np.asarray(Image.open(file), int).sum(axis=2)))
        self.judge(table)

    @unittest.skipUnless("tiff" in DECODERS, "a build without this decoder")
    def test_tiff_that_is_cut_off_is_refused_wherever_its_pixels_lie(self):
        counts = sky().astype(np.uint16)
        whole = tiff(counts)
        # The directory is behind the pixels: one that claims a longer picture runs over the end.
        longer = whole.replace(struct.pack("<HHII", 257, 4, 1, H), struct.pack("<HHII", 257, 4, 1, 3 * H))
        self.assertNotEqual(longer, whole)
        shown = self.read({"cut.tif": whole[:len(whole) // 2], "long.tif": longer})
        for name, found in shown.items():
            self.assertNotIn("counts", found, name)
            self.assertIn("TIFF", found["cause"])

    # XISF

    @unittest.skipUnless("xisf" in DECODERS, "a build without this decoder")
    def test_xisf_of_every_type_packed_and_shuffled_in_every_way(self):
        counts = sky()
        kinds = {"u8": (counts / 160).astype(np.uint8), "u16": counts.astype(np.uint16),
                 "u32": (counts * 90000).astype(np.uint32), "f32": (counts / 65535).astype(np.float32),
                 "f64": counts / 65535}
        table = []
        for (kind, data), big in itertools.product(kinds.items(), (False, True)):
            expected = data.astype(int) if data.dtype.itemsize < 4 else as_counts(data)
            data = data[..., None]
            mark = f"{kind}{'-big' if big else ''}"
            table.append((f"{mark}.xisf", xisf(data, big=big), expected))
            for codec, shuffled, blocks in itertools.product(CODECS, (False, True), (1, 3)):
                table.append((f"{mark}-{codec}{shuffled}{blocks}.xisf", xisf(
                    data, codec, shuffled, big=big, blocks=blocks), expected))
        # Items of any size, also where the last one is not whole.
        for item in (2, 3, 4, 5, 6, 7, 8):
            table.append((f"items{item}.xisf", xisf(kinds["u16"][..., None], "zlib", True, item=item),
                          kinds["u16"].astype(int)))
        self.judge(table)

    @unittest.skipUnless("xisf" in DECODERS, "a build without this decoder")
    def test_xisf_of_several_channels_in_planes_or_side_by_side(self):
        table = []
        for channels, planar, codec, big in itertools.product((2, 3, 4), (True, False), (None, "zlib", "lz4"),
                                                              (False, True)):
            samples = np.dstack([sky(n) for n in range(channels)]).astype(np.uint16)
            expected = samples[..., 0].astype(int)
            if channels >= 3:
                expected = mean(samples[..., :3].transpose(2, 0, 1))
            name = f"{channels}{'planes' if planar else 'pixels'}{codec}{'-big' if big else ''}.xisf"
            table.append((name, xisf(samples, codec, bool(codec), planar, big), expected))
            real = (samples / np.float32(65535)).astype(np.float32)
            first = real[..., 0]
            if channels >= 3:
                first = (real[..., 0] + real[..., 1] + real[..., 2]) / np.float32(3)
            table.append(("real" + name, xisf(real, codec, bool(codec), planar, big), as_counts(first)))
        self.judge(table)

    # What is said about a picture

    @staticmethod
    def cards_of(shown):
        return {card[:8].strip(): card[9:].split(" / ")[0].strip().strip("'").strip() for card in shown["cards"]}

    @staticmethod
    def jpeg_with(block):
        file = io.BytesIO()
        Image.new("L", (W, H), 40).save(file, "JPEG", exif=b"Exif\0\0" + block)
        return file.getvalue()

    def test_exif_of_any_camera_is_read_and_of_a_damaged_one_what_is_whole(self):
        usual_main = [(0x10F, 2, b"Maker\0"), (0x110, 2, b"Maker Model 5\0"), (0x112, 3, [6])]
        usual_sub = [(0x829A, 5, [5, 2]), (0x8827, 3, [1600]), (0x9003, 2, b"2024:05:03 21:04:05\0"),
                     (0x920A, 5, [135, 1])]
        usual = {"INSTRUME": "Maker Model 5", "EXPTIME": "2.5", "ISOSPEED": "1600", "FOCALLEN": "135",
                 "DATE-OBS": "2024-05-03T21:04:05"}
        no_time = {key: value for key, value in usual.items() if key != "DATE-OBS"}

        def sub_with(tag, form, data):
            return [entry for entry in usual_sub if entry[0] != tag] + [(tag, form, data)]

        def main_with(tag, form, data):
            return [entry for entry in usual_main if entry[0] != tag] + [(tag, form, data)]

        whole = exif(usual_main, usual_sub)
        resolution = [*usual_sub, (0xA20E, 5, [2000, 1]), (0xA210, 3, [3]), (0xA002, 4, [4 * W])]
        inches = [*usual_sub, (0xA20E, 5, [5080, 1]), (0xA002, 3, [W])]
        table = [  # name, block, orientation, cards
            ("little", whole, 6, usual), ("big", exif(usual_main, usual_sub, True), 6, usual),
            ("no maker", exif(main_with(0x10F, 2, b"\0"), usual_sub), 6, usual),
            ("other maker", exif(main_with(0x10F, 2, b"Firm Ltd\0"), usual_sub), 6,
             usual | {"INSTRUME": "Firm Ltd Maker Model 5"}),
            ("long for short", exif(main_with(0x112, 4, [8]), usual_sub), 8, usual),
            ("no turn", exif(main_with(0x112, 3, [0]), usual_sub), 1, usual),
            ("no such turn", exif(main_with(0x112, 3, [9]), usual_sub), 1, usual),
            ("turn as a text", exif(main_with(0x112, 2, b"6\0"), usual_sub), 1, usual),
            ("divided by nothing", exif(usual_main, sub_with(0x829A, 5, [1, 0])), 6,
             {**usual, "EXPTIME": None}),
            ("exposure of nothing", exif(usual_main, sub_with(0x829A, 5, [0, 7])), 6, {**usual, "EXPTIME": None}),
            ("clock not set", exif(usual_main, sub_with(0x9003, 2, b"0000:00:00 00:00:00\0")), 6,
             {**no_time, "DATE-OBS": None}),
            ("time of another form", exif(usual_main, sub_with(0x9003, 2, b"2024-05-03T21:04:05\0")), 6,
             {**no_time, "DATE-OBS": None}),
            ("text without an end", exif(usual_main, sub_with(0x9003, 2, b"2024:05:03 21:04:05")), 6, usual),
            ("text of other letters", exif(main_with(0x110, 2, "Maker M\u00fc\0".encode()), usual_sub), 6, no_time),
            ("pointing at itself", exif(usual_main, usual_sub, sub_at=8), 6,
             {"INSTRUME": "Maker Model 5", "EXPTIME": None}),
            ("pointing outside", exif(usual_main, usual_sub, sub_at=0xFFFFFFF0), 6,
             {"INSTRUME": "Maker Model 5", "EXPTIME": None}),
            ("more entries than bytes", whole[:8] + b"\xff\xff" + whole[10:], 6, usual),
            ("a smaller picture's sensor", exif(usual_main, resolution), 6, {**usual, "XPIXSZ": "20"}),
            ("resolution in inches", exif(usual_main, inches), 6, {**usual, "XPIXSZ": "5"})]
        # Cut off anywhere: what is whole may be there, nothing else.
        cuts = [(f"cut{n}", whole[:n]) for n in range(0, len(whole), 7)]
        shown = self.read({f"{name}.jpg": self.jpeg_with(block) for name, block, *_ in [*table, *cuts]})
        for name, _, orientation, cards in table:
            with self.subTest(name):
                found = self.cards_of(shown[f"{name}.jpg"])
                self.assertEqual(shown[f"{name}.jpg"]["orientation"], orientation)
                for key, value in cards.items():
                    if name == "text of other letters" and key == "INSTRUME":
                        self.assertTrue(found[key].startswith("Maker M") and found[key].isascii())
                    elif value is None or not value[0].isdigit() or key == "DATE-OBS":
                        self.assertEqual(found.get(key), value, key)
                    else:
                        self.assertAlmostEqual(float(found[key]), float(value), 6, key)
        for name, _ in cuts:
            found = shown[f"{name}.jpg"]
            self.assertIn(found["orientation"], (1, 6))
            for key, value in self.cards_of(found).items():
                if key in ("EXPTIME", "ISOSPEED", "FOCALLEN"):
                    self.assertAlmostEqual(float(value), float(usual[key]))
        for n in range(1, 9):
            name = f"turned{n}.jpg"
            found = self.read({name: self.jpeg_with(exif(main_with(0x112, 3, [n]), usual_sub))})[name]
            self.assertEqual(found["orientation"], n)
            self.assertEqual(any("wants it shown" in remark for remark in found["remarks"]), n > 1)

    @unittest.skipUnless("raw" in DECODERS, "a build without this decoder")
    def test_raw_as_cameras_of_many_makers_pack_it_is_the_sensors_mosaic(self):
        mosaic = (sky()[:116, :130] * 0.39).astype(np.uint16)
        low = mosaic & 4095
        nikon, canon = ("NIKON CORPORATION", "NIKON Z"), ("Canon", "Canon EOS 5D Mark II")
        negative = [(50706, 1, [1, 3, 0, 0]), (50708, 2, b"Maker Model\0")]
        table = []

        def add(name, shown, data, columns=None):
            pairs = shown.astype(int).reshape(58, 2, 65, 2).sum(axis=(1, 3))
            table.append((name, data, pairs[:, :columns]))

        add("plain.nef", mosaic, raw(nikon, mosaic, apart=True))
        add("three.nef", low, raw(nikon, mosaic, twelve_bits(low), 12, apart=True))
        # LibRaw knows that this model's last columns see no light.
        add("dark.nef", mosaic, raw((nikon[0], "NIKON D5100"), mosaic, apart=True), 43)
        add("plain.arw", mosaic, raw(("SONY", "ILCE-7M2"), mosaic, bits=14, apart=True))
        add("plain.pef", mosaic, raw(("PENTAX Corporation", "PENTAX K10D"), mosaic))
        add("three.pef", low, raw(("PENTAX Corporation", "PENTAX K-x"), mosaic, twelve_bits(low), 12))
        add("plain.srw", mosaic, raw(("SAMSUNG", "NX100"), mosaic))
        add("plain.3fr", mosaic, raw(("Hasselblad", "H3D"), mosaic))
        add("plain.rw2", mosaic, raw(("Panasonic", "DMC-GX1"), mosaic, magic=b"IIU\0"))
        add("pairs.cr2", mosaic, raw(canon, mosaic, lossless_jpeg(mosaic, 2), 14, 6))
        add("packed.arw", mosaic, raw(("SONY", "ILCE-7M4"), mosaic, lossless_jpeg(mosaic, 2), 14, 7, apart=True))
        for components in (1, 2):
            add(f"packed{components}.dng", mosaic, raw(("Maker", "Model"), mosaic, lossless_jpeg(
                mosaic, components), 14, 7, more=negative))
        shown = self.judge(table)
        for name, found in shown.items():
            with self.subTest(name):
                self.assertEqual((found["format"], found["orientation"]), ("camera RAW", 8))
                self.assertIn("the scale is twice", " ".join(found["remarks"]))
        cards = self.cards_of(shown["pairs.cr2"])
        self.assertIn("EOS 5D Mark II", cards["INSTRUME"])
        self.assertEqual([float(cards[key]) for key in ("EXPTIME", "ISOSPEED", "FOCALLEN")], [2.5, 1600, 135])

    @unittest.skipUnless("raw" in DECODERS, "a build without this decoder")
    def test_raw_of_a_pattern_of_six_by_six_shows_a_flat_sky_wherever_the_pattern_begins(self):
        height, width = 120, 132
        colours = np.tile(XTRANS, (height // 6, width // 6))
        mosaic = np.choose((colours == "R") + 2 * (colours == "B"), [900, 400, 300])
        mosaic[60:63, 66:69] += 100  # a star, within one cell of those that begin with the sensor
        table = {f"{n}.raf": (raf(mosaic, height - 4 * (n % 4), width - 4 * (n // 4)), n) for n in range(16)}
        shown = self.read({name: data for name, (data, _) in table.items()})
        for name, (_, n) in table.items():
            with self.subTest(name):
                counts = shown[name]["counts"]
                # LibRaw leaves out up to four rows and columns more.
                rows, columns = (height - 4 * (n % 4)) // 3, (width - 4 * (n // 4)) // 3
                self.assertTrue(rows - 2 <= counts.shape[0] <= rows and columns - 2 <= counts.shape[1] <= columns)
                self.assertEqual(shown[name]["factor"], 1)
                light = counts - (5 * 900 + 2 * 400 + 2 * 300)
                self.assertEqual(light.sum(), 900)
                self.assertEqual(light.min(), 0)
                self.assertIn((light > 0).sum(), (1, 2, 4))
                self.assertIn("three times", " ".join(shown[name]["remarks"]))

    @unittest.skipUnless("raw" in DECODERS, "a build without this decoder")
    def test_raw_that_is_not_supported_says_so_and_what_to_do(self):
        mosaic = (sky()[:116, :130] * 0.39).astype(np.uint16)
        nikon, canon = ("NIKON CORPORATION", "NIKON Z"), ("Canon", "Canon EOS 5D Mark II")
        colours = [(258, 3, [16, 16, 16]), (262, 3, [34892]), (277, 3, [3]), (50706, 1, [1, 3, 0, 0]),
                   (50708, 2, b"Maker Model\0")]
        files = {
            "unknown.nef": raw(nikon, mosaic, packing=13, apart=True),
            "new.dng": raw(("Maker", "Model"), mosaic, packing=52546, more=[(50706, 1, [1, 7, 0, 0])]),
            "new.cr3": b"\0\0\0\x18ftypcrx " + bytes(3000),
            "empty.raf": b"FUJIFILMCCD-RAW 0201FF383501Model" + bytes(3000),
            "colours.dng": raw(("Maker", "Model"), mosaic, np.dstack([mosaic] * 3).tobytes(), more=colours),
            "cut.nef": raw(nikon, mosaic, apart=True)[:-9000],
            "cut.cr2": raw(canon, mosaic, lossless_jpeg(mosaic, 2), 14, 6)[:-9000],
            "a.x3f": b"FOVb" + bytes(3000)}
        said = {"colours.dng": "holds colours rather than a sensor's mosaic: convert it to TIFF",
                "cut.nef": "ends before its pixels do", "cut.cr2": "ends before its pixels do",
                "a.x3f": "X3F picture of a camera, which is not read here: convert it to TIFF"}
        for name, found in self.read(files).items():
            with self.subTest(name):
                self.assertNotIn("counts", found)
                words = said.get(name, "not RAW file): convert it to DNG, TIFF or FITS")
                self.assertIn(words, found["cause"])

    def test_the_cards_of_every_format_are_the_same_record(self):
        cards = {"OBJECT": "M 31", "RA": 10.68, "DEC": -41.25, "FOCALLEN": 500.0, "XPIXSZ": 3.76}
        counts = sky().astype(np.uint16)
        text = json.dumps(cards)
        header = fits.Header(cards)
        plain = header.tostring(sep="\n", endcard=True, padding=False)
        files = {}
        if "tiff" in DECODERS:
            for name, words in (("json", text), ("header", plain)):
                for huge in (False, True):
                    files[f"{name}{huge}.tif"] = tiff(counts, huge=huge, tags=[
                        (270, 2, words.encode() + b"\0"), (274, 3, [8])])
        if "png" in DECODERS:
            for name, words in (("json", text), ("header", plain)):
                files[f"{name}.png"] = png(counts[..., None], 16, 0, text=[("Description", words)])
            files["keys.png"] = png(counts[..., None], 16, 0, text=[(k, str(v)) for k, v in cards.items()])
        if "xisf" in DECODERS:
            files["a.xisf"] = xisf(counts[..., None], cards=[
                (k, f"'{v}'" if isinstance(v, str) else v, "") for k, v in cards.items()])
        if "fits" in DECODERS:
            files["a.fits"] = self.fits(fits.PrimaryHDU(counts.astype(np.int64), header))
            files["a.fits.fz"] = self.fits(fits.PrimaryHDU(), fits.CompImageHDU(counts, header))
            files["primary.fits"] = self.fits(fits.PrimaryHDU(header=header), fits.ImageHDU(counts))
        for name, shown in self.read(files).items():
            with self.subTest(name):
                found = self.cards_of(shown)
                self.assertEqual(found.get("OBJECT"), "M 31")
                for key in ("RA", "DEC", "FOCALLEN", "XPIXSZ"):
                    self.assertAlmostEqual(float(found[key]), cards[key], 9)
                if name.endswith(".tif"):
                    self.assertEqual(shown["orientation"], 8)


if __name__ == "__main__":
    unittest.main()
