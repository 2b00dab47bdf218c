#include "astro/libSphericalMath.h"

#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

void Projection::SetProjectionCentre(double ra0, double dec0, double scale) {
    CentreRa = ra0;
    CentreDec = dec0;
    CosCentreRa = std::cos(ra0);
    SinCentreRa = std::sin(ra0);
    CosCentreDec = std::cos(dec0);
    SinCentreDec = std::sin(dec0);
    ProjectionScale = scale;
}

double Projection::SkyToPlane(double ra, double dec, double& xi, double& eta) const {
    const double cosDec = std::cos(dec);
    const double x = std::cos(ra) * cosDec;
    const double y = std::sin(ra) * cosDec;
    const double z = std::sin(dec);
    const double towardMeridian = SinCentreRa * y + CosCentreRa * x;
    const double east = CosCentreRa * y - SinCentreRa * x;
    xi = -east * ProjectionScale;
    eta = (CosCentreDec * z - SinCentreDec * towardMeridian) * ProjectionScale;
    return CosCentreDec * towardMeridian + SinCentreDec * z;
}

void Projection::PlaneToSky(double xi, double eta, double& ra, double& dec) const {
    const bool scaled = ProjectionScale != 0;
    const double a = scaled ? -xi / ProjectionScale : 0;
    const double b = scaled ? eta / ProjectionScale : 0;
    const double square = 1 - (a * a + b * b);
    const double w = square < 0 ? 0 : std::sqrt(square);
    const double q = CosCentreDec * w - SinCentreDec * b;
    const double z = SinCentreDec * w + CosCentreDec * b;
    const double x = CosCentreRa * q - SinCentreRa * a;
    const double y = SinCentreRa * q + CosCentreRa * a;
    dec = Atan2(z, std::sqrt(x * x + y * y));
    ra = Atan2(y, x);
    if (ra < 0) ra += TwoPi;
    if (ra > TwoPi) ra -= TwoPi;
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
