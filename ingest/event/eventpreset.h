// Turns what the host submits into what is stored and what is posted, in two stages. At submission the envelope is
// built: automatic attributes, the host's attributes, validation, project and time. When a batch is made, later and
// possibly in another process's run, each stored event gets what may change until then or must not be kept on disk: the
// user agent and, on identified lines, the user's identity. So an event that waits on disk is anonymous.
//
// The attributes of the system are asked for once, at construction, and held ready; project, environment and source
// category too. Threads: any; a lock is held only to copy a reference to what is held ready.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "core/types/mutex.h"
#include "ingest/event/eventvalidator.h"
#include "service/config/ingestconfigprovider.h"
#include "service/oswin/profile.h"

namespace velmora {

class EventAttributes;
class ReadyAttributes;

// The process-wide online flag that `event.offline` shows inverted; false until the network has reported.
void setEventOnline(bool online) noexcept;
[[nodiscard]] bool isEventOnline() noexcept;

class EventPreset {
public:
    using StringMap = std::unordered_map<std::string, std::string>;

    explicit EventPreset(const IngestConfigProvider& config);
    ~EventPreset();

    // First stage: the envelope of a submitted event. `level` is that of EventValidator. Throws `invalid_json` for an
    // event or override that is no JSON object, and `invalid_event_format`. Runs without a lock.
    [[nodiscard]] std::string getEventPayload(const std::string& data, uint32_t level, std::string configOverride);

    // Second stage: the envelope with what belongs to the moment of the batch. A text that is no JSON object counts as
    // "{}".
    [[nodiscard]] std::string applyBatchAttributes(std::string event, bool includeIdentity);

    // The same for texts that may be damaged, without a parse before: false, and the text unchanged, for one that is no
    // JSON object.
    [[nodiscard]] bool tryApplyBatchAttributes(std::string& event, bool includeIdentity);

    // Asks the system for the user agent, which may take a while; until then events go out without it.
    void updateUserAgent();

    // Attributes for all later events. A key or value that would need escaping is refused with `invalid_argument`, and
    // nothing changes. setCommonAttribute replaces, setCommonAttributes keeps what is there.
    void setCommonAttribute(const std::string& key, const std::string& value);
    void removeCommonAttribute(const std::string& key);
    void setCommonAttributes(const StringMap& attributes);
    [[nodiscard]] StringMap getCommonAttributes() const;

    // The identity and profile that batches of identified lines get from now on.
    void setProfile(const service::oswin::Profile& profile);
    void clearProfile();
    void setLorneProfile(const StringMap& profile);

    void setSessionGuid(const std::string& guid);

private:
    struct Fragments;

    // Takes the attributes over if their text is good.
    void useCommonAttributes(StringMap attributes) VELMORA_REQUIRES(mutex_);
    void rebuild() VELMORA_REQUIRES(mutex_);

    [[nodiscard]] std::shared_ptr<const ReadyAttributes> dataBase() const VELMORA_EXCLUDES(mutex_);
    [[nodiscard]] std::string envelope(const EventAttributes& data, const std::string& time,
                                       const std::string& configOverride) const;

    mutable Mutex mutex_;
    const EventValidator validator_;
    const std::string envelopeBase_;
    std::unique_ptr<Fragments> fragments_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace velmora
