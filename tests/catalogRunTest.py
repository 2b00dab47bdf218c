#!/usr/bin/env python3
"""vestrel-catalog as users run it: several sources, epochs, killed builds, hostile files, refused options.

Environment: VESTREL_CATALOG_TOOL the program; VESTREL_STAR_FILE Debian's Tycho-2 index (else where ./test
puts it). Proper motions are judged by ERFA.
"""
import gzip
import json
import math
import os
import pathlib
import random
import re
import resource
import signal
import struct
import subprocess
import tempfile
import time
import unittest
import unittest.mock

import erfa
import numpy

TOOL = os.environ["VESTREL_CATALOG_TOOL"]
STAR_FILE = "index-tycho2-07.littleendian.fits"
STAR_FILES = [pathlib.Path(os.environ.get("VESTREL_STAR_FILE", "/nowhere")),
              pathlib.Path("/usr/share/astrometry") / STAR_FILE,
              pathlib.Path.home() / ".cache/vestrel" / STAR_FILE]
KSTARS = pathlib.Path("/usr/share/kstars")
GOOD, FAULTS, WRONG_USAGE, BAD_INPUT, CANNOT_WRITE = 0, 1, 2, 3, 4
ARCSECOND = math.radians(1 / 3600)
CELL = re.compile(r"[NS]\d\dR\d\d")


def run(*words):
    return subprocess.run([TOOL, *map(str, words)], capture_output=True, text=True, check=False, timeout=300)


def cells_of(catalog):
    """The stars of each cell: (ra, dec, magnitude)."""
    return {file.name: [(ra, dec, mag / 100)
                        for ra, dec, mag in struct.iter_unpack("<ffh", file.read_bytes())]
            for file in catalog.iterdir() if CELL.fullmatch(file.name)}


def stars_of(catalog):
    return [star for stars in cells_of(catalog).values() for star in stars]


def vector(ra, dec):
    return (math.cos(dec) * math.cos(ra), math.cos(dec) * math.sin(ra), math.sin(dec))


def apart(a, b):
    """Arcseconds between two positions (radians)."""
    return math.dist(vector(*a[:2]), vector(*b[:2])) / ARCSECOND


def astap_file(stars, record=5):
    """A .1476 file; stars are (ra, dec, magnitude in tenths), brightest first."""
    data = b"stars".ljust(109) + bytes([record])
    for ra, dec, tenths in stars:
        packed = round(dec / math.radians(90) * (128 * 65536 - 1))
        data += bytes([255, 255, 255, (packed >> 16) + 128, tenths + 16]).ljust(record, b"\0")
        data += round(ra / (2 * math.pi) * 0xFFFFFF).to_bytes(3, "little")
        data += (packed & 0xFFFF).to_bytes(2, "little") + bytes(record - 5)
    return data


def kstars_file(stars):
    """A file of bright stars of KStars; magnitudes of the stars are in tenths."""
    fields = [("RA", 4, 5, 1000000), ("Dec", 4, 5, 100000), ("dRA", 4, 5, 10), ("dDec", 4, 5, 10),
              ("mag", 2, 3, 100)]
    head = b"Stars for a test".ljust(124, b"\0") + b"SK\x01" + struct.pack("<H", len(fields))
    head += b"".join(name.encode().ljust(10, b"\0") + struct.pack("<BBi", size, kind, factor)
                     for name, size, kind, factor in fields)
    first = len(head) + 4 + 12 + 5
    head += struct.pack("<IIII", 1, 0, first, len(stars)) + bytes(5)
    return head + b"".join(
        struct.pack("<iiiih", round(math.degrees(ra) / 15 * 1e6), round(math.degrees(dec) * 1e5), 0, 0,
                    10 * tenths) for ra, dec, tenths in stars)


def fits_unit(*cards, data=b""):
    """A header and the data that it describes."""
    text = "".join(card.ljust(80) for card in (*cards, "END"))
    return text.ljust(-(-len(text) // 2880) * 2880).encode() + data.ljust(
        -(-len(data) // 2880) * 2880, b"\0")


def index_file(stars):
    """An index file of Astrometry.net; magnitudes of the stars are in tenths."""
    def table(name, form, row, data):
        return fits_unit("XTENSION= 'BINTABLE'", "BITPIX  = 8", "NAXIS   = 2", f"NAXIS1  = {row}",
                         f"NAXIS2  = {len(data) // row}", "PCOUNT  = 0", "GCOUNT  = 1", "TFIELDS = 1",
                         f"TTYPE1  = '{name}'", f"TFORM1  = '{form}'", data=data)

    scale = 0xFFFFFFFF / 2
    return (fits_unit("SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T", "ENDIAN  = '04:03:02:01'")
            + table("kdtree_range_stars", "8A", 8, struct.pack("<7d", -1, -1, -1, 1, 1, 1, scale))
            + table("kdtree_data_stars", "12A", 12, b"".join(
                struct.pack("<III", *(round((value + 1) * scale) for value in vector(ra, dec)))
                for ra, dec, _ in stars))
            + table("MAG_VT", "1E", 4, b"".join(struct.pack(">f", mag / 10) for *_, mag in stars)))


def fits_table(stars):
    """A FITS table; magnitudes of the stars are in tenths."""
    data = b"".join(struct.pack(">ddf", math.degrees(ra), math.degrees(dec), mag / 10)
                    for ra, dec, mag in stars)
    columns = [f"{key}{i} = '{value}'" for i, (name, form) in enumerate(
        [("ra", "1D"), ("dec", "1D"), ("Vmag", "1E")], 1)
        for key, value in (("TTYPE", name), ("TFORM", form))]
    return fits_unit("SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T") + fits_unit(
        "XTENSION= 'BINTABLE'", "BITPIX  = 8", "NAXIS   = 2", "NAXIS1  = 20",
        f"NAXIS2  = {len(stars)}", "PCOUNT  = 0", "GCOUNT  = 1", "TFIELDS = 3",
        *(card.replace(" =", " ".ljust(8 - card.index(" ")) + "=", 1) for card in columns), data=data)


# Published places for J2000 (epoch 2000), motions in milliarcseconds a year and V, as SIMBAD has them.
FASTEST = """
17 57 48.498 +04 41 36.21 -802.8 10362.5 9.51 Barnard's star
05 11 40.590 -45 01 06.36 6491.2 -5708.6 8.85 Kapteyn's star
11 52 58.769 +37 43 07.25 4002.7 -5817.8 6.45 Groombridge 1830
23 05 52.036 -35 51 11.06 6766.0 1330.3 7.34 Lacaille 9352
21 06 53.940 +38 44 57.90 4164.2 3249.6 5.21 61 Cyg A
21 06 55.264 +38 44 31.36 4106.0 3155.9 6.03 61 Cyg B
11 03 20.195 +35 58 11.58 -580.1 -4776.6 7.52 Lalande 21185
22 03 21.654 -56 47 09.52 3966.7 -2536.2 4.69 eps Ind
03 32 55.845 -09 27 29.73 -974.8 20.9 3.73 eps Eri
14 15 39.672 +19 10 56.67 -1093.4 -2000.1 -0.05 Arcturus
14 39 36.494 -60 50 02.37 -3679.3 473.7 0.01 alp Cen A
14 39 35.063 -60 50 15.10 -3614.4 803.0 1.33 alp Cen B
06 45 08.917 -16 42 58.02 -546.0 -1223.1 -1.46 Sirius
07 39 18.120 +05 13 29.96 -714.6 -1036.8 0.37 Procyon
00 18 22.885 +44 01 22.64 2891.5 411.8 8.13 GX And
04 15 16.320 -07 39 10.34 -2240.1 -3421.8 4.43 omi 2 Eri
07 27 24.500 +05 13 32.84 571.2 -3691.5 9.87 Luyten's star
01 44 04.083 -15 56 14.93 -1721.1 854.2 3.50 tau Cet
21 17 15.269 -38 52 02.51 -3259.0 -1145.9 6.68 AX Mic
01 08 16.395 +54 55 13.23 3422.2 -1598.9 5.17 mu Cas
03 19 55.651 -43 04 11.22 3038.3 726.6 4.27 e Eri
00 25 45.070 -77 15 15.29 2219.5 324.1 2.80 bet Hyi
16 30 18.058 -12 39 45.32 -94.0 -1183.8 10.07 Wolf 1061
"""


def published(line):
    """Place (radians), motion (radians a year, along the axes) and magnitude."""
    words = line.split()
    h, m, s, degrees, minutes, seconds = map(float, words[:6])
    dec = math.radians(abs(degrees) + minutes / 60 + seconds / 3600)
    motion = [float(word) / 1000 * ARCSECOND for word in words[6:8]]
    return (math.radians(15 * (h + m / 60 + s / 3600)), -dec if words[3][0] == "-" else dec, motion,
            float(words[8]))


class CatalogRun(unittest.TestCase):
    def setUp(self):
        # Each catalog has 4,502 files, which a disk writes slowly.
        memory = pathlib.Path("/dev/shm")
        holder = tempfile.TemporaryDirectory(dir=memory if os.access(memory, os.W_OK) else None)
        self.addCleanup(holder.cleanup)
        self.folder = pathlib.Path(holder.name)
        self.catalog = self.folder / "KEL"

    def write(self, name, content):
        file = self.folder / name
        file.write_bytes(content if isinstance(content, bytes) else content.encode())
        return file

    def table(self, name, stars, columns="ra,dec,Vmag"):
        rows = "".join(",".join(repr(value) for value in star) + "\n" for star in stars)
        return self.write(name, columns + "\n" + rows)

    def build(self, *words, code=GOOD):
        done = run("build", "--catalog", self.catalog, *words)
        self.assertEqual(done.returncode, code, done.stderr)
        return done

    def test_stars_move_as_erfa_moves_them_at_the_poles_over_ra_0_and_into_other_cells(self):
        stars = [  # degrees, magnitude, milliarcseconds a year (times cos dec), epoch
            (10.0, 89.9995, 6.0, 4000.0, 9000.0, 2016.0),     # over the pole
            (200.0, -89.99999, 6.1, 800.0, -1000.0, 2016.0),  # over the other one
            (359.99999, 12.0, 6.2, 3000.0, 0.0, 2000.0),      # over RA 0
            (0.00001, -40.0, 6.3, -3000.0, 10.0, 2000.0),
            (100.00001, 2.49999, 6.4, 0.0, 5000.0, 1991.25),  # from zone 0 to zone 1
            (103.99999, 30.0, 6.5, 4000.0, 0.0, 2000.0),      # to the next slice
            (50.0, 0.00001, 6.6, 0.0, -2000.0, 2016.0),       # over the equator
            (269.4485, 4.73942, 9.5, -801.55, 10362.39, 2016.0)]
        table = self.table("moving.csv", stars, "ra,dec,Vmag,pmra,pmdec,ref_epoch")
        for epoch in (1950.0, 2100.0):
            self.build("--csv", table, "--epoch", epoch)
            read = {mag: (name, ra, dec) for name, cell in cells_of(self.catalog).items()
                    for ra, dec, mag in cell}
            self.assertEqual(len(read), len(stars))
            for ra, dec, mag, motion_ra, motion_dec, start in stars:
                to = (epoch - start) * 365.25
                j2000, scale = 2451545.0, ARCSECOND / 1000
                at = erfa.pmsafe(math.radians(ra), math.radians(dec),
                                 motion_ra * scale / math.cos(math.radians(dec)),
                                 motion_dec * scale, 1.0, 0.0, j2000, 0.0, j2000, to)
                name, own_ra, own_dec = read[mag]
                # The parallax keeps ERFA from slowing stars that would be faster than light.
                # A right ascension is stored as a float, which is 0.05" wide.
                self.assertLess(apart((own_ra, own_dec), at[:2]), 0.07, (mag, epoch))
                zone = int(abs(math.degrees(own_dec)) / 2.5)
                self.assertEqual(name[:3], f"{'S' if own_dec < 0 else 'N'}{min(zone, 35):02}")
            info = run("info", "--catalog", self.catalog, "--json").stdout
            self.assertIn(f'"epoch": {epoch}', info)

    def test_the_fastest_stars_of_tycho_2_are_where_erfa_has_them_and_nowhere_else(self):
        """Tycho-2 has no motions and lists some stars for 1991.25; those that it lacks come from KStars."""
        star_file = next((file for file in STAR_FILES if file.is_file()), None)
        self.assertIsNotNone(star_file, "the Tycho-2 index is not there: ./test fetches it")
        self.build("--tycho2", star_file, "--kstars", KSTARS, "--epoch", 2026.5)
        stars = numpy.concatenate([
            numpy.fromfile(file, [("ra", "<f4"), ("dec", "<f4"), ("mag", "<i2")])
            for file in self.catalog.iterdir() if CELL.fullmatch(file.name)])
        ra, dec = stars["ra"].astype(float), stars["dec"].astype(float)
        places = numpy.stack([numpy.cos(dec) * numpy.cos(ra), numpy.cos(dec) * numpy.sin(ra), numpy.sin(dec)])

        def near(place, magnitude, arcseconds):
            """Distances of the stars of about this magnitude."""
            away = numpy.linalg.norm(places - numpy.array(vector(*place))[:, None], axis=0) / ARCSECOND
            return list(away[(away < arcseconds) & (abs(stars["mag"] / 100 - magnitude) < 1)])

        for line in FASTEST.strip().splitlines():
            ra, dec, motion, magnitude = published(line)
            now = erfa.pmsafe(ra, dec, motion[0] / math.cos(dec), motion[1], 1.0, 0.0, 2451545.0, 0.0,
                              2451545.0, 26.5 * 365.25)[:2]
            found = near(now, magnitude, 6)
            self.assertEqual(len(found), 1, line)
            # Their orbit bends the paths of alpha Centauri's two stars by some seconds in these years.
            self.assertLess(found[0], 6 if "alp Cen" in line else 1.5, line)
            # Neither source left it where it was; the companions of some are farther away.
            self.assertEqual(near((ra, dec), magnitude, 6), [], line)

    def test_a_star_of_two_sources_is_there_once_wherever_it_lies(self):
        rng = random.Random(2)
        places = [(0, 0), (0.0001, 0.0001), (359.9999, 45), (4, 2.5), (8, 10), (12.00001, 2.49999),
                  (77, 90), (180, 89.9999), (260, -90), (33, -87.5), (120, 87.5), (20, -2.5)]
        places += [(rng.uniform(0, 360), math.degrees(math.asin(rng.uniform(-1, 1))))
                   for _ in range(200)]

        def beside(place, arcseconds, angle):
            """A place at a distance, along a great circle (on the tangent plane)."""
            ra, dec = map(math.radians, place)
            east, north = (arcseconds * ARCSECOND * part for part in (math.sin(angle), math.cos(angle)))
            x, y, z = vector(ra, dec)
            x += -east * math.sin(ra) - north * math.sin(dec) * math.cos(ra)
            y += east * math.cos(ra) - north * math.sin(dec) * math.sin(ra)
            z += north * math.cos(dec)
            return math.degrees(math.atan2(y, x)) % 360, math.degrees(math.atan2(z, math.hypot(x, y)))

        first = [(*place, 8.0) for place in places]
        for turn in range(2):
            same = [(*beside(place, 1.2, turn * math.pi / 2 + 0.5), 8.6) for place in places]
            other = [(*beside(place, 4, 0.3 + turn), 8.1) for place in places]
            fainter = [(*beside(place, 0.5, turn), 9.4) for place in places]
            a = self.table("first.csv", first)
            b = self.table("second.csv", same + other + fainter)
            done = self.build("--csv", a, "--csv", b)
            read = stars_of(self.catalog)
            self.assertEqual(len(read), 3 * len(places))
            self.assertEqual(sorted({round(mag, 2) for _, _, mag in read}), [8.0, 8.1, 9.4])
            self.assertIn(f"stars of several sources, taken once: {len(places)}", done.stdout)
        # The order of the sources decides whose star it is.
        self.build("--csv", self.table("b.csv", same), "--csv", a)
        self.assertEqual({round(mag, 2) for _, _, mag in stars_of(self.catalog)}, {8.6})

    def test_a_build_gives_the_same_bytes_and_words_on_any_number_of_threads(self):
        rng = random.Random(8)
        stars = [(rng.uniform(0, 360), math.degrees(math.asin(rng.uniform(-1, 1))), rng.uniform(2, 12))
                 for _ in range(40000)]
        table = self.table("stars.csv.gz", stars)
        table.write_bytes(gzip.compress(table.read_bytes(), 1))
        # A second source sees a part of the stars anew; half of the bright ones are among them.
        again = self.table("again.csv", [(ra, dec + 0.5 / 3600, mag + 0.1) if dec < 89 else (ra, dec, mag)
                                         for ra, dec, mag in stars[::3]] + [("x", 0, 5), (5, 5, "")])
        bright = self.write("bright.json", json.dumps({"features": [
            {"geometry": {"coordinates": [ra, dec]}, "properties": {"mag": mag if i % 2 else -5}}
            for i, (ra, dec, mag) in enumerate(stars[:3000])]}))
        outcomes = []
        for threads in ("1", "2", "7"):
            with unittest.mock.patch.dict(os.environ, VESTREL_THREADS=threads):
                done = self.build("--csv", table, "--csv", again, "--bright", bright, "--epoch", 2026)
            manifest = json.loads((self.catalog / "catalog.json").read_text())
            del manifest["created"]
            outcomes.append((cells_of(self.catalog), manifest, done.stdout, done.stderr))
        self.assertEqual(outcomes[1], outcomes[0])
        self.assertEqual(outcomes[2], outcomes[0])
        self.assertIn("in the survey already: 1,500", outcomes[0][2])
        self.assertIn(f"taken once: {len(stars[::3]):,}", outcomes[0][2])

    def test_a_killed_build_leaves_the_old_catalog_and_the_next_one_clears_up(self):
        rng = random.Random(3)
        self.build("--csv", self.table("old.csv", [(10.0, 10.0, 5.0)]))
        before = cells_of(self.catalog)
        rows = "".join(f"{rng.uniform(0, 360):.6f},{rng.uniform(-90, 90):.6f},9\n"
                       for _ in range(20000))
        for ending in (signal.SIGKILL, signal.SIGTERM):
            build = subprocess.Popen([TOOL, "build", "--catalog", self.catalog, "--csv", "-"],
                                     stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
            build.stdin.write(b"ra,dec,mag\n" + rows.encode())
            build.stdin.flush()
            building = self.folder / f"KEL.building-{build.pid}"
            while not building.exists() and build.poll() is None:
                pass
            self.assertTrue(building.exists())
            build.send_signal(ending)
            build.stdin.close()
            self.assertNotEqual(build.wait(), GOOD)
            self.assertEqual(cells_of(self.catalog), before)
        self.assertIn("all good", run("verify", "--catalog", self.catalog).stdout)
        self.build("--csv", self.write("new.csv", "ra,dec,mag\n" + rows))
        self.assertEqual(len(stars_of(self.catalog)), 20000)
        self.assertEqual([file.name for file in self.folder.iterdir() if file.is_dir()], ["KEL"])

    def test_cut_and_damaged_sources_are_refused_by_name_or_give_a_sound_catalog(self):
        rng = random.Random(4)
        stars = [(rng.uniform(0, 6.28), math.asin(rng.uniform(-1, 1)), tenths)
                 for tenths in range(20, 200)]
        text = "ra,dec,mag\n" + "".join(f"{math.degrees(ra)},{math.degrees(dec)},{mag / 10}\n"
                                       for ra, dec, mag in stars)
        (self.folder / "astap").mkdir()
        (self.folder / "kstars").mkdir()
        sources = [("astap/d05_0101.1476", astap_file(stars), "--astap", 1),
                   ("kstars/unnamedstars.dat", kstars_file(stars), "--kstars", 1),
                   ("kstars/deepstars.dat", kstars_file(stars).replace(b"mag\0", b"V\0\0\0"), "--kstars", 1),
                   ("stars.index", index_file(stars), "--index", 2200),
                   ("stars.fits", fits_table(stars), "--table", 200),
                   ("stars.csv.gz", gzip.compress(text.encode()), "--csv", 1)]
        for name, good, option, least in sources:
            file = self.folder / name
            given = file.parent if option in ("--astap", "--kstars") else file
            file.write_bytes(good)
            self.build(option, given)
            built = cells_of(self.catalog)
            self.assertEqual(sum(map(len, built.values())), len(stars))
            read = [star for cell in built.values() for star in cell]
            for ra, dec, _ in stars[::10]:
                self.assertLess(min(apart((ra, dec), star) for star in read), 1)
            cuts = {0, 9, 110, 112, len(good) // 2, len(good) - 2881}
            # The last block of a FITS file is padding.
            for cut in sorted(cut for cut in cuts if 0 <= cut < len(good) - least):
                file.write_bytes(good[:cut])
                # A database of stars that ends after a whole record cannot be told from a whole one.
                if option == "--astap" and cut > 110 and (cut - 110) % 5 == 0:
                    continue
                done = self.build(option, given, code=BAD_INPUT)
                # Of a database without stars the folder is named.
                self.assertTrue(pathlib.Path(name).name in done.stderr or cut in (0, 110)
                                and str(given) in done.stderr, done.stderr)
            self.assertEqual(cells_of(self.catalog), built)
            for trial in range(4):
                damaged = bytearray(good)
                # Every second time in the first bytes, where the lengths and names are.
                at = rng.randrange(min(len(good), 240) if trial % 2 else len(good))
                damaged[at] ^= 1 << rng.randrange(8)
                file.write_bytes(damaged)
                done = run("build", option, given, "--catalog", self.folder / "other")
                self.assertIn(done.returncode, (GOOD, BAD_INPUT), done.stderr)
                if done.returncode == GOOD:
                    verified = run("verify", "--catalog", self.folder / "other")
                    self.assertEqual(verified.returncode, GOOD, verified.stdout)
                else:
                    self.assertIn(pathlib.Path(name).name, done.stderr)
            self.assertEqual([each.name for each in self.folder.iterdir()
                              if "building" in each.name], [])
            file.unlink()

    def test_files_that_promise_the_impossible_are_refused_at_once_by_name(self):
        stars = [(0.1 * i, 0.01 * i, 50 + i) for i in range(40)]
        index, table, kstars = index_file(stars), fits_table(stars), kstars_file(stars)
        records = kstars.index(b"mag\0") + 16
        huge = f"NAXIS2  = {10 ** 15}".ljust(80).encode()
        count = f"NAXIS2  = {len(stars)}".ljust(80).encode()

        def with_number(at, value):
            return kstars[:at] + struct.pack("<I", value) + kstars[at + 4:]

        hostile = {
            "rows.index": index.replace(count, huge, 1),
            "magnitudes.index": huge.join(index.rsplit(count, 1)),
            "width.index": index.replace(b"NAXIS1  = 12", b"NAXIS1  = 99999999999999", 1),
            "scale.index": index.replace(struct.pack("<d", 0xFFFFFFFF / 2), struct.pack("<d", math.nan)),
            "packed.index": gzip.compress(bytes(10 ** 8), 9),
            "text.index": b"SIMPLE  =" + b"x" * 100000,
            "rows.fits": table.replace(count, huge, 1),
            "form.fits": table.replace(b"'1D'", b"'2147483647D'", 1),
            "columns.fits": table.replace(b"TFIELDS = 3", b"TFIELDS = 999", 1),
            "line.csv": b"ra,dec,mag\n" + b"1" * 10 ** 7,
            "packed.csv.gz": gzip.compress(bytes(10 ** 8), 9),
            "nothing.csv": b"",
            "parts/unnamedstars.dat": with_number(records, 0xFFFFFFFF),
            "counts/unnamedstars.dat": with_number(records + 12, 0xFFFFFFFF),
            "places/unnamedstars.dat": with_number(records + 8, 0xFFFFFFF0),
            "fields/unnamedstars.dat": kstars[:127] + b"\xff\xff" + kstars[129:],
            "names/deepstars.dat": b"not stars at all",
            "order/namedstars.dat": kstars.replace(b"SK", b"KS", 1),
            "size/d05_0101.1476": b"stars".ljust(109) + b"\xff" + bytes(1000),
            "none/d05_0101.1476": b"stars".ljust(109) + b"\0" + bytes(1000),
        }
        options = {".index": "--index", ".fits": "--table", ".csv": "--table", ".gz": "--table",
                   ".dat": "--kstars", ".1476": "--astap"}
        self.build("--csv", self.table("old.csv", [(10.0, 10.0, 5.0)]))
        before = cells_of(self.catalog)
        for name, content in hostile.items():
            file = self.folder / name
            file.parent.mkdir(exist_ok=True)
            file.write_bytes(content)
            option = options[file.suffix]
            start = time.monotonic()
            done = self.build(option, file.parent if option in ("--kstars", "--astap") else file,
                              code=BAD_INPUT)
            self.assertLess(time.monotonic() - start, 10, name)
            self.assertIn(file.name, done.stderr)
        self.assertEqual(cells_of(self.catalog), before)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss, 1 << 20, "kilobytes")
        self.assertEqual([each.name for each in self.folder.iterdir() if "building" in each.name], [])

    def test_verify_names_every_damaged_cell_and_quads_and_info_do_not_fall(self):
        rng = random.Random(5)
        self.build("--csv", self.table("stars.csv", [
            (rng.uniform(0, 360), math.degrees(math.asin(rng.uniform(-1, 1))), rng.uniform(3, 11))
            for _ in range(40000)]))
        self.assertEqual(run("verify", "--catalog", self.catalog).returncode, GOOD)
        names = rng.sample([name for name, cell in cells_of(self.catalog).items() if len(cell) > 4], 6)

        def change(name, work):
            file = self.catalog / name
            file.write_bytes(bytes(work(bytearray(file.read_bytes()))))

        change(names[0], lambda data: data[:-3])
        change(names[1], lambda data: data[10:20] + data[:10] + data[20:])  # not brightest first
        change(names[2], lambda data: data[:7] + bytes([data[7] ^ 64]) + data[8:])
        change(names[3], lambda data: data + data[-10:])
        (self.catalog / names[4]).unlink()
        with open(self.catalog / names[5], "r+b") as huge:
            huge.truncate(1 << 34)  # sparse: sixteen gigabytes of nothing
        done = run("verify", "--catalog", self.catalog)
        self.assertEqual(done.returncode, FAULTS)
        for name in names:
            self.assertIn(name, done.stdout)
        self.assertEqual(run("info", "--catalog", self.catalog).returncode, GOOD)
        done = run("quads", "--catalog", self.catalog, "--from", 18)
        self.assertEqual(done.returncode, BAD_INPUT)
        self.assertIn(names[5], done.stderr)
        self.assertFalse((self.catalog / "quads.tables").exists())

    def test_numbers_that_are_none_and_manifests_that_are_no_files_are_refused_at_once(self):
        frame = self.catalog.parent / "frame.fit"
        render = ["render", "--ra", 1, "--dec", 90, "--size", "1x1d", "--width-px", 100, "--random-stars", 9, "--out", frame]
        sky = ["synthesize", "--catalog", self.catalog]
        for command, options in (
                (render, ("seeing", "rotation", "zero-point", "sky", "gain", "read-noise", "saturation", "faint-from",
                          "magnitude-limit", "trail", "defocus", "distortion", "gradient")),
                (sky, ("density", "mag-max", "ra", "dec", "radius")),
                (["build", "--catalog", self.catalog, "--csv", self.table("stars.csv", [])],
                 ("mag-min", "mag-max", "epoch", "table-epoch"))):
            for option in options:
                done = run(*command, f"--{option}", "nan")
                self.assertEqual(done.returncode, WRONG_USAGE, (option, done.stderr))
                self.assertIn("no finite number", done.stderr)
        self.assertEqual(run(*render, "--read-noise", "1e300").returncode, WRONG_USAGE)
        self.assertEqual([frame.exists(), self.catalog.exists()], [False, False])
        # At the pole by the program's own pi.
        self.assertEqual(run(*render).returncode, GOOD)
        self.assertEqual(json.loads(frame.with_suffix(".truth.json").read_text())["dec_deg"], 90)
        self.catalog.mkdir()
        os.mkfifo(self.catalog / "catalog.json")
        self.assertIn("catalog.json is damaged", run("info", "--catalog", self.catalog).stdout)
        self.assertEqual(run("verify", "--catalog", self.catalog).returncode, FAULTS)

    def test_quads_are_for_the_range_asked_for_and_other_ranges_are_refused(self):
        rng = random.Random(6)
        self.build("--csv", self.table("stars.csv", [
            (rng.uniform(0, 360), math.degrees(math.asin(rng.uniform(-1, 1))), rng.uniform(1, 6))
            for _ in range(3000)]))
        tables = self.catalog / "quads.tables"
        done = run("quads", "--catalog", self.catalog, "--from", 12, "--to", 20)
        self.assertEqual(done.returncode, GOOD, done.stderr)
        self.assertEqual(re.findall(r"fields of ([\d.]+) to ([\d.]+) degrees", done.stdout),
                         [("12", "18"), ("18", "20")])
        before = tables.read_bytes()
        # A range that reaches beyond that of quads is not cut down to it.
        for low, high in ((0.05, 0.1), (20, 12), (30, 40), (15, 15), (-3, -1), ("nan", 20), ("x", 20),
                          (12, "nan"), ("inf", "inf"), (12, ""), (0.05, 1), (0.19, 30), (18, 31),
                          (0, 20), (12, "inf")):
            done = run("quads", "--catalog", self.catalog, "--from", low, "--to", high)
            self.assertEqual(done.returncode, WRONG_USAGE, (low, high, done.stdout))
            self.assertEqual(tables.read_bytes(), before)
        self.assertEqual(run("verify", "--catalog", self.catalog).returncode, GOOD)
        tables.write_bytes(before[:-1])
        done = run("verify", "--catalog", self.catalog)
        self.assertEqual(done.returncode, FAULTS)
        self.assertIn("quads.tables", done.stdout)


if __name__ == "__main__":
    unittest.main()
