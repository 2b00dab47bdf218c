#include "display/libSkyGrid.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <optional>

#include "astro/libConversions.h"

namespace vestrel {

namespace {

constexpr double pi = std::numbers::pi;

// Angles of lines are whole numbers of milliseconds of time or milliarcseconds: steps add up
// without error and labels need no rounding.
constexpr std::int64_t perSecond = 1000;
constexpr std::int64_t perMinute = 60 * perSecond;
constexpr std::int64_t perUnit = 60 * perMinute;  // an hour or a degree
constexpr std::int64_t raCircle = 24 * perUnit;
constexpr std::int64_t decQuarter = 90 * perUnit;
constexpr double raPerRadian = raCircle / (2 * pi);
constexpr double decPerRadian = decQuarter / (pi / 2);

constexpr std::int64_t finerSteps[] = {1,     2,     5,      10,     20,     50,     100,
                                       200,   500,   1000,   2000,   5000,   10000,  15000,
                                       30000, 60000, 120000, 300000, 600000, 900000, 1800000};
constexpr std::int64_t wholeRaSteps[] = {1, 2, 3, 6};
constexpr std::int64_t wholeDecSteps[] = {1, 2, 5, 10, 15, 30, 45};

/// The smallest round step that is not below `smallest`, or the largest of all.
std::int64_t RoundStep(double smallest, bool isRa) {
    for (const std::int64_t step : finerSteps) {
        if (static_cast<double>(step) >= smallest) return step;
    }
    std::int64_t step = 0;
    const auto tryStep = [&](std::int64_t units) {
        if (static_cast<double>(step) < smallest) step = units * perUnit;
    };
    if (isRa) {
        for (const std::int64_t units : wholeRaSteps) tryStep(units);
    } else {
        for (const std::int64_t units : wholeDecSteps) tryStep(units);
    }
    return step;
}

std::string TwoDigits(std::int64_t number) {
    return (number < 10 ? "0" : "") + std::to_string(number);
}

/// A sexagesimal text with as many digits as multiples of the step need.
std::string AngleLabel(std::int64_t angle, std::int64_t step, bool isRa) {
    const std::int64_t amount = std::abs(angle);
    std::string text = angle < 0 ? "-" : "";
    text += TwoDigits(amount / perUnit) + (isRa ? "h" : DegreeSign);
    if (step % perUnit == 0) return text;
    text += TwoDigits(amount % perUnit / perMinute) + (isRa ? "m" : "'");
    if (step % perMinute == 0) return text;
    text += TwoDigits(amount % perMinute / perSecond);
    if (step % perSecond != 0) {
        std::string decimals = std::to_string(perSecond + amount % perSecond).substr(1);
        decimals.resize(step % 100 == 0 ? 1 : step % 10 == 0 ? 2 : 3);
        text += "." + decimals;
    }
    return text + (isRa ? "s" : "\"");
}

/// The part of the sky that an image shows, in the units of lines.
struct SkyRange {
    double CentreRa = 0;  ///< radians
    double LowRa = 0;     ///< relative to the centre's
    double HighRa = 0;
    double LowDec = 0;
    double HighDec = 0;
    bool AllRa = false;  ///< a pole is on the image
    bool Pole[2] = {};   ///< south, north
};

class GridMaker {
 public:
    GridMaker(const SkyMap& map, std::int32_t width, std::int32_t height)
        : map_(map), right_(width - 0.5), bottom_(height - 0.5) {}

    SkyGrid Make(int wanted) {
        SkyGrid grid;
        if (!(right_ > 0 && bottom_ > 0)) return grid;
        const std::optional<SkyRange> found = FindRange();
        if (!found) return grid;
        const SkyRange& range = *found;
        const double raWidth = range.AllRa ? double(raCircle) : range.HighRa - range.LowRa;
        const double decHeight = range.HighDec - range.LowDec;
        if (!(raWidth >= 1 && decHeight >= 1)) return grid;
        // Corrects for steps being mostly rounded up.
        constexpr double allowance = 0.7;
        const std::int64_t decStep = RoundStep(allowance * decHeight / wanted, false);
        // Around a pole, more lines have the same spacing.
        const int meridians = range.AllRa ? std::max(2 * wanted, 12) : wanted;
        const std::int64_t raStep = RoundStep(allowance * raWidth / meridians, true);
        grid.RaStep = static_cast<double>(raStep) / raPerRadian;
        grid.DecStep = static_cast<double>(decStep) / decPerRadian;
        AddParallels(range, decStep, grid);
        AddMeridians(range, raStep, decStep, grid);
        return grid;
    }

 private:
    bool Inside(const PixelPoint& pixel) const {
        return pixel.X >= -0.5 && pixel.X <= right_ && pixel.Y >= -0.5 && pixel.Y <= bottom_;
    }
    bool Shows(const SkyPosition& sky) const {
        const std::optional<PixelPoint> pixel = map_.PixelOf(sky);
        return pixel && Inside(*pixel);
    }

    /// The range of the sky over a lattice of pixels, widened by one cell.
    std::optional<SkyRange> FindRange() const {
        constexpr int cells = 32;
        constexpr std::size_t samples = (cells + 1) * (cells + 1);
        std::vector<SkyPosition> positions;
        for (int j = 0; j <= cells; ++j) {
            for (int i = 0; i <= cells; ++i) {
                const PixelPoint pixel{-0.5 + (right_ + 0.5) * i / cells,
                                       -0.5 + (bottom_ + 0.5) * j / cells};
                if (const auto sky = map_.SkyOf(pixel)) positions.push_back(*sky);
            }
        }
        if (positions.empty()) return std::nullopt;
        SkyRange range;
        // The middle position is as far as possible from the discontinuity of right ascension.
        range.CentreRa = positions[positions.size() / 2].Ra;
        range.LowDec = range.HighDec = positions.front().Dec * decPerRadian;
        for (const SkyPosition& sky : positions) {
            const double ra = std::remainder(sky.Ra - range.CentreRa, 2 * pi) * raPerRadian;
            range.LowRa = std::min(range.LowRa, ra);
            range.HighRa = std::max(range.HighRa, ra);
            range.LowDec = std::min(range.LowDec, sky.Dec * decPerRadian);
            range.HighDec = std::max(range.HighDec, sky.Dec * decPerRadian);
        }
        const double raMargin = (range.HighRa - range.LowRa) * 2 / cells;
        const double decMargin = (range.HighDec - range.LowDec) * 2 / cells;
        range.LowDec = std::max(range.LowDec - decMargin, -double(decQuarter));
        range.HighDec = std::min(range.HighDec + decMargin, double(decQuarter));
        range.LowRa -= raMargin;
        range.HighRa += raMargin;
        range.Pole[0] = Shows({range.CentreRa, -pi / 2});
        range.Pole[1] = Shows({range.CentreRa, pi / 2});
        if (range.Pole[0]) range.LowDec = -double(decQuarter);
        if (range.Pole[1]) range.HighDec = double(decQuarter);
        // Close to the rim of the projection, everything changes within a cell.
        const bool showsRim = positions.size() < samples;
        if (showsRim) {
            range.LowDec = -double(decQuarter);
            range.HighDec = double(decQuarter);
        }
        range.AllRa = showsRim || range.Pole[0] || range.Pole[1];
        if (range.AllRa) {
            range.LowRa = -double(raCircle) / 2;
            range.HighRa = double(raCircle) / 2;
        }
        return range;
    }

    using Curve = std::function<SkyPosition(double)>;

    std::optional<PixelPoint> PointOf(const Curve& curve, double place) const {
        const std::optional<PixelPoint> pixel = map_.PixelOf(curve(place));
        return pixel && Inside(*pixel) ? pixel : std::nullopt;
    }

    /// The last point within the image on a curve from a place inside to one outside.
    PixelPoint Crossing(const Curve& curve, double inside, double outside,
                        PixelPoint lastInside) const {
        constexpr int halvings = 40;
        for (int k = 0; k < halvings; ++k) {
            const double middle = (inside + outside) / 2;
            if (const auto pixel = PointOf(curve, middle)) {
                inside = middle;
                lastInside = *pixel;
            } else {
                outside = middle;
            }
        }
        return lastInside;
    }

    /// Follows a curve over low..high and keeps the parts within the image.
    std::vector<std::vector<PixelPoint>> Follow(const Curve& curve, double low, double high) const {
        // Each step may add two ends of a piece.
        constexpr int steps = MostLineVertices / 2 - 2;
        std::vector<std::vector<PixelPoint>> pieces;
        double before = low;
        std::optional<PixelPoint> pixelBefore;
        for (int k = 0; k <= steps; ++k) {
            const double place = low + (high - low) * k / steps;
            const std::optional<PixelPoint> pixel = PointOf(curve, place);
            if (pixel) {
                if (!pixelBefore) {
                    pieces.emplace_back();
                    if (k > 0) pieces.back().push_back(Crossing(curve, place, before, *pixel));
                }
                pieces.back().push_back(*pixel);
            } else if (pixelBefore) {
                pieces.back().push_back(Crossing(curve, before, place, *pixelBefore));
            }
            before = place;
            pixelBefore = pixel;
        }
        return pieces;
    }

    void AddLine(GridLine line, SkyGrid& grid) const {
        if (line.Pieces.empty()) return;
        line.LabelPlace = line.Pieces.front().front();
        for (const auto& piece : line.Pieces) {
            for (const PixelPoint& pixel : piece) {
                const bool nearer =
                    line.IsMeridian ? pixel.Y < line.LabelPlace.Y : pixel.X < line.LabelPlace.X;
                if (nearer) line.LabelPlace = pixel;
            }
        }
        grid.Lines.push_back(std::move(line));
    }

    void AddParallels(const SkyRange& range, std::int64_t step, SkyGrid& grid) const {
        const auto first = static_cast<std::int64_t>(std::ceil(range.LowDec / double(step)));
        const auto last = static_cast<std::int64_t>(std::floor(range.HighDec / double(step)));
        for (std::int64_t k = first; k <= last && k - first < MostGridLines; ++k) {
            const std::int64_t angle = k * step;
            if (std::abs(angle) >= decQuarter) continue;  // a pole is not a line
            GridLine line;
            line.Angle = static_cast<double>(angle) / decPerRadian;
            line.Label = AngleLabel(angle, step, false);
            line.Pieces = Follow(
                [&](double ra) {
                    return SkyPosition{range.CentreRa + ra / raPerRadian, line.Angle};
                },
                range.LowRa, range.HighRa);
            AddLine(std::move(line), grid);
        }
    }

    void AddMeridians(const SkyRange& range, std::int64_t step, std::int64_t decStep,
                      SkyGrid& grid) const {
        const double offset = range.CentreRa * raPerRadian;
        const double atFirst = (offset + range.LowRa) / double(step);
        const auto first = static_cast<std::int64_t>(std::ceil(atFirst));
        auto last = static_cast<std::int64_t>(std::floor((offset + range.HighRa) / double(step)));
        // Around the whole circle the first line would come twice.
        last = std::min(last, first + raCircle / step - 1);
        const double low = range.Pole[0] ? -double(decQuarter) + double(decStep) : range.LowDec;
        const double high = range.Pole[1] ? double(decQuarter) - double(decStep) : range.HighDec;
        for (std::int64_t k = first; k <= last && k - first < MostGridLines; ++k) {
            const std::int64_t angle = ((k * step) % raCircle + raCircle) % raCircle;
            GridLine line;
            line.IsMeridian = true;
            line.Angle = static_cast<double>(angle) / raPerRadian;
            line.Label = AngleLabel(angle, step, true);
            line.Pieces = Follow(
                [&](double dec) {
                    return SkyPosition{line.Angle, dec / decPerRadian};
                },
                low, high);
            AddLine(std::move(line), grid);
        }
    }

    const SkyMap& map_;
    double right_;
    double bottom_;
};

}  // namespace

SkyGrid MakeSkyGrid(const SkyMap& map, std::int32_t width, std::int32_t height, int wanted) {
    return GridMaker(map, width, height).Make(std::clamp(wanted, 2, 20));
}

}  // namespace vestrel
