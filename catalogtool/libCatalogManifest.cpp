#include "catalogtool/libCatalogManifest.h"

#include <zlib.h>

#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "catalog/libCatalogCells.h"
#include "platform/libFiles.h"

namespace vestrel {

namespace {

using nlohmann::json;

constexpr const char* formatName = "vestrel-catalog";
constexpr int formatVersion = 1;

std::string TimeText(std::chrono::sys_seconds time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    const auto padded = [](auto number) {
        const std::string text = std::to_string(number);
        return text.size() < 2 ? "0" + text : text;
    };
    return std::to_string(static_cast<int>(date.year())) + "-" +
           padded(static_cast<unsigned>(date.month())) + "-" +
           padded(static_cast<unsigned>(date.day())) + "T" + padded(clock.hours().count()) + ":" +
           padded(clock.minutes().count()) + ":" + padded(clock.seconds().count()) + "Z";
}

/// A count. Throws for numbers that are not counts, such as 1E300, −1 and 0.5.
std::uint64_t CountFromJson(const json& value) {
    return value.get_ref<const json::number_unsigned_t&>();
}

CatalogSource SourceFromJson(const json& value) {
    CatalogSource source;
    value.at("kind").get_to(source.Kind);
    value.at("file").get_to(source.File);
    value.at("modified").get_to(source.Modified);
    source.Rows = CountFromJson(value.at("rows"));
    source.Used = CountFromJson(value.at("used"));
    if (value.contains("moved")) source.Moved = CountFromJson(value.at("moved"));
    for (const auto& [reason, rows] : value.at("leftOut").items()) {
        source.LeftOut.emplace_back(reason, CountFromJson(rows));
    }
    return source;
}

/// Throws when something is missing, of another type or out of range.
CatalogManifest ManifestFromJson(const json& document) {
    CatalogManifest manifest;
    document.at("tool").get_to(manifest.Tool);
    document.at("created").get_to(manifest.Created);
    for (const json& source : document.at("sources")) {
        manifest.Sources.push_back(SourceFromJson(source));
    }
    document.at("filters").get_to(manifest.Filters);
    document.at("remarks").get_to(manifest.Remarks);
    document.at("brightGapFilled").get_to(manifest.BrightGapFilled);
    if (document.contains("epoch")) manifest.Epoch = document.at("epoch").get<double>();
    manifest.Duplicates = CountFromJson(document.at("duplicates"));
    for (const json& step : document.at("magnitudes")) {
        manifest.Magnitudes.push_back({step.at("from").get<double>(),
                                       CountFromJson(step.at("stars")),
                                       CountFromJson(step.at("total"))});
    }
    for (const auto& [name, cell] : document.at("cells").items()) {
        const std::uint64_t crc = CountFromJson(cell.at("crc32"));
        if (crc > std::numeric_limits<std::uint32_t>::max()) throw std::range_error("crc32");
        manifest.Cells[name] = {CountFromJson(cell.at("stars")), static_cast<std::uint32_t>(crc)};
    }
    return manifest;
}

}  // namespace

nlohmann::json SourceJson(const CatalogSource& source) {
    json leftOut = json::object();
    for (const auto& [reason, rows] : source.LeftOut) leftOut[reason] = rows;
    return {{"kind", source.Kind}, {"file", source.File}, {"modified", source.Modified},
            {"rows", source.Rows}, {"used", source.Used}, {"moved", source.Moved},
            {"leftOut", leftOut}};
}

void Checksum::Add(std::span<const unsigned char> bytes) {
    value_ = static_cast<std::uint32_t>(crc32_z(value_, bytes.data(), bytes.size()));
}

void MagnitudeCounts::Add(std::int16_t hundredths) {
    // Shifted to be nonnegative, so that the division rounds down.
    ++stars_[static_cast<std::size_t>((hundredths - firstStep_ * stepSize_) / stepSize_)];
}

std::vector<MagnitudeCounts::Step> MagnitudeCounts::Steps() const {
    std::vector<Step> steps;
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < stars_.size(); ++i) {
        total += stars_[i];
        if (total == 0) continue;
        steps.push_back(
            {(static_cast<int>(i) + firstStep_) * (stepSize_ / 100.0), stars_[i], total});
    }
    while (!steps.empty() && steps.back().Stars == 0) steps.pop_back();
    return steps;
}

std::uint64_t CatalogManifest::StarCount() const {
    std::uint64_t count = 0;
    for (const auto& [name, cell] : Cells) count += cell.Stars;
    return count;
}

bool WriteManifest(const std::filesystem::path& folder, const CatalogManifest& manifest) {
    json document = {{"format", formatName},
                     {"version", formatVersion},
                     {"tool", manifest.Tool},
                     {"created", manifest.Created},
                     {"sources", json::array()},
                     {"filters", manifest.Filters},
                     {"remarks", manifest.Remarks},
                     {"brightGapFilled", manifest.BrightGapFilled},
                     {"duplicates", manifest.Duplicates},
                     {"magnitudes", json::array()},
                     {"stars", manifest.StarCount()},
                     {"cells", json::object()}};
    if (manifest.Epoch) document["epoch"] = *manifest.Epoch;
    for (const CatalogSource& source : manifest.Sources) {
        document["sources"].push_back(SourceJson(source));
    }
    for (const auto& step : manifest.Magnitudes) {
        document["magnitudes"].push_back(
            {{"from", step.From}, {"stars", step.Stars}, {"total", step.Total}});
    }
    for (const auto& [name, cell] : manifest.Cells) {
        document["cells"][name] = {{"stars", cell.Stars}, {"crc32", cell.Crc}};
    }
    // File names need not be UTF-8; a manifest must.
    return ReplaceFile(folder / ManifestName,
                       document.dump(1, ' ', false, json::error_handler_t::replace) + "\n");
}

ManifestState ReadManifest(const std::filesystem::path& folder, CatalogManifest& manifest) {
    manifest = {};
    std::error_code ignored;
    const std::filesystem::path file = folder / ManifestName;
    if (!std::filesystem::exists(file, ignored)) return ManifestState::Absent;
    // Others, such as a pipe, may have no end.
    if (!std::filesystem::is_regular_file(file, ignored)) return ManifestState::Unreadable;
    constexpr std::size_t largestManifest = std::size_t{16} << 20;
    std::vector<unsigned char> text;
    if (!ReadWholeFile(file, largestManifest, text)) return ManifestState::Unreadable;
    try {
        const json document = json::parse(text);
        if (document.at("format") != formatName || document.at("version") != formatVersion) {
            return ManifestState::Unreadable;
        }
        CatalogManifest read = ManifestFromJson(document);
        for (const auto& [name, cell] : read.Cells) {
            if (!IsCellName(name)) return ManifestState::Unreadable;
        }
        if (document.at("stars") != read.StarCount()) return ManifestState::Unreadable;
        manifest = std::move(read);
    } catch (const std::exception&) {
        return ManifestState::Unreadable;
    }
    return ManifestState::Good;
}

std::string TimeText(std::filesystem::file_time_type time) {
    using std::chrono::file_clock;
    return TimeText(std::chrono::floor<std::chrono::seconds>(file_clock::to_sys(time)));
}

std::string CurrentTimeText() {
    return TimeText(std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()));
}

}  // namespace vestrel
