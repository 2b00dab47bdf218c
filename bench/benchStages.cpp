// Times every stage of a solve, and the whole solve from file to result, on rendered frames of 2,
// 8, 16 and 32 megapixels. The sky is synthetic: no catalog is needed.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "bench/silentPort.h"
#include "catalog/libCatalogRegion.h"
#include "extraction/libBackground.h"
#include "extraction/libFilter.h"
#include "extraction/libStarDetection.h"
#include "image/libFITS.h"
#include "matching/libAlign.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mCommandLine.h"
#include "program/mPlateMatch.h"
#include "program/mStarExtraction.h"
#include "tools/libFrameFile.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;

/// A synthetic sky of 12° by 12° as a catalog, and frames of its middle, in a new folder.
class Sky {
 public:
    Sky() : folder_(fs::temp_directory_path() / "vestrel-bench") {
        fs::create_directories(CatalogFolder());
        constexpr int starCount = 60000;
        constexpr double faintest = 14;
        FrameGeometry wide = Geometry(1);
        wide.Width = wide.Height = 1000;
        wide.RadiansPerPixel = 12.0 / DegreesPerRadian / wide.Width;
        stars_ = RandomFrameStars(wide, starCount, faintest - 7, faintest, 1);

        std::map<std::string, std::string> cells;
        for (const FrameStar& star : stars_) {
            const auto record = StoredStar(star.Sky);
            if (!record) continue;
            const auto bytes = EncodeCatalogStar(*record);
            cells[CellName(CellOfStored(*record))].append(bytes.begin(), bytes.end());
        }
        for (const auto& [name, bytes] : cells) ReplaceFile(CatalogFolder() / name, bytes);
    }
    ~Sky() {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    Sky(const Sky&) = delete;
    Sky& operator=(const Sky&) = delete;

    static constexpr double WidthDegrees = 2;
    static FrameGeometry Geometry(int megapixels) {
        FrameGeometry geometry;
        geometry.Centre = {1.5, 0.4};
        geometry.Width = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 4 / 3)));
        geometry.Height = geometry.Width * 3 / 4;
        geometry.RadiansPerPixel = WidthDegrees / DegreesPerRadian / geometry.Width;
        return geometry;
    }
    fs::path CatalogFolder() const { return folder_ / "KEL"; }

    /// The path of a frame, which is rendered when it is first requested.
    fs::path FramePath(int megapixels, int bitPix) const {
        fs::path path =
            folder_ / (std::to_string(megapixels) + "mp" + std::to_string(bitPix) + ".fit");
        if (!fs::exists(path)) {
            const FrameGeometry geometry = Geometry(megapixels);
            FrameExposure exposure;
            exposure.ZeroPoint =
                ZeroPointFor(exposure, MagnitudeLimitFor(geometry.Radius()) + 1.5, 8);
            std::vector<FrameStar> placed;
            for (const FrameStar& star : stars_) {
                if (const auto place = SkyToFrame(geometry, PositionOf(star.Sky))) {
                    placed.push_back({star.Sky, *place});
                }
            }
            const Frame frame = RenderFrame(geometry, exposure, placed);
            ReplaceFile(path, FrameFileBytes(frame, bitPix, {}));
        }
        return path;
    }

 private:
    fs::path folder_;
    std::vector<FrameStar> stars_;
};

const Sky& TheSky() {
    static const Sky sky;
    return sky;
}

void LoadFrame(int megapixels, PlateImage& image) {
    ReadFailure failure;
    ReadFitsFile(TheSky().FramePath(megapixels, 16), image, {}, failure);
}

BackgroundBlocks EstimateSky(const PlateImage& image) {
    return EstimateBackgroundBlocks(image.Pixels, image.DataOffset, image.Width, image.Height, 30,
                                    50.0);
}

void SubtractSky(PlateImage& image, const BackgroundBlocks& sky) {
    SubtractBackgroundBlocks(image.Pixels, image.DataOffset, image.Width, image.Height, sky);
}

void Reading(benchmark::State& state) {
    const auto path =
        TheSky().FramePath(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const auto image = std::make_unique<PlateImage>();
    ReadFailure failure;
    for (auto _ : state) benchmark::DoNotOptimize(ReadFitsFile(path, *image, {}, failure));
}
BENCHMARK(Reading)
    ->ArgsProduct({{2, 8, 16, 32}, {8, 16, -32}})
    ->ArgNames({"megapixels", "bitpix"})
    ->Unit(benchmark::kMillisecond);

void BackgroundEstimate(benchmark::State& state) {
    const auto image = std::make_unique<PlateImage>();
    LoadFrame(static_cast<int>(state.range(0)), *image);
    for (auto _ : state) benchmark::DoNotOptimize(EstimateSky(*image));
}
void BackgroundSubtraction(benchmark::State& state) {
    const auto image = std::make_unique<PlateImage>();
    LoadFrame(static_cast<int>(state.range(0)), *image);
    const BackgroundBlocks sky = EstimateSky(*image);
    for (auto _ : state) SubtractSky(*image, sky);
}
void Smoothing(benchmark::State& state) {
    const auto image = std::make_unique<PlateImage>();
    LoadFrame(static_cast<int>(state.range(0)), *image);
    for (auto _ : state) GaussianFilter(image->Pixels, image->Width, image->Height);
}
void Extraction(benchmark::State& state) {
    const auto image = std::make_unique<PlateImage>();
    LoadFrame(static_cast<int>(state.range(0)), *image);
    SubtractSky(*image, EstimateSky(*image));
    ExtractionFacts facts;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            ExtractStars(*image, DetectionSettingsOf(SolveParameters()), facts));
    }
    state.counters["stars"] = facts.StarsFound;
}
void WholeSolve(benchmark::State& state) {
    const auto path = TheSky().FramePath(static_cast<int>(state.range(0)), 16);
    const FrameGeometry geometry = Sky::Geometry(static_cast<int>(state.range(0)));
    const double width = geometry.Width * geometry.RadiansPerPixel;
    const std::string parameters = NumberText(geometry.Centre.Ra + width / 6) + "," +
                                   NumberText(geometry.Centre.Dec) + "," + NumberText(width) + "," +
                                   NumberText(width * 3 / 4) + ",9," + TextFromPath(path);
    SilentPort port;
    SolveCode code = SolveCode::NoImage;
    while (state.KeepRunning()) {
        // Like a program that is started for one image: only the operating system's file cache is
        // warm.
        const auto program = std::make_unique<ProgramState>();
        program->Catalog.Folder = TheSky().CatalogFolder();
        code = RunUnattended(*program, port, parameters).Result.Code;
    }
    if (code != SolveCode::Solved) state.SkipWithError("the frame was not solved");
}
#define VESTREL_SIZES(stage)    \
    BENCHMARK(stage)            \
        ->Arg(2)                \
        ->Arg(8)                \
        ->Arg(16)               \
        ->Arg(32)               \
        ->ArgName("megapixels") \
        ->Unit(benchmark::kMillisecond)
VESTREL_SIZES(BackgroundEstimate);
VESTREL_SIZES(BackgroundSubtraction);
VESTREL_SIZES(Smoothing);
VESTREL_SIZES(Extraction);
VESTREL_SIZES(WholeSolve)->UseRealTime();

/// The catalog stars about the middle of the sky and the stars of a frame of it.
struct Lists {
    PlateStarList Catalog;
    PlateStarList Plate;

    explicit Lists(double offset) {
        const FrameGeometry geometry = Sky::Geometry(2);
        const auto image = std::make_unique<PlateImage>();
        LoadFrame(2, *image);
        SubtractSky(*image, EstimateSky(*image));
        ExtractionFacts facts;
        Plate = ExtractStars(*image, DetectionSettingsOf(SolveParameters()), facts);
        CatalogCache cache;
        cache.Folder = TheSky().CatalogFolder();
        Region(cache, geometry.Centre.Ra + offset, geometry.Centre.Dec);
    }
    void Region(CatalogCache& cache, double ra, double dec) {
        const double radius = Sky::Geometry(2).Radius();
        Projection plane;
        plane.SetProjectionCentre({ra, dec}, SolveArcsecondsPerRadian);
        Catalog = RegionStars(cache, plane, {ra, dec}, radius, MagnitudeLimitFor(radius));
    }
};

void CatalogRegion(benchmark::State& state) {
    Lists lists(0);
    CatalogCache cache;
    cache.Folder = TheSky().CatalogFolder();
    const bool warm = state.range(0) != 0;
    while (state.KeepRunning()) {
        if (!warm) {
            cache.Cells.clear();
            cache.Index.clear();
            cache.CachedStars = 0;
        }
        lists.Region(cache, 1.5, 0.4);
    }
    state.counters["stars"] = lists.Catalog.Count();
}
BENCHMARK(CatalogRegion)->Arg(0)->Arg(1)->ArgName("warm")->Unit(benchmark::kMicrosecond);

/// Regions of a deep sky in memory, at 40 places in turn. Argument: the width of the field, in
/// hundredths of a degree. $VESTREL_DEEP_CATALOG is a catalog made by
/// `vestrel-catalog synthesize --density 1000 --ra 100 --dec 20 --radius 6`.
void DeepRegion(benchmark::State& state) {
    const char* folder = std::getenv("VESTREL_DEEP_CATALOG");
    if (folder == nullptr) return state.SkipWithError("$VESTREL_DEEP_CATALOG is not set");
    CatalogCache cache;
    cache.Folder = PathFromText(folder);
    const double width = static_cast<double>(state.range(0)) / 100 * RadiansPerDegree;
    const double radius = std::hypot(width, width * 3 / 4) / 2;
    constexpr int places = 40;
    std::int64_t stars = 0;
    std::int64_t regions = 0;
    const auto query = [&](int place) {
        const SkyPosition centre{(97 + place % 8) * RadiansPerDegree,
                                 (17.3 + 1.1 * static_cast<int>(place / 8)) * RadiansPerDegree};
        Projection plane;
        plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
        stars += RegionStars(cache, plane, centre, radius, MagnitudeLimitFor(radius)).Count();
        ++regions;
    };
    for (int place = 0; place < places; ++place) query(place);
    int place = 0;
    for (auto _ : state) query(place++ % places);
    state.counters["stars"] = static_cast<double>(stars) / static_cast<double>(regions);
    std::int64_t held = 0;
    for (const CachedCell& cell : cache.Cells) held += std::ssize(cell.Stars) - 1;
    state.counters["read"] = static_cast<double>(held) / static_cast<double>(cache.CachedStars);
}
BENCHMARK(DeepRegion)
    ->Arg(20)
    ->Arg(50)
    ->Arg(100)
    ->ArgName("hundredths")
    ->Unit(benchmark::kMicrosecond);

void Triangles(benchmark::State& state) {
    const Lists lists(0);
    StarTriangleList triangles;
    for (auto _ : state) triangles = BuildTriangles(lists.Plate, 45);
    state.counters["triangles"] = triangles.Count();
}
BENCHMARK(Triangles)->Unit(benchmark::kMicrosecond);

/// One region of a spiral. Argument 0: at the frame's place; 1: where nothing matches.
void Alignment(benchmark::State& state) {
    const Lists lists(state.range(0) == 0 ? 0 : 0.07);
    const SolveParameters usual;
    KeptTriangles kept;
    bool matched = false;
    while (state.KeepRunning()) {
        matched =
            AlignImages(lists.Catalog, lists.Plate, usual.MaxError, AlignSettingsOf(usual), kept)
                .Matched;
    }
    if (matched != (state.range(0) == 0)) state.SkipWithError("not the expected outcome");
}
BENCHMARK(Alignment)->Arg(0)->Arg(1)->ArgName("elsewhere")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace vestrel

BENCHMARK_MAIN();
