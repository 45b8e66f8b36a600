#include "service/oswin/profile.h"

#include "deployment.h"

namespace velmora::service::oswin {
namespace {

class ServiceAccountParser : public JsonDefaultParser {
public:
    explicit ServiceAccountParser(ServiceAccount& account) : account_(account) {}
    void onString(const std::string& name, const std::string& value) override {
        if (name == "ident") account_.ident = value;
        if (name == "serviceCode") account_.serviceCode = value;
        if (name == "serviceLevel") account_.serviceLevel = value;
        if (name == "serviceStatus") account_.serviceStatus = value;
    }

private:
    ServiceAccount& account_;
};

}  // namespace

void ProfileParser::onString(const std::string& name, const std::string& value) {
    if (name == "account_type") profile_.accountType = value;
    if (name == "userId") profile_.userId = value;
    if (name == "mrktPerm") profile_.mrktPerm = value;
    if (name == "mrktPermEmail") profile_.mrktPermEmail = value;
}

std::shared_ptr<JsonParser> ProfileParser::onArray(const std::string& name) {
    if (name == "preferred_languages") {
        return std::make_shared<ArrayParser<std::string, void>>(profile_.preferredLanguages);
    }
    if (name == "serviceAccounts") {
        return std::make_shared<ArrayParser<ServiceAccount, ServiceAccountParser>>(profile_.serviceAccounts);
    }
    return JsonDefaultParser::onArray(name);
}

http::Request makeProfileRequest(const std::string& baseUrl, const std::string& accessToken) {
    http::Request request;
    request.url = http::joinUrl(baseUrl, "oswin/profile");
    request.headers["Authorization"] = "Bearer " + accessToken;
    return request;
}

std::string defaultBaseUrl(Environment environment) {
    const bool stage = environment == Environment::stage;
    return std::string("https://") + (stage ? VELMORA_IDENTITY_STAGE_HOST : VELMORA_IDENTITY_PROD_HOST);
}

}  // namespace velmora::service::oswin
