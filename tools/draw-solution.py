#!/usr/bin/env python3
"""Draws a solved frame with its matched stars and the printed solution, for the README.

    tools/draw-solution.py FRAME.fit SOLUTION.json SOLUTION.txt OUT.png

Circles are stars of the image, crosses where the solution puts their catalog stars. Reads the
16-bit frames that vestrel-catalog renders.
"""
import json
import sys

import numpy
from astropy.io import fits
from PIL import Image, ImageDraw, ImageFont

WIDTH = 1000
MONO = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf"


def font(size):
    try:
        return ImageFont.truetype(MONO, size)
    except OSError:
        return ImageFont.load_default()


def main(frame_path, json_path, text_path, out_path):
    counts = fits.getdata(frame_path).astype(float)
    solution = json.load(open(json_path, encoding="utf-8"))
    text = open(text_path, encoding="utf-8").read().rstrip().splitlines()

    low, high = numpy.percentile(counts, (40, 99.7))
    stretched = numpy.arcsinh(numpy.clip((counts - low) / (high - low), 0, 4) * 3) / numpy.arcsinh(12)
    # FITS rows run upward.
    sky = Image.fromarray((stretched[::-1] * 255).astype("uint8"))
    scale = WIDTH / sky.width
    sky = sky.resize((WIDTH, round(sky.height * scale)), Image.BOX).convert("RGB")
    height = counts.shape[0]

    draw = ImageDraw.Draw(sky)

    def place(x, y):
        return (x + 0.5) * scale, (height - 0.5 - y) * scale

    for match in solution["matches"]:
        x, y = place(match["x"], match["y"])
        draw.ellipse((x - 9, y - 9, x + 9, y + 9), outline=(90, 220, 120), width=2)
        x, y = place(match["catalog_x"], match["catalog_y"])
        draw.line((x - 4, y, x + 4, y), fill=(255, 190, 60))
        draw.line((x, y - 4, x, y + 4), fill=(255, 190, 60))
        draw.text((x + 11, y - 7), f"{match['magnitude']:.1f}", fill=(150, 170, 200), font=font(11))

    line = 19
    page = Image.new("RGB", (WIDTH, sky.height + line * len(text) + 24), (16, 18, 24))
    page.paste(sky, (0, 0))
    draw = ImageDraw.Draw(page)
    for number, words in enumerate(text):
        colour = (90, 220, 120) if number == 0 else (214, 218, 226)
        draw.text((14, sky.height + 12 + number * line), words, fill=colour, font=font(14))
    page.quantize(128, method=Image.FASTOCTREE).save(out_path, optimize=True)


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    main(*sys.argv[1:])
