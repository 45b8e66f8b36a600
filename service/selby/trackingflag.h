// Whether a user may be tracked, as the tracking service says; its parser and its request.
#pragma once

#include <string>

#include "core/http/message.h"
#include "core/json/jsonparser.h"
#include "core/types/types.h"

namespace velmora::service::selby {

struct TrackingFlag {
    std::string trackingFlag;
};

class TrackingFlagParser : public JsonDefaultParser {
public:
    explicit TrackingFlagParser(TrackingFlag& flag) : flag_(flag) {}
    void onString(const std::string& name, const std::string& value) override;

private:
    TrackingFlag& flag_;
};

// "PII" in any case.
[[nodiscard]] bool isPII(const std::string& flag);

[[nodiscard]] http::Request makeTrackingFlagRequest(const std::string& baseUrl, const std::string& accessToken);

// The default base URL of the tracking service.
[[nodiscard]] std::string defaultBaseUrl(Environment environment);

}  // namespace velmora::service::selby
