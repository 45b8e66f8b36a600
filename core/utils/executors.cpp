#include "core/utils/executors.h"

#include <utility>

namespace velmora {
namespace {

platform::Pool* replacedPool = nullptr;
platform::Timer* replacedTimer = nullptr;

}  // namespace

void DefaultExecutor::operator()(Task task) const {
    (replacedPool ? *replacedPool : platform::defaultPool()).run(std::move(task));
}

void SystemTimer::operator()(std::chrono::milliseconds delay, Task task) const {
    (replacedTimer ? *replacedTimer : platform::defaultTimer()).runAfter(delay, std::move(task));
}

void setPools(platform::Pool* pool, platform::Timer* timer) noexcept {
    replacedPool = pool;
    replacedTimer = timer;
}

}  // namespace velmora
