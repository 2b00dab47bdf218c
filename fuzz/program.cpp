// The whole program: a parameter string, with an image and a catalog cell of any content.
//
// The first byte chooses the reader, the next two say how many bytes the image has, a fourth how
// large the field is; the rest is the catalog cell. A run ends with one of its codes and a whole
// result file, or with none.

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "fuzz/fuzzSupport.h"
#include "program/mCommandLine.h"
#include "program/mImageData.h"
#include "program/mPlateMatch.h"

namespace {

using namespace vestrel;

constexpr std::array endings = {".fit", ".sbig", ".jpg"};
/// Larger images would only be slow.
constexpr std::int32_t mostPixels = 300 * 300;
/// The place of the cells in the seed inputs, radians.
constexpr double ra = 0.1833;
constexpr double dec = 0.0995;

/// Stops a run when the image turns out too large to be solved in a moment.
class FuzzPort : public RecordingPort {
 public:
    explicit FuzzPort(ProgramState& state) : RecordingPort(state), state_(state) {}
    void Yield() override {
        Messages.clear();
        Statuses.clear();
        state_.StopRequested = state_.StopRequested || state_.Report.RegionsTried > 1;
    }

 private:
    ProgramState& state_;
};

bool IsTooLarge(const std::filesystem::path& image, const std::string& path) {
    const auto state = std::make_unique<ProgramState>();
    FuzzPort port(*state);
    return OpenImage(*state, port, path) &&
           (state->Image.Width * state->Image.Height > mostPixels || image.empty());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t headBytes = 4;
    if (size < headBytes) return 0;
    const char* ending = endings[data[0] % endings.size()];
    const std::size_t wanted = std::size_t{data[1]} << 8 | data[2];
    const double field = 0.002 + data[3] / 2000.0;
    const std::size_t imageBytes = std::min(wanted, size - headBytes);
    const std::string_view rest = TextOf(data + headBytes, size - headBytes);
    const std::filesystem::path image = InputFolder() / (std::string("image") + ending);
    const std::filesystem::path result = ResultFilePath(TextFromPath(image));
    WriteFile(image, rest.substr(0, imageBytes));
    WriteFile(InputFolder() / "N02R02", rest.substr(imageBytes));
    WriteFile(result, "stale");
    if (IsTooLarge(image, TextFromPath(image))) return 0;

    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = InputFolder();
    FuzzPort port(*state);
    const std::string parameters = std::to_string(ra) + "," + std::to_string(dec) + "," +
                                   std::to_string(field) + "," + std::to_string(field) + ",2," +
                                   TextFromPath(image);
    const UnattendedOutcome outcome = RunUnattended(*state, port, parameters);
    if (outcome.End == UnattendedEnd::NoImage) {
        Require(!std::filesystem::exists(result), "an old result does not outlive an unread image");
        return 0;
    }
    Require(outcome.End == UnattendedEnd::Finished && outcome.ResultFileWritten, "a run finishes");
    Require(!ResultMessage(outcome.Result.Code).empty(), "its code has a message");
    const std::string text = ReadFile(result);
    Require(text == ResultFileText(*state, outcome.Result.Code), "the result file is whole");
    Require(std::count(text.begin(), text.end(), '\n') == 3 && text.ends_with("\r\n"),
            "it has three lines");
    if (outcome.Result.Code == SolveCode::Solved) {
        Require(state->Solution && std::abs(state->Solution->CentreDec) <= 4,
                "a solution lies on the sky");
    }
    return 0;
}
