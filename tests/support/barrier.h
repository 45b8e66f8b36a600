// A meeting point of a fixed number of threads, over and over. std::barrier loses wake-ups where the compiler's library
// has no futex below it, as in the cross build.
#pragma once

#include <condition_variable>
#include <mutex>

namespace velmora::test {

class Barrier {
public:
    explicit Barrier(int threads) : threads_(threads) {}

    // Returns when all threads have arrived.
    void arriveAndWait() {
        std::unique_lock lock(mutex_);
        const int round = round_;
        if (++arrived_ == threads_) {
            arrived_ = 0;
            ++round_;
            allThere_.notify_all();
            return;
        }
        allThere_.wait(lock, [&] { return round_ != round; });
    }

private:
    const int threads_;
    std::mutex mutex_;
    std::condition_variable allThere_;
    int arrived_ = 0;
    int round_ = 0;
};

}  // namespace velmora::test
