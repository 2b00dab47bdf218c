#include "matching/libPlatePosterior.h"

#include <numeric>

namespace vestrel {

namespace {

double Dot(const auto& a, const auto& b) {
    return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

}  // namespace

PlatePosterior::PlatePosterior(const PlateSpread& spread, double halfDiagonal, double stretch,
                               double skew) {
    const double unknown = 10 * halfDiagonal;
    // A stretch of s lengthens one axis by s / 2 and shortens the other.
    const double stretched = spread.Stretch * halfDiagonal / 2;
    const double distorted = spread.Distortion * halfDiagonal;
    for (std::size_t i = 0; i < terms; ++i) {
        const double sigma = i < 4 ? unknown : i < 6 ? stretched : distorted;
        covariance_[i][i] = sigma * sigma;
    }
    mean_[4] = stretch * halfDiagonal / 2;
    mean_[5] = skew * halfDiagonal / 2;
}

void PlatePosterior::Rows(double u, double v, Vector& x, Vector& y) {
    const double r2 = u * u + v * v;
    x = {1, 0, u, -v, u, v, u * u, u * v, v * v, 0, 0, 0, r2 * u};
    y = {0, 1, v, u, -v, u, 0, 0, 0, u * u, u * v, v * v, r2 * v};
}

PlatePosterior::Vector PlatePosterior::TimesCovariance(const Vector& row) const {
    Vector product{};
    for (std::size_t i = 0; i < terms; ++i) product[i] = Dot(covariance_[i], row);
    return product;
}

PlatePosterior::Place PlatePosterior::Predict(double u, double v) const {
    Vector x;
    Vector y;
    Rows(u, v, x, y);
    const Vector spreadX = TimesCovariance(x);
    const Vector spreadY = TimesCovariance(y);
    return {Dot(mean_, x), Dot(mean_, y), Dot(x, spreadX), Dot(y, spreadY), Dot(y, spreadX)};
}

void PlatePosterior::Learn(double u, double v, double dx, double dy, double variance) {
    Vector x;
    Vector y;
    Rows(u, v, x, y);
    LearnAxis(x, dx, variance);
    LearnAxis(y, dy, variance);
}

void PlatePosterior::LearnAxis(const Vector& row, double value, double variance) {
    const Vector spread = TimesCovariance(row);
    const double total = Dot(row, spread) + variance;
    const double surprise = value - Dot(mean_, row);
    for (std::size_t i = 0; i < terms; ++i) {
        const double gain = spread[i] / total;
        mean_[i] += gain * surprise;
        for (std::size_t j = 0; j < terms; ++j) covariance_[i][j] -= gain * spread[j];
    }
}

}  // namespace vestrel
