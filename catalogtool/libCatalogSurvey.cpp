#include "catalogtool/libCatalogSurvey.h"

#include <algorithm>
#include <limits>
#include <span>
#include <system_error>

#include "catalog/libCellGrid.h"
#include "matching/libQuadFile.h"
#include "platform/libFiles.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace fs = std::filesystem;

namespace {

class Surveyor {
 public:
    Surveyor(const fs::path& folder, const CatalogManifest* manifest, CatalogSurvey& survey)
        : folder_(folder), manifest_(manifest), survey_(survey), starsInCells_(AllCells().size()) {
        survey_.SmallestFields.assign(AllCells().size(), std::numeric_limits<double>::infinity());
    }

    void FindHolesAmongCells() { survey_.Holes = FindHoles(starsInCells_); }

    void ReadCell(const CellPosition& position) {
        const std::string name = CellName(position);
        const CellContent* expected = nullptr;
        if (manifest_ != nullptr) {
            const auto listed = manifest_->Cells.find(name);
            if (listed != manifest_->Cells.end()) expected = &listed->second;
        }
        std::error_code ignored;
        const fs::file_status status = fs::status(folder_ / name, ignored);
        const FileHandle file =
            fs::is_regular_file(status) ? OpenFile(folder_ / name, "rb") : nullptr;
        if (!file && fs::exists(status)) {
            Report(name, "cannot be read");
            return;
        }
        if (!file) {
            survey_.MissingCells.push_back(name);
            if (expected != nullptr) Report(name, "is missing");
            return;
        }
        constexpr auto longest =
            static_cast<std::int64_t>((MostStarsInCell + 1) * CatalogRecordBytes);
        if (FileLength(file.get()) >= longest) {
            Report(name, "is longer than a cell can be, and was not read");
            return;
        }
        const CellContent content = ReadRecords(file.get(), position, name);
        survey_.Stars += content.Stars;
        const std::size_t number = CellNumber(position);
        starsInCells_[number] = content.Stars;
        constexpr double skyDegrees = 41252.96;
        std::sort(magnitudesHere_.begin(), magnitudesHere_.end());
        survey_.SmallestFields[number] =
            SmallestField(magnitudesHere_, skyDegrees * CellAreaFraction(position));
        if (content.Stars > 0) {
            ++survey_.CellsWithStars;
            survey_.Coverage += CellAreaFraction(position);
        } else {
            survey_.EmptyCells.push_back(name);
        }
        if (expected != nullptr && content.Stars != expected->Stars) {
            Report(name, "has " + GroupedText(content.Stars) + " stars instead of " +
                             GroupedText(expected->Stars));
        } else if (expected != nullptr && content.Crc != expected->Crc) {
            Report(name, "is not as it was built: its checksum differs");
        }
        if (manifest_ != nullptr && expected == nullptr && content.Stars > 0) {
            Report(name, "has stars but was not built");
        }
    }

    void ListStrays() {
        std::error_code error;
        for (fs::directory_iterator entry(folder_, error), end; !error && entry != end;
             entry.increment(error)) {
            const std::string name = TextFromPath(entry->path().filename());
            if (!IsCellName(name) && name != ManifestName && name != QuadFileName) {
                survey_.Strays.push_back(name);
            }
        }
        if (error) {
            throw ToolFailure(ToolExit::BadInput, TextFromPath(folder_) + ": " + error.message());
        }
        std::sort(survey_.Strays.begin(), survey_.Strays.end());
    }

    void Report(const std::string& name, const std::string& what) {
        constexpr std::size_t faultsInWords = 20;
        ++survey_.FaultCount;
        if (survey_.Faults.size() < faultsInWords) survey_.Faults.push_back(name + " " + what);
    }

 private:
    CellContent ReadRecords(std::FILE* file, const CellPosition& position,
                            const std::string& name) {
        CellContent content;
        magnitudesHere_.clear();
        Checksum checksum;
        std::uint64_t misplaced = 0;
        std::uint64_t outOfRange = 0;
        bool ordered = true;
        int previous = std::numeric_limits<std::int16_t>::min();
        std::vector<unsigned char> block(CatalogRecordBytes << 13);
        std::size_t length = 0;
        // Only the last block is not full, so records never span two blocks.
        while ((length = std::fread(block.data(), 1, block.size(), file)) > 0) {
            checksum.Add({block.data(), length});
            for (std::size_t at = 0; at + CatalogRecordBytes <= length; at += CatalogRecordBytes) {
                const CatalogStar star =
                    DecodeCatalogStar(std::span<const unsigned char, CatalogRecordBytes>(
                        &block[at], CatalogRecordBytes));
                ++content.Stars;
                survey_.Magnitudes.Add(star.Mag);
                magnitudesHere_.push_back(star.Mag);
                if (!IsStoredPosition(star.Ra, star.Dec)) {
                    ++outOfRange;
                } else if (!(CellOfStored(star) == position)) {
                    ++misplaced;
                }
                ordered = ordered && star.Mag >= previous;
                previous = star.Mag;
            }
            if (length % CatalogRecordBytes != 0) Report(name, "ends within a record");
        }
        if (std::ferror(file) != 0) Report(name, "cannot be read to its end");
        if (outOfRange > 0) {
            Report(name, "has " + GroupedText(outOfRange) + " stars at impossible positions");
        }
        if (misplaced > 0) {
            Report(name, "has " + GroupedText(misplaced) + " stars of other cells");
        }
        if (!ordered && manifest_ != nullptr) Report(name, "is not brightest first");
        content.Crc = checksum.Value();
        return content;
    }

    const fs::path& folder_;
    const CatalogManifest* manifest_;
    CatalogSurvey& survey_;
    std::vector<std::uint64_t> starsInCells_;
    std::vector<std::int16_t> magnitudesHere_;  ///< of the cell that is being read
};

}  // namespace

CatalogSurvey SurveyCatalog(const fs::path& folder, const CatalogManifest* manifest,
                            ProgressLine& progress) {
    CatalogSurvey survey;
    Surveyor surveyor(folder, manifest, survey);
    surveyor.ListStrays();
    const std::vector<CellPosition>& cells = AllCells();
    for (std::size_t i = 0; i < cells.size(); ++i) {
        progress.Show("Reading cells", i, cells.size(), survey.Stars);
        surveyor.ReadCell(cells[i]);
    }
    surveyor.FindHolesAmongCells();
    return survey;
}

}  // namespace vestrel
