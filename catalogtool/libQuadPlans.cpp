#include "catalogtool/libQuadPlans.h"

#include <algorithm>
#include <cmath>

#include "astro/libMath.h"

namespace vestrel {

namespace {

/// A plan for narrow fields.
constexpr QuadPlan Narrow(double from, double to, double framesPerField) {
    QuadPlan plan;
    plan.SmallestDiagonal = from;
    plan.LargestDiagonal = to;
    plan.FramesPerField = framesPerField;
    plan.StarsPerFrame = 25;
    plan.SharedBrightest = true;
    plan.BrightestLost = 4;
    plan.Gaps = 1;
    return plan;
}

/// A plan for wide fields.
constexpr QuadPlan Wide(double from, double to, int starsPerFrame, int centralStars) {
    QuadPlan plan;
    plan.SmallestDiagonal = from;
    plan.LargestDiagonal = to;
    plan.FramesPerField = 16;
    plan.StarsPerFrame = starsPerFrame;
    plan.CentralStars = centralStars;
    plan.Neighbours = 4;
    return plan;
}

}  // namespace

const std::vector<QuadPlan>& QuadPlans() {
    static const std::vector<QuadPlan> plans = {
        Narrow(0.2, 0.28, 9),  Narrow(0.28, 0.4, 9),   Narrow(0.4, 0.6, 9),   Narrow(0.6, 0.9, 9),
        Narrow(0.9, 1.25, 9),  Narrow(1.25, 1.75, 16), Narrow(1.75, 2.5, 16), Narrow(2.5, 3.5, 16),
        Wide(3.5, 5, 25, 8),   Wide(5, 7.1, 25, 16),   Wide(7.1, 10, 40, 32), Wide(10, 18, 60, 50),
        Wide(18, 30, 100, 90),
    };
    return plans;
}

std::vector<QuadPlan> PlansFor(double smallestDiagonal, double largestDiagonal) {
    std::vector<QuadPlan> chosen;
    // The comparisons also catch NaN.
    if (!(smallestDiagonal < largestDiagonal &&
          smallestDiagonal >= QuadPlans().front().SmallestDiagonal &&
          largestDiagonal <= QuadPlans().back().LargestDiagonal)) {
        return chosen;
    }
    for (QuadPlan plan : QuadPlans()) {
        plan.SmallestDiagonal = std::max(plan.SmallestDiagonal, smallestDiagonal);
        plan.LargestDiagonal = std::min(plan.LargestDiagonal, largestDiagonal);
        if (plan.SmallestDiagonal < plan.LargestDiagonal) chosen.push_back(plan);
    }
    return chosen;
}

double MiddleDiagonal(const QuadPlan& plan) {
    return std::sqrt(plan.SmallestDiagonal * plan.LargestDiagonal) * RadiansPerDegree;
}

}  // namespace vestrel
