// The part of a line that begins where a batch's request has been formed: posting, judging the response, retry, and
// giving up.

#include <algorithm>
#include <new>
#include <utility>

#include "core/types/errors.h"
#include "core/types/logger.h"
#include "ingest/main/delivery/pipeline.h"
#include "service/config/sessionconfig.h"

namespace velmora {

namespace {

http::Response failedResponse(std::error_code error) {
    http::Response response;
    response.error = error;
    return response;
}

// The text of an answer may be of any length: a line shows its beginning, cut between two characters.
std::string shownBody(const std::string& body) {
    constexpr size_t kShown = 1024;
    if (body.size() <= kShown) return body;
    size_t end = kShown;
    while (end != 0 && (static_cast<unsigned char>(body[end]) & 0xC0U) == 0x80U) --end;
    return body.substr(0, end) + " ... (" + std::to_string(body.size()) + " bytes)";
}

// What log lines say of any response.
std::string describe(const http::Response& response, const std::string& name) {
    const auto requestId = response.headers.find("x-request-id");
    std::ostringstream text;
    text << "Http response: name=" << name
         << " x-request-id=" << (requestId == response.headers.end() ? std::string() : requestId->second)
         << " status=" << static_cast<http::Status>(response.status);
    return text.str();
}

}  // namespace

using debug::Action;
using debug::Item;
using debug::Reason;

void Pipeline::doResetState() {
    lastError_.clear();
    events_.clear();
    settled_ = false;
    batch_ = Queue::Batch();
    batchSize_ = config_.read([](const Config& c) { return c.batchSize; });
    request_ = http::Request();
    awaited_ = 0;
    transfer_.reset();
    retryHandler_.reset();
    retryInProgress_ = false;
    VELMORA_LOG(trace, "pipeline") << "Reset state: name=" << name_ << " batchsize=" << batchSize_;
}

void Pipeline::doPostBatch() {
    if (bailOut()) return;
    VELMORA_LOG(info, "pipeline") << "Http request: name=" << name_;
    const uint64_t exchange = awaited_ = ++lastExchange_;
    post(
        request_, [this, exchange](const http::Response& response) { onNetworkResponse(exchange, response); },
        transfer_);
}

void Pipeline::onNetworkResponse(uint64_t exchange, const http::Response& response) {
    VELMORA_LOG(trace, "pipeline") << "Network response: name=" << name_;
    enqueueTask(Task([this, exchange, response] { doHandleResponse(exchange, response); }));
}

void Pipeline::doHandleResponse(uint64_t exchange, const http::Response& response) {
    if (exchange != awaited_) return;  // of a batch that has been forgotten since
    awaited_ = 0;
    lastError_ = response.error;
    logHTTPResponse(response);
    if (lastError_) {
        report(Item::http, Action::request, Reason::error, 1);
        if (doRetry(response)) return;  // the slot stays taken: no other batch starts while the retry waits
        doHandleError();
    } else {
        report(Item::http, Action::request, Reason::success, 1);
        doHandleSuccess();
        doResetState();
    }
    slot_ = BatchSlot::free;
    maybeStartBatch(true);
}

void Pipeline::doHandleSuccess() {
    settle({});
    report(Item::event, Action::sent, Reason::success,
           static_cast<uint64_t>(
               std::count_if(events_.begin(), events_.end(), [](const BatchEvent& event) { return event.readable; })));
}

// Decides once what leaves the store. What was delivered, or refused with nobody to take it over, leaves it; after an
// exception only what the owner has taken.
void Pipeline::settle(const std::error_code& error) {
    settled_ = true;
    const bool isAnswered = !error || http::isHttpError(error);
    const bool isRead = std::all_of(events_.begin(), events_.end(), [](const auto& event) { return event.readable; });
    uint64_t settled = isAnswered ? events_.size() : 0;
    waitsForInterval_ = true;  // also if what follows throws
    if (batchErrorCallback_ && (error || !isRead)) settled = batchErrorCallback_(error, events_);
    store_.pop(batch_, settled);
    waitsForInterval_ = settled < events_.size();
}

bool Pipeline::doRetry(const http::Response& response) {
    if (!retryHandler_) {
        retryHandler_ = std::make_unique<http::RetryHandler>(
            [this](std::chrono::milliseconds delay, uint32_t attempt) { return armRetry(delay, attempt); });
        retryInProgress_ = true;
    }
    if (!http::isHttpError(response.error)) {
        VELMORA_LOG(info, "pipeline") << "add retriable error=" << toString(response.error);
        retryHandler_->addRetriable(response.error);
    }
    return retryHandler_->shouldRetry(response);
}

bool Pipeline::armRetry(std::chrono::milliseconds delay, uint32_t attempt) {
    const auto wait = service::config::session::retryWait(session_.getRetryIntervals(), delay, attempt);
    VELMORA_LOG(info, "pipeline") << "Will retry request after " << wait.count() << " milliseconds";
    timer_.schedule(wait, Task([this, exchange = lastExchange_] { onRetryTimeout(exchange); }));
    return true;
}

void Pipeline::onRetryTimeout(uint64_t exchange) {
    VELMORA_LOG(trace, "pipeline") << "Time to retry";
    enqueueTask(Task([this, exchange] {
        // The batch that waited may have been forgotten by a change of state while its retry was being armed.
        if (retryHandler_ && exchange == lastExchange_) doPostBatch();
    }));
}

void Pipeline::doHandleError() {
    VELMORA_LOG(error, "pipeline") << "name=" << name_ << " err=" << lastError_.message();
    settle(lastError_);
}

void Pipeline::logHTTPResponse(const http::Response& response) const {
    if (response.error) {
        VELMORA_LOG(error, "pipeline") << describe(response, name_) << " error=" << toString(response.error)
                                       << " body=" << shownBody(response.body);
    } else {
        VELMORA_LOG(info, "pipeline") << describe(response, name_);
    }
}

void Pipeline::post(http::Request request, const Answer& onAnswer, Transfer& transfer) {
    try {
        transfer =
            std::make_shared<transfer::RequestHandle>(session_.getTransferEngine(), std::move(request), onAnswer);
        std::error_code error;
        transfer->execute(error);  // a refusal reaches the responder as well
    } catch (const std::system_error& e) {
        // The request never left, for want of the host's callbacks: as recoverable as any failure of transport.
        if (e.code().category() != velmoraCategory()) throw;
        onAnswer(failedResponse(e.code()));
    }
}

http::Response Pipeline::doPost(http::Request request) {
    VELMORA_LOG(trace, "pipeline") << "Http request (sync): name=" << name_;
    http::Response answer;
    const auto onAnswer = [&answer](http::Response response) { answer = std::move(response); };
    const auto transfer =
        std::make_shared<transfer::RequestHandle>(session_.getTransferEngine(), std::move(request), onAnswer);
    {
        const MutexLock lock(flushMutex_);
        flushTransfer_ = transfer;
    }
    const ScopeExit over([this] {
        const MutexLock lock(flushMutex_);
        flushTransfer_.reset();
    });
    if (stopping_) return failedResponse(VelmoraHttpError::cancelled);  // nobody would end it any more
    std::error_code error;
    transfer->execute(error);
    transfer->waitForCompletion();
    return answer;
}

void Pipeline::endFlushExchange() {
    Transfer underWay;
    {
        const MutexLock lock(flushMutex_);
        underWay = flushTransfer_;
    }
    if (underWay) underWay->stop(stopDeadline_);
}

void Pipeline::endExchanges() {
    if (transfer_) exceptionSafeWrapper([this] { transfer_->cancel(); });
    cancelDirectPosts();
}

void Pipeline::cancelDirectPosts() {
    std::vector<Transfer> underWay;
    {
        const MutexLock lock(directMutex_);
        for (const auto& [id, post] : directRequests_) underWay.push_back(post.transfer);
    }
    for (const Transfer& transfer : underWay) {
        if (transfer) exceptionSafeWrapper([&] { transfer->cancel(); });
    }
}

bool Pipeline::scheduleDirectPost(const std::string& event) {
    uint64_t id = 0;
    {
        const MutexLock lock(directMutex_);
        if (directRequests_.size() >= kDirectPosts) return false;
        id = ++directRequestId_;
        directRequests_.emplace(id, DirectPost{event, nullptr});
    }
    try {
        schedule(Task([this, id] { doDirectPost(id); }));
        return true;
    } catch (const std::bad_alloc&) {
        const MutexLock lock(directMutex_);
        directRequests_.erase(id);
        return false;
    }
}

void Pipeline::discardDirectPosts() {
    const MutexLock lock(directMutex_);
    for (auto& [id, post] : directRequests_) post.event.clear();
}

// The text of an event that is to be posted; nothing if its user has opted out since it was accepted.
std::string Pipeline::directEvent(uint64_t id) {
    const MutexLock lock(directMutex_);
    std::string event = isOptedOut() ? std::string() : directRequests_.at(id).event;
    if (event.empty()) directRequests_.erase(id);
    return event;
}

void Pipeline::doDirectPost(uint64_t id) {
    std::string event = directEvent(id);
    if (event.empty()) return report(Item::event, Action::discarded, Reason::opt_out, 1);
    const Answer onAnswer = [this, id](const http::Response& response) {
        schedule(Task([this, id, response] { onDirectAnswer(id, response); }));
    };
    try {
        Transfer transfer;
        if (!transform(event)) throw std::system_error(VelmoraError::invalid_json);
        http::Request request = makeRequest({event});
        VELMORA_LOG(info, "pipeline") << "Http request: name=" << name_;
        post(std::move(request), onAnswer, transfer);
        const MutexLock lock(directMutex_);
        directRequests_.at(id).transfer = std::move(transfer);
    } catch (...) {
        onAnswer(failedResponse(currentExceptionToErrorCode("pipeline", "velmora::Pipeline::doDirectPost")));
    }
}

void Pipeline::onDirectAnswer(uint64_t id, const http::Response& response) {
    DirectPost answered;
    {
        const MutexLock lock(directMutex_);
        const auto found = directRequests_.find(id);
        if (found == directRequests_.end()) return;
        answered = std::move(found->second);
        directRequests_.erase(found);
    }
    logHTTPResponse(response);
    if (!response.error) {
        report(Item::http, Action::request, Reason::success, 1);
        report(Item::event, Action::sent, Reason::success, 1);
        return;
    }
    report(Item::http, Action::request, Reason::error, 1);
    if (answered.event.empty()) return report(Item::event, Action::discarded, Reason::opt_out, 1);
    storeAnsweredWithError(answered.event);
}

void Pipeline::storeAnsweredWithError(const std::string& event) {
    try {
        submitEvent(event, true);
    } catch (...) {
        return countUnstored(currentExceptionToErrorCode("pipeline", "velmora::Pipeline::storeAnsweredWithError"));
    }
    report(Item::event, Action::saved, Reason::success, 1);
}

void Pipeline::countUnstored(const std::error_code& why) {
    const bool isOptOut = why == VelmoraError::opt_out;
    VELMORA_LOG(warn, "pipeline") << "Discard event: name=" << name_ << " error=" << toString(why);
    report(Item::event, Action::discarded, isOptOut ? Reason::opt_out : Reason::error, 1);
}

void Pipeline::storeDirectPosts() {
    std::map<uint64_t, DirectPost> unanswered;
    {
        const MutexLock lock(directMutex_);
        unanswered.swap(directRequests_);
    }
    for (auto& [id, post] : unanswered) {
        if (post.transfer) exceptionSafeWrapper([&, &transfer = post.transfer] { transfer->cancel(); });
    }
    for (auto& [id, post] : unanswered) {
        if (post.transfer) post.transfer->stop(stopDeadline_);
        post.transfer.reset();
        if (post.event.empty()) {
            report(Item::event, Action::discarded, Reason::opt_out, 1);
            continue;
        }
        try {
            storeEvent(post.event);
        } catch (...) {
            countUnstored(currentExceptionToErrorCode("pipeline", "velmora::Pipeline::storeDirectPosts"));
        }
    }
}

}  // namespace velmora
