#include "ingest/session/identitymanager.h"

#include <algorithm>
#include <utility>

#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/utils/strings.h"

namespace velmora {

using service::config::session::baseUrl;

namespace {

std::string accountTypeJson(const std::string& accountType) {
    std::string json;
    JsonWriter writer(&json);
    writer.addString("account_type", accountType);
    writer.finish();
    return json;
}

int32_t number(VelmoraError error) { return static_cast<int32_t>(error); }

}  // namespace

IdentityManager::IdentityManager(SerialTaskEngine& engine, const SessionConfigProvider& config,
                                 TransferEngineSource transferEngine)
    : engine_(engine), config_(config), transferEngine_(std::move(transferEngine)) {}

IdentityManager::~IdentityManager() {
    exceptionSafeWrapper([this] { static_cast<void>(reset("")); });
}

IdentityManager::Handles IdentityManager::reset(std::string token) {
    Handles dropped;
    const MutexLock lock(mutex_);
    accessToken_ = std::move(token);
    size_t i = 0;
    for (Request* const request : {&profileRequest_, &trackingRequest_}) {
        ++request->exchange;
        request->inFlight = false;
        request->retry.reset();
        dropped[i++] = std::move(request->transfer);
    }
    profile_.reset();
    trackingFlag_.reset();
    trackingBody_.clear();
    return dropped;
}

void IdentityManager::setAccessToken(std::string token) {
    const Handles dropped = reset(std::move(token));  // end after the call: they may wait for the host
    callbacks_.onProfile(nullptr);
}

bool IdentityManager::hasAccessToken() const {
    const MutexLock lock(mutex_);
    return !accessToken_.empty();
}

std::error_code IdentityManager::fetchInfo(bool skipSelby, Environment environment) {
    VELMORA_LOG(info, "identitymanager") << "fetch info for environment=" << environmentToString(environment)
                                         << " skip_selby=" << skipSelby;
    bool waitsForRetry = false;
    bool known = false;
    {
        const MutexLock lock(mutex_);
        if (accessToken_.empty()) return std::make_error_code(std::errc::operation_not_supported);
        if (!environmentKnown_) {
            environment_ = environment;
            environmentKnown_ = true;
        }
        waitsForRetry = profileRequest_.retry || trackingRequest_.retry;
        known = profile_ && (skipSelby || trackingFlag_);
    }
    if (waitsForRetry) {
        VELMORA_LOG(info, "identitymanager") << "retry request has been scheduled";
        return std::make_error_code(std::errc::operation_in_progress);
    }
    scheduleRequest(Service::profile, std::nullopt);
    if (!skipSelby) scheduleRequest(Service::trackingFlag, std::nullopt);
    return known ? std::error_code() : std::make_error_code(std::errc::operation_in_progress);
}

bool IdentityManager::isTrackingAllowed() const {
    std::string accountType;
    bool flagged = false;
    {
        const MutexLock lock(mutex_);
        if (profile_) accountType = profile_->accountType;
        flagged = trackingFlag_ && service::selby::isPII(trackingFlag_->trackingFlag);
    }
    const bool listed = config_.read([&](const auto& config) {
        return std::any_of(config.accountTypeAllowList.begin(), config.accountTypeAllowList.end(),
                           [&](const std::string& allowed) { return equalsIgnoringCase(allowed, accountType); });
    });
    return flagged && listed;
}

std::string IdentityManager::getSELBYData() const {
    const MutexLock lock(mutex_);
    return trackingBody_;
}

std::shared_ptr<service::oswin::Profile> IdentityManager::profile() const {
    const MutexLock lock(mutex_);
    return profile_;
}

IdentityManager::Request& IdentityManager::requestOf(Service service) {
    return service == Service::profile ? profileRequest_ : trackingRequest_;
}

bool IdentityManager::isKnown(Service service) const {
    return service == Service::profile ? profile_ != nullptr : trackingFlag_ != nullptr;
}

void IdentityManager::scheduleRequest(Service service, Exchange retried) {
    engine_.schedule(Task([this, service, retried] { doRequest(service, retried); }));
}

void IdentityManager::doRequest(Service service, Exchange retried) {
    if (std::optional<Start> start = beginRequest(service, retried)) send(service, std::move(*start));
}

std::optional<IdentityManager::Start> IdentityManager::beginRequest(Service service, Exchange retried) {
    const auto endpoints = config_.read([service](const auto& config) {
        return service == Service::profile ? config.identityEndpoints : config.permissionEndpoints;
    });
    const MutexLock lock(mutex_);
    Request& request = requestOf(service);
    if (accessToken_.empty() || isKnown(service) || request.inFlight) return std::nullopt;
    // A retry is for the failure that armed it, and nothing else goes out while one waits.
    const bool isDue = retried ? request.retry && request.exchange == *retried : !request.retry;
    if (!isDue) return std::nullopt;
    const std::string base = baseUrl(endpoints, environment_);
    Start start{service == Service::profile ? service::oswin::makeProfileRequest(base, accessToken_)
                                            : service::selby::makeTrackingFlagRequest(base, accessToken_),
                ++request.exchange};
    request.inFlight = true;
    return start;
}

// Answers go home to the engine: they come on threads of the host.
transfer::Responder IdentityManager::makeResponder(Service service, uint64_t exchange) {
    return [this, service, exchange](http::Response response) {
        engine_.schedule(
            Task([this, service, exchange, response = std::move(response)] { onAnswer(service, exchange, response); }));
    };
}

void IdentityManager::send(Service service, Start start) {
    const uint64_t exchange = start.exchange;
    try {
        const auto handle = std::make_shared<transfer::RequestHandle>(transferEngine_(), std::move(start.request),
                                                                      makeResponder(service, exchange));
        {
            const MutexLock lock(mutex_);
            Request& request = requestOf(service);
            if (request.exchange != exchange) return;  // the user has changed meanwhile
            request.transfer = handle;
        }
        std::error_code error;
        handle->execute(error);  // a refusal reaches the responder as well
    } catch (...) {
        http::Response response;
        response.error = currentExceptionToErrorCode("identitymanager", "velmora::IdentityManager::send");
        onAnswer(service, exchange, response);
    }
}

void IdentityManager::onAnswer(Service service, uint64_t exchange, const http::Response& response) {
    if (service == Service::profile) {
        onProfileAnswer(exchange, response);
    } else {
        onTrackingAnswer(exchange, response);
    }
}

bool IdentityManager::endRequest(Service service, uint64_t exchange,
                                 std::shared_ptr<transfer::RequestHandle>& finished) {
    Request& request = requestOf(service);
    if (!request.inFlight || request.exchange != exchange) return false;
    request.inFlight = false;
    finished = std::move(request.transfer);
    return true;
}

void IdentityManager::onProfileAnswer(uint64_t exchange, const http::Response& answer) {
    http::Response response = answer;
    Profile profile;
    response.error = http::parseBody<service::oswin::ProfileParser>(response, profile);
    const std::error_code error = response.error;
    const std::shared_ptr<Profile> fresh = error ? nullptr : std::make_shared<Profile>(profile);
    const std::vector<uint64_t> intervals = retryIntervals();
    std::shared_ptr<transfer::RequestHandle> finished;
    bool willRetry = false;
    {
        const MutexLock lock(mutex_);
        if (!endRequest(Service::profile, exchange, finished)) return;
        profile_ = fresh;
        willRetry = checkAndSetupRetry(response, Service::profile, intervals);
    }
    callbacks_.onProfile(fresh);
    if (!error) callbacks_.onChange();
    callbacks_.onMetaEvent(
        MetaEvent::makeApiResult("OSWIN", error, error ? response.body : accountTypeJson(profile.accountType)));
    if (willRetry || !error) return;
    callbacks_.onError(
        number(error == http::Status::Unauthorized ? VelmoraError::oswin_unauthorized : VelmoraError::oswin_error));
}

void IdentityManager::onTrackingAnswer(uint64_t exchange, const http::Response& answer) {
    http::Response response = answer;
    TrackingFlag flag;
    response.error = http::parseBody<service::selby::TrackingFlagParser>(response, flag);
    const std::error_code error = response.error;
    const std::vector<uint64_t> intervals = retryIntervals();
    std::shared_ptr<transfer::RequestHandle> finished;
    bool willRetry = false;
    {
        const MutexLock lock(mutex_);
        if (!endRequest(Service::trackingFlag, exchange, finished)) return;
        trackingFlag_ = error ? nullptr : std::make_shared<TrackingFlag>(flag);
        trackingBody_ = response.body;
        willRetry = checkAndSetupRetry(response, Service::trackingFlag, intervals);
    }
    if (!error) callbacks_.onChange();
    callbacks_.onMetaEvent(MetaEvent::makeApiResult("SELBY", error, response.body));
    if (willRetry || !error) return;
    callbacks_.onError(
        number(error == http::Status::BadRequest ? VelmoraError::selby_bad_request : VelmoraError::selby_error));
}

bool IdentityManager::checkAndSetupRetry(const http::Response& response, Service service,
                                         const std::vector<uint64_t>& intervals) {
    std::unique_ptr<http::RetryHandler>& handler = requestOf(service).retry;
    if (!handler) {
        handler = std::make_unique<http::RetryHandler>(
            [this, service, intervals](std::chrono::milliseconds delay, uint32_t attempt)
                VELMORA_REQUIRES(mutex_) { return armRetry(service, intervals, delay, attempt); });
    }
    if (response.error && !http::isHttpError(response.error)) {
        VELMORA_LOG(info, "identitymanager") << "add retriable error=" << toString(response.error);
        handler->addRetriable(response.error);
    }
    const bool willRetry = handler->shouldRetry(response);
    VELMORA_LOG(info, "identitymanager") << "will" << (willRetry ? "" : " not")
                                         << " retry request error=" << toString(response.error)
                                         << " body=" << response.body;
    if (!willRetry) handler.reset();
    return willRetry;
}

bool IdentityManager::armRetry(Service service, const std::vector<uint64_t>& intervals, std::chrono::milliseconds delay,
                               uint32_t attempt) {
    const auto wait = service::config::session::retryWait(intervals, delay, attempt);
    VELMORA_LOG(info, "identitymanager") << "will retry request after " << wait.count() << " milliseconds";
    const uint64_t exchange = requestOf(service).exchange;
    engine_.schedule(wait, Task([this, service, exchange] { doRetry(service, exchange); }));
    return true;
}

void IdentityManager::doRetry(Service service, uint64_t exchange) {
    VELMORA_LOG(info, "identitymanager") << "time to retry request";
    scheduleRequest(service, exchange);
}

std::vector<uint64_t> IdentityManager::retryIntervals() const {
    return config_.read([](const auto& config) { return config.retryInterval; });
}

}  // namespace velmora
