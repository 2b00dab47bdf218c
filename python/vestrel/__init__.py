"""Finds where photographs of the night sky point.

>>> import vestrel
>>> solution = vestrel.solve("m44.fit")            # doctest: +SKIP
>>> solution.wcs.pixel_to_world(10, 20)            # doctest: +SKIP

Angles are degrees, positions J2000 (ICRS). Pixels count as in numpy: ``array[y, x]``, from 0; whole
numbers are the middles of pixels, and rows have the order of the file or the array.
"""
from __future__ import annotations

import dataclasses
import os
from functools import cached_property
from typing import TYPE_CHECKING, Any, Optional, Union

import numpy as np
import numpy.typing as npt

from . import _native

if TYPE_CHECKING:
    from astropy.io.fits import Header
    from astropy.wcs import WCS

__all__ = ["Solution", "Solver", "solve"]
__version__: str = _native.version

Picture = Union[str, "os.PathLike[str]", npt.NDArray[Any]]
Range = Union[float, tuple[float, float]]

STARS = np.dtype([("x", "f8"), ("y", "f8"), ("flux", "f8")])
MATCHES = np.dtype([("x", "f8"), ("y", "f8"), ("flux", "f8"), ("ra", "f8"), ("dec", "f8"),
                    ("magnitude", "f8"), ("residual", "f8")])


@dataclasses.dataclass(frozen=True)
class Solution:
    """The outcome of a solve. It is true when there is a solution; else ``reason`` says why not."""

    end: str
    """How it ended: "solved", "no picture", "too few stars", "no match", "not sure", "no catalog", "damaged catalog",
    "time limit", "stopped" or "out of memory"."""
    reason: str
    """Why there is no solution, as a sentence; empty when there is one."""
    advice: list[str]
    """What to try next."""
    width: int
    """Columns of the picture."""
    height: int
    """Rows of the picture."""
    stars: npt.NDArray[Any]
    """The detected stars, brightest first: fields x, y (pixels), flux (counts above the sky)."""
    matches: npt.NDArray[Any]
    """The matched stars: x, y, flux; ra, dec, magnitude from the catalog; residual (pixels)."""
    log10_false_alarm: float
    """How sure it is: log10 of the probability that chance gives a match as good. A solution has
    -6 or less."""
    seconds: float
    """Time of the solve, without reading the picture."""
    solved_by: str = ""
    """The name of the attempt that gave the solution."""
    started_from: str = ""
    """The header cards that gave the start; may be empty."""
    cause: str = ""
    """The likeliest cause of a failure, with its evidence; empty when nothing is known."""
    cause_kind: str = ""
    """The name of that cause, such as "trailed" or "wrong_centre". It never changes."""
    ra: float = float("nan")
    """Right ascension of the middle of the picture, 0 to 360."""
    dec: float = float("nan")
    """Its declination."""
    field: tuple[float, float] = (float("nan"), float("nan"))
    """Width and height of the field, degrees."""
    scale: float = float("nan")
    """Arcseconds per pixel at the middle."""
    rotation: float = float("nan")
    """The position angle of the direction of rising rows, east of north, 0 to 360."""
    mirrored: bool = False
    """Whether east lies clockwise of north where rows rise upward. For an ordinary picture of the sky this is false
    when its rows begin at the bottom (FITS), and true when they begin at the top (JPEG)."""
    rms: float = float("nan")
    """Root mean square of the residuals, pixels."""
    centre_error: float = 0
    """Standard deviation of the middle's position, arcseconds; 0 when not known."""
    cautions: list[str] = dataclasses.field(default_factory=list)
    """Reasons to doubt the solution; usually empty."""
    cards: list[str] = dataclasses.field(default_factory=list, repr=False)
    """The world coordinates as FITS header cards."""
    stars_in_frame: int = 0
    """Catalog stars in the frame."""
    expected_by_chance: float = 0
    """How many of them would match a star in a picture of another place."""

    def __bool__(self) -> bool:
        return self.end == "solved"

    @cached_property
    def header(self) -> Header:
        """The world coordinates as an astropy header, with which a picture's own can be updated."""
        from astropy.io import fits

        return fits.Header.fromstring("".join(card.ljust(80) for card in self.cards))

    @cached_property
    def wcs(self) -> WCS:
        """The world coordinates, with SIP distortion.

        Raises ValueError when there is no solution."""
        if not self:
            raise ValueError(f"There is no solution: {self.reason}")
        from astropy.wcs import WCS

        coordinates = WCS(self.header)
        coordinates.pixel_shape = (self.width, self.height)
        return coordinates


def _range(value: Optional[Range]) -> Optional[tuple[float, float]]:
    if value is None:
        return None
    if np.ndim(value) == 0:
        return float(value), float(value)  # type: ignore[arg-type]
    low, high = value  # type: ignore[misc]
    return float(low), float(high)


def _cards(header: Optional[Header]) -> list[str]:
    if header is None:
        return []
    text = header.tostring(sep="", endcard=False, padding=False)
    return [text[at:at + 80] for at in range(0, len(text), 80)]


def _file_name(path: Union[str, "os.PathLike[str]"]) -> bytes:
    """The bytes of a name, which need not be UTF-8."""
    name = os.fsencode(path)
    if b"\0" in name:
        raise ValueError("A file name has no null character.")
    return name


class Solver:
    """Solves pictures one after the other and keeps the catalog in memory between them.

    A Solver may be used by one thread at a time. Any number of Solvers can work at the same time,
    and other Python threads run meanwhile.

    catalog: the folder of the catalog and its quad tables; None: the usual one.
    threads: threads for one picture, 1 to 256; 0: one for each processor.
    detection_threshold: how far above the mean of the sky a star begins, in standard deviations.
    min_star_size: the size of the smallest star, pixels.
    max_stars: how many stars of each list take part in matching.
    max_error: the largest error of the fit, pixels.

    Raises ValueError for a setting outside its range.
    """

    def __init__(self, catalog: Union[str, "os.PathLike[str]", None] = None, *, threads: int = 0,
                 detection_threshold: float = _native.DETECTION_THRESHOLD,
                 min_star_size: int = _native.MIN_STAR_SIZE, max_stars: int = _native.MAX_STARS,
                 max_error: float = _native.MAX_ERROR) -> None:
        self._native = _native.Solver(_file_name(catalog) if catalog is not None else b"", threads,
                                      detection_threshold, min_star_size, max_stars, max_error)

    def solve(self, picture: Optional[Picture] = None, *,
              stars: Optional[npt.ArrayLike] = None, shape: Optional[tuple[int, int]] = None,
              ra: Optional[float] = None, dec: Optional[float] = None,
              radius: float = _native.RADIUS,
              scale: Optional[Range] = None, field_width: Optional[Range] = None,
              field_height: Optional[Range] = None, header: Optional[Header] = None,
              use_header: bool = True, whole_sky: bool = True, top_row_first: bool = False,
              time_limit: float = _native.TIME_LIMIT) -> Solution:
        """Solves a picture. All hints are optional.

        picture: the name of a file, or an array of shape (rows, columns) or (rows, columns,
            channels) of uint8, (u)int16, (u)int32, float32 or float64.
        stars: instead of a picture, rows of x, y (pixels) and flux (any unit) in any order.
        shape: the (rows, columns) of the picture that the stars are from.
        ra, dec, radius: the approximate middle of the picture, and how far off it may be; degrees.
        scale: arcseconds per pixel: a number, which may be 30 % off, or (low, high).
        field_width, field_height: instead of the scale, likewise; degrees.
        header: an astropy header with hints, to go with an array or with stars.
        use_header: take hints that are not given from the picture's header.
        whole_sky: search the whole sky when there is no centre, or when none was right.
        top_row_first: whether row 0 of an array is the top, as in pictures of cameras.
        time_limit: seconds for the solve.

        Raises ValueError and TypeError for invalid arguments, and KeyboardInterrupt, but nothing
        because of the picture: the solution is then false and gives the reason.
        """
        if (picture is None) == (stars is None):
            raise ValueError("Give a picture or stars.")
        if (ra is None) != (dec is None):
            raise ValueError("Give both ra and dec.")
        if stars is not None:
            if shape is None:
                raise ValueError("Stars need the shape of their picture: rows, columns.")
            self._native.open_stars(np.asarray(stars, dtype=float), shape[1], shape[0], _cards(header))
        elif isinstance(picture, (str, os.PathLike)):
            self._native.open_path(_file_name(picture))
        else:
            pixels = np.asarray(picture)
            pixels = pixels.astype(pixels.dtype.newbyteorder("="), copy=False)
            self._native.open_pixels(pixels, top_row_first, _cards(header))
        found = self._native.solve((float(ra), float(dec)) if ra is not None and dec is not None
                                   else None, radius, _range(scale), _range(field_width),
                                   _range(field_height), use_header, whole_sky, time_limit)
        for name, kind in (("stars", STARS), ("matches", MATCHES)):
            found[name] = np.ascontiguousarray(found[name]).view(kind).reshape(-1)
        return Solution(**found)


def solve(picture: Optional[Picture] = None, *, catalog: Union[str, "os.PathLike[str]", None] = None,
          threads: int = 0, **hints: Any) -> Solution:
    """Solves one picture. `Solver` and `Solver.solve` describe the arguments.

    For many pictures use a `Solver`, which keeps the catalog in memory.
    """
    return Solver(catalog, threads=threads).solve(picture, **hints)
