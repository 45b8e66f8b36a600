#include "core/platform/process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#include "core/platform/linux/forks.h"

namespace velmora::platform {

uint64_t currentThreadId() noexcept { return static_cast<uint64_t>(::syscall(SYS_gettid)); }

// Threads run until every static object is destroyed; only a forked child never had those of its parent.
bool isTerminating() noexcept { return lacksThreads(); }

bool environmentVariable(const std::string& name, std::string& value) {
    const char* const text = std::getenv(name.c_str());
    if (text == nullptr) return false;
    value = text;
    return true;
}

}  // namespace velmora::platform
