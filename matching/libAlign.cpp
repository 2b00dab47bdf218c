#include "matching/libAlign.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace vestrel {

namespace {

/// The state of one alignment.
struct Fit {
    const PlateStarList& List1;
    const PlateStarList& List2;
    double MaxError;
    double MaxGeometricError;
    Alignment& Result;
    StarMatchList& Matches = Result.Matches;
    std::int32_t& UsedCount = Result.UsedCount;
    PlateConstants& Constants = Result.Constants;
    FitGeometry& Geometry = Result.Geometry;
    double& FitError = Result.FitError;
    NumberedList<double> Residuals = {};

    void Refit() {
        FitError = FitPlate(List1, List2, Matches, Constants, Residuals);
        Geometry = PlateGeometry(Constants);
    }

    /// False for the NaNs of a failed fit too.
    bool GeometryPasses() const {
        return std::fabs(std::fabs(Geometry.Stretch) - 1) <= MaxGeometricError &&
               std::fabs(Geometry.Skew) <= MaxGeometricError;
    }

    struct ResidualFacts {
        double Mean = 0;
        double Sigma = 0;
        double Largest = 0;
        std::int32_t Worst = 0;
    };
    ResidualFacts JudgeResiduals() const {
        ResidualFacts facts;
        double sum = 0;
        double squares = 0;
        for (std::int32_t k = 1; k <= Matches.Count(); ++k) {
            if (!Matches[k].InUse) continue;
            const double residual = Residuals[k];
            sum += residual;
            squares += residual * residual;
            // When no residual is above 0, the first pair counts as the worst.
            if (facts.Worst == 0 || residual > facts.Largest) {
                facts.Largest = residual;
                facts.Worst = k;
            }
        }
        facts.Mean = sum / UsedCount;
        facts.Sigma = std::sqrt(std::max(squares / UsedCount - facts.Mean * facts.Mean, 0.0));
        return facts;
    }

    void Drop(std::int32_t pair) {
        --UsedCount;
        Matches[pair].InUse = false;
    }

    /// Drops outliers among the pairs of the votes until the fit passes. False when fewer than 3
    /// would be left. `invScale` keeps the value of the last pass.
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

    /// Adds the pairs that the fit predicts. After a pair that is rejected, the following
    /// predictions use the constants of that trial fit.
    void Extend(double invScale) {
        constexpr std::int32_t mostPairs = std::numeric_limits<std::int16_t>::max();
        std::vector<bool> taken1(static_cast<std::size_t>(Result.Count1) + 1);
        std::vector<bool> taken2(static_cast<std::size_t>(Result.Count2) + 1);
        for (const StarMatch& match : Matches) {
            const auto star1 = static_cast<std::size_t>(match.Star1);
            const auto star2 = static_cast<std::size_t>(match.Star2);
            if (star1 < taken1.size()) taken1[star1] = true;
            if (star2 < taken2.size()) taken2[star2] = true;
        }
        const double savedError = FitError;
        for (std::size_t i = 1; i < taken1.size(); ++i) {
            if (taken1[i]) continue;
            for (std::size_t j = 1; j < taken2.size(); ++j) {
                if (taken2[j] || Matches.Count() >= mostPairs) continue;
                if (!(DistanceFromPrediction(i, j) < invScale * MaxError)) continue;
                Matches.Add({static_cast<std::int16_t>(i), static_cast<std::int16_t>(j), 0, true});
                Refit();
                const bool fails = Matches.Count() > 4 && FitError > 2.5 * savedError;
                if (!fails && GeometryPasses()) {
                    taken1[i] = true;
                    taken2[j] = true;
                } else {
                    Matches.Resize(Matches.Count() - 1);
                }
            }
        }
    }

    /// Drops outliers among the extended pairs, down to 5 at the least.
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

/// The first stars of two lists.
struct FirstStars {
    const PlateStarList& List1;
    const PlateStarList& List2;
    std::int32_t Count1;
    std::int32_t Count2;
};

/// The votes of all triangles: by grids, and by the sorted lists where grids leave ties undecided.
void LetTrianglesVote(VoteTable& votes, const FirstStars& stars, double tolerance,
                      KeptTriangles& triangles2, AlignReport& report, const Progress& progress) {
    TriangleGrid& triangles1 = triangles2.OfOther;
    triangles1.Build(stars.List1, stars.Count1);
    report.Triangles1 = triangles1.Count();
    report.Triangles2 = triangles2.Grid.Count();
    const bool firstIsOuter = report.Triangles1 <= report.Triangles2;
    const std::optional<std::int32_t> voted =
        VoteByGrid(votes, firstIsOuter ? triangles1 : triangles2.Grid,
                   firstIsOuter ? triangles2.Grid : triangles1, firstIsOuter, tolerance, progress);
    if (voted) {
        report.Voted = *voted;
        return;
    }
    if (triangles2.Sorted.Empty()) {
        triangles2.Sorted = BuildTriangles(stars.List2, stars.Count2);
    }
    votes = VoteTable(stars.Count1, stars.Count2);
    report.Voted = VoteTriangles(votes, BuildTriangles(stars.List1, stars.Count1),
                                 triangles2.Sorted, tolerance, progress);
}

}  // namespace

Alignment AlignImages(const PlateStarList& list1, const PlateStarList& list2, double maxError,
                      const AlignSettings& settings, KeptTriangles& triangles2,
                      const Progress& progress) {
    Alignment result;
    result.Count1 = list1.Count();
    result.Count2 = list2.Count();
    // Neither list uses many more stars than the other has, since those would have no counterparts.
    constexpr std::int32_t surplus = 15;
    const std::int32_t cap = settings.MaxStars;
    const std::int32_t m1 = std::min({list1.Count(), list2.Count() + surplus, cap});
    const std::int32_t m2 = std::min({list2.Count(), list1.Count() + surplus, cap});
    if (!(m1 > 4 && m2 > 4)) return result;

    if (triangles2.StarCount != m2) {
        triangles2.Grid.Build(list2, m2);
        triangles2.Sorted = {};
        triangles2.StarCount = m2;
    }
    VoteTable votes(m1, m2);
    LetTrianglesVote(votes, {list1, list2, m1, m2}, settings.MatchTolerance, triangles2,
                     result.Report, progress);
    result.Matches = SelectMatches(votes, m1, m2, settings.MatchDivisor);
    AlignReport& report = result.Report;
    result.UsedCount = report.Selected = result.Matches.Count();
    if (report.Selected < 3) return result;

    Fit fit{list1, list2, maxError, settings.MaxGeometricError, result};
    double invScale = 0;
    const bool clean = fit.CleanFirst(invScale);
    report.Kept = result.UsedCount;
    if (!clean) return result;

    result.Count1 = std::min(result.Count1, cap);
    result.Count2 = std::min(result.Count2, cap);
    result.Matches.RemoveIf([](const StarMatch& match) { return !match.InUse; });
    fit.Extend(invScale);
    report.Kept = result.UsedCount = result.Matches.Count();
    if (result.UsedCount < 5) return result;
    fit.CleanLast();
    report.Kept = result.UsedCount;
    // A fit that is singular at the end is no match, however many pairs it has.
    result.Matched = result.UsedCount >= 5 && std::isfinite(result.FitError);
    return result;
}

}  // namespace vestrel
