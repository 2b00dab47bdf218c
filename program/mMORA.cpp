#include "program/mMORA.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <optional>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogRegion.h"
#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"

namespace vestrel {

namespace {

constexpr double keyTolerance = 0.01;
constexpr std::int32_t fewestPairs = 5;

void Say(ProgramState& state, const std::string& text) {
    state.QuadMatch.Messages.push_back(text);
}

/// Whether there is room for another message. Each candidate adds some, and their number is
/// unlimited.
bool MayTalk(const ProgramState& state) {
    constexpr std::size_t mostLines = 5000;
    return state.QuadMatch.Messages.size() < mostLines;
}

std::string PositionText(SkyPosition position) {
    return FormatRA(position.Ra, true, 2) + "  " + FormatDec(position.Dec, true, 1);
}

std::string GeometryText(const FitGeometry& geometry) {
    return NumberText(geometry.Scale) + " " + NumberText(geometry.Stretch) + " " +
           NumberText(geometry.Skew) + " " + NumberText(geometry.Angle) + " " +
           NumberText(geometry.OffsetX) + " " + NumberText(geometry.OffsetY);
}

double HalfDiagonal(double width, double height) {
    return std::sqrt(width * width + height * height) / 2;
}

/// Four stars of the image, as numbers in its list.
using ImageQuad = std::array<std::int32_t, 4>;

/// One search, with the data that all its quads share.
class QuadMatcher {
 public:
    QuadMatcher(ProgramState& state, const PlateStarList& stars, double width, double height,
                double maxError, const QuadJudge& accept)
        : state_(state),
          tables_(state.Quads.Tables),
          search_(state.QuadMatch),
          stars_(stars),
          radius_(HalfDiagonal(width, height)),
          maxError_(maxError),
          maxGeometricError_(state.Parameters.MaxGeometricError),
          accept_(accept) {
        magnitudeLimit_ = MagnitudeLimitFor(radius_);
        const double pixelScale = width * ArcsecondsPerRadian / state.Image.Width;
        neighbourRadius_ = (ArcsecondsPerRadian / pixelScale) * (1.5 * Pi / 180);
    }

    /// Makes the quad of a star and the first three others in the list near it. False when there
    /// are fewer.
    bool QuadOf(std::int32_t star, ImageQuad& quad) const {
        quad[0] = star;
        std::size_t found = 1;
        for (std::int32_t j = 1; j <= stars_.Count() && found < quad.size(); ++j) {
            if (j != star && PixelDistance(Star(star), Star(j)) < neighbourRadius_) {
                quad[found++] = j;
            }
        }
        return found == quad.size();
    }

    /// Looks up a quad of the image and tries the table quads of similar shape.
    bool Match(const ImageQuad& quad, const std::function<void()>& yield) {
        const Quad shape =
            QuadDescriptor(Star(quad[0]), Star(quad[1]), Star(quad[2]), Star(quad[3]));
        if (!std::isfinite(shape.QuadKey)) return false;  // all four stars at one place
        ++search_.Searched;
        yield();
        for (const CatalogQuad& candidate : tables_.QuadsLike(shape, keyTolerance)) {
            ++search_.Candidates;
            talk_ = MayTalk(state_);
            if (talk_) SayCandidate(candidate, QuadDistance(shape, candidate.Shape));
            if (Verify(candidate, quad)) return true;
            yield();
            if (state_.StopRequested) return false;
        }
        return false;
    }

 private:
    const PlateStar& Star(std::int32_t place) const { return stars_[place]; }
    bool IsPlate(const FitGeometry& geometry, double fitError) const {
        return fitError < maxError_ &&
               std::fabs(std::fabs(geometry.Stretch) - 1) <= maxGeometricError_ &&
               std::fabs(geometry.Skew) <= maxGeometricError_;
    }

    /// Tries a table quad in all orderings of its stars.
    bool Verify(const CatalogQuad& candidate, const ImageQuad& quad) {
        search_.Tangent = PositionOf(candidate.Stars[0]);
        plane_.SetProjectionCentre(search_.Tangent, ArcsecondsPerRadian);
        search_.Reference.Clear();
        for (const CatalogStar& star : candidate.Stars) {
            const SkyPosition position = PositionOf(star);
            double xi = 0;
            double eta = 0;
            plane_.SkyToPlane(position, xi, eta);
            search_.Reference.Add({static_cast<float>(xi), static_cast<float>(eta),
                                   static_cast<float>(star.Mag / 100.0), position.Ra,
                                   position.Dec});
        }
        nearby_.reset();
        ImageQuad ordering = {1, 2, 3, 4};
        do {
            if (TryOrdering(ordering, quad)) return true;
        } while (std::next_permutation(ordering.begin(), ordering.end()));
        return false;
    }

    bool TryOrdering(const ImageQuad& ordering, const ImageQuad& quad) {
        search_.Pairs.Clear();
        for (std::size_t k = 0; k < quad.size(); ++k) AddPair(ordering[k], quad[k]);
        search_.Reference.Resize(4);
        FitPairs();
        if (!IsPlate(search_.Geometry, search_.FitError)) return false;
        ++search_.FourStarFits;
        const double fourStarError = search_.FitError;
        const FitGeometry fourStarGeometry = search_.Geometry;
        if (talk_) SayFourStars(fourStarError, fourStarGeometry);
        Extend(quad);
        if (search_.Pairs.Count() < fewestPairs) return false;
        // The quad that led to a match is reported even when the messages are full.
        if (!talk_) SayFourStars(fourStarError, fourStarGeometry);
        Say(state_, "NumMatch=" + std::to_string(search_.Pairs.Count()));
        search_.Confidence = Judge();
        FitPairs();
        Say(state_, "NumMatch = " + std::to_string(search_.Pairs.Count()) +
                        "   FitError = " + NumberText(search_.FitError));
        FindCentre();
        Say(state_, "Plate Center = " + PositionText(search_.Centre));
        if (!accept_ || accept_(search_)) return true;
        Say(state_, "Too likely by chance: the search goes on");
        return false;
    }

    void SayCandidate(const CatalogQuad& candidate, double distance) {
        Say(state_, "Matched Quad = " + std::to_string(candidate.Place) +
                        "     Qdist = " + NumberText(distance));
        Say(state_, "Quad Star 1: " + PositionText(PositionOf(candidate.Stars[0])));
    }

    void SayFourStars(double fitError, const FitGeometry& geometry) {
        Say(state_, "MORA found 4-star solution. FitError=" + NumberText(fitError));
        Say(state_, "Geometry: " + GeometryText(geometry));
    }

    void AddPair(std::int32_t reference, std::int32_t image) {
        search_.Pairs.Add(
            {static_cast<std::int16_t>(reference), static_cast<std::int16_t>(image), 0, true});
    }

    void FitPairs() {
        search_.FitError =
            FitPlate(search_.Reference, stars_, search_.Pairs, search_.Transform, residuals_);
        search_.Geometry = PlateGeometry(search_.Transform);
    }

    /// Adds the pairs that the plate predicts. An image star may be in several.
    void Extend(const ImageQuad& quad) {
        if (!nearby_) {
            nearby_ =
                NearbyCatalogStars(tables_, plane_, search_.Tangent, radius_, magnitudeLimit_);
        }
        struct Place {
            double X;
            double Y;
        };
        NumberedList<Place> predicted;
        for (const PlateStar& star : *nearby_) {
            Place place{};
            ApplyPlateFit(search_.Transform, double{star.X}, double{star.Y}, place.X, place.Y);
            predicted.Add(place);
            search_.Reference.Add(star);
        }
        for (std::int32_t i = 1; i <= stars_.Count(); ++i) {
            if (std::find(quad.begin(), quad.end(), i) != quad.end()) continue;
            const double x = static_cast<double>(Star(i).X);
            const double y = static_cast<double>(Star(i).Y);
            for (std::int32_t c = 1; c <= predicted.Count(); ++c) {
                const double dx = predicted[c].X - x;
                const double dy = predicted[c].Y - y;
                if (std::sqrt(dx * dx + dy * dy) < maxError_) {
                    AddPair(c + 4, i);
                }
            }
        }
    }

    /// How sure the plate of the four stars is, judged by all other stars around.
    MatchConfidence Judge() const {
        MatchEvidence evidence = EvidenceOf(search_.Transform, *nearby_, stars_, state_.Image.Width,
                                            state_.Image.Height);
        for (std::size_t k = 1; k <= 4; ++k) evidence.Seed.push_back(SeedOf(k, evidence));
        evidence.Trials = search_.FourStarFits;
        return ConfidenceOf(evidence);
    }

    /// A pair of the quad as indices into the evidence. Its catalog star is added there when it is
    /// not among the surrounding ones.
    StarPlaces SeedOf(std::size_t pair, MatchEvidence& evidence) const {
        const StarMatch& match = search_.Pairs[pair];
        const PlateStar& star = search_.Reference[match.Star1];
        PredictedStar predicted;
        ApplyPlateFit(search_.Transform, static_cast<double>(star.X), static_cast<double>(star.Y),
                      predicted.X, predicted.Y);
        predicted.Magnitude = static_cast<double>(star.Flux);
        const auto isThis = [&predicted](const PredictedStar& other) {
            constexpr double same = 0.01;  // pixel
            return std::hypot(other.X - predicted.X, other.Y - predicted.Y) < same;
        };
        auto found = std::find_if(evidence.Catalog.begin(), evidence.Catalog.end(), isThis);
        if (found == evidence.Catalog.end()) {
            found = evidence.Catalog.insert(found, predicted);
        }
        return {static_cast<std::size_t>(found - evidence.Catalog.begin()),
                static_cast<std::size_t>(match.Star2) - 1};
    }

    void FindCentre() {
        double xi = 0;
        double eta = 0;
        InvertPlateFit(search_.Transform, (state_.Image.Width - 1) / 2.0,
                       (state_.Image.Height - 1) / 2.0, xi, eta);
        plane_.SetProjectionCentre(search_.Tangent, ArcsecondsPerRadian);
        search_.Centre = plane_.PlaneToSky(xi, eta);
        search_.FieldRatio = std::hypot(state_.Image.Width, state_.Image.Height) /
                             search_.Geometry.Scale / (2 * radius_ * ArcsecondsPerRadian);
    }

    ProgramState& state_;
    QuadTables& tables_;
    QuadSearch& search_;
    const PlateStarList& stars_;
    double radius_;  ///< half the field's diagonal, radians
    double maxError_;
    double maxGeometricError_;
    const QuadJudge& accept_;
    bool talk_ = true;
    double magnitudeLimit_ = 0;
    double neighbourRadius_ = 0;  ///< pixels
    Projection plane_;
    std::optional<PlateStarList> nearby_;  ///< catalog stars around the candidate's first star
    NumberedList<double> residuals_;
};

/// Shows a match and the catalog stars around the centre.
void ShowMatch(ProgramState& state, Port& port, double width, double height, double seconds) {
    const QuadSearch& search = state.QuadMatch;
    const double radius = HalfDiagonal(width, height);
    PlateStarList stars;
    try {
        Projection plane;
        stars = NearbyCatalogStars(state.Quads.Tables, plane, search.Centre, radius,
                                   MagnitudeLimitFor(radius));
    } catch (const DamagedFile&) {
        // The match itself used undamaged pages; the next search will report the damaged ones.
    }

    SolveDisplay& display = state.Display;
    display.CentreCaption = "J2000 Image Center";
    display.CentreRa = FormatRA(search.Centre.Ra, true, 2);
    display.CentreDec = FormatDec(search.Centre.Dec, true, 1);
    display.FoundInCatalog = std::to_string(stars.Count());
    ShowPlateGeometry(state, search.Geometry, search.FitError, search.Pairs.Count());
    Say(state, "MORA match successful");
    display.Status1 = {
        "Searched " + std::to_string(search.Searched) + (search.Searched == 1 ? " quad" : " quads"),
        StatusColour::Green, true};
    ShowStatus(state, port, "Time=" + RoundedText(seconds, 2), StatusColour::Green);
}

}  // namespace

bool IsSure(const QuadSearch& search) {
    return IsSure(search.Confidence);
}

bool SearchQuads(ProgramState& state, Port& port, const PlateStarList& imageStars, double width,
                 double height, double maxError, const QuadJudge& accept) {
    const StageTimer seconds(state.QuadMatch.Seconds);
    bool matched = false;
    try {
        QuadMatcher matcher(state, imageStars, width, height, maxError, accept);
        const auto yield = [&port] { port.Yield(); };
        const bool any = state.Quads.Tables.QuadCount() > 0;
        const std::int32_t count = any ? imageStars.Count() : 0;
        for (std::int32_t star = 1; star <= count && !matched && !state.StopRequested; ++star) {
            ImageQuad quad{};
            if (!matcher.QuadOf(star, quad)) continue;
            const std::size_t linesBefore = state.QuadMatch.Messages.size();
            matched = matcher.Match(quad, yield);
            if (state.QuadMatch.Messages.size() > linesBefore) port.DisplayChanged();
            ShownProgress(port)(star, count);
        }
    } catch (const DamagedFile& damage) {
        // What was found before this comes from undamaged pages.
        state.Quads.Tables = {};
        state.Quads.Fault = TextFromPath(state.Quads.File) + " " + damage.what();
    }
    port.ShowProgress(0);
    if (!matched) state.QuadMatch.Pairs.Clear();
    return matched;
}

SolveCode MatchByQuads(ProgramState& state, Port& port, double width, double height,
                       double maxError) {
    const auto start = std::chrono::steady_clock::now();
    BeginSolve(state);
    state.Report.Blind = true;
    state.QuadMatch = {};
    state.QuadMatch.Code = WithinMemory(state, port, [&] {
        if (!FindPlateStars(state, port)) return SolveCode::TooFewStars;
        // A match alone is not drawn over the image; only solutions are.
        state.Image.Header.PlateMatched = false;
        ShowStatus(state, port, "Extracted " + std::to_string(state.PlateStars.Count()) + " Stars");
        state.Display.Status1 = {"", StatusColour::Black, false};
        const double pixelScale = width * ArcsecondsPerRadian / state.Image.Width;
        Say(state, "Attempting Match by MORA");
        Say(state, "Starting MORA:");
        Say(state, "Pscale = " + NumberText(pixelScale) + " arcseconds/pix");
        Say(state, "Plate Stars: " + std::to_string(state.PlateStars.Count()));
        port.DisplayChanged();
        if (SearchQuads(state, port, state.PlateStars, width, height, maxError)) {
            const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
            ShowMatch(state, port, width, height, elapsed.count());
            return SolveCode::Solved;
        }
        if (state.StopRequested) {
            ShowStatus(state, port, "Search Terminated", StatusColour::Red);
            return SolveCode::Stopped;
        }
        ShowStatus(state, port, "No Match Found", StatusColour::Red);
        return SolveCode::NoMatch;
    });
    return state.QuadMatch.Code;
}

}  // namespace vestrel
