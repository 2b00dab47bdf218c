// Converts numbers to places on a drawing: axes with round ticks, and histograms as columns.
#pragma once

#include <vector>

#include "display/libDisplayLevels.h"
#include "photometry/libStarStatistics.h"

namespace vestrel {

/// A linear scale between the two ends of a line on the screen.
struct PlotAxis {
    double Low = 0;   ///< the value at `From`
    double High = 1;  ///< the value at `To`
    double From = 0;
    double To = 1;

    /// The place of a value, clamped to the line.
    double PlaceOf(double value) const;
    /// The inverse of `PlaceOf` along the line.
    double ValueAt(double place) const;
};

/// The multiples of 1, 2 or 5 times a power of ten within low..high, at most `most` (2 or more);
/// none when the range is empty.
std::vector<double> RoundTicks(double low, double high, int most);

/// The range of counts that a levels window shows: the usual levels with a margin, as far as there
/// are pixels, extended to the present levels.
CountLevels HistogramSpan(const ImageHistogram& histogram, const CountLevels& levels);

/// The histogram over a span as `columns` heights, 0..1 relative to the highest: numbers of pixels
/// or their logarithms. A bin that straddles two columns counts partly for each.
std::vector<double> HistogramColumns(const ImageHistogram& histogram, const CountLevels& span,
                                     int columns, bool logarithmic);

/// The range of values in a radial profile: those of the points and the fit, and 0.
CountLevels ProfileSpan(const std::vector<ProfilePoint>& points, const ProfileFit& fit);
/// The height of a fitted profile at a distance from its centre.
double ProfileValue(const ProfileFit& fit, double radius);

/// Slider positions are whole numbers 0..`SliderSteps` over a span of counts.
inline constexpr int SliderSteps = 2000;
int SliderPosition(const CountLevels& span, double count);
double SliderCount(const CountLevels& span, int position);

}  // namespace vestrel
