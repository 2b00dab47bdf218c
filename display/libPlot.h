// From numbers to places on a drawing: axes with round ticks, and a histogram as columns.
#pragma once

#include <vector>

#include "display/libDisplayLevels.h"
#include "photometry/libStarStatistics.h"

namespace vestrel {

/// A straight scale between the two ends of a line on the screen.
struct PlotAxis {
    double Low = 0;   ///< the value at `From`
    double High = 1;  ///< the value at `To`
    double From = 0;
    double To = 1;

    /// The place of a value, held to the line.
    double PlaceOf(double value) const;
    double ValueAt(double place) const;
};

/// The multiples of 1, 2 or 5 times a power of ten within low..high, `most` (2 or more) at the
/// most; none when the range is empty.
std::vector<double> RoundTicks(double low, double high, int most);

/// The counts that a levels window shows: the usual levels with room on both sides, as far as there
/// are pixels, and the present levels.
CountLevels HistogramSpan(const ImageHistogram& histogram, const CountLevels& levels);

/// The histogram over a span as `columns` heights, 0..1 of the highest, of the numbers of pixels or
/// their logarithms. A pixel whose bin straddles two columns counts in part for each.
std::vector<double> HistogramColumns(const ImageHistogram& histogram, const CountLevels& span,
                                     int columns, bool logarithmic);

/// The values that a radial profile shows: the points', the fit's and 0.
CountLevels ProfileSpan(const std::vector<ProfilePoint>& points, const ProfileFit& fit);
/// The height of a fitted profile at a distance from its centre.
double ProfileValue(const ProfileFit& fit, double radius);

/// Slider positions are whole numbers of 0..`SliderSteps` over a span of counts.
inline constexpr int SliderSteps = 2000;
int SliderPosition(const CountLevels& span, double count);
double SliderCount(const CountLevels& span, int position);

}  // namespace vestrel
