from typing import Any, Optional

import numpy as np
import numpy.typing as npt

version: str

# What is used when an argument is left out.
DETECTION_THRESHOLD: float
MIN_STAR_SIZE: int
MAX_STARS: int
MAX_ERROR: float
TIME_LIMIT: float
RADIUS: float

class Solver:
    def __init__(self, catalog: bytes, threads: int, detection_threshold: float,
                 min_star_size: int, max_stars: int, max_error: float) -> None: ...
    def open_path(self, path: bytes) -> None: ...
    def open_pixels(self, pixels: npt.NDArray[Any], top_row_first: bool, cards: list[str]) -> None: ...
    def open_stars(self, stars: npt.NDArray[np.float64], width: int, height: int,
                   cards: list[str]) -> None: ...
    def solve(self, centre: Optional[tuple[float, float]], radius: float,
              scale: Optional[tuple[float, float]], width: Optional[tuple[float, float]],
              height: Optional[tuple[float, float]], from_picture: bool, whole_sky: bool,
              time_limit: float) -> dict[str, Any]: ...
    def cards(self, sip_order: int) -> list[str]: ...
