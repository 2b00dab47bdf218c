#include "program/mSkyObjects.h"

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libPositionText.h"
#include "astro/libStrings.h"
#include "display/libReadout.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

std::filesystem::path TableFolder() {
    const char* folder = std::getenv("VESTREL_DATA");
    if (folder != nullptr && *folder != 0) return PathFromText(folder);
    return ProgramFolder() / ".." / "share" / "vestrel";
}

bool IsRa(const std::string& text) {
    return ParseRA(text) >= 0;
}
bool IsDec(const std::string& text) {
    return ParseDec(text) >= -Pi / 2;
}

std::string MagnitudeText(double magnitude) {
    return ", magnitude " + FixedText(magnitude, 2);
}

/// Whether a closed line surrounds a place: it crosses a ray from there an odd number of times.
bool GoesAround(const std::vector<PixelPoint>& line, const PixelPoint& place) {
    bool around = false;
    for (std::size_t i = 1; i < line.size(); ++i) {
        const PixelPoint& a = line[i - 1];
        const PixelPoint& b = line[i];
        if ((a.Y > place.Y) == (b.Y > place.Y)) continue;
        if (place.X < a.X + (place.Y - a.Y) / (b.Y - a.Y) * (b.X - a.X)) around = !around;
    }
    return around;
}

}  // namespace

const std::vector<SkyObject>& SkyNames::Objects() {
    if (!objects_) {
        objects_ = ReadSkyObjects(TableFolder() / "deep-sky.tsv");
        for (SkyObject& star : ReadSkyObjects(TableFolder() / "bright-stars.tsv")) {
            objects_->push_back(std::move(star));
        }
    }
    return *objects_;
}

void SetCentre(SolveInputs& inputs, const SkyPosition& centre) {
    inputs.Ra = FormatRA(centre.Ra, false, 2);
    inputs.Dec = FormatDec(centre.Dec, false, 1);
}

std::optional<SkyPosition> WholePosition(const SolveInputs& inputs, std::string SolveInputs::*box) {
    const bool isRa = box == &SolveInputs::Ra;
    // What may be a slip in this box does not replace what stands in the other.
    const bool alone = Trim(isRa ? inputs.Dec : inputs.Ra).empty();
    if (!alone && MayBeOneCoordinate(inputs.*box)) return std::nullopt;
    return ParsePosition(inputs.*box);
}

bool CompleteCentre(SolveInputs& inputs, SkyNames& names) {
    if (IsRa(inputs.Ra) && IsDec(inputs.Dec)) return false;
    for (const auto box : {&SolveInputs::Ra, &SolveInputs::Dec}) {
        const bool good = box == &SolveInputs::Ra ? IsRa(inputs.Ra) : IsDec(inputs.Dec);
        const auto position = good ? std::nullopt : WholePosition(inputs, box);
        if (!position) continue;
        SetCentre(inputs, *position);
        return true;
    }
    const std::string ra = PlainAngleText(inputs.Ra);
    const std::string dec = PlainAngleText(inputs.Dec);
    bool changed = false;
    if (!IsRa(inputs.Ra) && IsRa(ra)) changed = (inputs.Ra = ra, true);
    if (!IsDec(inputs.Dec) && IsDec(dec)) changed = (inputs.Dec = dec, true);
    if (IsRa(inputs.Ra) && IsDec(inputs.Dec)) return changed;
    for (const std::string* text : {&inputs.Ra, &inputs.Dec}) {
        if (IsRa(*text) || IsDec(*text)) continue;
        if (const SkyObject* object = FindSkyObject(names.Objects(), *text)) {
            SetCentre(inputs, object->Position);
            return true;
        }
    }
    return changed;
}

std::string IdentityAt(const ProgramState& state, const std::vector<ObjectOnImage>& objects,
                       const PixelPoint& pixel, double reach) {
    std::string text;
    const auto line = [&text](const std::string& more) {
        text.append(text.empty() ? "" : "\n").append(more);
    };
    for (const ObjectOnImage& one : objects) {
        const double distance = std::hypot(one.Place.X - pixel.X, one.Place.Y - pixel.Y);
        if (distance > reach && !GoesAround(one.Outline, pixel)) continue;
        std::string about = one.Object->Label() + ", " + one.Object->Kind;
        if (one.Object->Magnitude) about += MagnitudeText(*one.Object->Magnitude);
        line(about);
    }
    const auto map = SkyMap::Of(state.Image.Header);
    if (map && state.Solution) {
        const PlateStarList& stars = state.Solution->CatalogStars;
        const auto nearest = NearestCatalogStar(*map, stars, pixel);
        if (nearest && nearest->Distance <= reach) {
            const PlateStar& star = stars[nearest->Index];
            line("Catalog star at " + SkyText({star.Ra, star.Dec}) +
                 MagnitudeText(double{star.Flux}));
        }
    }
    if (text.empty()) text = map ? "Nothing known here" : "Solve the image to know what is here";
    return text;
}

}  // namespace vestrel
