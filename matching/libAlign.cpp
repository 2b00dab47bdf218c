#include "matching/libAlign.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vestrel {

namespace {

/// The state of one alignment, all of it the caller's.
struct Fit {
    const PlateStarList& List1;
    const PlateStarList& List2;
    StarMatchList& Matches;
    std::int32_t& MatchCount;
    std::int32_t& UsedCount;
    PlateConstants& Constants;
    FitGeometry& Geometry;
    double& FitError;
    double MaxError;
    double MaxGeometricError;
    std::vector<double> Residuals;

    void Refit() {
        FitError = FitPlate(List1, List2, Matches, MatchCount, Constants, Residuals);
        Geometry = PlateGeometry(Constants);
    }

    /// False also for the geometry of a failed fit.
    bool GeometryPasses() const {
        return std::fabs(std::fabs(Geometry.Stretch) - 1) <= MaxGeometricError &&
               std::fabs(Geometry.Skew) <= MaxGeometricError;
    }

    struct ResidualFacts {
        double Mean = 0;
        double Sigma = 0;
        double Largest = 0;
        std::size_t Worst = 0;
    };
    ResidualFacts JudgeResiduals() const {
        ResidualFacts facts;
        double sum = 0;
        double squares = 0;
        for (std::size_t k = 1; k <= static_cast<std::size_t>(MatchCount); ++k) {
            if (!Matches[k].InUse) continue;
            const double residual = Residuals[k];
            sum += residual;
            squares += residual * residual;
            // Without any residual above 0 the first pair is the worst.
            if (facts.Worst == 0 || residual > facts.Largest) {
                facts.Largest = residual;
                facts.Worst = k;
            }
        }
        facts.Mean = sum / UsedCount;
        facts.Sigma = std::sqrt(std::max(squares / UsedCount - facts.Mean * facts.Mean, 0.0));
        return facts;
    }

    void Drop(std::size_t pair) {
        --UsedCount;
        Matches[pair].InUse = false;
    }

    /// Cleans the pairs that the votes gave. False when fewer than 3 would be left. `invScale`
    /// is left as the last pass had it.
    bool CleanFirst(double& invScale) {
        constexpr double sigmas = 2.5;
        while (UsedCount >= 3) {
            Refit();
            invScale = 1 / Geometry.Scale;
            const ResidualFacts residuals = JudgeResiduals();
            if (GeometryPasses() &&
                !(residuals.Mean + sigmas * residuals.Sigma < residuals.Largest) &&
                !(invScale * MaxError < FitError)) {
                return true;
            }
            Drop(residuals.Worst);
        }
        return false;
    }

    void CompactMatches() {
        const auto unused = std::remove_if(Matches.begin() + 1, Matches.end(),
                                           [](const StarMatch& match) { return !match.InUse; });
        Matches.erase(unused, Matches.end());
        MatchCount = static_cast<std::int32_t>(Matches.size()) - 1;
    }

    /// Adds the pairs that the fit predicts. After a pair that does not fit, the constants of its
    /// trial stay in force for the following predictions.
    void Extend(std::int32_t count1, std::int32_t count2, double invScale) {
        constexpr std::int32_t mostPairs = std::numeric_limits<std::int16_t>::max();
        std::vector<bool> taken1(static_cast<std::size_t>(count1) + 1);
        std::vector<bool> taken2(static_cast<std::size_t>(count2) + 1);
        for (std::size_t k = 1; k < Matches.size(); ++k) {
            const auto star1 = static_cast<std::size_t>(Matches[k].Star1);
            const auto star2 = static_cast<std::size_t>(Matches[k].Star2);
            if (star1 < taken1.size()) taken1[star1] = true;
            if (star2 < taken2.size()) taken2[star2] = true;
        }
        const double savedError = FitError;
        for (std::size_t i = 1; i < taken1.size(); ++i) {
            if (taken1[i]) continue;
            for (std::size_t j = 1; j < taken2.size(); ++j) {
                if (taken2[j] || MatchCount >= mostPairs) continue;
                if (!(DistanceFromPrediction(i, j) < invScale * MaxError)) continue;
                Matches.push_back(
                    {static_cast<std::int16_t>(i), static_cast<std::int16_t>(j), 0, true});
                ++MatchCount;
                Refit();
                const bool fails = MatchCount > 4 && FitError > 2.5 * savedError;
                if (!fails && GeometryPasses()) {
                    taken1[i] = true;
                    taken2[j] = true;
                } else {
                    Matches.pop_back();
                    --MatchCount;
                }
            }
        }
    }

    /// Cleans the extended pairs down to 5 at least.
    void CleanLast() {
        constexpr double sigmas = 2;
        bool dropped = true;
        while (UsedCount > 5 && dropped) {
            Refit();
            const double invScale = 1 / Geometry.Scale;
            const ResidualFacts residuals = JudgeResiduals();
            dropped = invScale * MaxError < FitError ||
                      residuals.Mean + sigmas * residuals.Sigma < residuals.Largest;
            if (dropped) Drop(residuals.Worst);
        }
    }

 private:
    double DistanceFromPrediction(std::size_t i, std::size_t j) const {
        double x = 0;
        double y = 0;
        ApplyPlateFit(Constants, static_cast<double>(List1[i].X), static_cast<double>(List1[i].Y),
                      x, y);
        const double dx = static_cast<double>(List2[j].X) - x;
        const double dy = static_cast<double>(List2[j].Y) - y;
        return std::sqrt(dx * dx + dy * dy);
    }
};

}  // namespace

bool AlignImages(const PlateStarList& list1, std::int32_t& count1, const PlateStarList& list2,
                 std::int32_t& count2, StarMatchList& matches, std::int32_t& matchCount,
                 PlateConstants& constants, FitGeometry& geometry, double& fitError,
                 std::int32_t& usedCount, double maxError, const AlignSettings& settings,
                 KeptTriangles& triangles2, AlignReport& report, const Progress& progress) {
    report = {};
    // Neither list takes part with many more stars than the other could answer.
    constexpr std::int32_t surplus = 15;
    const std::int32_t cap = settings.MaxStars;
    const std::int32_t m1 = std::min({count1, count2 + surplus, cap});
    const std::int32_t m2 = std::min({count2, count1 + surplus, cap});
    if (!(m1 > 4 && m2 > 4)) return false;

    if (triangles2.StarCount != m2) {
        triangles2.Count = BuildTriangles(list2, m2, triangles2.Triangles);
        triangles2.StarCount = m2;
    }
    StarTriangleList triangles1;
    const std::int32_t triangleCount1 = BuildTriangles(list1, m1, triangles1);
    VoteTable votes(m1, m2);
    report.Triangles1 = triangleCount1;
    report.Triangles2 = triangles2.Count;
    report.Voted = VoteTriangles(votes, triangles1, triangleCount1, triangles2.Triangles,
                                 triangles2.Count, settings.MatchTolerance, progress);
    matchCount = SelectMatches(votes, m1, m2, settings.MatchDivisor, matches);
    usedCount = matchCount;
    report.Selected = matchCount;
    if (matchCount < 3) return false;

    Fit fit{list1,     list2,    matches,  matchCount, usedCount,
            constants, geometry, fitError, maxError,   settings.MaxGeometricError,
            {}};
    double invScale = 0;
    const bool clean = fit.CleanFirst(invScale);
    report.Kept = usedCount;
    if (!clean) return false;

    count1 = std::min(count1, cap);
    count2 = std::min(count2, cap);
    fit.CompactMatches();
    fit.Extend(count1, count2, invScale);
    report.Kept = matchCount;
    if (matchCount < 5) return false;
    usedCount = matchCount;
    fit.CleanLast();
    report.Kept = usedCount;
    // A fit without a solution at the end is no match, however many pairs it has.
    return usedCount >= 5 && std::isfinite(fitError);
}

}  // namespace vestrel
