// Measures how often the quad search is right and wrong: on star lists of places in the tables, of
// places in no table (real ones, stretched), and of random stars, spread evenly or crowded.
//
//   vestrel-quad-rates CATALOG-FOLDER [LISTS]
//
// For each range of field sizes and kind of list: the outcome of the search that accepts the first
// five pairs, and of the search that requires a sure match and may thin the list.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <random>

#include "bench/silentPort.h"
#include "catalog/libCatalogRegion.h"
#include "platform/libPlatform.h"
#include "program/mMORA.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

enum class Kind { Known, Stretched, Random, Crowded };
constexpr const char* kindNames[] = {"known", "stretched", "random", "crowded"};

/// A frame whose star list is searched for.
struct Trial {
    FrameGeometry Geometry;
    double Width = 0;  ///< radians
    double Height = 0;
    double HalfDiagonal = 0;
};

struct Counts {
    int Right = 0;
    int Wrong = 0;
    int None = 0;
};

double Separation(SkyPosition a, SkyPosition b) {
    const double cosine = std::sin(a.Dec) * std::sin(b.Dec) +
                          std::cos(a.Dec) * std::cos(b.Dec) * std::cos(a.Ra - b.Ra);
    return std::acos(std::clamp(cosine, -1.0, 1.0));
}

Trial DrawTrial(const QuadBand& band, std::mt19937_64& random) {
    std::uniform_real_distribution<double> uniform(0, 1);
    const double diagonal = band.SmallestDiagonal *
                            std::pow(band.LargestDiagonal / band.SmallestDiagonal, uniform(random));
    Trial trial;
    trial.Width = 0.8 * diagonal;
    trial.Height = 0.6 * diagonal;
    trial.HalfDiagonal = diagonal / 2;
    trial.Geometry.Width = 1600;
    trial.Geometry.Height = 1200;
    trial.Geometry.Centre.Ra = 2 * std::numbers::pi * uniform(random);
    trial.Geometry.Centre.Dec = std::asin(2 * uniform(random) - 1);
    trial.Geometry.RadiansPerPixel = 2 * std::tan(trial.Width / 2) / trial.Geometry.Width;
    trial.Geometry.UpPositionAngle = 2 * std::numbers::pi * uniform(random);
    trial.Geometry.Mirrored = uniform(random) < 0.5;
    return trial;
}

/// The list that an extraction would give: places off by 0.2 pixels, magnitudes by 1/6. Every
/// second frame lacks up to four of the brightest stars; the faintest are in no catalog.
PlateStarList ImageStars(const Trial& trial, Kind kind, const std::filesystem::path& catalog,
                         std::mt19937_64& generator) {
    constexpr std::size_t most = 100;  // as many as an extraction keeps
    std::normal_distribution<double> normal(0, 1);
    std::uniform_real_distribution<double> uniform(0, 1);
    const double limit = MagnitudeLimitFor(trial.HalfDiagonal);
    std::vector<FrameStar> stars;
    const bool inCatalog = kind == Kind::Known || kind == Kind::Stretched;
    if (inCatalog) stars = CatalogFrameStars(catalog, trial.Geometry, limit);
    std::erase_if(stars, [&trial](const FrameStar& star) {
        return star.Place.X < 0 || star.Place.Y < 0 || star.Place.X > trial.Geometry.Width - 1 ||
               star.Place.Y > trial.Geometry.Height - 1;
    });
    const int lost = std::max(0, static_cast<int>(uniform(generator) * 10) - 5);
    stars.erase(
        stars.begin(),
        stars.begin() + std::min<std::ptrdiff_t>(lost, static_cast<std::ptrdiff_t>(stars.size())));
    if (stars.size() < most) {
        const int added = static_cast<int>(most - stars.size());
        const auto faint = RandomFrameStars(trial.Geometry, added, limit, limit + 2, generator());
        stars.insert(stars.end(), faint.begin(), faint.end());
    }
    PlateStarList list;
    for (FrameStar& star : stars) {
        if (kind == Kind::Crowded) {
            star.Place = {800 + 70 * normal(generator), 600 + 70 * normal(generator)};
        }
        // More than the limit for any plate.
        if (kind == Kind::Stretched) star.Place.X *= 1.1;
        const double magnitude = star.Sky.Mag + normal(generator) / 6;
        list.Add({static_cast<float>(star.Place.X + normal(generator) / 5),
                  static_cast<float>(star.Place.Y + normal(generator) / 5),
                  static_cast<float>(std::pow(10, -0.4 * (magnitude - 20)))});
    }
    std::sort(list.begin(), list.end(),
              [](const PlateStar& a, const PlateStar& b) { return a.Flux > b.Flux; });
    list.Resize(std::min(list.Count(), static_cast<std::int32_t>(most)));
    return list;
}

void Count(Counts& counts, const ProgramState& state, const Trial& trial, bool matched) {
    const SkyPosition truth = trial.Geometry.Centre;
    if (!matched) {
        ++counts.None;
    } else if (Separation(state.QuadMatch.Centre, truth) < 0.05 * trial.HalfDiagonal) {
        ++counts.Right;
    } else {
        ++counts.Wrong;
    }
}

void OpenTables(ProgramState& state, const Trial& trial) {
    if (LoadQuadTables(state, trial.Width, trial.Height)) return;
    std::fprintf(stderr, "%s\n", state.Quads.Fault.c_str());
    std::exit(1);
}

void Measure(ProgramState& state, const QuadBand& band, int lists) {
    SilentPort port;
    const double tolerance = state.Parameters.MaxError;
    for (const Kind kind : {Kind::Known, Kind::Stretched, Kind::Random, Kind::Crowded}) {
        std::mt19937_64 random(static_cast<std::uint64_t>(kind) + 1);
        Counts first;
        Counts sure;
        double seconds = 0;
        std::vector<std::uint64_t> read;
        for (int i = 0; i < lists; ++i) {
            const Trial trial = DrawTrial(band, random);
            state.Image.Width = trial.Geometry.Width;
            state.Image.Height = trial.Geometry.Height;
            state.PlateStars = ImageStars(trial, kind, state.Catalog.Folder, random);
            OpenTables(state, trial);
            state.QuadMatch = {};
            Count(first, state, trial,
                  SearchQuads(state, port, state.PlateStars, trial.Width, trial.Height, tolerance));
            state.QuadMatch = {};
            OpenTables(state, trial);
            Count(sure, state, trial,
                  SearchQuads(state, port, state.PlateStars, trial.Width, trial.Height, tolerance,
                              [](const QuadSearch& search) { return IsSure(search); }));
            seconds += state.QuadMatch.Seconds;
            read.push_back(state.Quads.Tables.BytesRead());
        }
        std::sort(read.begin(), read.end());
        std::printf("%5.2f to %5.2f  %-9s %6d  %6d %6d %6d  %6d %6d %6d  %9.3f %6.1f %6.1f\n",
                    band.SmallestDiagonal * 180 / std::numbers::pi,
                    band.LargestDiagonal * 180 / std::numbers::pi,
                    kindNames[static_cast<int>(kind)], lists, first.Right, first.Wrong, first.None,
                    sure.Right, sure.Wrong, sure.None, seconds / lists,
                    static_cast<double>(read[read.size() / 2]) / 1e6,
                    static_cast<double>(read.back()) / 1e6);
        std::fflush(stdout);
    }
}

int Run(const std::filesystem::path& folder, int lists) {
    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = folder;
    const FileHandle file = OpenFile(QuadFilePath(*state), "rb");
    std::vector<QuadBand> bands;
    std::string fault = "cannot be read";
    if (!file || !ReadQuadBands(file.get(), bands, fault)) {
        std::fprintf(stderr, "%s %s\n", QuadFileName, fault.c_str());
        return 1;
    }
    std::printf(
        "diagonal, deg   stars      lists  five pairs:           sure match:\n"
        "                                  right  wrong   none   right  wrong   none    "
        "seconds  MB read, most\n");
    for (const QuadBand& band : bands) {
        Measure(*state, band, lists);
    }
    return 0;
}

}  // namespace
}  // namespace vestrel

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: vestrel-quad-rates CATALOG-FOLDER [LISTS]\n");
        return 2;
    }
    return vestrel::Run(vestrel::PathFromText(argv[1]), argc > 2 ? std::atoi(argv[2]) : 100);
}
