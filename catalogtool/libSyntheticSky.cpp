#include "catalogtool/libSyntheticSky.h"

#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

namespace {

/// SplitMix64 (Steele, Lea and Flood 2014): the same on every machine, unlike the distributions of
/// the standard library.
class SkyRandom {
 public:
    explicit SkyRandom(std::uint64_t seed) : state_(seed) {}
    double Uniform() { return static_cast<double>(Next() >> 11) * 0x1p-53; }

 private:
    std::uint64_t Next() {
        std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
        z = (z ^ z >> 27) * 0x94D049BB133111EB;
        return z ^ z >> 31;
    }
    std::uint64_t state_;
};

/// The cosine of the distance of two positions.
double Cosine(SkyPosition a, SkyPosition b) {
    return std::sin(a.Dec) * std::sin(b.Dec) +
           std::cos(a.Dec) * std::cos(b.Dec) * std::cos(a.Ra - b.Ra);
}

/// The density at a place relative to the densest: 1 in the galactic plane, 1/8 at the poles.
double RelativeDensity(SkyPosition sky) {
    const double sine =
        std::fabs(Cosine(sky, {192.8595 * RadiansPerDegree, 27.1283 * RadiansPerDegree}));
    return 0.125 + 0.875 * std::exp(-sine / 0.2);
}

/// The mean of `RelativeDensity` over the sky, by integration over the sine of galactic latitude.
double MeanDensity() {
    return 0.125 + 0.875 * 0.2 * (1 - std::exp(-1 / 0.2));
}

}  // namespace

void MakeSyntheticSky(const SyntheticSky& sky, const StarSink& sink) {
    constexpr double skyDegrees = 41252.96;
    constexpr double slope = 0.42;
    constexpr double brightest = 2;
    const double cosRadius = std::cos(std::min(sky.Radius, 180.0) * RadiansPerDegree);
    const SkyPosition centre{sky.CentreRa * RadiansPerDegree, sky.CentreDec * RadiansPerDegree};
    const std::vector<CellPosition>& cells = AllCells();
    for (std::size_t number = 0; number < cells.size(); ++number) {
        const CellPosition& cell = cells[number];
        const double width = SliceWidth(cell.Zone) * RadiansPerDegree;
        const double ra0 = static_cast<double>(cell.Slice) * width;
        const double sine0 = std::sin(2.5 * cell.Zone * RadiansPerDegree);
        const double sine1 = std::sin(2.5 * (cell.Zone + 1) * RadiansPerDegree);
        // Skips cells that are far away. Only polar cells have a diagonal above 8 degrees.
        const double middle = (cell.South ? -1 : 1) * std::asin((sine0 + sine1) / 2);
        if (sky.Radius < 170 && cell.Zone < ZonesPerHemisphere - 5 &&
            Cosine({ra0 + width / 2, middle}, centre) <
                std::cos(std::min(sky.Radius + 8, 180.0) * RadiansPerDegree)) {
            continue;
        }
        SkyRandom random(sky.Seed * 1'000'003 + number);
        const double most = sky.Density / MeanDensity() * skyDegrees * CellAreaFraction(cell);
        const auto candidates = static_cast<std::uint64_t>(most);
        for (std::uint64_t i = 0; i < candidates; ++i) {
            const double ra = ra0 + width * random.Uniform();
            const double dec =
                (cell.South ? -1 : 1) * std::asin(sine0 + (sine1 - sine0) * random.Uniform());
            const double share = random.Uniform();
            const double chance = random.Uniform();
            if (chance > RelativeDensity({ra, dec})) continue;
            if (Cosine({ra, dec}, centre) < cosRadius) continue;
            const double magnitude =
                sky.FaintestMagnitude + std::log10(std::max(share, 1e-12)) / slope;
            sink({ra, dec, std::max(magnitude, brightest)});
        }
    }
}

}  // namespace vestrel
