// The file of quad tables: one table for each range of field sizes, "band".
//
// Fields of different size show other stars as their brightest ones, so each range has quads of its
// own, and a search reads only those of its range, and of these only the pages that it needs. The
// quads are ordered by shape and the stars by place, so that what is like a quad or near a place
// lies together. docs/FORMATS.md describes the bytes.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "matching/libCheckedPages.h"
#include "matching/libQuads.h"
#include "platform/libFiles.h"

namespace vestrel {

/// The file's name in the catalog folder. It is no cell name, so no region query opens it.
inline constexpr const char* QuadFileName = "quads.tables";

/// What a table is made of.
struct QuadList {
    std::vector<CatalogStar> Stars;                  ///< in the order of `ComesBefore`
    std::vector<std::array<std::int32_t, 4>> Quads;  ///< places in `Stars`, from 0, rising
};

/// One range of field sizes, and where its table is.
struct QuadBand {
    double SmallestDiagonal = 0;  ///< of the field, radians; included
    double LargestDiagonal = 0;   ///< radians; not included
    double CellSize = 0;          ///< of the cells in which the stars are ordered, radians
    PagedPart Part;
    std::uint32_t StarCount = 0;
    std::uint32_t QuadCount = 0;
    std::uint32_t LastQuad = 0;    ///< the place, from 1, of the quad with the greatest key
    std::uint16_t PlaceBits = 0;   ///< of the place of a quad's first star
    std::uint16_t OffsetBits = 0;  ///< of how far its other stars come after the first
};

/// Where the lists of a band begin, in bytes from the start of its part. Each starts with a page.
struct QuadLayout {
    std::uint64_t StarStarts =
        0;                    ///< of each sky cell: its first star (unsigned 32-bit), and the end
    std::uint64_t Stars = 0;  ///< records of a cell file
    std::uint64_t QuadStarts = 0;  ///< of each cell of shapes: its first quad, and the end
    std::uint64_t Shapes = 0;      ///< of each quad: its ratios (32 bits)
    std::uint64_t QuadStars = 0;   ///< of each quad: the places of its stars
    std::uint64_t End = 0;
    std::size_t QuadStarBytes = 0;  ///< for each quad
};
QuadLayout LayoutOf(const QuadBand& band);

/// The cells of shapes: 64 steps for each of the ratios 1, 3 and 5, of which none is above the one
/// before it.
inline constexpr std::uint32_t ShapeSteps = 64;
inline constexpr std::uint32_t ShapeCells = ShapeSteps * (ShapeSteps + 1) * (ShapeSteps + 2) / 6;
/// The number of a cell, by steps in falling order.
constexpr std::uint32_t ShapeCell(std::uint32_t step1, std::uint32_t step3, std::uint32_t step5) {
    return step1 * (step1 + 1) * (step1 + 2) / 6 + step3 * (step3 + 1) / 2 + step5;
}
/// The step of a ratio, 0..ShapeSteps − 1; what is beyond 0..1 counts to the step at its end.
std::uint32_t ShapeStep(double ratio);

/// Opens a file of quad tables to read; null when there is none or it is no ordinary file.
FileHandle OpenQuadFile(const std::filesystem::path& path);

/// Reads what bands a file has. False, and a reason in `fault`, when it is none or broken.
bool ReadQuadBands(std::FILE* file, std::vector<QuadBand>& bands, std::string& fault);

/// What is wrong with a file, every page read: empty when nothing is, or when there is no file.
std::string FaultOfQuadFile(const std::filesystem::path& path);

/// Writes the file band by band; it takes its place when `Commit` is called, or never.
class QuadFileWriter {
 public:
    /// @throws std::system_error when no file can be made there
    QuadFileWriter(const std::filesystem::path& path, std::uint32_t bandCount);
    /// Appends the table of the next band. Quads without a shape (all stars at one place) are left
    /// out. @throws std::system_error
    void Add(double smallestDiagonal, double largestDiagonal, QuadList list);
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
