// A second way to find stars, for pictures with which `ExtractStars` has difficulties: peaks above
// the local noise, at one binning, each measured over its own width.
//
// The peak search on a smoothed image with noise measured locally follows Stetson 1987 (PASP 99,
// 191) and Bertin & Arnouts 1996 (A&AS 117, 393).
#pragma once

#include <cstdint>
#include <vector>

#include "astro/libParallel.h"
#include "astro/libPlateStar.h"
#include "image/libImage.h"

namespace vestrel {

/// The measurements of a peak.
struct Peak {
    double X = 0;           ///< centroid, pixels of the image
    double Y = 0;           ///< pixels
    double Flux = 0;        ///< counts above the surroundings, over the peak's own width
    double Height = 0;      ///< height of the smoothed peak above its surroundings, counts
    double HalfWidth = 0;   ///< distance at which it falls to half its height, pixels
    double Elongation = 1;  ///< longer axis / shorter axis of its light, 1 or more
    double Angle = 0;       ///< of the longer axis from the x axis, radians, −π/2..π/2
    bool Sharp = false;     ///< a single pixel, without the light around it that optics cause
};

/// How to search for peaks.
struct PeakSettings {
    std::int32_t Binning = 1;      ///< pixels of this many columns and rows are added first
    double Threshold = 5;          ///< local standard deviations of the smoothed image
    double EdgeExclusion = 0.005;  ///< width of the ignored border, fraction of the image size
    std::size_t MostPeaks = 600;   ///< only the highest ones are measured
    bool Dark = false;             ///< stars are darker than the sky, as in a negative
};

/// Finds the peaks of an image, those with the most light first.
///
/// Level and noise are measured in cells of 32 binned pixels, so a knot in a nebula must stand out
/// from the nebula. A peak absorbs lower ones within its own width, so that a saturated or bleeding
/// star is one peak. Images under 20 × 20 binned pixels have none.
std::vector<Peak> FindPeaks(const PlateImage& image, const PeakSettings& settings,
                            const Progress& progress = {});

/// Keeps the peaks that look like stars: leaves out single hot pixels, peaks far more elongated or
/// wider than the others, and rows and columns of peaks. A peak is compared with the others, not
/// with an ideal star, because trailed or unfocused stars all look alike.
std::vector<Peak> StarsAmong(const std::vector<Peak>& peaks, const PlateImage& image);

/// The peaks as a list of stars, in their order.
PlateStarList StarListOf(const std::vector<Peak>& peaks);

/// Ranks stars by light within each of 4 × 4 cells of the frame, so that a nebula, a cluster or a
/// caption cannot fill the head of the list.
PlateStarList SpreadEvenly(const PlateStarList& stars, std::int32_t width, std::int32_t height);

/// The binning at which an image has at most about three million pixels: 1, 2, 4, …
std::int32_t BinningFor(const PlateImage& image);

}  // namespace vestrel
