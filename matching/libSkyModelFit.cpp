#include "matching/libSkyModelFit.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vestrel {

namespace {

/// Converts a displacement on the plane to pixels.
PixelPoint InPixels(const double (&cd)[2][2], double east, double north) {
    const double determinant = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0];
    return {(cd[1][1] * east - cd[0][1] * north) / determinant,
            (cd[0][0] * north - cd[1][0] * east) / determinant};
}

/// The model from two polynomials that map pixels to the plane; their constant terms are 0.
SkyModel ModelOf(const std::array<Polynomial, 2>& plane, SkyPosition tangent, std::int32_t width,
                 std::int32_t height) {
    const auto& [east, north] = plane;
    SkyModel model{width,   height,
                   tangent, {{east.At(1, 0), east.At(0, 1)}, {north.At(1, 0), north.At(0, 1)}},
                   {},      {}};
    if (east.Order < 2) return model;
    for (Polynomial& axis : model.Distortion) axis.Order = east.Order;
    for (std::size_t term = PolynomialTerms(1); term < PolynomialTerms(east.Order); ++term) {
        const PixelPoint shift =
            InPixels(model.Cd, east.Coefficients[term], north.Coefficients[term]);
        model.Distortion[0].Coefficients[term] = shift.X;
        model.Distortion[1].Coefficients[term] = shift.Y;
    }
    return model;
}

/// A star: its offset from the image centre (pixels), and where it is on the plane.
struct Place {
    PixelPoint Offset;
    PlanePoint Plane;
};

/// One constant of a lens: what it adds to the plane, minus what the constants before it can
/// express. It is then orthogonal to them and can be fitted by itself (Frisch & Waugh 1933).
struct LensTerm {
    std::array<Polynomial, 2> Plane;  ///< what a constant of 1 adds
    std::vector<PlanePoint> AtStars;  ///< the same at each star
    double Squares = 0;               ///< sum of its squares over the stars
    double Constant = 0;

    PlanePoint At(const PixelPoint& offset) const {
        return {Plane[0](offset.X, offset.Y), Plane[1](offset.X, offset.Y)};
    }
};

void AddTimes(Polynomial& sum, double factor, const Polynomial& more) {
    for (std::size_t term = 0; term < PolynomialTerms(more.Order); ++term) {
        sum.Coefficients[term] += factor * more.Coefficients[term];
    }
    sum.Order = std::max(sum.Order, more.Order);
}

/// A constant of a lens: that of the radial term r³, r⁵ or r⁷, or of its axis in x or y.
enum class LensConstant : std::uint8_t { Third, Fifth, Seventh, AxisX, AxisY };

std::vector<LensConstant> ConstantsOf(const SkyModelShape& shape) {
    constexpr std::array radial = {LensConstant::Third, LensConstant::Fifth, LensConstant::Seventh};
    std::vector<LensConstant> constants(radial.begin(), radial.begin() + shape.Radial);
    if (shape.OffAxis) {
        constants.insert(constants.end(), {LensConstant::AxisX, LensConstant::AxisY});
    }
    return constants;
}

Polynomial Product(const Polynomial& one, const Polynomial& other) {
    Polynomial product;
    product.Order = one.Order + other.Order;
    for (int p = 0; p <= one.Order; ++p) {
        for (int q = 0; q <= one.Order - p; ++q) {
            for (int k = 0; k <= other.Order; ++k) {
                for (int m = 0; m <= other.Order - k; ++m) {
                    product.At(p + k, q + m) += one.At(p, q) * other.At(k, m);
                }
            }
        }
    }
    return product;
}

/// What each constant of a lens adds to the plane: (u, v)·r², (u, v)·r⁴, (u, v)·r⁶ about a point,
/// (3u² + v², 2uv) or (2uv, u² + 3v²), times CD.
LensTerm LensTermOf(LensConstant constant, const PixelPoint& about,
                    const std::array<Polynomial, 2>& cd) {
    Polynomial u;
    Polynomial v;
    if (constant == LensConstant::AxisX) {
        u.Order = v.Order = 2;
        u.At(2, 0) = 3, u.At(0, 2) = 1, v.At(1, 1) = 2;
    } else if (constant == LensConstant::AxisY) {
        u.Order = v.Order = 2;
        v.At(0, 2) = 3, v.At(2, 0) = 1, u.At(1, 1) = 2;
    } else {
        u.Order = v.Order = 1;
        u.At(1, 0) = v.At(0, 1) = 1;
        u.At(0, 0) = -about.X;
        v.At(0, 0) = -about.Y;
        Polynomial square = Product(u, u);
        AddTimes(square, 1, Product(v, v));
        for (int power = 0; power <= static_cast<int>(constant); ++power) {
            u = Product(u, square);
            v = Product(v, square);
        }
    }
    LensTerm term;
    for (std::size_t axis = 0; axis < 2; ++axis) {
        AddTimes(term.Plane[axis], cd[axis].At(1, 0), u);
        AddTimes(term.Plane[axis], cd[axis].At(0, 1), v);
    }
    return term;
}

/// The axis of a lens of third order about which (u, v)·r² would give the terms of second order
/// too; the centre when it were outside of the image.
PixelPoint AxisOf(const std::array<Polynomial, 2>& plane, double unit) {
    const auto& [east, north] = plane;
    const double cd[2][2] = {{east.At(1, 0), east.At(0, 1)}, {north.At(1, 0), north.At(0, 1)}};
    const double third = InPixels(cd, east.At(3, 0), north.At(3, 0)).X;
    const PixelPoint axis{-InPixels(cd, east.At(2, 0), north.At(2, 0)).X / (3 * third),
                          -InPixels(cd, east.At(0, 2), north.At(0, 2)).Y / (3 * third)};
    return std::hypot(axis.X, axis.Y) < unit ? axis : PixelPoint();
}

/// Fits the constants of a lens to the residuals of linear polynomials. Empty when the stars do not
/// determine them.
std::vector<LensTerm> FitLens(const std::vector<Place>& places, const SkyModelShape& shape,
                              const PixelPoint& about, const std::array<Polynomial, 2>& linear,
                              const std::array<Polynomial, 2>& cd, double unit) {
    constexpr double smallestShare = 1e-9;
    const auto product = [](const std::vector<PlanePoint>& one,
                            const std::vector<PlanePoint>& other) {
        double sum = 0;
        for (std::size_t i = 0; i < one.size(); ++i) {
            sum += one[i].East * other[i].East + one[i].North * other[i].North;
        }
        return sum;
    };
    std::vector<PlanePoint> residuals;
    residuals.reserve(places.size());
    for (const Place& place : places) {
        const auto& [x, y] = place.Offset;
        residuals.push_back(
            {place.Plane.East - linear[0](x, y), place.Plane.North - linear[1](x, y)});
    }
    std::vector<LensTerm> lens;
    for (const LensConstant constant : ConstantsOf(shape)) {
        LensTerm term = LensTermOf(constant, about, cd);
        PolynomialFit fit(1, unit);
        term.AtStars.reserve(places.size());
        for (const Place& place : places) {
            const PlanePoint added = term.At(place.Offset);
            fit.Add(place.Offset.X, place.Offset.Y, added.East, added.North);
            term.AtStars.push_back(added);
        }
        const double squares = product(term.AtStars, term.AtStars);
        if (!fit.Solve()) return {};
        const std::array<Polynomial, 2> expressed = {fit.Fitted(0), fit.Fitted(1)};
        for (std::size_t axis = 0; axis < 2; ++axis) {
            AddTimes(term.Plane[axis], -1, expressed[axis]);
        }
        for (std::size_t i = 0; i < places.size(); ++i) {
            const auto& [x, y] = places[i].Offset;
            term.AtStars[i].East -= expressed[0](x, y);
            term.AtStars[i].North -= expressed[1](x, y);
        }
        for (const LensTerm& earlier : lens) {
            const double common = product(term.AtStars, earlier.AtStars) / earlier.Squares;
            for (std::size_t axis = 0; axis < 2; ++axis) {
                AddTimes(term.Plane[axis], -common, earlier.Plane[axis]);
            }
            for (std::size_t i = 0; i < places.size(); ++i) {
                term.AtStars[i].East -= common * earlier.AtStars[i].East;
                term.AtStars[i].North -= common * earlier.AtStars[i].North;
            }
        }
        term.Squares = product(term.AtStars, term.AtStars);
        if (!(term.Squares > smallestShare * squares)) return {};
        term.Constant = product(term.AtStars, residuals) / term.Squares;
        lens.push_back(std::move(term));
    }
    return lens;
}

/// Standard deviations from the covariance of the constants.
void SetSigmas(SkyModelFit& result, const PolynomialFit& fit, const std::vector<LensTerm>& lens,
               const std::vector<Place>& places, const SkyModelShape& shape) {
    const std::size_t constants = shape.Constants();
    const SkyModel& model = result.Model;
    const double scale = model.Scale();
    const double halfWidth = model.Width / 2.0;
    const double halfHeight = model.Height / 2.0;
    const auto leverageAt = [&](const PixelPoint& offset) {
        double leverage = fit.Leverage(offset.X, offset.Y);
        for (const LensTerm& term : lens) {
            const PlanePoint added = term.At(offset);
            leverage += (added.East * added.East + added.North * added.North) / term.Squares;
        }
        return leverage;
    };
    for (const Place& place : places) result.Leverages.push_back(leverageAt(place.Offset));
    double leverage = 0;
    for (const double u : {-halfWidth, 0.0, halfWidth}) {
        for (const double v : {-halfHeight, 0.0, halfHeight}) {
            leverage = std::max(leverage, leverageAt({u, v}));
        }
    }
    result.EdgeLeverage = std::sqrt(leverage);
    const std::size_t values = 2 * result.Residuals.size();
    if (values <= constants) return;
    result.Sigma = std::sqrt(result.Squares / static_cast<double>(values - constants));
    result.EdgeSigma = std::hypot(result.Sigma * result.EdgeLeverage, LeftOutOf(model, shape));
    result.CentreSigma = result.Sigma * std::sqrt(leverageAt({}));

    // Linear propagation from the elements of CD: apart from the lens, its rows are independent and
    // have the same covariance.
    const auto& cd = model.Cd;
    const auto sigma = [&](const double(&gradient)[2][2]) {
        constexpr std::size_t alongX = 1;
        constexpr std::size_t alongY = 2;
        double sum = 0;
        for (const auto& [x, y] : gradient) {
            sum += x * x * fit.Covariance(alongX, alongX) + y * y * fit.Covariance(alongY, alongY) +
                   2 * x * y * fit.Covariance(alongX, alongY);
        }
        for (const LensTerm& term : lens) {
            double through = 0;
            for (std::size_t row = 0; row < 2; ++row) {
                through += gradient[row][0] * term.Plane[row].At(1, 0) +
                           gradient[row][1] * term.Plane[row].At(0, 1);
            }
            sum += through * through / term.Squares;
        }
        return result.Sigma * scale * std::sqrt(sum);
    };
    const double determinant = cd[0][0] * cd[1][1] - cd[0][1] * cd[1][0];
    const double twice = 2 * determinant;
    result.ScaleSigma =
        sigma({{cd[1][1] / twice, -cd[1][0] / twice}, {-cd[0][1] / twice, cd[0][0] / twice}});
    const double parity = determinant < 0 ? -1 : 1;
    const double sine = parity * cd[1][0] - cd[0][1];
    const double cosine = parity * cd[0][0] + cd[1][1];
    const double square = sine * sine + cosine * cosine;
    result.RotationSigma = sigma(
        {{-sine * parity / square, -cosine / square}, {cosine * parity / square, -sine / square}});
}

/// The logarithm of the gamma function at `twice` / 2.
double LogGammaOfHalf(std::size_t twice) {
    constexpr double ofHalf = 0.57236494292470008707;  // half the logarithm of π
    double sum = twice % 2 == 0 ? 0 : ofHalf;
    for (std::size_t k = twice % 2 == 0 ? 2 : 1; k + 2 <= twice; k += 2) {
        sum += std::log(static_cast<double>(k) / 2);
    }
    return sum;
}

/// The incomplete beta function I_x(a, b), with a and b given as 2a and 2b, by its continued
/// fraction (Abramowitz & Stegun 26.5.8, evaluated as by Lentz).
double IncompleteBeta(double x, std::size_t twiceA, std::size_t twiceB) {
    const double a = static_cast<double>(twiceA) / 2;
    const double b = static_cast<double>(twiceB) / 2;
    // The fraction converges quickly only on this side.
    if (x > (a + 1) / (a + b + 2)) return 1 - IncompleteBeta(1 - x, twiceB, twiceA);
    if (!(x > 0)) return 0;
    constexpr double tiny = 1e-300;
    constexpr double exact = 1e-14;
    constexpr int mostSteps = 300;
    const auto notZero = [](double value) { return std::fabs(value) < tiny ? tiny : value; };
    double c = 1;
    double d = 1 / notZero(1 - (a + b) * x / (a + 1));
    double fraction = d;
    for (int step = 1; step <= mostSteps; ++step) {
        const double m = step;
        const double even = m * (b - m) * x / ((a + 2 * m - 1) * (a + 2 * m));
        d = 1 / notZero(1 + even * d);
        c = notZero(1 + even / c);
        fraction *= d * c;
        const double odd = -(a + m) * (a + b + m) * x / ((a + 2 * m) * (a + 2 * m + 1));
        d = 1 / notZero(1 + odd * d);
        c = notZero(1 + odd / c);
        fraction *= d * c;
        if (std::fabs(d * c - 1) < exact) break;
    }
    const double logFront = LogGammaOfHalf(twiceA + twiceB) - LogGammaOfHalf(twiceA) -
                            LogGammaOfHalf(twiceB) + a * std::log(x) + b * std::log1p(-x);
    return std::exp(logFront) * fraction / a;
}

/// The exact sky position of a point of the orthographic plane, given in radians west and north.
std::optional<SkyPosition> SkyOfOrthographic(const SkyPosition& tangent, double west,
                                             double north) {
    const double square = 1 - (west * west + north * north);
    if (!(square > 0)) return std::nullopt;
    const double outward = std::sqrt(square);
    // The same direction as a point of the gnomonic plane.
    return SkyOfGnomonic(tangent, {-west / outward, north / outward});
}

}  // namespace

double LeftOutOf(const SkyModel& model, const SkyModelShape& shape) {
    const int terms = shape.Order > 1 ? (shape.Order - 1) / 2 : shape.Radial;
    if (terms == 0) return 0;
    double farthest = 0;
    for (const double u : {-model.Width / 2.0, model.Width / 2.0}) {
        for (const double v : {-model.Height / 2.0, model.Height / 2.0}) {
            farthest = std::max(farthest,
                                std::hypot(model.Distortion[0](u, v), model.Distortion[1](u, v)));
        }
    }
    const double radius = std::hypot(model.Width, model.Height) / 2;
    return farthest / 4 * std::pow(2 * farthest / radius, terms);
}

std::optional<SkyModelFit> FitSkyModel(const std::vector<SkyPoint>& points, SkyModelShape shape,
                                       std::int32_t width, std::int32_t height,
                                       SkyPosition tangent) {
    if (width < 1 || height < 1 || 2 * points.size() < shape.Constants()) return std::nullopt;
    const PixelPoint centre{(width - 1) / 2.0, (height - 1) / 2.0};
    const double unit = std::max(width, height) / 2.0;
    std::vector<Place> places;
    places.reserve(points.size());
    for (const SkyPoint& point : points) {
        places.push_back({{point.Pixel.X - centre.X, point.Pixel.Y - centre.Y}, {}});
    }
    // Moving the plane changes the fit only by the square of the step.
    constexpr int mostMoves = 15;
    constexpr double arrived = 1e-13;
    for (int move = 0; move <= mostMoves; ++move) {
        PolynomialFit fit(shape.Order, unit);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const auto place = GnomonicOf(tangent, points[i].Sky);
            if (!place) return std::nullopt;
            places[i].Plane = *place;
            fit.Add(places[i].Offset.X, places[i].Offset.Y, place->East, place->North);
        }
        if (!fit.Solve()) return std::nullopt;
        const std::array<Polynomial, 2> linear = {fit.Fitted(0), fit.Fitted(1)};
        std::array<Polynomial, 2> plane = linear;
        std::vector<LensTerm> lens;
        // The constants of a lens are multiplied by CD, which they change only a little: a few
        // passes suffice.
        constexpr int lensPasses = 4;
        // About which point the terms of a strong lens are, its third order tells.
        const bool looksForAxis = shape.OffAxis && shape.Radial > 1;
        PixelPoint about;
        for (int pass = 0; pass < lensPasses && shape.Radial > 0; ++pass) {
            const bool first = looksForAxis && pass == 0;
            lens = FitLens(places, first ? SkyModelShape{1, 1, true} : shape, about, linear, plane,
                           unit);
            if (lens.empty()) return std::nullopt;
            plane = linear;
            for (const LensTerm& term : lens) {
                for (std::size_t axis = 0; axis < 2; ++axis) {
                    AddTimes(plane[axis], term.Constant, term.Plane[axis]);
                }
            }
            if (first) about = AxisOf(plane, unit);
        }
        const PlanePoint offset{plane[0].At(0, 0), plane[1].At(0, 0)};
        if (!(std::hypot(offset.East, offset.North) < 2)) return std::nullopt;
        if (std::hypot(offset.East, offset.North) > arrived && move < mostMoves) {
            tangent = SkyOfGnomonic(tangent, offset);
            continue;
        }
        SkyModelFit result;
        result.Model = ModelOf(plane, tangent, width, height);
        if (!CompleteSkyModel(result.Model)) return std::nullopt;
        const double scale = result.Model.Scale();
        result.Residuals.resize(points.size());
        for (std::size_t i = 0; i < points.size(); ++i) {
            const PlanePoint fitted = result.Model.PlaneOf(points[i].Pixel);
            const double east = (places[i].Plane.East - fitted.East) / scale;
            const double north = (places[i].Plane.North - fitted.North) / scale;
            result.Residuals[i] = std::hypot(east, north);
            result.Squares += east * east + north * north;
        }
        SetSigmas(result, fit, lens, places, shape);
        return result;
    }
    return std::nullopt;
}

double ChanceOfImprovement(double squares, double largerSquares, std::size_t points,
                           SkyModelShape shape, SkyModelShape larger) {
    const std::size_t values = 2 * points;
    if (!(largerSquares < squares) || values <= larger.Constants()) return 1;
    return IncompleteBeta(largerSquares / squares, values - larger.Constants(),
                          larger.Constants() - shape.Constants());
}

std::optional<SkyModel> SkyModelOfPlate(const PlateConstants& constants, SkyPosition tangent,
                                        double planeScale, std::int32_t width,
                                        std::int32_t height) {
    constexpr int steps = 24;
    constexpr double usable = 0.05;
    constexpr double closeEnough = 0.01;
    const auto skyOf = [&](const PixelPoint& pixel) {
        double west = 0;
        double north = 0;
        InvertPlateFit(constants, pixel.X, pixel.Y, west, north);
        return SkyOfOrthographic(tangent, west / planeScale, north / planeScale);
    };
    const double determinant = constants.a * constants.e - constants.b * constants.d;
    const auto centre = skyOf({(width - 1) / 2.0, (height - 1) / 2.0});
    if (width < 1 || height < 1 || !std::isnormal(determinant) || !std::isnormal(planeScale) ||
        !centre) {
        return std::nullopt;
    }
    std::vector<SkyPoint> points;
    for (int j = 0; j <= steps; ++j) {
        for (int i = 0; i <= steps; ++i) {
            const PixelPoint pixel{static_cast<double>(i) / steps * width - 0.5,
                                   static_cast<double>(j) / steps * height - 0.5};
            const auto sky = skyOf(pixel);
            if (!sky) return std::nullopt;
            points.push_back({pixel, *sky});
        }
    }
    std::optional<SkyModel> best;
    for (int order = 1; order <= Polynomial::MostOrder; ++order) {
        const auto fit = FitSkyModel(points, {order, 0}, width, height, *centre);
        if (!fit) continue;
        const double worst = *std::max_element(fit->Residuals.begin(), fit->Residuals.end());
        if (worst < usable) best = fit->Model;
        if (worst < closeEnough) break;
    }
    return best;
}

}  // namespace vestrel
