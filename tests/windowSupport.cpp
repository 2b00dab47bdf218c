#include "tests/windowSupport.h"

#include <cmath>
#include <map>

#include "astro/libMath.h"
#include "catalog/libCatalogCells.h"

namespace vestrel {

void MakeSky(const std::filesystem::path& catalog, const std::filesystem::path& frame) {
    Random random(17);
    Projection plane;
    plane.SetProjectionCentre(centre.Ra, centre.Dec, SolveArcsecondsPerRadian);
    std::map<std::string, std::string> cells;
    std::vector<double> pixels(side * side);
    for (double& pixel : pixels) pixel = 300 + random.Normal(2);
    for (int star = 0; star < 60; ++star) {
        const double xi = random.Between(-280, 280);  // grows to the west
        const double eta = random.Between(-280, 280);
        const double magnitude = random.Between(12, 15);
        double ra = 0;
        double dec = 0;
        plane.PlaneToSky(xi, eta, ra, dec);
        for (const unsigned char byte :
             EncodeCatalogStar({static_cast<float>(ra), static_cast<float>(dec),
                                static_cast<std::int16_t>(magnitude * 100)})) {
            cells[CellName(ra, dec)] += static_cast<char>(byte);
        }
        const double x0 = (side - 1) / 2.0 + xi / scale;
        const double y0 = (side - 1) / 2.0 + eta / scale;
        for (int i = 0; i < side * side; ++i) {
            const int column = i % side;
            const int row = i / side;
            const double r2 = std::pow(column - x0, 2) + std::pow(row - y0, 2);
            if (r2 < 60) pixels[i] += std::pow(10, 0.4 * (21.5 - magnitude)) * std::exp(-r2 / 3);
        }
    }
    std::filesystem::create_directories(catalog);
    for (const auto& [name, bytes] : cells) WriteFile(catalog / name, bytes);
    WriteFile(frame, FitsHeader(FitsCards(16, side, side, {"OBSERVER= 'Ann & <b>Bob'"})) +
                         FitsPixels(16, pixels));
}

}  // namespace vestrel

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
