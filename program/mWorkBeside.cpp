#include "program/mWorkBeside.h"

#include <chrono>
#include <future>

#include "astro/libParallel.h"

namespace vestrel {

void WorkBeside(Port& port, const std::function<void()>& work) {
    std::future<void> done = std::async(std::launch::async, [&, threads = ParallelThreads()] {
        const ThreadLimit limit(threads);
        work();
    });
    constexpr std::chrono::milliseconds turn(5);
    while (done.wait_for(turn) != std::future_status::ready) port.Yield();
    done.get();
}

}  // namespace vestrel
