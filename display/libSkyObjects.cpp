#include "display/libSkyObjects.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <utility>

#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (true) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

/// A number within limits; nothing when it is empty or invalid.
std::optional<double> NumberWithin(std::string_view text, double low, double high) {
    const auto value = ParseNumber(std::string(text));
    return value && *value >= low && *value <= high ? value : std::nullopt;
}

std::optional<SkyObject> ObjectOfLine(std::string_view line) {
    const auto columns = Split(line, '\t');
    if (columns.size() != 9 || columns[0].empty()) return std::nullopt;
    const auto ra = NumberWithin(columns[3], 0, 360);
    const auto dec = NumberWithin(columns[4], -90, 90);
    if (!ra || !dec) return std::nullopt;
    SkyObject object;
    object.Name = columns[0];
    for (const std::string_view name : Split(columns[1], '|')) {
        if (!name.empty()) object.OtherNames.emplace_back(name);
    }
    object.Kind = columns[2];
    object.Position = {*ra * RadiansPerDegree, *dec * RadiansPerDegree};
    object.Magnitude = NumberWithin(columns[5], -30, 40);
    constexpr double largest = 90 * 60;
    object.Major = NumberWithin(columns[6], 0, largest).value_or(0) / 60 * RadiansPerDegree;
    object.Minor = NumberWithin(columns[7], 0, largest).value_or(0) / 60 * RadiansPerDegree;
    const auto angle = NumberWithin(columns[8], -360, 360);
    if (!angle || object.Minor == 0) object.Minor = object.Major;
    object.PositionAngle = angle.value_or(0) * RadiansPerDegree;
    return object;
}

/// The name in upper case, without blanks.
std::string Key(std::string_view name) {
    std::string key;
    for (const char c : name) {
        if (c == ' ') continue;
        key += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return key;
}

bool IsNumbered(const std::string& name) {
    return !name.empty() && name.back() >= '0' && name.back() <= '9';
}

/// A magnitude for comparing objects. Nebulae have none and are rated by their size.
double Conspicuousness(const SkyObject& object) {
    constexpr double bonusOfName = 2;
    const bool named = object.Name.starts_with("M ") ||
                       std::any_of(object.OtherNames.begin(), object.OtherNames.end(),
                                   [](const std::string& name) { return !IsNumbered(name); });
    const double arcminutes = object.Major / RadiansPerDegree * 60;
    const double bySize = 13 - 2 * std::log2(std::max(arcminutes, 0.5));
    const double magnitude =
        object.Magnitude ? std::min(*object.Magnitude, std::max(bySize, 6.0)) : bySize;
    return object.IsStar() ? object.Magnitude.value_or(7) : magnitude - (named ? bonusOfName : 0);
}

/// The position at a distance and position angle (radians) from another one.
SkyPosition Offset(const SkyPosition& from, double distance, double angle) {
    const double sine = std::sin(from.Dec) * std::cos(distance) +
                        std::cos(from.Dec) * std::sin(distance) * std::cos(angle);
    const double east = std::sin(distance) * std::sin(angle);
    const double north = std::cos(from.Dec) * std::cos(distance) -
                         std::sin(from.Dec) * std::sin(distance) * std::cos(angle);
    return {from.Ra + std::atan2(east, north), std::asin(std::clamp(sine, -1.0, 1.0))};
}

std::vector<PixelPoint> OutlineOf(const SkyObject& object, const SkyMap& map) {
    constexpr int corners = 48;
    std::vector<PixelPoint> outline;
    if (object.IsStar() || object.Major == 0) return outline;
    for (int k = 0; k <= corners; ++k) {
        const double turn = 2 * std::numbers::pi * k / corners;
        const double along = object.Major / 2 * std::cos(turn);
        const double across = object.Minor / 2 * std::sin(turn);
        const auto place = map.PixelOf(Offset(object.Position, std::hypot(along, across),
                                              object.PositionAngle + std::atan2(across, along)));
        if (!place) return {};
        outline.push_back(*place);
    }
    return outline;
}

}  // namespace

std::string SkyObject::Label() const {
    if (IsStar()) return Name;
    const auto common = std::find_if(OtherNames.begin(), OtherNames.end(),
                                     [](const std::string& name) { return !IsNumbered(name); });
    return common == OtherNames.end() ? Name : Name + "  " + *common;
}

std::vector<SkyObject> ReadSkyObjects(const std::filesystem::path& file) {
    constexpr std::size_t longest = 16 << 20;
    std::vector<unsigned char> bytes;
    std::vector<SkyObject> objects;
    if (!ReadWholeFile(file, longest, bytes)) return objects;
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    for (std::string_view line : Split(text, '\n')) {
        if (line.ends_with('\r')) line.remove_suffix(1);
        if (auto object = ObjectOfLine(line)) objects.push_back(std::move(*object));
    }
    return objects;
}

const SkyObject* FindSkyObject(const std::vector<SkyObject>& objects, std::string_view name) {
    std::string key = Key(name);
    constexpr std::string_view messier = "MESSIER";
    if (key.starts_with(messier)) key = "M" + key.substr(messier.size());
    if (key.empty()) return nullptr;
    const auto found = std::find_if(objects.begin(), objects.end(), [&](const SkyObject& object) {
        return Key(object.Name) == key ||
               std::any_of(object.OtherNames.begin(), object.OtherNames.end(),
                           [&](const std::string& other) { return Key(other) == key; });
    });
    return found == objects.end() ? nullptr : &*found;
}

std::vector<ObjectOnImage> ObjectsOnImage(const std::vector<SkyObject>& objects, const SkyMap& map,
                                          std::int32_t width, std::int32_t height,
                                          std::size_t most) {
    std::vector<ObjectOnImage> shown;
    const auto middle = map.SkyOf({(width - 1) / 2.0, (height - 1) / 2.0});
    if (!middle) return shown;
    const double reach = std::hypot(width, height) / map.PixelsPerRadian();
    for (const SkyObject& object : objects) {
        // The map is valid only for its own half of the sky.
        if (SkyDistance(object.Position, *middle) > reach) continue;
        const auto place = map.PixelOf(object.Position);
        const bool inside = place && place->X >= -0.5 && place->Y >= -0.5 &&
                            place->X < width - 0.5 && place->Y < height - 0.5;
        if (inside) shown.push_back({&object, *place, {}, 0});
    }
    std::stable_sort(shown.begin(), shown.end(), [](const auto& a, const auto& b) {
        return Conspicuousness(*a.Object) < Conspicuousness(*b.Object);
    });
    if (shown.size() > most) shown.resize(most);
    for (ObjectOnImage& one : shown) {
        one.Outline = OutlineOf(*one.Object, map);
        for (const PixelPoint& point : one.Outline) {
            one.Reach =
                std::max(one.Reach, std::hypot(point.X - one.Place.X, point.Y - one.Place.Y));
        }
    }
    return shown;
}

}  // namespace vestrel
