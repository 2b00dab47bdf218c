// Stars that another program has listed in a binary table of FITS.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vestrel {

/// Which columns to take; empty: the usual names.
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
    double Rank = 0;  ///< the larger, the sooner it is taken
};

struct FitsStars {
    std::vector<ListedStar> Stars;  ///< in the order of the table, without those that have no place
    double Width = 0;               ///< IMAGEW and IMAGEH; else the largest X and Y
    double Height = 0;
    std::vector<std::string> Cards;  ///< of the table's header, with that of the file
};

/// Whether a file is FITS with a binary table as its first extension and no image before it.
bool HoldsStarTable(std::span<const unsigned char> bytes);

/// Reads the table of such a file.
/// @return nothing with a `fault` when columns are missing or the file is damaged
std::optional<FitsStars> ReadFitsStars(std::span<const unsigned char> bytes,
                                       const StarColumns& columns, std::string& fault);

}  // namespace vestrel
