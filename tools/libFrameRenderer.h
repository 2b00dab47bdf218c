// Renders frames of the sky as a camera would take them, to try the solver with known truth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "catalog/libCellGrid.h"
#include "tools/libFrameGeometry.h"

namespace vestrel {

/// How the frame was taken.
struct FrameExposure {
    double Seeing = 3;          ///< full width of a star at half maximum, pixels
    double ZeroPoint = 25;      ///< magnitude of a star that gives one electron in total
    double SkyLevel = 1500;     ///< counts, in the middle of the frame
    double Gradient = 0.2;      ///< change of the sky from edge to edge, as a fraction of its level
    double ReadNoise = 8;       ///< electrons
    double Gain = 1;            ///< electrons per count
    double Saturation = 65535;  ///< the largest count
    int HotPixels = 0;
    double TrailLength = 0;  ///< how far the stars moved during the exposure, pixels
    double TrailAngle = 0;   ///< direction of that motion, radians from rightward toward the top
    /// Diameter of the disc of an unfocused star, pixels; 0: in focus.
    double DefocusDiameter = 0;
    double DefocusHole = 0.35;  ///< the fraction of that diameter that a secondary mirror shades,
                                ///< 0..0.9
    bool WholeCounts = true;    ///< counts are rounded, as by an AD converter
    std::uint64_t Seed = 1;
};

/// A star at its place in a frame.
struct FrameStar {
    SkyStar Sky;
    FramePoint Place;
};

/// The brightness in counts of every pixel, row by row from the bottom of the picture.
struct Frame {
    int Width = 0;
    int Height = 0;
    std::vector<float> Pixels;
};

/// The zero point for which the brightest pixel of a sharp, untrailed star of `magnitude` is
/// `sigmas` standard deviations above the sky.
double ZeroPointFor(const FrameExposure& exposure, double magnitude, double sigmas);

/// How many standard deviations above the sky a star's brightest pixel is at most.
double PeakSigmas(const FrameExposure& exposure, double magnitude);

/// The stars of a catalog folder down to `magnitudeLimit` whose light falls into the frame,
/// brightest first. Missing cells count as empty ones.
std::vector<FrameStar> CatalogFrameStars(const std::filesystem::path& catalog,
                                         const FrameGeometry& geometry, double magnitudeLimit);

/// Stars that are in no catalog, at random places in the frame. Their number grows toward the faint
/// limit; brightest first.
std::vector<FrameStar> RandomFrameStars(const FrameGeometry& geometry, int count, double brightest,
                                        double faintest, std::uint64_t seed);

/// Renders the frame. The same arguments give the same frame, whatever the number of threads.
Frame RenderFrame(const FrameGeometry& geometry, const FrameExposure& exposure,
                  const std::vector<FrameStar>& stars);

}  // namespace vestrel
