// Independent pieces of work spread over the processors, with progress on the calling thread.
#pragma once

#include <functional>

namespace vestrel {

/// Told how much of a long piece of work is done. Always called on the thread that started it, so
/// it may touch windows. An empty one is allowed everywhere.
using Progress = std::function<void(int done, int total)>;

/// Calls `work(i)` once for every i in 0..count−1, in any order and on several threads, and
/// `progress(done, count)` after each piece that the calling thread did itself. Returns when all
/// is done. Pieces must not share what they write; then the result cannot depend on the number of
/// threads. The first exception of a piece is thrown on after the others have ended.
void ParallelFor(int count, const std::function<void(int)>& work, const Progress& progress = {});

/// How many threads `ParallelFor` uses, the calling one included: what a `ThreadLimit` says, else
/// `$VESTREL_THREADS` when that is a whole number above 0, else the number of processors.
int ParallelThreads();

/// Sets the number of threads for all work that the calling thread starts, for as long as it lives.
/// The one setting that belongs to a thread and is not passed on: several solvers in one process
/// share the processors, and no kernel is to know of that.
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
