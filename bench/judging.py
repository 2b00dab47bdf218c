"""What measurements of solves share: running the solver, and how far its answer is off."""
import json
import math
import resource
import subprocess
import time


def separation(ra1, dec1, ra2, dec2):
    """Of two places on the sky; degrees."""
    a1, d1, a2, d2 = map(math.radians, (ra1, dec1, ra2, dec2))
    h = (math.sin((d2 - d1) / 2) ** 2
         + math.cos(d1) * math.cos(d2) * math.sin((a2 - a1) / 2) ** 2)
    return math.degrees(2 * math.asin(math.sqrt(min(1, h))))


def solved(solver, picture, *options):
    """What vestrel-solve says about a picture; "crash" is among it when that is no answer. "elapsed_s"
    and "processor_s" are what the whole program took, in seconds."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    run = subprocess.run([solver, picture, "--json", "--quiet", *options], stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL, check=False)
    elapsed = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    try:
        result = json.loads(run.stdout)
    except ValueError:
        result = {"solved": False, "crash": run.returncode}
    result["elapsed_s"] = elapsed
    result["processor_s"] = (after.ru_utime + after.ru_stime) - (before.ru_utime + before.ru_stime)
    return result


def pixels_off(result, truth):
    """The distance of a solution's centre from the true one, whose values may be texts."""
    apart = separation(result["ra_deg"], result["dec_deg"], float(truth["ra_deg"]),
                       float(truth["dec_deg"]))
    return apart * 3600 / float(truth["scale_arcsec_px"])


def write_between(marks, text, path):
    """Puts a measured text between two marks of a document."""
    page = path.read_text(encoding="utf-8")
    before, _, rest = page.partition(marks[0])
    _, end, after = rest.partition(marks[1])
    if not end:
        raise ValueError(f"{path} lacks {marks[0]} or {marks[1]}")
    path.write_text(f"{before}{marks[0]}\n{text}\n{end}{after}", encoding="utf-8")
