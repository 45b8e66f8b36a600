#include "httpstack/windows/mailbox.h"

#include <new>
#include <utility>

namespace velmora::httpstack {

void Mailbox::postStart(std::shared_ptr<Exchange> exchange) {
    const MutexLock lock(mutex_);
    contents_.started.push_back(std::move(exchange));
    changed_.notifyAll();
}

void Mailbox::postCancel(uint32_t id) {
    const MutexLock lock(mutex_);
    contents_.cancelled.push_back(id);
    changed_.notifyAll();
}

void Mailbox::postEnd() {
    const MutexLock lock(mutex_);
    contents_.ending = true;
    changed_.notifyAll();
}

void Mailbox::postProgress(const Progress& progress) noexcept {
    const MutexLock lock(mutex_);
    try {
        contents_.progress.push_back(progress);
    } catch (const std::bad_alloc&) {
        return;
    }
    changed_.notifyAll();
}

Mailbox::Contents Mailbox::take(std::optional<std::chrono::steady_clock::time_point> deadline) {
    const MutexLock lock(mutex_);
    const auto hasMail = [this]() VELMORA_REQUIRES(mutex_) { return !isEmptyLocked(); };
    if (deadline)
        changed_.waitUntil(mutex_, *deadline, hasMail);
    else
        changed_.wait(mutex_, hasMail);
    Contents taken = std::exchange(contents_, {});
    contents_.ending = taken.ending;
    return taken;
}

bool Mailbox::isEmptyLocked() const {
    return contents_.started.empty() && contents_.cancelled.empty() && contents_.progress.empty() && !contents_.ending;
}

void Mailbox::handleOpened() {
    const MutexLock lock(mutex_);
    ++openHandles_;
}

void Mailbox::handleClosed() noexcept {
    const MutexLock lock(mutex_);
    --openHandles_;
    changed_.notifyAll();
}

bool Mailbox::waitUntilClosed(std::chrono::milliseconds limit) {
    const MutexLock lock(mutex_);
    return changed_.waitUntil(mutex_, std::chrono::steady_clock::now() + limit,
                              [this]() VELMORA_REQUIRES(mutex_) { return openHandles_ == 0; });
}

}  // namespace velmora::httpstack
