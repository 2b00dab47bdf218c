// Independent pieces of work spread over the processors, with progress on the calling thread.
#pragma once

#include <functional>

namespace vestrel {

/// Learns that `done` of `total` pieces of a long operation are finished. It is always called on
/// the thread that started the operation, so it may touch windows. It may be empty.
using Progress = std::function<void(int done, int total)>;

/// Calls `work(i)` once for every i in 0..count−1, in any order and on several threads, and
/// `progress(done, count)` after each piece that the calling thread did itself. It does at least
/// the first one, so that a stop is always noticed. Returns when all is done. Pieces must not share
/// what they write; then the result cannot depend on the number of threads. When a piece throws, no
/// further pieces are begun, and the first exception is rethrown once the running ones have ended.
void ParallelFor(int count, const std::function<void(int)>& work, const Progress& progress = {});

/// How many threads `ParallelFor` uses, the calling one included: the `ThreadLimit` of this thread,
/// else `$VESTREL_THREADS` when that is a whole number above 0 (at most 256 count), else the number
/// of processors.
int ParallelThreads();

/// While it lives, sets the number of threads for all work that the calling thread starts. It is
/// the only setting that belongs to a thread instead of being a parameter: several solvers in one
/// process share the processors, and kernels need not know about that.
class ThreadLimit {
 public:
    /// @param threads 1..256; 0 leaves the number as it is
    explicit ThreadLimit(int threads);
    ~ThreadLimit();
    ThreadLimit(const ThreadLimit&) = delete;
    ThreadLimit& operator=(const ThreadLimit&) = delete;

 private:
    int before_;
};

}  // namespace vestrel
