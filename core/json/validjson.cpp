#include "core/json/validjson.h"

#include <rapidjson/error/en.h>

#include "core/json/jsontext.h"
#include "core/json/parsetext.h"
#include "core/types/logger.h"

namespace velmora {
namespace {

// Keeps nothing but the kind of the root, which is known by the first event.
class RootKind : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RootKind> {
public:
    bool Default() { return seen_ = true; }
    bool StartObject() {
        isObject_ = isObject_ || !seen_;
        return Default();
    }

    [[nodiscard]] bool isObject() const { return isObject_; }

private:
    bool seen_ = false;
    bool isObject_ = false;
};

rapidjson::ParseResult check(const std::string& text, RootKind& root) {
    NestingLimit<RootKind> limited(root, kMaxNesting);
    return readText(text, limited);
}

}  // namespace

void logInvalidJson(const std::string& text, const rapidjson::ParseResult& result) {
    VELMORA_LOG_AT(warn, "json", "velmora::validJSON")
        << "invalid json=" << text << " parse err='" << rapidjson::GetParseError_En(result.Code()) << "' at "
        << result.Offset();
}

bool validJSON(const std::string& text) {
    RootKind root;
    const rapidjson::ParseResult result = check(text, root);
    if (!result.IsError() && root.isObject()) return true;
    logInvalidJson(text, result);
    return false;
}

bool validJSONValue(const std::string& text) {
    RootKind root;
    const rapidjson::ParseResult result = check(text, root);
    if (!result.IsError()) return true;
    logInvalidJson(text, result);
    return false;
}

}  // namespace velmora
