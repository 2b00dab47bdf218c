#!/usr/bin/env python3
"""Makes pictures of the kinds that people really have, with their truth.

  bench/hardPictures.py --tool build/dev/bin/vestrel-catalog --out FOLDER [--count 5] [--seed 1]
                        [--real FOLDER]

Each is a rendered frame of the sky, degraded: stretched and saved as JPEG, with nebulae, saturated
stars that bloom, hot pixels and dead columns, trails, bad focus, a foreground, lens distortion,
text, crops, strips, few stars, a crowded cluster. --real names a folder of real pictures with a
truth.tsv: crops, turned and resized copies of these are made too. FOLDER/truth.tsv lists every
picture with its truth and a hint: a centre up to a quarter of the field off, a size 4 % off.
"""
import argparse
import csv
import json
import math
import pathlib
import random
import subprocess
import tempfile

import numpy as np
from astropy.io import fits
from PIL import Image, ImageDraw, ImageFilter
from scipy import ndimage

COLUMNS = ("file kind width_px height_px ra_deg dec_deg scale_arcsec_px hint_ra_deg hint_dec_deg "
           "hint_width_arcmin hint_height_arcmin").split()


class Sky:
    """Counts as displayed, top row first, and where they lie: gnomonic about a centre."""

    def __init__(self, counts, ra, dec, scale, up, mirrored):
        self.counts, self.ra, self.dec, self.scale = counts, ra, dec, scale
        self.up, self.mirrored = up, mirrored

    def position(self, x, y):
        """The sky at a pixel; (0, 0) is the centre of the first one."""
        height, width = self.counts.shape
        right, up = x - (width - 1) / 2, (height - 1) / 2 - y
        direction = math.radians(self.up) + (1 if self.mirrored else -1) * math.atan2(right, up)
        # `direction` is the position angle of the way from the centre to the pixel.
        distance = math.atan(math.hypot(right, up) * math.radians(self.scale / 3600))
        d0 = math.radians(self.dec)
        d = math.asin(math.sin(d0) * math.cos(distance)
                      + math.cos(d0) * math.sin(distance) * math.cos(direction))
        a = math.atan2(math.sin(direction) * math.sin(distance) * math.cos(d0),
                       math.cos(distance) - math.sin(d0) * math.sin(d))
        return (self.ra + math.degrees(a)) % 360, math.degrees(d)


def rendered(tool, rng, width_deg, aspect=1.5, width_px=None, faint=0.6, **options):
    """A rendered frame anywhere on the sky, linear counts."""
    ra, dec = rng.uniform(0, 360), math.degrees(math.asin(rng.uniform(-1, 1)))
    width_px = width_px or rng.choice((900, 1400, 2000))
    up, mirrored = rng.uniform(0, 360), rng.random() < 0.2
    height_deg = width_deg / aspect
    half = math.hypot(width_deg, height_deg) / 2
    deeper = max(0.0, 15 - 5 * math.log10(half * 60 / 14) + 2.5 - 11.5)
    random_stars = round(faint * width_deg * height_deg * 30 * (10 ** (0.42 * deeper) - 1))
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "frame.fit"
        command = [tool, "render", f"--ra={ra}", f"--dec={dec}", f"--out={path}",
                   f"--size={width_deg}x{height_deg}d", f"--width-px={width_px}",
                   f"--rotation={up}", "--format=-32", f"--seed={rng.randrange(10**6)}",
                   f"--seeing={options.pop('seeing', rng.uniform(2, 4.5))}",
                   f"--faint-stars={min(random_stars, 20000)}"]
        command += [f"--{name.replace('_', '-')}={value}" for name, value in options.items()]
        if mirrored:
            command.append("--mirrored")
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        truth = json.loads(path.with_suffix(".truth.json").read_text())
        counts = np.array(fits.getdata(path), dtype=float)
    # Floating-point frames have the opposite order of rows.
    return Sky(np.flipud(counts), truth["ra_deg"], truth["dec_deg"], truth["scale_arcsec_px"],
               truth["up_position_angle_deg"], truth["mirrored"])


def stretched(sky, strength=30):
    """Counts as a processed picture shows them: 0 to 255, faint stars lifted."""
    low = np.percentile(sky.counts, 5)
    noise = np.percentile(sky.counts, 50) - np.percentile(sky.counts, 16)
    high = np.percentile(sky.counts, 99.95)
    x = np.clip(sky.counts - low + noise, 0, None) / max(high - low, 1)
    return np.clip(np.arcsinh(x * strength) / math.asinh(strength) * 235 + 8, 0, 255)


def cloud(shape, rng, grain=1.7):
    """Fractal noise, 0 to 1."""
    generator = np.random.default_rng(rng.randrange(10**9))
    y = np.fft.fftfreq(shape[0])[:, None]
    x = np.fft.rfftfreq(shape[1])[None, :]
    frequency = np.hypot(x, y)
    frequency[0, 0] = 1
    spectrum = np.fft.rfft2(generator.normal(size=shape)) / frequency ** grain
    field = np.fft.irfft2(spectrum, s=shape)
    return (field - field.min()) / (field.max() - field.min())


def crop(sky, left, top, width, height):
    ra, dec = sky.position(left + (width - 1) / 2, top + (height - 1) / 2)
    # The meridians turn between the two centres.
    north = sky.position(left + (width - 1) / 2, top + (height - 1) / 2 - 1)
    up = bearing(ra, dec, *north)
    return Sky(sky.counts[top:top + height, left:left + width], ra, dec, sky.scale, up,
               sky.mirrored)


def bearing(ra1, dec1, ra2, dec2):
    a, d1, d2 = math.radians(ra2 - ra1), math.radians(dec1), math.radians(dec2)
    return math.degrees(math.atan2(math.sin(a) * math.cos(d2), math.cos(d1) * math.sin(d2)
                                   - math.sin(d1) * math.cos(d2) * math.cos(a))) % 360


def disk(radius, hole=0.0):
    y, x = np.mgrid[-radius:radius + 1, -radius:radius + 1]
    mask = ((x * x + y * y <= radius * radius) & (x * x + y * y >= (hole * radius) ** 2)) * 1.0
    return mask / mask.sum()


def line(length, angle):
    canvas = Image.new("L", (2 * length + 1, 2 * length + 1))
    dx, dy = length / 2 * math.cos(angle), length / 2 * math.sin(angle)
    ImageDraw.Draw(canvas).line((length - dx, length - dy, length + dx, length + dy), fill=255)
    mask = np.asarray(canvas, float)
    return mask / mask.sum()


def save_jpeg(values, path, rng, colour=True, quality=None):
    grey = Image.fromarray(np.uint8(np.clip(values, 0, 255)))
    picture = grey
    if colour:
        cast = [rng.uniform(0.75, 1) for _ in range(3)]
        picture = Image.merge("RGB", [grey.point([min(255, int(v * c + 6 * (1 - c))) for v in
                                                  range(256)]) for c in cast])
    picture.save(path, quality=quality or rng.choice((55, 70, 85, 92)))


# Each kind returns the sky and the values to be saved, as a JPEG or, for counts, as FITS.

def plain(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.8, 1, 1.5, 3, 6, 10)))
    return sky, stretched(sky), "jpg"


def nebula(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 1.2, 2, 4)))
    field = cloud(sky.counts.shape, rng, rng.uniform(1.3, 2)) ** rng.uniform(1, 3)
    return sky, np.clip(stretched(sky) + field * rng.uniform(60, 200), 0, 255), "jpg"


def saturated(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 2, 4, 8)))
    counts = sky.counts - np.median(sky.counts)
    level = np.percentile(counts, 99.7)
    glow = ndimage.gaussian_filter(counts, 8) * 8 + ndimage.gaussian_filter(counts, 2.5) * 4
    bleeding = ndimage.uniform_filter1d(np.clip(counts - 8 * level, 0, 60 * level), 41, axis=0)
    sky.counts = np.clip(counts * 4 + glow + bleeding * 3, 0, level) + 100
    return sky, stretched(sky, 6), "jpg"


def hot_pixels(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 2, 5, 12)))
    generator = np.random.default_rng(rng.randrange(10**9))
    high = np.percentile(sky.counts, 99.99)
    hot = generator.random(sky.counts.shape) < 1e-3
    sky.counts[hot] += generator.random(hot.sum()) * high
    for _ in range(8):
        sky.counts[:, rng.randrange(sky.counts.shape[1])] = rng.choice((0, high))
        sky.counts[rng.randrange(sky.counts.shape[0]), :] += high / 10
    return sky, sky.counts, "fit"


def trailed(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    sky.counts = ndimage.convolve(sky.counts, line(rng.randrange(6, 16), rng.uniform(0, 3.1)))
    values = stretched(sky)
    canvas = Image.fromarray(np.uint8(values))
    for _ in range(3):
        ends = [rng.uniform(-0.2, 1.2) * sky.counts.shape[i % 2 == 0] for i in range(4)]
        ImageDraw.Draw(canvas).line(ends, fill=230, width=rng.randrange(1, 4))
    return sky, np.asarray(canvas, float), "jpg"


def unfocused(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 2, 5)), width_px=1400)
    sky.counts = ndimage.convolve(sky.counts, disk(rng.randrange(4, 9), rng.choice((0, 0.5))))
    return sky, stretched(sky), "jpg"


def foreground(tool, rng):
    sky = rendered(tool, rng, rng.choice((12, 20, 35)), width_px=1400)
    values = stretched(sky)
    height, width = values.shape
    values += np.linspace(0, 90, height)[:, None] ** 1.3 / 3
    horizon = np.cumsum(np.random.default_rng(rng.randrange(10**9)).normal(size=width)) * 2
    horizon = ndimage.gaussian_filter1d(horizon, 3) + height * rng.uniform(0.6, 0.75)
    texture = cloud(values.shape, rng, 0.9) * 120 + np.random.default_rng(1).normal(
        0, 12, values.shape)
    below = np.arange(height)[:, None] > horizon[None, :]
    return sky, np.where(below, texture, values), "jpg"


def wide_distorted(tool, rng):
    sky = rendered(tool, rng, rng.choice((24, 34, 48)), width_px=rng.choice((1200, 2000)))
    height, width = sky.counts.shape
    y, x = np.mgrid[:height, :width].astype(float)
    dx, dy = x - (width - 1) / 2, y - (height - 1) / 2
    factor = 1 + rng.uniform(0.01, 0.06) * (dx * dx + dy * dy) / (width * width / 4)
    sky.counts = ndimage.map_coordinates(sky.counts, [(height - 1) / 2 + dy * factor,
                                                      (width - 1) / 2 + dx * factor], order=1)
    return sky, stretched(sky), "jpg"


def lettered(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 8)), width_px=900)
    canvas = Image.fromarray(np.uint8(stretched(sky)))
    draw = ImageDraw.Draw(canvas)
    for _ in range(25):
        place = (rng.randrange(canvas.width - 80), rng.randrange(canvas.height - 20))
        draw.text(place, rng.choice(("NGC 7000", "M 31", "Dec +40 12 33", "exp 300 s, ISO 800",
                                     "HIP 9640", "alpha")), fill=255)
    for k in range(1, 5):
        draw.line((canvas.width * k / 5, 0, canvas.width * k / 5, canvas.height), fill=180)
        draw.line((0, canvas.height * k / 5, canvas.width, canvas.height * k / 5), fill=180)
    draw.rectangle((0, 0, canvas.width - 1, canvas.height - 1), outline=255, width=6)
    return sky, np.asarray(canvas, float), "jpg"


def strip(tool, rng):
    sky = rendered(tool, rng, 2.4, aspect=3, width_px=rng.choice((900, 1600)))
    return sky, stretched(sky), "jpg"


def few_stars(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.5, 0.6, 0.8)), faint=0, width_px=900,
                   magnitude_limit=rng.choice((10.5, 11, 11.5)))
    return sky, sky.counts, "fit"


def crowded(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 1.2, 2)))
    generator = np.random.default_rng(rng.randrange(10**9))
    height, width = sky.counts.shape
    stars = np.zeros_like(sky.counts)
    count = 1500
    x = width / 2 + generator.standard_t(2, count) * width / 25
    y = height / 2 + generator.standard_t(2, count) * width / 25
    inside = (x >= 0) & (x < width - 1) & (y >= 0) & (y < height - 1)
    flux = generator.pareto(1.5, count) * np.percentile(sky.counts - np.median(sky.counts), 99.9) * 8
    np.add.at(stars, (y[inside].astype(int), x[inside].astype(int)), flux[inside])
    sky.counts = sky.counts + ndimage.gaussian_filter(stars, 1.3)
    return sky, stretched(sky), "jpg"


def small_jpeg(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 1.5, 4, 10)), width_px=1800)
    factor = rng.choice((3, 4))
    height, width = (n // factor for n in sky.counts.shape)
    picture = Image.fromarray(np.uint8(stretched(sky))).resize((width, height), Image.LANCZOS)
    sky.scale *= sky.counts.shape[1] / width
    sky.counts = np.zeros((height, width))
    return sky, np.asarray(picture, float), "jpg40"


def uneven(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 10)), gradient=1.5)
    values = stretched(sky)
    y, x = np.mgrid[-1:1:values.shape[0] * 1j, -1:1:values.shape[1] * 1j]
    return sky, values * (1 - 0.35 * (x * x + y * y)) + 40 * (x > 0.3) * (x - 0.3), "jpg"


def cropped(tool, rng):
    sky = rendered(tool, rng, rng.choice((4, 10, 16)), width_px=2000)
    height, width = sky.counts.shape
    w, h = int(width * rng.uniform(0.3, 0.5)), int(height * rng.uniform(0.3, 0.5))
    sky = crop(sky, rng.randrange(width - w), rng.randrange(height - h), w, h)
    return sky, stretched(sky), "jpg"


KINDS = (plain, nebula, saturated, hot_pixels, trailed, unfocused, foreground, wide_distorted,
         lettered, strip, few_stars, crowded, small_jpeg, uneven, cropped)


def shifted(ra, dec, east, north):
    d = max(-89.9, min(89.9, dec + north))
    return (ra + east / max(math.cos(math.radians(d)), 0.02)) % 360, d


def row_of(name, kind, width, height, ra, dec, scale, rng):
    w, h = width * scale / 60, height * scale / 60
    ra_hint, dec_hint = shifted(ra, dec, rng.uniform(-0.25, 0.25) * w / 60,
                                rng.uniform(-0.25, 0.25) * h / 60)
    error = rng.uniform(0.96, 1.04)
    return dict(zip(COLUMNS, (name, kind, width, height, round(ra, 6), round(dec, 6), scale,
                              round(ra_hint, 5), round(dec_hint, 5), round(w * error, 3),
                              round(h * error, 3))))


def real_picture(path):
    """A real picture as grey values, 0 to 255. Counts are stretched; which way up does not matter
    to what is done with them."""
    if path.suffix == ".jpg":
        return Image.open(path).convert("L")
    counts = np.asarray(fits.getdata(path), dtype=float)
    return Image.fromarray(np.uint8(stretched(Sky(counts, 0, 0, 1, 0, False))))


def middle(picture, width, height):
    """Crops about the centre: by an even number, so that it stays."""
    dx, dy = (picture.width - int(width)) // 2, (picture.height - int(height)) // 2
    return picture.crop((dx, dy, picture.width - dx, picture.height - dy))


def masked(picture, rng):
    """Trees and hills before the lower third."""
    values = np.asarray(picture, float)
    height, width = values.shape
    ridge = height * (0.72 + 0.16 * (cloud((8, width), rng, 1.2)[0] - 0.5))
    ground = np.arange(height)[:, None] > ridge[None, :]
    leaves = np.random.default_rng(rng.randrange(10**9)).random(values.shape) ** 4 * 90
    return Image.fromarray(np.uint8(np.where(ground, 12 + leaves, values)))


def reduced(picture, part):
    return picture.resize((int(picture.width * part), int(picture.height * part)), Image.LANCZOS)


# What is done to a real picture; its centre stays where it is.
CHANGES = {
    "crop": lambda p, rng: middle(p, 0.6 * p.width, 0.6 * p.height),
    "turn": lambda p, rng: middle(p.rotate(rng.uniform(10, 350), Image.BICUBIC),
                                  0.7 * min(p.size), 0.7 * min(p.size)),
    "blur": lambda p, rng: p.filter(ImageFilter.GaussianBlur(1.5)),
    "half": lambda p, rng: reduced(p, 0.5),
    "jpeg30": lambda p, rng: p,
    "ground": masked,
    "mirror": lambda p, rng: reduced(p.transpose(Image.FLIP_LEFT_RIGHT), rng.uniform(0.55, 0.8)),
}


def real_variants(folder, out, rng):
    """Changed copies of real pictures."""
    with open(folder / "truth.tsv", encoding="utf-8") as file:
        rows = [row for row in csv.DictReader(file, delimiter="\t") if row["expect"] == "solved"]
    for row in rows:
        picture = real_picture(folder / row["file"])
        for change, work in CHANGES.items():
            changed = work(picture, rng)
            scale = float(row["scale_arcsec_px"])
            if change in ("half", "mirror", "large"):
                scale *= picture.width / changed.width
            name = f"real_{pathlib.Path(row['file']).stem}_{change}.jpg"
            quality = 30 if change == "jpeg30" else rng.choice((60, 85))
            changed.save(out / name, quality=quality)
            yield row_of(name, f"real {change}", changed.width, changed.height,
                         float(row["ra_deg"]), float(row["dec_deg"]), scale, rng)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--tool", required=True)
    parser.add_argument("--out", type=pathlib.Path, required=True)
    parser.add_argument("--count", type=int, default=5, help="of each kind")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--real", type=pathlib.Path)
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)
    rows = []
    for kind in KINDS:
        for number in range(options.count):
            rng = random.Random(f"{kind.__name__} {options.seed} {number}")
            sky, values, form = kind(options.tool, rng)
            name = f"{kind.__name__}_{number}.{form[:3]}"
            if form == "fit":
                counts = np.uint16(np.clip(np.flipud(values), 0, 65535))
                fits.writeto(options.out / name, counts, overwrite=True)
            else:
                save_jpeg(values, options.out / name, rng, quality=int(form[3:] or 0) or None)
            rows.append(row_of(name, kind.__name__, values.shape[1], values.shape[0], sky.ra,
                               sky.dec, sky.scale, rng))
    if options.real:
        rows += real_variants(options.real, options.out, random.Random(options.seed))
    with open(options.out / "truth.tsv", "w", newline="", encoding="utf-8") as file:
        writer = csv.DictWriter(file, COLUMNS, delimiter="\t", lineterminator="\n")
        writer.writeheader()
        writer.writerows(rows)


if __name__ == "__main__":
    main()
