#include "httpstack/windows/mailbox.h"

#include <new>
#include <utility>

namespace velmora::httpstack {

void Mailbox::postStart(std::shared_ptr<Exchange> exchange) {
    const std::lock_guard lock(mutex_);
    contents_.started.push_back(std::move(exchange));
    changed_.notify_all();
}

void Mailbox::postCancel(uint32_t id) {
    const std::lock_guard lock(mutex_);
    contents_.cancelled.push_back(id);
    changed_.notify_all();
}

void Mailbox::postEnd() {
    const std::lock_guard lock(mutex_);
    contents_.ending = true;
    changed_.notify_all();
}

void Mailbox::postProgress(const Progress& progress) noexcept {
    const std::lock_guard lock(mutex_);
    try {
        contents_.progress.push_back(progress);
    } catch (const std::bad_alloc&) {
        return;
    }
    changed_.notify_all();
}

Mailbox::Contents Mailbox::take(std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::unique_lock lock(mutex_);
    const auto hasMail = [this] { return !isEmptyLocked(); };
    if (deadline)
        changed_.wait_until(lock, *deadline, hasMail);
    else
        changed_.wait(lock, hasMail);
    Contents taken = std::exchange(contents_, {});
    contents_.ending = taken.ending;
    return taken;
}

bool Mailbox::isEmptyLocked() const {
    return contents_.started.empty() && contents_.cancelled.empty() && contents_.progress.empty() && !contents_.ending;
}

void Mailbox::handleOpened() {
    const std::lock_guard lock(mutex_);
    ++openHandles_;
}

void Mailbox::handleClosed() noexcept {
    const std::lock_guard lock(mutex_);
    --openHandles_;
    changed_.notify_all();
}

bool Mailbox::waitUntilClosed(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return openHandles_ == 0; });
}

}  // namespace velmora::httpstack
