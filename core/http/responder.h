// Collects the pieces of one response as they arrive and hands the finished whole to whoever asked. A responder belongs
// to one transfer; its operations are called one at a time, on whichever host thread delivers them.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "core/http/message.h"
#include "core/json/jsonparser.h"

namespace velmora::http {

class Responder {
public:
    virtual ~Responder() = default;
    virtual void setStatus(int status) = 0;
    virtual void setHeaders(const Headers& headers) = 0;
    virtual void addBodyChunk(uint64_t offset, const char* data, uint64_t length) = 0;
    [[nodiscard]] virtual bool wantsBody() = 0;
    virtual void onSuccess() = 0;                       // the response is complete, whatever its status
    virtual void onFailure(std::error_code error) = 0;  // the transfer has failed or was cancelled
};

// Keeps the response, and fills it for its derived classes.
class CollectingResponder : public Responder {
public:
    void setStatus(int status) override { response_.setStatus(status); }
    void setHeaders(const Headers& headers) override { response_.headers = headers; }
    void addBodyChunk(uint64_t offset, const char* data, uint64_t length) override {
        response_.addBodyChunk(offset, data, length);
    }
    [[nodiscard]] bool wantsBody() override { return true; }

protected:
    Response response_;
};

class BasicResponder : public CollectingResponder {
public:
    using DoneCallback = std::function<void(const Response&)>;
    using ErrorCallback = std::function<void(std::error_code, const char* text, size_t length)>;

    BasicResponder(DoneCallback onDone, ErrorCallback onError)
        : onDone_(std::move(onDone)), onError_(std::move(onError)) {}
    void onSuccess() override { onDone_(response_); }
    void onFailure(std::error_code error) override;

    // The response as far as it has come, with its error once it has failed.
    [[nodiscard]] const Response& response() const { return response_; }

private:
    DoneCallback onDone_;
    ErrorCallback onError_;
};

// Parses the body of a successful response with P, a JsonDefaultParser constructed with a T&, into a T. A response that
// is neither success nor failure, such as a redirect, is logged and answered by neither callback.
template <typename T, typename P>
class JsonResponder : public CollectingResponder {
public:
    using SuccessCallback = std::function<void(const T&, const Response&)>;
    using FailureCallback = std::function<void(std::error_code, const Response&)>;

    JsonResponder(SuccessCallback onParsed, FailureCallback onFailed)
        : onParsed_(std::move(onParsed)), onFailed_(std::move(onFailed)) {}
    void onSuccess() override;
    void onFailure(std::error_code error) override {
        response_.error = error;
        onFailed_(error, response_);
    }

private:
    SuccessCallback onParsed_;
    FailureCallback onFailed_;
};

// Logs a status that is neither success nor failure.
void logUnexpectedStatus(int status);

template <typename T, typename P>
void JsonResponder<T, P>::onSuccess() {
    const int status = response_.status;
    if (status >= 400 && status <= 599) return onFailure(static_cast<Status>(status));
    if (status < 200 || status > 299) return logUnexpectedStatus(status);
    T record;
    if (const std::error_code error = JsonParser::parse(response_.body, std::make_shared<P>(record))) {
        return onFailure(error);
    }
    onParsed_(record, response_);
}

}  // namespace velmora::http
