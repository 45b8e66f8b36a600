// A reader/writer lock that prefers writers: once a writer waits, new readers wait behind it. So a reader must not take
// it a second time, and must not wait for a thread that does.
#pragma once

#include <cstdint>

#include "core/types/mutex.h"

namespace velmora {

class SharedMutex {
public:
    void lock() {
        const MutexLock lock(mutex_);
        free_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return !writer_; });
        writer_ = true;
        drained_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return readers_ == 0; });
    }

    void unlock() {
        const MutexLock lock(mutex_);
        writer_ = false;
        free_.notifyAll();
    }

    void lock_shared() {
        const MutexLock lock(mutex_);
        free_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return !writer_ && readers_ < kMaxReaders; });
        ++readers_;
    }

    void unlock_shared() {
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

}  // namespace velmora
