// What the commands of the solve window do, without the window.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "program/mCommandLine.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// Marks the program busy for as long as it lives. False when something runs already: then nothing
/// else may start.
class Operation {
 public:
    Operation(ProgramState& state, Port& port, Activity activity);
    ~Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    explicit operator bool() const { return started_; }

 private:
    ProgramState& state_;
    Port& port_;
    bool started_;
};

/// Which commands may be given now.
struct AvailableCommands {
    bool Start = true;  ///< to match, open an image, edit parameters, ask the telescope
    bool Stop = false;
    bool Save = false;
    bool WriteWorldCoordinates = false;
    bool Sync = false;  ///< to send a solved centre to the telescope
};
AvailableCommands CommandsFor(const ProgramState& state);

/// What is wrong with an input.
struct InputFault {
    std::string SolveInputs::*Box;
    const char* Text;
};
/// The first of the inputs, in their order, that is not valid; nothing when a search can begin.
std::optional<InputFault> FaultOfInputs(const SolveInputs& inputs);

/// Checks the inputs in their order and shows a message about the first that is not valid.
/// @return what to solve for, without a path
std::optional<UnattendedRequest> ReadSolveInputs(const ProgramState& state, Port& port);

/// The size of the field that the inputs give, radians; nothing when they give none.
std::optional<std::pair<double, double>> FieldSizeOf(const SolveInputs& inputs);

/// What every search in the window begins with: says that there is no image, or that it works.
bool BeginAnySearch(ProgramState& state, Port& port);

/// Looks for the cause of a failed search and tells it in the details; the search was for a
/// request.
void ExplainFailure(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request);

/// Plate Match: solves the loaded image from the inputs.
void PlateMatchCommand(ProgramState& state, Port& port);

/// MORA: looks the loaded image up in the quad tables. It needs the size of the field only; the
/// inputs are checked as for Plate Match all the same. The centre of a sure match becomes the
/// approximate centre, for Plate Match to measure the image from.
void MoraCommand(ProgramState& state, Port& port);

/// Solves as a parameter string says. Nothing when something runs already.
std::optional<UnattendedOutcome> UnattendedCommand(ProgramState& state, Port& port,
                                                   const std::string& parameters);

/// Stop Search: the running solve sees it between two regions; the telescope is waited for no more.
void StopSearch(ProgramState& state);

/// Switches between arcminutes and degrees; the numbers stay.
void SwitchUnits(ProgramState& state);

/// Open: with the dialog, and of a path that is known.
void OpenImageCommand(ProgramState& state, Port& port);
void OpenImageCommand(ProgramState& state, Port& port, const std::string& path);

/// Save As; Export, as a standard FITS file; and the world coordinates in a file beside the image.
void SaveImageCommand(ProgramState& state, Port& port);
void ExportImageCommand(ProgramState& state, Port& port);
void WorldCoordinatesCommand(ProgramState& state, Port& port);

/// The text for the name of the loaded image, its name alone, and the text for its folder.
std::string ImageNameText(const ProgramState& state);
std::string ImageBaseName(const ProgramState& state);
std::string ImageFolderText(const ProgramState& state);

/// A name for a file that is made from the loaded image: its own without the last suffix, and this
/// ending.
std::string SuggestedName(const ProgramState& state, const std::string& ending);

/// The user closes the program. While something runs this asks it to stop, and the program is to
/// be closed when it has.
/// @return true when it may close now
bool RequestClose(ProgramState& state);

/// One second of the countdown that follows an unattended run. Held by "Keep Open", and while
/// something runs.
/// @return true when the program is to end
bool CountdownTick(ProgramState& state);

}  // namespace vestrel
