#!/usr/bin/env python3
"""What photutils makes of the image.fits in a folder. Prints complaints only.

judgePhotometry.py FOLDER   sums.txt: x, y, radius, sum of counts, area
                            stars.txt: x, y, their error, sky, its scatter, the ring's radii, width
"""
import pathlib
import sys
import warnings

try:
    import numpy
    import scipy.optimize  # noqa: F401  the fits need it
    from astropy.io import fits
    from astropy.modeling import fitting, models
    from astropy.stats import sigma_clipped_stats
    from photutils.aperture import CircularAperture, aperture_photometry
    from photutils.centroids import centroid_2dg
except ImportError as error:
    sys.exit(f"no judge: {error}")


def rows(path):
    numbers = numpy.loadtxt(path)
    assert len(numbers) > 20
    return numbers


warnings.simplefilter("ignore")
folder = pathlib.Path(sys.argv[1])
data = fits.getdata(folder / "image.fits").astype(float)
for x, y, radius, total, area in rows(folder / "sums.txt"):
    aperture = CircularAperture((x, y), radius)
    judged = aperture_photometry(data, aperture, method="exact")["aperture_sum"][0]
    judged_area = aperture_photometry(numpy.ones_like(data), aperture,
                                      method="exact")["aperture_sum"][0]
    # An aperture wholly outside has no sum there.
    judged, judged_area = numpy.nan_to_num([judged, judged_area])
    if not (abs(total - judged) <= 1e-6 * judged and abs(area - judged_area) <= 1e-6 * judged_area):
        print("sum at", x, y, radius, "is", total, area, "not", judged, judged_area)

row_number, column_number = numpy.indices(data.shape)
for x, y, error, sky, scatter, inner, outer, width in rows(folder / "stars.txt"):
    distance = numpy.hypot(column_number - x, row_number - y)
    ring = data[(distance > inner) & (distance <= outer)]
    _, median, deviation = sigma_clipped_stats(ring)
    if not (abs(median - sky) < 0.6 and abs(deviation - scatter) < 0.05 * scatter):
        print("sky at", x, y, "is", sky, scatter, "not", median, deviation)
    column, row = int(round(x)) - 12, int(round(y)) - 12
    part = data[row:row + 25, column:column + 25] - sky
    judged_x, judged_y = centroid_2dg(part)
    # Two good methods see the same noise, but weigh it differently.
    if not max(abs(judged_x + column - x), abs(judged_y + row - y)) < 2 * error:
        print("centroid at", x, y, "is", judged_x + column, judged_y + row, "error", error)
    start = models.Gaussian2D(part.max(), judged_x, judged_y, 2, 2,
                              fixed={"theta": True})
    start.y_stddev.tied = lambda model: model.x_stddev
    y_grid, x_grid = numpy.mgrid[:25, :25]
    inside = numpy.hypot(x_grid + column - x, y_grid + row - y) <= 12
    fit = fitting.LevMarLSQFitter()(start, x_grid[inside], y_grid[inside], part[inside],
                                     estimate_jacobian=True)  # the other way forgets the tie
    if not abs(fit.x_fwhm - width) < 1e-4 * width:
        print("width at", x, y, "is", width, "not", fit.x_fwhm)
