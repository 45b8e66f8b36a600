#include "service/selby/trackingflag.h"

#include "core/utils/strings.h"
#include "deployment.h"

namespace velmora::service::selby {

void TrackingFlagParser::onString(const std::string& name, const std::string& value) {
    if (name == "tracking_flag") flag_.trackingFlag = value;
}

bool isPII(const std::string& flag) { return equalsIgnoringCase(flag, "PII"); }

http::Request makeTrackingFlagRequest(const std::string& baseUrl, const std::string& accessToken) {
    http::Request request;
    request.url = http::joinUrl(baseUrl, "fetch_user_tracking_flag");
    request.headers["Access-Token"] = accessToken;
    return request;
}

std::string defaultBaseUrl(Environment environment) {
    const bool stage = environment == Environment::stage;
    return std::string("https://") + (stage ? VELMORA_PERMISSION_STAGE_HOST : VELMORA_PERMISSION_PROD_HOST);
}

}  // namespace velmora::service::selby
