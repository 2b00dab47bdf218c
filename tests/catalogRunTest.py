#!/usr/bin/env python3
"""vestrel-catalog as users run it: several sources, epochs, killed builds, hostile files, refused options.

Environment: VESTREL_CATALOG_TOOL the program. Proper motions are judged by ERFA.
"""
import gzip
import math
import os
import pathlib
import random
import re
import signal
import struct
import subprocess
import tempfile
import unittest

import erfa

TOOL = os.environ["VESTREL_CATALOG_TOOL"]
GOOD, FAULTS, WRONG_USAGE, BAD_INPUT, CANNOT_WRITE = 0, 1, 2, 3, 4
ARCSECOND = math.radians(1 / 3600)
CELL = re.compile(r"[NS]\d\dR\d\d")


def run(*words):
    return subprocess.run([TOOL, *map(str, words)], capture_output=True, text=True, check=False)


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


def fits_table(stars):
    """A FITS table; magnitudes of the stars are in tenths."""
    def header(*cards):
        text = "".join(card.ljust(80) for card in (*cards, "END"))
        return text.ljust(-(-len(text) // 2880) * 2880).encode()

    data = b"".join(struct.pack(">ddf", math.degrees(ra), math.degrees(dec), mag / 10)
                    for ra, dec, mag in stars)
    columns = [f"{key}{i} = '{value}'" for i, (name, form) in enumerate(
        [("ra", "1D"), ("dec", "1D"), ("Vmag", "1E")], 1)
        for key, value in (("TTYPE", name), ("TFORM", form))]
    return header("SIMPLE  = T", "BITPIX  = 8", "NAXIS   = 0", "EXTEND  = T") + header(
        "XTENSION= 'BINTABLE'", "BITPIX  = 8", "NAXIS   = 2", "NAXIS1  = 20",
        f"NAXIS2  = {len(stars)}", "PCOUNT  = 0", "GCOUNT  = 1", "TFIELDS = 3",
        *(card.replace(" =", " ".ljust(8 - card.index(" ")) + "=", 1) for card in columns)) + data.ljust(
            -(-len(data) // 2880) * 2880, b"\0")


class CatalogRun(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory()
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
        sources = [("astap/d05_0101.1476", astap_file(stars), "--astap", 1, True),
                   ("stars.fits", fits_table(stars), "--table", 200, False),
                   ("stars.csv.gz", gzip.compress(text.encode()), "--csv", 1, True)]
        for name, good, option, least, whole_records in sources:
            file = self.folder / name
            given = file.parent if option == "--astap" else file
            file.write_bytes(good)
            self.build(option, given)
            built = cells_of(self.catalog)
            self.assertEqual(sum(map(len, built.values())), len(stars))
            for ra, dec, _ in stars[::10]:
                self.assertLess(min(apart((ra, dec), star) for star in stars_of(self.catalog)), 1)
            cuts = {0, 9, 109, 110, 112, 2880, len(good) // 2, len(good) - 2881}
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
            for _ in range(6):
                damaged = bytearray(good)
                damaged[rng.randrange(len(good))] ^= 1 << rng.randrange(8)
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
