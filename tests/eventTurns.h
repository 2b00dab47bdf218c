// Measures how long windows do not answer.
#pragma once

#include <QCoreApplication>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <ctime>

namespace vestrel {

/// The longest gap between two turns of the event loop while it lives, in seconds.
///
/// A gap is the processor time that the thread of the windows takes, or the time that passes when
/// that is shorter: on a machine that does other things too, time passes without the program.
class EventTurns {
 public:
    EventTurns() {
        QObject::connect(&timer_, &QTimer::timeout, [this] { Turn(); });
        timer_.start(0);
    }
    /// Begins a new measurement.
    void Start() {
        longest_ = 0;
        last_ = Now();
    }
    /// Ends with the turn that follows what was measured.
    double Longest() {
        QCoreApplication::processEvents();
        Turn();
        return longest_;
    }

 private:
    struct Moment {
        std::chrono::steady_clock::time_point Time;
        double Processor;
    };
    static Moment Now() {
        timespec taken{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &taken);
        return {std::chrono::steady_clock::now(),
                static_cast<double>(taken.tv_sec) + 1e-9 * static_cast<double>(taken.tv_nsec)};
    }
    void Turn() {
        const Moment now = Now();
        const double time = std::chrono::duration<double>(now.Time - last_.Time).count();
        longest_ = std::max(longest_, std::min(time, now.Processor - last_.Processor));
        last_ = now;
    }
    QTimer timer_;
    Moment last_ = Now();
    double longest_ = 0;
};

}  // namespace vestrel
