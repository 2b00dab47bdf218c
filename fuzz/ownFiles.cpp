// Files that the program keeps for itself, after something has damaged them: preferences, recent
// images, the tables of named objects, the journal of a night.
//
// The first byte chooses the kind, the rest is the file.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "batch/libJournal.h"
#include "display/libSkyObjects.h"
#include "fuzz/fuzzSupport.h"
#include "program/mPreferences.h"
#include "program/mRecentImages.h"

namespace {

using namespace vestrel;

void CheckPreferences() {
    const auto state = std::make_unique<ProgramState>();
    LoadPreferences(*state);
    Require(state->Preferences.size() <= 100, "preferences are bounded");
    const auto loaded = state->Preferences;
    Require(SavePreferences(*state), "preferences are written");
    LoadPreferences(*state);
    Require(state->Preferences == loaded, "preferences are read as they were written");
}

void CheckRecentImages() {
    const auto state = std::make_unique<ProgramState>();
    LoadRecentImages(*state);
    Require(state->RecentImages.size() <= 8, "the list of images is bounded");
    const auto loaded = state->RecentImages;
    Require(SaveRecentImages(*state), "the list is written");
    LoadRecentImages(*state);
    Require(state->RecentImages == loaded, "the list is read as it was written");
}

void CheckSkyObjects(const std::filesystem::path& file) {
    ImageHeader header;
    header.PlateMatched = true;
    header.PlateScale = 206264.81;
    header.RaRef = 0.1;
    header.DecRef = 1.4;
    const double transform[2][3] = {{200, 5, -50000}, {5, -200, 50000}};
    std::copy_n(&transform[0][0], 6, &header.PlateTransform[0][0]);
    const auto map = SkyMap::Of(header);
    Require(map.has_value(), "the map is good");

    const std::vector<SkyObject> objects = ReadSkyObjects(file);
    for (const SkyObject& object : objects) {
        Require(!object.Name.empty() && !object.Label().empty(), "an object has a name");
        Require(object.Position.Ra >= 0 && object.Position.Ra < 6.2832 &&
                    std::fabs(object.Position.Dec) < 1.5708,
                "it is on the sky");
        Require(object.Minor >= 0 && object.Major >= 0 && std::isfinite(object.PositionAngle),
                "it has a shape");
    }
    constexpr std::size_t most = 5;
    const auto shown = ObjectsOnImage(objects, *map, 500, 500, most);
    Require(shown.size() <= std::min(most, objects.size()), "some of them are shown");
    for (const ObjectOnImage& one : shown) {
        Require(std::isfinite(one.Place.X) && std::isfinite(one.Reach), "they have a place");
    }
}

void CheckJournal(const std::filesystem::path& file, std::string_view before) {
    std::size_t valid = 0;
    std::size_t strange = 0;
    std::unique_ptr<Journal> journal;
    try {
        strange = ReadJournal(file, [&](const auto& line) {
            ++valid;
            (void)PicturePathOf(line);
        });
        journal = std::make_unique<Journal>(file);
    } catch (const std::runtime_error&) {
        Require(ReadFile(file) == before, "what is no journal is left as it is");
        return;
    }
    Require(journal->Strange() == strange && journal->Count() <= valid, "lines are counted once");
    const std::string healed = ReadFile(file);
    Require(healed == before.substr(0, before.rfind('\n') + 1), "whole lines stay");

    const std::string picture = "night/frame \xFF.fit";
    nlohmann::ordered_json line;
    AddPath(line, PictureKey, picture);
    journal->Add(picture, line);
    Require(journal->Has(picture), "a picture that is done is known");
    Require(ReadFile(file).starts_with(healed), "earlier lines stay");
    journal.reset();
    Require(Journal(file).Has(picture), "also to the next process");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    static const bool own = setenv("VESTREL_STATE", InputFolder().c_str(), 1) == 0;
    Require(own, "the environment takes the folder's name");
    const std::string_view rest = TextOf(data + 1, size - 1);
    const std::filesystem::path file = InputFolder() / "file";
    switch (data[0] % 4) {
        case 0:
            WriteFile(InputFolder() / "preferences", rest);
            CheckPreferences();
            break;
        case 1:
            WriteFile(InputFolder() / "recent-images", rest);
            CheckRecentImages();
            break;
        case 2:
            WriteFile(file, rest);
            CheckSkyObjects(file);
            break;
        default:
            WriteFile(file, rest);
            CheckJournal(file, rest);
    }
    return 0;
}
