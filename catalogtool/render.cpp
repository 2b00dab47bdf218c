// vestrel-catalog render: renders a frame of the sky from the catalog, with its truth beside it.
#include <CLI/App.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "catalog/libCatalogRegion.h"
#include "catalogtool/commands.h"
#include "catalogtool/libToolReport.h"
#include "image/libFitsCards.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "tools/libFrameFile.h"
#include "tools/libFrameRenderer.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

struct RenderOptions {
    std::string Catalog;
    std::string Ra;
    std::string Dec;
    std::string Size;
    std::string Out;
    int WidthPixels = 1600;
    double Rotation = 0;
    bool Mirrored = false;
    std::vector<double> Distortion;
    int Format = 16;
    FrameExposure Exposure;
    std::optional<double> MagnitudeLimit;
    std::optional<double> ZeroPoint;
    std::optional<double> SkyLevel;
    std::optional<double> Gain;
    std::optional<double> Saturation;
    std::optional<int> HotPixels;
    std::vector<double> Trail;
    std::vector<double> Defocus;
    std::optional<int> RandomStars;
    int FaintStars = 0;
    double FaintFrom = 11.5;  ///< where the completeness of the usual catalog ends
};

/// The frame that the options describe.
struct RenderPlan {
    FrameGeometry Geometry;
    FrameExposure Exposure;
    double FieldHalfDiagonal = 0;  ///< radians
    double SolveLimit = 0;         ///< magnitudes
    double DrawnLimit = 0;
};

[[noreturn]] void WrongUsage(const std::string& text) {
    throw ToolFailure(ToolExit::WrongUsage, text);
}

FrameGeometry GeometryOf(const RenderOptions& options) {
    FrameGeometry geometry;
    geometry.Centre.Ra = ParseRA(options.Ra);
    if (geometry.Centre.Ra == InvalidAngle) WrongUsage("--ra: no right ascension: " + options.Ra);
    geometry.Centre.Dec = ParseDec(options.Dec);
    if (geometry.Centre.Dec == InvalidAngle) WrongUsage("--dec: no declination: " + options.Dec);
    const auto size = ParseFieldSize(options.Size);
    if (!size) WrongUsage("--size: no field size: " + options.Size);

    // The solver cannot read larger sizes.
    constexpr double mostPixels = 32767;
    constexpr double fewestPixels = 20;
    const double height = std::nearbyint(options.WidthPixels * size->second / size->first);
    if (options.WidthPixels < fewestPixels || options.WidthPixels > mostPixels ||
        !(height >= fewestPixels && height <= mostPixels)) {
        WrongUsage("a frame has 20 to 32767 columns and rows, not " +
                   std::to_string(options.WidthPixels) + " x " + PlainNumberText(height));
    }
    geometry.Width = options.WidthPixels;
    geometry.Height = static_cast<int>(height);
    geometry.RadiansPerPixel = size->first / options.WidthPixels;
    geometry.UpPositionAngle = options.Rotation * RadiansPerDegree;
    geometry.Mirrored = options.Mirrored;
    if (!options.Distortion.empty()) {
        geometry.Distortion = options.Distortion[0];
        if (options.Distortion.size() == 3) {
            geometry.AxisX = options.Distortion[1];
            geometry.AxisY = options.Distortion[2];
        }
        // More distortion would fold the frame over.
        const double half = geometry.HalfDiagonal();
        if (options.Distortion.size() == 2 || !(std::fabs(geometry.Distortion) <= half / 10) ||
            !(std::hypot(geometry.AxisX, geometry.AxisY) <= half / 2)) {
            WrongUsage(
                "--distortion: at most a tenth of the half-diagonal, and its axis at most "
                "half of it off the middle");
        }
    }
    if (geometry.Radius() > 60 * RadiansPerDegree) WrongUsage("--size: the field is too wide");
    return geometry;
}

RenderPlan PlanOf(const RenderOptions& options) {
    RenderPlan plan;
    plan.Geometry = GeometryOf(options);
    plan.FieldHalfDiagonal = plan.Geometry.HalfDiagonal() * plan.Geometry.RadiansPerPixel;
    plan.SolveLimit = MagnitudeLimitFor(plan.FieldHalfDiagonal);

    FrameExposure& exposure = plan.Exposure;
    exposure = options.Exposure;
    // With few counts there is less room between the noise of the sky and the brightest stars.
    const bool bytes = options.Format == 8;
    exposure.WholeCounts = options.Format != -32;
    exposure.Gain = options.Gain.value_or(bytes ? 24 : 1);
    exposure.SkyLevel = options.SkyLevel.value_or(bytes ? 60 : 1500);
    const double fullScale = bytes ? 255 : 65535;
    exposure.Saturation = options.Saturation.value_or(fullScale);
    if (exposure.Saturation > fullScale && exposure.WholeCounts) {
        WrongUsage("--saturation: the format ends at " + NumberText(fullScale));
    }
    if (exposure.SkyLevel >= exposure.Saturation) WrongUsage("--sky: the sky alone saturates");
    exposure.HotPixels = options.HotPixels.value_or(
        static_cast<int>(static_cast<double>(plan.Geometry.Width) * plan.Geometry.Height / 20000));
    if (!options.Trail.empty()) {
        exposure.TrailLength = options.Trail[0];
        if (options.Trail.size() > 1) exposure.TrailAngle = options.Trail[1] * RadiansPerDegree;
    }
    if (!options.Defocus.empty()) {
        exposure.DefocusDiameter = options.Defocus[0];
        if (options.Defocus.size() > 1) exposure.DefocusHole = options.Defocus[1];
    }
    constexpr double widestSpread = 500;
    constexpr double largestHole = 0.9;
    if (!(exposure.TrailLength >= 0 && exposure.TrailLength <= widestSpread &&
          exposure.DefocusDiameter >= 0 && exposure.DefocusDiameter <= widestSpread &&
          exposure.DefocusHole >= 0 && exposure.DefocusHole <= largestHole)) {
        WrongUsage("--trail, --defocus: at most 500 pixels, and a hole of at most 0.9");
    }
    // By default, stars well below what a solve needs are still above the noise.
    constexpr double deeper = 1.5;
    constexpr double clearSigmas = 8;
    exposure.ZeroPoint =
        options.ZeroPoint.value_or(ZeroPointFor(exposure, plan.SolveLimit + deeper, clearSigmas));
    plan.DrawnLimit = options.MagnitudeLimit.value_or(plan.SolveLimit + deeper + 1);
    return plan;
}

/// A declination for the truth, degrees: by the program's shortened pi those of the poles are a
/// little beyond 90.
double DecInDegrees(double radians) {
    return std::clamp(radians / RadiansPerDegree, -90.0, 90.0);
}

/// Removes the seconds, which a mount would not know: "08 40 24" becomes "08 40 00".
std::string ToTheMinute(const std::string& sexagesimal) {
    return sexagesimal.substr(0, sexagesimal.size() - 2) + "00";
}

std::vector<std::string> HeaderCards(const RenderOptions& options, const RenderPlan& plan) {
    const FrameGeometry& geometry = plan.Geometry;
    const double arcsecondsPerPixel = geometry.RadiansPerPixel / RadiansPerDegree * 3600;
    constexpr double pixelMicrometres = 5;
    return {
        FitsTextCard("OBJECT", options.RandomStars ? "random stars" : "catalog stars"),
        FitsTextCard("TELESCOP", "rendered, gnomonic optics"),
        FitsTextCard("INSTRUME", "vestrel-catalog render"),
        FitsTextCard("SWCREATE", "vestrel-catalog " VESTREL_VERSION),
        FitsNumberCard("EXPTIME", 60, "seconds"),
        FitsNumberCard("EGAIN", plan.Exposure.Gain, "electrons per count"),
        FitsNumberCard("XPIXSZ", pixelMicrometres, "micrometres"),
        FitsNumberCard("YPIXSZ", pixelMicrometres, "micrometres"),
        FitsNumberCard("FOCALLEN",
                       std::nearbyint(pixelMicrometres / 1000 / geometry.RadiansPerPixel),
                       "millimetres"),
        FitsNumberCard("SECPIX", RoundToDecimals(arcsecondsPerPixel, 2), "arcseconds per pixel"),
        FitsTextCard("OBJCTRA", ToTheMinute(FormatRA(geometry.Centre.Ra, false, 0))),
        FitsTextCard("OBJCTDEC", ToTheMinute(FormatDec(geometry.Centre.Dec, false, 0))),
    };
}

using Json = nlohmann::ordered_json;

Json TruthOf(const RenderOptions& options, const RenderPlan& plan,
             const std::vector<FrameStar>& stars) {
    const FrameGeometry& geometry = plan.Geometry;
    const FrameExposure& exposure = plan.Exposure;
    constexpr double detectable = 6;  // standard deviations of the sky
    constexpr std::size_t mostListed = 200;
    std::size_t inFrame = 0;
    std::size_t clear = 0;
    Json listed = Json::array();
    for (const FrameStar& star : stars) {
        const FramePoint& place = star.Place;
        if (place.X < -0.5 || place.Y < -0.5 || place.X >= geometry.Width - 0.5 ||
            place.Y >= geometry.Height - 0.5) {
            continue;
        }
        ++inFrame;
        if (PeakSigmas(exposure, star.Sky.Mag) > detectable) ++clear;
        if (inFrame > mostListed) continue;
        listed.push_back({{"x", place.X},
                          {"y", place.Y},
                          {"ra_deg", star.Sky.Ra / RadiansPerDegree},
                          {"dec_deg", DecInDegrees(star.Sky.Dec)},
                          {"mag", star.Sky.Mag}});
    }

    double up = std::fmod(options.Rotation, 360);
    if (up < 0) up += 360;
    Json truth;
    truth["ra_deg"] = geometry.Centre.Ra / RadiansPerDegree;
    truth["dec_deg"] = DecInDegrees(geometry.Centre.Dec);
    truth["scale_arcsec_px"] = geometry.RadiansPerPixel / RadiansPerDegree * 3600;
    truth["up_position_angle_deg"] = up;
    truth["mirrored"] = geometry.Mirrored;
    truth["width_px"] = geometry.Width;
    truth["height_px"] = geometry.Height;
    truth["half_diagonal_arcmin"] = plan.FieldHalfDiagonal / RadiansPerDegree * 60;
    truth["bitpix"] = options.Format;
    truth["seed"] = exposure.Seed;
    truth["seeing_px"] = exposure.Seeing;
    truth["sky_counts"] = exposure.SkyLevel;
    truth["saturation_counts"] = exposure.Saturation;
    truth["gain"] = exposure.Gain;
    truth["read_noise"] = exposure.ReadNoise;
    truth["zero_point"] = exposure.ZeroPoint;
    truth["solve_magnitude_limit"] = plan.SolveLimit;
    truth["trail_px"] = exposure.TrailLength;
    truth["trail_angle_deg"] = exposure.TrailAngle / RadiansPerDegree;
    truth["defocus_px"] = exposure.DefocusDiameter;
    truth["drawn_magnitude_limit"] = plan.DrawnLimit;
    truth["distortion_px"] = geometry.Distortion;
    truth["axis_px"] = {geometry.AxisX, geometry.AxisY};
    Json corners = Json::array();
    for (const double y : {0.0, geometry.Height - 1.0}) {
        for (const double x : {0.0, geometry.Width - 1.0}) {
            const auto [ra, dec] = FrameToSky(geometry, {x, y});
            corners.push_back({{"x", x},
                               {"y", y},
                               {"ra_deg", ra / RadiansPerDegree},
                               {"dec_deg", DecInDegrees(dec)}});
        }
    }
    truth["corners"] = std::move(corners);
    truth["random_stars"] = options.RandomStars.has_value();
    truth["faint_stars"] = options.FaintStars;
    truth["stars_drawn"] = inFrame;
    truth["stars_above_6_sigma"] = clear;
    truth["pixel_rows"] = "from the bottom of the picture, as in the file; both from 0";
    truth["brightest_stars"] = std::move(listed);
    return truth;
}

void Write(const fs::path& path, bool written) {
    if (!written) {
        throw ToolFailure(ToolExit::CannotWrite,
                          TextFromPath(path) + ": cannot be written: " + SystemErrorText());
    }
}

/// Adds stars fainter than the catalog, as in a real sky.
void AddFaintStars(const RenderOptions& options, const RenderPlan& plan,
                   std::vector<FrameStar>& stars) {
    const double faintest = std::max(plan.DrawnLimit, options.FaintFrom);
    const std::vector<FrameStar> faint = RandomFrameStars(
        plan.Geometry, options.FaintStars, options.FaintFrom, faintest, plan.Exposure.Seed);
    stars.insert(stars.end(), faint.begin(), faint.end());
    std::stable_sort(stars.begin(), stars.end(),
                     [](const FrameStar& a, const FrameStar& b) { return a.Sky.Mag < b.Sky.Mag; });
}

void Render(const RenderOptions& options) {
    const RenderPlan plan = PlanOf(options);
    const fs::path out = PathFromText(options.Out);
    const std::string extension = UpperCase(TextFromPath(out.extension()));
    if (extension != ".FIT" && extension != ".FITS" && extension != ".FTS") {
        WrongUsage("--out: the name of a frame ends in .fit, .fits or .fts");
    }
    std::vector<FrameStar> stars;
    if (options.RandomStars) {
        // A frame shows about seven magnitudes between its brightest star and the noise.
        stars = RandomFrameStars(plan.Geometry, *options.RandomStars, plan.DrawnLimit - 7,
                                 plan.DrawnLimit, plan.Exposure.Seed);
    } else {
        stars = CatalogFrameStars(ExistingCatalog(options.Catalog), plan.Geometry, plan.DrawnLimit);
    }
    AddFaintStars(options, plan, stars);
    const Frame frame = RenderFrame(plan.Geometry, plan.Exposure, stars);
    ThrowIfStopped();

    fs::path truthPath = out;
    truthPath.replace_extension(".truth.json");
    const Json truth = TruthOf(options, plan, stars);
    Write(out, ReplaceFile(out, FrameFileBytes(frame, options.Format, HeaderCards(options, plan))));
    Write(truthPath, ReplaceFile(truthPath, truth.dump(1) + "\n"));
    std::printf("%s: %d x %d pixels, %s stars, %s of them clear of the noise\n",
                WithoutControls(TextFromPath(out)).c_str(), frame.Width, frame.Height,
                GroupedText(truth["stars_drawn"].get<std::uint64_t>()).c_str(),
                GroupedText(truth["stars_above_6_sigma"].get<std::uint64_t>()).c_str());
}

}  // namespace

void AddRenderCommand(CLI::App& program, ToolExit& exitCode) {
    CLI::App& command = *program.add_subcommand(
        "render",
        "Draw a frame of the sky from the catalog, and its truth beside it (.truth.json)");
    const auto options = std::make_shared<RenderOptions>();
    FrameExposure& exposure = options->Exposure;
    AddCatalogOption(command, options->Catalog);
    command.add_option("--ra", options->Ra, "Centre: 08:40:24 (hours) or 130.1 (degrees)")
        ->required();
    command.add_option("--dec", options->Dec, "Centre: +19:40:00 or 19.667 (degrees)")->required();
    command
        .add_option("--size", options->Size,
                    "Field: 120x90 (arcminutes) or 2x1.5d (degrees), at the scale of the centre")
        ->required();
    command.add_option("--out", options->Out, "The frame to write, .fit")->required();
    command.add_option("--width-px", options->WidthPixels, "Columns; the rows follow from --size")
        ->capture_default_str();
    command
        .add_option("--rotation", options->Rotation,
                    "Position angle of the picture's upward direction, degrees east of north")
        ->check(CheckFinite)
        ->capture_default_str();
    command.add_flag("--mirrored", options->Mirrored, "With north up, east is right");
    command
        .add_option("--distortion", options->Distortion,
                    "How far the lens moves a corner outward, pixels; then its axis, columns and "
                    "rows from the middle")
        ->expected(1, 3)
        ->check(CheckFinite);
    command.add_option("--format", options->Format, "BITPIX: 8, 16 (unsigned) or -32")
        ->check(CLI::IsMember({8, 16, -32}))
        ->capture_default_str();
    command.add_option("--seed", exposure.Seed, "Another seed, another noise")
        ->capture_default_str();
    command
        .add_option("--random-stars", options->RandomStars,
                    "Draw this many stars at random places instead of the catalog's (0: none)")
        ->check(CLI::Range(0, 1000000));
    command
        .add_option("--faint-stars", options->FaintStars,
                    "Draw this many more at random places, from --faint-from to the faintest drawn")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    command
        .add_option("--faint-from", options->FaintFrom,
                    "Magnitude where the catalog's completeness ends")
        ->check(CheckFinite)
        ->capture_default_str();

    const char* const camera = "Sky and camera";
    command.add_option("--seeing", exposure.Seeing, "Full width of a star at half height, pixels")
        ->check(CLI::Range(0.3, 100.0))
        ->check(CheckFinite)
        ->capture_default_str()
        ->group(camera);
    command
        .add_option("--magnitude-limit", options->MagnitudeLimit,
                    "Faintest star drawn (default: 2.5 below what a solve looks at)")
        ->check(CheckFinite)
        ->group(camera);
    command
        .add_option("--zero-point", options->ZeroPoint,
                    "Magnitude of a star that gives one electron (default: stars 1.5 below what a "
                    "solve looks at peak 8 sigma above the sky)")
        ->check(CLI::Range(-50.0, 50.0))
        ->check(CheckFinite)
        ->group(camera);
    command.add_option("--sky", options->SkyLevel, "Sky, counts (default: 1500, 8-bit 60)")
        ->check(CLI::Range(0.0, 1e9))
        ->check(CheckFinite)
        ->group(camera);
    command
        .add_option("--gradient", exposure.Gradient,
                    "Change of the sky from edge to edge, as a part of its level")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 2.0))
        ->check(CheckFinite)
        ->group(camera);
    command.add_option("--read-noise", exposure.ReadNoise, "Electrons")
        ->check(CLI::Range(0.0, 1e6))
        ->check(CheckFinite)
        ->capture_default_str()
        ->group(camera);
    command.add_option("--gain", options->Gain, "Electrons per count (default: 1, 8-bit 24)")
        ->check(CLI::Range(1e-6, 1e6))
        ->check(CheckFinite)
        ->group(camera);
    command.add_option("--saturation", options->Saturation, "Counts (default: 65535, 8-bit 255)")
        ->check(CLI::Range(1.0, 1e9))
        ->check(CheckFinite)
        ->group(camera);
    command.add_option("--hot-pixels", options->HotPixels, "(default: one in 20000)")
        ->check(CLI::NonNegativeNumber)
        ->group(camera);
    const auto addPair = [&](const char* name, std::vector<double>& numbers, const char* text) {
        command.add_option(name, numbers, text)->expected(1, 2)->check(CheckFinite)->group(camera);
    };
    addPair("--trail", options->Trail,
            "How far the stars moved, pixels; then the way's angle, degrees from the columns' "
            "direction toward the top");
    addPair("--defocus", options->Defocus,
            "Diameter of an unfocused star, pixels; then the part of it that is hollow (default "
            "0.35)");
    command.callback([options, &exitCode] {
        Render(*options);
        exitCode = ToolExit::Good;
    });
}

}  // namespace vestrel
