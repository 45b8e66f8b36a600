#include "core/platform/guid.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "core/platform/linux/forks.h"

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

std::array<uint8_t, 16> newGuid() {
    const uint32_t generation = processGeneration();
    if (pool.generation != generation || pool.used == kPoolSize) refill(generation);
    std::array<uint8_t, kGuidSize> guid;
    std::copy_n(pool.bytes.begin() + pool.used, kGuidSize, guid.begin());
    pool.used += kGuidSize;
    guid[6] = static_cast<uint8_t>((guid[6] & 0x0F) | 0x40);  // version 4
    guid[8] = static_cast<uint8_t>((guid[8] & 0x3F) | 0x80);  // variant of RFC 4122
    return guid;
}

}  // namespace velmora::platform
