#include "catalogtool/libBrightStars.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "astro/libMath.h"
#include "catalogtool/libToolReport.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {

namespace {

using nlohmann::json;

constexpr double arcsecond = RadiansPerDegree / 3600;
constexpr double reach = 60 * arcsecond;

/// The number of a box of about half a degree; most boxes hold no bright star.
int BoxNumber(double x, double y, double z) {
    constexpr double boxSize = 0.01;
    constexpr int boxesPerSide = 256;
    const auto index = [](double value) { return static_cast<int>((value + 1.1) / boxSize); };
    return (index(x) * boxesPerSide + index(y)) * boxesPerSide + index(z);
}

/// Reads the star of a GeoJSON feature; false when it is not a star.
bool ReadFeature(const json& feature, SkyStar& star) {
    static const json::json_pointer coordinatesPath("/geometry/coordinates");
    static const json::json_pointer magnitudePath("/properties/mag");
    if (!feature.contains(coordinatesPath) || !feature.contains(magnitudePath)) return false;
    // References, because copying recurses as deep as the value is nested and could exhaust the
    // stack.
    const json& coordinates = feature.at(coordinatesPath);
    const json& magnitude = feature.at(magnitudePath);
    if (!coordinates.is_array() || coordinates.size() < 2 || !magnitude.is_number() ||
        !coordinates[0].is_number() || !coordinates[1].is_number()) {
        return false;
    }
    double longitude = coordinates[0].get<double>();
    const double latitude = coordinates[1].get<double>();
    if (!(longitude >= -180 && longitude <= 360 && std::fabs(latitude) <= 90)) return false;
    if (longitude < 0) longitude += 360;
    star = {longitude * RadiansPerDegree, latitude * RadiansPerDegree, magnitude.get<double>()};
    return true;
}

}  // namespace

std::vector<SkyStar> ReadBrightStars(const std::filesystem::path& file, std::size_t& unusable) {
    const auto fail = [&](const char* why) {
        throw ToolFailure(ToolExit::BadInput, TextFromPath(file) + ": " + why);
    };
    constexpr std::size_t largestFile = std::size_t{64} << 20;
    std::vector<unsigned char> text;
    if (!ReadWholeFile(file, largestFile, text)) fail("cannot be read, or is beyond 64 MiB");
    const json document = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!document.is_object() || !document.contains("features") ||
        !document["features"].is_array()) {
        fail("is not a GeoJSON collection of stars");
    }
    std::vector<SkyStar> stars;
    unusable = 0;
    for (const json& feature : document["features"]) {
        SkyStar star;
        if (ReadFeature(feature, star) && StoredStar(star)) {
            stars.push_back(star);
        } else {
            ++unusable;
        }
    }
    if (stars.empty()) fail("holds no star with a position and a magnitude");
    return stars;
}

BrightStarFinder::BrightStarFinder(std::vector<SkyStar> stars)
    : stars_(std::move(stars)), present_(stars_.size(), false) {
    for (std::size_t i = 0; i < stars_.size(); ++i) {
        const Direction at = DirectionOf(PositionOf(stars_[i]));
        directions_.push_back(at);
        // The corners of the cube around the star lie in every box that its reach touches.
        std::set<int> boxes;
        for (int corner = 0; corner < 8; ++corner) {
            boxes.insert(BoxNumber(at[0] + ((corner & 1) != 0 ? reach : -reach),
                                   at[1] + ((corner & 2) != 0 ? reach : -reach),
                                   at[2] + ((corner & 4) != 0 ? reach : -reach)));
        }
        for (const int box : boxes) boxes_[box].push_back(i);
    }
}

bool BrightStarFinder::IsNear(const SkyStar& star) const {
    const Direction at = DirectionOf(PositionOf(star));
    return boxes_.contains(BoxNumber(at[0], at[1], at[2]));
}

void BrightStarFinder::Visit(const SkyStar& star) {
    constexpr double near = 10 * arcsecond;
    if (stars_.empty()) return;
    const Direction at = DirectionOf(PositionOf(star));
    const auto box = boxes_.find(BoxNumber(at[0], at[1], at[2]));
    if (box == boxes_.end()) return;
    for (const std::size_t i : box->second) {
        const Direction& bright = directions_[i];
        // At these distances the chord equals the arc.
        const double distance = std::hypot(at[0] - bright[0], at[1] - bright[1], at[2] - bright[2]);
        const double difference = std::fabs(star.Mag - stars_[i].Mag);
        if ((distance <= near && difference < 2) || (distance <= reach && difference < 0.75)) {
            present_[i] = true;
        }
    }
}

std::vector<SkyStar> BrightStarFinder::Missing() const {
    std::vector<SkyStar> missing;
    for (std::size_t i = 0; i < stars_.size(); ++i) {
        if (!present_[i]) missing.push_back(stars_[i]);
    }
    return missing;
}

}  // namespace vestrel
