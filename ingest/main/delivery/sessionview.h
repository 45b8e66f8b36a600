// What instances and their lines ask of the session above them, and the states that it limits.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/transfer/transferengine.h"
#include "core/types/types.h"
#include "service/config/ingestconfig.h"

namespace velmora {

// What a line may do with events. Ordered: the lesser of two limits is the one in force.
enum class PipelineState : int32_t {
    Off = 0,       // events are refused
    SaveOnly = 1,  // events are stored, nothing is sent
    On = 2,        // events are stored and sent
};

[[nodiscard]] inline std::string toString(PipelineState state) {
    switch (state) {
        case PipelineState::Off:
            return "Off";
        case PipelineState::SaveOnly:
            return "SaveOnly";
        case PipelineState::On:
            return "On";
    }
    return "unknown";
}

// The states of the lines of one owner: those of the signed-in user, and all others.
struct LineStates {
    PipelineState auth = PipelineState::SaveOnly;
    PipelineState anon = PipelineState::SaveOnly;
};

// Threads: any. None of the operations waits for the network or takes the table of instances.
class SessionView {
public:
    using StringMap = std::unordered_map<std::string, std::string>;

    virtual ~SessionView() = default;

    [[nodiscard]] virtual std::string getSessionGuid() = 0;
    [[nodiscard]] virtual StringMap getCommonData() = 0;
    virtual void setCommonData(StringMap data) = 0;
    [[nodiscard]] virtual StringMap getLorneProfile() = 0;

    // A copy of what the host has set for the guid, or the defaults.
    [[nodiscard]] virtual service::config::ingest::Config getIngestConfig(const std::string& configGuid) = 0;

    // The limits on the state of all lines, and that on the lines of the signed-in user. getAuthState asks for the
    // user's identity in the background if it is not known yet.
    [[nodiscard]] virtual PipelineState getOnlineLimit() = 0;
    [[nodiscard]] virtual PipelineState getNetworkLimit() = 0;
    [[nodiscard]] virtual PipelineState getAuthState(Consent consent, Environment environment) = 0;

    // Throws `http_callback_not_set` or `http_session_creation_failed`. May call the host: not under a lock.
    [[nodiscard]] virtual std::shared_ptr<transfer::TransferEngine> getTransferEngine() = 0;

    // The waits between retries, in milliseconds.
    [[nodiscard]] virtual std::vector<uint64_t> getRetryIntervals() = 0;
};

}  // namespace velmora
