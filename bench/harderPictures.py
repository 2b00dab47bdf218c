#!/usr/bin/env python3
"""Makes more pictures of the kinds that people really have: what bench/hardPictures.py leaves out.

  bench/harderPictures.py --tool build/dev/bin/vestrel-catalog --out FOLDER [--count 4] [--seed 1]
                          [--real FOLDER]

Dates of cameras, borders of stacks, drizzled and huge pictures, long and turning trails, coma,
spikes, raw colour mosaics, negatives, video, scanned plates, the Moon, phones, undersampled stars.
The options and FOLDER/truth.tsv are those of bench/hardPictures.py.
"""
import math

import numpy as np
from PIL import Image, ImageDraw, ImageFilter, ImageFont
from scipy import ndimage

import hardPictures as hard
from hardPictures import cloud, crop, line, rendered, stretched


def noise(shape, rng):
    return np.random.default_rng(rng.randrange(10**9)).normal(size=shape)


def drawn(values, work):
    """Values after `work(draw, canvas)` drew over them."""
    canvas = Image.fromarray(np.uint8(np.clip(values, 0, 255)))
    work(ImageDraw.Draw(canvas), canvas)
    return np.asarray(canvas, float)


def large(size):
    for name in ("DejaVuSans-Bold.ttf", "DejaVuSans.ttf"):
        try:
            return ImageFont.truetype(name, size)
        except OSError:
            continue
    return ImageFont.load_default()


def dated(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 2.5, 6, 14)))

    def work(draw, canvas):
        high = canvas.height // 14
        draw.text((canvas.width * 0.6, canvas.height * 0.88), "2024/08/12 23:41:07", fill=250,
                  font=large(high))
        draw.text((canvas.width * 0.03, canvas.height * 0.03), "© night walks", fill=180,
                  font=large(high // 2))
    return sky, drawn(stretched(sky), work), "jpg"


def watermarked(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    layer = Image.new("L", (sky.counts.shape[1] * 2, sky.counts.shape[0] * 2))
    for k in range(0, layer.height, layer.height // 8):
        ImageDraw.Draw(layer).text((k // 3, k), "PREVIEW   PREVIEW   PREVIEW", fill=60,
                                   font=large(layer.height // 16))
    layer = layer.rotate(30).crop((layer.width // 4, layer.height // 4,
                                   layer.width // 4 + sky.counts.shape[1],
                                   layer.height // 4 + sky.counts.shape[0]))
    return sky, np.clip(stretched(sky) + np.asarray(layer, float), 0, 255), "jpg"


def stacked(tool, rng):
    """Frames that were turned and shifted over each other: edges of steps, black corners."""
    sky = rendered(tool, rng, rng.choice((0.9, 1.5, 4)))
    values = stretched(sky)
    cover = np.zeros_like(values)
    for _ in range(6):
        one = ndimage.rotate(np.ones_like(values), rng.uniform(-6, 6), reshape=False, order=0)
        cover += ndimage.shift(one, [rng.uniform(-0.05, 0.05) * n for n in values.shape], order=0)
    values = np.where(cover > 0, values + 18 * (6 - cover), 0)
    return sky, values + noise(values.shape, rng) * 4 * (cover > 0) * (7 - cover) ** 0.5, "jpg"


def drizzled(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 1.5, 3)), width_px=1000)
    factor = rng.choice((2, 3))
    height, width = (n * factor for n in sky.counts.shape)
    sky.counts = np.asarray(Image.fromarray(np.float32(sky.counts)).resize(
        (width, height), Image.BICUBIC), float)
    sky.counts = ndimage.gaussian_filter(sky.counts, 1.5 * factor)
    sky.scale /= factor
    return sky, stretched(sky), "jpg"


def huge(tool, rng):
    sky = rendered(tool, rng, rng.choice((1.5, 4)), width_px=9504)
    return sky, stretched(sky), "jpg"


def long_trails(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    sky.counts = ndimage.convolve(sky.counts, line(rng.randrange(24, 50), rng.uniform(0, 3.1)))
    return sky, stretched(sky), "jpg"


def turning_trails(tool, rng):
    """An untracked or badly aligned mount: arcs about a place."""
    sky = rendered(tool, rng, rng.choice((3, 8, 14)), width_px=1400)
    angle = rng.uniform(0.3, 1.2)
    total = np.zeros_like(sky.counts)
    for k in range(13):
        total += ndimage.rotate(sky.counts, angle * (k - 6) / 6, reshape=False, order=1,
                                mode="nearest")
    sky.counts = total / 13
    return sky, stretched(sky), "jpg"


def coma(tool, rng):
    """Stars drawn out away from the middle, as fast lenses do."""
    sky = rendered(tool, rng, rng.choice((4, 8, 14)), width_px=1400)
    height, width = sky.counts.shape
    y, x = np.mgrid[:height, :width].astype(float)
    dx, dy = x - (width - 1) / 2, y - (height - 1) / 2
    r = np.hypot(dx, dy) / math.hypot(width / 2, height / 2)
    total = np.zeros_like(sky.counts)
    for k in range(8):
        pull = 1 - rng.uniform(0.009, 0.014) * r * r * k / 8
        total += (8 - k) * ndimage.map_coordinates(
            sky.counts, [(height - 1) / 2 + dy * pull, (width - 1) / 2 + dx * pull], order=1)
    sky.counts = total / 36
    return sky, stretched(sky), "jpg"


def spikes(tool, rng):
    sky = rendered(tool, rng, rng.choice((0.9, 1.5, 4)))
    counts = sky.counts - np.median(sky.counts)
    glow = ndimage.gaussian_filter(counts, 20) * 30
    arm = np.zeros((161, 161))
    reach = 1 / (3 + np.abs(np.arange(-80, 81)))
    arm[80, :] += reach
    arm[:, 80] += reach
    arm = ndimage.rotate(arm, rng.uniform(0, 90), reshape=False, order=1)
    small = np.where(counts > np.percentile(counts, 99.5), counts, 0)
    spectrum = np.fft.rfft2(small) * np.fft.rfft2(arm, s=small.shape)
    arms = np.roll(np.fft.irfft2(spectrum, s=small.shape), (-80, -80), (0, 1))
    sky.counts = counts + glow + arms
    return sky, stretched(sky), "jpg"


def bright_nebula(tool, rng):
    """A saturated core with bright knots and stars within, and faint arms."""
    sky = rendered(tool, rng, rng.choice((0.9, 1.3, 2.5)))
    height, width = sky.counts.shape
    y, x = np.mgrid[:height, :width].astype(float)
    x0, y0 = rng.uniform(0.35, 0.65) * width, rng.uniform(0.35, 0.65) * height
    r = np.hypot(x - x0, y - y0) / width
    field = cloud(sky.counts.shape, rng, 1.4)
    fine = cloud(sky.counts.shape, rng, 1.0)
    light = 900 * np.exp(-(r / 0.09) ** 1.2) * (0.3 + field) + 160 * field ** 2 * np.exp(-r / 0.3)
    light *= 0.7 + 0.6 * fine
    return sky, np.clip(stretched(sky) + light, 0, 255), "jpg"


def mosaic(tool, rng):
    """Raw counts of a colour camera, not interpolated."""
    sky = rendered(tool, rng, rng.choice((0.9, 2, 5, 12)))
    level = np.median(sky.counts)
    gains = np.ones_like(sky.counts)
    gains[0::2, 0::2] = rng.uniform(0.4, 0.6)
    gains[1::2, 1::2] = rng.uniform(0.5, 0.8)
    return sky, sky.counts * gains + 0.1 * level, "fit"


def negative(tool, rng):
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    return sky, 255 - stretched(sky), "jpg"


def video(tool, rng):
    """One picture of a camera for video: small, noisy, interlaced, few stars."""
    sky = rendered(tool, rng, rng.choice((2, 5, 12)), aspect=4 / 3, width_px=720, seeing=1.8)
    values = stretched(sky, 8) + noise(sky.counts.shape, rng) * 9
    values[1::2] = np.roll(values[1::2], 1, axis=1)
    return sky, np.round(values / 6) * 6, "jpg"


def scanned(tool, rng):
    """A photographic plate: grain, dust, hairs, scratches, an uneven light."""
    sky = rendered(tool, rng, rng.choice((1.5, 4, 8)), seeing=4)
    values = stretched(sky, 15) + ndimage.gaussian_filter(noise(sky.counts.shape, rng), 0.8) * 14
    values *= 0.7 + 0.5 * cloud(sky.counts.shape, rng, 2)

    def work(draw, canvas):
        for _ in range(60):
            x, y, r = rng.uniform(0, canvas.width), rng.uniform(0, canvas.height), rng.uniform(1, 4)
            draw.ellipse((x - r, y - r, x + r, y + r * rng.uniform(0.5, 1)), fill=245)
        for _ in range(6):
            at = [(rng.uniform(0, canvas.width), rng.uniform(0, canvas.height)) for _ in range(4)]
            draw.line(at[:3], fill=210, width=2, joint="curve")
    return sky, drawn(values, work), "jpg"


def moonlit(tool, rng):
    """The Moon, or a lamp, in the picture with its glare and ghosts."""
    sky = rendered(tool, rng, rng.choice((3, 8, 14)))
    height, width = sky.counts.shape
    y, x = np.mgrid[:height, :width].astype(float)
    x0, y0 = rng.choice((0.15, 0.85)) * width, rng.choice((0.2, 0.8)) * height
    r = np.hypot(x - x0, y - y0) / width
    values = stretched(sky) + 400 * np.exp(-r / 0.06) + 90 / (1 + (r / 0.15) ** 2)
    ghost = np.hypot(x - width + x0, y - height + y0) / width
    values += 30 * (ghost < 0.03) + 25 * (np.abs(ghost - 0.1) < 0.004)
    return sky, np.clip(values, 0, 255), "jpg"


def phone(tool, rng):
    """Smoothed by the phone, sharpened again, with a horizon of trees."""
    sky = rendered(tool, rng, rng.choice((12, 40, 60)), aspect=4 / 3, width_px=2000, seeing=2.2)
    values = stretched(sky, 12) + noise(sky.counts.shape, rng) * 7
    picture = Image.fromarray(np.uint8(np.clip(values, 0, 255))).filter(ImageFilter.MedianFilter(3))
    picture = picture.filter(ImageFilter.UnsharpMask(2, 180, 2))
    return sky, np.asarray(hard.masked(picture, rng), float), "jpg"


def undersampled(tool, rng):
    """Stars of one pixel, and hot pixels among them."""
    sky = rendered(tool, rng, rng.choice((3, 8, 16)), width_px=1400, seeing=1.0)
    hot = np.random.default_rng(rng.randrange(10**9)).random(sky.counts.shape) < 1e-4
    sky.counts[hot] += np.percentile(sky.counts, 99.95)
    return sky, sky.counts, "fit"


def framed(tool, rng):
    """A picture with a wide frame and its title beneath."""
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    values = stretched(sky)
    height, width = values.shape
    border = round(0.12 * width)
    out = np.full((height + 2 * border, width + 2 * border), rng.choice((0.0, 255.0, 128.0)))
    out[border:-border, border:-border] = values
    sky.counts = np.zeros_like(out)

    def work(draw, canvas):
        draw.rectangle((border - 4, border - 4, border + width + 4, border + height + 4),
                       outline=200, width=4)
        draw.text((border, border + height + border // 4), "Andromeda, 14 × 300 s, f/5", fill=190,
                  font=large(border // 3))
    return sky, drawn(out, work), "jpg"


def twilight(tool, rng):
    """Only the brightest stars on a bright, steep sky."""
    sky = rendered(tool, rng, rng.choice((4, 10, 16)), gradient=1.2, faint=0)
    values = stretched(sky, 2)
    values = values * 0.5 + np.linspace(40, 190, values.shape[0])[:, None]
    return sky, values + noise(values.shape, rng) * 3, "jpg"


def tall_strip(tool, rng):
    sky = rendered(tool, rng, rng.choice((2, 4, 10)), width_px=1600)
    height, width = sky.counts.shape
    part = round(width * rng.uniform(0.12, 0.2))
    sky = crop(sky, rng.randrange(width - part), 0, part, height)
    return sky, stretched(sky), "jpg"


def milky_way(tool, rng):
    """Far more stars than the catalog knows, of nearly the same light."""
    sky = rendered(tool, rng, rng.choice((2, 6, 12)), faint=6)
    dust = cloud(sky.counts.shape, rng, 1.8)
    values = stretched(sky) * (0.4 + dust) + 80 * dust
    return sky, values, "jpg"


def posterized(tool, rng):
    """A reduced palette with dithering, as GIFs have."""
    sky = rendered(tool, rng, rng.choice((1, 3, 8)))
    picture = Image.fromarray(np.uint8(stretched(sky))).convert("RGB")
    picture = picture.quantize(colors=8, dither=Image.Dither.FLOYDSTEINBERG).convert("L")
    return sky, np.asarray(picture, float), "jpg"


KINDS = (dated, watermarked, stacked, drizzled, huge, long_trails, turning_trails, coma, spikes,
         bright_nebula, mosaic, negative, video, scanned, moonlit, phone, undersampled, framed,
         twilight, tall_strip, milky_way, posterized)


def noisy(picture, rng):
    values = np.asarray(picture, float)
    return Image.fromarray(np.uint8(np.clip(values + noise(values.shape, rng) * 14, 0, 255)))


def clouded(picture, rng):
    values = np.asarray(picture, float)
    thick = cloud(values.shape, rng, 1.8) ** 1.5
    return Image.fromarray(np.uint8(np.clip(values * (1 - 0.8 * thick) + 150 * thick, 0, 255)))


def drawn_out(picture, rng):
    values = ndimage.convolve(np.asarray(picture, float), line(rng.randrange(8, 15),
                                                               rng.uniform(0, 3.1)))
    # Brighter, as trails are faint; a bright sky would become white and hide them.
    sky = np.median(values)
    return Image.fromarray(np.uint8(np.clip((values - sky) * 2 + min(sky, 60), 0, 255)))


def enlarged(picture, rng):
    factor = rng.uniform(1.7, 3)
    return picture.resize((int(picture.width * factor), int(picture.height * factor)),
                          Image.BICUBIC)


def signed(picture, rng):
    canvas = picture.copy()
    draw = ImageDraw.Draw(canvas)
    draw.text((canvas.width * 0.5, canvas.height * 0.85), "12.08.2024 23:41",
              fill=rng.choice((200, 255)), font=large(canvas.height // 13))
    return canvas


def cut(picture, rng):
    return hard.middle(picture, picture.width * rng.uniform(0.9, 1), picture.height / 3)


CHANGES = {
    "noisy": noisy,
    "cloud": clouded,
    "trail": drawn_out,
    "large": enlarged,
    "signed": signed,
    "strip": cut,
    "dim": lambda p, rng: p.point(lambda v: v // 6),
    "negative": lambda p, rng: p.point(lambda v: 255 - v),
}

if __name__ == "__main__":
    hard.KINDS, hard.CHANGES = KINDS, CHANGES
    hard.main()
