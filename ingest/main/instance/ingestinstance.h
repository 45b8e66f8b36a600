// What an instance offers to the C interface and to the session.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "core/types/types.h"
#include "service/oswin/profile.h"
#include "velmora/types.h"

namespace velmora {

// Threads: any. Its destructor stops it; the caller sees to it that no other call is under way then.
class IngestInstance {
public:
    virtual ~IngestInstance() = default;

    // For the host; failures are thrown.
    virtual void addCommonAttribute(const char* key, const char* value) = 0;
    virtual void removeCommonAttribute(const char* key) = 0;
    virtual void submitEvent(const char* json, bool batch, bool auth, int32_t validate, const char* configOverride) = 0;

    // With a callback it returns at once, and the callback gets a velmora_result.
    virtual void flush(velmora_ingest_completion_callback callback, void* userData) = 0;

    // Takes the lines from On for good and lets those go who wait in a flush; the destructor does the rest. Returns at
    // once; only the first call acts.
    virtual void beginStop() noexcept {}

    // For the session.
    [[nodiscard]] virtual std::string getConfigGuid() = 0;
    virtual void setProfile(std::shared_ptr<service::oswin::Profile> profile) = 0;  // empty for none
    virtual void refresh() = 0;      // fetches the configuration and acts on it before it returns; not for the host
    virtual void updateState() = 0;  // recalculates the state in the background
    virtual void setSessionGuid(std::string guid) = 0;
    virtual void setLorneProfile(std::unordered_map<std::string, std::string> profile) = 0;
    virtual void submitMetaEvent(std::string json) = 0;
    virtual void reportError(int32_t code) = 0;
    [[nodiscard]] virtual Consent getConsent() = 0;
    [[nodiscard]] virtual Environment getEnvironment() = 0;
};

class SessionView;

// Starts an instance. Throws `invalid_json`, `invalid_argument`, `cache_lock_error`, and what its stores raise.
// `handle` is what callbacks of the host receive.
[[nodiscard]] std::shared_ptr<IngestInstance> makeIngestInstance(SessionView& session, velmora_ingest_instance handle,
                                                                 std::string configGuid, const std::string& commonData,
                                                                 velmora_ingest_error_callback errorCallback);

}  // namespace velmora
