#include "tests/skySupport.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>

#include "astro/libMath.h"
#include "matching/libQuadFile.h"
#include "tests/testSupport.h"

namespace vestrel {

void WriteCatalog(const std::filesystem::path& catalog, const std::vector<CatalogStar>& stars) {
    std::map<std::string, std::string> cells;
    for (const CatalogStar& star : stars) {
        const auto record = EncodeCatalogStar(star);
        cells[CellName(CellOf(PositionOf(star)))].append(record.begin(), record.end());
    }
    std::filesystem::create_directories(catalog);
    for (const auto& [name, bytes] : cells) WriteFile(catalog / name, bytes);
}

std::vector<CatalogStar> MakeSky(const std::filesystem::path& catalog,
                                 const std::filesystem::path& frame) {
    std::vector<CatalogStar> stars;
    Random random(17);
    Projection plane;
    plane.SetProjectionCentre(centre, SolveArcsecondsPerRadian);
    std::vector<double> pixels(side * side);
    for (double& pixel : pixels) pixel = 300 + random.Normal(2);
    for (int star = 0; star < 60; ++star) {
        const double xi = random.Between(-280, 280);  // increases to the west
        const double eta = random.Between(-280, 280);
        const double magnitude = random.Between(12, 15);
        const auto [ra, dec] = plane.PlaneToSky(xi, eta);
        stars.push_back({static_cast<float>(ra), static_cast<float>(dec),
                         static_cast<std::int16_t>(magnitude * 100)});
        const double x0 = (side - 1) / 2.0 + xi / scale;
        const double y0 = (side - 1) / 2.0 + eta / scale;
        for (int i = 0; i < side * side; ++i) {
            const int column = i % side;
            const int row = i / side;
            const double r2 = std::pow(column - x0, 2) + std::pow(row - y0, 2);
            if (r2 < 60) pixels[i] += std::pow(10, 0.4 * (21.5 - magnitude)) * std::exp(-r2 / 3);
        }
    }
    WriteCatalog(catalog, stars);
    WriteFile(frame, FitsHeader(FitsCards(16, side, side, {"OBSERVER= 'Ann & <b>Bob'"})) +
                         FitsPixels(16, pixels));
    std::sort(stars.begin(), stars.end(),
              [](const CatalogStar& a, const CatalogStar& b) { return a.Mag < b.Mag; });
    return stars;
}

void WriteQuadTables(const std::filesystem::path& catalog, std::vector<CatalogStar> stars,
                     std::size_t most, double smallest, double largest) {
    QuadList list;
    stars.resize(std::min(most, stars.size()));
    std::sort(stars.begin(), stars.end(), ComesBefore);
    list.Stars = stars;
    const auto count = static_cast<std::int32_t>(stars.size());
    const std::int32_t bright = std::min(6, count);
    for (std::int32_t a = 0; a < bright; ++a) {
        for (std::int32_t b = a + 1; b < bright; ++b) {
            for (std::int32_t c = b + 1; c < bright; ++c) {
                for (std::int32_t star = c + 1; star < count; ++star) {
                    list.Quads.push_back({a, b, c, star});
                }
            }
        }
    }
    QuadFileWriter writer(catalog / QuadFileName, 1);
    writer.Add(smallest, largest, list);
    writer.Commit();
}

}  // namespace vestrel
