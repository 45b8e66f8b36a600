// What the identity service knows of a user, its parser and its request.
#pragma once

#include <string>
#include <vector>

#include "core/http/message.h"
#include "core/json/jsonparser.h"
#include "core/types/types.h"

namespace velmora::service::oswin {

struct ServiceAccount {
    std::string ident;
    std::string serviceCode;
    std::string serviceLevel;
    std::string serviceStatus;
};

// Fields that the service did not send, or sent as another JSON type, are empty.
struct Profile {
    std::string accountType;
    std::vector<std::string> preferredLanguages;
    std::vector<ServiceAccount> serviceAccounts;
    std::string userId;
    std::string mrktPerm;
    std::string mrktPermEmail;
};

class ProfileParser : public JsonDefaultParser {
public:
    explicit ProfileParser(Profile& profile) : profile_(profile) {}
    void onString(const std::string& name, const std::string& value) override;
    std::shared_ptr<JsonParser> onArray(const std::string& name) override;

private:
    Profile& profile_;
};

[[nodiscard]] http::Request makeProfileRequest(const std::string& baseUrl, const std::string& accessToken);

// The default base URL of the identity service.
[[nodiscard]] std::string defaultBaseUrl(Environment environment);

}  // namespace velmora::service::oswin
