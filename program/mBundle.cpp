#include "program/mBundle.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <span>
#include <stdexcept>
#include <system_error>

#include "catalog/libCatalogCells.h"
#include "image/libFitsCards.h"
#include "image/libHeaderText.h"
#include "image/libHints.h"
#include "matching/libQuadFile.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "platform/libZipFile.h"

namespace vestrel {

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr int bundleVersion = 1;
constexpr const char* mainEntry = "bundle.json";
constexpr std::string_view cellFolder = "cells/";
constexpr std::size_t largestFile = std::size_t{256} << 20;

[[noreturn]] void Damaged(const std::string& what) {
    throw std::runtime_error("The bundle is damaged: " + what + ".");
}

/// Visits every number of the settings with its name, for reading and writing.
template <typename Parameters, typename Visit>
void ForParameters(Parameters& parameters, const Visit& visit) {
    visit("max_star_size", parameters.MaxStarSize);
    visit("match_tolerance", parameters.MatchTolerance);
    visit("match_divisor", parameters.MatchDivisor);
    visit("detection_threshold", parameters.DetectionThreshold);
    visit("edge_exclusion", parameters.EdgeExclusion);
    visit("max_geometric_error", parameters.MaxGeometricError);
    visit("min_star_size", parameters.MinStarSize);
    visit("max_stars", parameters.MaxStars);
    visit("max_error", parameters.MaxError);
}

template <typename Outcome, typename Visit>
void ForOutcome(Outcome& outcome, const Visit& visit) {
    visit("solved_by", outcome.SolvedBy);
    visit("centre_ra", outcome.CentreRa);
    visit("centre_dec", outcome.CentreDec);
    visit("scale", outcome.Scale);
    visit("matched", outcome.Matched);
}

template <typename Object, typename Walk>
Json Written(const Object& object, const Walk& walk) {
    Json json;
    walk(object, [&json](const char* name, const auto& field) { json[name] = field; });
    return json;
}

Json WrittenStars(const PlateStarList& stars) {
    Json list = Json::array();
    for (const PlateStar& star : stars) list.push_back({star.X, star.Y, star.Flux});
    return list;
}

PlateStarList ReadStars(const Json& list) {
    constexpr std::size_t most = 100000;
    constexpr double farthest = 1e6;
    PlateStarList stars;
    if (list.size() > most) Damaged("a star list is too long");
    for (const Json& item : list) {
        const PlateStar star{item.at(0).get<float>(), item.at(1).get<float>(),
                             item.at(2).get<float>(), 0, 0};
        if (!(std::fabs(double{star.X}) < farthest) || !(std::fabs(double{star.Y}) < farthest) ||
            !std::isfinite(star.Flux)) {
            Damaged("a star lies nowhere");
        }
        stars.Add(star);
    }
    return stars;
}

Json WrittenRequest(const SearchRequest& request) {
    Json around = Json::array();
    for (const SearchHint& hint : request.Around) {
        around.push_back({{"ra", hint.Centre.Ra},
                          {"dec", hint.Centre.Dec},
                          {"width", hint.Width},
                          {"height", hint.Height},
                          {"regions", hint.Regions},
                          {"briefly", hint.Briefly},
                          {"size_remembered", hint.SizeRemembered}});
    }
    return {{"around", around},
            {"everywhere", request.Everywhere},
            {"diagonals", request.Diagonals},
            {"time_limit", request.TimeLimit}};
}

/// Reads a number of a request and refuses one that is out of range.
double ReadNumber(const Json& json, const char* name, double least, double most) {
    const double value = json.at(name).get<double>();
    if (!(value >= least && value <= most)) Damaged(std::string(name) + " is out of range");
    return value;
}

SearchRequest ReadRequest(const Json& json) {
    constexpr double circle = 7;  // radians, a little more than one
    constexpr double mostRegions = 10000;
    constexpr std::size_t mostHints = 100;
    SearchRequest request;
    for (const Json& item : json.at("around")) {
        request.Around.push_back(
            {{ReadNumber(item, "ra", -circle, circle), ReadNumber(item, "dec", -2, 2)},
             ReadNumber(item, "width", 1e-7, circle),
             ReadNumber(item, "height", 1e-7, circle),
             static_cast<std::int32_t>(ReadNumber(item, "regions", 0, mostRegions)),
             item.at("briefly").get<bool>(),
             item.value("size_remembered", false)});
    }
    request.Everywhere = json.at("everywhere").get<bool>();
    request.Diagonals = json.at("diagonals").get<std::vector<double>>();
    for (const double diagonal : request.Diagonals) {
        if (!(diagonal > 0 && diagonal < circle)) Damaged("a diagonal is out of range");
    }
    if (request.Around.size() > mostHints || request.Diagonals.size() > mostHints) {
        Damaged("it has too many hints");
    }
    request.TimeLimit = ReadNumber(json, "time_limit", 0, 1e6);
    return request;
}

/// The extension with its ".", when it is of letters and digits only.
std::string PlainExtension(const fs::path& file) {
    std::string extension = TextFromPath(file.extension());
    const bool plain = std::all_of(extension.begin(), extension.end(), [](char c) {
        return c == '.' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
               (c >= 'a' && c <= 'z');
    });
    return plain ? extension : "";
}

void AddFile(std::vector<ZipEntry>& entries, std::string name, const fs::path& path) {
    std::vector<unsigned char> bytes;
    if (!ReadWholeFile(path, largestFile, bytes)) {
        throw std::runtime_error(TextFromPath(path) + " cannot be read for the bundle.");
    }
    entries.push_back({std::move(name), std::string(bytes.begin(), bytes.end())});
}

/// Makes a new folder for this process alone, inside the system's folder for temporary files.
fs::path MakeFolder() {
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
        fs::path folder =
            fs::temp_directory_path() /
            ("vestrel-bundle-" + std::to_string(ProcessNumber()) + "-" + std::to_string(random()));
        if (fs::create_directory(folder)) {
            fs::permissions(folder, fs::perms::owner_all);
            return folder;
        }
    }
    throw std::runtime_error("There is no place for the catalog cells of the bundle.");
}

}  // namespace

struct Bundle::Contents {
    Contents() = default;
    ~Contents() {
        std::error_code ignored;
        if (!Folder.empty()) fs::remove_all(Folder, ignored);
    }
    Contents(const Contents&) = delete;
    Contents& operator=(const Contents&) = delete;

    fs::path Folder;  ///< of the catalog cells; removed with this
    SolveParameters Parameters;
    SearchRequest Request;
    ExtractionFacts Extraction;
    bool Smoothed = false;
    PlateImage Image;
};

BundledOutcome OutcomeOf(const ProgramState& state, SolveCode code, const PlanReport& plan) {
    BundledOutcome outcome;
    outcome.Code = code;
    if (code != SolveCode::Solved || !state.Solution) return outcome;
    outcome.SolvedBy = plan.SolvedBy;
    outcome.CentreRa = state.Solution->CentreRA;
    outcome.CentreDec = state.Solution->CentreDec;
    outcome.Scale = state.Solution->Scale;
    outcome.Matched = state.Solution->MatchedCount;
    return outcome;
}

void WriteBundle(const std::filesystem::path& path, const ProgramState& state,
                 const SearchRequest& request, const PlanReport& plan, SolveCode code,
                 bool pixels) {
    const PlateImage& image = state.Image;
    const fs::path file = PathFromText(image.FileName);
    const std::string name = TextFromPath(file.filename());
    Json json;
    json["bundle"] = bundleVersion;
    json["program"] = ProgramTitle;
    json["picture"] = {{"name", name},
                       {"width", image.Width},
                       {"height", image.Height},
                       {"type", static_cast<int>(image.ImageType)},
                       {"format", image.Format},
                       {"bitpix", image.Header.BitPix},
                       {"top_row_first", image.TopRowFirst},
                       {"mosaic", IsMosaic(image)},
                       {"cards", HeaderLines(image)}};
    json["settings"] = Written(state.Parameters, [](const auto& parameters, const auto& visit) {
        ForParameters(parameters, visit);
    });
    json["request"] = WrittenRequest(request);
    json["extraction"] = {{"stars_found", state.Extraction.StarsFound},
                          {"sky_noise", state.Extraction.BackgroundSigma},
                          {"smoothed", state.Report.Smoothed}};
    json["lists"] = Json::array();
    for (const auto& list : plan.Lists)
        json["lists"].push_back(list ? WrittenStars(*list) : Json());
    json["attempts"] = Json::array();
    for (const PlanAttempt& attempt : plan.Attempts) json["attempts"].push_back(attempt.Name);
    json["outcome"] =
        Written(OutcomeOf(state, code, plan),
                [](const auto& outcome, const auto& visit) { ForOutcome(outcome, visit); });
    json["outcome"]["code"] = NumberOf(code);

    std::vector<ZipEntry> entries;
    entries.push_back({mainEntry, json.dump(1, ' ', false, Json::error_handler_t::replace)});
    std::set<std::string> cells;
    for (const CachedCell& cell : state.Catalog.Cells) {
        if (cell.StarCount > 0) cells.insert(cell.CellName);
    }
    for (const std::string& cell : cells) {
        AddFile(entries, std::string(cellFolder) + cell, state.Catalog.Folder / cell);
    }
    // Wide regions need no more of the cells that the cache had no room for.
    const std::map<std::string, BrightCell> bright(state.Catalog.Bright.begin(),
                                                   state.Catalog.Bright.end());
    for (const auto& [cell, kept] : bright) {
        if (kept.Cell.Stars.size() <= 1 || cells.count(cell) > 0) continue;
        std::string bytes;
        for (const CatalogStar& star : std::span(kept.Cell.Stars).subspan(1)) {
            const auto record = EncodeCatalogStar(star);
            bytes.append(record.begin(), record.end());
        }
        entries.push_back({std::string(cellFolder) + cell, bytes});
    }
    // The picture's own name need not be one that every archive can hold.
    if (pixels) AddFile(entries, "picture/image" + PlainExtension(file), file);
    WriteZip(path, entries);
}

Bundle::Bundle(const std::filesystem::path& path) : contents_(std::make_unique<Contents>()) {
    const std::vector<ZipEntry> entries = ReadZip(path);
    const auto main = std::find_if(entries.begin(), entries.end(),
                                   [](const ZipEntry& entry) { return entry.Name == mainEntry; });
    if (main == entries.end()) {
        throw std::runtime_error(TextFromPath(path) + " is an archive, but no bundle.");
    }
    try {
        // Deep nesting would exhaust the stack.
        constexpr int deepest = 20;
        bool tooDeep = false;
        const Json json = Json::parse(main->Bytes, [&](int depth, auto, auto&) {
            tooDeep = tooDeep || depth > deepest;
            return !tooDeep;
        });
        if (tooDeep) Damaged("it is nested too deeply");
        if (json.at("bundle").get<int>() != bundleVersion) {
            throw std::runtime_error("The bundle is of a version that this program does not know.");
        }
        const Json& picture = json.at("picture");
        constexpr double longestSide = 65535;
        picture_ = picture.at("name").get<std::string>();
        PlateImage& image = contents_->Image;
        image.FileName = picture_;
        image.Width = static_cast<std::int32_t>(ReadNumber(picture, "width", 1, longestSide));
        image.Height = static_cast<std::int32_t>(ReadNumber(picture, "height", 1, longestSide));
        image.ImageType = static_cast<ImageType>(
            static_cast<int>(ReadNumber(picture, "type", 0, static_cast<int>(ImageType::Decoded))));
        image.Format = picture.at("format").get<std::string>();
        image.Header.BitPix = static_cast<std::int16_t>(ReadNumber(picture, "bitpix", -64, 64));
        image.TopRowFirst = picture.at("top_row_first").get<bool>();
        if (picture.value("mosaic", false)) {
            // The only parts of the header that a plan reads.
            image.Header.Cards[1] = FitsTextCard("BAYERPAT", "RGGB");
            image.Header.CardCount = 1;
        }
        ForParameters(contents_->Parameters, [&](const char* name, auto& field) {
            field = static_cast<std::remove_reference_t<decltype(field)>>(
                ReadNumber(json.at("settings"), name, 0, 32767));
        });
        constexpr std::int16_t mostStars = 1000;  // as everywhere: triangles grow with the cube
        contents_->Parameters.MaxStars = std::min(contents_->Parameters.MaxStars, mostStars);
        contents_->Request = ReadRequest(json.at("request"));
        const Json& extraction = json.at("extraction");
        contents_->Extraction.StarsFound =
            static_cast<std::int32_t>(ReadNumber(extraction, "stars_found", 0, 1e9));
        contents_->Extraction.BackgroundSigma = ReadNumber(extraction, "sky_noise", 0, 1e12);
        contents_->Smoothed = extraction.at("smoothed").get<bool>();
        StarLists lists;
        const Json& stored = json.at("lists");
        if (stored.size() != lists.size()) Damaged("star lists are missing");
        for (std::size_t i = 0; i < lists.size(); ++i) {
            if (!stored[i].is_null()) lists[i] = ReadStars(stored[i]);
        }
        contents_->Request.Lists = std::move(lists);
        const Json& outcome = json.at("outcome");
        ForOutcome(outcome_, [&](const char* name, auto& field) {
            field = outcome.at(name).get<std::remove_reference_t<decltype(field)>>();
        });
        const int code = outcome.at("code").get<int>();
        for (const SolveCode known : {SolveCode::Solved, SolveCode::TooFewStars, SolveCode::NoMatch,
                                      SolveCode::Stopped, SolveCode::NoImage}) {
            if (NumberOf(known) == code) outcome_.Code = known;
        }
    } catch (const Json::exception& fault) {
        Damaged(fault.what());
    }
    contents_->Folder = MakeFolder();
    for (const ZipEntry& entry : entries) {
        if (!entry.Name.starts_with(cellFolder)) continue;
        const std::string cell = entry.Name.substr(cellFolder.size());
        // Names of cells have no separators, so they cannot lead out of the folder.
        if (!IsCellName(cell)) Damaged("it holds a file that is no catalog cell");
        if (!ReplaceFile(contents_->Folder / cell, entry.Bytes)) {
            throw std::runtime_error("The catalog cells of the bundle cannot be written to " +
                                     TextFromPath(contents_->Folder) + ".");
        }
    }
}

Bundle::~Bundle() = default;

SearchRequest Bundle::Prepare(ProgramState& state) const {
    ForgetImage(state);
    const PlateImage& image = contents_->Image;
    state.Image = PlateImage();
    state.Image.FileName = image.FileName;
    state.Image.Width = image.Width;
    state.Image.Height = image.Height;
    state.Image.ImageType = image.ImageType;
    state.Image.Format = image.Format;
    state.Image.Header.BitPix = image.Header.BitPix;
    state.Image.TopRowFirst = image.TopRowFirst;
    state.ImageLoaded = true;
    state.BackgroundRemoved = true;
    state.Extraction = contents_->Extraction;
    state.Parameters = contents_->Parameters;
    std::error_code ignored;
    fs::create_symlink(AbsolutePath(state.Catalog.Folder / QuadFileName),
                       contents_->Folder / QuadFileName, ignored);
    state.Catalog = {};
    state.Catalog.Folder = contents_->Folder;
    return contents_->Request;
}

}  // namespace vestrel
