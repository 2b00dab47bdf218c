#include "matching/libSkyMatch.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vestrel {

namespace {

/// From the simplest shape to the one that needs the most stars.
constexpr SkyModelShape shapes[] = {{1, 0}, {1, 1},       {1, 2}, {1, 1, true}, {1, 2, true},
                                    {1, 3}, {1, 3, true}, {2},    {3},          {4}};
constexpr std::size_t linear = 0;
constexpr std::size_t usualLens = 1;
constexpr std::size_t strongLens = 2;
constexpr std::size_t offAxisLens = 4;
constexpr std::size_t quadratic = 7;
constexpr std::size_t quartic = 9;

/// Whether a shape has only low powers of the coordinates.
bool IsOrdinary(std::size_t shape) {
    return shapes[shape].Radial <= 1 && shapes[shape].Order <= 2;
}

bool IsStrong(std::size_t shape) {
    return shapes[shape].Radial > 1;
}

/// Whether a shape contains a simpler one as a special case.
bool Contains(std::size_t shape, std::size_t simpler) {
    const SkyModelShape& large = shapes[shape];
    const SkyModelShape& small = shapes[simpler];
    if (large.Radial > 0) {
        return large.Radial >= small.Radial && (large.OffAxis || !small.OffAxis);
    }
    // The test is right enough for the polynomials beside a strong lens, of which they lack terms.
    return small.Radial == 0 || large.Order >= 3;
}

/// The standard deviation of a coordinate from distances that may include outliers: their median is
/// that of a Rayleigh distribution. Corrected for the number of fitted constants.
double RobustSigma(std::vector<double> residuals, std::size_t shape) {
    const auto middle = residuals.begin() + static_cast<std::ptrdiff_t>(residuals.size() / 2);
    std::nth_element(residuals.begin(), middle, residuals.end());
    const auto count = static_cast<double>(residuals.size());
    const double constants = static_cast<double>(shapes[shape].Constants()) / 2;
    const double freedom = std::max(count - constants, 1.0);
    constexpr double medianOfRayleigh = 1.17741;
    return *middle / medianOfRayleigh * std::sqrt(count / freedom);
}

class Rounds {
 public:
    Rounds(const std::vector<SkyPosition>& catalog, const std::vector<PixelPoint>& plate,
           std::int32_t width, std::int32_t height)
        : catalog_(catalog), plate_(plate), width_(width), height_(height) {}

    /// Fits the first pairs without distortion, leaving out the wrong ones.
    bool BeginAt(const std::vector<SkyPair>& start) {
        start_ = start;
        pairs_ = start;
        // The image centre may be far from all stars of the match, but it must be on the sky. In
        // the widest fields the plane about a corner does not reach the others.
        const auto nearest = std::min_element(
            start.begin(), start.end(), [&](const SkyPair& one, const SkyPair& other) {
                return Distance(plate_[one.PlateStar]) < Distance(plate_[other.PlateStar]);
            });
        tangent_ = catalog_[nearest->CatalogStar];
        if (!FitWithoutOutliers(linear)) return false;
        trusted_ = pairs_.size();
        KeepStarsOfImage();
        return true;
    }

    /// Pairs all stars that lie within a tolerance (pixels) that shrinks with the fit.
    bool MatchAll(double tolerance) {
        constexpr int mostRounds = 12;
        tolerance = std::max({leastTolerance, 4 * RobustSigma(fit_.Residuals, shape_), tolerance});
        for (int round = 0; round < mostRounds; ++round) {
            const std::vector<SkyPair> before = pairs_;
            const bool first = round < 2;
            pairs_ = NearestPairs(tolerance, first ? FirstStars() : stars_.size());
            if (!FitBestShape(first ? quartic - 1 : quartic)) return false;
            const double next = std::max(
                leastTolerance, std::min(tolerance / 2, 5 * RobustSigma(fit_.Residuals, shape_)));
            const bool settled = !first && next >= tolerance && SamePairs(before, pairs_);
            tolerance = std::min(tolerance, next);
            if (settled) break;
        }
        // A fit that has lost most of the pairs it started from is a different match.
        return 2 * pairs_.size() >= trusted_ && pairs_.size() >= 4;
    }

    /// Wide enough for usual lenses, and too narrow for most wrong pairs; pixels.
    double WidestTolerance() const {
        const double spacing =
            std::sqrt(static_cast<double>(width_) * height_ /
                      static_cast<double>(std::max<std::size_t>(FirstStars(), 1)));
        constexpr double largestDistortion = 0.012;
        return std::min(0.2 * spacing, largestDistortion * std::hypot(width_, height_));
    }

    /// Pairs stars farther and farther from the centre, each ring with a lens that fits those
    /// before: so a lens may move the corners by far more than the tolerance.
    bool GrowOutward() {
        grown_ = true;
        pairs_ = start_;
        if (!FitLens()) return false;
        const double widest = WidestTolerance();
        double reach = 0;
        for (const SkyPair& pair : pairs_)
            reach = std::max(reach, Distance(plate_[pair.PlateStar]));
        constexpr double ring = 0.08;
        while (reach < 1) {
            KeepStarsOfImage();
            const double inner =
                std::min(widest, std::max(leastTolerance, 5 * RobustSigma(fit_.Residuals, shape_)));
            pairs_ = NearestPairs(widest, FirstStars());
            std::erase_if(pairs_, [&](const SkyPair& pair) {
                const double distance = Distance(plate_[pair.PlateStar]);
                return distance > reach + ring || (distance <= reach && pair.Residual > inner);
            });
            if (!FitLens()) return false;
            reach += ring;
        }
        KeepStarsOfImage();
        return true;
    }

    /// Whether the middle has at least half as many pairs as at first, and the outer rings have
    /// their share of pairs: at least `leastShare` of that of the middle, where it would give at
    /// least `leastExpected` pairs.
    bool ReachesEdges(double leastShare, double leastExpected) const {
        constexpr std::array limits = {0.5, 0.75};  // of the rings; distances from the centre
        const auto inMiddle = [&](const std::vector<SkyPair>& pairs) {
            return std::count_if(pairs.begin(), pairs.end(), [&](const SkyPair& pair) {
                return Distance(plate_[pair.PlateStar]) <= limits[0];
            });
        };
        if (2 * inMiddle(pairs_) < inMiddle(start_)) return false;
        std::vector<bool> isPaired(catalog_.size());
        for (const SkyPair& pair : pairs_) isPaired[pair.CatalogStar] = true;
        std::array<double, limits.size() + 1> stars{};  // of the catalog
        std::array<double, limits.size() + 1> paired{};
        for (std::size_t k = 0; k < FirstStars(); ++k) {
            const auto place = fit_.Model.PixelOf(catalog_[stars_[k]]);
            if (!place || place->X < -0.5 || place->Y < -0.5 || place->X > width_ - 0.5 ||
                place->Y > height_ - 0.5) {
                continue;
            }
            const double distance = Distance(*place);
            const auto ring = static_cast<std::size_t>(std::count_if(
                limits.begin(), limits.end(), [&](double limit) { return distance > limit; }));
            ++stars[ring];
            if (isPaired[stars_[k]]) ++paired[ring];
        }
        for (std::size_t ring = 1; ring <= limits.size(); ++ring) {
            const double expected = stars[ring] * paired[0] / std::max(stars[0], 1.0);
            if (expected >= leastExpected && paired[ring] < leastShare * expected) return false;
        }
        return true;
    }

    /// Whether what the shape lacks is seen beside the errors of the stars.
    bool LacksTerms() const {
        constexpr double seen = 3;
        return LeftOutOf(fit_.Model, shapes[shape_]) > seen * fit_.Sigma;
    }

    std::size_t Count() const { return pairs_.size(); }

    SkySolution Solution(bool reaches) {
        SkySolution solution{std::move(fit_), std::move(pairs_), 0, {}, reaches};
        const double rings = solution.Rings.size();
        for (std::size_t k = 0; k < solution.Rings.size(); ++k) {
            solution.Rings[k].Outer = static_cast<double>(k + 1) / rings;
        }
        const PixelPoint centre = solution.Fit.Model.Centre();
        const double halfDiagonal = std::hypot(width_, height_) / 2;
        for (std::size_t i = 0; i < solution.Pairs.size(); ++i) {
            SkyPair& pair = solution.Pairs[i];
            pair.Residual = solution.Fit.Residuals[i];
            const PixelPoint& pixel = plate_[pair.PlateStar];
            const double part = std::hypot(pixel.X - centre.X, pixel.Y - centre.Y) / halfDiagonal;
            SkyRing& ring = solution.Rings[std::min(static_cast<std::size_t>(part * rings),
                                                    solution.Rings.size() - 1)];
            ++ring.Stars;
            ring.Rms += pair.Residual * pair.Residual;
            solution.Rms += pair.Residual * pair.Residual;
        }
        for (SkyRing& ring : solution.Rings) {
            if (ring.Stars > 0) ring.Rms = std::sqrt(ring.Rms / ring.Stars);
        }
        solution.Rms = std::sqrt(solution.Rms / static_cast<double>(solution.Pairs.size()));
        return solution;
    }

 private:
    static constexpr double leastTolerance = 0.7;  // pixels: a faint star's error may be as large

    /// From the image centre, as a fraction of the half-diagonal.
    double Distance(const PixelPoint& pixel) const {
        return 2 * std::hypot(pixel.X - (width_ - 1) / 2.0, pixel.Y - (height_ - 1) / 2.0) /
               std::hypot(width_, height_);
    }
    static bool SamePairs(const std::vector<SkyPair>& one, const std::vector<SkyPair>& other) {
        return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                          [](const SkyPair& a, const SkyPair& b) {
                              return a.CatalogStar == b.CatalogStar && a.PlateStar == b.PlateStar;
                          });
    }
    /// The number of brightest catalog stars in the image to use: about as many as the image shows.
    std::size_t FirstStars() const { return std::min(stars_.size(), plate_.size() * 3 / 2); }

    std::optional<SkyModelFit> Fit(const std::vector<SkyPair>& pairs, std::size_t shape) const {
        std::vector<SkyPoint> points;
        points.reserve(pairs.size());
        for (const SkyPair& pair : pairs)
            points.push_back({plate_[pair.PlateStar], catalog_[pair.CatalogStar]});
        return FitSkyModel(points, shapes[shape], width_, height_, tangent_);
    }

    void Take(SkyModelFit fit, std::size_t shape) {
        fit_ = std::move(fit);
        shape_ = shape;
        tangent_ = fit_.Model.Tangent;
    }

    double Residual(const SkyPair& pair, const SkyModel& model) const {
        const auto place = model.PixelOf(catalog_[pair.CatalogStar]);
        const PixelPoint& pixel = plate_[pair.PlateStar];
        return place ? std::hypot(place->X - pixel.X, place->Y - pixel.Y) : HUGE_VAL;
    }

    /// Fits and leaves out pairs with outlying residuals, until nothing changes.
    bool FitWithoutOutliers(std::size_t shape) {
        const std::vector<SkyPair> all = pairs_;
        constexpr int mostPasses = 20;
        for (int pass = 0; pass < mostPasses; ++pass) {
            auto fit = Fit(pairs_, shape);
            if (!fit) return false;
            // A lone star in a corner pulls the fit toward itself, so it is judged by the residual
            // of a fit without it.
            constexpr double mostHidden = 0.99;
            std::vector<double> residuals;
            residuals.reserve(all.size());
            std::size_t used = 0;
            for (const SkyPair& pair : all) {
                double shown = 1;
                if (used < pairs_.size() && pairs_[used].PlateStar == pair.PlateStar &&
                    pairs_[used].CatalogStar == pair.CatalogStar) {
                    shown = 1 - std::min(fit->Leverages[used++], mostHidden);
                }
                residuals.push_back(Residual(pair, fit->Model) / std::sqrt(shown));
            }
            // One of 500 good stars lies farther away. Rounded positions are never exact.
            constexpr double farthest = 3.5;
            constexpr double exact = 0.01;
            const double limit = std::max(exact, farthest * RobustSigma(residuals, shape));
            std::vector<SkyPair> kept;
            for (std::size_t i = 0; i < all.size(); ++i) {
                if (residuals[i] <= limit) kept.push_back(all[i]);
            }
            Take(std::move(*fit), shape);
            if (SamePairs(kept, pairs_)) break;
            if (2 * kept.size() < shapes[shape].Constants()) return false;
            pairs_ = std::move(kept);
        }
        auto fit = Fit(pairs_, shape);
        if (fit) Take(std::move(*fit), shape);
        return fit.has_value();
    }

    /// Whether there are enough stars for a shape.
    static bool Suffices(std::size_t stars, std::size_t shape) {
        return stars >= shapes[shape].Constants();
    }
    /// Whether the stars reach far enough out. High powers without stars there depart from any lens
    /// by more than their stated errors; an ordinary lens extrapolates safely. Of a lens that was
    /// followed outward all simpler ones are farther from the truth.
    bool CoversImage() const {
        constexpr double leastSure = 3;
        constexpr double leastSureOfHighPowers = 1.75;
        constexpr double leastSureOfGrown = 10;
        if (grown_ && IsStrong(shape_)) return fit_.EdgeLeverage <= leastSureOfGrown;
        return fit_.EdgeLeverage <= (IsOrdinary(shape_) ? leastSure : leastSureOfHighPowers);
    }

    /// Whether an ordinary lens through the pairs lacks terms that would be seen.
    bool MayBeStrong() const {
        constexpr double seen = 0.2;  // of the error of a star
        const auto fit = Fit(pairs_, usualLens);
        return fit && LeftOutOf(fit->Model, shapes[usualLens]) > seen * fit->Sigma;
    }

    /// Lets the most flexible shape that the pairs support decide which of them are outliers, then
    /// takes the simplest shape that passes the F-test.
    bool FitBestShape(std::size_t most) {
        // Lens distortion is common; other distortions need stronger evidence, as high powers also
        // fit common errors of centroids.
        constexpr double chanceOfLens = 0.01;
        constexpr double chanceOfOthers = 1e-4;
        const std::vector<SkyPair> all = pairs_;
        const bool strong = MayBeStrong();
        for (;; --most) {
            pairs_ = all;
            if (IsStrong(most) && !strong) continue;
            // A lens model describes pictures better than polynomials of the second order.
            if (most == quadratic) continue;
            if (most == linear || Suffices(all.size(), most)) {
                if (FitWithoutOutliers(most) &&
                    (most == linear || (Suffices(pairs_.size(), most) && CoversImage()))) {
                    break;
                }
            }
            if (most == linear) return false;
        }
        std::size_t best = linear;
        auto bestFit = Fit(pairs_, best);
        if (!bestFit) return false;
        for (std::size_t shape = linear + 1; shape <= most; ++shape) {
            if ((IsStrong(shape) && !strong) || !Contains(shape, best)) continue;
            auto fit = Fit(pairs_, shape);
            if (fit &&
                ChanceOfImprovement(bestFit->Squares, fit->Squares, pairs_.size(), shapes[best],
                                    shapes[shape]) <
                    (IsOrdinary(shape) && shape != quadratic ? chanceOfLens : chanceOfOthers)) {
                bestFit = std::move(fit);
                best = shape;
            }
        }
        Take(std::move(*bestFit), best);
        return true;
    }

    /// Fits the strongest lens that the pairs allow: they need not cover the image, as only the
    /// next ring is looked at with it.
    bool FitLens() {
        const std::vector<SkyPair> all = pairs_;
        for (const std::size_t shape : {offAxisLens, strongLens, usualLens}) {
            pairs_ = all;
            if (pairs_.size() >= 2 * shapes[shape].Constants() && FitWithoutOutliers(shape)) {
                return true;
            }
        }
        pairs_ = all;
        return FitWithoutOutliers(linear);
    }

    /// The catalog stars that may be in the image.
    void KeepStarsOfImage() {
        constexpr std::size_t mostStars = 2000;
        stars_.clear();
        const double margin = 0.05 * std::max(width_, height_) + 5;
        for (std::size_t i = 0; i < catalog_.size() && stars_.size() < mostStars; ++i) {
            const auto place = fit_.Model.PixelOf(catalog_[i]);
            if (place && place->X > -margin && place->Y > -margin && place->X < width_ + margin &&
                place->Y < height_ + margin) {
                stars_.push_back(i);
            }
        }
    }

    /// Pairs of stars that are nearest to each other, among the first `most` catalog stars.
    std::vector<SkyPair> NearestPairs(double tolerance, std::size_t most) const {
        std::vector<SkyPair> nearest(most);  // to each catalog star
        for (SkyPair& pair : nearest) pair.Residual = tolerance;
        std::vector<SkyPair> pairs;
        std::vector<PixelPoint> places(most);
        for (std::size_t k = 0; k < most; ++k) {
            const auto place = fit_.Model.PixelOf(catalog_[stars_[k]]);
            places[k] = place.value_or(PixelPoint{HUGE_VAL, HUGE_VAL});
        }
        std::vector<std::size_t> nearestTo(plate_.size(), most);
        for (std::size_t j = 0; j < plate_.size(); ++j) {
            const PixelPoint& pixel = plate_[j];
            double closest = tolerance;
            for (std::size_t k = 0; k < most; ++k) {
                const double dx = places[k].X - pixel.X;
                const double dy = places[k].Y - pixel.Y;
                if (!(std::fabs(dx) < tolerance && std::fabs(dy) < tolerance)) continue;
                const double distance = std::hypot(dx, dy);
                if (distance < closest) {
                    closest = distance;
                    nearestTo[j] = k;
                }
                if (distance < nearest[k].Residual) nearest[k] = {stars_[k], j, distance};
            }
        }
        for (std::size_t j = 0; j < plate_.size(); ++j) {
            const std::size_t k = nearestTo[j];
            if (k < most && nearest[k].PlateStar == j) pairs.push_back(nearest[k]);
        }
        return pairs;
    }

    const std::vector<SkyPosition>& catalog_;
    const std::vector<PixelPoint>& plate_;
    std::int32_t width_;
    std::int32_t height_;
    SkyPosition tangent_;
    std::vector<std::size_t> stars_;  ///< indices of catalog stars that may be in the image,
                                      ///< brightest first
    std::vector<SkyPair> start_;
    std::size_t trusted_ = 0;  ///< of these, the ones that agree
    bool grown_ = false;       ///< outward from these
    std::vector<SkyPair> pairs_;
    SkyModelFit fit_;
    std::size_t shape_ = linear;  ///< of the fit
};

}  // namespace

std::optional<SkySolution> MatchSky(const std::vector<SkyPosition>& catalog,
                                    const std::vector<PixelPoint>& plate, std::int32_t width,
                                    std::int32_t height, const std::vector<SkyPair>& start,
                                    std::size_t known) {
    if (start.size() < 3) return std::nullopt;
    Rounds plain(catalog, plate, width, height);
    const bool matched = plain.BeginAt(start) && plain.MatchAll(plain.WidestTolerance());
    // A caution needs stronger evidence than another try, which costs little.
    const auto isWhole = [known](const Rounds& rounds) {
        return 4 * rounds.Count() >= 3 * known && rounds.ReachesEdges(0.4, 4);
    };
    const auto solution = [known](Rounds& rounds) {
        const bool reaches = 4 * rounds.Count() >= 3 * known && rounds.ReachesEdges(0.15, 6);
        return rounds.Solution(reaches);
    };
    if (matched && isWhole(plain) && !plain.LacksTerms()) return solution(plain);
    Rounds grown(catalog, plate, width, height);
    if (grown.BeginAt(start) && grown.GrowOutward() && grown.MatchAll(0) &&
        (!matched || (isWhole(grown) && grown.Count() >= plain.Count()))) {
        return solution(grown);
    }
    if (!matched) return std::nullopt;
    return solution(plain);
}

}  // namespace vestrel
