// Polynomials of two variables, and their least-squares fit.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace vestrel {

/// The number of terms x^p·y^q with p + q <= order.
constexpr std::size_t PolynomialTerms(int order) {
    return static_cast<std::size_t>((order + 1) * (order + 2) / 2);
}

/// The sum of c(p, q)·x^p·y^q over p + q <= Order.
struct Polynomial {
    static constexpr int MostOrder = 7;

    int Order = 0;
    /// By rising degree p + q, and by rising q within a degree.
    std::array<double, PolynomialTerms(MostOrder)> Coefficients{};

    static constexpr std::size_t TermOf(int p, int q) {
        return PolynomialTerms(p + q - 1) + static_cast<std::size_t>(q);
    }
    double& At(int p, int q) { return Coefficients[TermOf(p, q)]; }
    double At(int p, int q) const { return Coefficients[TermOf(p, q)]; }

    double operator()(double x, double y) const;
};

/// Fits two polynomials of one order to values at the same points, by unweighted linear least
/// squares: normal equations in scaled variables, solved by Cholesky's decomposition.
class PolynomialFit {
 public:
    /// @param order 0..`Polynomial::MostOrder`
    /// @param unit a typical size of the variables, above 0
    PolynomialFit(int order, double unit);

    /// Adds a point (x, y) with the values of both polynomials there.
    void Add(double x, double y, double first, double second);

    /// Fits. False when the points do not determine the coefficients.
    bool Solve();

    // After a fit:

    /// The polynomial of the first (0) or second (1) values.
    Polynomial Fitted(int which) const;
    /// The variance of the fitted polynomial at a point, when each value has the variance 1. Grows
    /// where there are no points.
    double Leverage(double x, double y) const;
    /// The covariance of two coefficients of the same polynomial, when each value has the
    /// variance 1; numbers as `Polynomial::TermOf` gives them.
    double Covariance(std::size_t one, std::size_t other) const;

 private:
    std::vector<double> Terms(double x, double y) const;
    void SolveLower(std::vector<double>& right) const;
    void SolveUpper(std::vector<double>& right) const;
    double& Matrix(std::size_t row, std::size_t column) { return matrix_[row * terms_ + column]; }
    double Matrix(std::size_t row, std::size_t column) const {
        return matrix_[row * terms_ + column];
    }

    int order_;
    double unit_;
    std::size_t terms_;
    std::vector<double> matrix_;                ///< lower half; the decomposition after `Solve`
    std::array<std::vector<double>, 2> right_;  ///< the coefficients after `Solve`
};

}  // namespace vestrel
