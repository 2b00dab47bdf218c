// Bundles of any content are refused with a sentence or replayed in bounded time. Nothing is
// written outside their own folder, which is removed afterwards.
//
// The first byte chooses what the rest is: a whole archive, or the text of an archive's main entry.
// In the second case the last bytes also become a catalog cell, under the name of a cell or, as a
// forger might, under the first line of the text.

#include <memory>

#include "fuzz/fuzzSupport.h"
#include "platform/libZipFile.h"
#include "program/mBundle.h"

namespace {

using namespace vestrel;

/// Stops a plan after its first steps: a bundle may ask for 10,000 regions.
class FuzzPort : public RecordingPort {
 public:
    explicit FuzzPort(ProgramState& state) : RecordingPort(state), state_(state) {}
    void Yield() override {
        constexpr int mostYields = 4;
        Messages.clear();
        Statuses.clear();
        state_.StopRequested = state_.StopRequested || ++yields_ > mostYields;
    }

 private:
    ProgramState& state_;
    int yields_ = 0;
};

void Replay(const Bundle& bundle) {
    const auto state = std::make_unique<ProgramState>();
    state->Catalog.Folder = InputFolder() / "no tables";
    SearchRequest request = bundle.Prepare(*state);
    constexpr std::int32_t mostStars = 20000;
    for (const auto& list : *request.Lists) {
        if (list && list->Count() > mostStars) return;  // only slow
    }
    state->Parameters.MaxStars = std::min<std::int16_t>(state->Parameters.MaxStars, 40);
    request.TimeLimit = std::min(request.TimeLimit, 0.05);
    FuzzPort port(*state);
    PlanReport plan;
    const SolveCode code = SolveByPlan(*state, port, request, plan);
    const BundledOutcome outcome = OutcomeOf(*state, code, plan);
    Require(outcome == outcome, "an outcome is made of numbers");
    Require((code == SolveCode::Solved) == !outcome.SolvedBy.empty(), "what solved it has a name");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t cellBytes = 20;
    if (size < 1 || !HasZip()) return 0;
    static const std::filesystem::path file = InputFolder() / "one.zip";
    static const std::filesystem::path temporary = [] {
        const std::filesystem::path folder = InputFolder() / "temporary";
        std::filesystem::create_directory(folder);
        SetVariable("TMPDIR", folder);
        return folder;
    }();
    const std::string text(TextOf(data + 1, size - 1));
    if (data[0] % 3 == 0) {
        WriteFile(file, text);
    } else {
        const std::size_t line = std::min(text.find('\n'), text.size());
        const bool forged = data[0] % 3 == 1;
        const std::string cell = forged ? text.substr(0, line) : "N00R03";
        const std::string main = forged ? text.substr(line) : text;
        try {
            WriteZip(file, {{"bundle.json", main},
                            {"cells/" + cell,
                             text.substr(text.size() - std::min(text.size(), cellBytes))}});
        } catch (const ZipFault&) {
            return 0;  // a name that archives do not allow
        }
    }
    try {
        Replay(Bundle(file));
    } catch (const std::runtime_error& fault) {
        Require(!std::string_view(fault.what()).empty(), "a refusal says why");
    }
    Require(std::filesystem::is_empty(temporary), "nothing is left behind");
    for (const auto& entry : std::filesystem::directory_iterator(InputFolder())) {
        Require(entry.path() == file || entry.path() == temporary, "nothing is written elsewhere");
    }
    return 0;
}
