// Reads stars that another program has listed in a FITS binary table.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vestrel {

/// The names of the columns to read; empty: the usual names.
struct StarColumns {
    std::string X;
    std::string Y;
    std::string Sort;
    bool Ascending = false;
};

/// A star as listed: FITS pixels, which count from 1.
struct ListedStar {
    double X = 0;
    double Y = 0;
    double Rank = 0;  ///< stars with a larger rank come first
};

struct FitsStars {
    std::vector<ListedStar> Stars;  ///< in the order of the table, without stars that have no
                                    ///< position
    double Width = 0;               ///< IMAGEW and IMAGEH; else the largest X and Y
    double Height = 0;
    std::vector<std::string> Cards;  ///< of the table's header and of the file's primary header
};

/// Whether a file is FITS with a binary table as its first extension and no image in the primary
/// header.
bool HoldsStarTable(std::span<const unsigned char> bytes);

/// Reads the table of such a file.
/// @return nothing with a `fault` when columns are missing or the file is damaged
std::optional<FitsStars> ReadFitsStars(std::span<const unsigned char> bytes,
                                       const StarColumns& columns, std::string& fault);

}  // namespace vestrel
