#include "server/novaRequest.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "astro/libStrings.h"

namespace vestrel {

namespace {

using Json = nlohmann::json;

std::string TextIn(const Json& json, const char* key) {
    const auto found = json.find(key);
    return found != json.end() && found->is_string() ? found->get<std::string>() : std::string();
}

/// A number, which may be in quotes.
std::optional<double> NumberIn(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end()) return std::nullopt;
    const std::optional<double> number = found->is_number() ? std::optional(found->get<double>())
                                         : found->is_string()
                                             ? ParseNumber(found->get_ref<const std::string&>())
                                             : std::nullopt;
    return number && std::isfinite(*number) ? number : std::nullopt;
}

std::optional<double> PositiveIn(const Json& json, const char* key) {
    const auto number = NumberIn(json, key);
    return number && *number > 0 ? number : std::nullopt;
}

void TakeScale(const Json& json, SolverHints& hints) {
    std::optional<double> low = PositiveIn(json, "scale_lower");
    std::optional<double> high = PositiveIn(json, "scale_upper");
    if (TextIn(json, "scale_type") == "ev" || (!low && !high)) {
        constexpr double all = 100;
        const auto estimate = PositiveIn(json, "scale_est");
        const double error = PositiveIn(json, "scale_err").value_or(0) / all;
        if (!estimate) return;
        constexpr double largest = 0.99;
        low = *estimate * (1 - std::min(error, largest));
        high = *estimate * (1 + error);
    }
    if (!low) low = high;
    if (!high) high = low;
    if (*low > *high) std::swap(low, high);
    const std::string unit = TextIn(json, "scale_units");
    const double perDegree = unit == "arcminwidth" ? 60 : 1;
    const SolverRange range{*low / perDegree, *high / perDegree};
    // Numbers at the ends of their range may have become 0 or infinite.
    if (!std::isnormal(range.Low) || !std::isnormal(range.High)) return;
    (unit == "arcsecperpix" ? hints.Scale : hints.FieldWidth) = range;
}

void TakeCentre(const Json& json, SolverHints& hints) {
    const auto ra = NumberIn(json, "center_ra");
    const auto dec = NumberIn(json, "center_dec");
    if (!ra || !dec || std::fabs(*ra) > 360 || std::fabs(*dec) > 90) return;
    const double radius = PositiveIn(json, "radius").value_or(180);
    hints.Centres = {{*ra < 0 ? *ra + 360 : *ra, *dec, std::min(radius, 180.0)}};
}

/// Reads the list of stars; false when it is not valid.
bool TakeStars(const Json& json, NovaRequest& request) {
    const auto x = json.find("x");
    const auto y = json.find("y");
    if (x == json.end() && y == json.end()) return true;
    constexpr std::size_t most = 1'000'000;
    constexpr double longestSide = 32767;
    const auto width = PositiveIn(json, "image_width");
    const auto height = PositiveIn(json, "image_height");
    if (x == json.end() || y == json.end() || !x->is_array() || !y->is_array() ||
        x->size() != y->size() || x->size() > most || !width || !height || *width > longestSide ||
        *height > longestSide || *width < 1 || *height < 1) {
        return false;
    }
    StarField field;
    field.Width = static_cast<std::int64_t>(*width);
    field.Height = static_cast<std::int64_t>(*height);
    field.Name = "list of stars";
    for (std::size_t i = 0; i < x->size(); ++i) {
        if (!(*x)[i].is_number() || !(*y)[i].is_number()) return false;
        // Such lists are sorted, brightest first, and a solve uses only hundreds. Lists that wait
        // must not fill the memory.
        constexpr std::size_t kept = 10'000;
        if (i >= kept) continue;
        // As the tables of stars that such lists come from, they count pixels from 1.
        field.Stars.push_back({(*x)[i].get<double>() - 1, (*y)[i].get<double>() - 1, 0});
    }
    request.Stars = std::move(field);
    return true;
}

}  // namespace

std::optional<NovaRequest> ParseNovaRequest(std::string_view text, std::string& fault) {
    const Json json = Json::parse(text.begin(), text.end(), nullptr, false);
    if (!json.is_object()) {
        fault = "request-json is no JSON object";
        return std::nullopt;
    }
    NovaRequest request;
    request.Session = TextIn(json, "session");
    request.ApiKey = TextIn(json, "apikey");
    request.Url = TextIn(json, "url");
    TakeScale(json, request.Hints);
    TakeCentre(json, request.Hints);
    if (const auto order = NumberIn(json, "tweak_order"); order && *order >= 0) {
        constexpr double highest = 6;
        request.MostSipOrder = *order < 2 ? 0 : static_cast<int>(std::min(*order, highest));
    }
    if (!TakeStars(json, request)) {
        fault = "x, y, image_width and image_height are no list of stars";
        return std::nullopt;
    }
    return request;
}

}  // namespace vestrel
