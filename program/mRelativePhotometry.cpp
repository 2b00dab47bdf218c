#include "program/mRelativePhotometry.h"

#include "astro/libStrings.h"
#include "display/libReadout.h"
#include "platform/libConsole.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"
#include "program/mImageData.h"

namespace vestrel {

namespace {

std::string FileNameOf(const std::string& path) {
    const std::size_t separator = LastFolderSeparator(path);
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

/// A text of the header without its quotes; empty when the header has none ("0").
std::string HeaderText(std::string_view text) {
    text = Trim(text);
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'') {
        text = Trim(text.substr(1, text.size() - 2));
    }
    return text == "0" ? std::string() : WithoutControls(std::string(text));
}

std::string PlaceText(const StarMeasurement& star) {
    return FixedText(star.X, 2) + ", " + FixedText(star.Y, 2);
}

std::string AllWarnings(const RelativeMagnitude& result) {
    std::string text;
    for (const PhotometryWarning warning : result.Warnings) {
        text += (text.empty() ? "" : " ") + std::string(WarningText(warning));
    }
    return text;
}

std::string DifferenceText(const RelativeMagnitude& result) {
    if (!result.Valid) return "no light";
    return FixedText(result.Difference, 3) + " \xC2\xB1 " + FixedText(result.Error, 3);
}

}  // namespace

std::string TakePhotometryStar(ProgramState& state, PhotometryTable& table,
                               const PixelPoint& pixel) {
    const StarReport report = MeasureStarAt(state, pixel);
    if (report.Star.Outcome != StarOutcome::Measured) return OutcomeText(report.Star.Outcome);
    if (!table.First) {
        table.First = report;
        const std::string warnings = WarningsOf(report);
        return "First star at " + PlaceText(report.Star) + "." +
               (warnings.empty() ? "" : " " + warnings);
    }
    const StarReport& first = *table.First;
    PhotometryRow row;
    row.Image = FileNameOf(state.Image.FileName);
    row.DateObs = HeaderText(state.Image.Header.DateObs);
    row.First = first.Star;
    row.Second = report.Star;
    row.FirstSky = first.Sky;
    row.SecondSky = report.Sky;
    row.FirstMagnitude = CatalogMagnitudeOf(first);
    row.Result = CompareStars(row.First, row.Second, row.FirstMagnitude);
    table.Rows.push_back(row);
    if (!table.KeepsFirst) table.First.reset();
    return "Difference " + DifferenceText(row.Result) + ". " + AllWarnings(row.Result);
}

std::string PhotometryHint(const PhotometryTable& table) {
    return table.First ? "Click the star to compare with the first one."
                       : "Click the first star in the image window.";
}

std::array<std::string, PhotometryColumns.size()> PhotometryCells(const PhotometryRow& row) {
    const auto& magnitude = row.Result.SecondMagnitude;
    return {row.Image,
            PlaceText(row.First),
            PlaceText(row.Second),
            DifferenceText(row.Result),
            magnitude ? FixedText(*magnitude, 3) : std::string(),
            AllWarnings(row.Result)};
}

void ExportPhotometry(ProgramState& state, Port& port, const PhotometryTable& table) {
    const auto path =
        port.AskForFile({"Export Table", "CSV Files (*.csv)|*.csv|All Files (*.*)|*.*", 1,
                         state.Parameters.LastSaveFolder + "\\*.*", true, ".csv"});
    if (!path) return;
    state.Parameters.LastSaveFolder = FolderOfPath(*path);
    if (!ReplaceFile(PathFromText(*path), PhotometryCsv(table.Rows))) {
        port.ShowMessage("The table cannot be written to " + *path, DefaultTitle);
    }
}

}  // namespace vestrel
