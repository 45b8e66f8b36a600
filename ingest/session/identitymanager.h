// Knows who the user is: fetches the profile from the identity service and the tracking flag from the tracking service
// for the token that the host has set, retries on its own schedule, and tells the session what it has learned.
//
// Threads: the public operations may be called from any. Requests, answers and retries run on the session's engine. No
// callback runs under the mutex, and transfers are dropped outside it, since that may call the host.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "core/http/message.h"
#include "core/http/retryhandler.h"
#include "core/transfer/transfer.h"
#include "core/transfer/transferengine.h"
#include "core/types/mutex.h"
#include "core/utils/taskengine.h"
#include "ingest/event/metaevent.h"
#include "service/config/sessionconfigprovider.h"
#include "service/oswin/profile.h"
#include "service/selby/trackingflag.h"

namespace velmora {

// Of two calls from two threads either may come first: profile() tells what holds.
struct IdentityCallbacks {
    std::function<void(std::shared_ptr<service::oswin::Profile>)> onProfile;  // empty when the user changes
    std::function<void()> onChange;                                           // a profile or flag has arrived
    std::function<void(MetaEvent)> onMetaEvent;                               // the result of each request
    std::function<void(int32_t)> onError;                                     // a failure for good: 5, 19, 20 or 21
};

class IdentityManager {
public:
    using TransferEngineSource = std::function<std::shared_ptr<transfer::TransferEngine>()>;

    // The engine and the configuration outlive the manager; the engine is stopped before it is destroyed.
    IdentityManager(SerialTaskEngine& engine, const SessionConfigProvider& config, TransferEngineSource transferEngine);
    ~IdentityManager();

    // Before any request.
    void setCallbacks(IdentityCallbacks callbacks) { callbacks_ = std::move(callbacks); }

    // Forgets the user, tells onProfile, and then cancels what was under way for them: it returns when that has ended,
    // which may be up to the host. Starts no request.
    void setAccessToken(std::string token);
    [[nodiscard]] bool hasAccessToken() const;

    // Asks the services for what is not known yet, and never waits: std::errc::operation_not_supported without a token,
    // std::errc::operation_in_progress while an answer is awaited. The environment of the first call with a token
    // stays.
    std::error_code fetchInfo(bool skipSelby, Environment environment);

    // Whether events of this user may go out under their identity: the flag says so, and the account type is listed.
    [[nodiscard]] bool isTrackingAllowed() const;

    // The tracking service's last answer, as text.
    [[nodiscard]] std::string getSELBYData() const;

    [[nodiscard]] std::shared_ptr<service::oswin::Profile> profile() const;

private:
    enum class Service { profile, trackingFlag };

    // One of the two requests: idle, in flight (transfer), or waiting for a retry (handler without a transfer).
    struct Request {
        std::unique_ptr<http::RetryHandler> retry;
        std::shared_ptr<transfer::RequestHandle> transfer;
        bool inFlight = false;
        uint64_t exchange = 0;  // names the answer that counts
    };

    struct Start {
        http::Request request;
        uint64_t exchange;
    };

    using Exchange = std::optional<uint64_t>;
    using Handles = std::array<std::shared_ptr<transfer::RequestHandle>, 2>;

    using Profile = service::oswin::Profile;
    using TrackingFlag = service::selby::TrackingFlag;

    // What was under way for the old user comes back to be dropped: that may call the host, and wait for it.
    [[nodiscard]] Handles reset(std::string token);
    Request& requestOf(Service service) VELMORA_REQUIRES(mutex_);

    // `retried` is the exchange whose failure made this a retry, or empty.
    void scheduleRequest(Service service, Exchange retried);
    void doRequest(Service service, Exchange retried);
    std::optional<Start> beginRequest(Service service, Exchange retried);
    bool isKnown(Service service) const VELMORA_REQUIRES(mutex_);
    transfer::Responder makeResponder(Service service, uint64_t exchange);
    void send(Service service, Start start);
    void onAnswer(Service service, uint64_t exchange, const http::Response& response);
    void onProfileAnswer(uint64_t exchange, const http::Response& response);
    void onTrackingAnswer(uint64_t exchange, const http::Response& response);
    bool endRequest(Service service, uint64_t exchange, std::shared_ptr<transfer::RequestHandle>& finished)
        VELMORA_REQUIRES(mutex_);
    bool checkAndSetupRetry(const http::Response& response, Service service,
                            const std::vector<uint64_t>& retryIntervals) VELMORA_REQUIRES(mutex_);
    bool armRetry(Service service, const std::vector<uint64_t>& intervals, std::chrono::milliseconds delay,
                  uint32_t attempt) VELMORA_REQUIRES(mutex_);
    void doRetry(Service service, uint64_t exchange);
    std::vector<uint64_t> retryIntervals() const;

    SerialTaskEngine& engine_;
    const SessionConfigProvider& config_;
    const TransferEngineSource transferEngine_;
    IdentityCallbacks callbacks_;

    mutable Mutex mutex_;
    std::string accessToken_ VELMORA_GUARDED_BY(mutex_);
    std::shared_ptr<Profile> profile_ VELMORA_GUARDED_BY(mutex_);
    std::shared_ptr<TrackingFlag> trackingFlag_ VELMORA_GUARDED_BY(mutex_);
    std::string trackingBody_ VELMORA_GUARDED_BY(mutex_);
    bool environmentKnown_ VELMORA_GUARDED_BY(mutex_) = false;
    Environment environment_ VELMORA_GUARDED_BY(mutex_) = Environment::stage;
    Request profileRequest_ VELMORA_GUARDED_BY(mutex_);
    Request trackingRequest_ VELMORA_GUARDED_BY(mutex_);
};

}  // namespace velmora
