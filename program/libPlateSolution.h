// The result of a successful solve, and what follows from it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "astro/libPlateStar.h"
#include "astro/libSphericalMath.h"
#include "matching/libConfidence.h"
#include "matching/libPlateFit.h"
#include "matching/libRegionMatch.h"

namespace vestrel {

/// The plate on the camera's plane about a tangent point that a match was found with.
struct CameraMatch {
    SkyPosition Tangent;
    PlateConstants Plate;
    double Rms = 0;  ///< pixels
};

/// Everything that one successful solve produces. It belongs to the image that was solved and keeps
/// the stars that its pairs point to, so it depends on nothing else.
struct PlateSolution {
    StarMatchList Pairs;         ///< star 1 of `CatalogStars`, star 2 of `PlateStars`
    PlateStarList CatalogStars;  ///< of the winning region, about the tangent point
    PlateStarList PlateStars;    ///< of the image
    PlateConstants Transform;    ///< A, B, U0, C, D, V0: arcseconds about the tangent point
                                 ///< to pixels
    double Scale = 0;            ///< pixels per arcsecond
    double Stretch = 0;          ///< as fitted; shown with its sign changed
    double Skew = 0;
    double Angle = 0;               ///< position angle, radians
    double Rms = 0;                 ///< pixels
    std::int32_t MatchedCount = 0;  ///< pairs in use
    double CentreRA = 0;            ///< J2000 image centre, radians
    double CentreDec = 0;
    double TangentRA = 0;  ///< tangent point of the projection, radians
    double TangentDec = 0;
    double WidthArcmin = 0;
    double HeightArcmin = 0;
    std::int32_t ExtractedCount = 0;   ///< stars that the extraction reported
    std::int32_t RegionsSearched = 0;  ///< including the winning one
    double MagnitudeZeroPoint = 0;     ///< mean of instrumental − catalog magnitude
    MatchConfidence Confidence;
    /// When it was found on that plane. Its stars cover a wide field, of which the plane of
    /// `Transform` follows only the middle.
    std::optional<CameraMatch> Camera;

    /// Whether the field is so wide that `Transform` is off by many pixels in its corners.
    bool IsWide() const;
    std::int32_t PairCount() const { return Pairs.Count(); }
    std::int32_t CatalogCount() const { return CatalogStars.Count(); }
    SkyPosition Centre() const { return {CentreRA, CentreDec}; }
    SkyPosition Tangent() const { return {TangentRA, TangentDec}; }
};

/// The solution of a matched region: its plate is fitted once more to the pairs in use. The caller
/// sets `ExtractedCount`, `RegionsSearched` and `Confidence`.
/// @param width, height of the image, pixels
PlateSolution SolutionOf(const RegionMatch& region, const PlateStarList& plateStars,
                         std::int32_t width, std::int32_t height);

/// Fits the plate to the pairs in use and sets what follows from the fit alone: the transform and
/// its geometry, `Rms`, `MatchedCount`, and the size of the field.
/// @param width, height of the image, pixels
void FitSolution(PlateSolution& solution, std::int32_t width, std::int32_t height);

/// A pair in use.
struct MatchedStar {
    const PlateStar* Catalog = nullptr;
    const PlateStar* Plate = nullptr;
};
/// The pairs in use, in their order, as pointers into the solution.
std::vector<MatchedStar> MatchedStars(const PlateSolution& solution);

/// An angle (radians) as position angle, degrees 0..360.
double PositionAngleDegrees(double angle);

/// The size of a field as text: "33.33' X 22.22'".
/// @param width, height pixels
/// @param scale pixels per arcsecond
std::string FieldSizeText(std::int32_t width, std::int32_t height, double scale);

/// A residual (pixels) on the sky as text: "0.412"", in arcseconds.
std::string ResidualText(double rms, double scale);

}  // namespace vestrel
