// A catalog cell: its file, the cache, and the stars of a region, compared with plain loops.
//
// The first bytes choose the cell and the region, the rest is the cell file.

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"
#include "catalog/libCatalogRegion.h"
#include "catalog/libCellGrid.h"
#include "fuzz/fuzzSupport.h"

namespace vestrel {
namespace {

/// Takes small numbers from the start of the input; zeros when it is too short.
struct Choices {
    std::string_view& Rest;
    int Byte() {
        if (Rest.empty()) return 0;
        const auto byte = static_cast<unsigned char>(Rest.front());
        Rest.remove_prefix(1);
        return byte;
    }
    int Word() {
        const int high = Byte();
        return high << 8 | Byte();
    }
};

struct Region {
    double Ra;
    double Dec;
    double Radius;
    double MagLimit;
};

void CheckRecords(std::string_view bytes, const std::vector<CatalogStar>& stars) {
    Require(stars.size() == bytes.size() / CatalogRecordBytes, "every whole record is a star");
    for (std::size_t i = 0; i < stars.size(); ++i) {
        const auto record = EncodeCatalogStar(stars[i]);
        Require(std::string_view(reinterpret_cast<const char*>(record.data()), record.size()) ==
                    bytes.substr(i * CatalogRecordBytes, CatalogRecordBytes),
                "records keep their bytes");
    }
}

void CheckList(const PlateStarList& list, std::int64_t wanted) {
    Require(list.Count() == wanted, "the region has the stars that plain loops find");
    for (std::int32_t i = 2; i <= list.Count(); ++i) {
        Require(list[i - 1].Flux <= list[i].Flux, "the brightest come first");
    }
}

void CheckRegion(CatalogCache& cache, const std::string& cell, const Region& region,
                 const std::vector<CatalogStar>& stars) {
    Projection plane;
    plane.SetProjectionCentre({region.Ra, region.Dec}, SolveArcsecondsPerRadian);
    const SkyPosition centre{region.Ra, region.Dec};
    const PlateStarList list = RegionStars(cache, plane, centre, region.Radius, region.MagLimit);
    std::int64_t total = 0;
    for (const CachedCell& cached : cache.Cells) total += cached.StarCount;
    Require(total == cache.CachedStars, "the cache knows its stars");
    Require(cache.Index.size() == cache.Cells.size(), "every cell is in the index");

    const bool loaded = cache.Index.count(cell) != 0;
    const auto wanted = [&](bool solve) {
        if (!loaded) return std::int64_t{0};
        return std::int64_t{std::count_if(stars.begin(), stars.end(), [&](const CatalogStar& star) {
            double xi = 0;
            double eta = 0;
            const double cosine = plane.SkyToPlane(PositionOf(star), xi, eta);
            const double magnitude = star.Mag / 100.0;
            const double limit = region.Radius * plane.ProjectionScale;
            return solve ? magnitude < region.MagLimit && xi * xi + eta * eta <= limit * limit
                         : magnitude <= region.MagLimit && cosine >= 0 &&
                               std::sqrt(xi * xi + eta * eta) <= limit;
        })};
    };
    CheckList(list, std::min<std::int64_t>(wanted(true), 10000));
    const PlateStarList field = FieldStars(cache, plane, centre, region.Radius, region.MagLimit);
    CheckList(field, std::min<std::int64_t>(wanted(false), 1000));
}

}  // namespace
}  // namespace vestrel

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vestrel;
    std::string_view rest = TextOf(data, size);
    Choices choose{rest};
    const std::vector<CellPosition>& cells = AllCells();
    const std::string cell =
        CellName(cells[static_cast<std::size_t>(choose.Word()) % cells.size()]);
    Region region{};
    region.Ra = choose.Word() * TwoPi / 65536;
    region.Dec = (choose.Word() - 32768) * Pi / 65536;
    // Up to half a radian, uniform in the logarithm: most regions have few cells and are read
    // quickly.
    region.Radius = std::pow(2, -1 - choose.Byte() / 16.0);
    region.MagLimit = static_cast<std::int16_t>(choose.Word()) / 100.0;

    const std::filesystem::path file = InputFolder() / cell;
    WriteFile(file, rest);
    std::vector<CatalogStar> stars;
    Require(ReadCellFile(file, stars), "a file of any content is read");
    CheckRecords(rest, stars);
    CatalogCache cache;
    cache.Folder = InputFolder();
    CheckRegion(cache, cell, region, stars);
    WriteFile(file, {});
    return 0;
}
