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
#include "program/mSearchPlan.h"

namespace vestrel {

namespace {

/// Whether the path of an image gives the name of a result file: a "." in a folder's name says
/// nothing about the file.
bool NamesAResult(const std::string& imagePath) {
    const std::size_t dot = imagePath.rfind('.');
    const std::size_t separator = LastFolderSeparator(imagePath);
    return dot != std::string::npos && (separator == std::string::npos || dot > separator);
}

/// Removes an older result file, or empties it where the folder lets nothing be removed. A path
/// that is itself named like a result file names no image, so it is not removed.
/// @return why that failed
std::error_code RemoveOldResult(const std::string& imagePath) {
    namespace fs = std::filesystem;
    const fs::path image = PathFromText(imagePath);
    const fs::path file = ResultFilePath(imagePath);
    std::error_code error;
    if (file == image || !fs::is_regular_file(file, error)) return {};
    fs::remove(file, error);
    if (!error) return {};
    // What a link leads to is not known to be a result.
    std::error_code emptied;
    if (!fs::is_symlink(file, emptied) && !fs::equivalent(file, image, emptied)) {
        fs::resize_file(file, 0, emptied);
        if (!emptied) return {};
    }
    return error;
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

std::optional<UnattendedRequest> ParseParameterString(const std::string& text) {
    UnattendedRequest request;
    std::string rest = text;
    double regions = 0;
    if (!TakeNumber(rest, request.Start.Ra) || !TakeNumber(rest, request.Start.Dec) ||
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

std::string ResultFileText(const ProgramState& state, SolveCode code) {
    std::string centre = "1000,1000";
    std::string plate = "0,0,0,0";
    if (code == SolveCode::Solved && state.Solution) {
        const PlateSolution& solution = *state.Solution;
        centre = RoundedPlain(solution.CentreRA, 7) + "," + RoundedPlain(solution.CentreDec, 7);
        plate = RoundedPlain(1 / solution.Scale, 5) + "," +
                RoundedPlain(PositionAngleDegrees(solution.Angle), 2) + "," +
                RoundedPlain(solution.Stretch, 5) + "," + RoundedPlain(solution.Skew, 5);
    }
    return centre + "," + std::to_string(NumberOf(code)) + "\r\n" + plate + "," +
           std::to_string(state.Extraction.StarsFound) + "\r\n" + ResultMessage(code) + "\r\n";
}

void ShowStartingValues(ProgramState& state, Port& port, const UnattendedRequest& request,
                        const char* times) {
    const auto arcminutes = [](double radians) { return RoundedText(radians * 180 / Pi * 60, 1); };
    SolveDisplay& display = state.Display;
    display.StartRa = FormatRA(request.Start.Ra, true, 2);
    display.StartDec = FormatDec(request.Start.Dec, true, 1);
    display.StartSize = arcminutes(request.Width) + "'" + times + arcminutes(request.Height) + "'";
    display.StartRegions = std::to_string(request.RegionLimit);
    port.DisplayChanged();
}

PlateSearch SearchFor(const UnattendedRequest& request, const SolveParameters& parameters) {
    return {request.Start, request.Width, request.Height, request.RegionLimit, parameters.MaxError};
}

namespace {

/// Runs the search plan after a solve with this code, unless that was sure or stopped.
SolveCode TryHarder(ProgramState& state, Port& port, const UnattendedRequest& request,
                    SolveCode code, double seconds) {
    const bool sure = state.Solution && IsSure(state.Solution->Confidence);
    if (code == SolveCode::Stopped || (code == SolveCode::Solved && sure)) return code;
    std::optional<PlateSolution> first;
    if (code == SolveCode::Solved) first = state.Solution;
    SearchRequest search;
    search.Around = {{request.Start, request.Width, request.Height, request.RegionLimit}};
    search.TimeLimit = seconds;
    PlanReport plan;
    const SolveCode harder = SolveByPlan(state, port, search, plan);
    if (harder == SolveCode::Solved || !first) return harder;
    FinishPlateSolution(state, port, std::move(*first));
    return SolveCode::Solved;
}

}  // namespace

void RemoveOldResultOf(const std::string& parameters) {
    const auto request = ParseParameterString(parameters);
    if (request && NamesAResult(request->Path)) (void)RemoveOldResult(request->Path);
}

UnattendedOutcome RunUnattended(ProgramState& state, Port& port, const std::string& parameters,
                                double harderFor) {
    UnattendedOutcome outcome;
    const auto refused = [&](UnattendedEnd end, const std::string& message) {
        outcome.End = end;
        outcome.Result.Message = message;
        port.ShowMessage(message, ErrorTitle);
        return outcome;
    };
    const auto request = ParseParameterString(parameters);
    if (!request) return refused(UnattendedEnd::InvalidParameters, "Invalid parameter string");
    outcome.Request = *request;
    if (request->Path.find('.') == std::string::npos) {
        return refused(UnattendedEnd::InvalidFileName, "Invalid file name");
    }

    const auto noImage = [&] {
        outcome.Result.Code = SolveCode::NoImage;
        return refused(UnattendedEnd::NoImage, ResultMessage(SolveCode::NoImage));
    };
    if (!NamesAResult(request->Path)) return noImage();
    if (const std::error_code error = RemoveOldResult(request->Path)) {
        return refused(UnattendedEnd::OldResultStays,
                       "The result file of an earlier solve, " +
                           TextFromPath(ResultFilePath(request->Path)) +
                           ", cannot be removed: " + error.message() + ".");
    }
    if (!OpenImage(state, port, request->Path)) return noImage();

    ShowStartingValues(state, port, *request, " X ");
    SolveCode code = SolvePlate(state, port, SearchFor(*request, state.Parameters));
    if (harderFor > 0) code = TryHarder(state, port, *request, code, harderFor);
    outcome.End = UnattendedEnd::Finished;
    outcome.Result = {code, ResultMessage(code)};
    if (code == SolveCode::Solved) port.ImageChanged();
    try {
        WriteWholeFile(ResultFilePath(request->Path), ResultFileText(state, code));
        outcome.ResultFileWritten = true;
    } catch (const std::system_error& fault) {
        outcome.WriteFault = fault.code().message();
    }
    port.Yield();
    return outcome;
}

}  // namespace vestrel
