// How sure wrong and right matches are: the calibration of the certainty.
//
//   vestrel-certainty-rates CATALOG-FOLDER [--share S] [--pictures TABLE.tsv]... [--others
//   TABLE.tsv]
//
// Star lists of many kinds are matched, region by region, with the solver's matcher and with an
// eager one that lets far more wrong matches through, and each match is judged. For each kind: the
// regions tried, the wrong matches among them, how far the most certain one was from being none by
// chance, and how many were sure; the right matches, and how many were sure. Last, every plate
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
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "astro/libMath.h"
#include "bench/silentPort.h"
#include "catalog/libCatalogRegion.h"
#include "matching/libAlign.h"
#include "matching/libConfidence.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPlateMatch.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

/// A star list to be matched.
struct Case {
    PlateStarList Stars;  ///< brightest first
    int Width = 0;        ///< pixels
    int Height = 0;
    double FieldWidth = 0;  ///< as the search is told, radians
    double FieldHeight = 0;
    SkyPosition Start;
    std::optional<SkyPosition> Truth;  ///< nothing: no match is right
};

struct Tally {
    int Lists = 0;
    int Regions = 0;
    int Wrong = 0;  ///< matches
    int WrongSure = 0;
    double SurestWrong = INFINITY;  ///< log10 of the trials over its likelihood ratio
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

double Separation(SkyPosition a, SkyPosition b) {
    const double cosine = std::sin(a.Dec) * std::sin(b.Dec) +
                          std::cos(a.Dec) * std::cos(b.Dec) * std::cos(a.Ra - b.Ra);
    return std::acos(std::clamp(cosine, -1.0, 1.0));
}

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

    std::string Name;  ///< of the kind that is measured

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

constexpr AlignSettings usual;
constexpr double usualError = 2;  // pixels
/// Lets hundreds of times as many wrong matches through.
constexpr AlignSettings eager{0.02, 400, 0.1, 45};
constexpr double eagerError = 8;

// Lists.

using Generator = std::mt19937_64;

double Uniform(Generator& random, double from, double to) {
    return std::uniform_real_distribution<double>(from, to)(random);
}
double Normal(Generator& random) {
    return std::normal_distribution<double>(0, 1)(random);
}
SkyPosition Anywhere(Generator& random) {
    return {Uniform(random, 0, 2 * Pi), std::asin(Uniform(random, -1, 1))};
}

/// A frame without stars: 500 to 4000 pixels wide, for a search of `from` to `to` degrees.
Case EmptyCase(Generator& random, double from, double to) {
    Case list;
    list.Width = static_cast<int>(500 * std::pow(8, Uniform(random, 0, 1)));
    list.Height = static_cast<int>(list.Width * Uniform(random, 0.6, 1));
    list.FieldWidth = from * std::pow(to / from, Uniform(random, 0, 1)) * Pi / 180;
    list.FieldHeight = list.FieldWidth * list.Height / list.Width;
    list.Start = Anywhere(random);
    return list;
}

void AddStar(Case& list, double x, double y) {
    if (x < 0 || y < 0 || x > list.Width - 1 || y > list.Height - 1) return;
    // The stars come brightest first.
    const double flux = 1e6 / (list.Stars.Count() + 1);
    list.Stars.Add({static_cast<float>(x), static_cast<float>(y), static_cast<float>(flux)});
}

void AddStarAnywhere(Case& list, Generator& random) {
    AddStar(list, Uniform(random, 0, list.Width), Uniform(random, 0, list.Height));
}

Case RandomCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const int count = static_cast<int>(Uniform(random, 12, 101));
    for (int i = 0; i < count; ++i) AddStarAnywhere(list, random);
    return list;
}

Case CoarseCase(Generator& random) {
    Case list = EmptyCase(random, 5, 20);
    list.Width = 512;
    list.Height = static_cast<int>(list.Width * list.FieldHeight / list.FieldWidth);
    const int count = static_cast<int>(Uniform(random, 25, 31));
    for (int i = 0; i < count; ++i) AddStarAnywhere(list, random);
    return list;
}

/// One to five clumps, and stars between them.
Case ClumpedCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const int clumps = static_cast<int>(Uniform(random, 1, 6));
    std::vector<std::array<double, 3>> places;
    for (int c = 0; c < clumps; ++c) {
        places.push_back({Uniform(random, 0, list.Width), Uniform(random, 0, list.Height),
                          list.Width * Uniform(random, 0.01, 0.12)});
    }
    for (int i = 0; i < 100; ++i) {
        const auto& [x, y, spread] = places[static_cast<std::size_t>(i % clumps)];
        if (Uniform(random, 0, 1) < 0.2) {
            AddStarAnywhere(list, random);
        } else {
            AddStar(list, x + spread * Normal(random), y + spread * Normal(random));
        }
    }
    return list;
}

/// Stars on lines: edges of foregrounds, spikes, columns.
Case LinedCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const int lines = static_cast<int>(Uniform(random, 1, 5));
    std::vector<std::array<double, 4>> places;
    for (int l = 0; l < lines; ++l) {
        places.push_back({Uniform(random, 0, list.Width), Uniform(random, 0, list.Height),
                          Uniform(random, 0, list.Width), Uniform(random, 0, list.Height)});
    }
    for (int i = 0; i < 90; ++i) {
        const auto& [x0, y0, x1, y1] = places[static_cast<std::size_t>(i % lines)];
        const double along = Uniform(random, 0, 1);
        if (Uniform(random, 0, 1) < 0.2) {
            AddStarAnywhere(list, random);
        } else {
            AddStar(list, x0 + along * (x1 - x0) + Normal(random),
                    y0 + along * (y1 - y0) + Normal(random));
        }
    }
    return list;
}

/// Lights in rows and columns, some of them dark.
Case LatticeCase(Generator& random) {
    Case list = EmptyCase(random, 0.7, 20);
    const double columns = Uniform(random, 5, 16);
    const double rows = Uniform(random, 5, 12);
    const double turn = Uniform(random, 0, 0.3);
    std::vector<std::pair<double, double>> lights;
    for (int c = 0; c < columns; ++c) {
        for (int r = 0; r < rows; ++r) {
            const double x = list.Width * (c + 0.5) / columns + Normal(random);
            const double y = list.Height * (r + 0.5) / rows + Normal(random);
            if (Uniform(random, 0, 1) < 0.7) lights.emplace_back(x + turn * y, y - turn * x);
        }
    }
    std::shuffle(lights.begin(), lights.end(), random);
    for (const auto& [x, y] : lights) {
        if (list.Stars.Count() < 100) AddStar(list, x, y);
    }
    return list;
}

/// What belongs to a simulated exposure.
struct Exposure {
    double Noise = 0.2;           ///< of centroids, pixels
    double Distortion = 0;        ///< at the corner, pixels
    double Lost = 0.1;            ///< share of the catalog's stars that are not seen
    double False = 0.2;           ///< share of what is seen that is in no catalog
    std::size_t TrueStars = 100;  ///< seen at most
};

/// A list of catalog stars, with what optics and extraction do to it.
Case SkyCase(const fs::path& catalog, Generator& random, double from, double to,
             const Exposure& exposure) {
    Case list = EmptyCase(random, from, to);
    FrameGeometry geometry;
    geometry.Width = list.Width;
    geometry.Height = list.Height;
    geometry.Centre = list.Start;
    geometry.RadiansPerPixel = 2 * std::tan(list.FieldWidth / 2) / list.Width;
    geometry.UpPositionAngle = Uniform(random, 0, 2 * Pi);
    geometry.Mirrored = Uniform(random, 0, 1) < 0.5;
    const double half = std::hypot(list.FieldWidth, list.FieldHeight) / 2;
    std::vector<FrameStar> stars =
        CatalogFrameStars(catalog, geometry, MagnitudeLimitFor(half) + 0.5);
    std::erase_if(stars, [&](const FrameStar& star) {
        return star.Place.X < 0 || star.Place.Y < 0 || star.Place.X > list.Width - 1 ||
               star.Place.Y > list.Height - 1 || Uniform(random, 0, 1) < exposure.Lost;
    });
    stars.resize(std::min(stars.size(), exposure.TrueStars));
    if (stars.empty()) return list;
    const int added =
        static_cast<int>(static_cast<double>(stars.size()) * exposure.False / (1 - exposure.False));
    for (const FrameStar& star : RandomFrameStars(geometry, added, stars.front().Sky.Mag,
                                                  stars.back().Sky.Mag + 0.5, random())) {
        stars.push_back(star);
    }
    struct Seen {
        double X, Y, Magnitude;
    };
    std::vector<Seen> seen;
    const double middleX = (list.Width - 1) / 2.0;
    const double middleY = (list.Height - 1) / 2.0;
    const double corner = std::hypot(middleX, middleY);
    const double tilt = exposure.Distortion * Uniform(random, -0.3, 0.3);
    for (const FrameStar& star : stars) {
        const double u = (star.Place.X - middleX) / corner;
        const double v = (star.Place.Y - middleY) / corner;
        const double r2 = u * u + v * v;
        seen.push_back({star.Place.X + exposure.Distortion * r2 * u + tilt * (r2 + 2 * u * u) +
                            exposure.Noise * Normal(random),
                        star.Place.Y + exposure.Distortion * r2 * v + tilt * 2 * u * v +
                            exposure.Noise * Normal(random),
                        star.Sky.Mag + 0.3 * Normal(random)});
    }
    std::sort(seen.begin(), seen.end(),
              [](const Seen& a, const Seen& b) { return a.Magnitude < b.Magnitude; });
    seen.resize(std::min<std::size_t>(seen.size(), 100));
    for (const Seen& star : seen) AddStar(list, star.X, star.Y);
    list.Truth = list.Start;
    Projection plane;
    plane.SetProjectionCentre(*list.Truth, 1);
    list.Start = plane.PlaneToSky(list.FieldWidth * Uniform(random, -0.25, 0.25),
                                  list.FieldHeight * Uniform(random, -0.25, 0.25));
    const double told = Uniform(random, 0.96, 1.04);
    list.FieldWidth *= told;
    list.FieldHeight *= told;
    return list;
}

/// The same list elsewhere, at least two fields away.
Case Elsewhere(Case list, Generator& random) {
    const SkyPosition from = list.Truth.value_or(list.Start);
    do list.Start = Anywhere(random);
    while (Separation(list.Start, from) < 0.2 + 4 * (list.FieldWidth + list.FieldHeight));
    list.Truth.reset();
    return list;
}

// Pictures.

struct Picture {
    Case List;
    std::string File;
};

std::vector<Picture> ReadPictures(const fs::path& table, bool sky, Generator& random) {
    std::ifstream file(table);
    std::string line;
    std::vector<std::string> names;
    std::vector<Picture> pictures;
    while (std::getline(file, line)) {
        std::vector<std::string> fields;
        std::istringstream text(line);
        for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
        if (names.empty()) {
            names = fields;
            continue;
        }
        const auto value = [&](const char* name) {
            const auto at = std::find(names.begin(), names.end(), name) - names.begin();
            return static_cast<std::size_t>(at) < fields.size()
                       ? std::atof(fields[static_cast<std::size_t>(at)].c_str())
                       : 0;
        };
        const auto seen = [&](const Picture& picture) { return picture.File == fields[0]; };
        if (std::any_of(pictures.begin(), pictures.end(), seen)) continue;
        const auto state = std::make_unique<ProgramState>();
        SilentPort port;
        if (!OpenImage(*state, port, TextFromPath(table.parent_path() / fields[0])) ||
            !FindPlateStars(*state, port)) {
            continue;
        }
        Picture picture;
        picture.File = fields[0];
        Case& list = picture.List;
        list.Stars = state->PlateStars;
        list.Width = state->Image.Width;
        list.Height = state->Image.Height;
        if (sky) {
            list.FieldWidth = value("width_arcmin") / 60 * Pi / 180;
            list.FieldHeight = value("height_arcmin") / 60 * Pi / 180;
            list.Start = {value("ra_deg") * Pi / 180, value("dec_deg") * Pi / 180};
            list.Truth = list.Start;
        } else {
            list.FieldWidth = std::pow(20 / 0.7, Uniform(random, 0, 1)) * 0.7 * Pi / 180;
            list.FieldHeight = list.FieldWidth * list.Height / list.Width;
            list.Start = Anywhere(random);
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

// The measurement.

void Print(const std::string& name, const Tally& tally) {
    std::printf("| %s | %d | %d | %d | %.1f | %d | %d | %d |\n", name.c_str(), tally.Lists,
                tally.Regions, tally.Wrong, tally.SurestWrong, tally.WrongSure, tally.Right,
                tally.RightSure);
    std::fflush(stdout);
}

using Points = std::vector<std::complex<double>>;

/// A plate through two pairs, with these as its seed; nothing when it is no plate.
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

/// The best of all plates through two pairs of two short lists: its likelihood ratio over their
/// number, log10.
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

/// What a search finds that tries everything, on lists where nothing is right. The catalog's are
/// even.
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
        Generator random(static_cast<std::uint64_t>(sum.Lists) + 1);
        Tally tally;
        for (int i = 0; i < std::max(1, static_cast<int>(lists * share)); ++i) {
            search(random, tally);
        }
        Print(name, tally);
        sum.Add(tally);
    };
    const std::pair<const char*, Maker> kinds[] = {{"random", RandomCase},
                                                   {"coarse, 25 to 30 stars", CoarseCase},
                                                   {"clumped", ClumpedCase},
                                                   {"on lines", LinedCase},
                                                   {"on a lattice", LatticeCase}};
    constexpr int regions = 25;
    for (const auto& [kind, make] : kinds) {
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
    for (const auto& [kind, make] : kinds) {
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
