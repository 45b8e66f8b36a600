#include "ingest/session/instancetable.h"

#include <utility>

#include "core/types/errors.h"
#include "core/utils/callbackscope.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;

// Above whatever an earlier copy of the library may have given out in this process before it was unloaded.
uintptr_t firstHandle() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uintptr_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()) << 8;
}

// What would wait for the callback in which it is called.
void refuseInside(velmora_ingest_instance handle, const char* advice) {
    if (CallbackScope::isInside(handle)) throw std::system_error(VelmoraError::precondition_failed, advice);
}

}  // namespace

// Cannot fail: the gate of an entry is closed after the entry has left the state.
InstanceTable::Held::Held(Entry& entry) noexcept : entry_(&entry) { static_cast<void>(entry.holders.enter()); }

InstanceTable::Held::Held(Held&& other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}

InstanceTable::Held::~Held() {
    if (entry_ != nullptr) entry_->holders.leave();
}

IngestInstance& InstanceTable::Held::operator*() const noexcept { return *entry_->instance; }

InstanceTable::InstanceTable() : lastHandle_(firstHandle()) {}

InstanceTable::~InstanceTable() {
    exceptionSafeWrapper([this] { stopAll(); });
}

InstanceTable::Handle InstanceTable::start(const std::string& configGuid, const Maker& make) {
    const auto [entry, handle] = claim(configGuid);
    if (entry == nullptr) return handle;
    try {
        entry->instance = make(handle);
    } catch (...) {
        remove(handle);
        throw;
    }
    if (publish(*entry)) return handle;
    end(*entry);
    throw std::system_error(VelmoraError::unknown, "the session has ended");
}

// An entry to be filled, or the handle of an instance that runs already.
std::pair<InstanceTable::Entry*, InstanceTable::Handle> InstanceTable::claim(const std::string& configGuid) {
    const MutexLock lock(mutex_);
    if (const Entry* const running = awaitSettled(configGuid)) return {nullptr, running->handle};
    if (closed_) throw std::system_error(VelmoraError::unknown, "the session has ended");
    const auto handle = reinterpret_cast<Handle>(++lastHandle_);
    Entry& entry = *entries_.emplace(handle, std::make_unique<Entry>(handle, configGuid)).first->second;
    return {&entry, handle};
}

// The running instance of the configuration, or null when one may be started.
const InstanceTable::Entry* InstanceTable::awaitSettled(const std::string& configGuid) {
    while (true) {
        const Entry* const present = find(configGuid);
        if (present == nullptr || present->state == State::running) return present;
        const auto hasChanged = [this, handle = present->handle, state = present->state]() VELMORA_REQUIRES(mutex_) {
            const auto found = entries_.find(handle);
            return found == entries_.end() || found->second->state != state;
        };
        if (present->state == State::starting) {
            changed_.wait(mutex_, hasChanged);
            continue;
        }
        refuseInside(present->handle,
                     "a start inside a callback of the instance that is being stopped; let "
                     "velmora_ingest_stop_v2 with a callback tell when it is gone");
        changed_.waitUntil(mutex_, present->givenUpAt, hasChanged);
    }
}

// One whose stop takes too long is passed over.
const InstanceTable::Entry* InstanceTable::find(const std::string& configGuid) const {
    for (const auto& [handle, entry] : entries_) {
        if (entry->configGuid != configGuid) continue;
        if (entry->state != State::stopping || Clock::now() < entry->givenUpAt) return entry.get();
    }
    return nullptr;
}

bool InstanceTable::publish(Entry& entry) {
    const MutexLock lock(mutex_);
    entry.state = closed_ ? State::stopping : State::running;
    changed_.notifyAll();
    return !closed_;
}

bool InstanceTable::stop(Handle handle) {
    Entry* entry = nullptr;
    {
        const MutexLock lock(mutex_);
        entry = findRunning(handle);
        if (entry == nullptr) return false;
        refuseInside(handle,
                     "a stop without a callback inside a callback of the instance; use velmora_ingest_stop_v2 "
                     "with a callback");
        leaveRunning(*entry);
    }
    end(*entry);
    return true;
}

void InstanceTable::leaveRunning(Entry& entry) {
    entry.state = State::stopping;
    entry.givenUpAt = Clock::now() + kStopPatience;
    changed_.notifyAll();
}

void InstanceTable::end(Entry& entry) {
    entry.instance->beginStop();
    entry.holders.close();
    entry.holders.wait();
    entry.instance.reset();
    remove(entry.handle);
}

void InstanceTable::remove(Handle handle) {
    const MutexLock lock(mutex_);
    entries_.erase(handle);
    changed_.notifyAll();
}

InstanceTable::Entry* InstanceTable::findRunning(Handle handle) {
    const auto found = entries_.find(handle);
    return found != entries_.end() && found->second->state == State::running ? found->second.get() : nullptr;
}

InstanceTable::Held InstanceTable::hold(Handle handle) {
    if (std::optional<Held> held = tryHold(handle)) return std::move(*held);
    throw std::system_error(VelmoraError::ingest_instance_not_found);
}

std::optional<InstanceTable::Held> InstanceTable::tryHold(Handle handle) {
    const MutexLock lock(mutex_);
    if (Entry* const entry = findRunning(handle)) return Held(*entry);
    return std::nullopt;
}

std::optional<InstanceTable::Held> InstanceTable::holdAny() {
    const MutexLock lock(mutex_);
    for (const auto& [handle, entry] : entries_) {
        if (entry->state == State::running) return Held(*entry);
    }
    return std::nullopt;
}

std::vector<InstanceTable::Held> InstanceTable::holdAll() {
    std::vector<Held> held;
    const MutexLock lock(mutex_);
    held.reserve(entries_.size());
    for (const auto& [handle, entry] : entries_) {
        if (entry->state == State::running) held.push_back(Held(*entry));
    }
    return held;
}

void InstanceTable::close() {
    {
        const MutexLock lock(mutex_);
        closed_ = true;
    }
    for (const Held& instance : holdAll()) instance->beginStop();
}

void InstanceTable::stopAll() {
    close();
    std::vector<Entry*> ending;
    {
        const MutexLock lock(mutex_);
        ending.reserve(entries_.size());
        for (const auto& [handle, entry] : entries_) {
            if (entry->state == State::running) ending.push_back(entry.get());
        }
        for (Entry* const entry : ending) leaveRunning(*entry);
    }
    for (Entry* const entry : ending) end(*entry);
    const MutexLock lock(mutex_);
    changed_.wait(mutex_, [this]() VELMORA_REQUIRES(mutex_) { return entries_.empty(); });
}

}  // namespace velmora
