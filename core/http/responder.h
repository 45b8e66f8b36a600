// Collects the pieces of one response as they arrive and hands the finished whole to whoever asked. A responder belongs
// to one transfer; its operations are called one at a time, on whichever host thread delivers them.
#pragma once

#include <functional>
#include <string>

#include "core/http/message.h"

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

}  // namespace velmora::http
