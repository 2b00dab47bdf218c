// What hosts hand over as files: tables of stars, headers with world coordinates, images whose
// header is to have them, and scripts.

#include <cmath>
#include <span>
#include <stdexcept>

#include "compat/libFitsStars.h"
#include "compat/libHeaderHints.h"
#include "compat/libHeaderUpdate.h"
#include "compat/libMeasuredFlux.h"
#include "compat/libShellScript.h"
#include "compat/libWcsInfo.h"
#include "fuzz/fuzzSupport.h"
#include "image/libFitsCards.h"

namespace vestrel {
namespace {

void CheckHeader(std::span<const std::uint8_t> file) {
    std::vector<std::string> cards;
    for (std::size_t at = 0; at + FitsCardLength <= file.size(); at += FitsCardLength) {
        cards.emplace_back(TextOf(file.data() + at, FitsCardLength));
    }
    for (const HeaderCentre& centre : HeaderCentres(cards)) {
        Require(centre.Ra >= 0 && centre.Ra <= 360, "right ascension lies in the circle");
        Require(centre.Dec >= -90.001 && centre.Dec <= 90.001, "declination lies on the sky");
    }
    const auto scale = HeaderMatrixScale(cards);
    Require(!scale || (*scale > 0 && *scale < 1), "a scale is one");
    try {
        const std::vector<std::string> added = {FitsNumberCard("CRVAL1", 1)};
        const auto once = WithCoordinates(file, added, 4, 3);
        Require(once.size() % FitsBlockLength == file.size() % FitsBlockLength,
                "what follows the header stays");
        Require(WithCoordinates(once, added, 4, 3) == once, "a second time changes nothing");
    } catch (const std::runtime_error&) {
        return;  // it was no such file
    }
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    std::string fault;
    if (const auto table = ReadFitsStars({data, size}, {}, fault)) {
        Require(HoldsStarTable({data, size}), "what can be read is a table");
        Require(table->Stars.size() <= size, "no more stars than bytes");
        for (const ListedStar& star : table->Stars) {
            Require(std::isfinite(star.X) && std::isfinite(star.Y) && std::isfinite(star.Rank),
                    "stars have numbers");
        }
        const auto ranked = RankedStars(table->Stars);
        Require(InterleavedStars(ranked, table->Width, table->Height).size() == ranked.size(),
                "no star is lost");
    } else {
        Require(!fault.empty(), "what is refused has a reason");
    }
    CheckHeader({data, size});
    std::map<std::string, std::string> variables;
    std::size_t letters = 0;
    for (const ShellCommand& command : CommandsOf(TextOf(data, size), variables)) {
        Require(!command.empty(), "a command has a name");
        for (const std::string& word : command) letters += word.size();
    }
    Require(!variables.empty() || letters <= size, "words come from the script");
    if (const auto wcs = ReadHeaderCoordinates({data, size})) {
        Require(WcsInfoText(*wcs).starts_with("crpix0 "), "every header that was read can be told");
    }
    return 0;
}
