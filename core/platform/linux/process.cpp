#include "core/platform/process.h"

#include <pthread.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <system_error>

#include "core/platform/linux/system.h"

namespace velmora::platform {
namespace {

constexpr size_t kGuidSize = 16;
constexpr size_t kPoolSize = 16 * kGuidSize;  // the system fills up to 256 bytes in one go

// Random bytes fetched ahead. Trivially destructible, so that it serves until the last destructor of a thread.
struct RandomPool {
    std::array<uint8_t, kPoolSize> bytes;
    size_t used;
    uint32_t generation;  // of the process that filled it; 0 if nobody has
};

thread_local RandomPool pool{};

void refill(uint32_t generation) {
    watchForks();
    size_t filled = 0;
    while (filled < kPoolSize) {
        const ssize_t got = ::getrandom(pool.bytes.data() + filled, kPoolSize - filled, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw std::system_error(errno, std::system_category(), "getrandom");
        filled += static_cast<size_t>(got);
    }
    pool.used = 0;
    pool.generation = generation;
}

}  // namespace

uint64_t currentThreadId() noexcept { return static_cast<uint64_t>(::syscall(SYS_gettid)); }

// Threads run until every static object is destroyed; only a forked child never had those of its parent.
bool isTerminating() noexcept { return lacksThreads(); }

bool isForkedChild() noexcept { return lacksThreads(); }

CancellationHold::CancellationHold() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }

CancellationHold::~CancellationHold() { ::pthread_setcancelstate(before_, nullptr); }

bool environmentVariable(const std::string& name, std::string& value) {
    const char* const text = std::getenv(name.c_str());
    if (text == nullptr) return false;
    value = text;
    return true;
}

bool localOffset(int64_t utcSeconds, std::chrono::seconds& offset) noexcept {
    ::tzset();  // localtime_r alone would keep the zone of its first call
    const auto time = static_cast<std::time_t>(utcSeconds);
    std::tm local{};
    if (::localtime_r(&time, &local) == nullptr) return false;
    offset = std::chrono::seconds(local.tm_gmtoff);
    return true;
}

std::array<uint8_t, 16> randomGuidBytes() {
    const uint32_t generation = processGeneration();
    if (pool.generation != generation || pool.used == kPoolSize) refill(generation);
    std::array<uint8_t, kGuidSize> guid;
    std::copy_n(pool.bytes.begin() + pool.used, kGuidSize, guid.begin());
    pool.used += kGuidSize;
    return guid;
}

std::vector<std::string> commandLineArguments(int argc, const char* const* argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

void prepareStandardStreams() {}

}  // namespace velmora::platform
