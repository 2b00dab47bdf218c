// The file of quad tables: one pair of tables for each range of field sizes.
//
// Fields of different size show other stars as their brightest ones, so each range has quads of its
// own, and a search reads only those of its range. docs/FORMATS.md describes the bytes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "matching/libQuads.h"
#include "platform/libFiles.h"

namespace vestrel {

/// The file's name in the catalog folder. It is no cell name, so no region query opens it.
inline constexpr const char* QuadFileName = "quads.tables";

/// One range of field sizes, and where its tables are.
struct QuadBand {
    double SmallestDiagonal = 0;  ///< of the field, radians; included
    double LargestDiagonal = 0;   ///< radians; not included
    std::uint32_t StarCount = 0;
    std::uint32_t QuadCount = 0;
    std::uint64_t Offset = 0;    ///< of the stars, which the quads follow (bytes)
    std::uint64_t Checksum = 0;  ///< of both tables' bytes
};

/// Opens a file of quad tables to read; null when there is none or it is no ordinary file.
FileHandle OpenQuadFile(const std::filesystem::path& path);

/// Reads what bands a file has. False, and a reason in `fault`, when it is none or broken.
bool ReadQuadBands(std::FILE* file, std::vector<QuadBand>& bands, std::string& fault);

/// Reads the tables of a band and checks them. False, a reason in `fault` and empty tables when
/// they are not as they were written.
bool ReadQuadBand(std::FILE* file, const QuadBand& band, QuadTables& tables, std::string& fault);

/// What is wrong with a file, every table read: empty when nothing is, or when there is no file.
std::string FaultOfQuadFile(const std::filesystem::path& path);

/// Writes the file band by band; it takes its place when `Commit` is called, or never.
class QuadFileWriter {
 public:
    /// @throws std::system_error when no file can be made there
    QuadFileWriter(const std::filesystem::path& path, std::uint32_t bandCount);
    /// Appends the tables of the next band. @throws std::system_error
    void Add(double smallestDiagonal, double largestDiagonal, const QuadTables& tables);
    /// @throws std::system_error
    void Commit();
    const std::vector<QuadBand>& Bands() const { return bands_; }

 private:
    void Write(const void* bytes, std::size_t length);

    NewFile file_;
    std::uint32_t bandCount_;
    std::vector<QuadBand> bands_;
    std::uint64_t end_ = 0;
};

}  // namespace vestrel
