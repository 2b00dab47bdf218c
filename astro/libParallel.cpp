#include "astro/libParallel.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace vestrel {

namespace {

thread_local int threadLimit = 0;

}  // namespace

ThreadLimit::ThreadLimit(int threads) : before_(threadLimit) {
    if (threads > 0) threadLimit = threads;
}
ThreadLimit::~ThreadLimit() {
    threadLimit = before_;
}

int ParallelThreads() {
    if (threadLimit > 0) return threadLimit;
    if (const char* text = std::getenv("VESTREL_THREADS")) {
        int wanted = 0;
        const auto result = std::from_chars(text, text + std::strlen(text), wanted);
        if (result.ec == std::errc() && *result.ptr == 0 && wanted > 0) {
            return std::min(wanted, 256);
        }
    }
    return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

void ParallelFor(int count, const std::function<void(int)>& work, const Progress& progress) {
    std::atomic<int> next{0};
    std::atomic<int> done{0};
    bool reported = false;
    std::mutex failureLock;
    std::exception_ptr failure;

    const auto takePieces = [&](const Progress& report) {
        try {
            for (int i = next++; i < count; i = next++) {
                work(i);
                const int finished = ++done;
                if (report) {
                    reported = true;
                    report(finished, count);
                }
            }
        } catch (...) {
            next = count;
            const std::lock_guard guard(failureLock);
            if (!failure) failure = std::current_exception();
        }
    };

    {
        std::vector<std::jthread> helpers;
        const int threads = std::min(ParallelThreads(), count);
        try {
            for (int i = 1; i < threads; ++i) {
                helpers.emplace_back([&takePieces] { takePieces({}); });
            }
        } catch (const std::system_error&) {
            // The system cannot start another thread; those that run do all the work.
        }
        takePieces(progress);
    }
    if (failure) std::rethrow_exception(failure);
    // The other threads can have done everything before this one came to it.
    if (progress && !reported && count > 0) progress(count, count);
}

}  // namespace vestrel
