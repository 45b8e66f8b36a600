#include "core/utils/callbackscope.h"

#include <utility>

namespace velmora {
namespace {

thread_local const CallbackScope* innermost = nullptr;

}  // namespace

CallbackScope::CallbackScope(const void* owner) noexcept : owner_(owner), outer_(std::exchange(innermost, this)) {}

CallbackScope::~CallbackScope() { innermost = outer_; }

bool CallbackScope::isInside(const void* owner) noexcept {
    for (const CallbackScope* scope = innermost; scope != nullptr; scope = scope->outer_) {
        if (scope->owner_ == owner) return true;
    }
    return false;
}

bool CallbackScope::isInsideAny() noexcept { return innermost != nullptr; }

}  // namespace velmora
