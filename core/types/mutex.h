// std::mutex and friends with annotations that clang checks (-Wthread-safety). The order in which locks are taken
// stands in docs/threading.md; no callback of another object or of the host runs under one.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#if defined(__clang__)
#    define VELMORA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#    define VELMORA_THREAD_ATTRIBUTE(x)
#endif

#define VELMORA_GUARDED_BY(x) VELMORA_THREAD_ATTRIBUTE(guarded_by(x))
#define VELMORA_REQUIRES(...) VELMORA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VELMORA_EXCLUDES(...) VELMORA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

namespace velmora {

class VELMORA_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
public:
    void lock() VELMORA_THREAD_ATTRIBUTE(acquire_capability()) { mutex_.lock(); }
    void unlock() VELMORA_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }

private:
    std::mutex mutex_;
};

class VELMORA_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VELMORA_THREAD_ATTRIBUTE(acquire_capability(mutex)) : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() VELMORA_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
};

// Waits on a Mutex that the caller holds.
class Condition {
public:
    template <typename Predicate>
    void wait(Mutex& mutex, Predicate predicate) VELMORA_REQUIRES(mutex) {
        condition_.wait(mutex, std::move(predicate));
    }
    // False if the predicate does not hold at the deadline.
    template <typename TimePoint, typename Predicate>
    bool waitUntil(Mutex& mutex, const TimePoint& deadline, Predicate predicate) VELMORA_REQUIRES(mutex) {
        return condition_.wait_until(mutex, deadline, std::move(predicate));
    }
    void notifyOne() noexcept { condition_.notify_one(); }
    void notifyAll() noexcept { condition_.notify_all(); }

private:
    std::condition_variable_any condition_;
};

// A reader/writer lock that prefers writers: once a writer waits, new readers wait behind it. So a reader must not take
// it a second time, and must not wait for a thread that does.
class VELMORA_THREAD_ATTRIBUTE(capability("mutex")) SharedMutex {
public:
    void lock() VELMORA_THREAD_ATTRIBUTE(acquire_capability()) {
        const MutexLock lock(mutex_);
        free_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return !writer_; });
        writer_ = true;
        drained_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return readers_ == 0; });
    }

    void unlock() VELMORA_THREAD_ATTRIBUTE(release_capability()) {
        const MutexLock lock(mutex_);
        writer_ = false;
        free_.notifyAll();
    }

    void lockShared() VELMORA_THREAD_ATTRIBUTE(acquire_shared_capability()) {
        const MutexLock lock(mutex_);
        free_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return !writer_ && readers_ < kMaxReaders; });
        ++readers_;
    }

    void unlockShared() VELMORA_THREAD_ATTRIBUTE(release_shared_capability()) {
        const MutexLock lock(mutex_);
        const bool wasFull = readers_-- == kMaxReaders;
        if (writer_ && readers_ == 0) drained_.notifyOne();
        if (!writer_ && wasFull) free_.notifyOne();
    }

private:
    static constexpr uint32_t kMaxReaders = 0x7FFFFFFF;

    Mutex mutex_;
    Condition free_;     // no writer, and room for a reader
    Condition drained_;  // no reader left, for the writer that has announced itself
    bool writer_ VELMORA_GUARDED_BY(mutex_) = false;
    uint32_t readers_ VELMORA_GUARDED_BY(mutex_) = 0;
};

class VELMORA_THREAD_ATTRIBUTE(scoped_lockable) SharedLock {
public:
    explicit SharedLock(SharedMutex& mutex) VELMORA_THREAD_ATTRIBUTE(acquire_shared_capability(mutex)) : mutex_(mutex) {
        mutex_.lockShared();
    }
    ~SharedLock() VELMORA_THREAD_ATTRIBUTE(release_capability()) { mutex_.unlockShared(); }
    SharedLock(const SharedLock&) = delete;
    SharedLock& operator=(const SharedLock&) = delete;

private:
    SharedMutex& mutex_;
};

}  // namespace velmora
