// Sends requests: one http::Request and one http::Responder become one exchange with the host's HTTP stack, of which
// the responder hears exactly one outcome, whatever mix of completion, error and cancellation the host delivers.
#pragma once

#include <memory>
#include <system_error>

#include "core/http/message.h"
#include "core/http/responder.h"

namespace velmora::transfer {

class RequestContext;
class TransferEngine;

// What a caller keeps of a request. Its destructor stops the request: it cancels what is still under way and returns
// when the responder has heard its outcome and has been let go of. It must not be dropped from within the responder,
// except from its outcome, where it does not wait. The responder of a request that was never executed hears nothing.
class RequestHandle {
public:
    explicit RequestHandle(std::shared_ptr<RequestContext> context);
    ~RequestHandle();
    RequestHandle(const RequestHandle&) = delete;
    RequestHandle& operator=(const RequestHandle&) = delete;

    // Blocks until the responder has heard its outcome, for as long as the host takes.
    void waitForCompletion();

    [[nodiscard]] RequestContext& context() const { return *context_; }
    [[nodiscard]] const std::shared_ptr<RequestContext>& sharedContext() const { return context_; }

private:
    std::shared_ptr<RequestContext> context_;
};

class Executor {
public:
    virtual ~Executor() = default;
    virtual std::shared_ptr<RequestHandle> createContext(http::Request request,
                                                         std::shared_ptr<http::Responder> responder) = 0;

    // Hands the request over, once. False, with the error also given to the responder unless that has heard an outcome
    // already, if that fails at once; the error is never 0 then. Throws `http_callback_not_set` if the host has no send
    // callback: the request is over then, and its responder hears nothing.
    virtual bool execute(const std::shared_ptr<RequestHandle>& handle, std::error_code& error) = 0;
};

class ExecutorImpl : public Executor {
public:
    explicit ExecutorImpl(std::shared_ptr<TransferEngine> engine);
    std::shared_ptr<RequestHandle> createContext(http::Request request,
                                                 std::shared_ptr<http::Responder> responder) override;
    bool execute(const std::shared_ptr<RequestHandle>& handle, std::error_code& error) override;

private:
    std::shared_ptr<TransferEngine> engine_;
};

}  // namespace velmora::transfer
