#include "astro/libSphericalMath.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

Direction DirectionOf(SkyPosition position) {
    const double cosDec = std::cos(position.Dec);
    return {cosDec * std::cos(position.Ra), cosDec * std::sin(position.Ra), std::sin(position.Dec)};
}

double SkyDistance(const SkyPosition& a, const SkyPosition& b) {
    const double halfDec = std::sin((b.Dec - a.Dec) / 2);
    const double halfRa = std::sin((b.Ra - a.Ra) / 2);
    const double square = halfDec * halfDec + std::cos(a.Dec) * std::cos(b.Dec) * halfRa * halfRa;
    return 2 * std::asin(std::sqrt(std::clamp(square, 0.0, 1.0)));
}

void Projection::SetProjectionCentre(SkyPosition centre, double scale) {
    CentreRa = centre.Ra;
    CentreDec = centre.Dec;
    CosCentreRa = std::cos(centre.Ra);
    SinCentreRa = std::sin(centre.Ra);
    CosCentreDec = std::cos(centre.Dec);
    SinCentreDec = std::sin(centre.Dec);
    ProjectionScale = scale;
}

double Projection::SkyToPlane(SkyPosition sky, double& xi, double& eta) const {
    const auto [x, y, z] = DirectionOf(sky);
    const double towardMeridian = SinCentreRa * y + CosCentreRa * x;
    const double east = CosCentreRa * y - SinCentreRa * x;
    xi = -east * ProjectionScale;
    eta = (CosCentreDec * z - SinCentreDec * towardMeridian) * ProjectionScale;
    return CosCentreDec * towardMeridian + SinCentreDec * z;
}

SkyPosition Projection::PlaneToSky(double xi, double eta) const {
    const bool scaled = ProjectionScale != 0;
    const double a = scaled ? -xi / ProjectionScale : 0;
    const double b = scaled ? eta / ProjectionScale : 0;
    const double square = 1 - (a * a + b * b);
    const double w = square < 0 ? 0 : std::sqrt(square);
    const double q = CosCentreDec * w - SinCentreDec * b;
    const double z = SinCentreDec * w + CosCentreDec * b;
    const double x = CosCentreRa * q - SinCentreRa * a;
    const double y = SinCentreRa * q + CosCentreRa * a;
    SkyPosition sky{Atan2(y, x), Atan2(z, std::sqrt(x * x + y * y))};
    if (sky.Ra < 0) sky.Ra += TwoPi;
    if (sky.Ra > TwoPi) sky.Ra -= TwoPi;
    return sky;
}

double Atan2(double y, double x) {
    if (x == 0) {
        if (y == 0) return 0;
        return y > 0 ? Pi / 2 : -Pi / 2;
    }
    const double angle = std::atan(y / x);
    if (x > 0) return angle;
    return y >= 0 ? angle + Pi : angle - Pi;
}

double PixelDistance(const PlateStar& a, const PlateStar& b) {
    const double dx = static_cast<double>(a.X) - static_cast<double>(b.X);
    const double dy = static_cast<double>(a.Y) - static_cast<double>(b.Y);
    return std::sqrt(dx * dx + dy * dy);
}

}  // namespace vestrel
