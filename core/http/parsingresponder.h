// Hands the record that a response's body holds to whoever asked.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "core/http/responder.h"
#include "core/json/jsonparser.h"

namespace velmora::http {

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
