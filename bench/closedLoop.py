#!/usr/bin/env python3
"""Renders frames all over the sky, solves them, and compares the solutions with the truth.

  bench/closedLoop.py --programs build/dev/bin --catalog /var/lib/Harrowdene/KEL [--blind]

The frames are the same in every run. They cover both poles, the line of right ascension 0, both
parities, all rotations, the three pixel formats and half-diagonals of 0.7 to 4 degrees. Each solve
starts up to a quarter of the field off in each direction and may search 25 regions. The controls
are frames of stars that are in no catalog: they must not be solved.

With --blind the frames are 2 to 10 degrees wide and no centre is given.

Exit code: 0 when at least 95 % are solved, the median error of the centre is below 0.3 pixel, and
neither a frame nor a control was solved wrongly; else 1.
"""
import argparse
import json
import math
import pathlib
import random
import statistics
import subprocess
import sys
import tempfile

import judging

FORMATS = (16, 8, -32)
HALF_DIAGONALS = (0.7, 4.0)  # degrees
BLIND_WIDTHS = (2, 10)  # degrees
# Real frames show stars beyond the end of the catalog. The sky has about this many per square
# degree down to its end, and 0.42 more in the logarithm with each magnitude.
CATALOG_END = 11.5
STARS_TO_END = 30
COUNT_SLOPE = 0.42
REGIONS = 25
# Larger than any error of measurement: such a solution shows another place.
WRONG_CENTRE = 0.005  # of the half-diagonal
WRONG_ANGLE = 0.2  # degrees
WRONG_SCALE = 0.005
WRONG_MODEL_CENTRE = 1  # pixels
WRONG_MODEL_CORNER = 5  # pixels


def frame_list(count, seed, widths=None):
    """The frames to be rendered: every tenth at a pole, every tenth on the line of RA 0."""
    rng = random.Random(seed)
    frames = []
    for i in range(count):
        ra = rng.uniform(0, 360)
        dec = math.degrees(math.asin(rng.uniform(-1, 1)))
        place = "elsewhere"
        if i % 10 == 3:
            place = "poles"
            dec = math.copysign(90 - rng.uniform(0, 1.5) * (i % 20 != 3), -1 if i % 40 < 20 else 1)
        elif i % 10 == 7:
            place = "RA 0"
            ra = rng.uniform(-0.3, 0.3) % 360
        low, high = HALF_DIAGONALS
        half = low * (high / low) ** (i / (count - 1))
        aspect = rng.choice((4 / 3, 3 / 2, 1))
        width = 2 * half * aspect / math.hypot(aspect, 1)
        if widths is not None:
            width = widths[0] * (widths[1] / widths[0]) ** (i / (count - 1))
            half = width * math.hypot(aspect, 1) / aspect / 2
        frames.append({
            "number": i, "place": place, "ra": ra, "dec": dec, "half": half,
            "width": width, "height": width / aspect,
            "format": FORMATS[i % 3], "mirrored": rng.random() < 0.5,
            # The golden ratio spreads the rotations evenly; some are multiples of 90°.
            "rotation": 90.0 * (i % 4) if i % 16 == 5 else 360 * (i * 0.6180339887 % 1),
            "width_px": rng.choice((1200, 1600, 2000, 2400)),
            "seeing": rng.uniform(2, 5), "seed": seed * 1000 + i,
            "offset": (rng.uniform(-0.25, 0.25), rng.uniform(-0.25, 0.25)),
        })
    rng.shuffle(frames)  # so that what only covers some frames covers all sizes
    return frames


def shifted(ra, dec, east, north):
    """The position `east` and `north` degrees from another, along a great circle."""
    distance = math.radians(math.hypot(east, north))
    bearing = math.atan2(east, north)
    d0 = math.radians(dec)
    d = math.asin(math.sin(d0) * math.cos(distance)
                  + math.cos(d0) * math.sin(distance) * math.cos(bearing))
    a = math.atan2(math.sin(bearing) * math.sin(distance) * math.cos(d0),
                   math.cos(distance) - math.sin(d0) * math.sin(d))
    return (ra + math.degrees(a)) % 360, math.degrees(d)


def faint_stars(frame):
    """How many stars a frame shows that are too faint for the catalog."""
    drawn_limit = 15 - 5 * math.log10(frame["half"] * 60 / 14) + 2.5
    deeper = max(0.0, drawn_limit - CATALOG_END)
    area = frame["width"] * frame["height"]
    return round(area * STARS_TO_END * (10 ** (COUNT_SLOPE * deeper) - 1))


def run_frame(frame, options, folder, random_stars=None):
    """Renders and solves one frame; adds what came out to `frame`."""
    path = folder / f"frame{frame['number']:03}{'c' if random_stars else ''}.fit"
    size = f"{frame['width']:.6f}x{frame['height']:.6f}d"
    catalog = [f"--catalog={options.catalog}"]
    render = [options.programs / "vestrel-catalog", "render", *catalog,
              f"--ra={frame['ra']:.7f}", f"--dec={frame['dec']:.7f}", f"--size={size}",
              f"--width-px={frame['width_px']}", f"--rotation={frame['rotation']:.4f}",
              f"--format={frame['format']}", f"--seeing={frame['seeing']:.3f}",
              f"--seed={frame['seed']}", f"--out={path}"]
    if frame["mirrored"]:
        render.append("--mirrored")
    if options.distortion:
        rng = random.Random(frame["seed"])
        half = math.hypot(1, frame["height"] / frame["width"]) * frame["width_px"] / 2
        corner = rng.uniform(0.03, 0.08) * half if options.strong else rng.uniform(1, 12)
        render += ["--distortion", f"{rng.choice((-1, 1)) * corner:.3f}",
                   f"{rng.uniform(-.1, .1) * half:.2f}", f"{rng.uniform(-.1, .1) * half:.2f}"]
    if random_stars:
        render.append(f"--random-stars={random_stars}")
    elif not options.catalog_stars_only:
        render += [f"--faint-stars={faint_stars(frame)}", f"--faint-from={CATALOG_END}"]
    subprocess.run(render, check=True, stdout=subprocess.DEVNULL)
    truth = json.loads(path.with_suffix(".truth.json").read_text())

    east = frame["offset"][0] * frame["width"]
    north = frame["offset"][1] * frame["height"]
    ra, dec = shifted(frame["ra"], frame["dec"], east, north)
    where = (["--blind"] if options.blind else
             [f"--ra={ra:.7f}", f"--dec={dec:.7f}", f"--regions={options.regions}"])
    solve = [options.programs / "vestrel-solve", path, *catalog, f"--size={size}", *where]
    result = judging.solved(*solve)
    if "crash" in result:
        raise RuntimeError(f"exit code {result['crash']}: {solve}")
    frame.update(truth={key: value for key, value in truth.items() if key != "brightest_stars"},
                 result=result, command=[str(part) for part in solve], start=(ra, dec),
                 solved=result["solved"], wrong=False, complaint="")
    if result["solved"]:
        judge(frame, truth, result)
        if options.distortion:
            judge_model(frame, truth, result)
    if options.keep is None:
        path.unlink()
        path.with_suffix(".truth.json").unlink()


def judge(frame, truth, result):
    scale = truth["scale_arcsec_px"]
    frame["error_px"] = judging.pixels_off(result, truth)
    frame["error_arcsec"] = frame["error_px"] * scale
    # Near a pole the direction of north turns with the centre.
    turn = (result["ra_deg"] - truth["ra_deg"] + 180) % 360 - 180
    turn *= math.sin(math.radians(truth["dec_deg"]))
    angle = result["up_position_angle_deg"] - truth["up_position_angle_deg"] - turn
    frame["angle_error"] = abs((angle + 180) % 360 - 180)
    frame["scale_error"] = abs(result["scale_arcsec_px"] / scale - 1)
    reasons = []
    if frame["error_arcsec"] > WRONG_CENTRE * frame["half"] * 3600:
        reasons.append("centre")
    if frame["angle_error"] > WRONG_ANGLE:
        reasons.append("rotation")
    if frame["scale_error"] > WRONG_SCALE:
        reasons.append("scale")
    if result["mirrored"] != truth["mirrored"]:
        reasons.append("parity")
    frame["wrong"] = bool(reasons)
    frame["complaint"] = ", ".join(reasons)


def judge_model(frame, truth, result):
    """The errors of the sky model's centre and of its worst corner, pixels."""
    model = result["sky_model"]

    def error(one, other):
        return judging.pixels_off(one, {**other, "scale_arcsec_px": truth["scale_arcsec_px"]})

    # Grid rows of floating-point files count from the top of the picture.
    found = {(c["x"], truth["height_px"] - 1 - c["y"] if frame["format"] == -32 else c["y"]): c
             for c in model["corners"]}
    frame["model_centre_px"] = error(model, truth)
    frame["model_corner_px"] = max(error(found[c["x"], c["y"]], c) for c in truth["corners"])
    frame["model_order"] = model["sip_order"]
    # The plate is linear: through a lens its scale is that of the stars it matched. The model's
    # corners tell the scale everywhere.
    reasons = [name for name in ("rotation", "parity") if name in frame["complaint"]]
    if frame["model_centre_px"] > WRONG_MODEL_CENTRE:
        reasons.append("the model's centre")
    if frame["model_corner_px"] > WRONG_MODEL_CORNER:
        reasons.append("the model's corners")
    frame["wrong"] = bool(reasons)
    frame["complaint"] = ", ".join(reasons)


def print_model_table(frames):
    print("\n| field, ° | frames | solved | all stars fitted | centre, median px | centre, 95 % "
          "| worst corner, median px | 95 % |\n|---|--:|--:|--:|--:|--:|--:|--:|")
    for low, high in ((0, 90), (0, 3), (3, 7), (7, 90)):
        chosen = [f for f in frames if low <= f["width"] < high]
        solved = [f for f in chosen if f["solved"] and not f["wrong"]]
        if not solved:
            continue
        cells = [f"{low} to {high}" if high < 90 or low else "all", str(len(chosen)),
                 str(len(solved)),
                 str(sum(f["result"]["sky_model"]["fitted_to_all_stars"] for f in solved))]
        for key in ("model_centre_px", "model_corner_px"):
            errors = sorted(f[key] for f in solved)
            cells += [f"{statistics.median(errors):.3f}",
                      f"{errors[math.ceil(0.95 * len(errors)) - 1]:.3f}"]
        print("| " + " | ".join(cells) + " |")


def table_row(label, frames):
    solved = [frame for frame in frames if frame["solved"] and not frame["wrong"]]
    cells = [label, str(len(frames)), str(len(solved))]
    if solved:
        errors = [frame["error_px"] for frame in solved]
        cells += [f"{statistics.median(errors):.3f}", f"{max(errors):.3f}",
                  f"{statistics.median(frame['error_arcsec'] for frame in solved):.2f}",
                  f"{statistics.median(frame['result']['rms_px'] for frame in solved):.2f}",
                  f"{max(frame['angle_error'] for frame in solved):.3f}",
                  f"{100 * max(frame['scale_error'] for frame in solved):.3f}"]
    else:
        cells += ["–"] * 6
    return "| " + " | ".join(cells) + " |"


def print_table(frames):
    print('| frames | number | solved | median error, px | worst, px | median error, " '
          "| median rms, px | worst rotation error, ° | worst scale error, % |")
    print("|---|--:|--:|--:|--:|--:|--:|--:|--:|")
    print(table_row("all", frames))
    for name, low, high in (("0.7° to 1°", 0, 1), ("1° to 1.5°", 1, 1.5), ("1.5° to 2.5°", 1.5, 2.5),
                            ("2.5° to 4°", 2.5, 4), ("above 4°", 4, 90)):
        chosen = [f for f in frames if low <= f["half"] < high]
        if chosen:
            print(table_row(f"half-diagonal {name}", chosen))
    for bitpix, name in ((8, "8-bit"), (16, "16-bit"), (-32, "floating-point")):
        print(table_row(name, [f for f in frames if f["format"] == bitpix]))
    for mirrored, name in ((False, "not mirrored"), (True, "mirrored")):
        print(table_row(name, [f for f in frames if f["mirrored"] == mirrored]))
    for place in ("poles", "RA 0", "elsewhere"):
        print(table_row(place, [f for f in frames if f["place"] == place]))


def print_facts(frame):
    truth, result = frame["truth"], frame["result"]
    print(f"\nframe {frame['number']}: RA {frame['ra']:.4f} Dec {frame['dec']:+.4f}, half-diagonal "
          f"{frame['half']:.2f}°, {truth['width_px']} x {truth['height_px']} pixels, BITPIX "
          f"{frame['format']}, up {frame['rotation']:.1f}°{', mirrored' if frame['mirrored'] else ''}"
          f", seeing {frame['seeing']:.1f}")
    print(f"  start off by {frame['offset'][0]:+.2f} widths, {frame['offset'][1]:+.2f} heights")
    print(f"  drawn {truth['stars_drawn']} stars, {truth['stars_above_6_sigma']} clear of the noise;"
          f" extracted {result['stars_extracted']}, in the catalog at the start "
          f"{result['stars_in_catalog']} down to {result['magnitude_limit']:.1f}")
    if frame["solved"]:
        print(f"  wrong in {frame['complaint']}: centre off by {frame.get('error_px', 0):.2f} px, "
              f"{result['stars_matched']} stars matched, rms {result['rms_px']:.2f} px")
    elif result["regions_tried"] == 0:
        print(f"  {result['message']}; {result['quads']}")
    else:
        best = result["best_attempt"]
        print(f"  {result['message']}; regions tried {result['regions_tried']}; best attempt "
              f"{best['pairs_by_votes']} pairs by votes, {best['pairs_left']} left")
    print("  " + " ".join(frame["command"]))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--programs", type=pathlib.Path, required=True,
                        help="folder of vestrel-catalog and vestrel-solve")
    parser.add_argument("--catalog", type=pathlib.Path, required=True)
    parser.add_argument("--frames", type=int, default=200)
    parser.add_argument("--controls", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--regions", type=int, default=REGIONS)
    parser.add_argument("--blind", action="store_true", help="give no centre")
    parser.add_argument("--catalog-stars-only", action="store_true",
                        help="draw no stars beyond the end of the catalog")
    parser.add_argument("--distortion", action="store_true",
                        help="lenses that move the corners by 1 to 12 pixels, fields 1 to 18 wide; "
                             "judges the sky model")
    parser.add_argument("--strong", action="store_true",
                        help="with --distortion: lenses that move the corners by 3 to 8 %% of their distance")
    parser.add_argument("--keep", type=pathlib.Path, help="folder that keeps the frames")
    parser.add_argument("--facts", type=pathlib.Path, help="write all facts here, as JSON")
    options = parser.parse_args()
    frames = frame_list(max(options.frames, 2), options.seed,
                        (1, 18) if options.distortion else BLIND_WIDTHS if options.blind
                        else None)
    controls = [dict(frame) for frame in frames[:options.controls]]
    with tempfile.TemporaryDirectory() as temporary:
        folder = pathlib.Path(temporary)
        if options.keep is not None:
            folder = options.keep
            folder.mkdir(parents=True, exist_ok=True)
        for done, frame in enumerate(frames, 1):
            run_frame(frame, options, folder)
            if sys.stderr.isatty():
                print(f"\r{done} of {len(frames)}", end="", file=sys.stderr)
        for frame in controls:
            run_frame(frame, options, folder, random_stars=150)
    if options.facts is not None:
        options.facts.write_text(json.dumps({"frames": frames, "controls": controls}, indent=1))

    print_table(frames)
    if options.distortion:
        print_model_table(frames)
    good = [frame for frame in frames if frame["solved"] and not frame["wrong"]]
    wrong = [frame for frame in frames if frame["wrong"]]
    false_alarms = [frame for frame in controls if frame["solved"]]
    print(f"\n{len(frames) - len(good) - len(wrong)} not solved, {len(wrong)} wrong; "
          f"{len(false_alarms)} of {len(controls)} controls solved")
    for frame in frames:
        if not frame["solved"] or frame["wrong"]:
            print_facts(frame)
    for frame in false_alarms:
        print_facts(frame)
    median = statistics.median(frame["error_px"] for frame in good) if good else math.inf
    passed = (len(good) >= 0.95 * len(frames) and median < 0.3 and not wrong and not false_alarms)
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
