// The file of quad tables: one table for each band, which is a range of field sizes.
//
// Fields of different sizes have different brightest stars, so each band has its own quads. A
// search reads only its band, and of that only the pages that it needs. Quads are ordered by shape
// and stars by position, so that similar quads and neighbouring stars lie together. docs/FORMATS.md
// describes the bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "matching/libCheckedPages.h"
#include "matching/libPackedQuads.h"
#include "matching/libQuads.h"
#include "platform/libFiles.h"

namespace vestrel {

/// The file's name in the catalog folder. It is not the name of a cell, so no region query opens
/// it.
inline constexpr const char* QuadFileName = "quads.tables";

/// The diagonals of fields, in degrees, for which tables are made unless others are asked for: a
/// catalog like Tycho-2 has enough stars for them.
inline constexpr double UsualSmallestField = 0.9;
inline constexpr double UsualLargestField = 30;

/// The contents of a table that is being made.
struct QuadDraft {
    std::span<const CatalogStar> Stars;  ///< in the order of `ComesBefore`; they must stay alive
    std::vector<bool> InTable;           ///< which of them the table gets
    PackedQuads Quads{0};                ///< not finished; of stars that the table gets
};

/// The contents of a small table, in plain form.
struct QuadList {
    std::vector<CatalogStar> Stars;                  ///< in the order of `ComesBefore`
    std::vector<std::array<std::int32_t, 4>> Quads;  ///< indices into `Stars`, from 0, rising
};

/// A range of field sizes, and where its table lies.
struct QuadBand {
    double SmallestDiagonal = 0;  ///< of the field, radians; included
    double LargestDiagonal = 0;   ///< radians; not included
    double CellSize = 0;          ///< of the cells in which the stars are ordered, radians
    PagedPart Part;
    std::uint32_t StarCount = 0;
    std::uint32_t QuadCount = 0;
    std::uint32_t LastQuad = 0;    ///< the number, from 1, of the quad with the greatest key
    std::uint16_t PlaceBits = 0;   ///< bits of the index of a quad's first star
    std::uint16_t OffsetBits = 0;  ///< bits of the distances of its other stars from the first
};

/// Where the lists of a band begin, in bytes from the start of its part. Each list starts on a new
/// page.
struct QuadLayout {
    std::uint64_t StarStarts = 0;  ///< per sky cell: its first star (unsigned 32-bit), and the end
    std::uint64_t Stars = 0;       ///< records of a cell file
    std::uint64_t QuadStarts = 0;  ///< per cell of shapes: its first quad, and the end
    std::uint64_t Shapes = 0;      ///< per quad: its ratios (32 bits)
    std::uint64_t QuadStars = 0;   ///< per quad: the indices of its stars
    std::uint64_t End = 0;
    std::size_t QuadStarBytes = 0;  ///< bytes per quad in `QuadStars`
};
QuadLayout LayoutOf(const QuadBand& band);

/// Opens a file of quad tables to read; null when there is none or it is not a regular file.
FileHandle OpenQuadFile(const std::filesystem::path& path);

/// Reads the list of bands of a file. False, with the reason in `fault`, when it is not such a file
/// or is damaged.
bool ReadQuadBands(std::FILE* file, std::vector<QuadBand>& bands, std::string& fault);

/// Reads every page of a file and returns what is wrong with it; empty when nothing is, or when
/// there is no file.
std::string FaultOfQuadFile(const std::filesystem::path& path);

/// Writes the file band by band. It appears only when `Commit` is called.
class QuadFileWriter {
 public:
    /// @throws std::system_error when no file can be made there
    QuadFileWriter(const std::filesystem::path& path, std::uint32_t bandCount);
    /// Appends the table of the next band. @throws std::system_error
    void Add(double smallestDiagonal, double largestDiagonal, QuadDraft draft);
    /// The same. Quads without a shape (all stars at one place) are left out.
    void Add(double smallestDiagonal, double largestDiagonal, const QuadList& list);
    /// @throws std::system_error
    void Commit();
    const std::vector<QuadBand>& Bands() const { return bands_; }

 private:
    void Write(const void* bytes, std::size_t length);
    /// Appends to the part that is being written. Whole pages go to the file.
    void Append(const void* bytes, std::size_t length);
    void EndPage();
    void EndList();
    PagedPart EndPart();

    NewFile file_;
    std::uint32_t bandCount_;
    std::vector<QuadBand> bands_;
    std::uint64_t end_ = 0;  ///< of the parts that are complete
    std::vector<unsigned char> page_;
    std::vector<std::uint64_t> checksums_;
    std::uint64_t partLength_ = 0;
};

}  // namespace vestrel
