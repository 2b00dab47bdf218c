#include "program/mMORA.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <new>
#include <optional>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"
#include "program/mStarExtraction.h"
#include "program/mStopwatch.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

constexpr double keyTolerance = 0.01;
constexpr std::int32_t fewestPairs = 5;

void Say(ProgramState& state, const std::string& text) {
    state.QuadMatch.Messages.push_back(text);
}

/// Of what is said of one candidate after the other there may be any number.
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

/// The faintest magnitude to compare with: 15 for a half-diagonal (radians) of 14', and every
/// doubling of the field costs 1.5 magnitudes.
double MagnitudeLimitFor(double halfDiagonal) {
    const double relative = halfDiagonal * (180 / Pi) * 60 / 14;
    return 15.0 - 2.5 * (std::log(relative * relative) / std::log(10.0));
}

/// Four stars of the image, as places in its list.
using ImageQuad = std::array<std::int32_t, 4>;

/// One search: what all its quads share.
class QuadMatcher {
 public:
    QuadMatcher(ProgramState& state, const PlateStarList& stars, std::int32_t count, double width,
                double height, double maxError, const QuadJudge& accept)
        : state_(state),
          tables_(state.Quads.Tables),
          search_(state.QuadMatch),
          stars_(stars),
          count_(count),
          radius_(HalfDiagonal(width, height)),
          maxError_(maxError),
          maxGeometricError_(state.Parameters.MaxGeometricError),
          accept_(accept) {
        magnitudeLimit_ = MagnitudeLimitFor(radius_);
        const double pixelScale = width * ArcsecondsPerRadian / state.Image.Width;
        neighbourRadius_ = (ArcsecondsPerRadian / pixelScale) * (1.5 * Pi / 180);
    }

    /// A star and the first three others in the list that are near it. False when there are fewer.
    bool QuadOf(std::int32_t star, ImageQuad& quad) const {
        quad[0] = star;
        std::size_t found = 1;
        for (std::int32_t j = 1; j <= count_ && found < quad.size(); ++j) {
            if (j != star && PixelDistance(Star(star), Star(j)) < neighbourRadius_) {
                quad[found++] = j;
            }
        }
        return found == quad.size();
    }

    /// Looks a quad of the image up and tries what is like it.
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
    const PlateStar& Star(std::int32_t place) const {
        return stars_[static_cast<std::size_t>(place)];
    }
    static SkyPosition PositionOf(const CatalogStar& star) {
        return {static_cast<double>(star.Ra), static_cast<double>(star.Dec)};
    }
    bool IsPlate(const FitGeometry& geometry, double fitError) const {
        return fitError < maxError_ &&
               std::fabs(std::fabs(geometry.Stretch) - 1) <= maxGeometricError_ &&
               std::fabs(geometry.Skew) <= maxGeometricError_;
    }

    /// Tries a table quad in all orderings of its stars.
    bool Verify(const CatalogQuad& candidate, const ImageQuad& quad) {
        search_.Tangent = PositionOf(candidate.Stars[0]);
        Projection& plane = state_.Plane;
        plane.SetProjectionCentre(search_.Tangent.Ra, search_.Tangent.Dec, ArcsecondsPerRadian);
        search_.Reference.assign(1, PlateStar());
        for (const CatalogStar& star : candidate.Stars) {
            const SkyPosition position = PositionOf(star);
            double xi = 0;
            double eta = 0;
            plane.SkyToPlane(position.Ra, position.Dec, xi, eta);
            search_.Reference.push_back({static_cast<float>(xi), static_cast<float>(eta),
                                         static_cast<float>(star.Mag / 100.0), position.Ra,
                                         position.Dec});
        }
        nearbyCount_ = -1;
        ImageQuad ordering = {1, 2, 3, 4};
        do {
            if (TryOrdering(ordering, quad)) return true;
        } while (std::next_permutation(ordering.begin(), ordering.end()));
        return false;
    }

    bool TryOrdering(const ImageQuad& ordering, const ImageQuad& quad) {
        search_.Pairs.assign(1, StarMatch());
        for (std::size_t k = 0; k < quad.size(); ++k) AddPair(ordering[k], quad[k]);
        search_.PairCount = 4;
        search_.Reference.resize(5);
        FitPairs();
        if (!IsPlate(search_.Geometry, search_.FitError)) return false;
        ++search_.FourStarFits;
        const double fourStarError = search_.FitError;
        const FitGeometry fourStarGeometry = search_.Geometry;
        if (talk_) SayFourStars(fourStarError, fourStarGeometry);
        Extend(quad);
        if (search_.PairCount < fewestPairs) return false;
        // What led to a match is said whatever was said before.
        if (!talk_) SayFourStars(fourStarError, fourStarGeometry);
        Say(state_, "NumMatch=" + std::to_string(search_.PairCount));
        search_.Confidence = Judge();
        FitPairs();
        Say(state_, "NumMatch = " + std::to_string(search_.PairCount) +
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
        search_.Pairs.push_back(
            {static_cast<std::int16_t>(reference), static_cast<std::int16_t>(image), 0, true});
    }

    void FitPairs() {
        search_.FitError = FitPlate(search_.Reference, stars_, search_.Pairs, search_.PairCount,
                                    search_.Transform, residuals_);
        search_.Geometry = PlateGeometry(search_.Transform);
    }

    /// Adds the pairs that the plate predicts. An image star may get several.
    void Extend(const ImageQuad& quad) {
        if (nearbyCount_ < 0) {
            NearbyCatalogStars(tables_, state_.Plane, search_.Tangent.Ra, search_.Tangent.Dec,
                               radius_, magnitudeLimit_, nearby_, nearbyCount_);
        }
        struct Place {
            double X;
            double Y;
        };
        std::vector<Place> predicted(static_cast<std::size_t>(nearbyCount_) + 1);
        for (std::size_t c = 1; c < predicted.size(); ++c) {
            ApplyPlateFit(search_.Transform, static_cast<double>(nearby_[c].X),
                          static_cast<double>(nearby_[c].Y), predicted[c].X, predicted[c].Y);
            search_.Reference.push_back(nearby_[c]);
        }
        for (std::int32_t i = 1; i <= count_; ++i) {
            if (std::find(quad.begin(), quad.end(), i) != quad.end()) continue;
            const double x = static_cast<double>(Star(i).X);
            const double y = static_cast<double>(Star(i).Y);
            for (std::size_t c = 1; c < predicted.size(); ++c) {
                const double dx = predicted[c].X - x;
                const double dy = predicted[c].Y - y;
                if (std::sqrt(dx * dx + dy * dy) < maxError_) {
                    AddPair(static_cast<std::int32_t>(c) + 4, i);
                }
            }
        }
        search_.PairCount = static_cast<std::int32_t>(search_.Pairs.size()) - 1;
    }

    /// How sure the plate of the four stars is, from all others around it.
    MatchConfidence Judge() const {
        MatchEvidence evidence = EvidenceOf(search_.Transform, nearby_, nearbyCount_, stars_,
                                            count_, state_.Image.Width, state_.Image.Height);
        for (std::size_t k = 1; k <= 4; ++k) evidence.Seed.push_back(SeedOf(k, evidence));
        evidence.Trials = search_.FourStarFits;
        return ConfidenceOf(evidence);
    }

    /// A pair of the quad, whose catalog star may be among those around it.
    StarPlaces SeedOf(std::size_t pair, MatchEvidence& evidence) const {
        const StarMatch& match = search_.Pairs[pair];
        const PlateStar& star = search_.Reference[static_cast<std::size_t>(match.Star1)];
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
        // Whoever judges a match may have used the plane for something else.
        state_.Plane.SetProjectionCentre(search_.Tangent.Ra, search_.Tangent.Dec,
                                         ArcsecondsPerRadian);
        state_.Plane.PlaneToSky(xi, eta, search_.Centre.Ra, search_.Centre.Dec);
        search_.FieldRatio = std::hypot(state_.Image.Width, state_.Image.Height) /
                             search_.Geometry.Scale / (2 * radius_ * ArcsecondsPerRadian);
    }

    ProgramState& state_;
    QuadTables& tables_;
    QuadSearch& search_;
    const PlateStarList& stars_;
    std::int32_t count_;
    double radius_;  ///< half the field's diagonal, radians
    double maxError_;
    double maxGeometricError_;
    const QuadJudge& accept_;
    bool talk_ = true;
    double magnitudeLimit_ = 0;
    double neighbourRadius_ = 0;  ///< pixels
    PlateStarList nearby_;        ///< around the candidate's first star
    std::int32_t nearbyCount_ = -1;
    std::vector<double> residuals_;
};

/// The last solution's pairs go with other lists of stars, and its centre with another search.
void ForgetSolution(ProgramState& state) {
    state.Solution = {};
    state.MatchedPositions.clear();
    state.Image.Header.PlateMatched = false;
    state.ZeroPointValid = false;
    state.Display.SyncEnabled = false;
}

/// The outcome of a search that found something, and the catalog stars around the centre.
void ShowMatch(ProgramState& state, Port& port, double width, double height, double seconds) {
    const QuadSearch& search = state.QuadMatch;
    const double radius = HalfDiagonal(width, height);
    try {
        NearbyCatalogStars(state.Quads.Tables, state.Plane, search.Centre.Ra, search.Centre.Dec,
                           radius, MagnitudeLimitFor(radius), state.CatalogStars,
                           state.CatalogStarCount);
    } catch (const DamagedFile&) {
        // The match was made from pages that are good; the next search names the others.
        state.CatalogStars.assign(1, PlateStar());
        state.CatalogStarCount = 0;
    }

    SolveDisplay& display = state.Display;
    display.CentreCaption = "J2000 Image Center";
    display.CentreRA = FormatRA(search.Centre.Ra, true, 2);
    display.CentreDec = FormatDec(search.Centre.Dec, true, 1);
    display.FoundInCatalog = std::to_string(state.CatalogStarCount);
    ShowPlateGeometry(state, search.Geometry, search.FitError, search.PairCount);
    Say(state, "MORA match successful");
    display.Status1 = {
        "Searched " + std::to_string(search.Searched) + (search.Searched == 1 ? " quad" : " quads"),
        StatusColour::Green, true};
    ShowStatus(state, port, "Time=" + RoundedText(seconds, 2), StatusColour::Green);
}

}  // namespace

fs::path QuadFilePath(const ProgramState& state) {
    return state.Catalog.Folder / QuadFileName;
}

bool HaveQuadTables(const ProgramState& state) {
    const FileHandle file = OpenQuadFile(QuadFilePath(state));
    std::vector<QuadBand> bands;
    std::string fault;
    return file && ReadQuadBands(file.get(), bands, fault) && !bands.empty();
}

bool IsSure(const QuadSearch& search) {
    return IsSure(search.Confidence) && search.FieldRatio > 0.5 && search.FieldRatio < 2;
}

namespace {

/// The band that a field of this diagonal (radians) belongs to; nothing, and the reason in
/// `tables.Fault`, when the file has none.
std::optional<QuadBand> BandFor(std::FILE* file, double diagonal, LoadedQuadTables& tables) {
    std::vector<QuadBand> bands;
    std::string fault;
    if (!ReadQuadBands(file, bands, fault)) {
        tables.Fault = TextFromPath(tables.File) + " " + fault;
        return std::nullopt;
    }
    const auto band = std::find_if(bands.begin(), bands.end(), [diagonal](const QuadBand& b) {
        return diagonal >= b.SmallestDiagonal && diagonal < b.LargestDiagonal;
    });
    if (band != bands.end()) return *band;
    const auto degrees = [](double radians) { return RoundedText(radians * 180 / Pi, 2); };
    tables.Fault = "the quad tables have nothing for fields of this size";
    tables.OtherSizes = !bands.empty();
    if (tables.OtherSizes) {
        tables.Fault += ", only for " + degrees(bands.front().SmallestDiagonal) + " to " +
                        degrees(bands.back().LargestDiagonal) + " degrees across";
    }
    return std::nullopt;
}

}  // namespace

bool LoadQuadTables(ProgramState& state, double width, double height) {
    LoadedQuadTables& tables = state.Quads;
    tables = {};
    tables.File = QuadFilePath(state);
    FileHandle file = OpenQuadFile(tables.File);
    if (!file) {
        tables.Fault = "there are no quad tables (" + TextFromPath(tables.File) +
                       "): vestrel-catalog quads makes them";
        return false;
    }
    const auto band = BandFor(file.get(), std::sqrt(width * width + height * height), tables);
    if (!band) return false;
    try {
        tables.Tables = QuadTables(std::move(file), *band);
    } catch (const DamagedFile& damage) {
        tables.Fault = TextFromPath(tables.File) + " " + damage.what();
    } catch (const std::bad_alloc&) {
        tables.Fault = "there is not enough memory for the quad tables";
    }
    return tables.Fault.empty();
}

bool SearchQuads(ProgramState& state, Port& port, const PlateStarList& imageStars,
                 std::int32_t imageCount, double width, double height, double maxError,
                 const QuadJudge& accept) {
    const StageTimer seconds(state.QuadMatch.Seconds);
    bool matched = false;
    try {
        QuadMatcher matcher(state, imageStars, imageCount, width, height, maxError, accept);
        const auto yield = [&port] { port.Yield(); };
        const bool any = state.Quads.Tables.QuadCount() > 0;
        for (std::int32_t star = 1; any && star <= imageCount && !matched && !state.StopRequested;
             ++star) {
            ImageQuad quad{};
            if (!matcher.QuadOf(star, quad)) continue;
            const std::size_t linesBefore = state.QuadMatch.Messages.size();
            matched = matcher.Match(quad, yield);
            if (state.QuadMatch.Messages.size() > linesBefore) port.DisplayChanged();
            ShownProgress(port)(star, imageCount);
        }
    } catch (const DamagedFile& damage) {
        // Whatever was found up to here rests on pages that were good.
        state.Quads.Tables = {};
        state.Quads.Fault = TextFromPath(state.Quads.File) + " " + damage.what();
    }
    port.ShowProgress(0);
    if (!matched) state.QuadMatch.PairCount = 0;
    return matched;
}

void MatchByQuads(ProgramState& state, Port& port, double& centreRA, double& centreDec,
                  double width, double height, double maxError) {
    const auto start = std::chrono::steady_clock::now();
    BeginSolve(state);
    state.Report.Blind = true;
    state.QuadMatch = {};
    const std::int16_t code = WithinMemory(state, port, [&] {
        if (!FindPlateStars(state, port)) return SolveCode::TooFewStars;
        ForgetSolution(state);
        ShowStatus(state, port, "Extracted " + std::to_string(state.PlateStarCount) + " Stars");
        state.Display.Status1 = {"", StatusColour::Black, false};
        const double pixelScale = width * ArcsecondsPerRadian / state.Image.Width;
        Say(state, "Attempting Match by MORA");
        Say(state, "Starting MORA:");
        Say(state, "Pscale = " + NumberText(pixelScale) + " arcseconds/pix");
        Say(state, "Plate Stars: " + std::to_string(state.PlateStarCount));
        port.DisplayChanged();
        if (SearchQuads(state, port, state.PlateStars, state.PlateStarCount, width, height,
                        maxError)) {
            centreRA = state.QuadMatch.Centre.Ra;
            centreDec = state.QuadMatch.Centre.Dec;
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
    state.QuadMatch.Code = code;
}

}  // namespace vestrel
