#include "program/mSolvedImage.h"

#include <cmath>
#include <exception>
#include <filesystem>
#include <system_error>

#include "image/libFitsCards.h"
#include "image/libFitsExport.h"
#include "image/libWorldCoordinates.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mSkyModel.h"
#include "program/mSolveReport.h"
#include "program/mTrust.h"
#include "program/mWorkBeside.h"

namespace vestrel {

namespace {

/// The quality of the solution as header cards; none for a solution that was read with the image,
/// because nothing is known about it.
std::vector<std::string> QualityCards(const ProgramState& state) {
    if (!state.Solution) return {};
    const PlateSolution& solution = *state.Solution;
    const ImageOrientation orientation = OrientationOf(solution, state.Image);
    std::vector<std::string> cards = {
        FitsNumberCard("NH_SCALE", 1 / solution.Scale, "[arcsec] per pixel"),
        FitsNumberCard("NH_UP", orientation.UpPositionAngle, "[deg] up, east of north, at centre"),
        FitsFlagCard("NH_MIRR", orientation.Mirrored, "with north up, east is right"),
        FitsNumberCard("NH_STRET", std::fabs(solution.Stretch), "stretch: 1 for square pixels"),
        FitsNumberCard("NH_SKEW", solution.Skew, "skew: 0 for upright pixels"),
        FitsNumberCard("NH_NSTAR", solution.ExtractedCount, "stars extracted"),
        FitsNumberCard("NH_NCAT", solution.CatalogCount(), "stars in the catalog"),
        FitsNumberCard("NH_NMAT", solution.MatchedCount, "stars matched"),
        FitsNumberCard("NH_RMS", solution.Rms / solution.Scale, "[arcsec] RMS of matched stars"),
        FitsNumberCard("NH_RMSPX", solution.Rms, "[pixel] RMS of matched stars"),
        FitsNumberCard("NH_NREG", solution.RegionsSearched, "regions searched")};
    const std::string word = std::string(WordOf(TrustOf(state).Level)) + ": ";
    for (const std::string& caution : Cautions(state)) {
        for (std::string& card : FitsCommentCards(word + caution)) {
            cards.push_back(std::move(card));
        }
    }
    return cards;
}

/// The world coordinates of the sky model, or of the plate itself when it spans more of the sky
/// than a photograph can. Empty when there is no solution, or when they would be wrong.
std::vector<std::string> CoordinateCards(const ProgramState& state) {
    if (const auto model = SkyModelOfImage(state)) {
        return WorldCoordinateCards(state.Image, model->Model);
    }
    if (IsTooWide(state)) return {};
    const auto plate = WorldCoordinatesOf(state.Image);
    return plate ? WorldCoordinateCards(*plate) : std::vector<std::string>();
}

std::string NotWritten(const std::string& path, const std::system_error& error) {
    return "The file " + path + " cannot be written: " + error.code().message() + ".";
}

}  // namespace

std::string WorldCoordinatePath(const std::string& imagePath) {
    return TextFromPath(PathFromText(imagePath).replace_extension(".wcs"));
}

bool WriteWorldCoordinates(const ProgramState& state, Port& port) {
    return WriteWorldCoordinates(state, port, WorldCoordinatePath(state.Image.FileName));
}

bool WriteWorldCoordinates(const ProgramState& state, Port& port, const std::string& path) {
    const std::vector<std::string> coordinates = CoordinateCards(state);
    if (!state.ImageLoaded || coordinates.empty()) {
        port.ShowMessage(IsTooWide(state) ? TooWideText : "The image has no solution.",
                         DefaultTitle);
        return false;
    }
    // Programs that take pictures may write each over the one before.
    const FileStamp now = StampOfFile(PathFromText(state.Image.FileName));
    if (now != FileStamp() && state.Image.Stamp != FileStamp() && now != state.Image.Stamp) {
        port.ShowMessage("The file " + state.Image.FileName + " is no longer what it was.",
                         DefaultTitle);
        return false;
    }
    std::error_code ignored;
    if (std::filesystem::equivalent(PathFromText(path), PathFromText(state.Image.FileName),
                                    ignored)) {
        port.ShowMessage("The file " + path + " is the image itself: rename it.", DefaultTitle);
        return false;
    }
    std::vector<std::string> cards = {FitsFlagCard("SIMPLE", true, "standard FITS"),
                                      FitsNumberCard("BITPIX", 8), FitsNumberCard("NAXIS", 0)};
    const auto append = [&cards](const std::vector<std::string>& more) {
        cards.insert(cards.end(), more.begin(), more.end());
    };
    append(coordinates);
    append({FitsNumberCard("IMAGEW", state.Image.Width, "columns of the image"),
            FitsNumberCard("IMAGEH", state.Image.Height, "rows of the image")});
    append(QualityCards(state));
    try {
        WriteWholeFile(PathFromText(path), FitsHeaderBlocks(cards));
        return true;
    } catch (const std::system_error& error) {
        port.ShowMessage(NotWritten(path, error), DefaultTitle);
        return false;
    }
}

bool ExportImage(const ProgramState& state, Port& port, const std::string& path) {
    std::string fault;
    WorkBeside(port, [&] {
        try {
            if (!state.ImageLoaded) throw std::runtime_error("There is no image to export.");
            if (IsTooWide(state)) throw std::runtime_error(TooWideText);
            const std::vector<unsigned char> bytes = FitsExportBytes(
                state.Image, CoordinateCards(state), QualityCards(state), state.DecodesApart);
            WriteWholeFile(PathFromText(path), bytes);
        } catch (const std::system_error& error) {
            fault = NotWritten(path, error);
        } catch (const std::bad_alloc&) {
            fault = "There is not enough memory for this image.";
        } catch (const std::exception& error) {
            fault = error.what();
        }
    });
    if (!fault.empty()) port.ShowMessage(fault, DefaultTitle);
    return fault.empty();
}

}  // namespace vestrel
