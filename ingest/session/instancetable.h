// The instances of the process, one per configuration at a time, and the handles by which the host names them.
//
// A handle is a number that is never given twice in a process: one that is dead stays dead, whatever has been started
// since. An entry goes through three states:
//
//     starting --(built)--> running --(stop)--> stopping --(ended)--> gone
//         \--(failed)--> gone
//
// Only a running instance can be held. The thread that starts it builds it, the thread that stops it ends it, both with
// nothing locked, so other instances go on as usual. Who asks to start a configuration that is being started waits
// for the outcome; one that is being stopped is waited for, too, for up to kStopPatience.
//
// Threads: any. The mutex is a leaf: nothing is called under it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/types/mutex.h"
#include "core/utils/gate.h"
#include "ingest/main/instance/ingestinstance.h"

namespace velmora {

class InstanceTable {
    struct Entry;

public:
    using Handle = velmora_ingest_instance;
    using Maker = std::function<std::shared_ptr<IngestInstance>(Handle)>;

    // How long a start waits for the stop of the same configuration before it goes on in a new folder.
    static constexpr std::chrono::seconds kStopPatience{5};

    // An instance that can't end before its holder has let go of it.
    class Held {
    public:
        Held(Held&& other) noexcept;
        ~Held();
        IngestInstance& operator*() const noexcept;
        IngestInstance* operator->() const noexcept { return &**this; }

    private:
        friend class InstanceTable;
        explicit Held(Entry& entry) noexcept;  // with the table locked and the entry running
        Entry* entry_;
    };

    InstanceTable();
    ~InstanceTable();

    // The handle of the configuration's instance; `make` builds one if there is none, and what it throws passes
    // through. Throws `unknown` once the table is closed, and `precondition_failed` inside a callback of the instance
    // that is being stopped.
    [[nodiscard]] Handle start(const std::string& configGuid, const Maker& make);

    // Takes a running instance out, ends it and returns when it is gone; false if there is none of that handle. Throws
    // `precondition_failed` inside one of its callbacks, which the end would wait for; nothing has happened then.
    [[nodiscard]] bool stop(Handle handle);

    // A handle is looked up, never followed. hold throws `ingest_instance_not_found`.
    [[nodiscard]] Held hold(Handle handle);
    [[nodiscard]] std::optional<Held> tryHold(Handle handle);

    // All that run, in no particular order, and the first of them.
    [[nodiscard]] std::vector<Held> holdAll();
    [[nodiscard]] std::optional<Held> holdAny();

    // Refuses further starts. From now on every instance sends nothing new, and those who wait in one are let go.
    void close();

    // Ends all instances and waits for the stops under way.
    void stopAll();

private:
    enum class State { starting, running, stopping };

    struct Entry {
        Entry(Handle name, std::string guid) : handle(name), configGuid(std::move(guid)) {}

        const Handle handle;
        const std::string configGuid;
        std::shared_ptr<IngestInstance> instance;  // of the thread that starts or stops it, and of holders
        Gate holders;
        State state = State::starting;  // under the table's mutex, like the next
        std::chrono::steady_clock::time_point givenUpAt{};
    };

    std::pair<Entry*, Handle> claim(const std::string& configGuid) VELMORA_EXCLUDES(mutex_);
    const Entry* awaitSettled(const std::string& configGuid) VELMORA_REQUIRES(mutex_);
    const Entry* find(const std::string& configGuid) const VELMORA_REQUIRES(mutex_);
    Entry* findRunning(Handle handle) VELMORA_REQUIRES(mutex_);
    bool publish(Entry& entry) VELMORA_EXCLUDES(mutex_);
    void leaveRunning(Entry& entry) VELMORA_REQUIRES(mutex_);
    void end(Entry& entry) VELMORA_EXCLUDES(mutex_);
    void remove(Handle handle) VELMORA_EXCLUDES(mutex_);

    Mutex mutex_;
    Condition changed_;  // an entry's state, or their number
    std::unordered_map<Handle, std::unique_ptr<Entry>> entries_ VELMORA_GUARDED_BY(mutex_);
    uintptr_t lastHandle_ VELMORA_GUARDED_BY(mutex_);
    bool closed_ VELMORA_GUARDED_BY(mutex_) = false;
};

}  // namespace velmora
