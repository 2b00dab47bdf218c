// Star lists of many kinds for measuring matchers: of the sky, without sky, of pictures.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// A star list to be matched.
struct Case {
    PlateStarList Stars;  ///< brightest first
    int Width = 0;        ///< pixels
    int Height = 0;
    double FieldWidth = 0;  ///< as given to the search, radians
    double FieldHeight = 0;
    SkyPosition Start;
    std::optional<SkyPosition> Truth;  ///< empty: no match is right
};

using Generator = std::mt19937_64;
double Uniform(Generator& random, double from, double to);

double Separation(SkyPosition a, SkyPosition b);  ///< radians

// Lists without sky, 500 to 4000 pixels wide, with a place and a size to search for.

Case FewCase(Generator& random);      ///< 5 to 15 stars
Case RandomCase(Generator& random);   ///< 12 to 100 stars
Case CoarseCase(Generator& random);   ///< 25 to 30 stars on 512 columns, 5° to 20°
Case ClumpedCase(Generator& random);  ///< one to five clumps, and stars between them
Case LinedCase(Generator& random);    ///< on lines: edges of foregrounds, spikes, columns
Case LatticeCase(Generator& random);  ///< lights in rows and columns, some of them dark

/// A kind of star lists.
struct ListKind {
    const char* Name;
    Case (*Make)(Generator&);
};
inline constexpr std::array KindsWithoutSky{
    ListKind{"random", RandomCase}, ListKind{"coarse, 25 to 30 stars", CoarseCase},
    ListKind{"clumped", ClumpedCase}, ListKind{"on lines", LinedCase},
    ListKind{"on a lattice", LatticeCase}};

/// The errors of a simulated exposure.
struct Exposure {
    double Noise = 0.2;           ///< of centroids, pixels
    double Distortion = 0;        ///< at the corner, pixels
    double Lost = 0.1;            ///< share of the catalog's stars that are missing
    double False = 0.2;           ///< share of the listed stars that are in no catalog
    std::size_t TrueStars = 100;  ///< largest number of true stars
};

/// A list of catalog stars with the errors of optics and extraction, `from` to `to` degrees wide.
/// The search begins up to a quarter of the field off, with a size up to 4 % off.
Case SkyCase(const std::filesystem::path& catalog, Generator& random, double from, double to,
             const Exposure& exposure);

/// The same list with another place to search, at least two fields away.
Case Elsewhere(Case list, Generator& random);

/// Searches a share of `lists` star lists, at least one. The first ones are the same with any
/// share.
/// @param search called with a generator and the tally for each list
template <typename Tally, typename Search>
Tally Searched(int lists, double share, std::uint64_t seed, const Search& search) {
    Generator random(seed);
    Tally tally;
    const int count = std::max(1, static_cast<int>(lists * share));
    for (int i = 0; i < count; ++i) search(random, tally);
    return tally;
}

struct Picture {
    Case List;
    std::string File;
};

/// The stars of the pictures of a table that has a line of names first, with tabs between: file
/// (beside the table), and for those of the sky ra_deg, dec_deg, width_arcmin, height_arcmin. The
/// others are given any place and size.
std::vector<Picture> ReadPictures(const std::filesystem::path& table, bool sky, Generator& random);

}  // namespace vestrel
