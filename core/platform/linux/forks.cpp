#include "core/platform/linux/forks.h"

#include <pthread.h>

#include <atomic>
#include <system_error>

namespace velmora::platform {
namespace {

// Written by the handler of a fork in the child's only thread, read by every thread.
std::atomic<uint32_t> generation{1};

// Of the process whose threads they are; 0 while there are none. Written once.
std::atomic<uint32_t> generationOfThreads{0};

}  // namespace

void watchForks() {
    static const int registered =
        ::pthread_atfork(nullptr, nullptr, [] { generation.fetch_add(1, std::memory_order_relaxed); });
    if (registered != 0) throw std::system_error(registered, std::system_category(), "pthread_atfork");
}

uint32_t processGeneration() noexcept { return generation.load(std::memory_order_relaxed); }

void noteThreads() {
    watchForks();
    uint32_t none = 0;
    generationOfThreads.compare_exchange_strong(none, processGeneration());
}

bool lacksThreads() noexcept {
    const uint32_t owner = generationOfThreads;
    return owner != 0 && owner != processGeneration();
}

}  // namespace velmora::platform
