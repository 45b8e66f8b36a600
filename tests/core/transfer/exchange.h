// One request and what its responder hears of it.
#pragma once

#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "core/transfer/transfer.h"
#include "core/transfer/transferengine.h"
#include "core/types/errors.h"

namespace velmora::test {

// Plain fields on purpose: they are written once, and read when the request is over.
struct Heard {
    std::string outcome = "none";  // "success" or "domain:number"; each further outcome adds to it
    http::Response response;
};

struct Exchange {
    explicit Exchange(std::shared_ptr<transfer::TransferEngine> owner, http::Request request = {})
        : engine(std::move(owner)),
          handle(std::make_shared<transfer::RequestHandle>(
              engine, std::move(request), [heard = heard](http::Response response) {
                  const std::string outcome = response.error ? toString(response.error) : "success";
                  heard->outcome = heard->outcome == "none" ? outcome : heard->outcome + ", " + outcome;
                  heard->response = std::move(response);
              })) {}

    bool execute() { return handle->execute(error); }
    const std::string& outcome() {
        handle->waitForCompletion();
        return heard->outcome;
    }
    [[nodiscard]] bool isResponderGone() const { return heard.use_count() == 1; }

    std::shared_ptr<transfer::TransferEngine> engine;
    std::shared_ptr<Heard> heard = std::make_shared<Heard>();
    std::shared_ptr<transfer::RequestHandle> handle;
    std::error_code error;
};

inline constexpr const char* kSuccess = "success";
inline constexpr const char* kCancelled = "velmora_http_error:4";
inline constexpr const char* kRetriable = "velmora_http_error:5";

}  // namespace velmora::test
