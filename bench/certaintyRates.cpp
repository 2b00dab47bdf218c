// How sure wrong and right matches are: calibrates the certainty.
//
//   vestrel-certainty-rates CATALOG-FOLDER [--share S] [--pictures TABLE.tsv]... [--others
//   TABLE.tsv]
//
// Star lists of many kinds are matched, region by region, with the solver's matcher and with an
// eager one that lets far more wrong matches through, and each match is judged. For each kind: the
// regions tried, the wrong matches among them, how near the most certain one came to being sure,
// and how many were sure; the right matches, and how many of these were sure. Last, every plate
// through two pairs of short lists is judged, as a search without bounds would.
//
// A table of pictures has a line of names first, with tabs between: file (beside the table),
// ra_deg, dec_deg, width_arcmin, height_arcmin. Each picture is searched about its true place and
// at wrong ones. Those of --others show no sky: no match of theirs is right.
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "astro/libMath.h"
#include "bench/starLists.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libAlign.h"
#include "matching/libConfidence.h"
#include "platform/libPlatform.h"
#include "program/mPlateMatch.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

struct Tally {
    int Lists = 0;
    int Regions = 0;
    int Wrong = 0;  ///< matches
    int WrongSure = 0;
    double SurestWrong = INFINITY;  ///< log10 of the number of trials over its likelihood ratio
    int Right = 0;
    int RightSure = 0;
    std::vector<double> RightLogs;

    void Add(const Tally& other) {
        Lists += other.Lists;
        Regions += other.Regions;
        Wrong += other.Wrong;
        WrongSure += other.WrongSure;
        SurestWrong = std::min(SurestWrong, other.SurestWrong);
        Right += other.Right;
        RightSure += other.RightSure;
    }
};

class Bench {
 public:
    explicit Bench(const fs::path& catalog) { cache_.Folder = catalog; }

    /// Searches regions on the spiral about the start, past every match that is wrong.
    void Search(const Case& list, int regions, const AlignSettings& settings, double maxError,
                Tally& tally) {
        ++tally.Lists;
        const double radius = std::hypot(list.FieldWidth, list.FieldHeight) / 2;
        const double step =
            std::min(list.FieldWidth, list.FieldHeight) / 2.5 * ExactArcsecondsPerRadian;
        KeptTriangles triangles;
        SkyPosition centre = list.Start;
        std::int16_t i = 0;
        std::int16_t j = 0;
        std::int16_t ring = 0;
        for (int region = 1; region <= regions; ++region) {
            ++tally.Regions;
            Projection plane;
            plane.SetProjectionCentre(centre, ExactArcsecondsPerRadian);
            const PlateStarList catalog =
                RegionStars(cache_, plane, centre, radius, MagnitudeLimitFor(radius));
            found_ = AlignImages(catalog, list.Stars, maxError, settings, triangles);
            if (found_.Matched) {
                const MatchConfidence confidence = Judge(list, catalog, settings, region);
                if (IsRight(list, plane, radius)) {
                    ++tally.Right;
                    tally.RightSure += IsSure(confidence) ? 1 : 0;
                    tally.RightLogs.push_back(confidence.Log10FalseAlarm);
                    if (!IsSure(confidence)) Remark("doubtful", list, confidence);
                    return;
                }
                ++tally.Wrong;
                tally.WrongSure += IsSure(confidence) ? 1 : 0;
                const double surest = confidence.Log10Trials - confidence.Log10LikelihoodRatio;
                tally.SurestWrong = std::min(tally.SurestWrong, surest);
                if (surest < 2) Remark("wrong", list, confidence);
            }
            NextSpiralCell(i, j, ring);
            plane.SetProjectionCentre(list.Start, ExactArcsecondsPerRadian);
            centre = plane.PlaneToSky(i * step, j * step);
        }
    }

    std::string Name;  ///< of the measured kind

 private:
    MatchConfidence Judge(const Case& list, const PlateStarList& catalog,
                          const AlignSettings& settings, int regions) const {
        MatchEvidence evidence =
            EvidenceOf(found_.Constants, catalog, list.Stars, list.Width, list.Height);
        const std::int32_t most = settings.MaxStars;
        evidence.SearchedCatalog = std::min(catalog.Count(), most);
        evidence.SearchedImage = std::min(list.Stars.Count(), most);
        evidence.Trials = regions;
        return ConfidenceOf(evidence);
    }

    bool IsRight(const Case& list, const Projection& plane, double radius) const {
        if (!list.Truth) return false;
        double xi = 0;
        double eta = 0;
        InvertPlateFit(found_.Constants, (list.Width - 1) / 2.0, (list.Height - 1) / 2.0, xi, eta);
        const SkyPosition found = plane.PlaneToSky(xi, eta);
        return Separation(found, *list.Truth) < 0.03 * radius;
    }

    void Remark(const char* what, const Case& list, const MatchConfidence& confidence) const {
        std::fprintf(stderr, "%s: %s: %.1f from %d of %d, ratio 1e%.1f, rms %.2f, %d stars\n",
                     Name.c_str(), what, confidence.Log10FalseAlarm, confidence.Matched,
                     confidence.Candidates, confidence.Log10LikelihoodRatio, found_.FitError,
                     list.Stars.Count());
    }

    CatalogCache cache_;
    Alignment found_;
};

const AlignSettings usual = AlignSettingsOf(SolveParameters());
const double usualError = SolveParameters().MaxError;
/// Accepts hundreds of times as many wrong matches.
constexpr AlignSettings eager{0.02, 400, 0.1, 45};
constexpr double eagerError = 8;

// The measurement.

void Print(const std::string& name, const Tally& tally) {
    std::printf("| %s | %d | %d | %d | %.1f | %d | %d | %d |\n", name.c_str(), tally.Lists,
                tally.Regions, tally.Wrong, tally.SurestWrong, tally.WrongSure, tally.Right,
                tally.RightSure);
    std::fflush(stdout);
}

using Points = std::vector<std::complex<double>>;

/// The log10 likelihood ratio of the plate through two pairs, which are its seed.
double Log10RatioOf(const Points& catalog, const Points& image, int width, int height,
                    const std::array<std::size_t, 4>& stars, bool mirrored) {
    const auto [c1, c2, i1, i2] = stars;
    const auto sided = [mirrored](std::complex<double> z) { return mirrored ? std::conj(z) : z; };
    const auto turn = (image[i2] - image[i1]) / (sided(catalog[c2]) - sided(catalog[c1]));
    const auto shift = image[i1] - turn * sided(catalog[c1]);
    const double side = mirrored ? -1 : 1;
    MatchEvidence evidence;
    evidence.Width = width;
    evidence.Height = height;
    evidence.Plate = {turn.real(), -side * turn.imag(), shift.real(),
                      turn.imag(), side * turn.real(),  shift.imag()};
    std::array<std::size_t, 2> places{};
    for (std::size_t c = 0; c < catalog.size(); ++c) {
        const auto place = turn * sided(catalog[c]) + shift;
        const bool inside =
            place.real() > -1 && place.real() < width && place.imag() > -1 && place.imag() < height;
        if (c == c1) places[0] = evidence.Catalog.size();
        if (c == c2) places[1] = evidence.Catalog.size();
        if (inside || c == c1 || c == c2) {
            evidence.Catalog.push_back({place.real(), place.imag(), static_cast<double>(c), 0});
        }
    }
    for (std::size_t i = 0; i < image.size(); ++i) {
        evidence.Image.push_back(
            {image[i].real(), image[i].imag(), 1 / static_cast<double>(i + 1), 0});
    }
    evidence.Seed = {{places[0], i1}, {places[1], i2}};
    return ConfidenceOf(evidence).Log10LikelihoodRatio;
}

/// Judges all plates through two pairs of two short lists. @return log10 of the best likelihood
/// ratio divided by the number of plates
double BestOfAllPlates(const Points& catalog, const Points& image, int width, int height) {
    double best = 0;
    double plates = 0;
    for (std::size_t c1 = 0; c1 < catalog.size(); ++c1) {
        for (std::size_t c2 = c1 + 1; c2 < catalog.size(); ++c2) {
            for (std::size_t i1 = 0; i1 < image.size(); ++i1) {
                for (std::size_t i2 = 0; i2 < image.size(); ++i2) {
                    if (i1 == i2) continue;
                    for (const bool mirrored : {false, true}) {
                        ++plates;
                        best = std::max(best, Log10RatioOf(catalog, image, width, height,
                                                           {c1, c2, i1, i2}, mirrored));
                    }
                }
            }
        }
    }
    return best - std::log10(plates);
}

using Maker = Case (*)(Generator&);

/// Measures what an exhaustive search finds on lists where nothing is right. The catalog's stars
/// are evenly spread.
void MeasureExhaustive(const std::string& name, Maker make, int lists) {
    constexpr std::array<double, 3> levels = {0, 0.5, 1};
    Generator random(99);
    const auto pointsOf = [&random](const Case& list) {
        constexpr std::size_t most = 12;
        Points points;
        std::vector<PlateStar> stars(list.Stars.begin(), list.Stars.end());
        std::shuffle(stars.begin(), stars.end(), random);
        stars.resize(std::min(stars.size(), most));
        for (const PlateStar& star : stars) {
            points.emplace_back(static_cast<double>(star.X), static_cast<double>(star.Y));
        }
        return points;
    };
    std::array<int, 3> above{};
    double largest = -INFINITY;
    for (int l = 0; l < lists; ++l) {
        const Case seen = make(random);
        const Case other = RandomCase(random);
        const double best =
            BestOfAllPlates(pointsOf(other), pointsOf(seen), seen.Width, seen.Height);
        largest = std::max(largest, best);
        for (std::size_t k = 0; k < levels.size(); ++k) above[k] += best >= levels[k] ? 1 : 0;
    }
    std::printf("| %s | %d | %.2f | %d | %d | %d |\n", name.c_str(), lists, -largest, above[0],
                above[1], above[2]);
    std::fflush(stdout);
}

int Run(const fs::path& catalog, double share, const std::vector<fs::path>& tables,
        const fs::path& others) {
    Bench bench(catalog);
    Tally wrong;
    Tally right;
    std::printf(
        "| stars | lists | regions | wrong matches | surest of them, log10 | sure | right matches "
        "| sure |\n|---|--:|--:|--:|--:|--:|--:|--:|\n");
    const auto measure = [&](const std::string& name, Tally& sum, int lists,
                             const std::function<void(Generator&, Tally&)>& search) {
        bench.Name = name;
        const auto tally =
            Searched<Tally>(lists, share, static_cast<std::uint64_t>(sum.Lists) + 1, search);
        Print(name, tally);
        sum.Add(tally);
    };
    constexpr int regions = UsualRegions;
    for (const auto& [kind, make] : KindsWithoutSky) {
        measure(kind, wrong, 80, [&](Generator& random, Tally& tally) {
            bench.Search(make(random), regions, usual, usualError, tally);
        });
        measure(std::string(kind) + ", eager", wrong, 100, [&](Generator& random, Tally& tally) {
            bench.Search(make(random), regions, eager, eagerError, tally);
        });
    }
    const auto elsewhere = [&](const char* name, const AlignSettings& settings, double error) {
        measure(name, wrong, 100, [&](Generator& random, Tally& tally) {
            const Case list = SkyCase(catalog, random, 0.7, 20, {});
            bench.Search(Elsewhere(list, random), regions, settings, error, tally);
        });
    };
    elsewhere("another place's", usual, usualError);
    elsewhere("another place's, eager", eager, eagerError);

    const auto simulated = [&](const char* name, int lists, double from, double to,
                               const Exposure& exposure) {
        measure(name, right, lists, [&](Generator& random, Tally& tally) {
            bench.Search(SkyCase(catalog, random, from, to, exposure), regions, usual, usualError,
                         tally);
        });
    };
    simulated("sky, 0.7° to 3°", 400, 0.7, 3, {});
    simulated("sky, 3° to 20°", 400, 3, 20, {});
    simulated("corners off by 4 pixels", 300, 1, 18, {0.3, 4, 0.1, 0.2, 100});
    simulated("corners off by 12 pixels", 300, 1, 18, {0.3, 12, 0.1, 0.2, 100});
    simulated("half lost, half false", 400, 0.7, 18, {0.3, 1, 0.5, 0.5, 100});
    simulated("centroids off by 1 pixel", 300, 0.7, 18, {1, 1, 0.2, 0.2, 100});
    simulated("12 true stars of 24", 300, 0.7, 18, {0.3, 1, 0.1, 0.5, 12});
    simulated("6 to 8 true stars", 200, 0.7, 10, {0.3, 0, 0, 0.2, 7});

    for (const fs::path& table : tables) {
        Generator random(5);
        const std::vector<Picture> pictures = ReadPictures(table, true, random);
        const std::string name = table.parent_path().filename().string();
        Tally tally;
        bench.Name = name;
        for (const Picture& picture : pictures) {
            bench.Search(picture.List, regions, usual, usualError, tally);
        }
        Print(name, tally);
        right.Add(tally);
        Tally away;
        bench.Name = name + ", elsewhere";
        const int each =
            std::max(1, static_cast<int>(200 * share / static_cast<double>(pictures.size() + 1)));
        for (const Picture& picture : pictures) {
            for (int i = 0; i < each; ++i) {
                const bool eagerly = i % 2 == 1;
                bench.Search(Elsewhere(picture.List, random), regions, eagerly ? eager : usual,
                             eagerly ? eagerError : usualError, away);
            }
        }
        Print(bench.Name, away);
        wrong.Add(away);
    }
    if (!others.empty()) {
        Generator random(6);
        const std::vector<Picture> pictures = ReadPictures(others, false, random);
        Tally tally;
        bench.Name = "no sky";
        for (const Picture& picture : pictures) {
            bench.Search(picture.List, regions, usual, usualError, tally);
            bench.Search(picture.List, regions, eager, eagerError, tally);
        }
        Print(bench.Name, tally);
        wrong.Add(tally);
    }
    Print("**places that are wrong**", wrong);
    Print("**places that are right**", right);
    std::printf(
        "\n| stars | lists | surest plate, log10 | below 1 | below 1e-0.5 | below 0.1 |\n"
        "|---|--:|--:|--:|--:|--:|\n");
    for (const auto& [kind, make] : KindsWithoutSky) {
        MeasureExhaustive(kind, make, std::max(1, static_cast<int>(60 * share)));
    }
    return 0;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: vestrel-certainty-rates CATALOG-FOLDER [--share S] "
                     "[--pictures TABLE.tsv]... [--others TABLE.tsv]\n");
        return 2;
    }
    double share = 1;
    std::vector<std::filesystem::path> tables;
    std::filesystem::path others;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--share") share = std::atof(argv[i + 1]);
        if (option == "--pictures") tables.push_back(vestrel::PathFromText(argv[i + 1]));
        if (option == "--others") others = vestrel::PathFromText(argv[i + 1]);
    }
    return vestrel::Run(vestrel::PathFromText(argv[1]), share, tables, others);
}
