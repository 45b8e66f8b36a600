// What the host has set: for the process before a session exists, for the session, and for each configuration. Nothing
// here acts; who changes something tells those whom it concerns.
//
// Threads: any. Changes are made on a copy with no lock held, since parsers log, and then put in force as a whole.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "core/types/mutex.h"
#include "service/config/ingestconfig.h"
#include "service/config/sessionconfig.h"

namespace velmora {

// A value that readers get whole, as it was at one moment.
template <typename Value>
class Published {
public:
    using Shared = std::shared_ptr<const Value>;

    explicit Published(Value value = {}) : value_(std::make_shared<const Value>(std::move(value))) {}

    [[nodiscard]] Shared get() const VELMORA_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return value_;
    }

    // Once more if another change has come between. What `change` throws passes through; the value is then as before.
    template <typename Change>
    Shared change(const Change& change) VELMORA_EXCLUDES(mutex_) {
        while (true) {
            const Shared before = get();
            auto after = std::make_shared<Value>(*before);
            change(*after);
            const MutexLock lock(mutex_);
            if (value_ == before) return value_ = std::move(after);
        }
    }

private:
    mutable Mutex mutex_;  // a leaf; held for a look or an exchange
    Shared value_ VELMORA_GUARDED_BY(mutex_);
};

// What events carry of the host, apart from what their own instance has been given.
struct HostFacts {
    std::string sessionGuid;
    std::unordered_map<std::string, std::string> lorneProfile;
    std::unordered_map<std::string, std::string> commonData;  // of the last instance that the host itself has started
};

class IngestSettings {
public:
    using Config = service::config::ingest::Config;

    // The defaults for a configuration of which the host has said nothing.
    [[nodiscard]] Published<Config>::Shared get(const std::string& configGuid) const VELMORA_EXCLUDES(mutex_);
    void change(const std::string& configGuid, const std::function<void(Config&)>& change) VELMORA_EXCLUDES(mutex_);

private:
    const Published<Config>::Shared defaults_ = std::make_shared<const Config>();
    mutable Mutex mutex_;  // a leaf; entries are never removed
    std::unordered_map<std::string, Published<Config>> configs_ VELMORA_GUARDED_BY(mutex_);
};

// A JSON document that sets one value: "reserved.log.level" and "debug" give {"reserved":{"log":{"level":"debug"}}}.
// The value is taken as JSON if it is JSON, else as a string, without escaping. Quotes in the path, single or double,
// keep the dots of a key together; an unterminated quote runs to the end of the path.
[[nodiscard]] std::string jsonFromPath(const std::string& path, const std::string& value);

// A copy of the process's session configuration. The environment variable VELMORA_CONFIG_RESERVED_LOG_LEVEL overrides
// its level at each call.
[[nodiscard]] service::config::session::Config getGlobalConfig();

void overwriteGlobalConfig(const std::string& json);

}  // namespace velmora
