#include "program/mPictureHints.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr double arcminutesPerRadian = 60 * 180 / std::numbers::pi;

/// The regions that reach so far from a centre.
std::int32_t RegionsWithin(double radius, double width, double height, std::int32_t most) {
    const double step = std::min(width, height) / 2.5;
    const double rings = std::ceil(std::min(radius / step, 200.0));
    return std::clamp(static_cast<std::int32_t>((2 * rings + 1) * (2 * rings + 1)), 1, most);
}

void Add(PlannedSearch& plan, const KnownPlace& place, const KnownSize& size) {
    const std::int32_t regions =
        place.Radius ? RegionsWithin(*place.Radius, size.Width, size.Height, place.Regions)
                     : place.Regions;
    plan.Search.Around.push_back(
        {place.Centre, size.Width, size.Height, regions, place.Briefly, size.Remembered});
    std::string sources = place.Source;
    if (!size.Source.empty()) sources.append(sources.empty() ? "" : "; ").append(size.Source);
    plan.Sources.push_back(std::move(sources));
}

}  // namespace

PlannedSearch PlanFor(const KnownOfPicture& known, const PlateImage& image) {
    const bool asks = (known.Places.empty() && known.PlacesFromPicture) ||
                      (known.Sizes.empty() && known.SizesFromPicture);
    const PictureHints header = asks ? HintsOf(image) : PictureHints();
    PlannedSearch plan;
    plan.Search.Everywhere = known.Everywhere;
    plan.Search.TimeLimit = known.TimeLimit;

    std::vector<KnownSize> sizes = known.Sizes;
    if (sizes.empty() && known.SizesFromPicture) {
        for (const ScaleHint& hint : header.Scales) {
            const auto [width, height] = FieldOfScale(image, hint.ArcsecondsPerPixel);
            sizes.push_back({width, height, hint.Source});
        }
    }
    for (const KnownSize& size : sizes) {
        plan.Search.Diagonals.push_back(std::hypot(size.Width, size.Height));
    }
    if (known.Sizes.empty()) {
        sizes.insert(sizes.end(), known.LastSizes.begin(), known.LastSizes.end());
    }

    std::vector<KnownPlace> places;
    for (const KnownPlace& place : known.Places) {
        if (!place.Briefly) {
            places.push_back(place);
        } else if (!sizes.empty()) {
            Add(plan, place, sizes.front());
        }
    }
    if (places.empty() && known.PlacesFromPicture) {
        for (const CentreHint& hint : header.Centres) {
            places.push_back({hint.Centre, known.Regions, {}, false, hint.Source});
        }
    }
    // The pair of both best comes first, then pairs with a rising sum of ranks.
    constexpr std::size_t most = 4;
    const std::size_t room = plan.Search.Around.size() + most;
    for (std::size_t rank = 0; rank < places.size() + sizes.size(); ++rank) {
        for (std::size_t i = 0; i <= rank && i < places.size(); ++i) {
            if (rank - i >= sizes.size() || plan.Search.Around.size() == room) continue;
            Add(plan, places[i], sizes[rank - i]);
        }
    }
    return plan;
}

KnownSize RememberedFieldSize(const SolveParameters& parameters) {
    const double radiansPerUnit = (parameters.SizeUnit == 1 ? 60 : 1) * Pi / 180 / 60;
    return {
        parameters.FieldWidth * radiansPerUnit, parameters.FieldHeight * radiansPerUnit, {}, true};
}

std::vector<std::string> HintLines(const PictureHints& hints) {
    std::vector<std::string> lines;
    for (const CentreHint& hint : hints.Centres) {
        lines.push_back("Centre " + FormatRA(hint.Centre.Ra, true, 1) + " " +
                        FormatDec(hint.Centre.Dec, true, 0) + " from " + hint.Source);
    }
    for (const ScaleHint& hint : hints.Scales) {
        lines.push_back("Scale " + RoundedText(hint.ArcsecondsPerPixel, 4) +
                        " arcseconds per pixel from " + hint.Source);
    }
    return lines;
}

void FillInputsFromHints(ProgramState& state, Port& port) {
    if (!state.ImageLoaded) return;
    const PictureHints hints = HintsOf(state.Image);
    SolveInputs& inputs = state.Inputs;
    SolveInputs& filled = state.FilledInputs;
    const auto untouched = [](const std::string& text, const std::string& before) {
        return Trim(text).empty() || text == before;
    };
    std::string sources;
    if (!hints.Centres.empty() && untouched(inputs.Ra, filled.Ra) &&
        untouched(inputs.Dec, filled.Dec)) {
        const CentreHint& best = hints.Centres.front();
        filled.Ra = inputs.Ra = FormatRA(best.Centre.Ra, false, 2);
        filled.Dec = inputs.Dec = FormatDec(best.Centre.Dec, false, 1);
        sources = "Centre from " + best.Source + "\n";
    }
    // The size of the last session was not typed for this picture.
    const SolveParameters& kept = state.Parameters;
    const bool sizeUntouched = (untouched(inputs.SizeX, filled.SizeX) ||
                                ParseNumber(inputs.SizeX) == double{kept.FieldWidth}) &&
                               (untouched(inputs.SizeY, filled.SizeY) ||
                                ParseNumber(inputs.SizeY) == double{kept.FieldHeight});
    if (!hints.Scales.empty() && sizeUntouched) {
        const ScaleHint& best = hints.Scales.front();
        const auto [width, height] = FieldOfScale(state.Image, best.ArcsecondsPerPixel);
        const bool degrees = inputs.Units == "degrees";
        const double unit = arcminutesPerRadian / (degrees ? 60 : 1);
        filled.SizeX = inputs.SizeX = RoundedText(width * unit, degrees ? 4 : 2);
        filled.SizeY = inputs.SizeY = RoundedText(height * unit, degrees ? 4 : 2);
        sources += "Image size from " + best.Source + "\n";
    }
    if (!sources.empty()) state.Display.Details = sources;
    port.DisplayChanged();
}

}  // namespace vestrel
