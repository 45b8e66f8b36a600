// A responder that keeps what it hears, and notices when it hears anything after its outcome.
#pragma once

#include <atomic>
#include <string>
#include <system_error>
#include <thread>

#include "core/http/responder.h"
#include "core/types/errors.h"

namespace velmora::test {

// Plain fields on purpose: its operations have to come one at a time.
class RecordingResponder : public http::CollectingResponder {
public:
    void setStatus(int status) override {
        heard();
        CollectingResponder::setStatus(status);
    }
    void setHeaders(const http::Headers& headers) override {
        heard();
        CollectingResponder::setHeaders(headers);
    }
    void addBodyChunk(uint64_t offset, const char* data, uint64_t length) override {
        heard();
        CollectingResponder::addBodyChunk(offset, data, length);
    }
    void onSuccess() override { conclude("success"); }
    void onFailure(std::error_code error) override { conclude(toString(error)); }

    // "success", "domain:number" or "none"; every further outcome, and everything heard after the first, adds to it.
    // To be read when the request is over.
    [[nodiscard]] const std::string& outcome() const { return outcome_; }
    [[nodiscard]] const http::Response& response() const { return response_; }

private:
    void heard() {
        if (outcome_ != "none") outcome_ += ", more";
    }
    void conclude(const std::string& outcome) { outcome_ = outcome_ == "none" ? outcome : outcome_ + ", " + outcome; }

    std::string outcome_ = "none";
};

}  // namespace velmora::test
