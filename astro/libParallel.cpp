#include "astro/libParallel.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#if defined(__unix__)
#include <pthread.h>
#endif

namespace vestrel {

namespace {

thread_local int threadLimit = 0;

/// Threads that take part in the work of others and wait for more in between. To start a thread for
/// each piece of work takes longer than some of them, and systems tend to start it on the processor
/// of its starter, where it stays for milliseconds.
class Helpers {
 public:
    struct Work {
        std::function<void()> TakePart;
        int Room;      ///< for so many helpers more
        int AtIt = 0;  ///< helpers that take part
        std::condition_variable Left{};
    };

    /// Those of this process. They are never destroyed, as threads may wait when the process ends.
    static Helpers& OfProcess() {
        static const bool begun = [] {
            Begin();
#if defined(__unix__)
            // Of the threads only the one that forks is in the child, where others may hold a lock.
            pthread_atfork(nullptr, nullptr, Begin);
#endif
            return true;
        }();
        (void)begun;
        return *ofProcess;
    }

    void Offer(Work& work) {
        const std::lock_guard guard(lock_);
        offered_.push_back(&work);
        room_ += work.Room;
        try {
            while (idle_ < room_) {
                std::thread(&Helpers::Run, this).detach();
                ++idle_;
            }
        } catch (const std::exception&) {
            // The system cannot start another thread; those that run do all the work.
        }
        for (int i = 0; i < work.Room; ++i) wanted_.notify_one();
    }
    /// No further helper begins; waits for those that are at it.
    void Withdraw(Work& work) {
        std::unique_lock guard(lock_);
        std::erase(offered_, &work);
        room_ -= work.Room;
        work.Left.wait(guard, [&work] { return work.AtIt == 0; });
    }

 private:
    static void Begin() {
        ofProcess = new Helpers;
    }
    static inline Helpers* ofProcess = nullptr;

    [[noreturn]] void Run() {
        std::unique_lock guard(lock_);
        for (;;) {
            const auto hasRoom = [](const Work* work) { return work->Room > 0; };
            const auto found = std::find_if(offered_.begin(), offered_.end(), hasRoom);
            if (found == offered_.end()) {
                wanted_.wait(guard);
                continue;
            }
            Work& work = **found;
            --work.Room;
            --room_;
            ++work.AtIt;
            --idle_;
            guard.unlock();
            work.TakePart();
            guard.lock();
            ++idle_;
            if (--work.AtIt == 0) work.Left.notify_one();
        }
    }

    std::mutex lock_;
    std::condition_variable wanted_;
    std::vector<Work*> offered_;
    int room_ = 0;  ///< in all that is offered
    int idle_ = 0;  ///< helpers that are at nothing
};

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
    std::atomic<int> next{1};  // the caller does the first piece, so that it hears of its progress
    std::atomic<int> done{0};
    std::mutex failureLock;
    std::exception_ptr failure;

    const auto takePieces = [&](int first, const Progress& report) {
        try {
            for (int i = first; i < count; i = next++) {
                work(i);
                const int finished = ++done;
                if (report) report(finished, count);
            }
        } catch (...) {
            next = count;
            const std::lock_guard guard(failureLock);
            if (!failure) failure = std::current_exception();
        }
    };

    const int threads = std::min(ParallelThreads(), count);
    if (threads > 1) {
        Helpers::Work shared{[&] { takePieces(next++, {}); }, threads - 1};
        Helpers::OfProcess().Offer(shared);
        takePieces(0, progress);
        Helpers::OfProcess().Withdraw(shared);
    } else {
        takePieces(0, progress);
    }
    if (failure) std::rethrow_exception(failure);
}

}  // namespace vestrel
