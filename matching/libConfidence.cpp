#include "matching/libConfidence.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "astro/libMath.h"
#include "matching/libPlatePosterior.h"

namespace vestrel {

namespace {

constexpr std::size_t mostCatalogStars = 1000;
constexpr std::size_t mostImageStars = 400;

/// What optics and centroids may be like, each as likely as the others: a sharp small field to a
/// lens that bends the corners by several pixels. A mixture of tests is a test, and no tolerance
/// has to be chosen from the data.
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

/// A catalog star near an image star.
struct Candidate {
    std::size_t Catalog = 0;
    double Weight = 0;  ///< that the image star is this one, of all in the frame
};

struct TestedStar {
    ObservedStar Seen;
    double LogDensity = 0;  ///< of the image's stars here, per star and square pixel
    std::vector<Candidate> Near;
};

struct ReferenceStar {
    PredictedStar Star;
    double U = 0;  ///< about the middle of the frame, half-diagonals
    double V = 0;
};

/// Two or more pairs by their places in the sorted lists.
using Seed = std::vector<SeedPair>;

double PixelDistance(const auto& a, const auto& b) {
    return std::hypot(a.X - b.X, a.Y - b.Y);
}

/// The order of a list by a key, rising; equal keys as they stand.
template <typename List, typename Key>
std::vector<std::size_t> OrderBy(const List& list, std::size_t most, Key key) {
    std::vector<std::size_t> order(list.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return key(list[a]) < key(list[b]); });
    order.resize(std::min(order.size(), most));
    return order;
}

/// One match under test.
class Trial {
 public:
    explicit Trial(const MatchEvidence& evidence) : evidence_(evidence) {
        halfDiagonal_ = std::hypot(evidence.Width, evidence.Height) / 2;
        SortStars();
        MeasureGeometry();
    }

    MatchConfidence Judge() {
        MatchConfidence confidence;
        confidence.Candidates = static_cast<std::int32_t>(reference_.size());
        confidence.Log10Trials = Log10Trials();
        if (!std::isfinite(stretch_) || !std::isfinite(skew_)) return confidence;
        FindCandidates();
        const std::vector<Seed> seeds = evidence_.Seed.empty() ? SeedsOfTwoPairs() : GivenSeed();
        double best = 0;
        const Seed* bestSeed = nullptr;
        for (const Seed& seed : seeds) {
            const double log = LogLikelihoodRatio(seed);
            if (bestSeed != nullptr && log <= best) continue;
            best = log;
            bestSeed = &seed;
        }
        if (bestSeed == nullptr) return confidence;
        CountMatches(*bestSeed, confidence);
        confidence.Log10LikelihoodRatio = best / std::log(10.0);
        confidence.Log10FalseAlarm =
            std::min(confidence.Log10Trials - confidence.Log10LikelihoodRatio, 0.0);
        return confidence;
    }

 private:
    void SortStars() {
        const auto catalogOrder = OrderBy(evidence_.Catalog, mostCatalogStars,
                                          [](const PredictedStar& s) { return s.Magnitude; });
        const auto imageOrder =
            OrderBy(evidence_.Image, mostImageStars, [](const ObservedStar& s) { return -s.Flux; });
        catalogPlaces_.assign(evidence_.Catalog.size(), catalogOrder.size());
        for (const std::size_t i : catalogOrder) {
            const PredictedStar& star = evidence_.Catalog[i];
            catalogPlaces_[i] = reference_.size();
            reference_.push_back({star, (star.X - (evidence_.Width - 1) / 2.0) / halfDiagonal_,
                                  (star.Y - (evidence_.Height - 1) / 2.0) / halfDiagonal_});
        }
        imagePlaces_.assign(evidence_.Image.size(), imageOrder.size());
        for (const std::size_t i : imageOrder) {
            imagePlaces_[i] = tested_.size();
            tested_.push_back({evidence_.Image[i], 0, {}});
        }
        for (std::size_t j = 0; j < reference_.size(); ++j) {
            logRanks_.push_back(std::log(static_cast<double>(j + 1)));
        }
    }

    /// The stretch and skew that would make a similarity of the plate.
    void MeasureGeometry() {
        const PlateConstants& plate = evidence_.Plate;
        const double determinant = plate.a * plate.e - plate.b * plate.d;
        const double side = determinant < 0 ? -1 : 1;
        const double p = (plate.a + side * plate.e) / 2;
        const double q = (plate.d - side * plate.b) / 2;
        // (p, −side·q; q, side·p) times the plate's inverse.
        const double xx = (p * plate.e + side * q * plate.d) / determinant;
        const double xy = (-p * plate.b - side * q * plate.a) / determinant;
        const double yx = (q * plate.e - side * p * plate.d) / determinant;
        const double yy = (-q * plate.b + side * p * plate.a) / determinant;
        stretch_ = xx - yy;
        skew_ = xy + yx;
    }

    double Log10Trials() const {
        double plates = 0;
        if (evidence_.Seed.empty()) {
            const auto count = [](std::int32_t searched, std::size_t all) {
                return searched > 0 ? static_cast<double>(searched) : static_cast<double>(all);
            };
            const double m = count(evidence_.SearchedCatalog, reference_.size());
            const double n = count(evidence_.SearchedImage, tested_.size());
            // Two catalog stars, the two image stars that they are, and the side of the sky.
            plates = std::log10(std::max(m * (m - 1) / 2 * n * (n - 1) * 2, 1.0));
        }
        return plates + Log10TrialsCharge(evidence_.Trials);
    }

    void FindCandidates() {
        reach_ = std::max(3 * spreads.back().Noise, 0.02 * halfDiagonal_);
        const auto byColumn = [this](std::size_t a, std::size_t b) {
            return reference_[a].Star.X < reference_[b].Star.X;
        };
        std::vector<std::size_t> columns(reference_.size());
        std::iota(columns.begin(), columns.end(), std::size_t{0});
        std::sort(columns.begin(), columns.end(), byColumn);
        for (std::size_t i = 0; i < tested_.size(); ++i) {
            TestedStar& star = tested_[i];
            auto column = std::lower_bound(
                columns.begin(), columns.end(), star.Seen.X - reach_,
                [this](std::size_t j, double x) { return reference_[j].Star.X < x; });
            for (; column != columns.end() && reference_[*column].Star.X <= star.Seen.X + reach_;
                 ++column) {
                if (PixelDistance(reference_[*column].Star, star.Seen) < reach_) {
                    star.Near.push_back({*column, 0});
                }
            }
            if (star.Near.empty()) continue;
            std::sort(star.Near.begin(), star.Near.end(),
                      [](const Candidate& a, const Candidate& b) { return a.Catalog < b.Catalog; });
            Weigh(star, i);
            star.LogDensity = std::log(DensityAt(star.Seen, i));
        }
    }

    /// Stars of the same rank by brightness are likelier to be the same; colours, clouds,
    /// saturation and false stars change ranks, so the law has long tails, and a tenth knows no
    /// ranks.
    void Weigh(TestedStar& star, std::size_t place) {
        const double logRank =
            logRanks_.size() > place ? logRanks_[place] : std::log(static_cast<double>(place + 1));
        const auto likeness = [logRank](double other) {
            return 1 / (1 + (other - logRank) * (other - logRank));
        };
        double sum = 0;
        for (const double other : logRanks_) sum += likeness(other);
        for (Candidate& candidate : star.Near) {
            candidate.Weight = 0.9 * likeness(logRanks_[candidate.Catalog]) / sum +
                               0.1 / static_cast<double>(logRanks_.size());
        }
    }

    /// The density of image stars about a place, as a probability per square pixel, from the
    /// distance of the sixth nearest star; at least that of evenly spread ones.
    double DensityAt(const auto& place, std::size_t except) const {
        constexpr std::size_t neighbours = 6;
        const std::size_t others = tested_.size() - (except < tested_.size() ? 1 : 0);
        const std::size_t k = std::min(neighbours, others / 2);
        const double even = 1 / Area();
        if (k < 2) return even;
        std::vector<double> squares;
        squares.reserve(tested_.size());
        for (std::size_t i = 0; i < tested_.size(); ++i) {
            if (i == except) continue;
            const double dx = tested_[i].Seen.X - place.X;
            const double dy = tested_[i].Seen.Y - place.Y;
            squares.push_back(dx * dx + dy * dy);
        }
        const auto kth = squares.begin() + static_cast<std::ptrdiff_t>(k - 1);
        std::nth_element(squares.begin(), kth, squares.end());
        // The unbiased estimate has k − 1 (Loftsgaarden & Quesenberry 1965).
        const double local =
            static_cast<double>(k - 1) / (Pi * std::max(*kth, 1.0) * static_cast<double>(others));
        return std::max(even, local);
    }

    /// Of the part of the frame that has image stars.
    double Area() const {
        const auto extent = [this](auto coordinate, double whole) {
            double low = INFINITY;
            double high = -INFINITY;
            for (const TestedStar& star : tested_) {
                low = std::min(low, coordinate(star.Seen));
                high = std::max(high, coordinate(star.Seen));
            }
            const auto n = static_cast<double>(tested_.size());
            return std::clamp((high - low) * (n + 1) / (n - 1), 1.0, std::max(whole, 1.0));
        };
        return extent([](const ObservedStar& s) { return s.X; }, evidence_.Width) *
               extent([](const ObservedStar& s) { return s.Y; }, evidence_.Height);
    }

    std::vector<Seed> GivenSeed() const {
        Seed seed;
        for (const SeedPair& pair : evidence_.Seed) {
            const std::size_t catalog = catalogPlaces_.at(pair.Catalog);
            const std::size_t image = imagePlaces_.at(pair.Image);
            if (catalog < reference_.size() && image < tested_.size()) {
                seed.push_back({catalog, image});
            }
        }
        if (seed.size() < 2) return {};
        return {seed};
    }

    /// The pairs of pairs to begin with: far apart, of bright stars and of those that the plate
    /// puts closest. Whichever does best stands for the match; all that there could be are charged.
    std::vector<Seed> SeedsOfTwoPairs() const {
        constexpr std::size_t mostOfEach = 6;
        constexpr std::size_t mostSeeds = 8;
        struct Pair {
            SeedPair Stars;
            double Distance;
        };
        std::vector<Pair> pairs;
        std::vector<bool> taken(reference_.size());
        for (std::size_t i = 0; i < tested_.size(); ++i) {
            Pair nearest{{0, i}, INFINITY};
            for (const Candidate& candidate : tested_[i].Near) {
                const double distance =
                    PixelDistance(reference_[candidate.Catalog].Star, tested_[i].Seen);
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
                                   PixelDistance(tested_[pairs[a].Stars.Image].Seen,
                                                 tested_[pairs[b].Stars.Image].Seen)});
            }
        }
        std::stable_sort(choices.begin(), choices.end(),
                         [](const Choice& a, const Choice& b) { return a.Length > b.Length; });
        std::vector<Seed> seeds;
        std::vector<int> uses(tested_.size());
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

    double Variance(const PlateSpread& spread, const SeedPair& pair) const {
        const double catalog = reference_[pair.Catalog].Star.Error;
        const double image = tested_[pair.Image].Seen.Error;
        return spread.Noise * spread.Noise + catalog * catalog + image * image;
    }

    void Learn(PlatePosterior& plate, const PlateSpread& spread, const SeedPair& pair) const {
        const ReferenceStar& star = reference_[pair.Catalog];
        const ObservedStar& seen = tested_[pair.Image].Seen;
        plate.Learn(star.U, star.V, seen.X - star.Star.X, seen.Y - star.Star.Y,
                    Variance(spread, pair));
    }

    PlatePosterior Begin(const PlateSpread& spread, const Seed& seed) const {
        PlatePosterior plate(spread, halfDiagonal_, stretch_, skew_);
        for (const SeedPair& pair : seed) Learn(plate, spread, pair);
        return plate;
    }

    /// An image star against a catalog star's prediction.
    struct Comparison {
        double Square = 0;     ///< squared distance in variances, of 2 degrees of freedom
        double LogSigmas = 0;  ///< log of the product of the two principal deviations, px²
    };
    Comparison Compare(const PlatePosterior& plate, const PlateSpread& spread,
                       const SeedPair& pair) const {
        const ReferenceStar& star = reference_[pair.Catalog];
        const ObservedStar& seen = tested_[pair.Image].Seen;
        const PlatePosterior::Place place = plate.Predict(star.U, star.V);
        const double variance = Variance(spread, pair);
        const double xx = place.VarianceX + variance;
        const double yy = place.VarianceY + variance;
        const double xy = place.Covariance;
        const double determinant = xx * yy - xy * xy;
        const double dx = seen.X - star.Star.X - place.Dx;
        const double dy = seen.Y - star.Star.Y - place.Dy;
        return {(yy * dx * dx - 2 * xy * dx * dy + xx * dy * dy) / determinant,
                std::log(determinant) / 2};
    }

    /// Tests all stars but the seed's, brightest first.
    /// @param logs log of the running product after each star
    /// @return the plate that all stars met give
    PlatePosterior Run(const Seed& seed, const PlateSpread& spread,
                       std::vector<double>& logs) const {
        PlatePosterior plate = Begin(spread, seed);
        std::vector<bool> usedCatalog(reference_.size());
        std::vector<bool> usedImage(tested_.size());
        for (const SeedPair& pair : seed) {
            usedCatalog[pair.Catalog] = true;
            usedImage[pair.Image] = true;
        }
        double log = 0;
        double met = 0;
        double missed = 0;
        logs.clear();
        for (std::size_t i = 0; i < tested_.size(); ++i) {
            if (usedImage[i]) continue;
            // The share of distractors is that of the stars before (Laplace's rule).
            const double distractors = (missed + 1) / (met + missed + 2);
            double sum = -INFINITY;
            double best = -INFINITY;
            SeedPair bestPair;
            for (const Candidate& candidate : tested_[i].Near) {
                if (usedCatalog[candidate.Catalog]) continue;
                const SeedPair pair{candidate.Catalog, i};
                const Comparison compared = Compare(plate, spread, pair);
                const double logPlace =
                    -compared.Square / 2 - compared.LogSigmas - std::log(2 * Pi);
                const double term = std::log(candidate.Weight) + logPlace - tested_[i].LogDensity;
                sum = LogSum(sum, term);
                if (term > best) {
                    best = term;
                    bestPair = pair;
                }
            }
            const double star = std::log1p(-distractors) + sum;
            const double distractor = std::log(distractors);
            log += LogSum(star, distractor);
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

    /// The largest value of the running likelihood ratio, as a log: the mean of those of all
    /// spreads.
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

    /// Counts the catalog stars that meet an image star within 3 σ of the plate in the end, and
    /// those that would if the image's stars were as dense but others: the seed does in any case.
    void CountMatches(const Seed& seed, MatchConfidence& confidence) const {
        constexpr double within = 9;  // of the squared distance, in variances
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
        std::vector<bool> used(reference_.size());
        for (const SeedPair& pair : seed) used[pair.Catalog] = true;
        const auto inSeed = [&seed](std::size_t i) {
            return std::any_of(seed.begin(), seed.end(),
                               [i](const SeedPair& pair) { return pair.Image == i; });
        };
        confidence.Matched = static_cast<std::int32_t>(seed.size());
        for (std::size_t i = 0; i < tested_.size(); ++i) {
            if (inSeed(i)) continue;
            SeedPair nearest{reference_.size(), i};
            double least = within;
            for (const Candidate& candidate : tested_[i].Near) {
                const SeedPair pair{candidate.Catalog, i};
                if (used[pair.Catalog]) continue;
                const double square = Compare(plate, *spread, pair).Square;
                if (square < least) nearest = pair;
                least = std::min(least, square);
            }
            if (nearest.Catalog == reference_.size()) continue;
            used[nearest.Catalog] = true;
            ++confidence.Matched;
        }
        const auto free = static_cast<double>(tested_.size() - seed.size());
        double expected = 0;
        for (std::size_t j = 0; j < reference_.size() && free > 0; ++j) {
            const auto isStar = [j](const SeedPair& pair) { return pair.Catalog == j; };
            if (std::any_of(seed.begin(), seed.end(), isStar)) continue;
            const double area =
                std::min(Pi * within * std::exp(Compare(plate, *spread, {j, 0}).LogSigmas),
                         Pi * reach_ * reach_);
            const double density = DensityAt(reference_[j].Star, tested_.size());
            expected += (1 - expected / free) * (1 - std::exp(-free * density * area));
        }
        confidence.ExpectedByChance = static_cast<double>(seed.size()) + expected;
    }

    const MatchEvidence& evidence_;
    double halfDiagonal_ = 0;
    double stretch_ = 0;
    double skew_ = 0;
    double reach_ = 0;  ///< how far from its place a catalog star is looked for, pixels
    std::vector<ReferenceStar> reference_;  ///< brightest first
    std::vector<TestedStar> tested_;        ///< brightest first
    std::vector<std::size_t> catalogPlaces_;
    std::vector<std::size_t> imagePlaces_;
    std::vector<double> logRanks_;
};

}  // namespace

MatchEvidence EvidenceOf(const PlateConstants& plate, const PlateStarList& catalogStars,
                         std::int32_t catalogCount, const PlateStarList& imageStars,
                         std::int32_t imageCount, std::int32_t width, std::int32_t height) {
    MatchEvidence evidence;
    evidence.Width = width;
    evidence.Height = height;
    evidence.Plate = plate;
    for (std::int32_t c = 1; c <= catalogCount; ++c) {
        const PlateStar& star = catalogStars[static_cast<std::size_t>(c)];
        PredictedStar predicted;
        ApplyPlateFit(plate, static_cast<double>(star.X), static_cast<double>(star.Y), predicted.X,
                      predicted.Y);
        predicted.Magnitude = static_cast<double>(star.Flux);
        const bool inside = predicted.X > -0.5 && predicted.Y > -0.5 && predicted.X < width - 0.5 &&
                            predicted.Y < height - 0.5;
        if (inside) evidence.Catalog.push_back(predicted);
    }
    for (std::int32_t i = 1; i <= imageCount; ++i) {
        const PlateStar& star = imageStars[static_cast<std::size_t>(i)];
        evidence.Image.push_back({static_cast<double>(star.X), static_cast<double>(star.Y),
                                  static_cast<double>(star.Flux), 0});
    }
    return evidence;
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
