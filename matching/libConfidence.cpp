#include "matching/libConfidence.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <optional>

#include "astro/libMath.h"
#include "matching/libPlatePosterior.h"

namespace vestrel {

namespace {

/// Possible qualities of optics and centroids, all equally likely: from a sharp small field to a
/// lens that shifts the corners by several pixels. A mixture of tests is itself a test, so no
/// tolerance has to be chosen from the data.
constexpr std::array<PlateSpread, 5> spreads = {{{0.25, 0.001, 0},
                                                 {0.5, 0.004, 0.001},
                                                 {1, 0.004, 0.004},
                                                 {2, 0.008, 0.004},
                                                 {4, 0.008, 0.008}}};

/// log of e^a + e^b.
double LogSum(double a, double b) {
    const double larger = std::max(a, b);
    return std::isinf(larger) ? larger : larger + std::log1p(std::exp(std::min(a, b) - larger));
}

/// Two or more pairs, as indices into the sorted lists.
using Seed = std::vector<StarPlaces>;

double Distance(const ObservedStar& a, const ObservedStar& b) {
    return std::hypot(a.X - b.X, a.Y - b.Y);
}

/// One match under test.
class Trial {
 public:
    explicit Trial(const MatchEvidence& evidence)
        : evidence_(evidence),
          halfDiagonal_(std::hypot(evidence.Width, evidence.Height) / 2),
          field_(evidence.Field == nullptr
                     ? std::optional<ObservedField>(std::in_place, evidence.Image, evidence.Width,
                                                    evidence.Height)
                     : std::nullopt),
          stars_(evidence.Catalog, Field(),
                 std::max(3 * spreads.back().Noise, 0.02 * halfDiagonal_)) {
        MeasureGeometry();
    }

    MatchConfidence Judge() const {
        MatchConfidence confidence;
        confidence.Candidates = static_cast<std::int32_t>(stars_.Catalog.size());
        confidence.Log10Trials = Log10Trials();
        if (!std::isfinite(stretch_) || !std::isfinite(skew_)) return confidence;
        const std::vector<Seed> seeds = evidence_.Seed.empty() ? SeedsOfTwoPairs() : GivenSeed();
        double best = 0;
        const Seed* bestSeed = nullptr;
        for (const Seed& seed : seeds) {
            const double log = LogLikelihoodRatio(seed);
            if (bestSeed != nullptr && log <= best) continue;
            best = log;
            bestSeed = &seed;
            // More certainty than this would change nothing.
            if (best / std::log(10.0) > confidence.Log10Trials + 20) break;
        }
        if (bestSeed == nullptr) return confidence;
        confidence.Log10LikelihoodRatio = best / std::log(10.0);
        confidence.Log10FalseAlarm =
            std::min(confidence.Log10Trials - confidence.Log10LikelihoodRatio, 0.0);
        if (!evidence_.CountOnlyIfSure || IsSure(confidence)) CountMatches(*bestSeed, confidence);
        return confidence;
    }

 private:
    const ObservedField& Field() const { return field_ ? *field_ : *evidence_.Field; }

    /// Finds the stretch and skew that would turn the plate into a similarity.
    void MeasureGeometry() {
        const PlateConstants& plate = evidence_.Plate;
        const double determinant = plate.a * plate.e - plate.b * plate.d;
        const double side = determinant < 0 ? -1 : 1;
        const double p = (plate.a + side * plate.e) / 2;
        const double q = (plate.d - side * plate.b) / 2;
        // The matrix (p, −side·q; q, side·p) times the inverse of the plate.
        const double xx = (p * plate.e + side * q * plate.d) / determinant;
        const double xy = (-p * plate.b - side * q * plate.a) / determinant;
        const double yx = (q * plate.e - side * p * plate.d) / determinant;
        const double yy = (-q * plate.b + side * p * plate.a) / determinant;
        stretch_ = xx - yy;
        skew_ = xy + yx;
    }

    double Log10Trials() const {
        double plates = std::log10(std::max(evidence_.PlatesInEach, 1.0));
        if (evidence_.Seed.empty() && evidence_.PlatesInEach <= 0) {
            const auto count = [](std::int32_t searched, std::size_t all) {
                return searched > 0 ? static_cast<double>(searched) : static_cast<double>(all);
            };
            const double m = count(evidence_.SearchedCatalog, stars_.Catalog.size());
            const double n = count(evidence_.SearchedImage, stars_.Image.size());
            // Any two catalog stars paired with any two image stars, mirrored or not.
            plates = std::log10(std::max(m * (m - 1) / 2 * n * (n - 1) * 2, 1.0));
        }
        return plates + Log10TrialsCharge(evidence_.Trials);
    }

    std::vector<Seed> GivenSeed() const {
        Seed seed;
        for (const StarPlaces& given : evidence_.Seed) {
            StarPlaces found;
            if (stars_.Find(given, found)) seed.push_back(found);
        }
        if (seed.size() < 2) return {};
        return {seed};
    }

    /// The seeds to try: two pairs that are far apart and of bright stars, or of stars that the
    /// plate predicts best. The best seed counts, and the match is charged for all possible ones.
    std::vector<Seed> SeedsOfTwoPairs() const {
        constexpr std::size_t mostOfEach = 6;
        constexpr std::size_t mostSeeds = 8;
        struct Pair {
            StarPlaces Stars;
            double Distance;
        };
        std::vector<Pair> pairs;
        std::vector<bool> taken(stars_.Catalog.size());
        for (std::size_t i = 0; i < stars_.Image.size(); ++i) {
            Pair nearest{{0, i}, INFINITY};
            for (const FrameStars::Candidate& candidate : stars_.Image[i].Near) {
                const double distance = stars_.Distance({candidate.Catalog, i});
                if (!taken[candidate.Catalog] && distance < nearest.Distance) {
                    nearest = {{candidate.Catalog, i}, distance};
                }
            }
            if (!std::isfinite(nearest.Distance)) continue;
            taken[nearest.Stars.Catalog] = true;
            pairs.push_back(nearest);
        }
        if (pairs.size() > 2 * mostOfEach) {
            std::stable_sort(pairs.begin() + mostOfEach, pairs.end(),
                             [](const Pair& a, const Pair& b) { return a.Distance < b.Distance; });
            pairs.resize(2 * mostOfEach);
        }
        struct Choice {
            Seed Pairs;
            double Length;
        };
        std::vector<Choice> choices;
        for (std::size_t a = 0; a < pairs.size(); ++a) {
            for (std::size_t b = a + 1; b < pairs.size(); ++b) {
                choices.push_back({{pairs[a].Stars, pairs[b].Stars},
                                   Distance(stars_.Image[pairs[a].Stars.Image].Star,
                                            stars_.Image[pairs[b].Stars.Image].Star)});
            }
        }
        std::stable_sort(choices.begin(), choices.end(),
                         [](const Choice& a, const Choice& b) { return a.Length > b.Length; });
        std::vector<Seed> seeds;
        std::vector<int> uses(stars_.Image.size());
        for (Choice& choice : choices) {
            int& first = uses[choice.Pairs[0].Image];
            int& second = uses[choice.Pairs[1].Image];
            if (seeds.size() == mostSeeds || choice.Length == 0) break;
            if (first >= 3 || second >= 3) continue;
            ++first;
            ++second;
            seeds.push_back(std::move(choice.Pairs));
        }
        return seeds;
    }

    double Variance(const PlateSpread& spread, const StarPlaces& pair) const {
        const double catalog = stars_.Catalog[pair.Catalog].Error;
        const double image = stars_.Image[pair.Image].Star.Error;
        return spread.Noise * spread.Noise + catalog * catalog + image * image;
    }

    void Learn(PlatePosterior& plate, const PlateSpread& spread, const StarPlaces& pair) const {
        const PredictedStar& star = stars_.Catalog[pair.Catalog];
        const ObservedStar& seen = stars_.Image[pair.Image].Star;
        plate.Learn(star.X, star.Y, seen.X - star.X, seen.Y - star.Y, Variance(spread, pair));
    }

    PlatePosterior Begin(const PlateSpread& spread, const Seed& seed) const {
        PlatePosterior plate(spread, evidence_.Width, evidence_.Height, stretch_, skew_);
        for (const StarPlaces& pair : seed) Learn(plate, spread, pair);
        return plate;
    }

    /// An image star compared with the predicted place of a catalog star.
    struct Comparison {
        double Square = 0;     ///< squared distance in variances, of 2 degrees of freedom
        double LogSigmas = 0;  ///< log of the product of the two principal deviations, px²
    };
    Comparison Compare(const PlatePosterior& plate, const PlateSpread& spread,
                       const StarPlaces& pair) const {
        const PredictedStar& star = stars_.Catalog[pair.Catalog];
        const ObservedStar& seen = stars_.Image[pair.Image].Star;
        const PlatePosterior::Place place = plate.Predict(star.X, star.Y);
        const double variance = Variance(spread, pair);
        const double xx = place.VarianceX + variance;
        const double yy = place.VarianceY + variance;
        const double xy = place.Covariance;
        const double determinant = xx * yy - xy * xy;
        const double dx = seen.X - star.X - place.Dx;
        const double dy = seen.Y - star.Y - place.Dy;
        return {(yy * dx * dx - 2 * xy * dx * dy + xx * dy * dy) / determinant,
                std::log(determinant) / 2};
    }

    /// Tests all stars except the seed's, brightest first.
    /// @param logs receives the log of the running product after each star
    /// @return the plate after learning from all matched stars
    PlatePosterior Run(const Seed& seed, const PlateSpread& spread,
                       std::vector<double>& logs) const {
        PlatePosterior plate = Begin(spread, seed);
        std::vector<bool> usedCatalog(stars_.Catalog.size());
        std::vector<bool> usedImage(stars_.Image.size());
        for (const StarPlaces& pair : seed) {
            usedCatalog[pair.Catalog] = true;
            usedImage[pair.Image] = true;
        }
        double log = 0;
        double met = 0;
        double missed = 0;
        logs.clear();
        for (std::size_t i = 0; i < stars_.Image.size(); ++i) {
            if (usedImage[i]) continue;
            // The share of distractors is estimated from the stars before (Laplace's rule).
            const double distractors = (missed + 1) / (met + missed + 2);
            double sum = -INFINITY;
            double best = -INFINITY;
            StarPlaces bestPair;
            for (const FrameStars::Candidate& candidate : stars_.Image[i].Near) {
                if (usedCatalog[candidate.Catalog]) continue;
                const StarPlaces pair{candidate.Catalog, i};
                const Comparison compared = Compare(plate, spread, pair);
                const double logPlace =
                    -compared.Square / 2 - compared.LogSigmas - std::log(2 * Pi);
                const double term =
                    std::log(candidate.Weight) + logPlace - stars_.Image[i].LogDensity;
                sum = LogSum(sum, term);
                if (term > best) {
                    best = term;
                    bestPair = pair;
                }
            }
            const double distractor = std::log(distractors);
            const double star = std::isinf(sum) ? sum : std::log1p(-distractors) + sum;
            log += std::isinf(sum) ? distractor : LogSum(star, distractor);
            logs.push_back(log);
            if (star > distractor) {
                ++met;
                usedCatalog[bestPair.Catalog] = true;
                Learn(plate, spread, bestPair);
            } else {
                ++missed;
            }
        }
        return plate;
    }

    /// The log of the largest value of the running likelihood ratio, which is the mean of the
    /// ratios of all spreads.
    double LogLikelihoodRatio(const Seed& seed) const {
        std::vector<double> mixture;
        std::vector<double> logs;
        for (const PlateSpread& spread : spreads) {
            Run(seed, spread, logs);
            mixture.resize(logs.size(), -INFINITY);
            for (std::size_t i = 0; i < logs.size(); ++i) mixture[i] = LogSum(mixture[i], logs[i]);
        }
        const double largest =
            mixture.empty() ? 0 : *std::max_element(mixture.begin(), mixture.end());
        return std::max(largest - std::log(static_cast<double>(spreads.size())), 0.0);
    }

    /// Counts the catalog stars that have an image star within 3 σ of the final plate, and how many
    /// would have one by chance among as many other image stars. The seed counts in both.
    void CountMatches(const Seed& seed, MatchConfidence& confidence) const {
        constexpr double within = 9;  // limit of the squared distance, in variances
        std::vector<double> logs;
        const PlateSpread* spread = &spreads.front();
        double best = -INFINITY;
        for (const PlateSpread& other : spreads) {
            Run(seed, other, logs);
            const double largest = logs.empty() ? 0 : *std::max_element(logs.begin(), logs.end());
            if (largest > best) spread = &other;
            best = std::max(best, largest);
        }
        const PlatePosterior plate = Run(seed, *spread, logs);
        std::vector<bool> used(stars_.Catalog.size());
        for (const StarPlaces& pair : seed) used[pair.Catalog] = true;
        const auto inSeed = [&seed](std::size_t i) {
            return std::any_of(seed.begin(), seed.end(),
                               [i](const StarPlaces& pair) { return pair.Image == i; });
        };
        confidence.Matched = static_cast<std::int32_t>(seed.size());
        for (std::size_t i = 0; i < stars_.Image.size(); ++i) {
            if (inSeed(i)) continue;
            StarPlaces nearest{stars_.Catalog.size(), i};
            double least = within;
            for (const FrameStars::Candidate& candidate : stars_.Image[i].Near) {
                const StarPlaces pair{candidate.Catalog, i};
                if (used[pair.Catalog]) continue;
                const double square = Compare(plate, *spread, pair).Square;
                if (square < least) nearest = pair;
                least = std::min(least, square);
            }
            if (nearest.Catalog == stars_.Catalog.size()) continue;
            used[nearest.Catalog] = true;
            ++confidence.Matched;
        }
        const auto free = static_cast<double>(stars_.Image.size() - seed.size());
        double expected = 0;
        for (std::size_t j = 0; j < stars_.Catalog.size() && free > 0; ++j) {
            const auto isStar = [j](const StarPlaces& pair) { return pair.Catalog == j; };
            if (std::any_of(seed.begin(), seed.end(), isStar)) continue;
            const double area =
                std::min(Pi * within * std::exp(Compare(plate, *spread, {j, 0}).LogSigmas),
                         Pi * stars_.Reach * stars_.Reach);
            const double density =
                Field().DensityAt(stars_.Catalog[j].X, stars_.Catalog[j].Y, stars_.Image.size());
            expected += (1 - expected / free) * (1 - std::exp(-free * density * area));
        }
        confidence.ExpectedByChance = static_cast<double>(seed.size()) + expected;
    }

    const MatchEvidence& evidence_;
    double halfDiagonal_;
    std::optional<ObservedField> field_;  ///< unless the evidence has one
    FrameStars stars_;
    double stretch_ = 0;
    double skew_ = 0;
};

}  // namespace

MatchEvidence EvidenceOf(const PlateConstants& plate, const PlateStarList& catalogStars,
                         const PlateStarList& imageStars, std::int32_t width, std::int32_t height) {
    MatchEvidence evidence;
    evidence.Width = width;
    evidence.Height = height;
    evidence.Plate = plate;
    for (const PlateStar& star : catalogStars) {
        PredictedStar predicted;
        ApplyPlateFit(plate, static_cast<double>(star.X), static_cast<double>(star.Y), predicted.X,
                      predicted.Y);
        predicted.Magnitude = static_cast<double>(star.Flux);
        const bool inside = predicted.X > -0.5 && predicted.Y > -0.5 && predicted.X < width - 0.5 &&
                            predicted.Y < height - 0.5;
        if (inside) evidence.Catalog.push_back(predicted);
    }
    evidence.Image = ObservedStars(imageStars);
    return evidence;
}

std::vector<ObservedStar> ObservedStars(const PlateStarList& imageStars) {
    std::vector<ObservedStar> stars;
    for (const PlateStar& star : imageStars) {
        stars.push_back({static_cast<double>(star.X), static_cast<double>(star.Y),
                         static_cast<double>(star.Flux), 0});
    }
    return stars;
}

double Log10TrialsCharge(double trials) {
    const double n = std::max(trials, 1.0);
    const double open = 1 + std::log(n);
    return std::log10(2 * n * open * open);
}

MatchConfidence ConfidenceOf(const MatchEvidence& evidence) {
    return Trial(evidence).Judge();
}

}  // namespace vestrel
