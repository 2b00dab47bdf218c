#!/usr/bin/env python3
"""Makes pictures that show no sky, for vestrel-plan-rates and vestrel-certainty-rates --others.

  bench/notSky.py FOLDER [--count 8]

Noise, gradients, stripes, text, checks, city lights, landscapes, foam, snow, rain, test charts,
fabric: FOLDER/table.tsv lists them. Nothing is downloaded.
"""
import argparse
import math
import pathlib
import random

import numpy as np
from PIL import Image, ImageDraw
from scipy import ndimage

from hardPictures import cloud
from harderPictures import large

WIDTH, HEIGHT = 640, 480


def generator(rng):
    return np.random.default_rng(rng.randrange(10**9))


def drawn(work, ground=0):
    canvas = Image.new("L", (WIDTH, HEIGHT), ground)
    work(ImageDraw.Draw(canvas))
    return np.asarray(canvas, float)


def white_noise(rng):
    return generator(rng).normal(100, rng.uniform(5, 50), (HEIGHT, WIDTH))


def red_noise(rng):
    return 255 * cloud((HEIGHT, WIDTH), rng, rng.uniform(0.6, 1.8))


def gradient(rng):
    y, x = np.mgrid[:HEIGHT, :WIDTH]
    return x * rng.uniform(0, 0.3) + y * rng.uniform(0, 0.3) + generator(rng).normal(
        10, 3, (HEIGHT, WIDTH))


def stripes(rng):
    y, x = np.mgrid[:HEIGHT, :WIDTH]
    angle, period = rng.uniform(0, 3), rng.uniform(6, 60)
    wave = np.sin((x * math.cos(angle) + y * math.sin(angle)) * 2 * math.pi / period)
    return 128 + 100 * np.sign(wave) + generator(rng).normal(0, 6, (HEIGHT, WIDTH))


def text(rng):
    letters = "abcdefghijklmnopqrstuvwxyz ,.0123456789"

    def work(draw):
        size = rng.choice((9, 12, 18, 30))
        for row in range(10, HEIGHT, int(size * 1.5)):
            words = "".join(rng.choice(letters) for _ in range(120))
            draw.text((10, row), words, fill=255, font=large(size))
    return drawn(work)


def checks(rng):
    y, x = np.mgrid[:HEIGHT, :WIDTH]
    side = rng.randrange(8, 50)
    return 200.0 * ((x // side + y // side) % 2) + generator(rng).normal(20, 4, (HEIGHT, WIDTH))


def city(rng):
    """Windows of towers at night."""
    def work(draw):
        for _ in range(14):
            left, top = rng.randrange(WIDTH), rng.randrange(60, HEIGHT - 60)
            across, down = rng.randrange(6, 11), rng.randrange(8, 14)
            for i in range(rng.randrange(3, 9)):
                for j in range((HEIGHT - top) // down):
                    if rng.random() < 0.5:
                        x, y = left + i * across, top + j * down
                        draw.rectangle((x, y, x + 2, y + 3), fill=rng.randrange(120, 256))
    return ndimage.gaussian_filter(drawn(work), 0.8) + generator(rng).normal(12, 3, (HEIGHT, WIDTH))


def landscape(rng):
    y = np.mgrid[:HEIGHT, :WIDTH][0]
    ridge = HEIGHT * (0.3 + 0.4 * cloud((8, WIDTH), rng, 1.3)[0])
    ground = 120 * cloud((HEIGHT, WIDTH), rng, 0.9)
    return np.where(y > ridge, ground, 200 - 0.2 * y + 30 * cloud((HEIGHT, WIDTH), rng, 2))


def dots(rng):
    """Snow, foam, bokeh: round spots of many sizes."""
    def work(draw):
        for _ in range(rng.randrange(30, 400)):
            x, y, r = rng.uniform(0, WIDTH), rng.uniform(0, HEIGHT), rng.paretovariate(1.5)
            draw.ellipse((x - r, y - r, x + r, y + r), fill=rng.randrange(60, 256))
    return ndimage.gaussian_filter(drawn(work), 1.2) + generator(rng).normal(15, 3, (HEIGHT, WIDTH))


def lattice(rng):
    def work(draw):
        step = rng.uniform(20, 60)
        turn = rng.uniform(0, 0.5)
        for i in range(-40, 40):
            for j in range(-40, 40):
                x = WIDTH / 2 + step * (i * math.cos(turn) - j * math.sin(turn))
                y = HEIGHT / 2 + step * (i * math.sin(turn) + j * math.cos(turn))
                draw.ellipse((x - 2, y - 2, x + 2, y + 2), fill=rng.randrange(100, 256))
    return ndimage.gaussian_filter(drawn(work), 1) + generator(rng).normal(10, 2, (HEIGHT, WIDTH))


def streaks(rng):
    def work(draw):
        for _ in range(150):
            x, y, length = rng.uniform(0, WIDTH), rng.uniform(0, HEIGHT), rng.uniform(4, 30)
            draw.line((x, y, x + length * 0.2, y + length), fill=rng.randrange(80, 256))
    return drawn(work) + generator(rng).normal(20, 5, (HEIGHT, WIDTH))


KINDS = (white_noise, red_noise, gradient, stripes, text, checks, city, landscape, dots, lattice,
         streaks)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--count", type=int, default=8, help="of each kind")
    options = parser.parse_args()
    options.folder.mkdir(parents=True, exist_ok=True)
    names = []
    for kind in KINDS:
        for number in range(options.count):
            rng = random.Random(f"{kind.__name__} {number}")
            values = np.uint8(np.clip(kind(rng), 0, 255))
            names.append(f"{kind.__name__}_{number}.jpg")
            Image.fromarray(values).save(options.folder / names[-1], quality=rng.choice((60, 90)))
    (options.folder / "table.tsv").write_text("file\n" + "\n".join(names) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main()
