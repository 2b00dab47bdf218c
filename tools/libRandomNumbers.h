// Random numbers that are the same with every compiler and standard library.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace vestrel {

/// Separate streams of random numbers for separate purposes.
enum class RandomStream : std::uint64_t { Row = 1, Gradient, HotPixels, Stars };

/// SplitMix64 (Steele, Lea, Flood 2014) and the distributions that frames need. The standard
/// library's distributions differ from one implementation to the next.
class RandomNumbers {
 public:
    RandomNumbers(std::uint64_t seed, RandomStream stream, std::uint64_t number = 0)
        : state_(Mixed(Mixed(Mixed(seed) + static_cast<std::uint64_t>(stream)) + number)) {}

    /// 0 inclusive to 1 exclusive.
    double Uniform() {
        state_ += increment;
        return static_cast<double>(Mixed(state_) >> 11) * 0x1p-53;
    }

    /// Mean 0, standard deviation 1; Marsaglia's polar method, which yields two at a time.
    double Normal() {
        if (haveSpare_) {
            haveSpare_ = false;
            return spare_;
        }
        double x = 0;
        double y = 0;
        double squared = 0;
        do {
            x = 2 * Uniform() - 1;
            y = 2 * Uniform() - 1;
            squared = x * x + y * y;
        } while (squared >= 1 || squared == 0);
        const double factor = std::sqrt(-2 * std::log(squared) / squared);
        spare_ = y * factor;
        haveSpare_ = true;
        return x * factor;
    }

    /// A Poisson-distributed count; from a mean of 50 on by the normal distribution, which is as
    /// good there.
    double Poisson(double mean) {
        if (mean >= 50) return std::max(0.0, std::nearbyint(mean + std::sqrt(mean) * Normal()));
        const double limit = std::exp(-mean);
        double product = Uniform();
        int count = 0;
        for (; product > limit; ++count) product *= Uniform();
        return count;
    }

 private:
    static constexpr std::uint64_t increment = 0x9E3779B97F4A7C15;
    static std::uint64_t Mixed(std::uint64_t value) {
        value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
        value = (value ^ value >> 27) * 0x94D049BB133111EB;
        return value ^ value >> 31;
    }

    std::uint64_t state_;
    double spare_ = 0;
    bool haveSpare_ = false;
};

}  // namespace vestrel
