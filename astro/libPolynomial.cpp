#include "astro/libPolynomial.h"

#include <cmath>

namespace vestrel {

double Polynomial::operator()(double x, double y) const {
    std::array<double, MostOrder + 1> powersOfY{};
    powersOfY[0] = 1;
    for (std::size_t q = 1; q <= static_cast<std::size_t>(Order); ++q) {
        powersOfY[q] = powersOfY[q - 1] * y;
    }
    double sum = 0;
    double powerOfX = 1;
    for (int p = 0; p <= Order; ++p) {
        for (int q = 0; q <= Order - p; ++q) {
            sum += At(p, q) * (powerOfX * powersOfY[static_cast<std::size_t>(q)]);
        }
        powerOfX *= x;
    }
    return sum;
}

PolynomialFit::PolynomialFit(int order, double unit)
    : order_(order),
      unit_(unit),
      terms_(PolynomialTerms(order)),
      matrix_(terms_ * terms_),
      right_{std::vector<double>(terms_), std::vector<double>(terms_)} {}

std::vector<double> PolynomialFit::Terms(double x, double y) const {
    std::vector<double> terms(terms_);
    terms[0] = 1;
    for (int degree = 1; degree <= order_; ++degree) {
        for (int q = 0; q < degree; ++q) {
            terms[Polynomial::TermOf(degree - q, q)] =
                terms[Polynomial::TermOf(degree - 1 - q, q)] * (x / unit_);
        }
        terms[Polynomial::TermOf(0, degree)] =
            terms[Polynomial::TermOf(0, degree - 1)] * (y / unit_);
    }
    return terms;
}

void PolynomialFit::Add(double x, double y, double first, double second) {
    const std::vector<double> terms = Terms(x, y);
    for (std::size_t i = 0; i < terms_; ++i) {
        for (std::size_t j = 0; j <= i; ++j) Matrix(i, j) += terms[i] * terms[j];
        right_[0][i] += terms[i] * first;
        right_[1][i] += terms[i] * second;
    }
}

bool PolynomialFit::Solve() {
    // A pivot over its diagonal value is the share of a term that the terms before it do not
    // explain, whatever the units.
    constexpr double smallestShare = 1e-11;
    for (std::size_t i = 0; i < terms_; ++i) {
        const double diagonal = Matrix(i, i);
        for (std::size_t j = 0; j <= i; ++j) {
            double sum = Matrix(i, j);
            for (std::size_t k = 0; k < j; ++k) sum -= Matrix(i, k) * Matrix(j, k);
            if (j < i) {
                Matrix(i, j) = sum / Matrix(j, j);
            } else {
                if (!(sum > smallestShare * diagonal)) return false;
                Matrix(i, i) = std::sqrt(sum);
            }
        }
    }
    for (std::vector<double>& right : right_) {
        SolveLower(right);
        SolveUpper(right);
    }
    return true;
}

void PolynomialFit::SolveLower(std::vector<double>& right) const {
    for (std::size_t i = 0; i < terms_; ++i) {
        for (std::size_t k = 0; k < i; ++k) right[i] -= Matrix(i, k) * right[k];
        right[i] /= Matrix(i, i);
    }
}

void PolynomialFit::SolveUpper(std::vector<double>& right) const {
    for (std::size_t i = terms_; i-- > 0;) {
        for (std::size_t k = i + 1; k < terms_; ++k) right[i] -= Matrix(k, i) * right[k];
        right[i] /= Matrix(i, i);
    }
}

Polynomial PolynomialFit::Fitted(int which) const {
    Polynomial result;
    result.Order = order_;
    double scale = 1;
    for (int degree = 0; degree <= order_; ++degree) {
        for (int q = 0; q <= degree; ++q) {
            const std::size_t term = Polynomial::TermOf(degree - q, q);
            result.Coefficients[term] = right_[static_cast<std::size_t>(which)][term] * scale;
        }
        scale /= unit_;
    }
    return result;
}

double PolynomialFit::Leverage(double x, double y) const {
    std::vector<double> terms = Terms(x, y);
    SolveLower(terms);
    double sum = 0;
    for (const double term : terms) sum += term * term;
    return sum;
}

double PolynomialFit::Covariance(std::size_t one, std::size_t other) const {
    // Both columns of the decomposition's inverse.
    std::vector<double> first(terms_);
    std::vector<double> second(terms_);
    first[one] = 1;
    second[other] = 1;
    SolveLower(first);
    SolveLower(second);
    double sum = 0;
    for (std::size_t k = 0; k < terms_; ++k) sum += first[k] * second[k];
    const auto degreeOf = [](std::size_t term) {
        int degree = 0;
        while (PolynomialTerms(degree) <= term) ++degree;
        return degree;
    };
    return sum / std::pow(unit_, degreeOf(one) + degreeOf(other));
}

}  // namespace vestrel
