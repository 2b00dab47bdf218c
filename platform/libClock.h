// What the system says about the time and the time zone.
#pragma once

#include <chrono>

namespace vestrel {

/// A moment as the clock on the wall shows it. Universal time is this and the bias.
struct LocalTime {
    int Year = 2000;
    int Month = 1;  ///< 1..12
    int Day = 1;
    int Hour = 0;
    int Minute = 0;
    double Second = 0;
    int BiasSeconds = 0;          ///< universal − local time at that moment, summer time included
    int StandardBiasSeconds = 0;  ///< the same without summer time
};

/// The local time of a moment, its bias taken together with it: the hour that summer time repeats
/// is told apart. Safe on any thread.
LocalTime LocalTimeAt(std::chrono::system_clock::time_point moment);

}  // namespace vestrel
