"""What the reliability benches share: a drawn sky with its catalog, and their tables in
docs/RELIABILITY.md."""
import datetime
import math
import os
import pathlib
import random
import re
import struct
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCUMENT = ROOT / "docs/RELIABILITY.md"
RA, DEC = 10.5, 5.7  # degrees, in the middle of the cell N02R02
OLD = b"what was there before\n"


class Sky:
    """A catalog of one cell, and an image of it that is solved in one region."""

    def __init__(self, programs, folder, wine=None):
        """`wine` starts programs for Windows."""
        self.programs, self.folder = pathlib.Path(programs), pathlib.Path(folder)
        self.wine = wine
        self.catalog = self.folder / "KEL"
        self.catalog.mkdir(parents=True)
        self.environment = dict(os.environ, VESTREL_CATALOG=str(self.catalog),
                                VESTREL_SETTINGS=str(self.folder / "Vestrel.ini"))
        numbers = random.Random(4)
        stars = [(RA + numbers.uniform(-1.2, 1.2), DEC + numbers.uniform(-0.6, 0.6),
                  int(600 + 800 * numbers.random() ** 0.4)) for _ in range(900)]
        (self.catalog / "N02R02").write_bytes(b"".join(
            struct.pack("<ffh", math.radians(ra), math.radians(dec), mag) for ra, dec, mag in stars))
        self.table = self.folder / "stars.csv"
        self.table.write_text("ra,dec,mag\n" + "".join(
            f"{ra},{dec},{mag / 100}\n" for ra, dec, mag in stars))
        self.image = self.folder / "sky.fit"
        self.run("vestrel-catalog", "render", "--ra", RA, "--dec", DEC, "--size", "60x45",
                 "--width-px", 600, "--out", self.image).check_returncode()
        self.search = ["--ra", RA, "--dec", DEC, "--size", "60x45", "--regions", 1]
        self.angles = ",".join(repr(math.radians(x)) for x in (RA, DEC, 1, 0.75))

    def command(self, program, *arguments):
        start = [self.wine, f"{self.programs / program}.exe"] if self.wine else [str(self.programs / program)]
        return [*start, *map(str, arguments)]

    def run(self, program, *arguments, **options):
        return subprocess.run(self.command(program, *arguments), env=self.environment, check=False,
                              capture_output=True, timeout=300, **options)


def write_table(name, columns, rows, remark):
    """Puts a table between its marks in the document, and prints it."""
    lines = ["| " + " | ".join(columns) + " |", "|" + "---|" * len(columns)]
    lines += ["| " + " | ".join(map(str, row)) + " |" for row in rows]
    text = "\n".join(lines) + f"\n\nRun on {datetime.date.today()}: {remark}\n"
    print(text)
    document = DOCUMENT.read_text(encoding="utf-8")
    marks = re.compile(rf"(<!-- {name} -->\n).*?(<!-- end {name} -->)", re.DOTALL)
    assert marks.search(document), f"{DOCUMENT} has no place for {name}"
    DOCUMENT.write_text(marks.sub(lambda m: m[1] + text + m[2], document), encoding="utf-8")
