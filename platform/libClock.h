// What the system says about the time and the time zone.
#pragma once

#include <chrono>

namespace vestrel {

/// A moment in local time. Universal time is local time plus the bias.
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

/// The local time of a moment with the bias of that same moment, so that the hour which occurs
/// twice at the end of summer time is unambiguous. Safe on any thread.
LocalTime LocalTimeAt(std::chrono::system_clock::time_point moment);

}  // namespace vestrel
