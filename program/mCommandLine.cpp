#include "program/mCommandLine.h"

#include <cmath>
#include <system_error>

#include "astro/libConversions.h"
#include "astro/libMath.h"
#include "astro/libStrings.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"
#include "program/mPlateMatch.h"

namespace vestrel {

namespace {

const std::string errorTitle = std::string(ProgramTitle) + " Error";

/// Removes an older result file. A path whose only "." stands in a folder, or that is itself named
/// like a result file, names no image: nothing of the user's may go for it.
void RemoveOldResult(const std::string& imagePath) {
    const std::size_t separator = LastFolderSeparator(imagePath);
    const std::filesystem::path file = ResultFilePath(imagePath);
    std::error_code error;
    if (separator != std::string::npos && imagePath.rfind('.') < separator) return;
    if (file == PathFromText(imagePath) || !std::filesystem::is_regular_file(file, error)) return;
    std::filesystem::remove(file, error);
}

/// A finite number from the next field of `rest`.
bool TakeNumber(std::string& rest, double& value) {
    std::string field;
    if (!SplitField(rest, ',', field)) return false;
    const auto number = ParseNumber(field);
    if (!number || !std::isfinite(*number)) return false;
    value = *number;
    return true;
}

std::string RoundedPlain(double value, int decimals) {
    return PlainNumberText(RoundToDecimals(value, decimals));
}

}  // namespace

std::string ResultMessage(std::int16_t code) {
    switch (code) {
        case SolveCode::Solved:
            return "Valid plate solution";
        case SolveCode::TooFewStars:
            return "Unanticipated problem during plate matching";
        case SolveCode::NoMatch:
            return "Maximum search limit exceeded";
        case SolveCode::Stopped:
            return "Vestrel was terminated by user";
        case SolveCode::NoImage:
            return "Can't open input file";
        default:
            return {};
    }
}

std::optional<UnattendedRequest> ParseParameterString(const std::string& text) {
    UnattendedRequest request;
    std::string rest = text;
    double regions = 0;
    if (!TakeNumber(rest, request.Ra) || !TakeNumber(rest, request.Dec) ||
        !TakeNumber(rest, request.Width) || !TakeNumber(rest, request.Height) ||
        !TakeNumber(rest, regions) || !RoundToInt32(regions, request.RegionLimit)) {
        return std::nullopt;
    }
    request.Path = Trim(rest);
    return request;
}

std::filesystem::path ResultFilePath(const std::string& imagePath) {
    return PathFromText(imagePath.substr(0, imagePath.rfind('.')) + ".kel");
}

std::string ResultFileText(const ProgramState& state, std::int16_t code) {
    const bool solved = code == SolveCode::Solved;
    const PlateSolution& solution = state.Solution;
    const ShownGeometry& geometry = state.Geometry;
    std::string text = (solved ? RoundedPlain(solution.CentreRA, 7) : "1000") + "," +
                       (solved ? RoundedPlain(solution.CentreDec, 7) : "1000") + "," +
                       std::to_string(code) + "\r\n";
    text += RoundedPlain(geometry.ScaleArcseconds, 5) + "," +
            RoundedPlain(geometry.AngleDegrees, 2) + "," + RoundedPlain(geometry.Stretch, 5) + "," +
            RoundedPlain(geometry.Skew, 5) + "," + std::to_string(state.Extraction.StarsFound) +
            "\r\n";
    return text + ResultMessage(code) + "\r\n";
}

void ShowStartingValues(ProgramState& state, Port& port, const UnattendedRequest& request,
                        const char* times) {
    const auto arcminutes = [](double radians) { return RoundedText(radians * 180 / Pi * 60, 1); };
    SolveDisplay& display = state.Display;
    display.StartRA = FormatRA(request.Ra, true, 2);
    display.StartDec = FormatDec(request.Dec, true, 1);
    display.StartSize = arcminutes(request.Width) + "'" + times + arcminutes(request.Height) + "'";
    display.StartRegions = std::to_string(request.RegionLimit);
    port.DisplayChanged();
}

UnattendedOutcome RunUnattended(ProgramState& state, Port& port, const std::string& parameters) {
    UnattendedOutcome outcome;
    const auto request = ParseParameterString(parameters);
    if (!request) {
        port.ShowMessage("Invalid parameter string", errorTitle);
        return outcome;
    }
    outcome.Request = *request;
    if (request->Path.find('.') == std::string::npos) {
        port.ShowMessage("Invalid file name", errorTitle);
        outcome.End = UnattendedEnd::InvalidFileName;
        return outcome;
    }

    RemoveOldResult(request->Path);
    if (!OpenImage(state, port, request->Path)) {
        outcome.End = UnattendedEnd::NoImage;
        outcome.Result = {SolveCode::NoImage, ResultMessage(SolveCode::NoImage)};
        port.ShowMessage(outcome.Result.Message, errorTitle);
        return outcome;
    }

    ShowStartingValues(state, port, *request, " X ");
    double ra = request->Ra;
    double dec = request->Dec;
    const std::int16_t code = SolvePlate(state, port, ra, dec, request->Width, request->Height,
                                         request->RegionLimit, state.Parameters.MaxError);
    outcome.End = UnattendedEnd::Finished;
    outcome.Result = {code, ResultMessage(code)};
    if (code == SolveCode::Solved) {
        state.Display.SolutionOverlays = true;
        port.ImageChanged();
    }
    outcome.ResultFileWritten =
        ReplaceFile(ResultFilePath(request->Path), ResultFileText(state, code));
    port.Yield();
    return outcome;
}

}  // namespace vestrel
