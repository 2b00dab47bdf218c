#include "matching/libPlatePosterior.h"

#include <cmath>
#include <numeric>

namespace vestrel {

namespace {

double Dot(const auto& a, const auto& b) {
    return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

}  // namespace

PlatePosterior::PlatePosterior(const PlateSpread& spread, int width, int height, double stretch,
                               double skew)
    : halfDiagonal_(std::hypot(width, height) / 2),
      middleX_((width - 1) / 2.0),
      middleY_((height - 1) / 2.0) {
    const double unknown = 10 * halfDiagonal_;
    // A stretch of s lengthens one axis by s / 2 and shortens the other.
    const double stretched = spread.Stretch * halfDiagonal_ / 2;
    const double distorted = spread.Distortion * halfDiagonal_;
    for (std::size_t i = 0; i < terms; ++i) {
        const double sigma = i < 4 ? unknown : i < 6 ? stretched : distorted;
        covariance_[i][i] = sigma * sigma;
    }
    mean_[4] = stretch * halfDiagonal_ / 2;
    mean_[5] = skew * halfDiagonal_ / 2;
}

void PlatePosterior::Rows(double x, double y, Vector& rowX, Vector& rowY) const {
    const double u = (x - middleX_) / halfDiagonal_;
    const double v = (y - middleY_) / halfDiagonal_;
    const double r2 = u * u + v * v;
    rowX = {1, 0, u, -v, u, v, u * u, u * v, v * v, 0, 0, 0, r2 * u};
    rowY = {0, 1, v, u, -v, u, 0, 0, 0, u * u, u * v, v * v, r2 * v};
}

PlatePosterior::Vector PlatePosterior::TimesCovariance(const Vector& row) const {
    Vector product{};
    for (std::size_t j = 0; j < terms; ++j) {
        // Each axis is moved by only eight of the terms.
        if (row[j] == 0) continue;
        for (std::size_t i = 0; i < terms; ++i) product[i] += covariance_[j][i] * row[j];
    }
    return product;
}

PlatePosterior::Place PlatePosterior::Predict(double x, double y) const {
    Vector rowX;
    Vector rowY;
    Rows(x, y, rowX, rowY);
    const Vector spreadX = TimesCovariance(rowX);
    const Vector spreadY = TimesCovariance(rowY);
    return {Dot(mean_, rowX), Dot(mean_, rowY), Dot(rowX, spreadX), Dot(rowY, spreadY),
            Dot(rowY, spreadX)};
}

void PlatePosterior::Learn(double x, double y, double dx, double dy, double variance) {
    Vector rowX;
    Vector rowY;
    Rows(x, y, rowX, rowY);
    LearnAxis(rowX, dx, variance);
    LearnAxis(rowY, dy, variance);
}

void PlatePosterior::LearnAxis(const Vector& row, double value, double variance) {
    const Vector spread = TimesCovariance(row);
    const double total = Dot(row, spread) + variance;
    const double surprise = value - Dot(mean_, row);
    Vector gain;
    for (std::size_t i = 0; i < terms; ++i) {
        gain[i] = spread[i] / total;
        mean_[i] += gain[i] * surprise;
    }
    for (std::size_t j = 0; j < terms; ++j) {
        for (std::size_t i = 0; i < terms; ++i) covariance_[j][i] -= gain[i] * spread[j];
    }
}

}  // namespace vestrel
