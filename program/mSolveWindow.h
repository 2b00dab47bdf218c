// The commands of the solve window, without the window.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "program/mCommandLine.h"
#include "program/mGeneral.h"
#include "program/mSearchPlan.h"

namespace vestrel {

/// Marks the program as busy while it lives. It converts to false when something else is running:
/// the command must then do nothing.
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

/// Which commands are available now.
struct AvailableCommands {
    bool Start = true;  ///< to solve, open an image, edit parameters, use the telescope
    bool Stop = false;
    bool Save = false;
    bool WriteWorldCoordinates = false;
    bool Sync = false;  ///< sending a solved centre to the telescope
};
AvailableCommands CommandsFor(const ProgramState& state);

/// What is wrong with an input.
struct InputFault {
    std::string SolveInputs::*Box;
    const char* Text;
};
/// The first invalid input, in their order; nothing when a search can begin.
std::optional<InputFault> FaultOfInputs(const SolveInputs& inputs);

/// Checks the inputs in their order and shows a message about the first invalid one.
/// @return the request, without a path
std::optional<UnattendedRequest> ReadSolveInputs(const ProgramState& state, Port& port);

/// The field size in the inputs, radians; nothing when it is not valid.
std::optional<std::pair<double, double>> FieldSizeOf(const SolveInputs& inputs);

/// Begins every search in the window: shows that it works, or that there is no image (then false).
bool BeginAnySearch(ProgramState& state, Port& port);

/// Looks for the cause of a failed search and tells it in the details; the search was for a
/// request.
void ExplainFailure(ProgramState& state, Port& port, SolveCode code, const SearchRequest& request);

/// Plate Match: solves the loaded image from the inputs.
void PlateMatchCommand(ProgramState& state, Port& port);

/// MORA: looks up the loaded image in the quad tables. It needs only the size of the field, but the
/// inputs are checked as for Plate Match. The centre of a sure match becomes the approximate
/// centre, from which Plate Match then measures the image.
void MoraCommand(ProgramState& state, Port& port);

/// Solves by a parameter string. Nothing when something else is running.
std::optional<UnattendedOutcome> UnattendedCommand(ProgramState& state, Port& port,
                                                   const std::string& parameters);

/// Stop Search: the running solve notices it between two regions, and waiting for the telescope
/// ends.
void StopSearch(ProgramState& state);

/// Switches between arcminutes and degrees; the numbers stay.
void SwitchUnits(ProgramState& state);

/// Open: with the dialog, or with a given path.
void OpenImageCommand(ProgramState& state, Port& port);
void OpenImageCommand(ProgramState& state, Port& port, const std::string& path);

/// Save As; Export as a standard FITS file; and writing the world coordinates to a file beside the
/// image.
void SaveImageCommand(ProgramState& state, Port& port);
void ExportImageCommand(ProgramState& state, Port& port);
void WorldCoordinatesCommand(ProgramState& state, Port& port);

/// The text shown for the name of the loaded image, its file name, and the text shown for its
/// folder.
std::string ImageNameText(const ProgramState& state);
std::string ImageBaseName(const ProgramState& state);
std::string ImageFolderText(const ProgramState& state);

/// What the suggested names of files end with that are made of a picture: the view, the whole
/// picture with everything over it, and the copy with its solution.
inline const std::string ViewEnding = "-view.png";
inline const std::string AnnotatedEnding = "-annotated.png";
inline const std::string SolvedEnding = "-solved.fits";

/// A name for a file made from the loaded image: its name without the last suffix, plus `ending`.
std::string SuggestedName(const ProgramState& state, const std::string& ending);

/// The user closes the program. A running command is asked to stop, and the program closes when it
/// has.
/// @return true when it may close now
bool RequestClose(ProgramState& state);

/// One second of the countdown after an unattended run. It stops while "Keep Open" is set or
/// something runs.
/// @return true when the program must end
bool CountdownTick(ProgramState& state);

}  // namespace vestrel
